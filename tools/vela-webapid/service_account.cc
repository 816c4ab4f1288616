#include "service_account.h"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace vela::webapid {

namespace {

bool IdsAre(const ServiceAccount& account) {
  uid_t ruid, euid, suid;
  gid_t rgid, egid, sgid;
  if (getresuid(&ruid, &euid, &suid) != 0 || getresgid(&rgid, &egid, &sgid) != 0) return false;
  gid_t groups[2];
  const int count = getgroups(2, groups);
  return ruid == 0 && euid == account.uid && suid == 0 && rgid == 0 && egid == account.gid && sgid == 0 &&
         count == 1 && groups[0] == account.gid;
}

}  // namespace

ServiceAccount LookUpServiceAccount(const std::string& name) {
  errno = 0;
  const struct passwd* pw = getpwnam(name.c_str());
  if (pw == nullptr) {
    throw std::runtime_error("service account " + name + " does not exist" +
                             (errno != 0 ? std::string(": ") + strerror(errno) : std::string()));
  }
  if (pw->pw_uid == 0 || pw->pw_gid == 0) {
    throw std::runtime_error("service account " + name + " has id 0; it must be unprivileged");
  }
  return ServiceAccount{name, pw->pw_uid, pw->pw_gid};
}

void BecomeServiceAccount(const ServiceAccount& account) {
  // The group list first: it needs root, and root's groups must not stay.
  if (setgroups(1, &account.gid) != 0 || setresgid(0, account.gid, 0) != 0 ||
      setresuid(0, account.uid, 0) != 0) {
    throw std::runtime_error("cannot take on the ids of " + account.name + " (uid " +
                             std::to_string(account.uid) + ", gid " + std::to_string(account.gid) +
                             "): " + strerror(errno));
  }
}

bool RestoreServiceAccount(const ServiceAccount& account) {
  if (IdsAre(account)) return true;
  // Root again first (the saved uid allows it), then group, groups and uid.
  if (setresuid(-1, 0, -1) != 0 || setgroups(1, &account.gid) != 0 || setresgid(0, account.gid, 0) != 0 ||
      setresuid(0, account.uid, 0) != 0) {
    return false;
  }
  return IdsAre(account);
}

bool FollowMaster(pid_t master) {
  if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0) return false;
  return getppid() == master;
}

}  // namespace vela::webapid
