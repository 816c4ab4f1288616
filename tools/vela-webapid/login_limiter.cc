#include "login_limiter.h"

namespace vela::webapid {

LoginLimiter::LoginLimiter(int maxFailures, std::chrono::seconds window)
    : maxFailures_(maxFailures), window_(window) {}

void LoginLimiter::Prune(Entry& entry, Clock::time_point now) const {
  while (!entry.failures.empty() && now - entry.failures.front() >= window_) entry.failures.pop_front();
}

bool LoginLimiter::Below(Table& table, const std::string& key, Clock::time_point now) {
  const auto it = table.find(key);
  if (it == table.end()) return true;
  Prune(it->second, now);
  return static_cast<int>(it->second.failures.size()) + it->second.inFlight < maxFailures_;
}

bool LoginLimiter::Allowed(const std::string& address, const std::string& user, Clock::time_point now) {
  return Below(byAddress_, address, now) && Below(byUser_, user, now);
}

void LoginLimiter::Begin(const std::string& address, const std::string& user) {
  ++byAddress_[address].inFlight;
  ++byUser_[user].inFlight;
}

void LoginLimiter::End(const std::string& address, const std::string& user, bool failed,
                       Clock::time_point now) {
  for (Entry* entry : {&byAddress_[address], &byUser_[user]}) {
    --entry->inFlight;
    // A success wipes the slate: the one who knows the password is back.
    if (failed) {
      entry->failures.push_back(now);
    } else {
      entry->failures.clear();
    }
  }
}

void LoginLimiter::Sweep(Clock::time_point now) {
  for (Table* table : {&byAddress_, &byUser_}) {
    for (auto it = table->begin(); it != table->end();) {
      Prune(it->second, now);
      it = it->second.failures.empty() && it->second.inFlight == 0 ? table->erase(it) : std::next(it);
    }
  }
}

}  // namespace vela::webapid
