// The ids a worker runs with: the service account's effective uid and gid
// (its only group), with real and saved ids 0. That is the setting web API
// modules are built for: they switch the effective ids to root around the
// work that needs it and back, and the rest of a request runs unprivileged.
#ifndef VELA_WEBAPID_SERVICE_ACCOUNT_H_
#define VELA_WEBAPID_SERVICE_ACCOUNT_H_

#include <sys/types.h>

#include <string>

namespace vela::webapid {

struct ServiceAccount {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
};

// Looks the account up. Throws std::runtime_error when it does not exist
// or is root.
ServiceAccount LookUpServiceAccount(const std::string& name);
// Takes on the account's effective ids. Throws when the switch fails.
void BecomeServiceAccount(const ServiceAccount& account);
// After a request: true when the ids are the account's again, restoring
// them if a module left them otherwise; false when that is impossible.
bool RestoreServiceAccount(const ServiceAccount& account);
// Asks for SIGTERM when the master ends (a change of effective ids clears
// that request, so it is renewed after every request). False when the
// master is gone already.
bool FollowMaster(pid_t master);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SERVICE_ACCOUNT_H_
