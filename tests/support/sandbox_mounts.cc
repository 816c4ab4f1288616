#include "sandbox_mounts.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace vela::test {

namespace {

constexpr long kTmpfsMagic = 0x01021994;
constexpr long kOverlayMagic = 0x794c7630;

std::string Errno(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + strerror(errno);
}

std::string DirName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Whether writes below `dir` stay private to this sandbox.
bool IsPrivate(const std::string& dir) {
  struct statfs fs;
  if (statfs(dir.c_str(), &fs) != 0) return false;
  return fs.f_type == kTmpfsMagic || fs.f_type == kOverlayMagic;
}

std::string OverlayDirectory(const std::string& dir) {
  static int serial = 0;
  const std::string area = std::string(kSandboxScratch) + "/overlay." + std::to_string(getpid()) +
                           "." + std::to_string(++serial);
  const std::string upper = area + "/upper";
  const std::string work = area + "/work";
  for (const std::string& d : {std::string(kSandboxScratch), area, upper, work}) {
    if (mkdir(d.c_str(), 0755) != 0 && errno != EEXIST) return Errno("mkdir", d);
  }
  const std::string options = "lowerdir=" + dir + ",upperdir=" + upper + ",workdir=" + work;
  if (mount("overlay", dir.c_str(), "overlay", 0, options.c_str()) != 0) {
    return Errno("mount overlay on", dir);
  }
  return "";
}

}  // namespace

bool InSandbox() { return getenv(kSandboxEnv) != nullptr; }

void RequireSandbox(const char* what) {
  if (InSandbox()) return;
  fprintf(stderr, "%s: refusing to run outside the test sandbox (%s is not set)\n", what,
          kSandboxEnv);
  abort();
}

std::string BindInto(const std::string& src, const std::string& dst) {
  RequireSandbox("BindInto");
  struct stat srcStat;
  if (stat(src.c_str(), &srcStat) != 0) return Errno("stat", src);
  struct stat dstStat;
  if (stat(dst.c_str(), &dstStat) != 0) {
    const std::string parent = DirName(dst);
    if (!IsPrivate(parent)) {
      std::string error = OverlayDirectory(parent);
      if (!error.empty()) return error;
    }
    if (S_ISDIR(srcStat.st_mode)) {
      if (mkdir(dst.c_str(), 0755) != 0) return Errno("mkdir", dst);
    } else {
      const int fd = open(dst.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0755);
      if (fd < 0) return Errno("create", dst);
      close(fd);
    }
  }
  if (mount(src.c_str(), dst.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    return Errno("bind " + src + " on", dst);
  }
  return "";
}

std::string MakePrivate(const std::string& dir) {
  RequireSandbox("MakePrivate");
  return IsPrivate(dir) ? "" : OverlayDirectory(dir);
}

std::string RemoveInto(const std::string& path) {
  RequireSandbox("RemoveInto");
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return "";
  const std::string parent = DirName(path);
  if (!IsPrivate(parent)) {
    std::string error = OverlayDirectory(parent);
    if (!error.empty()) return error;
  }
  // Something bound over the path (a test double) goes first.
  for (int mounts = 0; unlink(path.c_str()) != 0; ++mounts) {
    if (errno != EBUSY || mounts == 8 || umount2(path.c_str(), MNT_DETACH) != 0) {
      return Errno("unlink", path);
    }
  }
  return "";
}

std::string AddGroup(const std::string& name, unsigned gid) {
  RequireSandbox("AddGroup");
  std::ifstream in("/etc/group");
  std::stringstream groups;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(name + ":", 0) != 0) groups << line << "\n";  // one of that name, ours
  }
  groups << name << ":x:" << gid << ":\n";
  const std::string copy = std::string(kSandboxScratch) + "/group." + name;
  std::ofstream(copy) << groups.str();
  return BindInto(copy, "/etc/group");
}

}  // namespace vela::test
