// The master's answers to its workers about logins and sessions.
//
// Sessions live here, in the master, and workers ask for them over their
// channels. One owner means no locks, no files and nothing a worker could
// read or change: a worker learns about one session at a time, by
// presenting its ID. Sessions end with the host, which is what a restart
// of a login service should do anyway.
//
// A login runs PAM in a child process (pam_check.h); the master goes on
// answering everyone meanwhile. A failed login is answered only after the
// configured delay, by a timer, so the delay holds up nobody else either.
#ifndef VELA_WEBAPID_AUTH_SERVICE_H_
#define VELA_WEBAPID_AUTH_SERVICE_H_

#include <json/json.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "host_config.h"
#include "login_limiter.h"
#include "pam_check.h"
#include "session_store.h"

namespace vela::webapid {

class AuthService {
 public:
  // Where an answer goes: the channel it came from, by its serial number
  // (a restarted worker's channel has a new one, so late answers for the
  // old one are dropped).
  using Reply = std::function<void(uint64_t channel, const Json::Value& answer)>;

  AuthService(const HostConfig& config, Reply reply);

  void OnMessage(uint64_t channel, const Json::Value& message);
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
  // In a freshly forked worker: forgets the master's state, passwords of
  // pending logins included.
  void Forget();

 private:
  struct PendingLogin {
    uint64_t channel;
    Json::Value id;
    std::string user;
    std::string address;
    pid_t pid;
    UniqueFd verdict;
    Clock::time_point deadline;
  };
  struct DelayedAnswer {
    uint64_t channel;
    Json::Value answer;
  };

  void StartLogin(uint64_t channel, const Json::Value& message);
  void FinishLogin(PendingLogin& login, const PamVerdict& verdict);
  Json::Value Answer(const Json::Value& id, int code) const;

  const HostConfig& config_;
  Reply reply_;
  SessionStore sessions_;
  LoginLimiter limiter_;
  std::map<int, PendingLogin> logins_;  // by verdict descriptor
  std::vector<pid_t> unreaped_;         // PAM children not yet collected
  std::multimap<Clock::time_point, DelayedAnswer> delayed_;
  Clock::time_point nextSweep_;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_AUTH_SERVICE_H_
