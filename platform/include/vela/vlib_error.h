// The platform's error record: the last error code of the calling thread and
// the source place that set it. Platform calls set it when they fail; callers
// may set it themselves with VLIBCErrSetEx and read it back for log lines.
#ifndef VELA_VLIB_ERROR_H_
#define VELA_VLIB_ERROR_H_

#include "vela/vlib_types.h"

// Error codes. The numbers are the platform's and appear in log lines.
#define VLIB_ERR_NONE 0x0000
#define VLIB_ERR_OUT_OF_MEMORY 0x0200
#define VLIB_ERR_BUSY 0x0400            // transient: the caller may retry
#define VLIB_ERR_SYSTEM 0x0900          // a system call failed; errno tells why
#define VLIB_ERR_BAD_PARAMETERS 0x0D00  // invalid argument
#define VLIB_ERR_NOT_FOUND 0x1400       // no such object (share, entry, file)
#define VLIB_ERR_EXISTS 0x1500          // the object exists already
#define VLIB_ERR_WRITABLE 0x1600        // a writable subvolume where only a read-only one will do
#define VLIB_ERR_OPERATION_FAILED 0x2A00  // a conversion or external command failed
#define VLIB_ERR_BAD_VOLUME_PATH 0xBE00   // a path not under a volume
#define VLIB_ERR_BAD_FS_TYPE 0xD900       // volume of the wrong file-system kind

#ifdef __cplusplus
extern "C" {
#endif

// Records `code` as the last error, set at `file`:`line`. `file` is copied.
VELA_PLATFORM_API void VLIBCErrSetEx(int code, const char* file, int line);
// The last error code of this thread (VLIB_ERR_NONE when none was set).
VELA_PLATFORM_API int VLIBCErrGet(void);
// Where the last error was set; "" and 0 when none was.
VELA_PLATFORM_API const char* VLIBCErrorGetFile(void);
VELA_PLATFORM_API int VLIBCErrorGetLine(void);

#ifdef __cplusplus
}
#endif

// Sets the error with the caller's own source place.
#define VLIBCErrSet(code) VLIBCErrSetEx((code), __FILE__, __LINE__)

#endif  // VELA_VLIB_ERROR_H_
