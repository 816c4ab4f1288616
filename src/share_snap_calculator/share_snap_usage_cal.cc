#include "velabtrfssnapusage/share_snap_usage_cal.h"

#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "vela/vela_share.h"
#include "vela/vlib_file.h"
#include "velabtrfssnapusage/btrfs_tool.h"
#include "velabtrfssnapusage/file_helpers.h"
#include "velabtrfssnapusage/json_file.h"
#include "velabtrfssnapusage/share_snapshot.h"
#include "velabtrfssnapusage/task_result.h"
#include "velabtrfssnapusage/time_string.h"

namespace VelaBtrfsUsage {

namespace {

constexpr char kLogSource[] = "share_snap_calculator/share_snap_usage_cal";
constexpr char kMapFile[] = VELA_SHARE_CAL_MAP_FILE;
constexpr char kMapLock[] = VELA_SHARE_CAL_MAP_LOCK;
constexpr char kTaskId[] = "task_id";
constexpr char kTime[] = "time";
constexpr char kSnapList[] = "snap_list";
constexpr char kVolumeId[] = "volume_id";
// The flag word the platform's share enumeration is asked with.
constexpr int kShareEnumFlags = 0x301;

// A list freed when it goes out of scope.
class ScopedList {
 public:
  ScopedList() : list_(VLIBCSzListAlloc(1024)) {
    if (list_ == nullptr) VELA_LOG(LOG_ERR, "VLIBCSzListAlloc failed. " VELA_ERR_FMT, VELA_ERR_ARGS);
  }
  ~ScopedList() { VLIBCSzListFree(list_); }
  ScopedList(const ScopedList&) = delete;
  ScopedList& operator=(const ScopedList&) = delete;
  bool Ok() const { return list_ != nullptr; }
  PVLIBSZLIST* Address() { return &list_; }
  PVLIBSZLIST Get() const { return list_; }

 private:
  PVLIBSZLIST list_;
};

// An exclusive hold of the map lock for one read-modify-write.
class MapWriteLock {
 public:
  MapWriteLock() {
    locked_ = Utils::GeneralFileLock(kMapLock, true, fd_);
    if (!locked_) VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", kMapLock, 1);
  }
  ~MapWriteLock() {
    if (!Utils::GeneralFileUnlock(fd_)) VELA_LOG(LOG_ERR, "Failed to unlock fd(%d)", fd_);
  }
  MapWriteLock(const MapWriteLock&) = delete;
  MapWriteLock& operator=(const MapWriteLock&) = delete;
  bool Locked() const { return locked_; }

