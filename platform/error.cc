#include "vela/vlib_error.h"

#include <cstdio>

namespace {

// Per thread, like errno: two threads never see each other's errors.
struct ErrorRecord {
  int code = VLIB_ERR_NONE;
  char file[256] = "";
  int line = 0;
};

thread_local ErrorRecord gLastError;

}  // namespace

void VLIBCErrSetEx(int code, const char* file, int line) {
  gLastError.code = code;
  snprintf(gLastError.file, sizeof(gLastError.file), "%s", file ? file : "");
  gLastError.line = line;
}

int VLIBCErrGet(void) { return gLastError.code; }

const char* VLIBCErrorGetFile(void) { return gLastError.file; }

int VLIBCErrorGetLine(void) { return gLastError.line; }
