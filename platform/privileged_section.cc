#include "vela/privileged_section.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vela::platform {

namespace {

// A successful switch to id 0 (the only value these lines report).
void LogSwitchToRoot(const char* source, int line, const char* which) {
  syslog(LOG_AUTH | LOG_INFO, "%s:%d WARNING: set%s(%d, %d, %d)", source, line, which, -1, 0, -1);
}

void LogSwitchFailure(const char* source, int line, const char* which, int value) {
  char reason[1024] = {};
  const char* text = strerror_r(errno, reason, sizeof(reason));
  syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: set%s(%d, %d, %d) [%s]", source, line, which, -1, value, -1, text);
}

}  // namespace

PrivilegedSection::PrivilegedSection(const char* logSource)
    : logSource_(logSource), savedUid_(geteuid()), savedGid_(getegid()) {
  bool ok = true;
  // The gid first: once the uid is no longer root it could not change.
  if (savedGid_ != 0) {
    if (setresgid(-1, 0, -1) == 0) {
      LogSwitchToRoot(logSource_, __LINE__, "resgid");
    } else {
      LogSwitchFailure(logSource_, __LINE__, "resgid", 0);
      ok = false;
    }
  }
  if (ok && savedUid_ != 0) {
    if (setresuid(-1, 0, -1) == 0) {
      LogSwitchToRoot(logSource_, __LINE__, "resuid");
    } else {
      LogSwitchFailure(logSource_, __LINE__, "resuid", 0);
      ok = false;
    }
  }
  if (ok) {
    errno = 0;
  } else {
    errno = 1;
    syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: ENTERCriticalSection", logSource_, __LINE__);
  }
}

PrivilegedSection::~PrivilegedSection() {
  const uid_t currentUid = geteuid();
  const gid_t currentGid = getegid();
  bool ok = true;
  // Root is needed to change the gid back, so the uid goes back last.
  if (currentUid != savedUid_) {
    if (setresuid(-1, 0, -1) == 0) {
      LogSwitchToRoot(logSource_, __LINE__, "resuid");
    } else {
      LogSwitchFailure(logSource_, __LINE__, "resuid", 0);
      ok = false;
    }
  }
  if (ok && currentGid != savedGid_) {
    if (setresgid(-1, savedGid_, -1) == 0) {
      if (savedGid_ == 0) LogSwitchToRoot(logSource_, __LINE__, "resgid");
    } else {
      LogSwitchFailure(logSource_, __LINE__, "resgid", static_cast<int>(savedGid_));
      ok = false;
    }
  }
  if (ok && currentUid != savedUid_) {
    if (setresuid(-1, savedUid_, -1) == 0) {
      if (savedUid_ == 0) LogSwitchToRoot(logSource_, __LINE__, "resuid");
    } else {
      LogSwitchFailure(logSource_, __LINE__, "resuid", static_cast<int>(savedUid_));
      ok = false;
    }
  }
  if (ok) {
    errno = 0;
  } else {
    errno = 1;
    syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: LEAVECriticalSection", logSource_, __LINE__);
  }
}

}  // namespace vela::platform
