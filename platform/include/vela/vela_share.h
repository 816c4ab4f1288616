// Shares and their snapshots.
//
// A share is a btrfs subvolume directly under a volume's mount point,
// "/volumeN/NAME", whose name does not begin with "." or "@". Its snapshot
// directory is "/volumeN/@snapshots/NAME". A snapshot is a read-only btrfs
// snapshot of the share in that directory, named by the time it was taken:
// "GMT+08-2024.03.05-17.04.09" (local time with its offset; "+0530" for a
// zone off the hour) or "GMT-2024.03.05-09.04.09" (UTC).
#ifndef VELA_VELA_SHARE_H_
#define VELA_VELA_SHARE_H_

#include <time.h>

#include "vela/vlib_szlist.h"
#include "vela/vlib_types.h"

typedef struct _tag_VELASHARE {
  char szName[256];      // the share's name
  char szPath[4096];     // "/volumeN/NAME"
  char szVolPath[64];    // "/volumeN"
  int volume;            // N
} VELASHARE, *PVELASHARE;

// A chain of snapshot selectors; a NULL pointer is the empty chain.
typedef struct _tag_VELASNAPSELECTOR VELASNAPSELECTOR, *PVELASNAPSELECTOR;
// A selector kind: 1 when the snapshot named `szSnapName` passes the
// selector argument `szArg`, 0 when it does not, -1 when it cannot tell.
typedef int (*VELASNAPSELECTOR_FN)(const char* szSnapName, const char* szArg);

#ifdef __cplusplus
extern "C" {
#endif

// Finds the share named exactly `szName` on the mounted volumes (the lowest
// volume wins if two carry the name). 0 and a new record in *ppShare (free
// it with VELAShareFree), or -1 with VLIB_ERR_NOT_FOUND when there is no
// such share, a name beginning with "." or "@" included
// (VLIB_ERR_BAD_PARAMETERS for NULL, "", ".", ".." or a name with "/";
// VLIB_ERR_SYSTEM otherwise).
VELA_PLATFORM_API int VELAShareGet(const char* szName, PVELASHARE* ppShare);
// NULL is accepted.
VELA_PLATFORM_API void VELAShareFree(PVELASHARE pShare);
// Pushes the names of the shares of every mounted volume onto *ppList, by
// volume, then by name. `flags` selects share kinds on the NAS; here every
// share is listed whatever the flags. The number pushed, or -1.
VELA_PLATFORM_API int VELAShareEnum(PVLIBSZLIST* ppList, int flags);

// The time selector kind. Its argument is an operator (">=", "<=", ">",
// "<" or "=") followed by a snapshot name; a snapshot passes when its time
// compares so with the time of that name.
VELA_PLATFORM_API int VELAShareSnapTimeSelector(const char* szSnapName, const char* szArg);
// Appends a selector to the chain. 0, or -1 with VLIB_ERR_BAD_PARAMETERS
// when the argument is not one the kind understands (the kind answers -1
// for it with a valid snapshot name).
VELA_PLATFORM_API int VELAShareSnapSelectorAdd(PVELASNAPSELECTOR* ppSelectors, VELASNAPSELECTOR_FN fn,
                                               const char* szArg);
// Frees a chain. NULL is accepted.
VELA_PLATFORM_API void VELAShareSnapEnumFree(PVELASNAPSELECTOR pSelectors);
// Pushes onto *ppNames the names of the share's snapshots that pass every
// selector of the chain, oldest first. Entries of the snapshot directory
// that are not read-only subvolumes, or whose names are not snapshot names,
// are skipped. A missing snapshot directory has no snapshots. The number
// pushed, or -1 with the error set.
VELA_PLATFORM_API int VELAShareSnapList(PVELASHARE pShare, PVLIBSZLIST* ppNames,
                                        PVELASNAPSELECTOR pSelectors);
// Writes the share's snapshot directory into `buf`, creating it (and
// "/volumeN/@snapshots") when missing. `flags` must be 0. 1 on success;
// 0 or -1 with the error set otherwise: VLIB_ERR_NOT_FOUND when the share
// is no longer there (nothing is created then), VLIB_ERR_BAD_PARAMETERS
// when the path does not fit in `size` bytes.
VELA_PLATFORM_API int VELAShareSnapGetOrCreateSnapDir(PVELASHARE pShare, char* buf, int size, int flags);
// The time of a snapshot name, in seconds since the epoch, honouring its
// offset. 0, or -1 with VLIB_ERR_BAD_PARAMETERS when it is not a snapshot
// name.
VELA_PLATFORM_API int VELAShareSnapTimeGet(const char* szSnapName, time_t* pTime);

// Administration on plain Linux (used by the vela-share tool, not by the
// module): creates the share "/volumeN/NAME" as a new subvolume; takes a
// read-only snapshot of a share named `szSnapName` (a snapshot name); deletes
// one. 0, or -1 with the error set (VLIB_ERR_EXISTS for a taken name,
// VLIB_ERR_BAD_FS_TYPE for a volume that is not btrfs, VLIB_ERR_NOT_FOUND
// for a missing volume or snapshot, VLIB_ERR_BAD_PARAMETERS for a bad name).
// Shares are found by name alone, so a share name is taken while any volume
// has a share of that name, or "/volumeN" has any entry of that name. Only
// what VELAShareSnapList would list is deleted: anything else in the
// snapshot directory is VLIB_ERR_NOT_FOUND to VELAShareSnapDelete.
VELA_PLATFORM_API int VELAShareCreate(int volume, const char* szName);
VELA_PLATFORM_API int VELAShareSnapCreate(PVELASHARE pShare, const char* szSnapName);
VELA_PLATFORM_API int VELAShareSnapDelete(PVELASHARE pShare, const char* szSnapName);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VELA_SHARE_H_
