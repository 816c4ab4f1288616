#include "privileged_section.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace VelaBtrfsUsageWebAPI {

namespace {

// Lines of the privileged section carry the handlers' source name.
constexpr char kLogSource[] = "share";

// A successful switch to id 0 (the only value these lines report).
void LogSwitchToRoot(int line, const char* which) {
  syslog(LOG_AUTH | LOG_INFO, "%s:%d WARNING: set%s(%d, %d, %d)", kLogSource, line, which, -1, 0, -1);
}

void LogSwitchFailure(int line, const char* which, int value) {
  char reason[1024] = {};
  const char* text = strerror_r(errno, reason, sizeof(reason));
  syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: set%s(%d, %d, %d) [%s]", kLogSource, line, which, -1,
         value, -1, text);
}

}  // namespace

PrivilegedSection::PrivilegedSection() : savedUid_(geteuid()), savedGid_(getegid()) {
  bool ok = true;
  // The gid first: once the uid is no longer root it could not change.
  if (savedGid_ != 0) {
    if (setresgid(-1, 0, -1) == 0) {
      LogSwitchToRoot(__LINE__, "resgid");
    } else {
      LogSwitchFailure(__LINE__, "resgid", 0);
      ok = false;
    }
  }
  if (ok && savedUid_ != 0) {
    if (setresuid(-1, 0, -1) == 0) {
      LogSwitchToRoot(__LINE__, "resuid");
    } else {
      LogSwitchFailure(__LINE__, "resuid", 0);
      ok = false;
    }
  }
  if (ok) {
    errno = 0;
  } else {
    errno = 1;
    syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: ENTERCriticalSection", kLogSource, __LINE__);
  }
}

PrivilegedSection::~PrivilegedSection() {
  const uid_t currentUid = geteuid();
  const gid_t currentGid = getegid();
  bool ok = true;
  // Root is needed to change the gid back, so the uid goes back last.
  if (currentUid != savedUid_) {
    if (setresuid(-1, 0, -1) == 0) {
      LogSwitchToRoot(__LINE__, "resuid");
    } else {
      LogSwitchFailure(__LINE__, "resuid", 0);
      ok = false;
    }
  }
  if (ok && currentGid != savedGid_) {
    if (setresgid(-1, savedGid_, -1) == 0) {
      if (savedGid_ == 0) LogSwitchToRoot(__LINE__, "resgid");
    } else {
      LogSwitchFailure(__LINE__, "resgid", static_cast<int>(savedGid_));
      ok = false;
    }
  }
  if (ok && currentUid != savedUid_) {
    if (setresuid(-1, savedUid_, -1) == 0) {
      if (savedUid_ == 0) LogSwitchToRoot(__LINE__, "resuid");
    } else {
      LogSwitchFailure(__LINE__, "resuid", static_cast<int>(savedUid_));
      ok = false;
    }
  }
  if (ok) {
    errno = 0;
  } else {
    errno = 1;
    syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: LEAVECriticalSection", kLogSource, __LINE__);
  }
}

}  // namespace VelaBtrfsUsageWebAPI
