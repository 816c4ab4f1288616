// An executor: the process that runs module calls for one HTTP worker.
// It holds the executor's ids (shared/service_account.h), loads the
// modules, and reads calls from its worker one at a time: each names the
// API, version, method, the parameters as JSON text and the user, and
// carries the master's ticket for exactly that call. It never sees HTTP,
// and a call whose ticket does not hold ends it: its worker is not to be
// trusted any more.
#ifndef VELA_WEBAPID_EXECUTOR_EXECUTOR_H_
#define VELA_WEBAPID_EXECUTOR_EXECUTOR_H_

#include <sys/types.h>

#include "shared/host_config.h"
#include "shared/service_account.h"

namespace vela::webapid {

// Exit statuses of an executor; any other end is a crash.
inline constexpr int kExecutorDone = 0;         // its worker closed the link
inline constexpr int kExecutorCannotStart = 1;
inline constexpr int kExecutorPoisoned = 3;     // ids could not be restored after a call
inline constexpr int kExecutorRefused = 4;      // a call without a good ticket

struct ExecutorSetup {
  const HostConfig* config;
  ServiceAccount account;
  pid_t master;
  int linkFd;  // the stream to its worker
};

// Runs in the freshly forked child, which holds only `linkFd` and the
// standard descriptors.
[[noreturn]] void RunExecutor(const ExecutorSetup& setup);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_EXECUTOR_EXECUTOR_H_
