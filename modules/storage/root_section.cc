#include "root_section.h"

#include <syslog.h>
#include <unistd.h>

namespace VelaStorageWebAPI {

// A failed switch is logged and the listing goes on with the ids it has:
// it then shows what those ids may see.
RootSection::RootSection() : uid_(geteuid()), gid_(getegid()) {
  if (gid_ != 0 && setresgid(-1, 0, -1) != 0) {
    syslog(LOG_AUTH | LOG_ERR, "storage listing: setresgid(-1, 0, -1) failed: %m");
  }
  if (uid_ != 0 && setresuid(-1, 0, -1) != 0) {
    syslog(LOG_AUTH | LOG_ERR, "storage listing: setresuid(-1, 0, -1) failed: %m");
  }
}

RootSection::~RootSection() {
  if (geteuid() == uid_ && getegid() == gid_) return;
  // Root is needed to set the gid, so the uid goes back last.
  if (setresuid(-1, 0, -1) != 0 || setresgid(-1, gid_, -1) != 0 || setresuid(-1, uid_, -1) != 0) {
    syslog(LOG_AUTH | LOG_ERR, "storage listing: cannot return to uid %d, gid %d: %m", static_cast<int>(uid_),
           static_cast<int>(gid_));
  }
}

}  // namespace VelaStorageWebAPI
