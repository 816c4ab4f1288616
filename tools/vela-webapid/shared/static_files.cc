#include "shared/static_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "base/fd_io.h"
#include "base/unique_fd.h"

namespace vela::webapid {

using vela::base::UniqueFd;

namespace {

constexpr size_t kMaxTotalBytes = 32u << 20;
constexpr int kMaxDepth = 4;

std::string ContentType(const std::string& name) {
  static const std::map<std::string, std::string> types = {
      {".html", "text/html; charset=utf-8"}, {".js", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},   {".svg", "image/svg+xml"},
      {".json", "application/json"},         {".png", "image/png"},
      {".txt", "text/plain; charset=utf-8"},
  };
  const auto dot = name.rfind('.');
  if (dot != std::string::npos) {
    const auto it = types.find(name.substr(dot));
    if (it != types.end()) return it->second;
  }
  return "application/octet-stream";
}

std::string ReadWhole(int dirFd, const std::string& name, const std::string& shown) {
  UniqueFd fd(openat(dirFd, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!fd.Valid()) throw std::runtime_error("cannot read " + shown + ": " + strerror(errno));
  std::string content;
  // The page is a handful of small files; a huge one is not served.
  if (!vela::base::ReadToEnd(fd.Get(), 64u << 20, content)) {
    throw std::runtime_error("cannot read " + shown + ": " + strerror(errno));
  }
  return content;
}

}  // namespace

void StaticFiles::Load(const std::string& dir) {
  files_.clear();
  size_t total = 0;
  LoadTree(dir, "", 0, total);
}

void StaticFiles::LoadTree(const std::string& dir, const std::string& prefix, int depth, size_t& total) {
  UniqueFd dirFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  if (!dirFd.Valid()) throw std::runtime_error("cannot read web directory " + dir + ": " + strerror(errno));
  DIR* d = fdopendir(fcntl(dirFd.Get(), F_DUPFD_CLOEXEC, 0));
  if (d == nullptr) throw std::runtime_error("cannot read web directory " + dir + ": " + strerror(errno));
  std::map<std::string, bool> entries;  // name -> is a directory
  while (const struct dirent* entry = readdir(d)) {
    if (entry->d_name[0] == '.') continue;
    struct stat st;
    if (fstatat(dirFd.Get(), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode)) entries[entry->d_name] = S_ISDIR(st.st_mode);
  }
  closedir(d);
  for (const auto& [name, isDir] : entries) {
    const std::string path = dir + "/" + name;
    if (isDir) {
      if (depth < kMaxDepth) LoadTree(path, prefix + "/" + name, depth + 1, total);
      continue;
    }
    StaticFile file{ReadWhole(dirFd.Get(), name, path), ContentType(name)};
    total += file.content.size();
    if (total > kMaxTotalBytes) throw std::runtime_error("web directory " + dir + " holds more than 32 MiB");
    files_[prefix + "/" + name] = std::move(file);
  }
}

const StaticFile* StaticFiles::Find(const std::string& urlPath) const {
  const auto it = files_.find(urlPath == "/" ? "/index.html" : urlPath);
  return it == files_.end() ? nullptr : &it->second;
}

}  // namespace vela::webapid
