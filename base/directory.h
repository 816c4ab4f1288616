// Directories the system keeps its state in, opened without trusting what
// another user may have put in their place.
#ifndef VELABTRFSSNAPUSAGE_BASE_DIRECTORY_H_
#define VELABTRFSSNAPUSAGE_BASE_DIRECTORY_H_

#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"

namespace vela::base {

// How a directory is made when it is missing: exactly this mode (never
// through the umask), owner root, this group.
struct DirectoryMode {
  mode_t mode;
  gid_t gid;
};

// Opens the directory `name` of `parentFd` without following a symbolic
// link. When it is missing and `create` is set it is made as `how` says.
// A directory that is not owned by root or that its group or others can
// write to is refused, as is a symbolic link or anything that is not a
// directory: a file there could have been put by anyone. On failure the
// result is invalid and errno tells why: ENOENT (missing, not created),
// EPERM (refused; `refusal` says why in words), or the system's error.
UniqueFd OpenCheckedDirectoryAt(int parentFd, const std::string& name, bool create,
                                const DirectoryMode& how, std::string& refusal);

// Removes the entry `name` of `parentFd` and, when it is a directory,
// everything in it, without following a symbolic link anywhere. A missing
// entry is fine. False (errno set) when something stays; trees deeper than
// 32 levels are left (ELOOP).
bool RemoveTreeAt(int parentFd, const std::string& name);

}  // namespace vela::base

#endif  // VELABTRFSSNAPUSAGE_BASE_DIRECTORY_H_
