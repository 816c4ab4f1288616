// Killing a piece of work at a chosen step: a process tree traced with
// ptrace, whose state-changing system calls are counted in the order they
// are made, and the process about to make the n-th one killed with SIGKILL.
// Sweeping n over every step shows what each possible death leaves behind.
#ifndef VELA_TESTS_SUPPORT_KILL_AT_STEP_H_
#define VELA_TESTS_SUPPORT_KILL_AT_STEP_H_

#include <sys/types.h>

#include <functional>
#include <string>

namespace vela::test {

struct KilledStep {
  bool killed = false;  // false: the work ended before its step `step`
  pid_t pid = -1;       // the process killed
  std::string call;     // the call it was about to make and by which process (0: the
                        // one running `body`, then in the order they appeared), for messages
};

// Runs `body` in a forked child and traces it and every process it forks
// (up to their running another program, which is one step and then goes on
// untraced). Counted steps: the calls that change state or hand it on:
// opening a file for writing, writing, renaming, removing, making
// directories, changing owners and modes, taking or dropping record locks,
// syncing, forking, running a program, signalling. Steps are counted until
// the child running `body` ends (what the others do after it is no longer
// the work's). The process entering step `step` (from 1) is killed; every
// other one then goes on untraced. Returns when the traced processes have
// ended or gone on untraced.
KilledStep KillAtStep(const std::function<void()>& body, int step);

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_KILL_AT_STEP_H_
