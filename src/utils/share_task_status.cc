#include "velabtrfssnapusage/share_task_status.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "intl_utils/make_dirs.h"
#include "vela/vlib_file.h"

namespace VelaBtrfsUsage {

namespace {

constexpr char kLogSource[] = "utils/share_task_status";

void UnlinkLogged(const std::string& path) {
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    VELA_LOG(LOG_ERR, "Failed to unlink file (%s) err:(%s) ", path.c_str(), strerror(errno));
  }
}

}  // namespace

ShareTaskStatus::ShareTaskStatus() = default;

ShareTaskStatus::~ShareTaskStatus() = default;

bool ShareTaskStatus::Init(const std::string& name, bool create) {
  if (name.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return false;
  }
  if (!VELA_ENSURE_DIRECTORIES(VELA_PERSISTENT_DIR, VELA_LOCK_DIR, VELA_SHARE_TASK_STATUS_DIR,
                               VELA_SHARE_TASK_STATUS_LOCK_DIR)) {
    return false;
  }
  shareName = name;
  filePath = FileNames::ShareTaskStatusFile(name);
  lockPath = FileNames::ShareTaskStatusLock(name);
  if (!create) return true;
  if (CheckAttrExist(TASKSTATUS_ATTR_STATUS)) return true;
  if (SetCalculatorStatus(CAL_TASK_STATUS_READY) == TASK_STATUS_SUCCESS) return true;
  VELA_LOG(LOG_ERR, "Failed to initialize status of ShareTaskStatus, share:[%s]", name.c_str());
  return false;
}

bool ShareTaskStatus::CleanShareStatus(const std::string& name) {
  if (name.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return false;
  }
  UnlinkLogged(FileNames::ShareTaskStatusFile(name));
  UnlinkLogged(FileNames::ShareTaskStatusLock(name));
  return true;
}

bool ShareTaskStatus::CheckShareStatusFile(const std::string& name) {
  if (name.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return false;
  }
  return VLIBCFileExist(FileNames::ShareTaskStatusFile(name).c_str()) == 1;
}

}  // namespace VelaBtrfsUsage
