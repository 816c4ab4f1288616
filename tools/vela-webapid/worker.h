// One worker process: the service account's ids, the web API modules, an
// HTTP server on the shared listening socket, and a poll loop that serves
// until the worker is told to stop, has served its share of requests, or
// loses its master. It never starts a thread: the modules switch process
// ids, which would not hold for other threads.
#ifndef VELA_WEBAPID_WORKER_H_
#define VELA_WEBAPID_WORKER_H_

#include <signal.h>
#include <sys/types.h>

#include <string>

#include "host_config.h"
#include "service_account.h"
#include "static_files.h"

namespace vela::webapid {

// Exit statuses of a worker; any other end is a crash.
inline constexpr int kWorkerDone = 0;        // stopped or served its share
inline constexpr int kWorkerCannotStart = 1;
inline constexpr int kWorkerPoisoned = 3;    // ids could not be restored after a request

// The signals that stop a worker gracefully. A worker is forked with them
// blocked and unblocks them once its own handlers are in place, so that a
// stop asked for while it starts is not lost.
sigset_t WorkerStopSignals();

struct WorkerSetup {
  const HostConfig* config;
  const StaticFiles* files;
  const std::string* tlsCert;
  const std::string* tlsKey;
  ServiceAccount account;
  pid_t master;
  int listenFd;
  int channelFd;
};

// Runs in the freshly forked child, which holds only the descriptors named
// in `setup` and the standard ones.
[[noreturn]] void RunWorker(const WorkerSetup& setup);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_WORKER_H_
