#include "master/login_limiter.h"

#include <algorithm>

namespace vela::webapid {

namespace {

int CeilSeconds(Clock::duration d) {
  return static_cast<int>(std::max<long long>(1, std::chrono::ceil<std::chrono::seconds>(d).count()));
}

}  // namespace

LoginLimiter::LoginLimiter(int maxFailures, std::chrono::seconds window, std::chrono::seconds maxDelay,
                           int maxPendingPerAddress)
    : maxFailures_(maxFailures), window_(window), maxDelay_(maxDelay), maxPendingPerAddress_(maxPendingPerAddress) {}

void LoginLimiter::Prune(Entry& entry, Clock::time_point now) const {
  while (!entry.failures.empty() && now - entry.failures.front() >= window_) entry.failures.pop_front();
}

int LoginLimiter::SecondsUntilOldestLeaves(const Entry& entry, Clock::time_point now) const {
  return CeilSeconds(entry.failures.front() + window_ - now);
}

LoginLimiter::Decision LoginLimiter::Check(const Attempt& attempt, Clock::time_point now) {
  Decision decision;
  const auto refuse = [&decision](int seconds, std::string why) {
    decision.allowed = false;
    decision.retryAfter = seconds;
    decision.why = std::move(why);
    return decision;
  };
  Entry& address = byAddress_[attempt.address];
  if (address.pending >= maxPendingPerAddress_) {
    return refuse(1, std::to_string(address.pending) + " logins from the address are being checked");
  }
  if (!attempt.device.empty()) {
    Entry& device = byDevice_[attempt.device];
    Prune(device, now);
    if (static_cast<int>(device.failures.size()) >= maxFailures_) {
      return refuse(SecondsUntilOldestLeaves(device, now), "too many failed attempts from this browser");
    }
    return decision;
  }
  Prune(address, now);
  if (static_cast<int>(address.failures.size()) >= maxFailures_) {
    return refuse(SecondsUntilOldestLeaves(address, now), "too many failed attempts from the address");
  }
  Entry& user = byUser_[attempt.user];
  Prune(user, now);
  const int beyond = static_cast<int>(user.failures.size()) - maxFailures_;
  if (beyond >= 0) {
    if (user.pending > 0) return refuse(1, "an attempt for the user from an unknown browser is being checked");
    const auto pause = std::min<std::chrono::seconds>(maxDelay_, std::chrono::seconds(1LL << std::min(beyond, 20)));
    const auto waited = now - user.failures.back();
    if (waited < pause) return refuse(CeilSeconds(pause - waited), "failed attempts for the user from unknown browsers");
  }
  return decision;
}

void LoginLimiter::Begin(const Attempt& attempt) {
  ++byAddress_[attempt.address].pending;
  if (attempt.device.empty()) ++byUser_[attempt.user].pending;
}

void LoginLimiter::End(const Attempt& attempt, bool checked, bool failed, Clock::time_point now) {
  --byAddress_[attempt.address].pending;
  if (attempt.device.empty()) --byUser_[attempt.user].pending;
  if (!checked) return;
  if (!attempt.device.empty()) {
    Entry& device = byDevice_[attempt.device];
    if (failed) {
      device.failures.push_back(now);
    } else {
      device.failures.clear();
    }
  } else if (failed) {
    byAddress_[attempt.address].failures.push_back(now);
    byUser_[attempt.user].failures.push_back(now);
  }
}

void LoginLimiter::Sweep(Clock::time_point now) {
  for (Table* table : {&byAddress_, &byUser_, &byDevice_}) {
    for (auto it = table->begin(); it != table->end();) {
      Prune(it->second, now);
      it = it->second.failures.empty() && it->second.pending == 0 ? table->erase(it) : std::next(it);
    }
  }
}

}  // namespace vela::webapid
