#include "master/session_store.h"

#include <algorithm>

#include "shared/secure_token.h"

namespace vela::webapid {

SessionStore::SessionStore(std::chrono::seconds idleTimeout, std::chrono::seconds maxAge,
                           size_t maxSessions)
    : idleTimeout_(idleTimeout), maxAge_(maxAge), maxSessions_(maxSessions) {}

bool SessionStore::Expired(const Session& session, Clock::time_point now) const {
  return now - session.lastUsed >= idleTimeout_ || now - session.created >= maxAge_;
}

const Session& SessionStore::Create(const std::string& user, const std::string& fingerprint, Clock::time_point now,
                                    std::string& id) {
  Sweep(now);
  if (sessions_.size() >= maxSessions_) {
    const auto oldest = std::min_element(sessions_.begin(), sessions_.end(), [](const auto& a, const auto& b) {
      return a.second.lastUsed < b.second.lastUsed;
    });
    sessions_.erase(oldest);
  }
  id = NewToken();
  Session& session = sessions_[Sha256(id)];
  session = Session{user, fingerprint, NewToken(), now, now};
  return session;
}

const Session* SessionStore::Use(const std::string& id, Clock::time_point now) {
  if (!IsToken(id)) return nullptr;
  const auto it = sessions_.find(Sha256(id));
  if (it == sessions_.end()) return nullptr;
  if (Expired(it->second, now)) {
    sessions_.erase(it);
    return nullptr;
  }
  it->second.lastUsed = now;
  return &it->second;
}

void SessionStore::Remove(const std::string& id) {
  if (IsToken(id)) sessions_.erase(Sha256(id));
}

size_t SessionStore::EndUser(const std::string& user, const std::string* fingerprint) {
  size_t ended = 0;
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    const bool end = it->second.user == user && (fingerprint == nullptr || it->second.fingerprint != *fingerprint);
    ended += end ? 1 : 0;
    it = end ? sessions_.erase(it) : std::next(it);
  }
  return ended;
}

void SessionStore::Sweep(Clock::time_point now) {
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    it = Expired(it->second, now) ? sessions_.erase(it) : std::next(it);
  }
}

}  // namespace vela::webapid
