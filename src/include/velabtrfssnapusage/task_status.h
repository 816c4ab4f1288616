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
#include "velabtrfssnapusage/types.h"

namespace VelaBtrfsUsage {

// Return codes of the code operations.
enum TASK_STATUS_CODE {
  TASK_STATUS_SUCCESS = 0,
  TASK_STATUS_FAIL = 1,
  TASK_STATUS_INVALID_OBJECT = 7,  // not initialised
  TASK_STATUS_NOT_FOUND = 8,       // string not in a table
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
  // them or none.
  int SetStatusAttrs(const std::vector<std::pair<TASKSTATUS_ATTR, std::string>>& values);
  int SetStatusNowTimeAttr(TASKSTATUS_ATTR attr);
  int SetStatusIntAttr(TASKSTATUS_ATTR attr, int n);
  bool CheckAttrExist(TASKSTATUS_ATTR attr);
  // Copies every attribute present in `source` into this record.
  bool Import(TaskStatus& source);
  int GetStatusAttr(TASKSTATUS_ATTR attr, std::string& value);
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
  int WriteAttrs(const std::vector<std::pair<TASKSTATUS_ATTR, std::string>>& values, const char* function);

  std::string taskID;
  std::string filePath;  // non-empty exactly when the object is valid
  std::string lockPath;
  int lockFd = -1;
};

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_TASK_STATUS_H_
