// The host's own log lines: to syslog (facility daemon) and, with
// log_stderr, to standard error. Each message format may log a burst of
// lines and then at most a few per window; what is held back is counted
// and said once the window is over, so no client can make the log grow
// without bound. Modules log through syslog() directly: their lines go to
// syslog only, never to the host's standard error.
#ifndef VELA_WEBAPID_SHARED_HOST_LOG_H_
#define VELA_WEBAPID_SHARED_HOST_LOG_H_

#include <cstdarg>

namespace vela::webapid {

// Opens the connection to syslog for this process (again after a fork,
// once the descriptors are sorted out).
void OpenHostLog(bool toStderr);
void HostLog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void HostLogV(int priority, const char* format, va_list args);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SHARED_HOST_LOG_H_
