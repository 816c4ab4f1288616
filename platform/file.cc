#include "vela/vlib_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/atomic_file.h"
#include "base/fd_io.h"
#include "base/unique_fd.h"
#include "vela/vlib_error.h"

namespace {

using vela::base::UniqueFd;

std::string DirName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

int VLIBCFileExist(const char* path) {
  if (path == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  struct stat st;
  if (stat(path, &st) == 0) return 1;
  if (errno == ENOENT || errno == ENOTDIR) return 0;
  VLIBCErrSet(VLIB_ERR_SYSTEM);
  return -1;
}

BOOL VLIBCFileCheckDir(const char* path) {
  if (path == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return FALSE;
  }
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? TRUE : FALSE;
}

int VLIBCFileEnumDir(const char* dir, int flags, PVLIBSZLIST* ppList, int max) {
  if (dir == nullptr || flags != 0 || ppList == nullptr || *ppList == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  const int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    VLIBCErrSet(errno == ENOENT ? VLIB_ERR_NOT_FOUND : VLIB_ERR_SYSTEM);
    return -1;
  }
  DIR* stream = fdopendir(fd);
  if (stream == nullptr) {
    const int saved = errno;
    close(fd);
    errno = saved;
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  std::vector<std::string> names;
  errno = 0;
  while (const struct dirent* entry = readdir(stream)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
  }
  const int readError = errno;
  closedir(stream);
  if (readError != 0) {
    errno = readError;
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  // std::string compares as unsigned bytes, which is the promised order.
  std::sort(names.begin(), names.end());
  if (max > 0 && names.size() > static_cast<size_t>(max)) names.resize(static_cast<size_t>(max));
  for (const std::string& name : names) {
    if (VLIBCSzListPush(ppList, name.c_str()) < 0) return -1;
  }
  return static_cast<int>(names.size());
}

int VELAFileCopy(const char* src, const char* dst, int flags) {
  if (src == nullptr || dst == nullptr || *dst == '\0' || flags != 0) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  UniqueFd in(open(src, O_RDONLY | O_CLOEXEC));
  if (in.Get() < 0) {
    VLIBCErrSet(errno == ENOENT ? VLIB_ERR_NOT_FOUND : VLIB_ERR_SYSTEM);
    return -1;
  }
  struct stat st;
  if (fstat(in.Get(), &st) != 0) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  // The new content is written beside the destination, on the same file
  // system, so that rename() can put it in place in one step.
  const std::string destination = dst;
  UniqueFd dir(open(DirName(destination).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const bool written =
      dir.Get() >= 0 && vela::base::AtomicReplace(dir.Get(), BaseName(destination), {st.st_mode & 07777},
                                                  [&](int out) { return vela::base::CopyToEnd(in.Get(), out); });
  if (!written) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  return 0;
}
