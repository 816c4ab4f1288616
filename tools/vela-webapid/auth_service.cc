#include "auth_service.h"

#include <signal.h>
#include <syslog.h>

#include <algorithm>
#include <exception>

#include "host_codes.h"
#include "secure_token.h"

namespace vela::webapid {

namespace {

// PAM checks running at once; more attempts wait for the client to retry.
constexpr size_t kMaxConcurrentChecks = 16;
constexpr std::chrono::seconds kSweepInterval(60);

std::string Text(const Json::Value& value) { return value.isString() ? value.asString() : ""; }

}  // namespace

AuthService::AuthService(const HostConfig& config, Reply reply)
    : config_(config),
      reply_(std::move(reply)),
      sessions_(std::chrono::seconds(config.sessionIdleTimeout), std::chrono::seconds(config.sessionMaxAge),
                static_cast<size_t>(config.maxSessions)),
      limiter_(config.loginMaxFailures, std::chrono::seconds(config.loginFailureWindow)),
      nextSweep_(Clock::now() + kSweepInterval) {}

Json::Value AuthService::Answer(const Json::Value& id, int code) const {
  Json::Value answer;
  answer["id"] = id;
  answer["code"] = code;
  return answer;
}

void AuthService::OnMessage(uint64_t channel, const Json::Value& message) {
  const Json::Value& id = message["id"];
  const std::string op = Text(message["op"]);
  const std::string sessionId = Text(message["session"]);
  if (op == "session") {
    const Session* session = sessions_.Use(sessionId, Clock::now());
    if (session == nullptr) {
      reply_(channel, Answer(id, kCodeNotLoggedIn));
      return;
    }
    Json::Value answer = Answer(id, 0);
    answer["user"] = session->user;
    answer["csrf"] = session->csrfToken;
    reply_(channel, answer);
  } else if (op == "logout") {
    const Session* session = sessions_.Use(sessionId, Clock::now());
    if (session != nullptr && !EqualInConstantTime(Text(message["csrf"]), session->csrfToken)) {
      reply_(channel, Answer(id, kCodeNotPermitted));
      return;
    }
    sessions_.Remove(sessionId);
    reply_(channel, Answer(id, 0));
  } else if (op == "login") {
    StartLogin(channel, message);
  } else {
    syslog(LOG_ERR, "unknown request '%s' from a worker", op.c_str());
    reply_(channel, Answer(id, kCodeUnavailable));
  }
}

void AuthService::StartLogin(uint64_t channel, const Json::Value& message) {
  const Json::Value& id = message["id"];
  PamCheckRequest request{config_.pamService, config_.adminGroup, Text(message["user"]),
                          Text(message["password"]), Text(message["address"])};
  const Clock::time_point now = Clock::now();
  if (!limiter_.Allowed(request.address, request.user, now)) {
    syslog(LOG_WARNING, "login of %s from %s refused: too many failed attempts", request.user.c_str(),
           request.address.c_str());
    reply_(channel, Answer(id, kCodeTooManyAttempts));
    return;
  }
  if (logins_.size() >= kMaxConcurrentChecks) {
    syslog(LOG_WARNING, "login of %s from %s refused: %zu logins are being checked already",
           request.user.c_str(), request.address.c_str(), logins_.size());
    reply_(channel, Answer(id, kCodeUnavailable));
    return;
  }
  PamCheckChild child;
  try {
    child = StartPamCheck(request);
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "login of %s from %s: cannot start the PAM check: %s", request.user.c_str(),
           request.address.c_str(), e.what());
    reply_(channel, Answer(id, kCodeUnavailable));
    return;
  }
  explicit_bzero(request.password.data(), request.password.size());
  limiter_.Begin(request.address, request.user);
  unreaped_.push_back(child.pid);
  const int fd = child.verdict.Get();
  logins_[fd] = PendingLogin{channel,   id, request.user, request.address, child.pid, std::move(child.verdict),
                             now + std::chrono::seconds(config_.loginTimeout)};
}

