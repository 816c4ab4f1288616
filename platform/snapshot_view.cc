#include "snapshot_view.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "base/directory.h"
#include "base/record_lock.h"
#include "base/unique_fd.h"

namespace vela::platform {

namespace {

using vela::base::UniqueFd;

constexpr vela::base::DirectoryMode kViewDirMode = {0755, 0};
constexpr int kLockPollMs = 10;

// flock() on the directory itself: nothing to create for the lock, and it
// goes with the last descriptor.
bool LockDirectory(int fd) {
  const int limitMs = vela::base::LockWaitLimitMs();
  for (int waited = 0;; waited += kLockPollMs) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK || waited >= limitMs) {
      if (errno == EWOULDBLOCK) errno = ETIMEDOUT;
      return false;
    }
    const struct timespec pause = {0, kLockPollMs * 1000000L};
    nanosleep(&pause, nullptr);
  }
}

// The links now in the directory: name -> target (anything else: "").
bool ReadEntries(int dirFd, std::map<std::string, std::string>* entries) {
  UniqueFd fd(openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DIR* dir = fd.Valid() ? fdopendir(fd.Get()) : nullptr;
  if (dir == nullptr) return false;
  fd.Release();
  errno = 0;
  while (const struct dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    char target[4096];
    const ssize_t n = readlinkat(dirfd(dir), entry->d_name, target, sizeof(target) - 1);
    (*entries)[entry->d_name] = n >= 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
  }
  const int readError = errno;
  closedir(dir);
  errno = readError;
  return readError == 0;
}

bool RemoveEntry(int dirFd, const std::string& name) {
  if (unlinkat(dirFd, name.c_str(), 0) == 0 || errno == ENOENT) return true;
  // Nothing but links is put here; a directory in their place is removed
  // only when empty.
  return errno == EISDIR && unlinkat(dirFd, name.c_str(), AT_REMOVEDIR) == 0;
}

// Puts the link in place in one step, so that a reader never finds the
// name missing.
bool PlaceLink(int dirFd, const std::string& name, const std::string& target) {
  const std::string temporary = "." + name + ".new";
  unlinkat(dirFd, temporary.c_str(), 0);  // a dead writer's, if any: its absence is what matters
  if (symlinkat(target.c_str(), dirFd, temporary.c_str()) != 0) return false;
  if (renameat(dirFd, temporary.c_str(), dirFd, name.c_str()) == 0) return true;
  const int renameError = errno;
  unlinkat(dirFd, temporary.c_str(), 0);
  errno = renameError;
  return false;
}

}  // namespace

std::string SnapshotViewDir(int volume, const std::string& share) {
  return std::string(kSnapshotViewRoot) + "/volume" + std::to_string(volume) + "/" + share;
}

bool RebuildSnapshotView(int volume, const std::string& share,
                         const std::function<bool(std::vector<std::pair<std::string, std::string>>*)>& list,
                         std::string* refusal) {
  const std::string rootPath = kSnapshotViewRoot;
  const size_t slash = rootPath.rfind('/');
  UniqueFd parent(open(rootPath.substr(0, slash).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent.Valid()) return false;
  UniqueFd root = vela::base::OpenCheckedDirectoryAt(parent.Get(), rootPath.substr(slash + 1), true, kViewDirMode,
                                                     *refusal);
  if (!root.Valid()) return false;
  UniqueFd volumeDir = vela::base::OpenCheckedDirectoryAt(root.Get(), "volume" + std::to_string(volume), true,
                                                          kViewDirMode, *refusal);
  if (!volumeDir.Valid()) return false;
  UniqueFd dir = vela::base::OpenCheckedDirectoryAt(volumeDir.Get(), share, true, kViewDirMode, *refusal);
  if (!dir.Valid() || !LockDirectory(dir.Get())) return false;

  std::vector<std::pair<std::string, std::string>> links;
  std::map<std::string, std::string> present;
  if (!list(&links) || !ReadEntries(dir.Get(), &present)) return false;
  std::map<std::string, std::string> wanted(links.begin(), links.end());
  for (const auto& [name, target] : present) {
    if (wanted.count(name) == 0 && !RemoveEntry(dir.Get(), name)) return false;
  }
  for (const auto& [name, target] : wanted) {
    const auto found = present.find(name);
    if ((found == present.end() || found->second != target) && !PlaceLink(dir.Get(), name, target)) return false;
  }
  return true;
}

}  // namespace vela::platform
