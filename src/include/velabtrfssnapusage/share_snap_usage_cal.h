// The share calculation manager: everything said of a share. The
// share-to-task map (a JSON file every process goes through to get from a
// share to its task and back), creating and launching a calculation over a
// time range of the share's snapshots, the calculator child's call-backs,
// the share's persistent results, stop and clean-up.
#ifndef VELABTRFSSNAPUSAGE_SHARE_SNAP_USAGE_CAL_H_
#define VELABTRFSSNAPUSAGE_SHARE_SNAP_USAGE_CAL_H_

#include <string>
#include <vector>

#include "vela/vlib_szlist.h"
#include "vela/vlib_types.h"
#include "velabtrfssnapusage/export.h"
#include "velabtrfssnapusage/share_task_status.h"
#include "velabtrfssnapusage/snap_usage_cal.h"
#include "velabtrfssnapusage/types.h"

namespace VelaBtrfsUsage {

// Result codes of the manager's integer operations.
enum SHARE_SNAP_USAGE_CAL_CODE {
  SHARE_CAL_SUCCESS = 0,
  SHARE_CAL_FAIL = 1,
  SHARE_CAL_INVALID_ARGUMENT = 3,
  SHARE_CAL_BUSY = 4,            // a calculation of the share is still active
  SHARE_CAL_INVALID_OBJECT = 7,  // not prepared by CreateTask
  SHARE_CAL_NOT_FOUND = 8,       // no entry, or the entry has expired
  SHARE_CAL_TASK_NOT_CREATED = 11,
  SHARE_CAL_NO_SNAPSHOT = 15,    // no snapshot in the range
};

// A map entry counts as fresh for this long after it was recorded.
constexpr double kShareTaskFreshSeconds = 120.0;

class VELA_EXPORT ShareSnapUsageCal {
 public:
  ShareSnapUsageCal();
  // For code that knows only a task ID; never Valid().
  explicit ShareSnapUsageCal(const std::string& taskID);
  ~ShareSnapUsageCal();
  ShareSnapUsageCal(const ShareSnapUsageCal&) = delete;
  ShareSnapUsageCal& operator=(const ShareSnapUsageCal&) = delete;

  bool Valid() const;

  // The share-to-task map.
  static int FindTaskID(const std::string& shareName, std::string& taskID, bool& expired);
  // As FindTaskID; an expired entry is 8, with its task ID still filled in.
  static int FindValidTaskID(const std::string& shareName, std::string& taskID);
  static int FindShareNameByTaskID(const std::string& taskID, std::string& shareName);
  // Pushes the name of every share that has an entry.
  static BOOL GetShareTaskList(PVLIBSZLIST* list);

  // Whether the share may start a new calculation; `taskID` gets its
  // current task's ID.
  static bool CheckAvail(const std::string& shareName, std::string& taskID);
  // Prepares a calculation of the share: 0, 1, 3, 4 or 11.
  int CreateTask(const std::string& shareName);
  // Launches over the snapshots taken from `start` to `end` (seconds since
  // the epoch; both null: from 0 to now; equal: every snapshot).
  int Launch(long* start, long* end);
  // Launches over the given snapshot paths.
  int Launch(PVLIBSZLIST* ppListSnapPath);

  // Call-backs run by the calculator child.
  static _tag_progress_update_function_ret UpdateTaskStatus(TaskStatus& taskStatus, void* data);
  static int ExecCalPostAction(TaskStatus& taskStatus, void* data);

  // The share's persistent results.
  static std::string GetResultBasePath(const std::string& shareName);
  static bool CleanTaskResultFile(const std::string& shareName, bool removeDir);
  template <typename T>
  static int GetResultVtr(TASK_RESULT_OPT opt, const std::string& shareName, std::vector<T>& out);
  // Element i: the bytes freed by deleting the first i + 1 snapshots.
  static int GetShareSnapAccumUsageVtr(const std::string& shareName, std::vector<unsigned long long>& out);
  // One snapshot name per ID, in the order of `ids`.
  static int FindSnapNameBySubvolID(const std::string& shareName, std::vector<unsigned long long>& ids,
                                    PVLIBSZLIST* ppListSnapName);

  // Stops the share's running calculation (the child records "stop").
  static int Stop(const std::string& shareName);
  // Removes the share's results, status record and map entry.
  static void CleanAll(const std::string& shareName);
  static int CleanAllSResult();
  // Cleans up every share recorded as still calculating.
  static int CleanNotDoneTask();

 private:
  std::string shareName;
  ShareTaskStatus shareTaskStatus;
  SnapUsageCalculator calculator;
};

extern template VELA_EXPORT int ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT, const std::string&,
                                                                std::vector<unsigned long long>&);

// Whether `name` can name a share: a single path component ("/" and NUL
// are refused, as are "." and "..") that is not empty. Share names become
// parts of file paths written as root.
VELA_EXPORT bool IsShareNameSafe(const std::string& name);

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_SHARE_SNAP_USAGE_CAL_H_
