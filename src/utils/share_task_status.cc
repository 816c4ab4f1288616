#include "velabtrfssnapusage/share_task_status.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "intl_utils/state_files.h"
#include "vela/vlib_file.h"

namespace VelaBtrfsUsage {

namespace {

constexpr char kLogSource[] = "utils/share_task_status";

void UnlinkLogged(const std::string& path) {
  if (!Utils::RemoveStateFile(path)) {
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
  // The name becomes a file name written as root. Directories are made by
  // the first write: opening a record to read it leaves nothing behind.
  if (!Utils::IsPathComponent(name)) return false;
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
  if (!Utils::IsPathComponent(name)) return false;
  UnlinkLogged(FileNames::ShareTaskStatusFile(name));
  UnlinkLogged(FileNames::ShareTaskStatusLock(name));
  // What a writer that died left: the record's next writer is gone too.
  if (!Utils::RemoveStateFileTemporary(FileNames::ShareTaskStatusFile(name))) {
    VELA_LOG(LOG_ERR, "Failed to unlink file (%s) err:(%s) ", FileNames::ShareTaskStatusFile(name).c_str(),
             strerror(errno));
  }
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
