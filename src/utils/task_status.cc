#include "velabtrfssnapusage/task_status.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "intl_utils/state_files.h"
#include "vela/vlib_file.h"
#include "velabtrfssnapusage/json_file.h"
#include "velabtrfssnapusage/time_string.h"

std::map<TASKSTATUS_ATTR, std::string> _task_status_attr_str = {
    {TASKSTATUS_ATTR_STATUS, "status"},
    {TASKSTATUS_ATTR_START_TIME, "start_time"},
    {TASKSTATUS_ATTR_END_TIME, "end_time"},
    {TASKSTATUS_ATTR_PID, "pid"},
    {TASKSTATUS_ATTR_ERROR_CODE, "error_code"},
    {TASKSTATUS_ATTR_ERROR_MSG, "error_msg"},
    {TASKSTATUS_ATTR_BTRFS_CMD, "btrfs_cmd"},
    {TASKSTATUS_ATTR_PROCESSED_IN_BYTES, "processed_in_bytes"},
    {TASKSTATUS_ATTR_ESTIMATED_IN_BYTES, "estimated_in_bytes"},
    {TASKSTATUS_ATTR_RANGE_START, "range_start"},
    {TASKSTATUS_ATTR_RANGE_END, "range_end"},
    {TASKSTATUS_ATTR_PID_START, "pid_start_time"},
};

std::map<CAL_TASK_STATUS, std::string> _cal_task_status_str = {
    {CAL_TASK_STATUS_READY, "ready"}, {CAL_TASK_STATUS_PROCESS, "process"},
    {CAL_TASK_STATUS_FAIL, "fail"},   {CAL_TASK_STATUS_STOP, "stop"},
    {CAL_TASK_STATUS_DONE, "done"},
};

namespace VelaBtrfsUsage {

namespace {

constexpr char kLogSource[] = "utils/task_status";
constexpr TASKSTATUS_ATTR kLastAttr = TASKSTATUS_ATTR_PID_START;

// Only scalars are attribute values; an object or array under a key (a
// corrupt record) reads as absent.
bool ReadableValue(const Json::Value& value) {
  return !value.isObject() && !value.isArray();
}

}  // namespace

TaskStatus::TaskStatus() = default;

TaskStatus::TaskStatus(const std::string& id) { TaskStatus::Init(id, false); }

TaskStatus::~TaskStatus() = default;

bool TaskStatus::Init(const std::string& id, bool create) {
  if (Valid() && id == taskID) return true;
  // The ID names files written as root. Directories are made by the first
  // write, so that opening a record to read it leaves nothing behind.
  if (!Utils::IsPathComponent(id)) return false;
  taskID = id;
  filePath = GetFilePath(id);
  lockPath = GetFileLockPath(id);
  if (!create) return true;
  if (CheckAttrExist(TASKSTATUS_ATTR_STATUS)) return true;
  if (SetCalculatorStatus(CAL_TASK_STATUS_READY) == TASK_STATUS_SUCCESS) return true;
  VELA_LOG_TASK(LOG_ERR, "Init", taskID, "Failed to initialize status of TaskStatus");
  return false;
}

bool TaskStatus::Valid() const { return !filePath.empty(); }

bool TaskStatus::LockFile(bool exclusive) { return LockFile(exclusive, Utils::LockWait::kBounded); }

bool TaskStatus::LockFile(bool exclusive, Utils::LockWait wait) {
  if (!Valid()) {
    VELA_LOG_TASK(LOG_ERR, "LockFile", taskID, "Invalid object");
    return false;
  }
  if (!Utils::GeneralFileLock(lockPath, exclusive, lockFd, wait)) {
    if (wait == Utils::LockWait::kTryOnce && errno == EAGAIN) return false;  // busy, as asked
    VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", lockPath.c_str(),
             exclusive ? 1 : 0);
    return false;
  }
  return true;
}

bool TaskStatus::UnlockFile() {
  if (!Valid()) return false;
  if (!Utils::GeneralFileUnlock(lockFd)) VELA_LOG(LOG_ERR, "Failed to unlock fd(%d)", lockFd);
  lockFd = -1;
  return true;
}

std::string TaskStatus::GetFilePath(const std::string& id) { return FileNames::TaskStatusFile(id); }

