// Shares and their snapshots.
//
// A share is a btrfs subvolume of a volume that keeps data, wherever it
// lies in the file system (right under "/volumeN", "@home", "@/srv/data").
// Its snapshots are the subvolumes whose parent UUID is the share's UUID,
// wherever they lie and whatever they are called; their time is their
// creation time. Which subvolumes are shares and which are snapshots, and
// how shares are named, is told in subvolume_catalogue.h and
// share_catalogue.h of the platform's sources and in the README.
//
// Listings name each snapshot by its creation time in UTC,
// "GMT-2024.03.05-09.04.09", with "_" + its subvolume ID after that when an
// older snapshot of the share was made in the same second. Snapshot names
// in general also come in local time with the zone's offset:
// "GMT+08-2024.03.05-17.04.09" ("+0530" for a zone off the hour).
//
// Listing needs root (CAP_SYS_ADMIN): it reads the file system's trees.
#ifndef VELA_VELA_SHARE_H_
#define VELA_VELA_SHARE_H_

#include <stddef.h>
#include <time.h>

#include "vela/vlib_szlist.h"
#include "vela/vlib_types.h"

typedef struct _tag_VELASHARE {
  char szName[256];             // the share's name
  char szPath[4096];            // its subvolume: "/volumeN/PATH"
  char szVolPath[64];           // "/volumeN"
  int volume;                   // N
  unsigned long long subvolId;  // its subvolume's ID
  unsigned char uuid[16];       // its subvolume's UUID: its snapshots' parent UUID
} VELASHARE, *PVELASHARE;

// One snapshot of a share, as listings show it.
typedef struct _tag_VELASNAPINFO {
  char szName[64];              // its name in listings (see above)
  time_t time;                  // its creation time, seconds since the epoch
  unsigned long long subvolId;  // its subvolume's ID
  BOOL readOnly;
  // The tool that made it, told from where it lies: "snapper", "timeshift",
  // "btrbk", "vela-share" or "other".
  char szTool[16];
  char szPath[4096];            // where it lies: "/volumeN/PATH"
} VELASNAPINFO, *PVELASNAPINFO;

// A chain of snapshot selectors; a NULL pointer is the empty chain.
typedef struct _tag_VELASNAPSELECTOR VELASNAPSELECTOR, *PVELASNAPSELECTOR;
// A selector kind: 1 when the snapshot named `szSnapName` passes the
// selector argument `szArg`, 0 when it does not, -1 when it cannot tell.
typedef int (*VELASNAPSELECTOR_FN)(const char* szSnapName, const char* szArg);

