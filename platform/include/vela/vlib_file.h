// File and directory queries and operations.
#ifndef VELA_VLIB_FILE_H_
#define VELA_VLIB_FILE_H_

#include "vela/vlib_szlist.h"
#include "vela/vlib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// 1 when `path` exists (any kind of file, links followed), 0 when it does
// not, -1 with the error set for a NULL path or a failed lookup.
VELA_PLATFORM_API int VLIBCFileExist(const char* path);
// TRUE when `path` is an existing directory (links followed).
VELA_PLATFORM_API BOOL VLIBCFileCheckDir(const char* path);
// Pushes the names (not paths) of the entries of directory `dir`, except
// "." and "..", onto *ppList, in ascending byte order, at most `max` of them
// (all when `max` <= 0). `flags` must be 0. Returns the number pushed, or -1
// with the error set (VLIB_ERR_NOT_FOUND for a missing directory).
VELA_PLATFORM_API int VLIBCFileEnumDir(const char* dir, int flags, PVLIBSZLIST* ppList, int max);
// Copies the regular file `src` to `dst`, replacing `dst` atomically (a
// reader sees the old file or the whole new one) with the source's mode
// bits. `flags` must be 0. 0, or -1 with the error set.
VELA_PLATFORM_API int VELAFileCopy(const char* src, const char* dst, int flags);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VLIB_FILE_H_
