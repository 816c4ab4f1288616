// Keeps password guessing slow without letting anyone lock the real
// administrator out.
//
// - A browser that logged in as the user before (it shows a device cookie
//   for that user) has an allowance of its own: login_max_failures within
//   login_failure_window, whatever anyone else does.
// - Other attempts count per address and per user. An address with that
//   many failures is refused until the oldest leaves the window. A user
//   with that many failures from unknown browsers is not refused: each
//   further attempt must wait a pause that doubles with every failure (one
//   second first, login_max_delay at most), and only one may be checked at
//   a time.
// - Only a failed attempt counts; a PAM check that could not finish does
//   not, and nothing but a successful login of the browser itself wipes a
//   count.
// - Logins checked at once from one address are bounded.
#ifndef VELA_WEBAPID_MASTER_LOGIN_LIMITER_H_
#define VELA_WEBAPID_MASTER_LOGIN_LIMITER_H_

#include <chrono>
#include <deque>
#include <string>
#include <unordered_map>

#include "master/session_store.h"

namespace vela::webapid {

class LoginLimiter {
 public:
  struct Attempt {
    std::string address;
    std::string user;
    std::string device;  // "" for a browser not known for this user
  };
  struct Decision {
    bool allowed = true;
    int retryAfter = 0;   // seconds, when refused
    std::string why;      // for the log, when refused
  };

  LoginLimiter(int maxFailures, std::chrono::seconds window, std::chrono::seconds maxDelay, int maxPendingPerAddress);

  Decision Check(const Attempt& attempt, Clock::time_point now);
  // An attempt is being checked / has been checked.
  void Begin(const Attempt& attempt);
  void End(const Attempt& attempt, bool checked, bool failed, Clock::time_point now);
  // Forgets entries with nothing left to count.
  void Sweep(Clock::time_point now);

 private:
  struct Entry {
    std::deque<Clock::time_point> failures;
    int pending = 0;
  };
  using Table = std::unordered_map<std::string, Entry>;

  void Prune(Entry& entry, Clock::time_point now) const;
  int SecondsUntilOldestLeaves(const Entry& entry, Clock::time_point now) const;

  int maxFailures_;
  std::chrono::seconds window_;
  std::chrono::seconds maxDelay_;
  int maxPendingPerAddress_;
  Table byAddress_;
  Table byUser_;    // attempts from unknown browsers
  Table byDevice_;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_MASTER_LOGIN_LIMITER_H_
