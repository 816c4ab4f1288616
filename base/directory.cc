#include "base/directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

namespace vela::base {

namespace {

UniqueFd OpenNoFollow(int parentFd, const std::string& name) {
  return UniqueFd(openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

constexpr int kMaxRemovalDepth = 32;

bool RemoveTreeAtDepth(int parentFd, const std::string& name, int depth) {
  if (unlinkat(parentFd, name.c_str(), 0) == 0 || errno == ENOENT) return true;
  if (errno != EISDIR) return false;
  if (depth >= kMaxRemovalDepth) {
    errno = ELOOP;
    return false;
  }
  UniqueFd dir = OpenNoFollow(parentFd, name);
  if (!dir.Valid()) return false;
  DIR* listing = fdopendir(dir.Get());
  if (listing == nullptr) return false;
  const int dirFd = dir.Release();  // closedir() closes it
  std::vector<std::string> entries;
  while (const struct dirent* entry = readdir(listing)) {
    const std::string entryName = entry->d_name;
    if (entryName != "." && entryName != "..") entries.push_back(entryName);
  }
  bool removed = true;
  for (size_t i = 0; i < entries.size() && removed; ++i) removed = RemoveTreeAtDepth(dirFd, entries[i], depth + 1);
  const int saved = errno;
  closedir(listing);
  errno = saved;
  return removed && (unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT);
}

UniqueFd Refuse(std::string& refusal, std::string why) {
  refusal = std::move(why);
  errno = EPERM;
  return UniqueFd();
}

}  // namespace

UniqueFd OpenCheckedDirectoryAt(int parentFd, const std::string& name, bool create,
                                const DirectoryMode& how, std::string& refusal) {
  refusal.clear();
  UniqueFd dir = OpenNoFollow(parentFd, name);
  bool made = false;
  if (!dir.Valid() && errno == ENOENT && create) {
    // Made private first and opened as made: nobody else can put anything
    // into it before it has its final owner and mode.
    if (mkdirat(parentFd, name.c_str(), 0700) == 0) {
      made = true;
    } else if (errno != EEXIST) {
      return UniqueFd();
    }
    dir = OpenNoFollow(parentFd, name);
  }
  if (!dir.Valid()) {
    if (errno == ELOOP || errno == ENOTDIR) {
      struct stat st;
      const bool link = fstatat(parentFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
      return Refuse(refusal, link ? "it is a symbolic link" : "it is not a directory");
    }
    return UniqueFd();
  }
  if (made && (fchown(dir.Get(), 0, how.gid) != 0 || fchmod(dir.Get(), how.mode) != 0)) return UniqueFd();
  struct stat st;
  if (fstat(dir.Get(), &st) != 0) return UniqueFd();
  if (st.st_uid != 0) return Refuse(refusal, "it is owned by uid " + std::to_string(st.st_uid) + ", not root");
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    char mode[16];
    snprintf(mode, sizeof(mode), "%04o", static_cast<unsigned>(st.st_mode & 07777));
    return Refuse(refusal, std::string("its group or others may write to it (mode ") + mode + ")");
  }
  return dir;
}

bool RemoveTreeAt(int parentFd, const std::string& name) { return RemoveTreeAtDepth(parentFd, name, 0); }

}  // namespace vela::base