#ifdef __cplusplus
extern "C" {
#endif

// Whether `length` bytes at `sz` could name a share: 1 to 255 bytes, no
// "/" or NUL, not "." or "..". Says nothing of whether the share exists.
VELA_PLATFORM_API BOOL VELAShareNameIsValid(const char* sz, size_t length);

// Finds the share named exactly `szName` on the mounted volumes. 0 and a
// new record in *ppShare (free it with VELAShareFree), or -1 with
// VLIB_ERR_NOT_FOUND when there is no such share (VLIB_ERR_BAD_PARAMETERS
// for NULL, "", ".", ".." or a name with "/"; VLIB_ERR_SYSTEM otherwise).
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
// selector of the chain, oldest first. The number pushed, or -1 with the
// error set (VLIB_ERR_NOT_FOUND when the share is no longer there).
VELA_PLATFORM_API int VELAShareSnapList(PVELASHARE pShare, PVLIBSZLIST* ppNames,
                                        PVELASNAPSELECTOR pSelectors);
// Every snapshot of the share, oldest first, in a new array in *ppInfo
// (free it with VELAShareSnapInfoFree; NULL when there are none). The
// number of snapshots, or -1 with the error set as VELAShareSnapList does.
VELA_PLATFORM_API int VELAShareSnapInfoList(PVELASHARE pShare, PVELASNAPINFO* ppInfo);
// NULL is accepted.
VELA_PLATFORM_API void VELAShareSnapInfoFree(PVELASNAPINFO pInfo);
// Writes into `buf` the share's snapshot directory, in which each of its
// snapshots is found by its listed name, and brings that directory up to
// date with the share's snapshots (it lies outside the file system:
// "/run/vela-snapshots/volumeN/SHARE", of links to the snapshots). `flags`
// must be 0. 1 on success; -1 with the error set otherwise:
// VLIB_ERR_NOT_FOUND when the share is no longer there (nothing is created
// then), VLIB_ERR_BAD_PARAMETERS when the path does not fit in `size` bytes.
VELA_PLATFORM_API int VELAShareSnapGetOrCreateSnapDir(PVELASHARE pShare, char* buf, int size, int flags);
// The time of a snapshot name, in seconds since the epoch, honouring its
// offset (and a listing's "_ID" after it). 0, or -1 with
// VLIB_ERR_BAD_PARAMETERS when it is not a snapshot name.
VELA_PLATFORM_API int VELAShareSnapTimeGet(const char* szSnapName, time_t* pTime);
// Writes the snapshot name of `t` into `buf`: with `localTime` exactly TRUE
// in local time ("GMT+08-...", "GMT+0530-..."), with any other value in UTC
// ("GMT-..."). A buffer too small gets an empty name. 0, or -1 with the
// error set (VLIB_ERR_BAD_PARAMETERS for NULL, VLIB_ERR_OPERATION_FAILED
// for a time that does not convert).
VELA_PLATFORM_API int VELAShareSnapNameMake(time_t t, BOOL localTime, char* buf, size_t size);

// Administration on plain Linux (used by the vela-share tool, not by the
// module): creates the share "/volumeN/NAME" as a new subvolume; takes a
// read-only snapshot of a share as "/volumeN/@snapshots/SHARE/NAME", NAME a
// snapshot name; deletes one such snapshot, named as listings name it. 0,
// or -1 with the error set (VLIB_ERR_EXISTS for a taken name,
// VLIB_ERR_BAD_FS_TYPE for a volume that is not btrfs, VLIB_ERR_NOT_FOUND
// for a missing volume, share or snapshot, VLIB_ERR_BAD_PARAMETERS for a
// bad name). A share name is taken while any volume has a share of that
// name, or "/volumeN" has any entry of that name; names beginning with "."
// are the system's. Snapshots other tools made are theirs to delete:
// VELAShareSnapDelete finds only those of VELAShareSnapCreate.
VELA_PLATFORM_API int VELAShareCreate(int volume, const char* szName);
VELA_PLATFORM_API int VELAShareSnapCreate(PVELASHARE pShare, const char* szSnapName);
VELA_PLATFORM_API int VELAShareSnapDelete(PVELASHARE pShare, const char* szSnapName);

// Deletes the snapshot of the share with subvolume ID `subvolId`,
// whichever tool took it, provided it is read-only: writable ones may be in
// use as data, and nothing but a snapshot of this share is ever deleted.
// Snapshots are named by ID because listed names shift: the second of two
// snapshots taken in one second loses its "_ID" once the first is gone.
// The subvolume is looked at last by that ID and deleted by it, so no path
// renamed in between can lead elsewhere. Other tools' own records of the
// snapshot (a description file beside it) are left as they are. 0, or -1
// with the error set: VLIB_ERR_NOT_FOUND when it is no snapshot of the
// share (or the share is gone), VLIB_ERR_WRITABLE when it is not
// read-only, VLIB_ERR_BUSY when the file system refuses because it is in
// use (the default subvolume, being sent) or holds subvolumes of its own,
// VLIB_ERR_SYSTEM otherwise (errno tells why).
VELA_PLATFORM_API int VELAShareSnapDeleteReadOnly(PVELASHARE pShare, unsigned long long subvolId);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VELA_SHARE_H_
