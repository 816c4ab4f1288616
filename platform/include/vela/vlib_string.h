// String helpers.
#ifndef VELA_VLIB_STRING_H_
#define VELA_VLIB_STRING_H_

#include "vela/vlib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// Removes white space at both ends of `sz`, in place. 0, or -1
// (VLIB_ERR_BAD_PARAMETERS) for NULL.
VELA_PLATFORM_API int VLIBCStrTrimSpace(char* sz);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VLIB_STRING_H_
