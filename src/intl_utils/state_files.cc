#include "intl_utils/state_files.h"

#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include "base/atomic_file.h"
#include "base/directory.h"
#include "intl_utils/file_names.h"
#include "intl_utils/log.h"

namespace VelaBtrfsUsage::Utils {

namespace {

using vela::base::UniqueFd;

constexpr char kLogSource[] = "intl_utils/utils";
constexpr const char* kStateTrees[] = {VELA_RUN_DIR, VELA_LOCK_DIR, VELA_PERSISTENT_DIR};

std::string DirName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The state tree `dir` lies in, if any.
const char* TreeOf(const std::string& dir) {
  for (const char* tree : kStateTrees) {
    const size_t n = strlen(tree);
    if (dir.compare(0, n, tree) == 0 && (dir.size() == n || dir[n] == '/')) return tree;
  }
  return nullptr;
}

// Whether a directory is one every user may write to ("/run/lock").
bool OpenToAll(int dirFd) {
  struct stat st;
  return fstat(dirFd, &st) == 0 && (st.st_mode & S_IWOTH) != 0;
}

// Moves the entry `name` of `parentFd` (whatever it is: a directory, a
// link, which is not followed, a file) aside under a hidden name nobody
// can guess, and logs it. Root may do so in a sticky directory too.
bool MoveAside(int parentFd, const std::string& name, const std::string& path, const std::string& why) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    uint64_t random = 0;
    if (getrandom(&random, sizeof(random), 0) != static_cast<ssize_t>(sizeof(random))) return false;
    char suffix[24];
    snprintf(suffix, sizeof(suffix), "%016llx", static_cast<unsigned long long>(random));
    const std::string aside = "." + name + ".foreign." + suffix;
    if (renameat2(parentFd, name.c_str(), parentFd, aside.c_str(), RENAME_NOREPLACE) == 0) {
      VELA_LOG(LOG_WARNING, "Moved the foreign state directory %s aside to %s (%s)", path.c_str(),
               (DirName(path) + "/" + aside).c_str(), why.c_str());
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

UniqueFd Walk(const std::string& dir, const char* tree, bool create) {
  // The tree's parent is the system's ("/run", "/run/lock", "/usr/local").
  const std::string top = DirName(tree);
  UniqueFd at(open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!at.Valid()) return at;
  std::vector<std::string> parts;
  size_t begin = top.size() + 1;
  while (begin <= dir.size()) {
    const size_t end = std::min(dir.find('/', begin), dir.size());
    parts.push_back(dir.substr(begin, end - begin));
    begin = end + 1;
  }
  const vela::base::DirectoryMode how = {VELA_STATE_DIR_MODE, 0};
  std::string walked = top;
  for (const std::string& part : parts) {
    walked += "/" + part;
    if (part.empty() || part == "." || part == "..") {
      errno = EINVAL;
      return UniqueFd();
    }
    std::string refusal;
    UniqueFd next = vela::base::OpenCheckedDirectoryAt(at.Get(), part, create, how, refusal);
    // A tree's own directory in a directory open to all ("/run/lock") may
    // have been made by any user, before the module made it: that must not
    // disable the module. It is moved aside and made anew (a user quick
    // enough to make it again meanwhile gets a few more tries). Deeper
    // directories, and trees under root's own directories, only root could
    // have put there: those are refused.
    if (!next.Valid() && !refusal.empty() && walked == tree && geteuid() == 0 && OpenToAll(at.Get())) {
      for (int tries = 0; tries < 3 && !next.Valid() && !refusal.empty(); ++tries) {
        if (!MoveAside(at.Get(), part, walked, refusal)) break;
        next = vela::base::OpenCheckedDirectoryAt(at.Get(), part, create, how, refusal);
      }
    }
    if (!next.Valid()) {
      if (!refusal.empty()) {
        VELA_LOG(LOG_ERR, "Refused to use the state directory %s: %s", walked.c_str(), refusal.c_str());
      } else if (errno != ENOENT || create) {
        VELA_LOG(LOG_ERR, "Faild to mkdir %s, err:(%s)." VELA_ERR_FMT, walked.c_str(), strerror(errno),
                 VELA_ERR_ARGS);
      }
      return next;
    }
    at = std::move(next);
  }
  return at;
}

// The request a StateDirectoryReuse stands for (0: none).
unsigned long gRequest = 0;
unsigned long gRequests = 0;

// State directories this process has walked to and checked, kept open.
// A request reads a record of every share, each through two directories:
// walking and checking every component each time cost most of the time of
// a request. A directory is used again as long as its path still leads to
// it and it is still root's and closed to others; it is open, so its inode
// cannot be taken by another directory meanwhile.
class CheckedDirectories {
 public:
  // A new open of the directory, without a walk: not a duplicate, whose
  // reading position a caller listing the directory would share.
  static UniqueFd OpenAgain(int fd) { return UniqueFd(openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)); }

  UniqueFd Find(const std::string& dir) {
    if (owner_ != getpid()) Forget();
    const auto found = dirs_.find(dir);
    if (found == dirs_.end()) return UniqueFd();
    // The path must still lead to the directory checked, and the directory
    // still be root's and closed to others (looked at once per request
    // within a StateDirectoryReuse).
    struct stat byPath;
    struct stat held;
    if (found->second.seenIn != gRequest || gRequest == 0) {
      if (stat(dir.c_str(), &byPath) != 0 || byPath.st_dev != found->second.device ||
          byPath.st_ino != found->second.inode || fstat(found->second.fd, &held) != 0 || held.st_uid != 0 ||
          (held.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        close(found->second.fd);
        dirs_.erase(found);
        return UniqueFd();
      }
      found->second.seenIn = gRequest;
    }
    return OpenAgain(found->second.fd);
  }

  void Keep(const std::string& dir, int fd) {
    // A few directories are used by every request; one per share (result
    // directories) must not make the process hold a descriptor per share.
    if (owner_ != getpid() || dirs_.size() >= kMaxKept) Forget();
    struct stat st;
    if (fstat(fd, &st) != 0) return;
    const int kept = OpenAgain(fd).Release();
    if (kept < 0) return;
    const auto [place, added] = dirs_.emplace(dir, Held{kept, st.st_dev, st.st_ino, gRequest});
    if (!added) {
      close(place->second.fd);
      place->second = {kept, st.st_dev, st.st_ino, gRequest};
    }
  }

 private:
  // A forked child has the memory but not the descriptors (workers close
  // them all), whose numbers may name other files there by now.
  void Forget() {
    if (owner_ == getpid()) {
      for (const auto& [dir, held] : dirs_) close(held.fd);
    }
    dirs_.clear();
    owner_ = getpid();
  }

  struct Held {
    int fd;
    dev_t device;
    ino_t inode;
    unsigned long seenIn;  // the request it was last looked up in
  };
  static constexpr size_t kMaxKept = 16;
  pid_t owner_ = 0;
  std::map<std::string, Held> dirs_;
};

CheckedDirectories& Checked() {
  static auto* checked = new CheckedDirectories;  // outlives exit-time users
  return *checked;
}

}  // namespace

StateDirectoryReuse::StateDirectoryReuse() : outer_(gRequest) {
  if (outer_ == 0) gRequest = ++gRequests;
}

StateDirectoryReuse::~StateDirectoryReuse() { gRequest = outer_; }

UniqueFd OpenStateDirectory(const std::string& dir, bool create) {
  const char* tree = TreeOf(dir);
  if (tree == nullptr) return UniqueFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  UniqueFd found = Checked().Find(dir);
  if (found.Valid()) return found;
  UniqueFd walked = Walk(dir, tree, create);
  if (walked.Valid()) Checked().Keep(dir, walked.Get());
  return walked;
}

bool EnsureStateDirectory(const std::string& dir) { return OpenStateDirectory(dir, true).Valid(); }

bool RemoveStateFile(const std::string& path) {
  std::string name;
  const UniqueFd dir = OpenContainingDirectory(path, false, name);
  if (!dir.Valid()) return errno == ENOENT;
  return unlinkat(dir.Get(), name.c_str(), 0) == 0 || errno == ENOENT;
}

bool RemoveStateFileTemporary(const std::string& path) {
  std::string name;
  const UniqueFd dir = OpenContainingDirectory(path, false, name);
  if (!dir.Valid()) return errno == ENOENT;
  return vela::base::RemoveTreeAt(dir.Get(), vela::base::TemporaryNameFor(name));
}

UniqueFd OpenContainingDirectory(const std::string& path, bool create, std::string& name) {
  const auto slash = path.find_last_of('/');
  name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") {
    errno = EINVAL;
    return UniqueFd();
  }
  return OpenStateDirectory(DirName(path), create);
}

UniqueFd OpenRegularFileAt(int dirFd, const std::string& name) {
  UniqueFd fd(openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (fd.Valid() && (fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode))) {
    fd.Reset();
    errno = EINVAL;
  }
  return fd;
}

UniqueFd OpenLockFile(const std::string& path, bool create) {
  std::string name;
  UniqueFd dir = OpenContainingDirectory(path, create, name);
  if (!dir.Valid()) return dir;
  constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const bool root = geteuid() == 0;
  UniqueFd fd;
  if (create) {
    fd.Reset(openat(dir.Get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | kFlags, 0600));
    if (fd.Valid()) {
      // Made private, then given its group and mode: never more open than meant.
      if (fchown(fd.Get(), 0, WebServerGroupId()) != 0 || fchmod(fd.Get(), VELA_LOCK_FILE_MODE) != 0) {
        return UniqueFd();
      }
      return fd;
    }
    if (errno != EEXIST) return fd;
  }
  fd.Reset(openat(dir.Get(), name.c_str(), (create ? O_RDWR : O_RDONLY) | kFlags));
  struct stat st;
  if (fd.Valid() && (fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode))) {
    fd.Reset();
    errno = EINVAL;
    return fd;
  }
  // A lock file of another group or mode: others than the server could
  // hold it, or the server could not read its state. Root puts it right
  // (a reader too: a lock file only ever read would stay wrong otherwise).
  if (fd.Valid() && root) {
    const gid_t group = WebServerGroupId();
    if ((st.st_mode & 07777) != VELA_LOCK_FILE_MODE || st.st_uid != 0 || st.st_gid != group) {
      if (fchown(fd.Get(), 0, group) != 0 || fchmod(fd.Get(), VELA_LOCK_FILE_MODE) != 0) {
        VELA_LOG(LOG_ERR, "Failed to set the owner and mode of the lock file %s: %s", path.c_str(), strerror(errno));
      }
    }
  }
  return fd;
}

