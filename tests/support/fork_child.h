// Running a piece of a test in a forked child, for what must happen in
// another process (lock contention, changed ids, crashes).
#ifndef VELA_TESTS_SUPPORT_FORK_CHILD_H_
#define VELA_TESTS_SUPPORT_FORK_CHILD_H_

#include <sys/types.h>

#include <functional>
#include <string>

namespace vela::test {

// Runs `body` in a forked child and returns the text it returned. A child
// that dies first yields "child died: ..." so that assertions on the text
// fail with a reason.
std::string RunForked(const std::function<std::string()>& body);

// Runs `body` as the first process (PID 1) of a new PID namespace with its
// own /proc, and returns the text it returned: PIDs there are few and can
// be chosen (ChooseNextPid), so a PID used again can be made on purpose.
std::string RunInPidNamespace(const std::function<std::string()>& body);
// In a PID namespace of RunInPidNamespace: makes the next fork get `pid`.
void ChooseNextPid(pid_t pid);

// A forked child running `body` until it returns (then it exits 0) or is
// killed. The destructor kills (SIGKILL) and reaps a child still running.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<void()>& body);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return pid_; }
  // Waits for the child; its exit status, or 128 + signal when killed.
  int Wait();

 private:
  pid_t pid_ = -1;
};

// Makes this process the reaper of its orphaned descendants, so that a test
// can wait for a worker forked "without wait" and read its exit status.
void BecomeSubreaper();
// Waits up to `timeoutMs` for process `pid` (a child or an adopted orphan;
// -1 for any)
// to end: its exit status, 128 + signal, or -1 on time-out.
int WaitForExit(pid_t pid, int timeoutMs);
// Whether this process has any child left, running or zombie.
bool HasChildren();
// How many processes have this one as their parent, zombies left out.
int CountLiveChildren();

// Waits up to `timeoutMs` for `fd` to become readable.
bool WaitReadable(int fd, int timeoutMs);

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_FORK_CHILD_H_
