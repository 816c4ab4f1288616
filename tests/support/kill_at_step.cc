#include "kill_at_step.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>

namespace vela::test {

namespace {

// The name of a counted call about to be made, or null.
const char* CountedCall(const struct user_regs_struct& regs) {
  const long number = static_cast<long>(regs.orig_rax);
  const unsigned long long a1 = regs.rsi;
  const unsigned long long a2 = regs.rdx;
  switch (number) {
    case SYS_open:
      return (a1 & (O_WRONLY | O_RDWR | O_CREAT)) != 0 ? "open" : nullptr;
    case SYS_openat:
      return (a2 & (O_WRONLY | O_RDWR | O_CREAT)) != 0 ? "openat" : nullptr;
    case SYS_fcntl:
      return a1 == F_SETLK || a1 == F_SETLKW || a1 == F_OFD_SETLK || a1 == F_OFD_SETLKW ? "fcntl" : nullptr;
    case SYS_write: return "write";
    case SYS_pwrite64: return "pwrite64";
    case SYS_rename: return "rename";
    case SYS_renameat: return "renameat";
    case SYS_renameat2: return "renameat2";
    case SYS_unlink: return "unlink";
    case SYS_unlinkat: return "unlinkat";
    case SYS_mkdir: return "mkdir";
    case SYS_mkdirat: return "mkdirat";
    case SYS_fsync: return "fsync";
    case SYS_fchown: return "fchown";
    case SYS_fchmod: return "fchmod";
    case SYS_clone: return "clone";
    case SYS_clone3: return "clone3";
    case SYS_fork: return "fork";
    case SYS_vfork: return "vfork";
    case SYS_execve: return "execve";
    case SYS_kill: return "kill";
    case SYS_pidfd_send_signal: return "pidfd_send_signal";
    case SYS_setsid: return "setsid";
    case SYS_setpgid: return "setpgid";
    default: return nullptr;
  }
}

}  // namespace

KilledStep KillAtStep(const std::function<void()>& body, int step) {
  const pid_t root = fork();
  if (root < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (root == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(120);
    raise(SIGSTOP);
    body();
    _exit(0);
  }
  int status = 0;
  if (waitpid(root, &status, __WALL) != root || !WIFSTOPPED(status)) throw std::runtime_error("trace start");
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
                       PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
  ptrace(PTRACE_SETOPTIONS, root, nullptr, options);
  ptrace(PTRACE_SYSCALL, root, nullptr, nullptr);

  KilledStep result;
  std::map<pid_t, bool> inCall;  // traced processes: whether stopped inside a call
  inCall[root] = false;
  std::map<pid_t, int> order;  // in the order the processes were first seen: 0 runs `body`
  std::set<pid_t> started;     // processes whose first stop has been seen
  order[root] = 0;
  started.insert(root);
  int counted = 0;
  bool rootEnded = false;
  while (!inCall.empty()) {
    const pid_t pid = waitpid(-1, &status, __WALL);
    if (pid < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      inCall.erase(pid);
      rootEnded = rootEnded || pid == root;
      continue;
    }
    if (!WIFSTOPPED(status)) continue;
    const bool first = started.insert(pid).second;  // a new process, stopped at its start
    if (inCall.count(pid) == 0) inCall[pid] = false;
    order.emplace(pid, static_cast<int>(order.size()));
    int deliver = 0;
    const int sig = WSTOPSIG(status);
    const int event = status >> 16;
    if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK || event == PTRACE_EVENT_CLONE) {
      // The new process is traced from its birth: it is waited for even if
      // its parent is let go before it is first seen.
      unsigned long child = 0;
      if (ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &child) == 0 && inCall.count(static_cast<pid_t>(child)) == 0) {
        inCall[static_cast<pid_t>(child)] = false;
        order.emplace(static_cast<pid_t>(child), static_cast<int>(order.size()));
      }
    }
    if (result.killed || rootEnded) {
      // Past the step, or past the work: everything goes on untraced.
      if (sig != SIGSTOP && sig != SIGTRAP && sig != (SIGTRAP | 0x80)) deliver = sig;
      ptrace(PTRACE_DETACH, pid, nullptr, reinterpret_cast<void*>(static_cast<long>(deliver)));
      inCall.erase(pid);
      continue;
    }
    if (event == PTRACE_EVENT_EXEC) {
      // Another program now (a tool the work runs): its own steps are not
      // the work's; its start was one.
      ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
      inCall.erase(pid);
      continue;
    }
    if (sig == (SIGTRAP | 0x80)) {
      const bool entering = !inCall[pid];
      inCall[pid] = entering;
      struct user_regs_struct regs;
      if (entering && ptrace(PTRACE_GETREGS, pid, nullptr, &regs) == 0) {
        if (const char* call = CountedCall(regs); call != nullptr && ++counted == step) {
          // It stays traced until its end is seen: a traced process that
          // ends is its parent's to reap only once its tracer has seen it.
          result = {true, pid, std::string(call) + " of process " + std::to_string(order[pid])};
          kill(pid, SIGKILL);
          continue;
        }
      }
    } else if (event == 0 && !(first && sig == SIGSTOP) && sig != SIGTRAP) {
      deliver = sig;  // a signal of the work's own
    }
    ptrace(PTRACE_SYSCALL, pid, nullptr, reinterpret_cast<void*>(static_cast<long>(deliver)));
  }
  if (!rootEnded) waitpid(root, &status, 0);
  return result;
}

}  // namespace vela::test
