#include "velabtrfssnapusage/share_snap_usage_cal.h"

#include <fcntl.h>
#include <libgen.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/numbers.h"
#include "base/record_lock.h"
#include "vela/sz_list.h"
#include "intl_utils/cached_json_file.h"
#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "intl_utils/state_files.h"
#include "vela/vela_share.h"
#include "vela/vlib_file.h"
#include "velabtrfssnapusage/btrfs_tool.h"
#include "velabtrfssnapusage/file_helpers.h"
#include "velabtrfssnapusage/json_file.h"
#include "velabtrfssnapusage/process_helpers.h"
#include "velabtrfssnapusage/share_snapshot.h"
#include "velabtrfssnapusage/task_result.h"
#include "velabtrfssnapusage/time_string.h"

namespace VelaBtrfsUsage {

namespace {

using vela::platform::SzList;

constexpr char kLogSource[] = "share_snap_calculator/share_snap_usage_cal";
constexpr char kMapFile[] = VELA_SHARE_CAL_MAP_FILE;
constexpr char kMapLock[] = VELA_SHARE_CAL_MAP_LOCK;
constexpr char kTaskId[] = "task_id";
constexpr char kTime[] = "time";
constexpr char kSnapList[] = "snap_list";
constexpr char kVolumeId[] = "volume_id";
// How long a launch waits for its child to record itself, and how long a
// clean-up waits for a stopped child to end before it is killed.
constexpr int kWorkerStartWaitMs = 30 * 1000;
constexpr int kWorkerStopWaitMs = 10 * 1000;
constexpr int kWorkerKillWaitMs = 2 * 1000;

using MapPtr = std::shared_ptr<const Json::Value>;

// The map as read from the file. Anything but an object (a missing or
// corrupt file) is an empty map. Parsed once per change of the file: with
// many shares and snapshots it is the biggest state file by far, read by
// every request.
MapPtr ReadMap() {
  static Utils::CachedJsonFile file(kMapFile);
  MapPtr map = file.Get();
  return map->isObject() ? map : std::make_shared<const Json::Value>(Json::objectValue);
}

// The map read under its shared lock. 0, or 1 when the lock fails (`map`
// is then left untouched).
int LoadShareCalMap(MapPtr& map) {
  int fd = -1;
  const bool locked = Utils::GeneralFileLock(kMapLock, false, fd);
  if (!locked) {
    VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", kMapLock, 0);
  } else {
    map = ReadMap();
  }
  if (!Utils::GeneralFileUnlock(fd)) VELA_LOG(LOG_ERR, "Failed to unlock fd(%d)", fd);
  return locked ? SHARE_CAL_SUCCESS : SHARE_CAL_FAIL;
}

// Entries are objects; a member of any other kind (a corrupt map) holds
// nothing.
const Json::Value& Entry(const Json::Value& map, const std::string& shareName) {
  static const Json::Value kNone;
  const Json::Value& entry = map.isMember(shareName) ? map[shareName] : kNone;
  return entry.isObject() ? entry : kNone;
}

// The entry's task ID. Only an ID of the form the system makes is taken:
// it becomes part of file paths. Anything else reads as no task.
std::string TaskIdOf(const Json::Value& entry) {
  if (!entry.isMember(kTaskId) || !entry[kTaskId].isString()) return "";
  const std::string id = entry[kTaskId].asString();
  return Utils::IsTaskId(id) ? id : "";
}

// The entry of `shareName` in a map being rewritten, made an object.
Json::Value& WritableEntry(Json::Value& map, const std::string& shareName) {
  Json::Value& entry = map[shareName];
  if (!entry.isObject()) entry = Json::Value(Json::objectValue);
  return entry;
}

// Root IDs are stored as decimal text; anything else matches no ID.
bool StoredRootId(const Json::Value& value, unsigned long long& id) {
  uint64_t parsed = 0;
  if (!value.isString() || !vela::base::ParseRootId(value.asString(), parsed)) return false;
  id = parsed;
  return true;
}

// One locked read-modify-write of the share's map entry.
template <typename Change>
int UpdateEntry(const std::string& shareName, Change change) {
  if (shareName.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  Utils::ScopedFileLock lock(kMapLock, true);
  if (!lock.Locked()) {
    VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", kMapLock, 1);
    return SHARE_CAL_FAIL;
  }
  Json::Value map = *ReadMap();
  change(WritableEntry(map, shareName));
  return Utils::SetJsonAttrByPath(kMapFile, map) ? SHARE_CAL_SUCCESS : SHARE_CAL_FAIL;
}

// A new task for the share: its ID, when it was recorded, no snapshots yet.
int RecordTask(const std::string& shareName, const std::string& taskID) {
  const time_t now = time(nullptr);
  if (!shareName.empty() && now == static_cast<time_t>(-1)) return SHARE_CAL_FAIL;
  return UpdateEntry(shareName, [&](Json::Value& entry) {
    entry[kTaskId] = taskID;
    entry[kTime] = static_cast<Json::Int64>(now);
    entry[kSnapList] = Json::Value();
  });
}

int RecordVolume(const std::string& shareName, int volume) {
  return UpdateEntry(shareName, [&](Json::Value& entry) { entry[kVolumeId] = volume; });
}

// The launch's snapshots by name, with their root IDs as decimal text.
int RecordSnapList(const std::string& shareName, PVLIBSZLIST paths, PVLIBSZLIST rootIDs) {
  return UpdateEntry(shareName, [&](Json::Value& entry) {
    Json::Value& snapList = entry[kSnapList];
    if (!snapList.isObject()) snapList = Json::Value(Json::objectValue);
    for (int i = 0; i < paths->nItem && i < rootIDs->nItem; ++i) {
      std::string path = VLIBCSzListGet(paths, i);
      snapList[basename(path.data())] = VLIBCSzListGet(rootIDs, i);
    }
  });
}

// Removes the share's entry. Only that one: a share whose volume is not
// mounted now is not gone, and keeps its entry and report.
int RemoveShareFromCalMap(const std::string& shareName) {
  if (shareName.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  Utils::ScopedFileLock lock(kMapLock, true);
  if (!lock.Locked()) {
    VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", kMapLock, 1);
    return SHARE_CAL_FAIL;
  }
  Json::Value map = *ReadMap();
  if (!map.isMember(shareName)) return SHARE_CAL_SUCCESS;
  map.removeMember(shareName);
  return Utils::SetJsonAttrByPath(kMapFile, map) ? SHARE_CAL_SUCCESS : SHARE_CAL_FAIL;
}

// The snapshot time filter of a range: null (every snapshot) for equal
// bounds, else ">=" and "<=" selectors with the bounds' snapshot names.
void BuildSnapTimeFilter(Json::Value& filter, long start, long end) {
  filter = Json::Value();
  if (start == end) return;
  char startName[1024] = {};
  char endName[1024] = {};
  if (Utils::SnapNameGenerateByTime(startName, sizeof(startName), start, TRUE) != 0) {
    VELA_LOG(LOG_ERR, "Failed to covert time, start: %lu", start);
    return;
  }
  if (Utils::SnapNameGenerateByTime(endName, sizeof(endName), end, TRUE) != 0) {
    VELA_LOG(LOG_ERR, "Failed to covert time, end: %lu", end);
    return;
  }
  filter["time"].append(std::string(">=") + startName);
  filter["time"].append(std::string("<=") + endName);
}

// Whether `t` can be written as a status time string and as a snapshot
// name, and both read back as the same time: a bound outside that (before
// the year 1000, say) cannot be recorded or filtered on.
bool TimeFitsStrings(long t) {
  std::string text;
  long back = 0;
  char name[1024] = {};
  time_t named = 0;
  return Utils::Time_tToTimeString(t, text) && Utils::TimeStringToTime_T(text, back) && back == t &&
         Utils::SnapNameGenerateByTime(name, sizeof(name), t, TRUE) == 0 && name[0] != '\0' &&
         VELAShareSnapTimeGet(name, &named) == 0 && named == t;
}

// The share clean-up: results, status record, map entry; each step is
// tried whatever the one before gave. Whether all of it is gone.
bool CleanUpShare(const std::string& shareName) {
  // A share without a result directory has no results to remove.
  const bool hadResults = Utils::OpenStateDirectory(ShareSnapUsageCal::GetResultBasePath(shareName), false).Valid();
  const bool resultsGone = !hadResults || ShareSnapUsageCal::CleanTaskResultFile(shareName, true);
  if (!resultsGone) {
    VELA_LOG(LOG_ERR, "Failed to clean task result of sahre snapshot calculator, share: %s" VELA_ERR_FMT,
             shareName.c_str(), VELA_ERR_ARGS);
  }
  const bool statusGone =
      ShareTaskStatus::CleanShareStatus(shareName) && !ShareTaskStatus::CheckShareStatusFile(shareName);
  if (!statusGone) {
    VELA_LOG(LOG_ERR, "Failed to clean task status of share snapshot calculator, share: %s" VELA_ERR_FMT,
             shareName.c_str(), VELA_ERR_ARGS);
  }
  const bool entryGone = RemoveShareFromCalMap(shareName) == SHARE_CAL_SUCCESS;
  if (!entryGone) {
    VELA_LOG(LOG_ERR, "Failed to remove member in the task share map, share: %s" VELA_ERR_FMT,
             shareName.c_str(), VELA_ERR_ARGS);
  }
  return resultsGone && statusGone && entryGone;
}

// What is known of whether a calculation still has a process behind it.
enum class Liveness { kAlive, kGone, kUnknown };

// A pending calculation ("ready") lives while the request creating and
// launching it holds the share's creation lock.
Liveness CreationLiveness(const std::string& shareName) {
  const vela::base::UniqueFd lock = Utils::OpenLockFile(FileNames::ShareTaskLock(shareName), false);
  if (!lock.Valid()) return errno == ENOENT ? Liveness::kGone : Liveness::kUnknown;
  const int taken = vela::base::RecordLockTaken(lock.Get());
  if (taken < 0) return Liveness::kUnknown;
  return taken > 0 ? Liveness::kAlive : Liveness::kGone;
}

// A running calculation ("process") lives while the child recorded in the
// status, named by its PID and start time, runs.
Liveness ChildLiveness(const Json::Value& record, const std::string& taskID) {
  // A task's own files go when it ends, and with every restart.
  if (!taskID.empty() && !TaskStatus::CheckFile(taskID)) return Liveness::kGone;
  pid_t pid = 0;
  unsigned long long started = 0;
  if (!SnapUsageCalculator::ReadWorker(record, pid, started)) return Liveness::kUnknown;
  return Utils::ProcessIsAlive(pid, started) ? Liveness::kAlive : Liveness::kGone;
}

// What the share's map entry said: FindTaskID's result, the task and
// whether the entry is older than two minutes.
struct MapLookup {
  int found;
  std::string taskID;
  bool expired;
};

MapLookup LookUpTask(const std::string& shareName) {
  MapLookup lookup = {SHARE_CAL_FAIL, "", false};
  lookup.found = ShareSnapUsageCal::FindTaskID(shareName, lookup.taskID, lookup.expired);
  return lookup;
}

// Whether the share's calculation, recorded as `state` ("ready" or
// "process") in the share's `record`, still has a process behind it. Where
// nothing can be proven, a map entry younger than two minutes counts as
// running. A caller that holds the share's creation lock knows that no
// request is creating (asking the lock would find its own).
bool CalculationRunning(const std::string& shareName, const MapLookup& entry, const Json::Value& record,
                        CAL_TASK_STATUS state, bool holdingCreationLock) {
  const int found = entry.found;
  const std::string& taskID = entry.taskID;
  const bool expired = entry.expired;
  if (found == SHARE_CAL_NOT_FOUND) return false;
  if (found != SHARE_CAL_SUCCESS) return true;  // nothing known: as recorded
  Liveness live = Liveness::kGone;
  if (state == CAL_TASK_STATUS_PROCESS) {
    live = ChildLiveness(record, taskID);
  } else if (!holdingCreationLock) {
    live = CreationLiveness(shareName);
  }
  if (live == Liveness::kUnknown) return !expired;
  return live == Liveness::kAlive;
}

// Stops the child of `taskID` if one is proven to run it, and waits for it
// to end: asked with SIGTERM (it records "stop" and ends its tool), then
// killed if it does not end in time. False when it could not be ended.
bool StopChildAndWait(const std::string& taskID) {
  TaskStatus record;
  CAL_TASK_STATUS state;
  pid_t pid = 0;
  unsigned long long started = 0;
  if (!record.Init(taskID, false) || record.GetCalculatorStatus(state) != TASK_STATUS_SUCCESS ||
      state != CAL_TASK_STATUS_PROCESS || !SnapUsageCalculator::ReadWorker(record, pid, started)) {
    return true;
  }
  const int asked = Utils::SignalProcessIfSame(pid, started, SIGTERM);
  if (asked == 0) return true;
  if (asked > 0 && Utils::WaitProcessGone(pid, started, kWorkerStopWaitMs)) return true;
  VELA_LOG_TASK(LOG_ERR, "CleanAll", taskID, "The calculator child [%d] did not stop within %d ms; killing it",
                static_cast<int>(pid), kWorkerStopWaitMs);
  const int killed = Utils::SignalProcessIfSame(pid, started, SIGKILL);
  return killed == 0 || (killed > 0 && Utils::WaitProcessGone(pid, started, kWorkerKillWaitMs));
}

}  // namespace

bool IsShareNameSafe(const std::string& name) { return VELAShareNameIsValid(name.data(), name.size()) == TRUE; }

ShareSnapUsageCal::ShareSnapUsageCal() = default;

ShareSnapUsageCal::ShareSnapUsageCal(const std::string& taskID) { calculator.Init(taskID); }

ShareSnapUsageCal::~ShareSnapUsageCal() { ReleaseCreationLock(); }

bool ShareSnapUsageCal::Valid() const { return !shareName.empty() && calculator.Valid(); }

void ShareSnapUsageCal::ReleaseCreationLock() {
  if (!Utils::GeneralFileUnlock(creationLockFd)) VELA_LOG(LOG_ERR, "Failed to unlock fd(%d)", creationLockFd);
  creationLockFd = -1;
}

int ShareSnapUsageCal::FindTaskID(const std::string& name, std::string& taskID, bool& expired) {
  if (name.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  MapPtr loaded;
  if (LoadShareCalMap(loaded) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  const Json::Value& map = *loaded;
  taskID = TaskIdOf(Entry(map, name));
  // An entry without a task of the system's making is corrupt: no entry.
  if (taskID.empty()) return SHARE_CAL_NOT_FOUND;
  // A recording time that is not a number reads as the epoch: long expired.
  const Json::Value& recorded = Entry(map, name)[kTime];
  const unsigned int recordedAt = recorded.isConvertibleTo(Json::uintValue) ? recorded.asUInt() : 0;
  const time_t now = time(nullptr);
  if (now == static_cast<time_t>(-1)) return SHARE_CAL_FAIL;
  expired = difftime(now, static_cast<time_t>(recordedAt)) >= kShareTaskFreshSeconds;
  return SHARE_CAL_SUCCESS;
}

int ShareSnapUsageCal::FindValidTaskID(const std::string& name, std::string& taskID) {
  bool expired = false;
  const int result = FindTaskID(name, taskID, expired);
  if (result != SHARE_CAL_SUCCESS) return result;
  // The expired entry's ID stays in taskID: callers clean up its task.
  return expired ? SHARE_CAL_NOT_FOUND : SHARE_CAL_SUCCESS;
}

int ShareSnapUsageCal::FindShareNameByTaskID(const std::string& taskID, std::string& name) {
  if (taskID.empty()) {
    VELA_INVALID_ARGUMENT("!taskID.empty()");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  MapPtr loaded;
  if (LoadShareCalMap(loaded) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  const Json::Value& map = *loaded;
  for (const std::string& member : map.getMemberNames()) {
    if (IsShareNameSafe(member) && TaskIdOf(Entry(map, member)) == taskID) {
      name = member;
      return SHARE_CAL_SUCCESS;
    }
  }
  return SHARE_CAL_NOT_FOUND;
}

BOOL ShareSnapUsageCal::GetShareTaskList(PVLIBSZLIST* list) {
  MapPtr loaded;
  if (LoadShareCalMap(loaded) != SHARE_CAL_SUCCESS) return FALSE;
  const Json::Value& map = *loaded;
  for (const std::string& name : map.getMemberNames()) {
    if (!IsShareNameSafe(name)) continue;  // a corrupt entry names no share
    if (VLIBCSzListPush(list, name.c_str()) < 0) {
      VELA_LOG(LOG_ERR, "Failed to push [%s] to the list" VELA_ERR_FMT, name.c_str(), VELA_ERR_ARGS);
      return FALSE;
    }
  }
  return TRUE;
}

int ShareSnapUsageCal::GetShareState(const std::string& name, CAL_TASK_STATUS& state) {
  Json::Value record;
  return GetShareRecord(name, record, state);
}

int ShareSnapUsageCal::GetShareRecord(const std::string& name, Json::Value& record, CAL_TASK_STATUS& state) {
  // One read of the record: every attribute a caller answers with comes
  // from the same moment, and a share costs one locked read.
  record = Json::Value(Json::objectValue);
  ShareTaskStatus status;
  Json::Value doc;
  if (!status.Init(name, false) || status.GetJsonVal(doc) != TASK_STATUS_SUCCESS || !doc.isObject()) {
    return SHARE_CAL_FAIL;
  }
  record = doc;
  const Json::Value& text = record["status"];
  if (!text.isString() || TaskStatus::CnvStatusStrToEnumIdx(text.asString(), state) != TASK_STATUS_SUCCESS) {
    return SHARE_CAL_FAIL;
  }
  if ((state == CAL_TASK_STATUS_READY || state == CAL_TASK_STATUS_PROCESS) &&
      !CalculationRunning(name, LookUpTask(name), record, state, false)) {
    state = CAL_TASK_STATUS_FAIL;  // its process is gone: it ended, without a result
  }
  return SHARE_CAL_SUCCESS;
}

bool ShareSnapUsageCal::CheckAvail(const std::string& name, std::string& taskID) {
  if (name.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return false;
  }
  // No entry, or a task whose own files are gone: nothing can still run.
  const MapLookup entry = LookUpTask(name);
  taskID = entry.taskID;
  if (entry.found == SHARE_CAL_NOT_FOUND) return true;
  if (!taskID.empty() && !TaskStatus::CheckFile(taskID)) return true;
  ShareTaskStatus status;
  if (!status.Init(name, false)) {
    VELA_LOG(LOG_ERR, "Failed to initialize task status of share snapshot calculator, share: %s" VELA_ERR_FMT,
             name.c_str(), VELA_ERR_ARGS);
    return false;
  }
  CAL_TASK_STATUS state;
  int errorCode = 0;
  if (status.GetCalculatorStatus(state, errorCode) != TASK_STATUS_SUCCESS) {
    VELA_LOG(LOG_ERR, "Failed to get calculator status, taskID:(%s)", status.GetTaskID().c_str());
    return false;
  }
  switch (state) {
    case CAL_TASK_STATUS_READY:
    case CAL_TASK_STATUS_PROCESS: {
      // A running child blocks whatever its age; one that is gone does not.
      Json::Value record;
      status.GetJsonVal(record);
      return !CalculationRunning(name, entry, record, state, true);
    }
    case CAL_TASK_STATUS_FAIL:
    case CAL_TASK_STATUS_STOP:
    case CAL_TASK_STATUS_DONE:
      return true;
  }
  VELA_LOG_TASK(LOG_ERR, "CheckAvail", taskID, "Invalid status = %d", static_cast<int>(state));
  return false;
}

int ShareSnapUsageCal::CheckLaunch(const std::string& name, long* start, long* end) {
  const long s = start != nullptr ? *start : 0;
  const long e = end != nullptr ? *end : static_cast<long>(time(nullptr));
  if (!IsShareNameSafe(name) || (start == nullptr) != (end == nullptr) || e < s || !TimeFitsStrings(s) ||
      !TimeFitsStrings(e)) {
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  SzList paths;
  if (!paths.Ok()) return SHARE_CAL_FAIL;
  Json::Value filter;
  BuildSnapTimeFilter(filter, s, e);
  // An unknown share, or one whose volume is not mounted.
  if (Utils::ShareSnapListGet(name, paths.Address(), filter) < 0) return SHARE_CAL_FAIL;
  if (paths.Count() == 0) return SHARE_CAL_NO_SNAPSHOT;
  int volume = -1;
  if (Utils::SameVolumeCheck(paths.Address(), volume) != 0) return SHARE_CAL_INVALID_ARGUMENT;
  return SHARE_CAL_SUCCESS;
}

int ShareSnapUsageCal::CreateTask(const std::string& name) {
  if (name.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  if (!IsShareNameSafe(name)) {
    VELA_INVALID_ARGUMENT("IsShareNameSafe(shareName)");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  if (Valid()) return SHARE_CAL_SUCCESS;
  for (const std::string& dir : {std::string(VELA_RUN_DIR), std::string(VELA_LOCK_DIR),
                                 std::string(VELA_PERSISTENT_DIR), std::string(VELA_SHARE_TASK_LOCK_DIR),
                                 std::string(VELA_SHARE_TASK_RESULT_DIR), GetResultBasePath(name)}) {
    if (!Utils::EnsureStateDirectory(dir)) return SHARE_CAL_FAIL;
  }

  // Held through the launch, until the child has recorded itself:
  // concurrent starts of one share queue here, and a pending calculation
  // whose lock nobody holds is one whose request and child went away. A
  // lock of the open file, which the child holds too from its fork on: a
  // request that dies after the fork leaves the lock with its child.
  const std::string lockPath = FileNames::ShareTaskLock(name);
  if (!Utils::GeneralFileLock(lockPath, true, creationLockFd, Utils::LockWait::kBounded,
                              vela::base::LockOwner::kOpenFile)) {
    VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", lockPath.c_str(), 1);
    ReleaseCreationLock();
    return SHARE_CAL_FAIL;
  }
  std::string oldTaskID;
  if (!CheckAvail(name, oldTaskID)) {
    ReleaseCreationLock();
    return SHARE_CAL_BUSY;
  }
  // Whatever the old task left in the run-time directories goes now (also
  // what a start that died before the task's record was whole left).
  if (!oldTaskID.empty() && !TaskStatus::CleanFile(oldTaskID)) {
    VELA_LOG(LOG_DEBUG, "Failed to clean up task status with ID: %s", oldTaskID.c_str());
  }
  if (!oldTaskID.empty()) TaskResult::CleanFile(oldTaskID);
  int result = SHARE_CAL_FAIL;
  shareName = name;
  // The new task is in the map before its first file exists: whatever step
  // a start dies at, every file of the task is found (and removed) by the
  // share's next start or clean-up.
  std::string taskID;
  if (!shareTaskStatus.Init(name, true)) {
    VELA_LOG(LOG_ERR, "Failed to initialize task status of snapshot calculator for share [%s]" VELA_ERR_FMT,
             name.c_str(), VELA_ERR_ARGS);
  } else if (shareTaskStatus.SetCalculatorStatus(CAL_TASK_STATUS_READY) != TASK_STATUS_SUCCESS) {
    VELA_LOG(LOG_ERR, "Failed to set ShareTaskStatus for share [%s] as ready status" VELA_ERR_FMT,
             name.c_str(), VELA_ERR_ARGS);
  } else if (!SnapUsageCalculator::GenTaskID(taskID)) {
    VELA_LOG(LOG_ERR, "Failed to create the calculator for share [%s]", name.c_str());
    result = EndWithFailure(SHARE_CAL_TASK_NOT_CREATED);
  } else if (RecordTask(name, taskID) != SHARE_CAL_SUCCESS) {
    EndWithFailure(result);
  } else if (calculator.Init(taskID) != SNAP_USAGE_CAL_SUCCESS) {
    VELA_LOG(LOG_ERR, "Failed to initialize the calculator task with ID :%s", taskID.c_str());
    VELA_LOG(LOG_ERR, "Failed to create the calculator for share [%s]", name.c_str());
    result = EndWithFailure(SHARE_CAL_TASK_NOT_CREATED);
  } else {
    calculator.HoldUntilRecorded(creationLockFd);
    return SHARE_CAL_SUCCESS;
  }
  ReleaseCreationLock();
  return result;
}

int ShareSnapUsageCal::EndWithFailure(int code) {
  // The share's status tells the user why nothing runs.
  shareTaskStatus.SetStatusAttrs({{TASKSTATUS_ATTR_STATUS, _cal_task_status_str[CAL_TASK_STATUS_FAIL]},
                                  {TASKSTATUS_ATTR_ERROR_CODE, std::to_string(code)}});
  return code;
}

int ShareSnapUsageCal::Launch(long* start, long* end) {
  const long s = start != nullptr ? *start : 0;
  const long e = end != nullptr ? *end : static_cast<long>(time(nullptr));
  if (!Valid()) return SHARE_CAL_INVALID_OBJECT;
  const bool badRange = (start == nullptr) != (end == nullptr) || e < s;
  const int result = badRange ? EndWithFailure(SHARE_CAL_INVALID_ARGUMENT) : LaunchRange(s, e);
  // Whatever happened, the calculation is launched or has ended "fail" by
  // now: the next start of the share may go ahead.
  ReleaseCreationLock();
  return result;
}

int ShareSnapUsageCal::LaunchRange(long s, long e) {
  SzList paths;
  if (!paths.Ok()) {
    VELA_LOG(LOG_ERR, "VLIBCSzListAlloc failed. " VELA_ERR_FMT, VELA_ERR_ARGS);
    return EndWithFailure(SHARE_CAL_FAIL);
  }
  Json::Value filter;
  BuildSnapTimeFilter(filter, s, e);
  if (Utils::ShareSnapListGet(shareName, paths.Address(), filter) < 0) {
    VELA_LOG(LOG_ERR, "Failed to list snapshot for share [%s]", shareName.c_str());
    return EndWithFailure(SHARE_CAL_FAIL);
  }
  if (time(nullptr) == static_cast<time_t>(-1)) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    VELA_LOG(LOG_ERR, "Failed to get snapshot range");
    return EndWithFailure(SHARE_CAL_FAIL);
  }
  // Every listed name must carry a readable time; a bad one is only logged.
  for (int i = 0; i < paths.Count(); ++i) {
    std::string path = paths.At(i);
    const char* name = basename(path.data());
    time_t taken = 0;
    if (name != nullptr && VELAShareSnapTimeGet(name, &taken) < 0) {
      VELA_LOG(LOG_ERR, "Failed to get timestamp from snapshot [%s]" VELA_ERR_FMT, name, VELA_ERR_ARGS);
    }
  }
  std::string startText;
  std::string endText;
  if (!Utils::Time_tToTimeString(s, startText)) {
    VELA_LOG(LOG_ERR, "Failed to get time string from time [%lu], err=%s" VELA_ERR_FMT, s, strerror(errno),
             VELA_ERR_ARGS);
    return EndWithFailure(SHARE_CAL_FAIL);
  }
  if (!Utils::Time_tToTimeString(e, endText)) {
    VELA_LOG(LOG_ERR, "Failed to get time string from time [%lu], err=%s" VELA_ERR_FMT, e, strerror(errno),
             VELA_ERR_ARGS);
    return EndWithFailure(SHARE_CAL_FAIL);
  }
  if (shareTaskStatus.SetStatusAttrs({{TASKSTATUS_ATTR_RANGE_START, startText},
                                      {TASKSTATUS_ATTR_RANGE_END, endText}}) != TASK_STATUS_SUCCESS) {
    return EndWithFailure(SHARE_CAL_FAIL);
  }
  const int result = Launch(paths.Address());  // ends the task "fail" itself when it fails
  if (result != SHARE_CAL_SUCCESS) {
    VELA_LOG(LOG_ERR, "Failed to launch calculator for share [%s], ret: %d", shareName.c_str(), result);
  }
  return result;
}

int ShareSnapUsageCal::Launch(PVLIBSZLIST* ppListSnapPath) {
  if (ppListSnapPath == nullptr) {
    VELA_INVALID_ARGUMENT("__null != ppListSnapPath");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  int result = SHARE_CAL_FAIL;
  SzList rootIDs;
  int volume = -1;
  if (*ppListSnapPath == nullptr || (*ppListSnapPath)->nItem < 0) {
    result = SHARE_CAL_INVALID_ARGUMENT;
  } else if ((*ppListSnapPath)->nItem == 0) {
    result = SHARE_CAL_NO_SNAPSHOT;
  } else if (!Valid()) {
    result = SHARE_CAL_INVALID_OBJECT;
  } else if (!rootIDs.Ok()) {
    VELA_LOG(LOG_ERR, "VLIBCSzListAlloc failed. " VELA_ERR_FMT, VELA_ERR_ARGS);
    return SHARE_CAL_FAIL;  // before anything was tried: the status stays as it is
  } else if (Utils::SameVolumeCheck(ppListSnapPath, volume) != 0) {
    VELA_LOG(LOG_ERR, "Given snapshot paths belog to different volumes" VELA_ERR_FMT, VELA_ERR_ARGS);
    result = SHARE_CAL_INVALID_ARGUMENT;
  } else if (RecordVolume(shareName, volume) != SHARE_CAL_SUCCESS) {
    result = SHARE_CAL_FAIL;
  } else if (BtrfsTool::PathToRootId(ppListSnapPath, rootIDs.Address()) < 0) {
    VELA_LOG(LOG_ERR, "Failed to convert snapshot paths to subvolume IDs" VELA_ERR_FMT, VELA_ERR_ARGS);
    result = SHARE_CAL_FAIL;
  } else if (RecordSnapList(shareName, *ppListSnapPath, rootIDs.Get()) != SHARE_CAL_SUCCESS) {
    result = SHARE_CAL_FAIL;
  } else {
    _tag_VELA_BTRFS_USAGE_CAL_TASK task = {VELA_BTRFS_USAGE_CAL_BY_SUBVOL_ID, UpdateTaskStatus,
                                           ExecCalPostAction, volume};
    result = calculator.Start(&task, rootIDs.Address());
    if (result == SNAP_USAGE_CAL_SUCCESS) return WaitForChildRecord();
    VELA_LOG(LOG_ERR, "Failed to fire the calculator" VELA_ERR_FMT, VELA_ERR_ARGS);
  }
  return EndWithFailure(result);
}

int ShareSnapUsageCal::WaitForChildRecord() {
  // Until the child has recorded itself the share reads "ready", and only
  // the creation lock held here shows that it is on its way.
  const pid_t child = calculator.WorkerPid();
  for (int waited = 0; waited < kWorkerStartWaitMs; waited += 2) {
    CAL_TASK_STATUS state = CAL_TASK_STATUS_READY;
    if (shareTaskStatus.GetCalculatorStatus(state) == TASK_STATUS_SUCCESS && state != CAL_TASK_STATUS_READY) {
      return SHARE_CAL_SUCCESS;
    }
    // Signal 0 only asks whether the PID is in use; nothing is sent.
    if (kill(child, 0) != 0 && errno == ESRCH) {
      VELA_LOG(LOG_ERR, "The calculator child [%d] of share [%s] ended before it started", static_cast<int>(child),
               shareName.c_str());
      return EndWithFailure(SHARE_CAL_FAIL);
    }
    usleep(2000);
  }
  return SHARE_CAL_SUCCESS;  // slow to start, but alive: it records itself when it runs
}

_tag_progress_update_function_ret ShareSnapUsageCal::UpdateTaskStatus(TaskStatus& taskStatus, void* data) {
  (void)data;
  const std::string& taskID = taskStatus.GetTaskID();
  // What this process last brought into the share's status for a task: the
  // share (which a task never changes) and the state.
  static struct {
    std::string taskID;
    std::string share;
    std::string state;
  } last;
  if (last.taskID != taskID) last = {taskID, "", ""};
  if (last.share.empty() && FindShareNameByTaskID(taskID, last.share) != SHARE_CAL_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "UpdateTaskStatus", taskID,
                  "Failed to get the corresponding share name[%s]" VELA_ERR_FMT, last.share.c_str(), VELA_ERR_ARGS);
    return PROGRESS_UPDATE_FAIL;
  }
  ShareTaskStatus shareStatus;
  if (!shareStatus.Init(last.share, false)) {
    VELA_LOG_TASK(LOG_ERR, "UpdateTaskStatus", taskID,
                  "Failed to initialize task status of share snapshot calculator" VELA_ERR_FMT, VELA_ERR_ARGS);
    return PROGRESS_UPDATE_FAIL;
  }
  Json::Value doc;
  if (taskStatus.GetJsonVal(doc) != TASK_STATUS_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "UpdateTaskStatus", taskID, "Failed to get json value" VELA_ERR_FMT, VELA_ERR_ARGS);
    return PROGRESS_UPDATE_FAIL;
  }
  const std::string state = doc.isObject() && doc["status"].isString() ? doc["status"].asString() : "";
  // A change of state (the child's start record, the outcome) must reach
  // the share; progress within a state may be skipped when the lock is busy.
  const StatusWrite how = state == last.state ? StatusWrite::kSkipIfBusy : StatusWrite::kAlways;
  const int imported = shareStatus.ImportDocument(doc, how);
  if (imported == TASK_STATUS_SKIPPED) return PROGRESS_UPDATE_SUCCESS;
  if (imported != TASK_STATUS_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "UpdateTaskStatus", taskID,
                  "Failed to import task status of snapshot calculator" VELA_ERR_FMT, VELA_ERR_ARGS);
    return PROGRESS_UPDATE_FAIL;
  }
  last.state = state;
  return PROGRESS_UPDATE_SUCCESS;
}

int ShareSnapUsageCal::ExecCalPostAction(TaskStatus& taskStatus, void* data) {
  (void)data;
  const std::string& taskID = taskStatus.GetTaskID();
  SzList files;
  if (!files.Ok()) {
    VELA_LOG(LOG_ERR, "VLIBCSzListAlloc failed. " VELA_ERR_FMT, VELA_ERR_ARGS);
    return SHARE_CAL_FAIL;
  }
  if (!Utils::SearchTaskFile(taskID, VELA_TASK_RESULT_DIR, files.Address())) {
    VELA_LOG_TASK(LOG_ERR, "ExecCalPostAction", taskID,
                  "Failed to search result files over the path [%s]" VELA_ERR_FMT, VELA_TASK_RESULT_DIR,
                  VELA_ERR_ARGS);
    return SHARE_CAL_FAIL;
  }
  std::string share;
  if (FindShareNameByTaskID(taskID, share) != SHARE_CAL_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "ExecCalPostAction", taskID, "Failed to get the corresponding share name" VELA_ERR_FMT,
                  VELA_ERR_ARGS);
    return SHARE_CAL_FAIL;
  }
  // The previous calculation's results go first.
  if (!CleanTaskResultFile(share, false)) {
    VELA_LOG(LOG_ERR, "Failed to clean task result of share snapshot calculator, share: %s" VELA_ERR_FMT,
             share.c_str(), VELA_ERR_ARGS);
  }
  for (int i = 0; i < files.Count(); ++i) {
    std::string source = files.At(i);
    std::string name = source;
    const std::string destination = GetResultBasePath(share) + "/" + basename(name.data());
    if (VELAFileCopy(source.c_str(), destination.c_str(), 0) < 0) {
      VELA_LOG_TASK(LOG_ERR, "ExecCalPostAction", taskID, "Failed to copy from (%s) to (%s)" VELA_ERR_FMT,
                    source.c_str(), destination.c_str(), VELA_ERR_ARGS);
      return SHARE_CAL_FAIL;
    }
  }
  return SHARE_CAL_SUCCESS;
}

std::string ShareSnapUsageCal::GetResultBasePath(const std::string& name) {
  return FileNames::ShareResultDir(name);
}

bool ShareSnapUsageCal::CleanTaskResultFile(const std::string& name, bool removeDir) {
  if (!IsShareNameSafe(name)) return false;
  const std::string dir = GetResultBasePath(name);
  SzList names;
  SzList paths;
  if (!names.Ok() || !paths.Ok()) {
    VELA_LOG(LOG_ERR, "VLIBCSzListAlloc failed. " VELA_ERR_FMT, VELA_ERR_ARGS);
    return false;
  }
  // The directory is checked as every state directory is before anything
  // in it is listed or removed.
  if (!Utils::OpenStateDirectory(dir, false).Valid()) return false;
  if (VLIBCFileEnumDir(dir.c_str(), 0, names.Address(), 128) < 0) return false;
  if (!Utils::PostfixPathAppend(dir, names.Address(), paths.Address())) return false;
  if (!Utils::DeleteCandidateFile(paths.Address())) return false;
  if (!removeDir) return true;
  std::string leaf;
  const vela::base::UniqueFd parent = Utils::OpenContainingDirectory(dir, false, leaf);
  if (!parent.Valid() || unlinkat(parent.Get(), leaf.c_str(), AT_REMOVEDIR) != 0) {
    VELA_LOG(LOG_ERR, "Failed to remove path [%s], errno: %s", dir.c_str(), strerror(errno));
    return false;
  }
  return true;
}

template <typename T>
int ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT opt, const std::string& name, std::vector<T>& out) {
  std::string taskID;
  bool expired = false;
  const int found = FindTaskID(name, taskID, expired);
  if (found != SHARE_CAL_SUCCESS) return found;
  if (!IsShareNameSafe(name)) return SHARE_CAL_INVALID_ARGUMENT;
  const char* suffix = FileNames::TaskResultSuffix(opt);
  const std::string path = GetResultBasePath(name) + "/" + taskID + (suffix != nullptr ? suffix : "");
  // The share's copy once the run has finished; until then the task's own.
  if (VLIBCFileExist(path.c_str()) == 1) return TaskResult::ReadVtr(path, out);
  return TaskResult::GetResultVtr(opt, taskID, out);
}

template VELA_EXPORT int ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT, const std::string&,
                                                         std::vector<unsigned long long>&);

int ShareSnapUsageCal::FindSpaceMap(const std::string& name, std::string& path) {
  path.clear();
  std::string taskID;
  bool expired = false;
  const int found = FindTaskID(name, taskID, expired);
  if (found != SHARE_CAL_SUCCESS) return found;
  if (!IsShareNameSafe(name)) return SHARE_CAL_INVALID_ARGUMENT;
  // As the result vectors: the share's copy first, then the task's own.
  for (const std::string& candidate : {FileNames::ShareSpaceMap(name, taskID), FileNames::TaskSpaceMap(taskID)}) {
    std::string leaf;
    const vela::base::UniqueFd dir = Utils::OpenContainingDirectory(candidate, false, leaf);
    if (!dir.Valid()) {
      if (errno == ENOENT) continue;
      return SHARE_CAL_FAIL;  // a refused directory is logged where it is checked
    }
    // Whatever is there is the map's to judge; its reader follows no link.
    struct stat st;
    if (fstatat(dir.Get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
      path = candidate;
      return SHARE_CAL_SUCCESS;
    }
    if (errno != ENOENT) {
      VELA_LOG(LOG_ERR, "Failed to look for the space map %s, errno: %s", candidate.c_str(), strerror(errno));
      return SHARE_CAL_FAIL;
    }
  }
  return SHARE_CAL_SUCCESS;
}

int ShareSnapUsageCal::GetShareSnapAccumUsageVtr(const std::string& name, std::vector<unsigned long long>& out) {
  std::vector<unsigned long long> usage;
  if (GetResultVtr(TASK_RESULT_OPT_RESULT, name, usage) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  out.clear();
  unsigned long long sum = 0;  // unsigned: wraps rather than overflows
  for (unsigned long long bytes : usage) {
    sum += bytes;
    out.push_back(sum);
  }
  return SHARE_CAL_SUCCESS;
}

int ShareSnapUsageCal::FindSnapNameBySubvolID(const std::string& name, std::vector<unsigned long long>& ids,
                                              PVLIBSZLIST* ppListSnapName) {
  if (ppListSnapName == nullptr) {
    VELA_INVALID_ARGUMENT("__null != ppListSnapName");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  if (*ppListSnapName == nullptr) return SHARE_CAL_INVALID_ARGUMENT;
  if (ids.empty()) return SHARE_CAL_SUCCESS;
  MapPtr loaded;
  if (LoadShareCalMap(loaded) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  const Json::Value& map = *loaded;
  const Json::Value& entry = Entry(map, name);
  const Json::Value& snapList = entry.isMember(kSnapList) ? entry[kSnapList] : Json::Value::nullSingleton();
  for (unsigned long long id : ids) {
    bool found = false;
    if (snapList.isObject()) {
      for (const std::string& snapName : snapList.getMemberNames()) {
        unsigned long long stored = 0;
        if (!StoredRootId(snapList[snapName], stored) || stored != id) continue;
        if (VLIBCSzListPush(ppListSnapName, snapName.c_str()) < 0) {
          VELA_LOG(LOG_ERR, "Failed to push [%s] to the list" VELA_ERR_FMT, snapName.c_str(), VELA_ERR_ARGS);
          return SHARE_CAL_FAIL;
        }
        found = true;
        break;
      }
    }
    if (!found) {
      VELA_LOG(LOG_ERR, "Snapshot name with subvol ID [%llu] is not found", id);
      return SHARE_CAL_NOT_FOUND;
    }
  }
  return SHARE_CAL_SUCCESS;
}

int ShareSnapUsageCal::Stop(const std::string& name) {
  if (name.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  std::string taskID;
  bool expired = false;
  const int found = FindTaskID(name, taskID, expired);
  if (found != SHARE_CAL_SUCCESS) return found;
  const int stopped = SnapUsageCalculator::Stop(taskID);
  if (stopped != 0) {
    VELA_LOG(LOG_ERR, "Failed to stop calculator for share [%s] with ID [%s]", name.c_str(), taskID.c_str());
    return stopped;
  }
  return SHARE_CAL_SUCCESS;
}

int ShareSnapUsageCal::CleanAll(const std::string& name) {
  if (name.empty()) return SHARE_CAL_SUCCESS;
  MapPtr loaded;
  if (LoadShareCalMap(loaded) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  const Json::Value& map = *loaded;
  // Only a share the map knows is cleaned: the entry is what makes it ours.
  if (!map.isMember(name) || !IsShareNameSafe(name)) return SHARE_CAL_SUCCESS;
  // No start of the share runs meanwhile, and a running calculation is
  // stopped first: clean-ups can never leave a child behind them. (A lock
  // of the open file, as a start holds it, so that the two exclude each
  // other also within one process.)
  const std::string lockPath = FileNames::ShareTaskLock(name);
  Utils::ScopedFileLock creation(lockPath, true, vela::base::LockOwner::kOpenFile);
  if (!creation.Locked()) {
    VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", lockPath.c_str(), 1);
    return SHARE_CAL_FAIL;
  }
  std::string taskID;
  bool expired = false;
  bool stopped = true;
  if (FindTaskID(name, taskID, expired) == SHARE_CAL_SUCCESS) {
    stopped = StopChildAndWait(taskID);
    TaskStatus::CleanFile(taskID);
    TaskResult::CleanFile(taskID);
  }
  return CleanUpShare(name) && stopped ? SHARE_CAL_SUCCESS : SHARE_CAL_FAIL;
}

int ShareSnapUsageCal::CleanAllSResult() {
  MapPtr loaded;
  if (LoadShareCalMap(loaded) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  const Json::Value& map = *loaded;
  for (const std::string& name : map.getMemberNames()) CleanAll(name);  // CleanAll skips corrupt names
  return SHARE_CAL_SUCCESS;
}

int ShareSnapUsageCal::CleanNotDoneTask() {
  MapPtr loaded;
  if (LoadShareCalMap(loaded) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  const Json::Value& map = *loaded;
  for (const std::string& name : map.getMemberNames()) {
    if (!IsShareNameSafe(name)) continue;
    ShareTaskStatus status;
    if (!status.Init(name, false)) {
      VELA_LOG(LOG_ERR, "Failed to initialize task status of share snapshot calculator, share:[%s]" VELA_ERR_FMT,
               name.c_str(), VELA_ERR_ARGS);
      continue;
    }
    CAL_TASK_STATUS state;
    if (status.GetCalculatorStatus(state) != TASK_STATUS_SUCCESS) {
      VELA_LOG(LOG_ERR, "Failed to get calculator status, taskID:(%s), share:(%s)", status.GetTaskID().c_str(),
               name.c_str());
      continue;  // a share whose state cannot be read is left alone
    }
    if (state == CAL_TASK_STATUS_PROCESS) CleanAll(name);  // its failures are logged where they happen
  }
  return SHARE_CAL_SUCCESS;
}

}  // namespace VelaBtrfsUsage
