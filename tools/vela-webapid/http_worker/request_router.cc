#include "http_worker/request_router.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "base/json_text.h"
#include "shared/host_codes.h"
#include "shared/messages.h"
#include "shared/secure_token.h"
#include "vela/webapi_envelope.h"

namespace vela::webapid {

namespace {

constexpr size_t kMaxUserBytes = 256;
constexpr size_t kMaxPasswordBytes = 1024;
// A browser keeps its device cookie this long after its last login.
constexpr int kDeviceCookieSeconds = 400 * 86400;

bool StartsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return s;
}

// The name of "NAME:PORT", "[V6]:PORT", "NAME" or "http://NAME:PORT",
// lower case, without a final dot.
std::string HostName(std::string text) {
  const auto scheme = text.find("://");
  if (scheme != std::string::npos) text = text.substr(scheme + 3);
  text = text.substr(0, text.find('/'));
  if (!text.empty() && text[0] == '[') {
    text = text.substr(1, text.find(']') == std::string::npos ? std::string::npos : text.find(']') - 1);
  } else if (std::count(text.begin(), text.end(), ':') == 1) {
    text.resize(text.find(':'));
  }
  if (!text.empty() && text.back() == '.') text.pop_back();
  return Lower(text);
}

HttpResponse Envelope(std::string text, unsigned status = 200) {
  HttpResponse response;
  response.status = status;
  response.body = std::move(text);
  return response;
}

HttpResponse Success(const Json::Value& data) {
  VELA::APIResponse answer;
  answer.SetSuccess(data);
  return Envelope(VELA::WriteAPIEnvelope(answer));
}

HttpResponse Error(int code, const Json::Value& errors = Json::Value()) {
  return Envelope(VELA::WriteAPIErrorEnvelope(code, errors), code == kCodeTooLarge ? 413 : 200);
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
  const Json::Value& code = request.masterAnswer[msg::kCode];
  return code.isInt() ? code.asInt() : kCodeUnavailable;
}

// Wipes the text of a JSON string in place: it held a password.
void WipeJsonString(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (value.isString() && value.getString(&begin, &end)) {
    explicit_bzero(const_cast<char*>(begin), static_cast<size_t>(end - begin));
  }
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

RequestRouter::RequestRouter(const HostConfig& config, const StaticFiles& files, const std::string& boundAddress)
    : config_(config), files_(files), secure_(config.Tls() || config.secureCookie) {
  // Under a secure cookie the "__Host-" prefix makes browsers refuse it
  // from anywhere but this very host over HTTPS.
  sessionCookie_ = std::string(secure_ ? "__Host-" : "") + "vela_session";
  deviceCookie_ = std::string(secure_ ? "__Host-" : "") + "vela_device";
  const std::string listenName = HostName(boundAddress);
  hostNames_ = {"localhost", listenName};
  char name[256] = "";
  if (gethostname(name, sizeof(name) - 1) == 0 && name[0] != '\0') {
    hostNames_.insert(HostName(name));
    hostNames_.insert(HostName(std::string(name).substr(0, std::string(name).find('.'))));
  }
  // Listening on every address: each of the machine's addresses is a name.
  if (listenName == "0.0.0.0" || listenName == "::") {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) == 0) {
      for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        char text[INET6_ADDRSTRLEN] = "";
        if (entry->ifa_addr == nullptr) continue;
        if (entry->ifa_addr->sa_family == AF_INET) {
          inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr, text, sizeof(text));
        } else if (entry->ifa_addr->sa_family == AF_INET6) {
          inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr, text, sizeof(text));
        }
        if (text[0] != '\0') hostNames_.insert(text);
      }
      freeifaddrs(list);
    }
  }
  for (const std::string& host : config.allowedHosts) hostNames_.insert(HostName(host));
  for (const std::string& origin : config.allowedOrigins) hostNames_.insert(HostName(origin));
}

bool RequestRouter::HostAllowed(const HttpRequest& request) const {
  const std::string host = request.Header("Host");
  // Browsers always name the host; a client that names none was not sent
  // here by a name.
  return host.empty() || hostNames_.count(HostName(host)) != 0;
}

