// The master's answers to its workers about logins, sessions and calls.
//
// Sessions live here, in the master, and workers ask for them over their
// channels. One owner means no locks, no files and nothing a worker could
// read or change: a worker learns about one session at a time, by
// presenting its ID. Sessions end with the host.
//
// A session lasts only as long as the rights that granted it: the user's
// account (PAM's account management, a locked or changed password) and
// membership of the administrators' group are checked again, in a child
// process, at most session_recheck_interval seconds apart and before every
// module method that is not read-only; a session whose check fails ends,
// and a changed password ends every session granted with the old one.
//
// A login runs PAM in a child process (pam_child/pam_check.h); the master
// goes on answering everyone meanwhile. A failed login is answered
// login_failure_delay_ms after it began, by a timer, whatever PAM took and
// whatever failed, so neither the time nor the answer tells a wrong
// password from an account that may not log in.
#ifndef VELA_WEBAPID_MASTER_AUTH_SERVICE_H_
#define VELA_WEBAPID_MASTER_AUTH_SERVICE_H_

#include <json/json.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "master/device_tokens.h"
#include "master/login_limiter.h"
#include "master/session_store.h"
#include "pam_child/pam_check.h"
#include "shared/host_config.h"

namespace vela::webapid {

class AuthService {
 public:
  // Where an answer goes: the channel it came from, by its serial number
  // (a restarted worker's channel has a new one, so late answers for the
  // old one are dropped).
  using Reply = std::function<void(uint64_t channel, const Json::Value& answer)>;

  AuthService(const HostConfig& config, Reply reply);

  // `secret` is the message's secret (a login's password); it is wiped
  // once used.
  void OnMessage(uint64_t channel, const Json::Value& message, std::string& secret);
  // Descriptors to watch for PAM verdicts, and what to do when one is readable.
  std::vector<int> VerdictFds() const;
  void OnVerdictReadable(int fd);
  // Collects a PAM child that ended; false when `pid` is not one of them.
  bool OnChildExit(pid_t pid);
  // Timers: answers whose delay is over, PAM checks that took too long,
  // expired sessions.
  void RunTimers();
  Clock::time_point NextTimer() const;
  // Ends every PAM check still running (the host is stopping).
  void KillChecks();
  // In a freshly forked child: forgets the master's state, passwords of
  // pending logins and keys included.
  void Forget();

 private:
  struct Pending {
    bool login;          // else an account check
    uint64_t channel;    // login: where the answer goes
    Json::Value id;
    LoginLimiter::Attempt attempt;  // login
    std::string user;
    pid_t pid;
    UniqueFd verdict;
    Clock::time_point started;
    Clock::time_point deadline;
  };
  struct Waiting {
    uint64_t channel;
    Json::Value message;
  };
  struct UserCheck {
    Clock::time_point checked;
    bool running = false;
    std::vector<Waiting> waiting;
  };
  struct DelayedAnswer {
    uint64_t channel;
    Json::Value answer;
  };

  void Handle(uint64_t channel, const Json::Value& message, bool freshlyChecked);
  void StartLogin(uint64_t channel, const Json::Value& message, std::string& password);
  void FinishLogin(Pending& login, const PamVerdict& verdict);
  void StartAccountCheck(const std::string& user);
  void FinishAccountCheck(const std::string& user, const PamVerdict& verdict);
  bool StartChild(Pending pending, PamCheckRequest request);
  Json::Value Answer(const Json::Value& id, int code) const;

  const HostConfig& config_;
  Reply reply_;
  SessionStore sessions_;
  LoginLimiter limiter_;
  DeviceTokens devices_;
  std::string fingerprintKey_;
  std::map<int, Pending> pending_;  // by verdict descriptor
  std::unordered_map<std::string, UserCheck> checks_;  // by user
  std::vector<pid_t> unreaped_;     // PAM children not yet collected
  std::multimap<Clock::time_point, DelayedAnswer> delayed_;
  Clock::time_point nextSweep_;
  uint64_t nextNonce_ = 1;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_MASTER_AUTH_SERVICE_H_
