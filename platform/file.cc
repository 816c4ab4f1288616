#include "vela/vlib_file.h"

#include <sys/stat.h>

#include <cerrno>

#include "vela/vlib_error.h"

int VLIBCFileExist(const char* path) {
  if (path == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  struct stat st;
  if (stat(path, &st) == 0) return 1;
  if (errno == ENOENT || errno == ENOTDIR) return 0;
  VLIBCErrSet(VLIB_ERR_SYSTEM);
  return -1;
}

BOOL VLIBCFileCheckDir(const char* path) {
  if (path == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return FALSE;
  }
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? TRUE : FALSE;
}
