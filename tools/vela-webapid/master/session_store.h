// Login sessions, owned by the master. A session is found by the SHA-256
// digest of its ID: the ID itself is only ever in the client's cookie, so
// nothing kept here would let anyone use a session.
#ifndef VELA_WEBAPID_MASTER_SESSION_STORE_H_
#define VELA_WEBAPID_MASTER_SESSION_STORE_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_map>

namespace vela::webapid {

using Clock = std::chrono::steady_clock;

struct Session {
  std::string user;
  std::string fingerprint;  // of the password the session was granted with
  std::string csrfToken;
  Clock::time_point created;
  Clock::time_point lastUsed;
};

class SessionStore {
 public:
  SessionStore(std::chrono::seconds idleTimeout, std::chrono::seconds maxAge, size_t maxSessions);

  // A new session for `user`; its ID is returned in `id`. When the store
  // is full, the session idle the longest is ended first.
  const Session& Create(const std::string& user, const std::string& fingerprint, Clock::time_point now,
                        std::string& id);
  // The live session of `id`, its idle time restarted; nullptr when there
  // is none (an expired one is removed).
  const Session* Use(const std::string& id, Clock::time_point now);
  void Remove(const std::string& id);
  // Ends the sessions of `user`, all of them, or those granted with
  // another password than `fingerprint` when it is given. Returns how many.
  size_t EndUser(const std::string& user, const std::string* fingerprint = nullptr);
  // Removes every expired session.
  void Sweep(Clock::time_point now);
  size_t Size() const { return sessions_.size(); }

 private:
  bool Expired(const Session& session, Clock::time_point now) const;

  std::chrono::seconds idleTimeout_;
  std::chrono::seconds maxAge_;
  size_t maxSessions_;
  std::unordered_map<std::string, Session> sessions_;  // by digest of the ID
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_MASTER_SESSION_STORE_H_
