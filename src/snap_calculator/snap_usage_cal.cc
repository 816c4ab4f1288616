#include "velabtrfssnapusage/snap_usage_cal.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/numbers.h"
#include "intl_utils/log.h"
#include "snap_calculator/tool_output_parser.h"
#include "vela/vlib_proc.h"
#include "velabtrfssnapusage/btrfs_tool.h"
#include "velabtrfssnapusage/process_helpers.h"
#include "velabtrfssnapusage/signal_handler.h"
#include "velabtrfssnapusage/task_result.h"
#include "velabtrfssnapusage/time_string.h"

namespace VelaBtrfsUsage {

namespace {

constexpr char kLogSource[] = "snap_calculator/snap_usage_cal";

void RunProgress(VELA_PROGRESS_UPDATE_FN progress, TaskStatus& status) {
  if (progress != nullptr && progress(status, nullptr) != PROGRESS_UPDATE_SUCCESS) {
    VELA_LOG(LOG_ERR, "Failed to execute progress updating call-back function");
  }
}

}  // namespace

SnapUsageCalculator::SnapUsageCalculator() = default;

SnapUsageCalculator::SnapUsageCalculator(const std::string& id) : taskID(id) {}

SnapUsageCalculator::~SnapUsageCalculator() = default;

bool SnapUsageCalculator::GenTaskID(std::string& id) {
  std::string candidate;
  for (;;) {
    if (!Utils::UUIDGen(candidate)) {
      VELA_LOG(LOG_ERR, "Failed to gen UUID." VELA_ERR_FMT, VELA_ERR_ARGS);
      return false;
    }
    if (!TaskStatus::CheckFile(candidate)) break;  // taken by a live task: draw again
  }
  id = candidate;
  return true;
}

bool SnapUsageCalculator::Valid() const { return !taskID.empty() && status.Valid(); }

int SnapUsageCalculator::Init(const std::string& id) {
  taskID = id;
  if (!status.Init(id, true)) {
    VELA_LOG_TASK(LOG_ERR, "Init", taskID, "Failed to initilize task status" VELA_ERR_FMT, VELA_ERR_ARGS);
    return SNAP_USAGE_CAL_FAIL;
  }
  return SNAP_USAGE_CAL_SUCCESS;
}

bool SnapUsageCalculator::CreateTask(SnapUsageCalculator& calculator) {
  std::string id;
  if (!GenTaskID(id)) {
    VELA_LOG(LOG_ERR, "Failed to generate task ID");
    return false;
  }
  if (calculator.Init(id) != SNAP_USAGE_CAL_SUCCESS) {
    VELA_LOG(LOG_ERR, "Failed to initialize the calculator task with ID :%s", id.c_str());
    return false;
  }
  return true;
}

int SnapUsageCalculator::SetTaskStatusReady() {
  // One update: nobody ever sees "process" without the process that runs
  // it, named for good by its PID and start time.
  unsigned long long started = 0;
  std::string now;
  if (!Utils::ProcessStartTicks(getpid(), started) || !Utils::NowTimeStringGet(now)) return SNAP_USAGE_CAL_FAIL;
  const int written = status.SetStatusAttrs({{TASKSTATUS_ATTR_STATUS, _cal_task_status_str[CAL_TASK_STATUS_PROCESS]},
                                             {TASKSTATUS_ATTR_PID, Utils::PIDStringGet()},
                                             {TASKSTATUS_ATTR_PID_START, std::to_string(started)},
                                             {TASKSTATUS_ATTR_ERROR_CODE, "-1"},
                                             {TASKSTATUS_ATTR_START_TIME, now}},
                                            StatusWrite::kAlways);
  return written == TASK_STATUS_SUCCESS ? SNAP_USAGE_CAL_SUCCESS : SNAP_USAGE_CAL_FAIL;
}

int SnapUsageCalculator::Start(_tag_VELA_BTRFS_USAGE_CAL_TASK* task, PVLIBSZLIST* ppData) {
  if (task == nullptr) {
    VELA_INVALID_ARGUMENT("__null != opt_task");
    return SNAP_USAGE_CAL_INVALID_ARGUMENT;
  }
  if (ppData == nullptr) {
    VELA_INVALID_ARGUMENT("NULL != ppData");
    return SNAP_USAGE_CAL_INVALID_ARGUMENT;
  }
  if (!Valid()) return SNAP_USAGE_CAL_INVALID_OBJECT;
  const pid_t pid = VLIBCProcForkChildNoWaitKeepFd(heldUntilRecorded);
  if (pid < 0) {
    VELA_LOG_TASK(LOG_ERR, "Start", taskID, "Failed to fork() " VELA_ERR_FMT, VELA_ERR_ARGS);
    return SNAP_USAGE_CAL_FORK_FAIL;
  }
  if (pid > 0) {
    workerPid = pid;
    return SNAP_USAGE_CAL_SUCCESS;
  }

  // The child: everything from here on is reported through the status file.
  // It leads a process group of its own, which the tool it runs joins, so
  // that a stop reaches the tool too; and a stop that comes before the run
  // is recorded, not fatal.
  setpgid(0, 0);
  SignalHandler::Install();
  const int code = StartTask(task, ppData);
  if (code != 0) {
    // Expected outcomes such as a stop: not an error of this process.
    VELA_LOG_TASK(LOG_DEBUG, "Start", taskID, "Failed to start the calculator task, ret: %d" VELA_ERR_FMT,
                  code, VELA_ERR_ARGS);
    // The share's status holds the outcome; the task's own files would only
    // be left behind.
    CleanAll();
    if (BtrfsTool::ToolAbandoned()) kill(0, SIGKILL);  // the tool, and this child with it
    exit(code);
  }
  if (PostCalAction(task) != SNAP_USAGE_CAL_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "Start", taskID, "Failed to perform post-calculation action" VELA_ERR_FMT,
                  VELA_ERR_ARGS);
    exit(SNAP_USAGE_CAL_POST_ACTION_FAIL);
  }
  exit(SNAP_USAGE_CAL_SUCCESS);
}

