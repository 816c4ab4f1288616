// The last step of an HTTP worker's start, after it has taken on its own
// account for good and set up everything that opens files or sockets: no
// new privileges ever (PR_SET_NO_NEW_PRIVS), and a seccomp filter that
// allows only the system calls serving HTTP and TLS takes. Any other call
// ends the worker (status kWorkerForbiddenCall, the call's number on its
// standard error), which the master then replaces.
#ifndef VELA_WEBAPID_HTTP_WORKER_LOCKDOWN_H_
#define VELA_WEBAPID_HTTP_WORKER_LOCKDOWN_H_

namespace vela::webapid {

// Throws std::runtime_error when the filter cannot be put in place.
void LockDownWorker();

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_HTTP_WORKER_LOCKDOWN_H_
