// File and directory queries and operations.
#ifndef VELA_VLIB_FILE_H_
#define VELA_VLIB_FILE_H_

#include "vela/vlib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// 1 when `path` exists (any kind of file, links followed), 0 when it does
// not, -1 with the error set for a NULL path or a failed lookup.
VELA_PLATFORM_API int VLIBCFileExist(const char* path);
// TRUE when `path` is an existing directory (links followed).
VELA_PLATFORM_API BOOL VLIBCFileCheckDir(const char* path);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VLIB_FILE_H_
