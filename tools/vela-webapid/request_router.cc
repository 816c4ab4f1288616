#include "request_router.h"

#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "host_codes.h"
#include "base/json_text.h"
#include "secure_token.h"

namespace vela::webapid {

namespace {

constexpr size_t kMaxUserBytes = 256;
constexpr size_t kMaxPasswordBytes = 1024;

bool StartsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

HttpResponse Envelope(std::string text, unsigned status = 200) {
  HttpResponse response;
  response.status = status;
  response.body = std::move(text);
  return response;
}

// "success" first, as clients of the web API expect to read it.
HttpResponse Success(const Json::Value& data) {
  return Envelope("{\"success\":true,\"data\":" + vela::base::CompactJson(data) + "}");
}

HttpResponse Error(int code) {
  return Envelope("{\"success\":false,\"error\":{\"code\":" + std::to_string(code) + "}}",
                  code == kCodeTooLarge ? 413 : 200);
}

HttpResponse Plain(unsigned status, const char* text) {
  HttpResponse response;
  response.status = status;
  response.contentType = "text/plain; charset=utf-8";
  response.body = text;
  return response;
}

RouteStep Answer(HttpResponse response) {
  RouteStep step;
  step.response = std::move(response);
  return step;
}

RouteStep MethodNotAllowed(const char* allowed) {
  HttpResponse response = Plain(405, "method not allowed\n");
  response.headers.emplace_back("Allow", allowed);
  return Answer(std::move(response));
}

int AnswerCode(const HttpRequest& request) {
  const Json::Value& code = request.masterAnswer["code"];
  return code.isInt() ? code.asInt() : kCodeUnavailable;
}

bool SplitApiPath(const std::string& path, std::string& api, unsigned long& version, std::string& method) {
  const std::string rest = path.substr(strlen("/api/"));
  const auto first = rest.find('/');
  if (first == std::string::npos) return false;
  const auto second = rest.find('/', first + 1);
  if (second == std::string::npos || rest.find('/', second + 1) != std::string::npos) return false;
  api = rest.substr(0, first);
  const std::string versionText = rest.substr(first + 1, second - first - 1);
  method = rest.substr(second + 1);
  if (api.empty() || method.empty() || versionText.empty() || versionText.size() > 9 ||
      versionText.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  version = strtoul(versionText.c_str(), nullptr, 10);
  return true;
}

}  // namespace

RequestRouter::RequestRouter(const HostConfig& config, const StaticFiles& files, const ModuleRegistry& modules,
                             const ServiceAccount& account)
    : config_(config), files_(files), modules_(modules), account_(account) {}

RouteStep RequestRouter::Route(HttpRequest& request) {
  RouteStep step;
  const bool api = StartsWith(request.path, "/api/");
  if (!api && !StartsWith(request.path, "/auth/")) {
    step.response = Static(request);
  } else if (request.path == "/auth/session") {
    step = request.method == "GET" ? SessionInfo(request) : MethodNotAllowed("GET");
  } else if (request.method != "POST") {
    step = MethodNotAllowed("POST");
  } else if (request.bodyTooLarge) {
    step = Answer(Error(kCodeTooLarge));
  } else if (!OriginAllowed(request)) {
    step = Answer(Error(kCodeNotPermitted));
  } else if (request.path == "/auth/login") {
    step = Login(request);
  } else if (request.path == "/auth/logout") {
    step = Logout(request);
  } else if (api) {
    step = CallModule(request);
  } else {
    step = Answer(Plain(404, "not found\n"));
  }
  if (!step.ask) step.response = Finish(std::move(step.response));
  return step;
}

bool RequestRouter::OriginAllowed(const HttpRequest& request) const {
  // Browsers name the page's origin on every POST; other clients send
  // none, and still need the session cookie and the CSRF token.
  const std::string origin = request.Header("Origin");
  if (origin.empty()) return true;
  const std::string own = (config_.Tls() ? "https://" : "http://") + request.Header("Host");
  return origin == own ||
         std::find(config_.allowedOrigins.begin(), config_.allowedOrigins.end(), origin) !=
             config_.allowedOrigins.end();
}

RouteStep RequestRouter::AskAboutSession(const HttpRequest& request, const char* op) const {
  const std::string session = request.Cookie(kSessionCookie);
  if (!IsToken(session)) return Answer(Error(kCodeNotLoggedIn));
  RouteStep step;
  step.ask = true;
  step.query["op"] = op;
  step.query["session"] = session;
  return step;
}

RouteStep RequestRouter::Login(HttpRequest& request) {
  if (!request.answered) {
    Json::Value body;
    const bool wellFormed = vela::base::ParseJsonObject(request.body, body) && body["user"].isString() &&
                            body["password"].isString();
    explicit_bzero(request.body.data(), request.body.size());
    if (!wellFormed) return Answer(Error(kCodeMalformedBody));
    const std::string user = body["user"].asString();
    if (user.empty() || user.size() > kMaxUserBytes || body["password"].asString().size() > kMaxPasswordBytes ||
        std::any_of(user.begin(), user.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; })) {
      return Answer(Error(kCodeMalformedBody));
    }
    RouteStep step;
    step.ask = true;
    step.query["op"] = "login";
    step.query["user"] = user;
    step.query["password"] = body["password"];
    step.query["address"] = request.clientAddress;
    return step;
  }
  const int code = AnswerCode(request);
  if (code != 0) return Answer(Error(code));
  Json::Value data;
  data["user"] = request.masterAnswer["user"];
  data["csrf_token"] = request.masterAnswer["csrf"];
  HttpResponse response = Success(data);
  const bool secure = config_.Tls() || config_.secureCookie;
  response.headers.emplace_back("Set-Cookie", std::string(kSessionCookie) + "=" +
                                                  request.masterAnswer["session"].asString() +
                                                  "; Path=/; HttpOnly; SameSite=Strict" + (secure ? "; Secure" : ""));
  return Answer(std::move(response));
}

RouteStep RequestRouter::Logout(HttpRequest& request) {
  if (!request.answered) {
    RouteStep step = AskAboutSession(request, "logout");
    if (step.ask) step.query["csrf"] = request.Header(kCsrfHeader);
    return step;
  }
  const int code = AnswerCode(request);
  if (code != 0) return Answer(Error(code));
  HttpResponse response = Success(Json::Value());
  response.headers.emplace_back("Set-Cookie", std::string(kSessionCookie) +
                                                  "=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0");
  return Answer(std::move(response));
}

RouteStep RequestRouter::SessionInfo(HttpRequest& request) {
  if (!request.answered) return AskAboutSession(request, "session");
  const int code = AnswerCode(request);
  if (code != 0) return Answer(Error(code));
  Json::Value data;
  data["user"] = request.masterAnswer["user"];
  data["csrf_token"] = request.masterAnswer["csrf"];
  return Answer(Success(data));
}

RouteStep RequestRouter::CallModule(HttpRequest& request) {
  if (!request.answered) return AskAboutSession(request, "session");
  const int code = AnswerCode(request);
  if (code != 0) return Answer(Error(code));
  if (!EqualInConstantTime(request.Header(kCsrfHeader), request.masterAnswer["csrf"].asString())) {
    return Answer(Error(kCodeNotPermitted));
  }
  std::string api;
  std::string method;
  unsigned long version = 0;
  if (!SplitApiPath(request.path, api, version, method)) return Answer(Error(kCodeUnknownApi));
  Json::Value params(Json::objectValue);
  if (!request.body.empty() && !vela::base::ParseJsonObject(request.body, params)) return Answer(Error(kCodeMalformedBody));
  VELA_WEBAPI_HANDLER handler = nullptr;
  switch (modules_.Find(api, version, method, handler)) {
    case ModuleRegistry::Lookup::kUnknownApi: return Answer(Error(kCodeUnknownApi));
    case ModuleRegistry::Lookup::kUnknownVersion: return Answer(Error(kCodeUnknownVersion));
    case ModuleRegistry::Lookup::kUnknownMethod: return Answer(Error(kCodeUnknownMethod));
    case ModuleRegistry::Lookup::kFound: break;
  }
  if (poisoned_) return Answer(Error(kCodeUnavailable));

  VELA::APIRequest apiRequest(params);
  VELA::APIResponse apiResponse;
  try {
    handler(&apiRequest, &apiResponse);
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "%s %lu %s failed: %s", api.c_str(), version, method.c_str(), e.what());
    apiResponse.SetError(kCodeHandlerFailed);
  } catch (...) {
    syslog(LOG_ERR, "%s %lu %s failed with an unknown exception", api.c_str(), version, method.c_str());
    apiResponse.SetError(kCodeHandlerFailed);
  }
  if (!apiResponse.IsAnswered()) apiResponse.SetError(kCodeHandlerFailed);
  if (!RestoreServiceAccount(account_)) {
    syslog(LOG_CRIT, "after %s %lu %s the worker cannot return to the ids of %s; it stops", api.c_str(), version,
           method.c_str(), account_.name.c_str());
    poisoned_ = true;
  }
  return Answer(apiResponse.IsSuccess() ? Success(apiResponse.GetData()) : Error(apiResponse.GetErrorCode()));
}

HttpResponse RequestRouter::Static(const HttpRequest& request) const {
  if (request.method != "GET" && request.method != "HEAD") return MethodNotAllowed("GET, HEAD").response;
  const StaticFile* file = files_.Find(request.path);
  if (file == nullptr) return Plain(404, "not found\n");
  HttpResponse response;
  response.contentType = file->contentType;
  response.staticBody = &file->content;
  return response;
}

HttpResponse RequestRouter::Finish(HttpResponse response) const {
  auto& h = response.headers;
  h.emplace_back("Content-Type", response.contentType);
  h.emplace_back("Cache-Control", response.staticBody != nullptr ? "no-cache" : "no-store");
  h.emplace_back("X-Content-Type-Options", "nosniff");
  h.emplace_back("X-Frame-Options", "DENY");
  h.emplace_back("Referrer-Policy", "no-referrer");
  h.emplace_back("Content-Security-Policy",
                 "default-src 'self'; img-src 'self' data:; base-uri 'none'; form-action 'none'; "
                 "frame-ancestors 'none'");
  if (stopping_) h.emplace_back("Connection", "close");
  return response;
}

}  // namespace vela::webapid
