// Root's effective ids for the length of a scope, then the caller's again.
//
// Web API modules run in processes of the web server with the server
// account's effective ids and real and saved ids 0; their work on the
// system's state files, locks and processes needs root. Only the effective
// uid and gid are switched (real and saved ids stay), and every switch to
// id 0 is reported to the authentication log, with the calling module's
// source name:
//   LOG_AUTH|LOG_INFO  "%s:%d WARNING: set%s(%d, %d, %d)"     a switch to 0
//   LOG_AUTH|LOG_ERR   "%s:%d ERROR: set%s(%d, %d, %d) [%s]"  a failed switch
//   LOG_AUTH|LOG_ERR   "%s:%d ERROR: ENTERCriticalSection" / "...LEAVECriticalSection"
// A failed switch is logged and sets errno to 1; the work goes on with
// whatever ids the process has. A process that is already root switches
// nothing and logs nothing.
#ifndef VELA_PRIVILEGED_SECTION_H_
#define VELA_PRIVILEGED_SECTION_H_

#include <sys/types.h>

#include "vela/vlib_types.h"

namespace vela::platform {

class VELA_PLATFORM_API PrivilegedSection {
 public:
  // `logSource` names the caller in the log lines and must outlive the
  // section (a string literal).
  explicit PrivilegedSection(const char* logSource);
  ~PrivilegedSection();
  PrivilegedSection(const PrivilegedSection&) = delete;
  PrivilegedSection& operator=(const PrivilegedSection&) = delete;

 private:
  const char* logSource_;
  uid_t savedUid_;
  gid_t savedGid_;
};

}  // namespace vela::platform

#endif  // VELA_PRIVILEGED_SECTION_H_