int SnapUsageCalculator::StartTask(_tag_VELA_BTRFS_USAGE_CAL_TASK* task, PVLIBSZLIST* ppData) {
  std::string errMsg;
  std::string cmd;
  int code = SNAP_USAGE_CAL_SUCCESS;
  if (SetTaskStatusReady() != SNAP_USAGE_CAL_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "StartTask", taskID, "Failed to prepare the status of calculator");
    code = SNAP_USAGE_CAL_FAIL;
  } else {
    RunProgress(task->progressUpdate, status);
    // Recorded: whoever looks now finds this process named in the status.
    ReleaseHeldDescriptor();
    if (task->option == VELA_BTRFS_USAGE_CAL_BY_PATH) {
      code = CalculateByPath(task, ppData, errMsg, cmd);
    } else if (task->option == VELA_BTRFS_USAGE_CAL_BY_SUBVOL_ID) {
      code = CalculateBySubvolID(task, ppData, errMsg, cmd);
    } else {
      VELA_LOG_TASK(LOG_ERR, "StartTask", taskID, "Failed to recognize option [%d] of calculator",
                    task->option);
      code = SNAP_USAGE_CAL_UNKNOWN_OPTION;
    }
  }
  // The outcome in one update, so that no reader sees a final state
  // without its code. Best effort: there is nobody left to report to.
  const CAL_TASK_STATUS state = code == BTRFS_CMD_SUCCESS   ? CAL_TASK_STATUS_DONE
                                : code == BTRFS_CMD_STOPPED ? CAL_TASK_STATUS_STOP
                                                            : CAL_TASK_STATUS_FAIL;
  std::vector<std::pair<TASKSTATUS_ATTR, std::string>> outcome = {
      {TASKSTATUS_ATTR_STATUS, _cal_task_status_str[state]}, {TASKSTATUS_ATTR_ERROR_CODE, std::to_string(code)}};
  if (state == CAL_TASK_STATUS_FAIL) {
    outcome.emplace_back(TASKSTATUS_ATTR_ERROR_MSG, errMsg);
    outcome.emplace_back(TASKSTATUS_ATTR_BTRFS_CMD, cmd);
  }
  std::string now;
  if (Utils::NowTimeStringGet(now)) outcome.emplace_back(TASKSTATUS_ATTR_END_TIME, now);
  status.SetStatusAttrs(outcome, StatusWrite::kAlways);
  RunProgress(task->progressUpdate, status);
  ReleaseHeldDescriptor();
  return code;
}

void SnapUsageCalculator::ReleaseHeldDescriptor() {
  if (heldUntilRecorded >= 0) close(heldUntilRecorded);
  heldUntilRecorded = -1;
}

