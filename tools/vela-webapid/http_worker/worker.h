// One HTTP worker: TLS and HTTP for clients, on the listening socket all
// workers share. It parses requests with no rights at all (its own
// account for good, no capabilities, a seccomp filter), asks the master
// about logins and sessions, and hands module calls, as the master
// granted them, to its executor. It never starts a thread.
#ifndef VELA_WEBAPID_HTTP_WORKER_WORKER_H_
#define VELA_WEBAPID_HTTP_WORKER_WORKER_H_

#include <signal.h>
#include <sys/types.h>

#include <string>

#include "shared/connection_table.h"
#include "shared/host_config.h"
#include "shared/service_account.h"
#include "shared/static_files.h"

namespace vela::webapid {

// Exit statuses of a worker; any other end is a crash.
inline constexpr int kWorkerDone = 0;        // stopped, or served its share of logged-in requests
inline constexpr int kWorkerCannotStart = 1;
inline constexpr int kWorkerForbiddenCall = 5;  // its system call filter stopped it

// The signals that stop a worker gracefully. A worker is forked with them
// blocked and unblocks them once its own handlers are in place, so that a
// stop asked for while it starts is not lost.
sigset_t WorkerStopSignals();

struct WorkerSetup {
  const HostConfig* config;
  const StaticFiles* files;
  const std::string* tlsCert;
  const std::string* tlsKey;
  ConnectionTable* connections;
  int slot;
  ServiceAccount account;  // the HTTP workers' account
  pid_t master;
  int listenFd;
  int channelFd;   // to the master
  int executorFd;  // to its executor
  std::string boundAddress;
};

// Runs in the freshly forked child, which holds only the descriptors named
// in `setup` and the standard ones.
[[noreturn]] void RunWorker(const WorkerSetup& setup);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_HTTP_WORKER_WORKER_H_
