#include "velabtrfssnapusage/json_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "intl_utils/fd_io.h"
#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "intl_utils/make_dirs.h"

namespace VelaBtrfsUsage::Utils {

namespace {

constexpr char kLogSource[] = "intl_utils/utils";

struct flock WholeFile(short type) {
  struct flock record = {};
  record.l_type = type;
  record.l_whence = SEEK_SET;
  record.l_start = 0;
  record.l_len = 0;  // the whole file, however large it grows
  record.l_pid = getpid();
  return record;
}

std::string Serialize(const Json::Value& doc) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, doc);
}

// Makes a finished rename durable. The rename itself is already atomic for
// every reader, so a failure here is ignored on purpose.
void SyncDirectoryOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  (void)fsync(fd);
  close(fd);
}

}  // namespace

bool GeneralFileLock(const std::string& lockPath, bool exclusive, int& fd) {
  if (!VELA_ENSURE_DIRECTORIES(VELA_LOCK_DIR)) return false;
  fd = -1;
  // O_NONBLOCK keeps the open from ever blocking; the lock below still waits.
  const int access = exclusive ? O_WRONLY : O_RDONLY;
  fd = open(lockPath.c_str(), access | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (exclusive) {
      VELA_LOG(LOG_ERR, "Failed to open file [%s], errmsg(%s)", lockPath.c_str(), strerror(errno));
    } else {
      VELA_LOG(LOG_ERR, "Failed to open file [%s], errmgs(%s)", lockPath.c_str(), strerror(errno));
    }
    return false;
  }
  struct flock record = WholeFile(exclusive ? F_WRLCK : F_RDLCK);
  if (fcntl(fd, F_SETLKW, &record) == 0) return true;
  if (errno == EAGAIN || errno == EACCES) {
    VELA_LOG(LOG_DEBUG, "File [%s] is already locked by another process", lockPath.c_str());
  } else {
    VELA_LOG(LOG_ERR, "Failed to lock file [%s], errmgs(%s)", lockPath.c_str(), strerror(errno));
  }
  return false;
}

bool GeneralFileUnlock(int& fd) {
  if (fd == -1) return true;
  bool released = true;
  struct flock record = WholeFile(F_UNLCK);
  if (fcntl(fd, F_SETLKW, &record) != 0) {
    if (errno == EAGAIN || errno == EACCES) {
      VELA_LOG(LOG_DEBUG, "File is already locked by another process");
    } else {
      VELA_LOG(LOG_ERR, "Process(PID:%d) failed to unlock, errmgs(%s)" VELA_ERR_FMT, getpid(),
               strerror(errno), VELA_ERR_ARGS);
      released = false;
    }
  }
  if (fd >= 0) close(fd);
  return released;
}

bool JsonToFile(const Json::Value& doc, const std::string& path) {
  if (path.empty()) return false;
  std::string temp = path + ".XXXXXX";
  // The temporary file is private until it is complete and renamed.
  const mode_t oldMask = umask(077);
  const int fd = mkostemp(temp.data(), O_CLOEXEC);
  umask(oldMask);
  if (fd < 0) return false;

  struct stat target;
  const bool targetExists = stat(path.c_str(), &target) == 0;

  // The data reaches the disk before the rename, so that a power cut leaves
  // either the old record or the new one, never an empty file.
  const std::string text = Serialize(doc);
  bool ok = WriteAll(fd, text.data(), text.size()) && fsync(fd) == 0;
  if (ok && targetExists) {
    if (fchown(fd, target.st_uid, target.st_gid) != 0) {
      VELA_LOG(LOG_DEBUG, "Failed to chown, path(%s), owner(%u), group(%u), errno(%d)", temp.c_str(),
               target.st_uid, target.st_gid, errno);
    }
    if (fchmod(fd, 0644) != 0) {
      VELA_LOG(LOG_DEBUG, "Failed to chmod, path(%s), errno(%d)", temp.c_str(), errno);
    }
  }
  if (close(fd) != 0) ok = false;
  if (ok && rename(temp.c_str(), path.c_str()) == 0) {
    SyncDirectoryOf(path);
    return true;
  }
  // Only a temporary file that was not renamed is ours to remove: after a
  // rename its name may already belong to another writer's new file.
  unlink(temp.c_str());
  return false;
}

bool JsonFromFile(Json::Value& doc, const std::string& path) {
  if (path.empty()) return false;
  std::ifstream in(path);
  if (!in.is_open()) {
    VELA_LOG(LOG_DEBUG, "Failed to open ifstream (%s), errno(%s)", path.c_str(), strerror(errno));
    return false;
  }
  Json::Reader reader;
  if (!reader.parse(in, doc, false)) {
    VELA_LOG(LOG_DEBUG, "Some errors occurs when parseing input stream, path(%s), errno(%d)",
             path.c_str(), errno);
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
