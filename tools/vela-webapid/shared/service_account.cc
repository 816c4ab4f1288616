#include "shared/service_account.h"

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

bool IdsAre(uid_t ruid, uid_t euid, uid_t suid, gid_t rgid, gid_t egid, gid_t sgid, gid_t group) {
  uid_t r, e, s;
  gid_t gr, ge, gs;
  if (getresuid(&r, &e, &s) != 0 || getresgid(&gr, &ge, &gs) != 0) return false;
  gid_t groups[2];
  const int count = getgroups(2, groups);
  return r == ruid && e == euid && s == suid && gr == rgid && ge == egid && gs == sgid && count == 1 &&
         groups[0] == group;
}

[[noreturn]] void Fail(const ServiceAccount& account) {
  throw std::runtime_error("cannot take on the ids of " + account.name + " (uid " + std::to_string(account.uid) +
                           ", gid " + std::to_string(account.gid) + "): " + strerror(errno));
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

void BecomeExecutor(const ServiceAccount& account) {
  // The group list first: it needs root, and root's groups must not stay.
  if (setgroups(1, &account.gid) != 0 || setresgid(0, account.gid, 0) != 0 || setresuid(0, account.uid, 0) != 0) {
    Fail(account);
  }
}

bool RestoreExecutorIds(const ServiceAccount& account) {
  if (IdsAre(0, account.uid, 0, 0, account.gid, 0, account.gid)) return true;
  // Root again first (the saved uid allows it), then group, groups and uid.
  if (setresuid(-1, 0, -1) != 0 || setgroups(1, &account.gid) != 0 || setresgid(0, account.gid, 0) != 0 ||
      setresuid(0, account.uid, 0) != 0) {
    return false;
  }
  return IdsAre(0, account.uid, 0, 0, account.gid, 0, account.gid);
}

void BecomeForGood(const ServiceAccount& account) {
  if (setgroups(1, &account.gid) != 0 || setresgid(account.gid, account.gid, account.gid) != 0 ||
      setresuid(account.uid, account.uid, account.uid) != 0) {
    Fail(account);
  }
  // Proof that there is no way back.
  if (setresuid(-1, 0, -1) == 0 || setgroups(0, nullptr) == 0 ||
      !IdsAre(account.uid, account.uid, account.uid, account.gid, account.gid, account.gid, account.gid)) {
    throw std::runtime_error("root's ids are still within reach after taking on those of " + account.name);
  }
}

bool FollowMaster(pid_t master) {
  if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0) return false;
  return getppid() == master;
}

}  // namespace vela::webapid
