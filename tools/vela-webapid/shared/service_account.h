// The ids of the host's processes below the master.
//
// Executors run module calls with the service account's effective uid and
// gid (its only group) and real and saved ids 0: the setting web API
// modules are built for, as they switch the effective ids to root around
// the work that needs it and back.
//
// HTTP workers take on their own account for good: real, effective and
// saved ids all of it, its only group, so no capability is left and none
// can come back.
#ifndef VELA_WEBAPID_SHARED_SERVICE_ACCOUNT_H_
#define VELA_WEBAPID_SHARED_SERVICE_ACCOUNT_H_

#include <sys/types.h>

#include <string>

namespace vela::webapid {

struct ServiceAccount {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
};

// Looks the account up. Throws std::runtime_error when it does not exist
// or has id 0.
ServiceAccount LookUpServiceAccount(const std::string& name);

// The executor's ids. Throws when the switch fails.
void BecomeExecutor(const ServiceAccount& account);
// After a module call: true when the ids are the executor's again,
// restoring them if a module left them otherwise; false when impossible.
bool RestoreExecutorIds(const ServiceAccount& account);

// All ids of `account`, for good. Throws when the switch fails or root's
// ids could be regained.
void BecomeForGood(const ServiceAccount& account);

// Asks for SIGTERM when the master ends (a change of ids clears that
// request, so it is renewed after them). False when the master is gone
// already.
bool FollowMaster(pid_t master);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SHARED_SERVICE_ACCOUNT_H_
