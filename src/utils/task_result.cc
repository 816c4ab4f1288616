#include "velabtrfssnapusage/task_result.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "base/atomic_file.h"
#include "base/fd_io.h"
#include "vela/sz_list.h"
#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "intl_utils/state_files.h"
#include "velabtrfssnapusage/file_helpers.h"
#include "velabtrfssnapusage/json_file.h"

namespace VelaBtrfsUsage {

namespace {

constexpr char kLogSource[] = "utils/task_result";

}  // namespace

std::string TaskResult::GetFileBasePath(const std::string& taskID) {
  return FileNames::TaskResultBase(taskID);
}

std::string TaskResult::GetFileLockBasePath(const std::string& taskID) {
  return FileNames::TaskResultLockBase(taskID);
}

bool TaskResult::InitWorkingDir() {
  for (const char* dir : {VELA_RUN_DIR, VELA_LOCK_DIR, VELA_TASK_RESULT_LOCK_DIR, VELA_TASK_RESULT_DIR}) {
    if (!Utils::EnsureStateDirectory(dir)) return false;
  }
  return true;
}

bool TaskResult::LockFile(const std::string& fileLockPath, bool exclusive, int& fd) {
  if (fileLockPath.empty()) {
    VELA_INVALID_ARGUMENT("!fileLockPath.empty()");
    return false;
  }
  if (!Utils::GeneralFileLock(fileLockPath, exclusive, fd)) {
    VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", fileLockPath.c_str(),
             exclusive ? 1 : 0);
    return false;
  }
  return true;
}

bool TaskResult::UnlockFile(int& fd) {
  if (!Utils::GeneralFileUnlock(fd)) VELA_LOG(LOG_ERR, "Failed to unlock fd(%d)", fd);
  fd = -1;
  return true;
}

template <typename T>
int TaskResult::WriteVtr(const std::string& filePath, const std::vector<T>& v) {
  static_assert(sizeof(T) == 8, "result vectors hold 8-byte elements");
  if (filePath.empty()) {
    VELA_INVALID_ARGUMENT("!filePath.empty()");
    return TASK_RESULT_INVALID_ARGUMENT;
  }
  // Written beside the target and renamed over it: a reader (readers take
  // no lock) or a crash sees the old vector or the new one, never a part.
  std::string name;
  const vela::base::UniqueFd dir = Utils::OpenContainingDirectory(filePath, true, name);
  if (!dir.Valid()) {
    VELA_LOG(LOG_ERR, "File [%s] cannot be created.", filePath.c_str());
    return TASK_RESULT_FAIL;
  }
  const uint64_t count = v.size();
  const bool written = vela::base::AtomicReplace(dir.Get(), name, {0644}, [&](int fd) {
    return vela::base::WriteAll(fd, &count, sizeof(count)) && vela::base::WriteAll(fd, v.data(), v.size() * sizeof(T));
  });
  if (written) return TASK_RESULT_SUCCESS;
  VELA_LOG(LOG_ERR, "Some errors occur on output stream, file: %s", filePath.c_str());
  return TASK_RESULT_FAIL;
}

template <typename T>
int TaskResult::ReadVtr(const std::string& filePath, std::vector<T>& v) {
  static_assert(sizeof(T) == 8, "result vectors hold 8-byte elements");
  if (filePath.empty()) {
    VELA_INVALID_ARGUMENT("!filePath.empty()");
    return TASK_RESULT_INVALID_ARGUMENT;
  }
  std::string name;
  vela::base::UniqueFd file;
  const vela::base::UniqueFd dir = Utils::OpenContainingDirectory(filePath, false, name);
  if (dir.Valid()) file = Utils::OpenRegularFileAt(dir.Get(), name);
  if (!file.Valid()) {
    VELA_LOG(LOG_ERR, "File [%s] cannot be opened.", filePath.c_str());
    return TASK_RESULT_FAIL;
  }
  const int fd = file.Get();
  bool failed = false;
  uint64_t count = 0;
  // Fewer than 8 bytes: nothing could be read, an empty vector.
  if (vela::base::ReadAll(fd, &count, sizeof(count), failed) != sizeof(count)) count = 0;
  struct stat st;
  if (!failed && fstat(fd, &st) == 0) {
    // The count is checked against the file before anything is allocated:
    // files are replaced whole, so a count the file cannot hold is
    // corruption, and invented elements would be wrong figures.
    const uint64_t available = st.st_size > 8 ? static_cast<uint64_t>(st.st_size - 8) / sizeof(T) : 0;
    if (count > available) {
      failed = true;
    } else {
      v.assign(count, T{});
      if (vela::base::ReadAll(fd, v.data(), count * sizeof(T), failed) != count * sizeof(T)) failed = true;
    }
  } else {
    failed = true;
  }
  if (failed) {
    v.clear();
    VELA_LOG(LOG_ERR, "Some errors occur on input stream, file: %s", filePath.c_str());
    return TASK_RESULT_FAIL;
  }
  return TASK_RESULT_SUCCESS;
}

