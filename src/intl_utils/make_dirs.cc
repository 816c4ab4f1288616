#include "intl_utils/make_dirs.h"

#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>

#include "vela/vlib_error.h"
#include "vela/vlib_file.h"

namespace VelaBtrfsUsage::Utils {

bool EnsureDirectories(std::initializer_list<const char*> dirs, const char* logSource, int line) {
  for (const char* dir : dirs) {
    if (VLIBCFileCheckDir(dir)) continue;
    if (mkdir(dir, 0777) != 0 && errno != EEXIST) {
      syslog(LOG_ERR, "%s:%d Faild to mkdir %s, err:(%s).[0x%04X %s:%d]", logSource, line, dir,
             strerror(errno), VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine());
      return false;
    }
  }
  return true;
}

}  // namespace VelaBtrfsUsage::Utils
