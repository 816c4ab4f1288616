#include "fork_child.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace vela::test {

namespace {

int Reap(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

std::string RunInPidNamespace(const std::function<std::string()>& body) {
  return RunForked([&]() -> std::string {
    if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) return std::string("unshare: ") + strerror(errno);
    // The first child is the namespace's PID 1; its view of /proc must be
    // of its own namespace (the sandbox's mounts are private already).
    return RunForked([&]() -> std::string {
      if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        return std::string("mount /proc: ") + strerror(errno);
      }
      return body();
    });
  });
}

int CountLiveChildren() {
  int count = 0;
  DIR* proc = opendir("/proc");
  while (struct dirent* entry = proc != nullptr ? readdir(proc) : nullptr) {
    char stat[512] = {};
    const int fd = open(("/proc/" + std::string(entry->d_name) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    const ssize_t n = read(fd, stat, sizeof(stat) - 1);
    close(fd);
    const char* close = n > 0 ? strrchr(stat, ')') : nullptr;
    char state = 0;
    int parent = 0;
    if (close != nullptr && sscanf(close + 1, " %c %d", &state, &parent) == 2 && parent == getpid() &&
        state != 'Z') {
      ++count;
    }
  }
  if (proc != nullptr) closedir(proc);
  return count;
}

void ChooseNextPid(pid_t pid) {
  const int fd = open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error(std::string("open ns_last_pid: ") + strerror(errno));
  const std::string text = std::to_string(pid - 1);
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  if (!written) throw std::runtime_error("write ns_last_pid");
}

std::string RunForked(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + strerror(errno));
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (pid == 0) {
    close(fds[0]);
    const std::string result = body();
    size_t done = 0;
    while (done < result.size()) {
      const ssize_t n = write(fds[1], result.data() + done, result.size() - done);
      if (n <= 0) _exit(3);
      done += static_cast<size_t>(n);
    }
    _exit(0);
  }
  close(fds[1]);
  std::string result;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof(buffer))) != 0) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    result.append(buffer, static_cast<size_t>(n));
  }
  close(fds[0]);
  const int status = Reap(pid);
  if (status != 0) return "child died: status " + std::to_string(status) + " after [" + result + "]";
  return result;
}

ChildProcess::ChildProcess(const std::function<void()>& body) {
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (pid_ == 0) {
    body();
    _exit(0);
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    Reap(pid_);
  }
}

int ChildProcess::Wait() {
  const int status = Reap(pid_);
  pid_ = -1;
  return status;
}

void BecomeSubreaper() {
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    throw std::runtime_error(std::string("PR_SET_CHILD_SUBREAPER: ") + strerror(errno));
  }
}

int WaitForExit(pid_t pid, int timeoutMs) {
  for (int waited = 0; waited <= timeoutMs; waited += 10) {
    int status = 0;
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done > 0) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (done < 0 && errno != EINTR) return -1;
    usleep(10000);
  }
  return -1;
}

bool HasChildren() {
  siginfo_t info = {};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

bool WaitReadable(int fd, int timeoutMs) {
  struct pollfd p = {fd, POLLIN, 0};
  int n;
  while ((n = poll(&p, 1, timeoutMs)) < 0 && errno == EINTR) {
  }
  return n > 0;
}

}  // namespace vela::test
