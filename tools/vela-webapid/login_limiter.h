// Counts failed logins per client address and per user name. While the
// failures of the last window, together with the attempts still being
// checked, reach the limit for either, further attempts are refused
// without asking PAM.
#ifndef VELA_WEBAPID_LOGIN_LIMITER_H_
#define VELA_WEBAPID_LOGIN_LIMITER_H_

#include <chrono>
#include <deque>
#include <string>
#include <unordered_map>

#include "session_store.h"

namespace vela::webapid {

class LoginLimiter {
 public:
  LoginLimiter(int maxFailures, std::chrono::seconds window);

  bool Allowed(const std::string& address, const std::string& user, Clock::time_point now);
  // An attempt is being checked / has been checked.
  void Begin(const std::string& address, const std::string& user);
  void End(const std::string& address, const std::string& user, bool failed, Clock::time_point now);
  // Forgets entries with nothing left to count.
  void Sweep(Clock::time_point now);

 private:
  struct Entry {
    std::deque<Clock::time_point> failures;
    int inFlight = 0;
  };
  using Table = std::unordered_map<std::string, Entry>;

  bool Below(Table& table, const std::string& key, Clock::time_point now);
  void Prune(Entry& entry, Clock::time_point now) const;

  int maxFailures_;
  std::chrono::seconds window_;
  Table byAddress_;
  Table byUser_;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_LOGIN_LIMITER_H_