 private:
  int fd_ = -1;
  bool locked_ = false;
};

// The map as read from the file. Anything but an object (a missing or
// corrupt file) is an empty map.
Json::Value ReadMap() {
  Json::Value map = Utils::GetJsonAttrByPath(kMapFile);
  return map.isObject() ? map : Json::Value(Json::objectValue);
}

// The map read under its shared lock. 0, or 1 when the lock fails (`map`
// is then left untouched).
int LoadShareCalMap(Json::Value& map) {
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

std::string TaskIdOf(const Json::Value& entry) {
  return entry.isMember(kTaskId) && entry[kTaskId].isString() ? entry[kTaskId].asString() : "";
}

// The entry of `shareName` in a map being rewritten, made an object.
Json::Value& WritableEntry(Json::Value& map, const std::string& shareName) {
  Json::Value& entry = map[shareName];
  if (!entry.isObject()) entry = Json::Value(Json::objectValue);
  return entry;
}

// Root IDs are stored as decimal text; anything else matches no ID.
bool ParseRootId(const Json::Value& value, unsigned long long& id) {
  if (!value.isString()) return false;
  const std::string text = value.asString();
  if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  errno = 0;
  id = strtoull(text.c_str(), nullptr, 10);
  return errno == 0;
}

// One locked read-modify-write of the share's map entry.
template <typename Change>
int UpdateEntry(const std::string& shareName, Change change) {
  if (shareName.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  MapWriteLock lock;
  if (!lock.Locked()) return SHARE_CAL_FAIL;
  Json::Value map = ReadMap();
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

// Removes the share's entry, and with it the entries of shares that no
// longer exist on the system.
int RemoveShareFromCalMap(const std::string& shareName) {
  if (shareName.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  ScopedList shares;
  if (!shares.Ok()) return SHARE_CAL_FAIL;
  if (VELAShareEnum(shares.Address(), kShareEnumFlags) < 0) {
    VELA_LOG(LOG_ERR, "Fail in VELAShareEnum" VELA_ERR_FMT, VELA_ERR_ARGS);
    return SHARE_CAL_FAIL;
  }
  MapWriteLock lock;
  if (!lock.Locked()) return SHARE_CAL_FAIL;
  Json::Value map = ReadMap();
  if (map.empty()) return SHARE_CAL_SUCCESS;
  // Without an entry of its own nothing is written, not even pruned.
  if (!map.isMember(shareName)) return SHARE_CAL_SUCCESS;
  map.removeMember(shareName);
  for (const std::string& name : map.getMemberNames()) {
    bool exists = false;
    for (int i = 0; i < shares.Get()->nItem && !exists; ++i) {
      const char* share = VLIBCSzListGet(shares.Get(), i);
      if (share == nullptr) {
        VELA_LOG(LOG_ERR, "Failed to get element from list" VELA_ERR_FMT, VELA_ERR_ARGS);
        return SHARE_CAL_FAIL;
      }
      exists = name == share;
    }
    if (!exists) map.removeMember(name);
  }
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

// The share clean-up: results, status record, map entry; each step is
// tried whatever the one before gave.
void CleanUpShare(const std::string& shareName) {
  if (!ShareSnapUsageCal::CleanTaskResultFile(shareName, true)) {
    VELA_LOG(LOG_ERR, "Failed to clean task result of sahre snapshot calculator, share: %s" VELA_ERR_FMT,
             shareName.c_str(), VELA_ERR_ARGS);
  }
  if (!ShareTaskStatus::CleanShareStatus(shareName)) {
    VELA_LOG(LOG_ERR, "Failed to clean task status of share snapshot calculator, share: %s" VELA_ERR_FMT,
             shareName.c_str(), VELA_ERR_ARGS);
  }
  if (RemoveShareFromCalMap(shareName) != SHARE_CAL_SUCCESS) {
    VELA_LOG(LOG_ERR, "Failed to remove member in the task share map, share: %s" VELA_ERR_FMT,
             shareName.c_str(), VELA_ERR_ARGS);
  }
}

bool MakeDirectory(const std::string& path) {
  if (VLIBCFileCheckDir(path.c_str())) return true;
  if (mkdir(path.c_str(), 0777) == 0 || errno == EEXIST) return true;
  VELA_LOG(LOG_ERR, "Faild to mkdir %s, err:(%s)." VELA_ERR_FMT, path.c_str(), strerror(errno), VELA_ERR_ARGS);
  return false;
}

}  // namespace

bool IsShareNameSafe(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

ShareSnapUsageCal::ShareSnapUsageCal() = default;

ShareSnapUsageCal::ShareSnapUsageCal(const std::string& taskID) { calculator.Init(taskID); }

ShareSnapUsageCal::~ShareSnapUsageCal() = default;

bool ShareSnapUsageCal::Valid() const { return !shareName.empty() && calculator.Valid(); }

int ShareSnapUsageCal::FindTaskID(const std::string& name, std::string& taskID, bool& expired) {
  if (name.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return SHARE_CAL_INVALID_ARGUMENT;
  }
  Json::Value map;
  if (LoadShareCalMap(map) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  if (!map.isMember(name)) {
    taskID.clear();
    return SHARE_CAL_NOT_FOUND;
  }
  const Json::Value& entry = Entry(map, name);
  taskID = TaskIdOf(entry);
  // A recording time that is not a number reads as the epoch: long expired.
  const Json::Value& recorded = entry[kTime];
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
  Json::Value map;
  if (LoadShareCalMap(map) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  for (const std::string& member : map.getMemberNames()) {
    if (TaskIdOf(Entry(map, member)) == taskID) {
      name = member;
      return SHARE_CAL_SUCCESS;
    }
  }
  return SHARE_CAL_NOT_FOUND;
}

BOOL ShareSnapUsageCal::GetShareTaskList(PVLIBSZLIST* list) {
  Json::Value map;
  if (LoadShareCalMap(map) != SHARE_CAL_SUCCESS) return FALSE;
  for (const std::string& name : map.getMemberNames()) {
    if (VLIBCSzListPush(list, name.c_str()) < 0) {
      VELA_LOG(LOG_ERR, "Failed to push [%s] to the list" VELA_ERR_FMT, name.c_str(), VELA_ERR_ARGS);
      return FALSE;
    }
  }
  return TRUE;
}

bool ShareSnapUsageCal::CheckAvail(const std::string& name, std::string& taskID) {
  if (name.empty()) {
    VELA_INVALID_ARGUMENT("!shareName.empty()");
    return false;
  }
  // No entry, an entry of two minutes or more, or a task whose status file
  // is gone: nothing can still be running.
  if (FindValidTaskID(name, taskID) == SHARE_CAL_NOT_FOUND) return true;
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
    case CAL_TASK_STATUS_PROCESS:
      return false;
    case CAL_TASK_STATUS_FAIL:
    case CAL_TASK_STATUS_STOP:
    case CAL_TASK_STATUS_DONE:
      return true;
  }
  VELA_LOG_TASK(LOG_ERR, "CheckAvail", taskID, "Invalid status = %d", static_cast<int>(state));
  return false;
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
  for (const char* dir : {VELA_RUN_DIR, VELA_LOCK_DIR, VELA_PERSISTENT_DIR, VELA_SHARE_TASK_LOCK_DIR,
                          VELA_SHARE_TASK_RESULT_DIR}) {
    if (!MakeDirectory(dir)) return SHARE_CAL_FAIL;
  }
  if (!MakeDirectory(GetResultBasePath(name))) return SHARE_CAL_FAIL;

  // Held for the whole creation: concurrent starts of one share queue here
  // and the later ones find the first one's fresh "ready" task.
  char lockPath[1024];
  snprintf(lockPath, sizeof(lockPath), VELA_SHARE_TASK_LOCK_DIR "/%s.lock", name.c_str());
  int fd = -1;
  int result = SHARE_CAL_FAIL;
  std::string oldTaskID;
  if (!Utils::GeneralFileLock(lockPath, true, fd)) {
    VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", lockPath, 1);
  } else if (!CheckAvail(name, oldTaskID)) {
    result = SHARE_CAL_BUSY;
  } else {
    if (!oldTaskID.empty() && TaskStatus::CheckFile(oldTaskID) && !TaskStatus::CleanFile(oldTaskID)) {
      VELA_LOG(LOG_DEBUG, "Failed to clean up task status with ID: %s", oldTaskID.c_str());
    }
    shareName = name;
    if (!shareTaskStatus.Init(name, true)) {
      VELA_LOG(LOG_ERR, "Failed to initialize task status of snapshot calculator for share [%s]" VELA_ERR_FMT,
               name.c_str(), VELA_ERR_ARGS);
    } else if (shareTaskStatus.SetCalculatorStatus(CAL_TASK_STATUS_READY) != TASK_STATUS_SUCCESS) {
      VELA_LOG(LOG_ERR, "Failed to set ShareTaskStatus for share [%s] as ready status" VELA_ERR_FMT,
               name.c_str(), VELA_ERR_ARGS);
    } else if (!SnapUsageCalculator::CreateTask(calculator)) {
      VELA_LOG(LOG_ERR, "Failed to create the calculator for share [%s]", name.c_str());
      result = SHARE_CAL_TASK_NOT_CREATED;
    } else {
      result = RecordTask(name, calculator.GetTaskID()) == SHARE_CAL_SUCCESS ? SHARE_CAL_SUCCESS
                                                                              : SHARE_CAL_FAIL;
    }
  }
  if (!Utils::GeneralFileUnlock(fd)) VELA_LOG(LOG_ERR, "Failed to unlock fd(%d)", fd);
  return result;
}

int ShareSnapUsageCal::Launch(long* start, long* end) {
  const long s = start != nullptr ? *start : 0;
  const long e = end != nullptr ? *end : static_cast<long>(time(nullptr));
  if ((start == nullptr) != (end == nullptr) || e < s) return SHARE_CAL_INVALID_ARGUMENT;
  if (!Valid()) return SHARE_CAL_INVALID_OBJECT;
  ScopedList paths;
  if (!paths.Ok()) return SHARE_CAL_FAIL;
  Json::Value filter;
  BuildSnapTimeFilter(filter, s, e);
  if (Utils::ShareSnapListGet(shareName, paths.Address(), filter) < 0) {
    VELA_LOG(LOG_ERR, "Failed to list snapshot for share [%s]", shareName.c_str());
    return SHARE_CAL_FAIL;
  }
  if (time(nullptr) == static_cast<time_t>(-1)) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    VELA_LOG(LOG_ERR, "Failed to get snapshot range");
    return SHARE_CAL_FAIL;
  }
  // Every listed name must carry a readable time; a bad one is only logged.
  for (int i = 0; i < paths.Get()->nItem; ++i) {
    std::string path = VLIBCSzListGet(paths.Get(), i);
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
    return SHARE_CAL_FAIL;
  }
  if (!Utils::Time_tToTimeString(e, endText)) {
    VELA_LOG(LOG_ERR, "Failed to get time string from time [%lu], err=%s" VELA_ERR_FMT, e, strerror(errno),
             VELA_ERR_ARGS);
    return SHARE_CAL_FAIL;
  }
  if (shareTaskStatus.SetStatusAttr(TASKSTATUS_ATTR_RANGE_START, startText) != TASK_STATUS_SUCCESS ||
      shareTaskStatus.SetStatusAttr(TASKSTATUS_ATTR_RANGE_END, endText) != TASK_STATUS_SUCCESS) {
    return SHARE_CAL_FAIL;
  }
  const int result = Launch(paths.Address());
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
  ScopedList rootIDs;
  int volume = -1;
  if (*ppListSnapPath == nullptr || (*ppListSnapPath)->nItem < 0) {
    result = SHARE_CAL_INVALID_ARGUMENT;
  } else if ((*ppListSnapPath)->nItem == 0) {
    result = SHARE_CAL_NO_SNAPSHOT;
  } else if (!Valid()) {
    result = SHARE_CAL_INVALID_OBJECT;
  } else if (!rootIDs.Ok()) {
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
    if (result == SNAP_USAGE_CAL_SUCCESS) return SHARE_CAL_SUCCESS;
    VELA_LOG(LOG_ERR, "Failed to fire the calculator" VELA_ERR_FMT, VELA_ERR_ARGS);
  }
  // The share's status tells the user why nothing runs.
  shareTaskStatus.SetCalculatorStatus(CAL_TASK_STATUS_FAIL);
  shareTaskStatus.SetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, result);
  return result;
}

_tag_progress_update_function_ret ShareSnapUsageCal::UpdateTaskStatus(TaskStatus& taskStatus, void* data) {
  (void)data;
  const std::string& taskID = taskStatus.GetTaskID();
  std::string share;
  if (FindShareNameByTaskID(taskID, share) != SHARE_CAL_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "UpdateTaskStatus", taskID,
                  "Failed to get the corresponding share name[%s]" VELA_ERR_FMT, share.c_str(), VELA_ERR_ARGS);
    return PROGRESS_UPDATE_FAIL;
  }
  ShareTaskStatus shareStatus;
  if (!shareStatus.Init(share, false)) {
    VELA_LOG_TASK(LOG_ERR, "UpdateTaskStatus", taskID,
                  "Failed to initialize task status of share snapshot calculator" VELA_ERR_FMT, VELA_ERR_ARGS);
    return PROGRESS_UPDATE_FAIL;
  }
  if (!shareStatus.Import(taskStatus)) {
    VELA_LOG_TASK(LOG_ERR, "UpdateTaskStatus", taskID,
                  "Failed to import task status of snapshot calculator" VELA_ERR_FMT, VELA_ERR_ARGS);
    return PROGRESS_UPDATE_FAIL;
  }
  return PROGRESS_UPDATE_SUCCESS;
}

int ShareSnapUsageCal::ExecCalPostAction(TaskStatus& taskStatus, void* data) {
  (void)data;
  const std::string& taskID = taskStatus.GetTaskID();
  ScopedList files;
  if (!files.Ok()) return SHARE_CAL_FAIL;
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
  for (int i = 0; i < files.Get()->nItem; ++i) {
    std::string source = VLIBCSzListGet(files.Get(), i);
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
  const std::string dir = GetResultBasePath(name);
  ScopedList names;
  ScopedList paths;
  if (!names.Ok() || !paths.Ok()) return false;
  if (VLIBCFileEnumDir(dir.c_str(), 0, names.Address(), 128) < 0) return false;
  if (!Utils::PostfixPathAppend(dir, names.Address(), paths.Address())) return false;
  if (!Utils::DeleteCandidateFile(paths.Address())) return false;
  if (!removeDir) return true;
  if (rmdir(dir.c_str()) != 0) {
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
  const char* suffix = FileNames::TaskResultSuffix(opt);
  const std::string path = GetResultBasePath(name) + "/" + taskID + (suffix != nullptr ? suffix : "");
  // The share's copy once the run has finished; until then the task's own.
  if (VLIBCFileExist(path.c_str()) == 1) return TaskResult::ReadVtr(path, out);
  return TaskResult::GetResultVtr(opt, taskID, out);
}

template VELA_EXPORT int ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT, const std::string&,
                                                         std::vector<unsigned long long>&);

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
  Json::Value map;
  if (LoadShareCalMap(map) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  const Json::Value& entry = Entry(map, name);
  const Json::Value& snapList = entry.isMember(kSnapList) ? entry[kSnapList] : Json::Value::nullSingleton();
  for (unsigned long long id : ids) {
    bool found = false;
    if (snapList.isObject()) {
      for (const std::string& snapName : snapList.getMemberNames()) {
        unsigned long long stored = 0;
        if (!ParseRootId(snapList[snapName], stored) || stored != id) continue;
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

void ShareSnapUsageCal::CleanAll(const std::string& name) {
  if (name.empty()) return;
  Json::Value map;
  if (LoadShareCalMap(map) != SHARE_CAL_SUCCESS) return;
  // Only a share the map knows is cleaned: the entry is what makes it ours.
  for (const std::string& member : map.getMemberNames()) {
    if (member == name) {
      CleanUpShare(name);
      return;
    }
  }
}

int ShareSnapUsageCal::CleanAllSResult() {
  Json::Value map;
  if (LoadShareCalMap(map) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  for (const std::string& name : map.getMemberNames()) CleanAll(name);
  return SHARE_CAL_SUCCESS;
}

int ShareSnapUsageCal::CleanNotDoneTask() {
  Json::Value map;
  if (LoadShareCalMap(map) != SHARE_CAL_SUCCESS) return SHARE_CAL_FAIL;
  for (const std::string& name : map.getMemberNames()) {
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
    if (state == CAL_TASK_STATUS_PROCESS) CleanUpShare(name);
  }
  return SHARE_CAL_SUCCESS;
}

}  // namespace VelaBtrfsUsage