int SnapUsageCalculator::PostCalAction(_tag_VELA_BTRFS_USAGE_CAL_TASK* task) {
  if (task->postCalAction != nullptr && task->postCalAction(status, nullptr) != 0) {
    VELA_LOG_TASK(LOG_ERR, "PostCalAction", taskID, "Failed to perform post-calculation action" VELA_ERR_FMT,
                  VELA_ERR_ARGS);
    return SNAP_USAGE_CAL_FAIL;  // the task's files stay for whoever looks into it
  }
  CleanAll();
  return SNAP_USAGE_CAL_SUCCESS;
}

void SnapUsageCalculator::CleanAll() {
  if (!TaskResult::CleanFile(taskID)) {
    VELA_LOG_TASK(LOG_ERR, "CleanAll", taskID, "Failed to clean task result, taskID: %s", taskID.c_str());
  }
  if (!TaskStatus::CleanFile(taskID)) {
    VELA_LOG_TASK(LOG_ERR, "CleanAll", taskID, "Failed to clean task status, taskID: %s", taskID.c_str());
  }
}

int SnapUsageCalculator::Stop(const std::string& id) {
  if (id.empty()) {
    VELA_INVALID_ARGUMENT("!taskID.empty()");
    return SNAP_USAGE_CAL_INVALID_ARGUMENT;
  }
  TaskStatus record;
  if (!record.Init(id, false)) {
    VELA_LOG(LOG_ERR, "Failed to initialize object, taskID:(%s)" VELA_ERR_FMT, id.c_str(), VELA_ERR_ARGS);
    return SNAP_USAGE_CAL_FAIL;
  }
  CAL_TASK_STATUS state;
  if (record.GetCalculatorStatus(state) != TASK_STATUS_SUCCESS) {
    VELA_LOG(LOG_ERR, "Failed to get calculator status, taskID:(%s)", id.c_str());
    return SNAP_USAGE_CAL_SUCCESS;  // nothing readable is nothing to stop
  }
  if (state != CAL_TASK_STATUS_PROCESS) {
    if (state < CAL_TASK_STATUS_READY || state > CAL_TASK_STATUS_DONE) {
      VELA_LOG_TASK(LOG_ERR, "Stop", id, "Invalid status = %d", static_cast<int>(state));
    }
    return SNAP_USAGE_CAL_SUCCESS;
  }
  pid_t pid = 0;
  unsigned long long started = 0;
  if (!ReadWorker(record, pid, started)) {
    // Without its start time a PID could name any process by now.
    VELA_LOG_TASK(LOG_ERR, "Stop", id, "No proof of which process runs the task; nothing is signalled");
    return SNAP_USAGE_CAL_SUCCESS;
  }
  if (Utils::SignalProcessIfSame(pid, started, SIGTERM) < 0) {
    VELA_LOG_TASK(LOG_ERR, "Stop", id, "failed to send signal [%d] to [%d], err=%s", SIGTERM, pid,
                  strerror(errno));
    return SNAP_USAGE_CAL_FAIL;
  }
  return SNAP_USAGE_CAL_SUCCESS;
}

bool SnapUsageCalculator::ReadWorker(TaskStatus& record, pid_t& pid, unsigned long long& started) {
  Json::Value doc;
  return record.GetJsonVal(doc) == TASK_STATUS_SUCCESS && ReadWorker(doc, pid, started);
}

bool SnapUsageCalculator::ReadWorker(const Json::Value& record, pid_t& pid, unsigned long long& started) {
  std::string pidText;
  std::string startText;
  uint64_t pidValue = 0;
  uint64_t startValue = 0;
  if (!TaskStatus::ReadAttr(record, TASKSTATUS_ATTR_PID, pidText) ||
      !TaskStatus::ReadAttr(record, TASKSTATUS_ATTR_PID_START, startText) ||
      !vela::base::ParseCanonicalDecimal(pidText, pidValue) || pidValue == 0 || pidValue > INT32_MAX ||
      !vela::base::ParseCanonicalDecimal(startText, startValue)) {
    return false;
  }
  pid = static_cast<pid_t>(pidValue);
  started = startValue;
  return true;
}

int SnapUsageCalculator::GetTaskStatus(TASKSTATUS_ATTR attr, std::string& value) {
  std::string text;
  if (status.GetStatusAttr(attr, text) != TASK_STATUS_SUCCESS) return SNAP_USAGE_CAL_FAIL;
  value = text;
  return SNAP_USAGE_CAL_SUCCESS;
}

int SnapUsageCalculator::GetCalculatorStatus(CAL_TASK_STATUS& state, int& errorCode) {
  return status.GetCalculatorStatus(state, errorCode);
}

