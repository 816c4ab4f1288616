#include "executor/executor.h"

#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <exception>
#include <string>
#include <unordered_map>

#include "base/json_text.h"
#include "shared/frame_stream.h"
#include "shared/host_codes.h"
#include "shared/host_log.h"
#include "shared/messages.h"
#include "shared/secure_token.h"
#include "vela/webapi_envelope.h"
#include "vela/webapi_modules.h"

namespace vela::webapid {

namespace {

// Tickets seen lately, so that none is used twice.
class NonceRegister {
 public:
  bool Fresh(uint64_t nonce, int64_t issued, int64_t now) {
    if (now - issued > msg::kTicketLifetimeSeconds || issued > now) return false;
    if (now != lastPrune_) {
      for (auto it = seen_.begin(); it != seen_.end();) {
        it = now - it->second > msg::kTicketLifetimeSeconds ? seen_.erase(it) : std::next(it);
      }
      lastPrune_ = now;
    }
    return seen_.emplace(nonce, issued).second;
  }

 private:
  std::unordered_map<uint64_t, int64_t> seen_;
  int64_t lastPrune_ = 0;
};

bool ReadGrant(const Json::Value& call, msg::CallGrant& grant, std::string& params) {
  if (!call[msg::kApi].isString() || !call[msg::kVersion].isUInt64() || !call[msg::kMethod].isString() ||
      !call[msg::kParams].isString() || !call[msg::kUser].isString() || !call[msg::kNonce].isUInt64() ||
      !call[msg::kIssued].isInt64() || !call[msg::kTicket].isString()) {
    return false;
  }
  params = call[msg::kParams].asString();
  grant.api = call[msg::kApi].asString();
  grant.version = call[msg::kVersion].asUInt64();
  grant.method = call[msg::kMethod].asString();
  grant.user = call[msg::kUser].asString();
  grant.nonce = call[msg::kNonce].asUInt64();
  grant.issued = call[msg::kIssued].asInt64();
  const std::string digest = Sha256(params);
  grant.paramsDigest = Hex(reinterpret_cast<const unsigned char*>(digest.data()), digest.size());
  return EqualInConstantTime(msg::SignCall(grant), call[msg::kTicket].asString());
}

int Serve(const ExecutorSetup& setup) {
  BecomeExecutor(setup.account);
  if (!FollowMaster(setup.master)) return kExecutorDone;
  // Calculations the modules fork inherit the mask: nothing stays blocked.
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_IGN);

  VELA::APIModules modules;
  std::vector<std::string> skipped;
  std::string error;
  if (!modules.LoadDirectory(setup.config->modulesDir, skipped, error)) {
    HostLog(LOG_ERR, "no web API modules loaded from %s: %s", setup.config->modulesDir.c_str(), error.c_str());
  }
  for (const std::string& line : skipped) HostLog(LOG_ERR, "skipping web API module %s", line.c_str());
  HostLog(LOG_INFO, "executor %d runs module calls as %s with %zu web API modules", getpid(),
          setup.account.name.c_str(), modules.Count());

  NonceRegister nonces;
  std::string frame;
  while (ReadFrame(setup.linkFd, frame)) {
    Json::Value call;
    msg::CallGrant grant;
    std::string params;
    if (!vela::base::ParseJsonObject(frame, call) || !ReadGrant(call, grant, params) ||
        !nonces.Fresh(grant.nonce, grant.issued, msg::MonotonicSeconds())) {
      HostLog(LOG_CRIT, "executor %d was sent a call without a good ticket; it stops", getpid());
      return kExecutorRefused;
    }
    std::string answer;
    VELA_WEBAPI_HANDLER handler = nullptr;
    Json::Value paramsValue(Json::objectValue);
    if (!params.empty() && !vela::base::ParseJsonObject(params, paramsValue)) {
      answer = VELA::WriteAPIErrorEnvelope(kCodeMalformedBody);
    } else {
      switch (modules.Find(grant.api, grant.version, grant.method, handler)) {
        case VELA::APIModules::Lookup::kUnknownApi: answer = VELA::WriteAPIErrorEnvelope(kCodeUnknownApi); break;
        case VELA::APIModules::Lookup::kUnknownVersion: answer = VELA::WriteAPIErrorEnvelope(kCodeUnknownVersion); break;
        case VELA::APIModules::Lookup::kUnknownMethod: answer = VELA::WriteAPIErrorEnvelope(kCodeUnknownMethod); break;
        case VELA::APIModules::Lookup::kFound: break;
      }
    }
    bool poisoned = false;
    bool masterGone = false;
    if (handler != nullptr) {
      VELA::APIRequest request(std::move(paramsValue));
      request.SetLoginUser(grant.user);
      VELA::APIResponse response;
      std::string failure;
      VELA::CallAPIHandler(handler, request, response, &failure);
      if (!failure.empty()) {
        HostLog(LOG_ERR, "%s %lu %s of %s failed: %s", grant.api.c_str(), static_cast<unsigned long>(grant.version),
                grant.method.c_str(), grant.user.c_str(), failure.c_str());
      }
      answer = VELA::WriteAPIEnvelope(response);
      if (!RestoreExecutorIds(setup.account)) {
        HostLog(LOG_CRIT, "after %s %lu %s the executor cannot return to the ids of %s; it stops", grant.api.c_str(),
                static_cast<unsigned long>(grant.version), grant.method.c_str(), setup.account.name.c_str());
        poisoned = true;
      }
      // Renewed each time: every switch of ids by a module clears it.
      masterGone = !FollowMaster(setup.master);
    }
    if (!WriteFrame(setup.linkFd, answer)) return kExecutorDone;
    if (poisoned) return kExecutorPoisoned;
    if (masterGone) return kExecutorDone;
  }
  return kExecutorDone;
}

}  // namespace

void RunExecutor(const ExecutorSetup& setup) {
  int status = kExecutorCannotStart;
  try {
    status = Serve(setup);
  } catch (const std::exception& e) {
    HostLog(LOG_ERR, "executor %d cannot serve: %s", getpid(), e.what());
  }
  // No exit handlers: they belong to the master this process was forked from.
  _exit(status);
}

}  // namespace vela::webapid
