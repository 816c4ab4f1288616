// One calculator task: its ID and status record, the forked child that runs
// the btrfs tool and records the outcome, and a stop by task ID from any
// process.
#ifndef VELABTRFSSNAPUSAGE_SNAP_USAGE_CAL_H_
#define VELABTRFSSNAPUSAGE_SNAP_USAGE_CAL_H_

#include <stdio.h>

#include <sys/types.h>

#include <string>

#include "vela/vlib_szlist.h"
#include "velabtrfssnapusage/export.h"
#include "velabtrfssnapusage/task_status.h"
#include "velabtrfssnapusage/types.h"

namespace VelaBtrfsUsage {

// Codes of Start (in the caller) and exit statuses of the child.
enum SNAP_USAGE_CAL_CODE {
  SNAP_USAGE_CAL_SUCCESS = 0,
  SNAP_USAGE_CAL_FAIL = 1,
  SNAP_USAGE_CAL_INVALID_ARGUMENT = 3,
  SNAP_USAGE_CAL_UNKNOWN_OPTION = 5,
  SNAP_USAGE_CAL_INVALID_OBJECT = 7,
  SNAP_USAGE_CAL_POST_ACTION_FAIL = 9,  // child: run done, post-calculation call-back failed
  SNAP_USAGE_CAL_FORK_FAIL = 10,
};

class VELA_EXPORT SnapUsageCalculator {
 public:
  SnapUsageCalculator();
  // Takes the ID; the status record is not opened.
  explicit SnapUsageCalculator(const std::string& taskID);
  ~SnapUsageCalculator();

  // A fresh task ID: a UUID that no status file uses yet.
  static bool GenTaskID(std::string& id);
  bool Valid() const;
  // Takes the ID and creates its status record ("ready"). 0 or 1.
  int Init(const std::string& taskID);
  // A new task with a fresh ID in `calculator`.
  static bool CreateTask(SnapUsageCalculator& calculator);
  // The child's start record, in one update: "process", "pid" and
  // "pid_start_time" (the child, named for good), "error_code" -1,
  // "start_time". 0 or 1.
  int SetTaskStatusReady();
  // Forks the child that runs the task and returns at once.
  int Start(_tag_VELA_BTRFS_USAGE_CAL_TASK* task, PVLIBSZLIST* ppData);
  // Start's child keeps the caller's descriptor `fd` open until it has
  // recorded itself (then closes it): a lock of the open file behind it is
  // held without a break from before the fork until the child is named in
  // its status, whichever of the two processes ends first.
  void HoldUntilRecorded(int fd) { heldUntilRecorded = fd; }
  // The run, in the child: "process", the tool, then "done", "stop" or
  // "fail". Returns the run's code.
  int StartTask(_tag_VELA_BTRFS_USAGE_CAL_TASK* task, PVLIBSZLIST* ppData);
  // The post-calculation call-back, then the task's own files are deleted.
  int PostCalAction(_tag_VELA_BTRFS_USAGE_CAL_TASK* task);
  // Deletes the task's result and status files.
  void CleanAll();
  // Sends SIGTERM to the task's child if it is running, and only if the
  // child recorded in the status is proven to be that process. 0, 1 or 3.
  static int Stop(const std::string& taskID);
  // The child recorded in a status record: its PID and start time. False
  // when the record does not name one.
  static bool ReadWorker(TaskStatus& record, pid_t& pid, unsigned long long& started);
  // The same from a record's document.
  static bool ReadWorker(const Json::Value& record, pid_t& pid, unsigned long long& started);
  // The child forked by Start, in the process that called it; -1 before.
  pid_t WorkerPid() const { return workerPid; }
  int GetTaskStatus(TASKSTATUS_ATTR attr, std::string& value);
  int GetCalculatorStatus(CAL_TASK_STATUS& status, int& errorCode);

  int CalculateByPath(_tag_VELA_BTRFS_USAGE_CAL_TASK* task, PVLIBSZLIST* ppListParam,
                      std::string& errMsg, std::string& cmd);
  int CalculateBySubvolID(_tag_VELA_BTRFS_USAGE_CAL_TASK* task, PVLIBSZLIST* ppListParam,
                          std::string& errMsg, std::string& cmd);
  // Reads the tool's lines: "subvol(ID) BYTES bytes" per subvolume,
  // "exclusive BYTES bytes" (the estimate) and "processed BYTES bytes"
  // (progress), then writes the two result vectors.
  static _tag_fp_parse_function_ret ParseCmdFp(std::string taskID, FILE* fp, std::string& errMsg,
                                               VELA_PROGRESS_UPDATE_FN progress);

  const std::string& GetTaskID() const { return taskID; }

 private:
  void ReleaseHeldDescriptor();

  TaskStatus status;  // handed to the call-backs
  std::string taskID;
  pid_t workerPid = -1;
  int heldUntilRecorded = -1;
};

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_SNAP_USAGE_CAL_H_
