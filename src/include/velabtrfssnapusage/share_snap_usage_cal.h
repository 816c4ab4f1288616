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

  // The share's state as it is: a calculation recorded as pending or
  // running whose process is proven gone has ended ("fail"). 0, or 1 when
  // the share's status cannot be read.
  static int GetShareState(const std::string& shareName, CAL_TASK_STATUS& state);
  // The share's status record as one document, and its state as
  // GetShareState gives it. 0, or 1 when the record cannot be read or holds
  // no valid state (`record` is then what could be read, maybe nothing).
  static int GetShareRecord(const std::string& shareName, Json::Value& record, CAL_TASK_STATUS& state);

  // Whether the share may start a new calculation; `taskID` gets its
  // current task's ID. Called with the share's creation lock held: a
  // running child blocks, one proven gone does not, whatever their age.
  static bool CheckAvail(const std::string& shareName, std::string& taskID);
  // What can be checked of a start before anything is created: the range
  // (3 for an end before the start, or a time the time strings cannot
  // hold), the share and its volume (1), a snapshot in the range (15), one
  // btrfs volume (3). 0 when the start may go ahead.
  static int CheckLaunch(const std::string& shareName, long* start, long* end);
  // Prepares a calculation of the share: 0, 1, 3, 4 or 11. On success the
  // object holds the share's creation lock until Launch has run.
  int CreateTask(const std::string& shareName);
  // Launches over the snapshots taken from `start` to `end` (seconds since
  // the epoch; both null: from 0 to now; equal: every snapshot). Returns
  // once the child has recorded itself; a failure ends the task "fail"
  // with its code.
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
  // Where the space map of the share's last calculation is: the share's
  // copy once the run has finished, until then the task's own. 0 when the
  // share has a calculation, with `path` empty while it has no map (not
  // written yet, or not at all); 8 when it has none; 3 for a name that
  // cannot be a share's; 1 when a state directory is refused.
  static int FindSpaceMap(const std::string& shareName, std::string& path);
  // One snapshot name per ID, in the order of `ids`.
  static int FindSnapNameBySubvolID(const std::string& shareName, std::vector<unsigned long long>& ids,
                                    PVLIBSZLIST* ppListSnapName);

  // Stops the share's running calculation (the child records "stop").
  static int Stop(const std::string& shareName);
  // Stops the share's running calculation and waits for it to end, then
  // removes the task's files, the share's results, status record and map
  // entry. 0 when nothing of the share is left (also for a share without a
  // map entry, which is not the module's to clean), 1 when something could
  // not be removed or the share's lock was not granted.
  static int CleanAll(const std::string& shareName);
  static int CleanAllSResult();
  // Cleans up every share recorded as still calculating.
  static int CleanNotDoneTask();

 private:
  int LaunchRange(long start, long end);
  // Waits until the launched child has recorded itself in the share's status.
  int WaitForChildRecord();
  // Records the share's calculation as ended "fail" with `code`; returns it.
  int EndWithFailure(int code);
  void ReleaseCreationLock();

  std::string shareName;
  ShareTaskStatus shareTaskStatus;
  SnapUsageCalculator calculator;
  int creationLockFd = -1;  // the share's creation lock, from CreateTask to the end of Launch
};

extern template VELA_EXPORT int ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT, const std::string&,
                                                                std::vector<unsigned long long>&);

// Whether `name` can name a share: a single path component of at most 255
// bytes ("/" and NUL are refused, as are "." and "..") that is not empty.
// Share names become parts of file paths written as root.
VELA_EXPORT bool IsShareNameSafe(const std::string& name);

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_SHARE_SNAP_USAGE_CAL_H_
