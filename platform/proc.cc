#include "vela/vlib_proc.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "vela/vlib_error.h"

namespace {

using vela::base::UniqueFd;

// Streams opened here and the programs behind them. VLIBCPclose only acts
// on a stream found here, so a second close, or a FILE* that came from
// elsewhere, is refused instead of closing whatever reuses its memory.
std::mutex gStreamsMutex;
std::map<FILE*, pid_t>& Streams() {
  static auto* streams = new std::map<FILE*, pid_t>;  // outlives exit-time users
  return *streams;
}

int ExitCode(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// waitpid() that resumes after signal handlers.
pid_t Reap(pid_t pid, int* status) {
  pid_t result;
  while ((result = waitpid(pid, status, 0)) < 0 && errno == EINTR) {
  }
  return result;
}

ssize_t ReadFull(int fd, void* buffer, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = read(fd, static_cast<char*>(buffer) + done, size - done);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

// A descriptor the child must move onto 0, 1 or 2 must not already be one
// of them (a caller that closed its standard streams gets them from
// pipe()): dup2() onto itself would keep O_CLOEXEC, and moving one could
// overwrite another. So it is moved to 3 or above first.
bool MoveAboveStdio(UniqueFd& fd) {
  if (fd.Get() >= 3) return true;
  const int moved = fcntl(fd.Get(), F_DUPFD_CLOEXEC, 3);
  if (moved < 0) return false;
  fd.Reset(moved);
  return true;
}

constexpr unsigned kLastFd = ~0U;

// Closes every descriptor from `first` to `last`, in a child after fork
// (nothing here may allocate). The loop, up to `maxFd`, serves kernels
// without close_range().
void CloseRange(unsigned first, unsigned last, long maxFd) {
  if (first > last) return;
  if (close_range(first, last, 0) == 0) return;
  for (long fd = first; fd <= static_cast<long>(last) && fd < maxFd; ++fd) close(static_cast<int>(fd));
}

long MaxFd() {
  const long max = sysconf(_SC_OPEN_MAX);
  return max > 0 && max < INT_MAX ? max : 65536;
}

// Signals are blocked across fork() so that no handler of the caller runs
// in the child before it has reset them; the child restores the caller's
// mask itself.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved_);
  }
  ~SignalsBlocked() { Restore(); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  void Restore() const {
    const int savedErrno = errno;
    pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    errno = savedErrno;
  }

 private:
  sigset_t saved_;
};

struct ChildPlan {
  const char* path;
  char* const* argv;
  char* const* envp;
  int streamFd;      // the child's end of the stream pipe
  int streamTarget;  // 1 for a stream the caller reads, 0 for one it writes
  int nullFd;        // /dev/null for standard input, or -1
  int errorFd;       // write end of the pipe reporting a failed exec
  long maxFd;
  pid_t caller;      // the process starting the program
};

// The child between fork and exec: only async-signal-safe calls.
[[noreturn]] void ExecChild(const ChildPlan& plan, const SignalsBlocked& blocked) {
  // An ignored signal stays ignored across exec; a server typically ignores
  // SIGPIPE, and a program writing into a closed pipe must die of it.
  struct sigaction dfl = {};
  dfl.sa_handler = SIG_DFL;
  for (int sig = 1; sig < NSIG; ++sig) sigaction(sig, &dfl, nullptr);
  blocked.Restore();

  int error = 0;
  if (dup2(plan.streamFd, plan.streamTarget) < 0) error = errno;
  if (error == 0 && plan.nullFd >= 0 && dup2(plan.nullFd, 0) < 0) error = errno;
  // The error pipe goes to 3 (still close-on-exec) so that one call closes
  // everything else above the standard streams.
  int errorFd = plan.errorFd;
  if (errorFd != 3) {
    if (dup3(errorFd, 3, O_CLOEXEC) == 3) {
      errorFd = 3;
    } else if (error == 0) {
      error = errno;
    }
  }
  // Nor does the caller's working directory concern the program (nor keep
  // a file system busy while it runs).
  if (error == 0 && chdir("/") != 0) error = errno;
  // The program ends with its caller: nobody else reads what it prints or
  // stops it, so a program left behind would only go on working for
  // nothing (and a caller that died, or was killed, cannot end it). A
  // caller gone before this is in place is found by the check after it.
  if (error == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) error = errno;
  if (error == 0 && getppid() != plan.caller) _exit(127);
  if (error == 0) {
    CloseRange(4, kLastFd, plan.maxFd);
    execve(plan.path, plan.argv, plan.envp);
    error = errno;
  }
  const ssize_t written = write(errorFd, &error, sizeof(error));
  (void)written;  // the caller then sees EOF and still learns of a failure
  _exit(127);
}

// Programs get a fixed environment, not the caller's: a server's
// environment is none of their business (nor anything it might have been
// given to steer them), and output that is parsed comes in one fixed
// language and format.
constexpr const char* kChildEnvironment[] = {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                             "LC_ALL=C", nullptr};

FILE* Popen(const char* path, const char* mode, char* const argv[]) {
  const std::string m = mode != nullptr ? mode : "";
  if (path == nullptr || argv == nullptr || argv[0] == nullptr ||
      (m != "r" && m != "w" && m != "rB" && m != "wB")) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return nullptr;
  }
  const bool reading = m[0] == 'r';
  const bool fullyBuffered = m.size() == 2;

  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return nullptr;
  }
  UniqueFd ours(reading ? fds[0] : fds[1]);
  UniqueFd theirs(reading ? fds[1] : fds[0]);
  if (pipe2(fds, O_CLOEXEC) != 0) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return nullptr;
  }
  UniqueFd errorRead(fds[0]);
  UniqueFd errorWrite(fds[1]);
  UniqueFd null(reading ? open("/dev/null", O_RDONLY | O_CLOEXEC) : -1);
  if ((reading && null.Get() < 0) || !MoveAboveStdio(theirs) || !MoveAboveStdio(errorWrite) ||
      (reading && !MoveAboveStdio(null))) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return nullptr;
  }
  const ChildPlan plan = {path,       argv,         const_cast<char* const*>(kChildEnvironment), theirs.Get(),
                          reading ? 1 : 0, null.Get(), errorWrite.Get(), MaxFd(),          getpid()};

  pid_t pid;
  {
    SignalsBlocked blocked;
    pid = fork();
    if (pid == 0) ExecChild(plan, blocked);
  }
  if (pid < 0) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return nullptr;
  }
  theirs.Reset();
  errorWrite.Reset();
  null.Reset();

  // The error pipe closes on a successful exec; a failed one writes errno.
  int childError = 0;
  const ssize_t n = ReadFull(errorRead.Get(), &childError, sizeof(childError));
  if (n != 0) {
    int status;
    Reap(pid, &status);
    errno = n == static_cast<ssize_t>(sizeof(childError)) ? childError : EIO;
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return nullptr;
  }

  FILE* fp = fdopen(ours.Get(), reading ? "r" : "w");
  bool registered = false;
  if (fp != nullptr) {
    ours.Release();
    setvbuf(fp, nullptr, fullyBuffered ? _IOFBF : _IOLBF, BUFSIZ);
    try {
      std::lock_guard<std::mutex> lock(gStreamsMutex);
      Streams()[fp] = pid;
      registered = true;
    } catch (const std::bad_alloc&) {
      errno = ENOMEM;
    }
  }
  if (!registered) {
    // The program sees its pipe close and ends; it is not left a zombie.
    const int saved = errno;
    if (fp != nullptr) fclose(fp);
    ours.Reset();
    int status;
    Reap(pid, &status);
    errno = saved;
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return nullptr;
  }
  return fp;
}

}  // namespace

