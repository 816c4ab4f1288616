#include "http_worker/lockdown.h"

#include <seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "http_worker/worker.h"

namespace vela::webapid {

namespace {

// What serving takes: the poll loop and libmicrohttpd's epoll, accepting
// and talking on sockets (the clients', the master's channel, the
// executor's stream), memory, time, randomness for TLS, signals of its own,
// and ending. Nothing opens a file, makes a socket, runs a program,
// changes ids or signals another process.
constexpr const char* kAllowed[] = {
    "read", "readv", "write", "writev", "close",
    "recvfrom", "recvmsg", "recvmmsg", "sendto", "sendmsg", "sendmmsg",
    "accept", "accept4", "shutdown", "setsockopt", "getsockopt", "getsockname", "getpeername",
    "epoll_wait", "epoll_pwait", "epoll_pwait2", "epoll_ctl", "poll", "ppoll", "select", "pselect6",
    "fcntl", "ioctl", "fstat", "newfstatat", "lseek",
    "mmap", "munmap", "mremap", "madvise", "brk", "mprotect",
    "futex", "sched_yield", "nanosleep", "clock_nanosleep",
    "clock_gettime", "clock_getres", "gettimeofday", "time",
    "getrandom",
    "rt_sigreturn", "rt_sigprocmask", "sigaltstack", "restart_syscall",
    "getpid", "getppid", "gettid",
    "exit", "exit_group",
#ifdef __SANITIZE_ADDRESS__
    // The sanitizer build's runtime probes memory through a pipe (checking
    // dynamic types); never in the build that is installed.
    "pipe", "pipe2",
#endif
};

// A refused call traps here: the worker says which call it was, on its
// standard error (the only safe way from a signal handler), and ends.
void OnForbiddenCall(int, siginfo_t* info, void*) {
  char text[96] = "vela-webapid: an HTTP worker made system call ";
  size_t length = strlen(text);
  char digits[12];
  size_t count = 0;
  unsigned number = static_cast<unsigned>(info->si_syscall);
  do {
    digits[count++] = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number != 0 && count < sizeof(digits));
  while (count > 0) text[length++] = digits[--count];
  const char tail[] = ", which its filter forbids\n";
  memcpy(text + length, tail, sizeof(tail) - 1);
  length += sizeof(tail) - 1;
  const ssize_t written = write(2, text, length);
  (void)written;  // nothing more can be done about a lost line
  _exit(kWorkerForbiddenCall);
}

}  // namespace

void LockDownWorker() {
  struct sigaction action = {};
  action.sa_sigaction = OnForbiddenCall;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  sigaction(SIGSYS, &action, nullptr);
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    throw std::runtime_error(std::string("PR_SET_NO_NEW_PRIVS: ") + strerror(errno));
  }
  scmp_filter_ctx filter = seccomp_init(SCMP_ACT_TRAP);
  if (filter == nullptr) throw std::runtime_error("seccomp_init failed");
  int result = 0;
  for (const char* name : kAllowed) {
    const int call = seccomp_syscall_resolve_name(name);
    if (call == __NR_SCMP_ERROR) continue;  // not a call of this architecture
    if ((result = seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0)) != 0) break;
  }
  // The C library's syslog() makes a new socket when its connection to the
  // log is lost (the log daemon restarted); that fails here, quietly,
  // instead of ending the worker.
  for (const char* name : {"socket", "connect"}) {
    if (result == 0) result = seccomp_rule_add(filter, SCMP_ACT_ERRNO(EACCES), seccomp_syscall_resolve_name(name), 0);
  }
  if (result == 0) result = seccomp_load(filter);
  seccomp_release(filter);
  if (result != 0) throw std::runtime_error(std::string("cannot load the seccomp filter: ") + strerror(-result));
}

}  // namespace vela::webapid
