// The directories of the system's state, opened safely. The state lives in
// three trees ("/run/velabtrfssnapusage", "/run/lock/velabtrfssnapusage",
// "/usr/local/velabtrfssnapusage") under system directories that other
// users may write to ("/run/lock" is open to all): each directory of a tree
// is opened without following links and must be root's and writable by
// root alone, or it is refused with a log line.
#ifndef VELABTRFSSNAPUSAGE_INTL_UTILS_STATE_FILES_H_
#define VELABTRFSSNAPUSAGE_INTL_UTILS_STATE_FILES_H_

#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"
#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage::Utils {

// For as long as one lives, a state directory that was looked up once is
// used again without looking at its path again: a request reads files of
// every share in the same few directories, which nothing but root's own
// clean-ups changes. Outside, every use looks the path up again (the
// directory itself, checked once, is kept open by the process).
class VELA_EXPORT StateDirectoryReuse {
 public:
  StateDirectoryReuse();
  ~StateDirectoryReuse();
  StateDirectoryReuse(const StateDirectoryReuse&) = delete;
  StateDirectoryReuse& operator=(const StateDirectoryReuse&) = delete;

 private:
  unsigned long outer_;
};

// Opens directory `dir`. In a state tree, missing directories are made
// (root's, VELA_STATE_DIR_MODE) when `create` is set; a missing one is
// ENOENT without a log line, a refused one EPERM after one. Directories
// outside the state trees are opened as they are.
vela::base::UniqueFd OpenStateDirectory(const std::string& dir, bool create);
// OpenStateDirectory with `create`: whether the directory exists now.
bool EnsureStateDirectory(const std::string& dir);
// Removes the file `path` (a missing one is fine) without following links
// on the way. False with errno set otherwise.
bool RemoveStateFile(const std::string& path);
// Removes what a writer of `path` that died left under its temporary name
// (a missing one is fine): for files no writer will write again, whose
// next writer would otherwise be the one to remove it.
bool RemoveStateFileTemporary(const std::string& path);
// Opens the directory holding `path` (as OpenStateDirectory) and gives the
// file's name in it.
vela::base::UniqueFd OpenContainingDirectory(const std::string& path, bool create, std::string& name);
// Opens an existing regular file `name` of `dirFd` for reading without
// following a link and without blocking (a FIFO or a device put there is
// refused with EINVAL, not waited on).
vela::base::UniqueFd OpenRegularFileAt(int dirFd, const std::string& name);
// Opens the lock file `path` without following a link: read-write when
// `create` is set (made if missing), else read-only. A FIFO or a device
// there is refused (EINVAL). Lock files are root's, with the web server's
// group and VELA_LOCK_FILE_MODE; one found otherwise (made by an older
// version, or while the machine had no such group, or by hand) is given
// them again whenever root opens it.
vela::base::UniqueFd OpenLockFile(const std::string& path, bool create);
// Whether `name` can be one entry of a directory: not empty, not "." or
// "..", no "/" or NUL, at most 255 bytes. Names from requests and files
// become parts of paths written as root only after this.
bool IsPathComponent(const std::string& name);
// The web server's group, or 0 when the machine has none. Looked up again
// only when the group file has changed.
gid_t WebServerGroupId();

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_INTL_UTILS_STATE_FILES_H_
