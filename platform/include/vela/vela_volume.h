// Volumes: file systems mounted at "/volumeN", N >= 1.
//
// A btrfs file system mounted there by any means is a volume. Any other
// mounted btrfs file system can be made one ("adopted"): its top level is
// mounted a second time, at "/volumeN", with the options of the mount it
// was found through, and the choice is kept in the volume settings file
// (/usr/local/etc/vela-volumes.conf as installed) that "vela-share volume
// restore" reads at boot. Adopting changes nothing inside the file system.
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

// A volume as listings show it.
typedef struct _tag_VELAVOLUME {
  int volume;                       // N
  char szPath[64];                  // "/volumeN"
  BOOL mounted;                     // something is mounted at szPath
  BOOL adopted;                     // kept in the volume settings
  int fsType;                       // VELA_FS_TYPE_*, of what is mounted
  char szDevice[256];               // the mounted device ("" when not mounted)
  char szUuid[40];                  // the btrfs file system's UUID ("" when not known)
  unsigned long long sizeBytes;     // size and space free for new data, 0 when not mounted
  unsigned long long freeBytes;
} VELAVOLUME, *PVELAVOLUME;

#ifdef __cplusplus
extern "C" {
#endif

// The volume of a path "/volumeN" or "/volumeN/...", read from the path's
// text alone (N decimal, without leading zeros, 1 to INT_MAX); a path in a
// share's snapshot directory ("/run/vela-snapshots/volumeN/SHARE/...")
// names volume N too. 0, or -1 with VLIB_ERR_BAD_VOLUME_PATH for any other
// path (VLIB_ERR_BAD_PARAMETERS for NULL). szVolPath is "/volumeN" either way.
VELA_PLATFORM_API int VolumePathParseEx(const char* szPath, PVOLUME_PATH_INFO pInfo);
// The volume number and file-system kind of the mount holding `szPath`
// (links resolved): the visible mount whose mount point is the longest
// prefix of the path. 0, or -1 with the error set: VLIB_ERR_NOT_FOUND when
// the path does not exist, VLIB_ERR_BAD_VOLUME_PATH when the mount holding
// it is not mounted exactly at a "/volumeN".
VELA_PLATFORM_API int VELAMountVolInfoGet(const char* szPath, PVELAMOUNTVOLINFO pInfo);
// Writes "/volumeN" into `buf`. 0, or -1 with VLIB_ERR_BAD_PARAMETERS for
// N < 1 or a buffer too small.
VELA_PLATFORM_API int VELAVolumePathGet(int volume, char* buf, int size);

// Every volume, mounted or adopted, by number, in a new array in
// *ppVolumes (free it with VELAVolumeEnumFree; NULL when there is none).
// The number of volumes, or -1 with the error set.
VELA_PLATFORM_API int VELAVolumeEnum(PVELAVOLUME* ppVolumes);
// NULL is accepted.
VELA_PLATFORM_API void VELAVolumeEnumFree(PVELAVOLUME pVolumes);
// Adopts the mounted btrfs file system holding `szPath` as volume
// `volume` (0: the lowest number free) and writes its number into
// *pVolume. 0, or -1 with the error set: VLIB_ERR_BAD_FS_TYPE when the path
// is not on btrfs, VLIB_ERR_EXISTS when the file system is a volume
// already or "/volumeN" is taken (something mounted there, or a directory
// that is not empty), VLIB_ERR_NOT_FOUND for a path that does not exist,
// VLIB_ERR_BAD_PARAMETERS for a bad number or an unreadable settings file,
// VLIB_ERR_SYSTEM (errno) when mounting or writing the settings failed.
VELA_PLATFORM_API int VELAVolumeAdopt(const char* szPath, int volume, int* pVolume);
// Undoes an adoption: unmounts "/volumeN" (when it is that file system)
// and forgets it. No data is touched. 0, or -1 with the error set:
// VLIB_ERR_NOT_FOUND when volume N is not adopted, VLIB_ERR_BUSY when the
// file system at "/volumeN" is in use (nothing is changed then).
VELA_PLATFORM_API int VELAVolumeRelease(int volume);
// Mounts adopted volume N again when it is not mounted, from a mount of
// the same file system elsewhere or from its device. 0 (also when it was
// mounted already), or -1 with the error set: VLIB_ERR_NOT_FOUND when N is
// not adopted or the file system is nowhere to be found, VLIB_ERR_EXISTS
// when something else is mounted at "/volumeN".
VELA_PLATFORM_API int VELAVolumeRestore(int volume);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VELA_VOLUME_H_
