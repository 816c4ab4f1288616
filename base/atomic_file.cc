#include "base/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/directory.h"
#include "base/file_name.h"
#include "base/unique_fd.h"

namespace vela::base {

namespace {

// Whatever is found under the temporary name is a writer's that died, or
// was put there: a file, a link, or a whole directory, it goes, so that
// nothing there can block the file's writes for good.
UniqueFd CreateTemporary(int dirFd, const std::string& temp) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  UniqueFd fd(openat(dirFd, temp.c_str(), kFlags, 0600));
  if (!fd.Valid() && errno == EEXIST && RemoveTreeAt(dirFd, temp)) {
    fd.Reset(openat(dirFd, temp.c_str(), kFlags, 0600));
  }
  return fd;
}

}  // namespace

std::string TemporaryNameFor(const std::string& name) { return FitFileName(".", name, ".tmp"); }

bool AtomicReplace(int dirFd, const std::string& name, const FileAttributes& attributes,
                   const std::function<bool(int fd)>& writeContent) {
  const std::string temp = TemporaryNameFor(name);
  UniqueFd fd = CreateTemporary(dirFd, temp);
  if (!fd.Valid()) return false;
  const bool setOwner = attributes.uid != static_cast<uid_t>(-1) || attributes.gid != static_cast<gid_t>(-1);
  bool ok = writeContent(fd.Get()) && (!setOwner || fchown(fd.Get(), attributes.uid, attributes.gid) == 0) &&
            fchmod(fd.Get(), attributes.mode) == 0 && fsync(fd.Get()) == 0;
  if (ok && close(fd.Release()) != 0) ok = false;
  if (ok && renameat(dirFd, temp.c_str(), dirFd, name.c_str()) == 0) {
    // The rename is already atomic for every reader; this makes it last
    // across a power cut, and a failure here is ignored on purpose.
    (void)fsync(dirFd);
    return true;
  }
  const int saved = errno;
  unlinkat(dirFd, temp.c_str(), 0);
  errno = saved;
  return false;
}

}  // namespace vela::base