bool IsPathComponent(const std::string& name) {
  return !name.empty() && name.size() <= NAME_MAX && name != "." && name != ".." &&
         name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

gid_t WebServerGroupId() {
  // The group database is read once per change of the group file, not for
  // every lock file a request opens.
  static struct {
    bool known = false;
    dev_t device;
    ino_t inode;
    struct timespec changed;
    off_t size;
    gid_t gid;
    time_t checkedAt;
  } cache;
  // And the group file itself is looked at again at most once a second.
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  if (cache.known && now.tv_sec == cache.checkedAt) return cache.gid;
  cache.checkedAt = now.tv_sec;
  struct stat st;
  const bool stated = stat("/etc/group", &st) == 0;
  if (stated && cache.known && cache.device == st.st_dev && cache.inode == st.st_ino &&
      cache.changed.tv_sec == st.st_ctim.tv_sec && cache.changed.tv_nsec == st.st_ctim.tv_nsec &&
      cache.size == st.st_size) {
    return cache.gid;
  }
  struct group entry;
  struct group* found = nullptr;
  char buffer[4096];
  const gid_t gid = getgrnam_r(VELA_WEB_SERVER_GROUP, &entry, buffer, sizeof(buffer), &found) == 0 && found != nullptr
                        ? found->gr_gid
                        : 0;
  if (stated) cache = {true, st.st_dev, st.st_ino, st.st_ctim, st.st_size, gid, now.tv_sec};
  return gid;
}

}  // namespace VelaBtrfsUsage::Utils