FILE* VLIBCPopen(const char* path, const char* mode, ...) {
  std::vector<char*> argv;
  try {
    argv.push_back(const_cast<char*>(path));
    va_list ap;
    va_start(ap, mode);
    while (char* arg = va_arg(ap, char*)) argv.push_back(arg);
    va_end(ap);
    argv.push_back(nullptr);
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  return VLIBCPopenv(path, mode, argv.data());
}

FILE* VLIBCPopenv(const char* path, const char* mode, char* const argv[]) {
  try {
    return Popen(path, mode, argv);
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
}

int VLIBCPclose(FILE* fp) {
  pid_t pid = -1;
  {
    std::lock_guard<std::mutex> lock(gStreamsMutex);
    auto it = Streams().find(fp);
    if (it != Streams().end()) {
      pid = it->second;
      Streams().erase(it);
    }
  }
  if (pid < 0) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  fclose(fp);
  int status = 0;
  if (Reap(pid, &status) < 0) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  return ExitCode(status);
}

pid_t VLIBCProcForkChildNoWait(void) { return VLIBCProcForkChildNoWaitKeepFd(-1); }

pid_t VLIBCProcForkChildNoWaitKeepFd(int keepFd) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  UniqueFd pidRead(fds[0]);
  UniqueFd pidWrite(fds[1]);
  const long maxFd = MaxFd();

  pid_t child;
  {
    SignalsBlocked blocked;
    child = fork();
    if (child == 0) {
      // The intermediate child: leaves the caller's session and process
      // group, forks the worker and exits at once, so the worker is
      // adopted by init (or a subreaper), which reaps it when it ends.
      pid_t report = 0;
      if (setsid() < 0) {
        report = -errno;
      } else {
        const pid_t worker = fork();
        if (worker < 0) report = -errno;
        if (worker > 0) _exit(0);
      }
      if (report != 0) {
        const ssize_t written = write(pidWrite.Get(), &report, sizeof(report));
        (void)written;
        _exit(1);
      }
      // The worker. It reports its own PID once its standard streams are
      // in place, so a failure there still reaches the caller.
      blocked.Restore();
      int null = open("/dev/null", O_RDWR | O_CLOEXEC);
      if (null >= 0 && null < 3) null = fcntl(null, F_DUPFD_CLOEXEC, 3);
      if (null < 0 || dup2(null, 0) < 0 || dup2(null, 1) < 0 || dup2(null, 2) < 0) {
        report = -errno;
      } else {
        report = getpid();
      }
      const ssize_t written = write(pidWrite.Get(), &report, sizeof(report));
      (void)written;
      if (report < 0) _exit(127);
      // Whatever the caller had open (a server's listening socket, a
      // client's connection) must not stay open for as long as the worker
      // runs.
      pidRead.Release();
      pidWrite.Release();
      // The C library's log connection is one of those descriptors: forget
      // it, or its next message could go to, and its close could close,
      // whatever file the worker opens under the same number.
      closelog();
      if (keepFd >= 3) {
        CloseRange(3, static_cast<unsigned>(keepFd) - 1, maxFd);
        CloseRange(static_cast<unsigned>(keepFd) + 1, kLastFd, maxFd);
      } else {
        CloseRange(3, kLastFd, maxFd);
      }
      return 0;
    }
  }
  if (child < 0) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  pidWrite.Reset();
  pid_t report = 0;
  const ssize_t n = ReadFull(pidRead.Get(), &report, sizeof(report));
  // ECHILD here is no failure: a caller that ignores SIGCHLD has its
  // children reaped by the kernel, and a caller's handler may reap first.
  int status;
  Reap(child, &status);
  if (n != static_cast<ssize_t>(sizeof(report)) || report <= 0) {
    errno = report < 0 ? -report : EIO;
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  return report;
}