std::string TaskStatus::GetFileLockPath(const std::string& id) {
  return FileNames::TaskStatusLock(id);
}

bool TaskStatus::CheckFile(const std::string& id) {
  return VLIBCFileExist(GetFilePath(id).c_str()) == 1;
}

bool TaskStatus::CleanFile(const std::string& id) {
  if (!Utils::IsPathComponent(id)) return true;
  // A writer that died may have left the record's temporary file, also
  // before the record itself was first written.
  if (!Utils::RemoveStateFileTemporary(GetFilePath(id))) {
    VELA_LOG_TASK(LOG_ERR, "CleanFile", id, "Failed to unlink file (%s) err:(%s) ", GetFilePath(id).c_str(),
                  strerror(errno));
  }
  if (!CheckFile(id)) return true;  // the lock file is left alone then
  for (const std::string& path : {GetFilePath(id), GetFileLockPath(id)}) {
    if (!Utils::RemoveStateFile(path)) {
      VELA_LOG_TASK(LOG_ERR, "CleanFile", id, "Failed to unlink file (%s) err:(%s) ", path.c_str(),
                    strerror(errno));
    }
  }
  return true;
}

int TaskStatus::CnvStatusStrToEnumIdx(const std::string& text, CAL_TASK_STATUS& state) {
  for (const auto& [value, name] : _cal_task_status_str) {
    if (name == text) {
      state = value;
      return TASK_STATUS_SUCCESS;
    }
  }
  return TASK_STATUS_NOT_FOUND;
}

int TaskStatus::CnvAttrsStrToEnumIdx(const std::string& text, TASKSTATUS_ATTR& attr) {
  for (const auto& [value, name] : _task_status_attr_str) {
    if (name == text) {
      attr = value;
      return TASK_STATUS_SUCCESS;
    }
  }
  return TASK_STATUS_NOT_FOUND;
}

Json::Value TaskStatus::ReadDocument() const {
  Json::Value doc = Utils::GetJsonAttrByPath(filePath.c_str());
  return doc.isObject() ? doc : Json::Value(Json::objectValue);
}

int TaskStatus::GetJsonVal(Json::Value& out) {
  if (!Valid()) {
    VELA_LOG_TASK(LOG_ERR, "GetJsonVal", taskID, "Invalid object" VELA_ERR_FMT, VELA_ERR_ARGS);
    return TASK_STATUS_INVALID_OBJECT;
  }
  if (!LockFile(false)) VELA_LOG_TASK(LOG_ERR, "GetJsonVal", taskID, "lock failed");
  Json::Value doc = Utils::GetJsonAttrByPath(filePath.c_str());
  UnlockFile();
  out = doc;
  return TASK_STATUS_SUCCESS;
}

int TaskStatus::SetStatusAttr(TASKSTATUS_ATTR attr, const std::string& value) {
  if (!Valid()) {
    VELA_LOG_TASK(LOG_ERR, "SetStatusAttr", taskID, "Invalid object");
    return TASK_STATUS_INVALID_OBJECT;
  }
  return WriteAttrs({{attr, value}}, "SetStatusAttr", StatusWrite::kWaitOrFail);
}

int TaskStatus::SetStatusAttrs(const std::vector<std::pair<TASKSTATUS_ATTR, std::string>>& values) {
  return SetStatusAttrs(values, StatusWrite::kWaitOrFail);
}

int TaskStatus::SetStatusAttrs(const std::vector<std::pair<TASKSTATUS_ATTR, std::string>>& values,
                               StatusWrite how) {
  if (!Valid()) {
    VELA_LOG_TASK(LOG_ERR, "SetStatusAttrs", taskID, "Invalid object");
    return TASK_STATUS_INVALID_OBJECT;
  }
  return WriteAttrs(values, "SetStatusAttrs", how);
}

int TaskStatus::LockForWrite(StatusWrite how, const char* function) {
  if (LockFile(true, how == StatusWrite::kSkipIfBusy ? Utils::LockWait::kTryOnce : Utils::LockWait::kBounded)) {
    return TASK_STATUS_SUCCESS;
  }
  if (how == StatusWrite::kSkipIfBusy && errno == EAGAIN) return TASK_STATUS_SKIPPED;
  VELA_LOG_TASK(LOG_ERR, function, taskID, "lock failed");
  // Otherwise nothing is written without the lock: a write that went ahead
  // unlocked could undo another writer's update, and a lock that stays
  // away for the whole bounded wait means something is wrong to be
  // reported. Only what must not be lost is written all the same.
  return how == StatusWrite::kAlways ? TASK_STATUS_SUCCESS : TASK_STATUS_FAIL;
}

