// Btrfs subvolumes, as the calculator identifies the snapshots it is given.
#ifndef VELA_VELA_SUBVOL_H_
#define VELA_VELA_SUBVOL_H_

#include "vela/vlib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// 1 when `szPath` (links followed) is the root directory of a btrfs
// subvolume, 0 when it is not (another file system, or a directory that
// is no subvolume's root), -errno when it cannot be examined, and -1 with
// VLIB_ERR_BAD_PARAMETERS for NULL. Nothing is opened, so a FIFO there
// cannot hang the caller.
VELA_PLATFORM_API int VELASubvolTest(const char* szPath);
// The ID of the subvolume holding the open file or directory `fd`. 0, or
// -1 with VLIB_ERR_SYSTEM and errno telling why.
VELA_PLATFORM_API int VELASubvolIdGet(int fd, unsigned long long* pId);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VELA_SUBVOL_H_
