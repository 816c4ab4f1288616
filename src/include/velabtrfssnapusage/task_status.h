// The status record of one calculator task: a flat JSON object whose values
// are all strings, in a file named by the task ID, with a lock file of its
// own. Nothing is cached: every getter re-reads the file under a shared
// lock, every setter rewrites it under an exclusive lock, so the web API
// processes and the calculator child always see each other's updates.
#ifndef VELABTRFSSNAPUSAGE_TASK_STATUS_H_
#define VELABTRFSSNAPUSAGE_TASK_STATUS_H_

#include <json/json.h>

#include <string>
#include <utility>
#include <vector>

#include "velabtrfssnapusage/export.h"
#include "velabtrfssnapusage/json_file.h"
#include "velabtrfssnapusage/types.h"

namespace VelaBtrfsUsage {

// Return codes of the code operations.
enum TASK_STATUS_CODE {
  TASK_STATUS_SUCCESS = 0,
  TASK_STATUS_FAIL = 1,
  TASK_STATUS_SKIPPED = 2,         // a progress write not made: its lock was busy
  TASK_STATUS_INVALID_OBJECT = 7,  // not initialised
  TASK_STATUS_NOT_FOUND = 8,       // string not in a table
};

// What a write does about a lock that another process holds.
enum class StatusWrite {
  kWaitOrFail,  // waits (bounded); not granted: nothing is written (1)
  kSkipIfBusy,  // progress figures, soon outdated anyway: not waited for;
                // busy: nothing is written (TASK_STATUS_SKIPPED)
  kAlways,      // a start record or an outcome, which must not be lost: waits
                // (bounded); not granted: written all the same (files are
                // replaced whole, so readers still see a whole record)
};

class VELA_EXPORT TaskStatus {
 public:
  TaskStatus();
  // Opens the record of `taskID` without creating it (TaskStatus::Init with
  // create false; its result is not kept).
  explicit TaskStatus(const std::string& taskID);
  // Frees the strings only: a lock still held is not released.
  virtual ~TaskStatus();

  // Binds the object to a task. With `create`, a record without "status" is
  // created as "ready"; an existing one is kept as it is.
  virtual bool Init(const std::string& taskID, bool create);
  bool Valid() const;
  const std::string& GetTaskID() const { return taskID; }

  bool LockFile(bool exclusive);
  // As above, waiting as `wait` says; a busy try is not logged.
  bool LockFile(bool exclusive, Utils::LockWait wait);
  // Releases the lock (if any); false only for an uninitialised object.
  bool UnlockFile();

  static std::string GetFilePath(const std::string& taskID);
  static std::string GetFileLockPath(const std::string& taskID);
  // Whether the task's status file exists.
  static bool CheckFile(const std::string& taskID);
  // Removes the status file and then the lock file; always true.
  static bool CleanFile(const std::string& taskID);
  static int CnvStatusStrToEnumIdx(const std::string& text, CAL_TASK_STATUS& state);
  static int CnvAttrsStrToEnumIdx(const std::string& text, TASKSTATUS_ATTR& attr);

  int GetJsonVal(Json::Value& out);
  // Writes one attribute under the exclusive lock; nothing is written when
  // the lock cannot be had (1).
  int SetStatusAttr(TASKSTATUS_ATTR attr, const std::string& value);
  // Writes several attributes in one locked update: readers see all of
  // them or none. Without `how`: StatusWrite::kWaitOrFail.
  int SetStatusAttrs(const std::vector<std::pair<TASKSTATUS_ATTR, std::string>>& values);
  int SetStatusAttrs(const std::vector<std::pair<TASKSTATUS_ATTR, std::string>>& values, StatusWrite how);
  int SetStatusNowTimeAttr(TASKSTATUS_ATTR attr);
  int SetStatusIntAttr(TASKSTATUS_ATTR attr, int n);
  bool CheckAttrExist(TASKSTATUS_ATTR attr);
  // Copies every attribute present in `source` into this record.
  bool Import(TaskStatus& source);
  // Copies every attribute present in `sourceDoc` (a record's document)
  // into this record, as `how` says: TASK_STATUS_SUCCESS, _SKIPPED or _FAIL.
  int ImportDocument(const Json::Value& sourceDoc, StatusWrite how);
  int GetStatusAttr(TASKSTATUS_ATTR attr, std::string& value);
  // One attribute of a record's document (GetJsonVal) as GetStatusAttr
  // gives it, without reading the file again or logging; false when absent.
  static bool ReadAttr(const Json::Value& doc, TASKSTATUS_ATTR attr, std::string& value);
  int GetStatusIntAttr(TASKSTATUS_ATTR attr, int& n);
  int GetStatusTimeAttr(TASKSTATUS_ATTR attr, long& t);
  int GetCalculatorStatus(CAL_TASK_STATUS& state);
  // As above; `errorCode` is -1 for "ready" and "process", else the stored
  // "error_code".
  int GetCalculatorStatus(CAL_TASK_STATUS& state, int& errorCode);
  int SetCalculatorStatus(CAL_TASK_STATUS state);

 protected:
  // Reads the document; a missing or corrupt file reads as an empty object.
  Json::Value ReadDocument() const;
  // Takes the exclusive lock for a write as `how` says. TASK_STATUS_SUCCESS
  // to write (locked, or unlocked for kAlways), _SKIPPED or _FAIL not to;
  // the caller calls UnlockFile() either way.
  int LockForWrite(StatusWrite how, const char* function);
  int WriteAttrs(const std::vector<std::pair<TASKSTATUS_ATTR, std::string>>& values, const char* function,
                 StatusWrite how);

  std::string taskID;
  std::string filePath;  // non-empty exactly when the object is valid
  std::string lockPath;
  int lockFd = -1;
};

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_TASK_STATUS_H_