int TaskStatus::WriteAttrs(const std::vector<std::pair<TASKSTATUS_ATTR, std::string>>& values,
                           const char* function, StatusWrite how) {
  const int locked = LockForWrite(how, function);
  bool written = false;
  if (locked == TASK_STATUS_SUCCESS) {
    Json::Value doc = ReadDocument();
    for (const auto& [attr, value] : values) doc[_task_status_attr_str[attr]] = value;
    written = Utils::SetJsonAttrByPath(filePath.c_str(), doc);
  }
  UnlockFile();
  if (locked != TASK_STATUS_SUCCESS) return locked;
  return written ? TASK_STATUS_SUCCESS : TASK_STATUS_FAIL;
}

int TaskStatus::SetStatusIntAttr(TASKSTATUS_ATTR attr, int n) {
  char text[32];
  snprintf(text, sizeof(text), "%d", n);
  return SetStatusAttr(attr, text) == TASK_STATUS_SUCCESS ? TASK_STATUS_SUCCESS : TASK_STATUS_FAIL;
}

int TaskStatus::SetStatusNowTimeAttr(TASKSTATUS_ATTR attr) {
  std::string now;
  if (!Utils::NowTimeStringGet(now)) {
    VELA_LOG_TASK(LOG_ERR, "SetStatusNowTimeAttr", taskID, "Failed to get the now string" VELA_ERR_FMT,
                  VELA_ERR_ARGS);
    return TASK_STATUS_FAIL;
  }
  return SetStatusAttr(attr, now) == TASK_STATUS_SUCCESS ? TASK_STATUS_SUCCESS : TASK_STATUS_FAIL;
}

int TaskStatus::GetStatusAttr(TASKSTATUS_ATTR attr, std::string& value) {
  const std::string key = _task_status_attr_str[attr];
  if (!Valid()) {
    VELA_LOG_TASK(LOG_ERR, "GetStatusAttr", taskID, "Invalid object");
    return TASK_STATUS_INVALID_OBJECT;
  }
  if (!LockFile(false)) VELA_LOG_TASK(LOG_ERR, "GetStatusAttr", taskID, "lock failed");
  const Json::Value doc = ReadDocument();
  UnlockFile();
  if (ReadAttr(doc, attr, value)) return TASK_STATUS_SUCCESS;
  VELA_LOG_TASK(LOG_DEBUG, "GetStatusAttr", taskID, "Do not have member (%s)", key.c_str());
  return TASK_STATUS_FAIL;
}

bool TaskStatus::ReadAttr(const Json::Value& doc, TASKSTATUS_ATTR attr, std::string& value) {
  const auto key = _task_status_attr_str.find(attr);
  if (key == _task_status_attr_str.end() || !doc.isObject() || !doc.isMember(key->second) ||
      !ReadableValue(doc[key->second])) {
    return false;
  }
  value = doc[key->second].asString();
  return true;
}

bool TaskStatus::CheckAttrExist(TASKSTATUS_ATTR attr) {
  const std::string key = _task_status_attr_str[attr];
  if (!LockFile(false)) VELA_LOG_TASK(LOG_ERR, "CheckAttrExist", taskID, "lock failed");
  const Json::Value doc = ReadDocument();
  UnlockFile();
  return doc.isMember(key);
}

int TaskStatus::GetStatusIntAttr(TASKSTATUS_ATTR attr, int& n) {
  std::string value;
  if (GetStatusAttr(attr, value) != TASK_STATUS_SUCCESS) return TASK_STATUS_FAIL;
  // As sscanf reads it: leading blanks and trailing text are accepted.
  if (sscanf(value.c_str(), "%d", &n) != 1) {
    VELA_LOG_TASK(LOG_ERR, "GetStatusIntAttr", taskID,
                  "Failed to convert [%s] into integer value, errno: %s", value.c_str(),
                  strerror(errno));
    return TASK_STATUS_FAIL;
  }
  return TASK_STATUS_SUCCESS;
}

