// The privileged section of a web API handler. The web server runs handlers
// with non-root effective ids; work on the system's state files, locks and
// processes needs root. Only the effective uid and gid are switched (real
// and saved ids stay), and every switch to id 0 is reported to the
// authentication log.
#ifndef VELABTRFSSNAPUSAGE_PRIVILEGED_SECTION_H_
#define VELABTRFSSNAPUSAGE_PRIVILEGED_SECTION_H_

#include <sys/types.h>

namespace VelaBtrfsUsageWebAPI {

// Enters on construction and leaves on destruction. A failed switch is
// logged and sets errno to 1; the work goes on with whatever ids the
// process has, and the request is answered from the work's result.
class PrivilegedSection {
 public:
  PrivilegedSection();
  ~PrivilegedSection();
  PrivilegedSection(const PrivilegedSection&) = delete;
  PrivilegedSection& operator=(const PrivilegedSection&) = delete;

 private:
  uid_t savedUid_;
  gid_t savedGid_;
};

}  // namespace VelaBtrfsUsageWebAPI

#endif  // VELABTRFSSNAPUSAGE_PRIVILEGED_SECTION_H_
