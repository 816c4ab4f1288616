// Replacing a file whole: readers and a crash see the old content or the
// new one, never a part.
#ifndef VELABTRFSSNAPUSAGE_BASE_ATOMIC_FILE_H_
#define VELABTRFSSNAPUSAGE_BASE_ATOMIC_FILE_H_

#include <sys/types.h>

#include <functional>
#include <string>

namespace vela::base {

// The new file's mode, and its owner and group; -1 leaves the writer's.
struct FileAttributes {
  mode_t mode;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
};

// The temporary name a new version of `name` is written under, beside it:
// "." + name + ".tmp", shortened (FitFileName) when that would not fit in a
// directory entry. The same name for every writer of the file, so the next
// writer finds and removes what a writer that died left behind.
std::string TemporaryNameFor(const std::string& name);

// Replaces `name` in directory `dirFd` with a file that `writeContent`
// fills: written under the temporary name, given `attributes`, flushed to
// the disk, renamed over `name`, and the directory flushed. Callers hold
// the file's lock, so what is found under the temporary name is a dead
// writer's (or was planted): it is removed, a directory with all it holds. On
// failure (errno set) the old file is whole and no temporary file is left.
bool AtomicReplace(int dirFd, const std::string& name, const FileAttributes& attributes,
                   const std::function<bool(int fd)>& writeContent);

}  // namespace vela::base

#endif  // VELABTRFSSNAPUSAGE_BASE_ATOMIC_FILE_H_
