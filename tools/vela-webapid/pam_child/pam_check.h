// One login, or one check of a logged-in account, through PAM in a child
// process of its own, so that PAM's time (a slow directory, a module's
// delay) holds up nothing else. For a login the child authenticates; for
// both it checks the account (PAM's account management, a locked password,
// membership of the administrators' group) and takes a fingerprint of the
// password: a keyed digest of its hash, which changes when the password
// does. It writes its verdict on a pipe.
#ifndef VELA_WEBAPID_PAM_CHILD_PAM_CHECK_H_
#define VELA_WEBAPID_PAM_CHILD_PAM_CHECK_H_

#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"

namespace vela::webapid {

using vela::base::UniqueFd;

struct PamCheckRequest {
  bool login = true;  // false: check the account only, no password
  std::string fingerprintKey;
  std::string service;
  std::string adminGroup;
  std::string user;
  std::string password;
  std::string address;
};

struct PamCheckChild {
  pid_t pid = -1;
  UniqueFd verdict;  // readable once the child is done; EOF without a verdict is a failure
};

struct PamVerdict {
  int code = 0;       // 0, kCodeLoginFailed, kCodeNotPermitted or kCodeUnavailable
  std::string user;   // the name PAM settled on
  std::string fingerprint;  // of the password's hash; "" when the account has none PAM shows
  std::string why;    // for the log
};

// Forks the checking child. Throws std::runtime_error when it cannot.
PamCheckChild StartPamCheck(const PamCheckRequest& request);
// Reads the verdict the child wrote; a child that wrote none failed.
PamVerdict ReadPamVerdict(int fd);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_PAM_CHILD_PAM_CHECK_H_