void AuthService::FinishLogin(PendingLogin& login, const PamVerdict& verdict) {
  const Clock::time_point now = Clock::now();
  const bool failed = verdict.code == kCodeLoginFailed;
  limiter_.End(login.address, login.user, failed, now);
  const char* user = login.user.c_str();
  const char* address = login.address.c_str();
  if (verdict.code == 0) {
    std::string sessionId;
    const Session& session = sessions_.Create(verdict.user, now, sessionId);
    syslog(LOG_INFO, "%s logged in from %s", session.user.c_str(), address);
    Json::Value answer = Answer(login.id, 0);
    answer["session"] = sessionId;
    answer["csrf"] = session.csrfToken;
    answer["user"] = session.user;
    reply_(login.channel, answer);
  } else if (failed) {
    syslog(LOG_NOTICE, "login of %s from %s failed: %s", user, address, verdict.why.c_str());
    delayed_.emplace(now + std::chrono::milliseconds(config_.loginFailureDelayMs),
                     DelayedAnswer{login.channel, Answer(login.id, kCodeLoginFailed)});
  } else {
    syslog(verdict.code == kCodeNotPermitted ? LOG_NOTICE : LOG_ERR, "login of %s from %s refused: %s", user,
           address, verdict.why.c_str());
    reply_(login.channel, Answer(login.id, verdict.code));
  }
}

std::vector<int> AuthService::VerdictFds() const {
  std::vector<int> fds;
  for (const auto& entry : logins_) fds.push_back(entry.first);
  return fds;
}

void AuthService::OnVerdictReadable(int fd) {
  const auto it = logins_.find(fd);
  if (it == logins_.end()) return;
  FinishLogin(it->second, ReadPamVerdict(fd));
  logins_.erase(it);
}

bool AuthService::OnChildExit(pid_t pid) {
  const auto it = std::find(unreaped_.begin(), unreaped_.end(), pid);
  if (it == unreaped_.end()) return false;
  unreaped_.erase(it);
  return true;
}

void AuthService::RunTimers() {
  const Clock::time_point now = Clock::now();
  while (!delayed_.empty() && delayed_.begin()->first <= now) {
    reply_(delayed_.begin()->second.channel, delayed_.begin()->second.answer);
    delayed_.erase(delayed_.begin());
  }
  for (auto it = logins_.begin(); it != logins_.end();) {
    if (it->second.deadline > now) {
      ++it;
      continue;
    }
    // Still unreaped, so the ID is still our child's.
    if (std::find(unreaped_.begin(), unreaped_.end(), it->second.pid) != unreaped_.end()) {
      kill(it->second.pid, SIGKILL);
    }
    FinishLogin(it->second, PamVerdict{kCodeUnavailable, "",
                                       "PAM took longer than " + std::to_string(config_.loginTimeout) + " s"});
    it = logins_.erase(it);
  }
  if (now >= nextSweep_) {
    sessions_.Sweep(now);
    limiter_.Sweep(now);
    nextSweep_ = now + kSweepInterval;
  }
}

Clock::time_point AuthService::NextTimer() const {
  Clock::time_point next = nextSweep_;
  if (!delayed_.empty()) next = std::min(next, delayed_.begin()->first);
  for (const auto& entry : logins_) next = std::min(next, entry.second.deadline);
  return next;
}

void AuthService::KillChecks() {
  for (const auto& entry : logins_) {
    if (std::find(unreaped_.begin(), unreaped_.end(), entry.second.pid) != unreaped_.end()) {
      kill(entry.second.pid, SIGKILL);
    }
  }
  logins_.clear();
  delayed_.clear();
}

void AuthService::Forget() {
  sessions_ = SessionStore(std::chrono::seconds(config_.sessionIdleTimeout),
                           std::chrono::seconds(config_.sessionMaxAge), static_cast<size_t>(config_.maxSessions));
  logins_.clear();
  delayed_.clear();
  unreaped_.clear();
}

}  // namespace vela::webapid