template <typename T>
int TaskResult::WriteResultVtr(const TASK_RESULT_OPT& opt, const std::string& taskID,
                               const std::vector<T>& v) {
  if (taskID.empty()) {
    VELA_INVALID_ARGUMENT("!taskID.empty()");
    return TASK_RESULT_INVALID_ARGUMENT;
  }
  int fd = -1;
  int result = TASK_RESULT_FAIL;
  const char* suffix = FileNames::TaskResultSuffix(opt);
  const std::string path = suffix != nullptr ? GetFileBasePath(taskID) + suffix : "";
  const std::string lockPath = suffix != nullptr ? GetFileLockBasePath(taskID) + suffix : "";
  if (!InitWorkingDir()) {
    VELA_LOG(LOG_ERR, "Failed to check or make working path of task result" VELA_ERR_FMT, VELA_ERR_ARGS);
  } else if (!LockFile(lockPath, true, fd)) {
    VELA_LOG(LOG_ERR, "lock failed, path (%s)", lockPath.c_str());
  } else if (WriteVtr(path, v) != TASK_RESULT_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "WriteResultVtr", taskID, "Failed to write task result to file: %s, resultOpt: %d",
                  path.c_str(), static_cast<int>(opt));
  } else {
    result = TASK_RESULT_SUCCESS;
  }
  UnlockFile(fd);
  return result;
}

template <typename T>
int TaskResult::GetResultVtr(const TASK_RESULT_OPT& opt, const std::string& taskID, std::vector<T>& v) {
  if (taskID.empty()) {
    VELA_INVALID_ARGUMENT("!taskID.empty()");
    return TASK_RESULT_INVALID_ARGUMENT;
  }
  const char* suffix = FileNames::TaskResultSuffix(opt);
  const std::string path = suffix != nullptr ? GetFileBasePath(taskID) + suffix : "";
  if (ReadVtr(path, v) != TASK_RESULT_SUCCESS) {
    VELA_LOG_TASK(LOG_ERR, "GetResultVtr", taskID, "Failed to read task result to file: %s, resultOpt: %d",
                  path.c_str(), static_cast<int>(opt));
    return TASK_RESULT_FAIL;
  }
  return TASK_RESULT_SUCCESS;
}

bool TaskResult::CleanFile(const std::string& taskID) {
  // An empty ID would select every task's files.
  if (taskID.empty()) {
    VELA_INVALID_ARGUMENT("!taskID.empty()");
    return false;
  }
  vela::platform::SzList files;
  if (!files.Ok()) {
    VELA_LOG(LOG_ERR, "VLIBCSzListAlloc failed. " VELA_ERR_FMT, VELA_ERR_ARGS);
    return false;
  }
  bool ok = true;
  for (const char* dir : {VELA_TASK_RESULT_DIR, VELA_TASK_RESULT_LOCK_DIR}) {
    if (!Utils::SearchTaskFile(taskID, dir, files.Address())) {
      VELA_LOG_TASK(LOG_ERR, "CleanFile", taskID, "Failed to search result files over the path [%s]" VELA_ERR_FMT,
                    dir, VELA_ERR_ARGS);
      ok = false;
      break;
    }
  }
  if (ok && !Utils::DeleteCandidateFile(files.Address())) {
    VELA_LOG_TASK(LOG_ERR, "CleanFile", taskID, "Failed to delete the candidate files" VELA_ERR_FMT,
                  VELA_ERR_ARGS);
    ok = false;
  }
  // What a writer that died left under the vectors' and the space map's
  // temporary names (the size tool writes the map the same way).
  for (const char* suffix : {".result", ".subvol_id", VELA_SPACE_MAP_SUFFIX}) {
    if (ok && !Utils::RemoveStateFileTemporary(GetFileBasePath(taskID) + suffix)) {
      VELA_LOG_TASK(LOG_ERR, "CleanFile", taskID, "Failed to delete the candidate files" VELA_ERR_FMT,
                    VELA_ERR_ARGS);
      ok = false;
    }
  }
  return ok;
}

template VELA_EXPORT int TaskResult::WriteVtr(const std::string&, const std::vector<unsigned long long>&);
template VELA_EXPORT int TaskResult::ReadVtr(const std::string&, std::vector<unsigned long long>&);
template VELA_EXPORT int TaskResult::WriteResultVtr(const TASK_RESULT_OPT&, const std::string&,
                                                    const std::vector<unsigned long long>&);
template VELA_EXPORT int TaskResult::GetResultVtr(const TASK_RESULT_OPT&, const std::string&,
                                                  std::vector<unsigned long long>&);

}  // namespace VelaBtrfsUsage