RouteStep RequestRouter::Route(HttpRequest& request) {
  RouteStep step;
  const bool api = StartsWith(request.path, "/api/");
  if (!HostAllowed(request)) {
    step = Answer(Plain(421, "this host does not answer to that name\n"));
  } else if (!api && !StartsWith(request.path, "/auth/")) {
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
  if (step.kind == RouteStep::Kind::kRespond) step.response = Finish(std::move(step.response));
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
  const std::string session = request.Cookie(sessionCookie_.c_str());
  if (!IsToken(session)) return Answer(Error(kCodeNotLoggedIn));
  RouteStep step;
  step.kind = RouteStep::Kind::kAskMaster;
  step.query[msg::kOp] = op;
  step.query[msg::kSessionId] = session;
  return step;
}

HttpResponse RequestRouter::MasterRefusal(const HttpRequest& request) const {
  const int code = AnswerCode(request);
  const Json::Value& retryAfter = request.masterAnswer[msg::kRetryAfter];
  if (!retryAfter.isInt()) return Error(code);
  Json::Value errors;
  errors[msg::kRetryAfter] = retryAfter;
  HttpResponse response = Error(code, errors);
  response.headers.emplace_back("Retry-After", std::to_string(retryAfter.asInt()));
  return response;
}

std::string RequestRouter::CookieAttributes() const {
  return std::string("; Path=/; HttpOnly; SameSite=Strict") + (secure_ ? "; Secure" : "");
}

RouteStep RequestRouter::Login(HttpRequest& request) {
  if (!request.answered) {
    Json::Value body;
    const bool wellFormed = vela::base::ParseJsonObject(request.body, body) && body["user"].isString() &&
                            body["password"].isString();
    explicit_bzero(request.body.data(), request.body.size());
    if (!wellFormed) return Answer(Error(kCodeMalformedBody));
    const std::string user = body["user"].asString();
    const Json::Value& password = body["password"];
    const char* begin = nullptr;
    const char* end = nullptr;
    password.getString(&begin, &end);
    const size_t passwordBytes = static_cast<size_t>(end - begin);
    if (user.empty() || user.size() > kMaxUserBytes || passwordBytes > kMaxPasswordBytes ||
        std::any_of(user.begin(), user.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; })) {
      WipeJsonString(password);
      return Answer(Error(kCodeMalformedBody));
    }
    RouteStep step;
    step.kind = RouteStep::Kind::kAskMaster;
    step.query[msg::kOp] = msg::kLogin;
    step.query[msg::kUser] = user;
    step.query[msg::kAddress] = request.clientAddress;
    step.query[msg::kDevice] = request.Cookie(deviceCookie_.c_str());
    step.secret.assign(begin, end);
    WipeJsonString(password);
    return step;
  }
  if (AnswerCode(request) != 0) return Answer(MasterRefusal(request));
  HttpResponse response = Success(SessionData(request));
  response.headers.emplace_back("Set-Cookie", sessionCookie_ + "=" + request.masterAnswer[msg::kSessionId].asString() +
                                                  CookieAttributes());
  response.headers.emplace_back("Set-Cookie", deviceCookie_ + "=" + request.masterAnswer[msg::kDevice].asString() +
                                                  CookieAttributes() + "; Max-Age=" +
                                                  std::to_string(kDeviceCookieSeconds));
  return Answer(std::move(response));
}

// What the page needs of a session: who, the token for its calls, and how
// long it lasts, so that it can tell the user why it ended.
Json::Value RequestRouter::SessionData(const HttpRequest& request) const {
  Json::Value data;
  data["user"] = request.masterAnswer[msg::kUser];
  data["csrf_token"] = request.masterAnswer[msg::kCsrf];
  data["session_idle_timeout"] = config_.sessionIdleTimeout;
  data["session_max_age"] = config_.sessionMaxAge;
  return data;
}

RouteStep RequestRouter::Logout(HttpRequest& request) {
  if (!request.answered) {
    RouteStep step = AskAboutSession(request, msg::kLogout);
    if (step.kind == RouteStep::Kind::kAskMaster) step.query[msg::kCsrf] = request.Header(kCsrfHeader);
    return step;
  }
  const int code = AnswerCode(request);
  if (code != 0) return Answer(Error(code));
  ++loggedIn_;
  HttpResponse response = Success(Json::Value());
  response.headers.emplace_back("Set-Cookie", sessionCookie_ + "=" + CookieAttributes() + "; Max-Age=0");
  return Answer(std::move(response));
}

RouteStep RequestRouter::SessionInfo(HttpRequest& request) {
  if (!request.answered) return AskAboutSession(request, msg::kSession);
  const int code = AnswerCode(request);
  if (code != 0) return Answer(Error(code));
  ++loggedIn_;
  return Answer(Success(SessionData(request)));
}

RouteStep RequestRouter::CallModule(HttpRequest& request) {
  std::string api;
  std::string method;
  unsigned long version = 0;
  if (request.executed) {
    // The executor wrote the envelope; it goes out as it is.
    ++loggedIn_;
    return Answer(Envelope(std::move(request.executorAnswer)));
  }
  if (!SplitApiPath(request.path, api, version, method)) return Answer(Error(kCodeUnknownApi));
  if (request.body.empty()) request.body = "{}";
  if (!request.answered) {
    Json::Value params;
    if (!vela::base::ParseJsonObject(request.body, params)) return Answer(Error(kCodeMalformedBody));
    RouteStep step = AskAboutSession(request, msg::kCall);
    if (step.kind != RouteStep::Kind::kAskMaster) return step;
    const std::string digest = Sha256(request.body);
    step.query[msg::kCsrf] = request.Header(kCsrfHeader);
    step.query[msg::kApi] = api;
    step.query[msg::kVersion] = static_cast<Json::UInt64>(version);
    step.query[msg::kMethod] = method;
    step.query[msg::kParamsDigest] = Hex(reinterpret_cast<const unsigned char*>(digest.data()), digest.size());
    return step;
  }
  if (AnswerCode(request) != 0) return Answer(MasterRefusal(request));
  Json::Value call;
  call[msg::kApi] = api;
  call[msg::kVersion] = static_cast<Json::UInt64>(version);
  call[msg::kMethod] = method;
  call[msg::kParams] = request.body;
  for (const char* field : {msg::kUser, msg::kNonce, msg::kIssued, msg::kTicket}) {
    call[field] = request.masterAnswer[field];
  }
  RouteStep step;
  step.kind = RouteStep::Kind::kExecute;
  step.call = vela::base::CompactJson(call);
  return step;
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
  if (config_.Tls()) h.emplace_back("Strict-Transport-Security", "max-age=31536000");
  if (stopping_) h.emplace_back("Connection", "close");
  return response;
}

}  // namespace vela::webapid
