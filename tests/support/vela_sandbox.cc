// vela-sandbox: runs a command in a private view of the file system, so that
// tests can create, lock, mount and delete the system's fixed paths without
// touching the machine and without seeing each other.
//
// In the view:
//  - every top-level directory of the machine is bound as it is, except
//    /run, which is a fresh tmpfs (so "/run/velabtrfssnapusage" and
//    "/run/lock/velabtrfssnapusage" start out missing), and /volumeN,
//    which are empty mount points for the test's own volumes;
//  - /usr/local is an overlay on the machine's /usr/local that hides
//    "/usr/local/velabtrfssnapusage" and keeps every write private;
//  - --bind SRC:DST puts SRC at DST (e.g. a test double at the btrfs
//    tool's path).
// The environment gets VELA_SANDBOX=1, TMPDIR on the private /run, and
// VELA_TEST_SYSLOG, the file that test builds write their syslog lines to.

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "sandbox_mounts.h"

namespace {

constexpr int kVolumeMountPoints = 8;
// State directory of the module kept under /usr/local; hidden in the view.
constexpr char kHiddenPersistentState[] = "velabtrfssnapusage";

pid_t gChild = -1;

[[noreturn]] void Die(const std::string& message) {
  fprintf(stderr, "vela-sandbox: %s\n", message.c_str());
  exit(125);
}

void Check(bool ok, const std::string& what) {
  if (!ok) Die(what + ": " + strerror(errno));
}

void MakeDir(const std::string& path, mode_t mode) {
  Check(mkdir(path.c_str(), mode) == 0 || errno == EEXIST, "mkdir " + path);
  Check(chmod(path.c_str(), mode) == 0, "chmod " + path);
}

void MountTmpfs(const std::string& path, const char* options) {
  Check(mount("tmpfs", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options) == 0,
        "mount tmpfs on " + path);
}

bool IsVolumeName(const char* name) {
  if (strncmp(name, "volume", 6) != 0 || name[6] == '\0') return false;
  for (const char* p = name + 6; *p; ++p) {
    if (*p < '0' || *p > '9') return false;
  }
  return true;
}

// Replicates the machine's top level under `root`, leaving out what the
// sandbox replaces.
void BindTopLevel(const std::string& root) {
  DIR* dir = opendir("/");
  Check(dir != nullptr, "opendir /");
  while (struct dirent* entry = readdir(dir)) {
    const char* name = entry->d_name;
    if (!strcmp(name, ".") || !strcmp(name, "..") || !strcmp(name, "run") || IsVolumeName(name)) {
      continue;
    }
    const std::string from = std::string("/") + name;
    const std::string to = root + "/" + name;
    struct stat st;
    if (lstat(from.c_str(), &st) != 0) continue;
    if (S_ISLNK(st.st_mode)) {
      char target[4096];
      const ssize_t n = readlink(from.c_str(), target, sizeof(target) - 1);
      Check(n >= 0, "readlink " + from);
      target[n] = '\0';
      Check(symlink(target, to.c_str()) == 0, "symlink " + to);
    } else if (S_ISDIR(st.st_mode)) {
      MakeDir(to, st.st_mode & 07777);
      Check(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
            "bind " + from);
    }
  }
  closedir(dir);
}

// /usr/local stays readable but every change, and the module's persistent
// state directory, is private: an overlay whose upper layer starts with a
// whiteout for that directory.
void OverlayUsrLocal(const std::string& base, const std::string& root) {
  struct stat st;
  if (stat("/usr/local", &st) != 0) {
    MakeDir(root + "/usr/local", 0755);  // inside the bound /usr: only when it exists
    return;
  }
  const std::string upper = base + "/usr-local-upper";
  const std::string work = base + "/usr-local-work";
  MakeDir(upper, 0755);
  MakeDir(work, 0755);
  const std::string whiteout = upper + "/" + kHiddenPersistentState;
  Check(mknod(whiteout.c_str(), S_IFCHR | 0000, makedev(0, 0)) == 0, "mknod " + whiteout);
  const std::string options = "lowerdir=/usr/local,upperdir=" + upper + ",workdir=" + work;
  Check(mount("overlay", (root + "/usr/local").c_str(), "overlay", 0, options.c_str()) == 0,
        "mount overlay on /usr/local");
}

void ForwardSignal(int sig) {
  if (gChild > 0) kill(gChild, sig);
}

void Usage() {
  fprintf(stderr,
          "usage: vela-sandbox [--bind SRC:DST]... [--] COMMAND [ARG]...\n"
          "Runs COMMAND as root in a private mount namespace (see the source for the view).\n");
  exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::pair<std::string, std::string>> binds;
  int i = 1;
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") {
      ++i;
      break;
    }
    if (arg == "--bind" && i + 1 < argc) {
      const std::string bindArg = argv[++i];
      const auto colon = bindArg.find(':');
      if (colon == std::string::npos || bindArg[colon + 1] != '/') Usage();
      binds.emplace_back(bindArg.substr(0, colon), bindArg.substr(colon + 1));
      continue;
    }
    if (arg.rfind("-", 0) == 0) Usage();
    break;
  }
  if (i >= argc) Usage();
  if (geteuid() != 0) Die("the test sandbox needs root (mount namespaces, loop devices)");

  char cwd[4096];
  Check(getcwd(cwd, sizeof(cwd)) != nullptr, "getcwd");

  Check(unshare(CLONE_NEWNS) == 0, "unshare(CLONE_NEWNS)");
  Check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make / private");

  char baseTemplate[] = "/tmp/vela-sandbox.XXXXXX";
  Check(mkdtemp(baseTemplate) != nullptr, "mkdtemp");
  const std::string base = baseTemplate;
  MountTmpfs(base, "mode=0755");
  const std::string root = base + "/root";
  MakeDir(root, 0755);

  BindTopLevel(root);
  MakeDir(root + "/run", 0755);
  MountTmpfs(root + "/run", "mode=0755");
  MakeDir(root + "/run/lock", 01777);
  OverlayUsrLocal(base, root);
  for (int n = 1; n <= kVolumeMountPoints; ++n) MakeDir(root + "/volume" + std::to_string(n), 0755);

  // Sources are opened before the root changes, so any machine path works.
  std::vector<std::pair<int, std::string>> openedBinds;
  for (const auto& [src, dst] : binds) {
    const int fd = open(src.c_str(), O_PATH | O_CLOEXEC);
    Check(fd >= 0, "open " + src);
    openedBinds.emplace_back(fd, dst);
  }

  signal(SIGTERM, ForwardSignal);
  signal(SIGINT, ForwardSignal);
  signal(SIGHUP, ForwardSignal);
  gChild = fork();
  Check(gChild >= 0, "fork");
  if (gChild == 0) {
    Check(chroot(root.c_str()) == 0, "chroot " + root);
    if (chdir(cwd) != 0) Check(chdir("/") == 0, "chdir /");
    const std::string scratch = vela::test::kSandboxScratch;
    MakeDir(scratch, 0755);
    MakeDir(scratch + "/tmp", 01777);
    setenv(vela::test::kSandboxEnv, "1", 1);
    setenv("TMPDIR", (scratch + "/tmp").c_str(), 1);
    // Like the machine's log socket, the capture file takes lines from any
    // user: handlers log while running with a web worker's ids.
    const std::string capture = scratch + "/syslog";
    const int captureFd = open(capture.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    Check(captureFd >= 0 && fchmod(captureFd, 0666) == 0, "create " + capture);
    close(captureFd);
    setenv("VELA_TEST_SYSLOG", capture.c_str(), 1);
    for (const auto& [fd, dst] : openedBinds) {
      const std::string error = vela::test::BindInto("/proc/self/fd/" + std::to_string(fd), dst);
      if (!error.empty()) Die(error);
      close(fd);
    }
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    execvp(argv[i], argv + i);
    Die(std::string("exec ") + argv[i] + ": " + strerror(errno));
  }

  int status = 0;
  while (waitpid(gChild, &status, 0) < 0 && errno == EINTR) {
  }
  // The namespace dies with its last process; the detach lets the machine's
  // /tmp entry go at once.
  umount2(base.c_str(), MNT_DETACH);
  rmdir(base.c_str());
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return 125;
}