int TaskStatus::GetStatusTimeAttr(TASKSTATUS_ATTR attr, long& t) {
  std::string value;
  if (GetStatusAttr(attr, value) != TASK_STATUS_SUCCESS) return TASK_STATUS_FAIL;
  return Utils::TimeStringToTime_T(value, t) ? TASK_STATUS_SUCCESS : TASK_STATUS_FAIL;
}

int TaskStatus::GetCalculatorStatus(CAL_TASK_STATUS& state) {
  std::string value;
  if (GetStatusAttr(TASKSTATUS_ATTR_STATUS, value) != TASK_STATUS_SUCCESS) {
    VELA_LOG_TASK(LOG_DEBUG, "GetCalculatorStatus", taskID, "Failed to get status of TaskStatus");
    return TASK_STATUS_FAIL;
  }
  if (CnvStatusStrToEnumIdx(value, state) != TASK_STATUS_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "GetCalculatorStatus", taskID, "Failed to convert status %s to enum index",
                  value.c_str());
    return TASK_STATUS_FAIL;
  }
  return TASK_STATUS_SUCCESS;
}

int TaskStatus::GetCalculatorStatus(CAL_TASK_STATUS& state, int& errorCode) {
  if (GetCalculatorStatus(state) != TASK_STATUS_SUCCESS) return TASK_STATUS_FAIL;
  if (state < CAL_TASK_STATUS_FAIL) {
    errorCode = -1;  // still pending or running: no code yet
    return TASK_STATUS_SUCCESS;
  }
  if (GetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, errorCode) == TASK_STATUS_SUCCESS) {
    return TASK_STATUS_SUCCESS;
  }
  VELA_LOG_TASK(LOG_ERR, "GetCalculatorStatus", taskID, "Failed to get error code of TaskStatus");
  return TASK_STATUS_FAIL;
}

int TaskStatus::SetCalculatorStatus(CAL_TASK_STATUS state) {
  if (SetStatusAttr(TASKSTATUS_ATTR_STATUS, _cal_task_status_str[state]) == TASK_STATUS_SUCCESS) {
    return TASK_STATUS_SUCCESS;
  }
  VELA_LOG_TASK(LOG_ERR, "SetCalculatorStatus", taskID, "Failed to initialize status of TaskStatus");
  return TASK_STATUS_FAIL;
}

bool TaskStatus::Import(TaskStatus& source) {
  Json::Value sourceDoc;
  if (source.GetJsonVal(sourceDoc) != TASK_STATUS_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "Import", taskID, "Failed to get json value" VELA_ERR_FMT, VELA_ERR_ARGS);
    return false;
  }
  return ImportDocument(sourceDoc, StatusWrite::kWaitOrFail) == TASK_STATUS_SUCCESS;
}

int TaskStatus::ImportDocument(const Json::Value& sourceDoc, StatusWrite how) {
  if (!Valid()) {
    VELA_LOG_TASK(LOG_ERR, "Import", taskID, "lock failed" VELA_ERR_FMT, VELA_ERR_ARGS);
    return TASK_STATUS_FAIL;
  }
  const int locked = LockForWrite(how, "Import");
  bool written = false;
  if (locked == TASK_STATUS_SUCCESS) {
    Json::Value doc = ReadDocument();
    for (int i = TASKSTATUS_ATTR_STATUS; i <= kLastAttr; ++i) {
      const std::string& key = _task_status_attr_str[static_cast<TASKSTATUS_ATTR>(i)];
      if (sourceDoc.isObject() && sourceDoc.isMember(key)) doc[key] = sourceDoc[key];
    }
    written = Utils::SetJsonAttrByPath(filePath.c_str(), doc);
    if (!written) {
      VELA_LOG_TASK(LOG_ERR, "Import", taskID, "Failed to write task attr. to file [%s]" VELA_ERR_FMT,
                    filePath.c_str(), VELA_ERR_ARGS);
    }
  }
  UnlockFile();
  if (locked != TASK_STATUS_SUCCESS) return locked;
  return written ? TASK_STATUS_SUCCESS : TASK_STATUS_FAIL;
}

}  // namespace VelaBtrfsUsage
