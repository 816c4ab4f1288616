// The status record of a whole share's calculation: a TaskStatus kept per
// share name under the persistent state directory, so that a share's last
// result outlives a restart.
#ifndef VELABTRFSSNAPUSAGE_SHARE_TASK_STATUS_H_
#define VELABTRFSSNAPUSAGE_SHARE_TASK_STATUS_H_

#include <string>

#include "velabtrfssnapusage/export.h"
#include "velabtrfssnapusage/task_status.h"

namespace VelaBtrfsUsage {

class VELA_EXPORT ShareTaskStatus : public TaskStatus {
 public:
  ShareTaskStatus();
  ~ShareTaskStatus() override;

  // Binds the object to a share (every call rebuilds the paths). With
  // `create`, a record without "status" is created as "ready".
  bool Init(const std::string& shareName, bool create) override;
  // Removes the share's status file and lock file; true unless the name is
  // empty.
  static bool CleanShareStatus(const std::string& shareName);
  // Whether the share has a status file.
  static bool CheckShareStatusFile(const std::string& shareName);

 private:
  std::string shareName;
};

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_SHARE_TASK_STATUS_H_
