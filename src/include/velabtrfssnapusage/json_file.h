// Locked JSON files: whole-file record locks on separate lock files, and
// JSON documents written atomically (temporary file, flush, rename).
#ifndef VELABTRFSSNAPUSAGE_JSON_FILE_H_
#define VELABTRFSSNAPUSAGE_JSON_FILE_H_

#include <json/json.h>

#include <string>

#include "base/record_lock.h"
#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage::Utils {

// How a lock is waited for.
enum class LockWait {
  kBounded,  // at most 30 seconds (VELA_LOCK_WAIT_MS may say less); giving up is logged
  kTryOnce,  // not at all: a lock another holds leaves it busy (errno EAGAIN), unlogged
};

// Opens `lockPath` and waits, at most 30 seconds, for a whole-file lock on
// it, exclusive or shared. An exclusive lock creates the lock file (root's,
// readable by the web server's group only) and its directories when
// missing; a shared one creates nothing: with no lock file yet, nobody has
// written, and the lock is granted with `fd` -1. So is a shared lock on a
// lock file the process may not open: writers replace files whole, so a
// reader without the lock still never sees a part of one. On success `fd`
// holds the descriptor; after a failed lock it may still hold an open
// descriptor, which GeneralFileUnlock closes.
VELA_EXPORT bool GeneralFileLock(const std::string& lockPath, bool exclusive, int& fd);
// As above, waiting as `wait` says, and held as `owner` says: a lock of the
// open file is held by a forked child too, until every descriptor of it is
// closed (and must be released by closing, see GeneralFileUnlock).
VELA_EXPORT bool GeneralFileLock(const std::string& lockPath, bool exclusive, int& fd, LockWait wait,
                                 vela::base::LockOwner owner = vela::base::LockOwner::kProcess);
// Releases the lock and closes `fd` (-1: nothing held, true at once). Does
// not write -1 back. A lock of the open file is only closed here: it stays
// with whoever else holds a descriptor of that open.
VELA_EXPORT bool GeneralFileUnlock(int& fd);

// Writes `doc` to `path` atomically. A rewrite keeps the old file's owner
// and group and sets 0644; a new file is 0600 with the writer's owner. On
// failure the old file stays whole and no temporary file is left. Callers
// hold the file's exclusive lock.
VELA_EXPORT bool JsonToFile(const Json::Value& doc, const std::string& path);
// Reads and parses `path` into `doc`; false when it cannot be opened or
// parsed (a file that is not regular, or nested too deep, counts as such).
VELA_EXPORT bool JsonFromFile(Json::Value& doc, const std::string& path);

// JsonToFile, logging a failure.
VELA_EXPORT bool SetJsonAttrByPath(const char* path, const Json::Value& doc);
// The document in `path`, or null when it is missing or unreadable (a
// partly filled value after a parse error). Failures are logged.
VELA_EXPORT Json::Value GetJsonAttrByPath(const char* path);

// A lock held for a scope (GeneralFileLock, then GeneralFileUnlock at the
// end). Callers log a failure to lock in their own words.
class ScopedFileLock {
 public:
  ScopedFileLock(const std::string& lockPath, bool exclusive,
                 vela::base::LockOwner owner = vela::base::LockOwner::kProcess)
      : locked_(GeneralFileLock(lockPath, exclusive, fd_, LockWait::kBounded, owner)) {}
  ~ScopedFileLock() { GeneralFileUnlock(fd_); }
  ScopedFileLock(const ScopedFileLock&) = delete;
  ScopedFileLock& operator=(const ScopedFileLock&) = delete;
  bool Locked() const { return locked_; }

 private:
  int fd_ = -1;
  bool locked_;
};

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_JSON_FILE_H_
