// Volumes: btrfs (or other) file systems mounted at "/volumeN", N >= 1.
#ifndef VELA_VELA_VOLUME_H_
#define VELA_VELA_VOLUME_H_

#include "vela/vlib_types.h"

// File-system kinds of a mounted volume.
#define VELA_FS_TYPE_UNKNOWN 0
#define VELA_FS_TYPE_EXT4 1
#define VELA_FS_TYPE_XFS 2
#define VELA_FS_TYPE_BTRFS 3

typedef struct _tag_VOLUME_PATH_INFO {
  int volume;            // N of "/volumeN"
  char szVolPath[64];    // "/volumeN"
} VOLUME_PATH_INFO, *PVOLUME_PATH_INFO;

typedef struct _tag_VELAMOUNTVOLINFO {
  int volume;             // N of the volume's mount point "/volumeN"
  int fsType;             // VELA_FS_TYPE_*
  char szMountPath[64];   // "/volumeN"
  char szDevice[256];     // the mounted device
} VELAMOUNTVOLINFO, *PVELAMOUNTVOLINFO;

#ifdef __cplusplus
extern "C" {
#endif

// The volume of an absolute path "/volumeN" or "/volumeN/...", read from
// the path's text alone (N decimal, without leading zeros, 1 to INT_MAX).
// 0, or -1 with VLIB_ERR_BAD_VOLUME_PATH for any other path
// (VLIB_ERR_BAD_PARAMETERS for NULL).
VELA_PLATFORM_API int VolumePathParseEx(const char* szPath, PVOLUME_PATH_INFO pInfo);
// The volume number and file-system kind of the mount holding `szPath`
// (links resolved): the visible mount whose mount point is the longest
// prefix of the path. 0, or -1 with the error set: VLIB_ERR_NOT_FOUND when
// the path does not exist, VLIB_ERR_BAD_VOLUME_PATH when the mount holding
// it is not mounted exactly at a "/volumeN".
VELA_PLATFORM_API int VELAMountVolInfoGet(const char* szPath, PVELAMOUNTVOLINFO pInfo);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VELA_VOLUME_H_
