#include "velabtrfssnapusage/json_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/atomic_file.h"
#include "base/fd_io.h"
#include "base/json_text.h"
#include "base/record_lock.h"
#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "intl_utils/state_files.h"

namespace VelaBtrfsUsage::Utils {

namespace {

constexpr char kLogSource[] = "intl_utils/utils";
// Every state file is a few kilobytes; one far larger is not read.
constexpr size_t kMaxJsonFileBytes = 16u << 20;

}  // namespace

bool GeneralFileLock(const std::string& lockPath, bool exclusive, int& fd) {
  return GeneralFileLock(lockPath, exclusive, fd, LockWait::kBounded);
}

bool GeneralFileLock(const std::string& lockPath, bool exclusive, int& fd, LockWait wait,
                     vela::base::LockOwner owner) {
  fd = -1;
  // A reader never creates a lock file: a missing one means no writer has
  // written yet, and readers see whole files anyway (writers rename). For
  // the same reason a reader that may not open the lock file (a server
  // running under another group than the one the file was made for) reads
  // without it.
  vela::base::UniqueFd file = OpenLockFile(lockPath, exclusive);
  if (!file.Valid()) {
    if (!exclusive && (errno == ENOENT || errno == EACCES)) return true;
    if (exclusive) {
      VELA_LOG(LOG_ERR, "Failed to open file [%s], errmsg(%s)", lockPath.c_str(), strerror(errno));
    } else {
      VELA_LOG(LOG_ERR, "Failed to open file [%s], errmgs(%s)", lockPath.c_str(), strerror(errno));
    }
    return false;
  }
  fd = file.Release();
  const int limitMs = wait == LockWait::kBounded ? vela::base::LockWaitLimitMs() : 0;
  const int error = vela::base::WaitForRecordLock(fd, exclusive, limitMs, owner);
  if (error == 0) return true;
  if (error == ETIMEDOUT && wait == LockWait::kTryOnce) {
    errno = EAGAIN;
    return false;
  }
  if (error == ETIMEDOUT) {
    VELA_LOG(LOG_ERR, "Gave up waiting for the lock on file [%s] after %d ms", lockPath.c_str(), limitMs);
  } else if (error == EAGAIN || error == EACCES) {
    VELA_LOG(LOG_DEBUG, "File [%s] is already locked by another process", lockPath.c_str());
  } else {
    VELA_LOG(LOG_ERR, "Failed to lock file [%s], errmgs(%s)", lockPath.c_str(), strerror(error));
  }
  return false;
}

bool GeneralFileUnlock(int& fd) {
  if (fd == -1) return true;
  bool released = true;
  const int error = vela::base::ReleaseRecordLock(fd);
  if (error == EAGAIN || error == EACCES) {
    VELA_LOG(LOG_DEBUG, "File is already locked by another process");
  } else if (error != 0) {
    VELA_LOG(LOG_ERR, "Process(PID:%d) failed to unlock, errmgs(%s)" VELA_ERR_FMT, getpid(), strerror(error),
             VELA_ERR_ARGS);
    released = false;
  }
  if (fd >= 0) close(fd);
  return released;
}

bool JsonToFile(const Json::Value& doc, const std::string& path) {
  if (path.empty()) return false;
  std::string name;
  const vela::base::UniqueFd dir = OpenContainingDirectory(path, true, name);
  if (!dir.Valid()) return false;
  // A rewrite keeps the replaced file's owner and group and makes it 0644;
  // a new file stays the writer's and private (0600).
  vela::base::FileAttributes attributes = {0600};
  struct stat target;
  if (fstatat(dir.Get(), name.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0) {
    attributes = {0644, target.st_uid, target.st_gid};
  }
  const std::string text = vela::base::CompactJson(doc);
  return vela::base::AtomicReplace(dir.Get(), name, attributes, [&](int fd) {
    if (vela::base::WriteAll(fd, text.data(), text.size())) return true;
    VELA_LOG(LOG_DEBUG, "Failed to write the new content of %s, errno(%d)", path.c_str(), errno);
    return false;
  });
}

bool JsonFromFile(Json::Value& doc, const std::string& path) {
  if (path.empty()) return false;
  std::string name;
  vela::base::UniqueFd file;
  const vela::base::UniqueFd dir = OpenContainingDirectory(path, false, name);
  if (dir.Valid()) file = OpenRegularFileAt(dir.Get(), name);
  if (!file.Valid()) {
    VELA_LOG(LOG_DEBUG, "Failed to open ifstream (%s), errno(%s)", path.c_str(), strerror(errno));
    return false;
  }
  std::string text;
  std::string error;
  if (!vela::base::ReadToEnd(file.Get(), kMaxJsonFileBytes, text) || !vela::base::ParseJsonText(text, doc, error)) {
    VELA_LOG(LOG_DEBUG, "Some errors occurs when parseing input stream, path(%s), errno(%d)", path.c_str(),
             errno);
    return false;
  }
  return true;
}

bool SetJsonAttrByPath(const char* path, const Json::Value& doc) {
  if (JsonToFile(doc, path != nullptr ? path : "")) return true;
  VELA_LOG(LOG_DEBUG, "Failed to write Json data to file, path: %s", path != nullptr ? path : "");
  return false;
}

Json::Value GetJsonAttrByPath(const char* path) {
  Json::Value doc;
  if (!JsonFromFile(doc, path != nullptr ? path : "")) {
    VELA_LOG(LOG_DEBUG, "Failed to load Json data from file, path: %s", path != nullptr ? path : "");
  }
  return doc;
}

}  // namespace VelaBtrfsUsage::Utils