int SnapUsageCalculator::CalculateByPath(_tag_VELA_BTRFS_USAGE_CAL_TASK* task, PVLIBSZLIST* ppListParam,
                                         std::string& errMsg, std::string& cmd) {
  const int code = BtrfsTool::CmdExc(task, taskID, ppListParam, ParseCmdFp, errMsg, cmd, nullptr);
  if (code != BTRFS_CMD_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "CalculateByPath", taskID,
                  "Failed to calcuate read-only snapshot usage, errno: %s" VELA_ERR_FMT, strerror(errno),
                  VELA_ERR_ARGS);
  }
  return code;
}

int SnapUsageCalculator::CalculateBySubvolID(_tag_VELA_BTRFS_USAGE_CAL_TASK* task,
                                             PVLIBSZLIST* ppListParam, std::string& errMsg,
                                             std::string& cmd) {
  const int code = BtrfsTool::CmdExc(task, taskID, ppListParam, ParseCmdFp, errMsg, cmd, nullptr);
  // A stop is an expected end of a run by root IDs: not logged as a failure.
  if (code != BTRFS_CMD_SUCCESS && code != BTRFS_CMD_STOPPED) {
    VELA_LOG_TASK(LOG_ERR, "CalculateBySubvolID", taskID,
                  "Failed to calcuate read-only snapshot usage, errno: %s" VELA_ERR_FMT, strerror(errno),
                  VELA_ERR_ARGS);
  }
  return code;
}

_tag_fp_parse_function_ret SnapUsageCalculator::ParseCmdFp(std::string id, FILE* fp, std::string& errMsg,
                                                           VELA_PROGRESS_UPDATE_FN progress) {
  (void)errMsg;  // the tool's output carries no message to pass on
  if (fp == nullptr) {
    VELA_SET_ERROR(VLIB_ERR_BAD_PARAMETERS);
    return FP_PARSE_FAIL;
  }
  TaskStatus record;
  if (!record.Init(id, false)) {
    VELA_LOG(LOG_ERR, "Failed to initialize object, taskID:(%s)" VELA_ERR_FMT, id.c_str(), VELA_ERR_ARGS);
    return FP_PARSE_FAIL;
  }
  ToolOutputParser parser;
  char line[1024] = {};
  while (fgets(line, sizeof(line), fp) != nullptr) {
    if (SignalHandler::StopRequested()) return FP_PARSE_SIGNALED;
    const ToolOutputParser::Line kind = parser.Feed(line);
    if (kind == ToolOutputParser::Line::kMalformed) {
      VELA_LOG_TASK(LOG_ERR, "ParseCmdFp", id,
                    "Failed to parse the output from BTRFS command, output:[%s], sscanf_ret: %d, errno: %d",
                    line, parser.Scanned(), errno);
      return FP_PARSE_FAIL;
    }
    if (kind == ToolOutputParser::Line::kEstimate || kind == ToolOutputParser::Line::kProgress) {
      const TASKSTATUS_ATTR attr = kind == ToolOutputParser::Line::kEstimate ? TASKSTATUS_ATTR_ESTIMATED_IN_BYTES
                                                                              : TASKSTATUS_ATTR_PROCESSED_IN_BYTES;
      // Progress is soon outdated: a write whose lock is busy is skipped
      // rather than waited for, so nobody holding a lock can stall the run.
      const int written = record.SetStatusAttrs({{attr, std::to_string(parser.Value())}}, StatusWrite::kSkipIfBusy);
      if (written == TASK_STATUS_SKIPPED) continue;
      if (written != TASK_STATUS_SUCCESS) return FP_PARSE_FAIL;
      RunProgress(progress, record);
    }
  }
  // A read error is not the end of the output: the results would be partial.
  // A read cut short by the stop signal is the stop, and so is the end of
  // the output of a tool that the stop, taken between two reads, ended.
  if (SignalHandler::StopRequested()) return FP_PARSE_SIGNALED;
  if (ferror(fp)) return FP_PARSE_FAIL;
  if (TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, id, parser.Bytes()) != TASK_RESULT_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "ParseCmdFp", id, "Failed to wirte result vector to file");
    return FP_PARSE_FAIL;
  }
  if (TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, id, parser.Ids()) != TASK_RESULT_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "ParseCmdFp", id, "Failed to wirte subvol ID vector to file");
    return FP_PARSE_FAIL;
  }
  return FP_PARSE_SUCCESS;
}

}  // namespace VelaBtrfsUsage
