// The master process: binds the listening socket once (or takes it over
// from the one that started it), reads the page and the TLS files, forks
// the HTTP workers and their executors and keeps them going, and answers
// the workers' questions about logins, sessions and calls. It runs no web
// API module code and parses no HTTP itself, so it stays small and hard
// to upset.
#ifndef VELA_WEBAPID_MASTER_MASTER_H_
#define VELA_WEBAPID_MASTER_MASTER_H_

#include "shared/host_config.h"

namespace vela::webapid {

// Runs the host until SIGTERM or SIGINT: then the workers stop accepting,
// finish the requests in flight and end (killed after stop_timeout).
// SIGHUP restarts the host in place: the workers finish in the same way,
// then the master runs itself again with `argv`, keeping the listening
// socket, so that no connection is refused meanwhile. Returns the exit
// status: 0 after a stop, 1 when the host could not start.
int RunMaster(const HostConfig& config, char** argv);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_MASTER_MASTER_H_
