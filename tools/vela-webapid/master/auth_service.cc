#include "master/auth_service.h"

#include <signal.h>
#include <string.h>
#include <syslog.h>

#include <algorithm>
#include <exception>

#include "shared/host_codes.h"
#include "shared/host_log.h"
#include "shared/messages.h"
#include "shared/secure_token.h"

namespace vela::webapid {

namespace {

// PAM children running at once; more attempts wait for the client to retry.
constexpr size_t kMaxConcurrentChecks = 16;
constexpr std::chrono::seconds kSweepInterval(60);

std::string Text(const Json::Value& value) { return value.isString() ? value.asString() : ""; }

}  // namespace

AuthService::AuthService(const HostConfig& config, Reply reply)
    : config_(config),
      reply_(std::move(reply)),
      sessions_(std::chrono::seconds(config.sessionIdleTimeout), std::chrono::seconds(config.sessionMaxAge),
                static_cast<size_t>(config.maxSessions)),
      limiter_(config.loginMaxFailures, std::chrono::seconds(config.loginFailureWindow),
               std::chrono::seconds(config.loginMaxDelay), config.loginMaxPendingPerAddress),
      devices_(config.stateDir),
      fingerprintKey_(NewToken()),
      nextSweep_(Clock::now() + kSweepInterval) {}

Json::Value AuthService::Answer(const Json::Value& id, int code) const {
  Json::Value answer;
  answer[msg::kId] = id;
  answer[msg::kCode] = code;
  return answer;
}

void AuthService::OnMessage(uint64_t channel, const Json::Value& message, std::string& secret) {
  if (Text(message[msg::kOp]) == msg::kLogin) {
    StartLogin(channel, message, secret);
  } else {
    Handle(channel, message, false);
  }
  explicit_bzero(secret.data(), secret.size());
}

void AuthService::Handle(uint64_t channel, const Json::Value& message, bool freshlyChecked) {
  const Json::Value& id = message[msg::kId];
  const std::string op = Text(message[msg::kOp]);
  const std::string sessionId = Text(message[msg::kSessionId]);
  if (op != msg::kSession && op != msg::kCall && op != msg::kLogout) {
    HostLog(LOG_ERR, "unknown request '%s' from a worker", op.c_str());
    reply_(channel, Answer(id, kCodeUnavailable));
    return;
  }
  const Clock::time_point now = Clock::now();
  const Session* session = sessions_.Use(sessionId, now);
  if (op == msg::kLogout) {
    if (session != nullptr && !EqualInConstantTime(Text(message[msg::kCsrf]), session->csrfToken)) {
      reply_(channel, Answer(id, kCodeNotPermitted));
      return;
    }
    sessions_.Remove(sessionId);
    reply_(channel, Answer(id, 0));
    return;
  }
  if (session == nullptr) {
    reply_(channel, Answer(id, kCodeNotLoggedIn));
    return;
  }
  const bool call = op == msg::kCall;
  if (call && !EqualInConstantTime(Text(message[msg::kCsrf]), session->csrfToken)) {
    reply_(channel, Answer(id, kCodeNotPermitted));
    return;
  }
  // The account is checked again when its last check is old, and before
  // any method that may change something.
  UserCheck& check = checks_[session->user];
  const bool stale = now - check.checked >= std::chrono::seconds(config_.sessionRecheckInterval);
  if (!freshlyChecked && (stale || (call && !config_.ReadOnlyMethod(Text(message[msg::kMethod]))))) {
    check.waiting.push_back(Waiting{channel, message});
    if (!check.running) StartAccountCheck(session->user);
    return;
  }
  Json::Value answer = Answer(id, 0);
  answer[msg::kUser] = session->user;
  if (!call) {
    answer[msg::kCsrf] = session->csrfToken;
    reply_(channel, answer);
    return;
  }
  msg::CallGrant grant;
  grant.api = Text(message[msg::kApi]);
  grant.version = message[msg::kVersion].isUInt64() ? message[msg::kVersion].asUInt64() : 0;
  grant.method = Text(message[msg::kMethod]);
  grant.paramsDigest = Text(message[msg::kParamsDigest]);
  grant.user = session->user;
  grant.nonce = nextNonce_++;
  grant.issued = msg::MonotonicSeconds();
  answer[msg::kNonce] = static_cast<Json::UInt64>(grant.nonce);
  answer[msg::kIssued] = static_cast<Json::Int64>(grant.issued);
  answer[msg::kTicket] = msg::SignCall(grant);
  reply_(channel, answer);
}

bool AuthService::StartChild(Pending pending, PamCheckRequest request) {
  if (pending_.size() >= kMaxConcurrentChecks) {
    explicit_bzero(request.password.data(), request.password.size());
    HostLog(LOG_WARNING, "cannot check %s now: %zu PAM checks are running already", pending.user.c_str(),
            pending_.size());
    return false;
  }
  PamCheckChild child;
  try {
    child = StartPamCheck(request);
  } catch (const std::exception& e) {
    explicit_bzero(request.password.data(), request.password.size());
    HostLog(LOG_ERR, "cannot start the PAM check of %s: %s", pending.user.c_str(), e.what());
    return false;
  }
  explicit_bzero(request.password.data(), request.password.size());
  unreaped_.push_back(child.pid);
  pending.pid = child.pid;
  pending.verdict = std::move(child.verdict);
  const int fd = pending.verdict.Get();
  pending_.emplace(fd, std::move(pending));
  return true;
}

void AuthService::StartLogin(uint64_t channel, const Json::Value& message, std::string& password) {
  const Json::Value& id = message[msg::kId];
  const Clock::time_point now = Clock::now();
  const std::string user = Text(message[msg::kUser]);
  LoginLimiter::Attempt attempt{Text(message[msg::kAddress]), user,
                                devices_.Recognise(Text(message[msg::kDevice]), user)};
  PamCheckRequest request{true, fingerprintKey_, config_.pamService, config_.adminGroup, user, "", attempt.address};
  // Its one copy here is wiped after the fork, the message's by the caller.
  request.password = password;
  const LoginLimiter::Decision decision = limiter_.Check(attempt, now);
  if (!decision.allowed) {
    explicit_bzero(request.password.data(), request.password.size());
    HostLog(LOG_WARNING, "login of %s from %s refused for %d s: %s", user.c_str(), attempt.address.c_str(),
            decision.retryAfter, decision.why.c_str());
    Json::Value answer = Answer(id, kCodeTooManyAttempts);
    answer[msg::kRetryAfter] = decision.retryAfter;
    reply_(channel, answer);
    return;
  }
  Pending pending{true, channel, id, attempt, user, -1, UniqueFd(), now,
                  now + std::chrono::seconds(config_.loginTimeout)};
  if (!StartChild(std::move(pending), std::move(request))) {
    reply_(channel, Answer(id, kCodeUnavailable));
    return;
  }
  limiter_.Begin(attempt);
}

void AuthService::FinishLogin(Pending& login, const PamVerdict& verdict) {
  const Clock::time_point now = Clock::now();
  // Not an administrator, or an account that may not log in now, is
  // answered as a wrong password: the answer must not confirm a password.
  const bool failed = verdict.code == kCodeLoginFailed || verdict.code == kCodeNotPermitted;
  limiter_.End(login.attempt, verdict.code != kCodeUnavailable, failed, now);
  const char* user = login.user.c_str();
  const char* address = login.attempt.address.c_str();
  if (verdict.code == 0) {
    std::string sessionId;
    const Session& session = sessions_.Create(verdict.user, verdict.fingerprint, now, sessionId);
    checks_[verdict.user].checked = now;
    HostLog(LOG_INFO, "%s logged in from %s", session.user.c_str(), address);
    Json::Value answer = Answer(login.id, 0);
    answer[msg::kSessionId] = sessionId;
    answer[msg::kCsrf] = session.csrfToken;
    answer[msg::kUser] = session.user;
    answer[msg::kDevice] = devices_.Issue(session.user);
    reply_(login.channel, answer);
  } else if (failed) {
    HostLog(LOG_NOTICE, "login of %s from %s failed: %s", user, address, verdict.why.c_str());
    delayed_.emplace(login.started + std::chrono::milliseconds(config_.loginFailureDelayMs),
                     DelayedAnswer{login.channel, Answer(login.id, kCodeLoginFailed)});
  } else {
    HostLog(LOG_ERR, "login of %s from %s not checked: %s", user, address, verdict.why.c_str());
    reply_(login.channel, Answer(login.id, verdict.code));
  }
}

void AuthService::StartAccountCheck(const std::string& user) {
  const Clock::time_point now = Clock::now();
  Pending pending{false, 0, Json::Value(), {}, user, -1, UniqueFd(), now,
                  now + std::chrono::seconds(config_.loginTimeout)};
  PamCheckRequest request{false, fingerprintKey_, config_.pamService, config_.adminGroup, user, "", ""};
  UserCheck& check = checks_[user];
  if (StartChild(std::move(pending), std::move(request))) {
    check.running = true;
    return;
  }
  for (const Waiting& waiting : check.waiting) reply_(waiting.channel, Answer(waiting.message[msg::kId], kCodeUnavailable));
  check.waiting.clear();
}

void AuthService::FinishAccountCheck(const std::string& user, const PamVerdict& verdict) {
  UserCheck& check = checks_[user];
  check.running = false;
  std::vector<Waiting> waiting = std::move(check.waiting);
  check.waiting.clear();
  if (verdict.code == kCodeUnavailable) {
    HostLog(LOG_ERR, "the account of %s could not be checked: %s", user.c_str(), verdict.why.c_str());
    for (const Waiting& w : waiting) reply_(w.channel, Answer(w.message[msg::kId], kCodeUnavailable));
    return;
  }
  check.checked = Clock::now();
  if (verdict.code != 0) {
    const size_t ended = sessions_.EndUser(user);
    HostLog(LOG_NOTICE, "ended %zu sessions of %s: %s", ended, user.c_str(), verdict.why.c_str());
  } else if (const size_t ended = sessions_.EndUser(user, &verdict.fingerprint)) {
    HostLog(LOG_NOTICE, "ended %zu sessions of %s: the password changed", ended, user.c_str());
  }
  for (const Waiting& w : waiting) Handle(w.channel, w.message, true);
}

std::vector<int> AuthService::VerdictFds() const {
  std::vector<int> fds;
  for (const auto& entry : pending_) fds.push_back(entry.first);
  return fds;
}

void AuthService::OnVerdictReadable(int fd) {
  const auto it = pending_.find(fd);
  if (it == pending_.end()) return;
  Pending pending = std::move(it->second);
  pending_.erase(it);
  const PamVerdict verdict = ReadPamVerdict(fd);
  if (pending.login) {
    FinishLogin(pending, verdict);
  } else {
    FinishAccountCheck(pending.user, verdict);
  }
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
  for (auto it = pending_.begin(); it != pending_.end();) {
    if (it->second.deadline > now) {
      ++it;
      continue;
    }
    Pending pending = std::move(it->second);
    it = pending_.erase(it);
    // Still unreaped, so the ID is still our child's.
    if (std::find(unreaped_.begin(), unreaped_.end(), pending.pid) != unreaped_.end()) kill(pending.pid, SIGKILL);
    const PamVerdict late{kCodeUnavailable, "", "", "PAM took longer than " + std::to_string(config_.loginTimeout) + " s"};
    if (pending.login) {
      FinishLogin(pending, late);
    } else {
      FinishAccountCheck(pending.user, late);
    }
  }
  if (now >= nextSweep_) {
    sessions_.Sweep(now);
    limiter_.Sweep(now);
    for (auto it = checks_.begin(); it != checks_.end();) {
      const bool idle = !it->second.running && now - it->second.checked >= std::chrono::seconds(config_.sessionMaxAge);
      it = idle ? checks_.erase(it) : std::next(it);
    }
    nextSweep_ = now + kSweepInterval;
  }
}

Clock::time_point AuthService::NextTimer() const {
  Clock::time_point next = nextSweep_;
  if (!delayed_.empty()) next = std::min(next, delayed_.begin()->first);
  for (const auto& entry : pending_) next = std::min(next, entry.second.deadline);
  return next;
}

void AuthService::KillChecks() {
  for (const auto& entry : pending_) {
    if (std::find(unreaped_.begin(), unreaped_.end(), entry.second.pid) != unreaped_.end()) {
      kill(entry.second.pid, SIGKILL);
    }
  }
  pending_.clear();
  delayed_.clear();
}

void AuthService::Forget() {
  sessions_ = SessionStore(std::chrono::seconds(config_.sessionIdleTimeout),
                           std::chrono::seconds(config_.sessionMaxAge), static_cast<size_t>(config_.maxSessions));
  for (auto& entry : pending_) entry.second.verdict.Release();  // the master's descriptors: closed elsewhere
  pending_.clear();
  checks_.clear();
  delayed_.clear();
  unreaped_.clear();
  devices_.Wipe();
  explicit_bzero(fingerprintKey_.data(), fingerprintKey_.size());
}

}  // namespace vela::webapid
