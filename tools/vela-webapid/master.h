// The master process: binds the listening socket once, reads the page and
// the TLS files, forks the workers and keeps them going, and answers their
// questions about logins and sessions. It runs no web API module code and
// serves no HTTP itself, so it stays small and hard to upset.
#ifndef VELA_WEBAPID_MASTER_H_
#define VELA_WEBAPID_MASTER_H_

#include "host_config.h"

namespace vela::webapid {

// Runs the host until SIGTERM, SIGINT or SIGHUP: then the workers stop
// accepting, finish the requests in flight and end (killed after
// stop_timeout). Returns the exit status: 0 after a stop, 1 when the host
// could not start.
int RunMaster(const HostConfig& config);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_MASTER_H_
