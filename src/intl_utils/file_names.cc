#include "intl_utils/file_names.h"

#include "base/file_name.h"

namespace VelaBtrfsUsage::FileNames {

std::string ShareTaskLock(const std::string& shareName) {
  return VELA_SHARE_TASK_LOCK_DIR "/" + vela::base::FitFileName("", shareName, ".lock");
}

}  // namespace VelaBtrfsUsage::FileNames
