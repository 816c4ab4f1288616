// What the host answers to each request of a worker:
//
//   GET  /, /<file>                    the administrator's page
//   POST /auth/login                   {"user","password"}: a session cookie and the CSRF token
//   GET  /auth/session                 the session's user and CSRF token (after a reload)
//   POST /auth/logout                  ends the session
//   POST /api/<API>/<VERSION>/<METHOD> a module's method, the body being its parameters
//
// Every answer under /auth and /api is the web API's envelope
// ({"success":true,"data":...} or {"success":false,"error":{"code":N}});
// the calls that need a session also need the session's CSRF token in the
// X-Vela-CSRF header, and a browser's Origin must be the host's own (or a
// configured one).
#ifndef VELA_WEBAPID_REQUEST_ROUTER_H_
#define VELA_WEBAPID_REQUEST_ROUTER_H_

#include <string>

#include "host_config.h"
#include "http_exchange.h"
#include "module_registry.h"
#include "service_account.h"
#include "static_files.h"

namespace vela::webapid {

inline constexpr char kSessionCookie[] = "vela_session";
inline constexpr char kCsrfHeader[] = "X-Vela-CSRF";

class RequestRouter {
 public:
  RequestRouter(const HostConfig& config, const StaticFiles& files, const ModuleRegistry& modules,
                const ServiceAccount& account);

  // Asked once when a request is complete, and once more after the
  // master's answer when the first step asked for one.
  RouteStep Route(HttpRequest& request);
  // From now on answers ask clients to close their connections.
  void SetStopping() { stopping_ = true; }
  // A module left the worker with ids it cannot restore: the worker must
  // not serve another module call.
  bool Poisoned() const { return poisoned_; }

 private:
  RouteStep Login(HttpRequest& request);
  RouteStep Logout(HttpRequest& request);
  RouteStep SessionInfo(HttpRequest& request);
  RouteStep CallModule(HttpRequest& request);
  HttpResponse Static(const HttpRequest& request) const;
  bool OriginAllowed(const HttpRequest& request) const;
  // The session ID of the cookie, and a question for the master about it.
  RouteStep AskAboutSession(const HttpRequest& request, const char* op) const;
  HttpResponse Finish(HttpResponse response) const;

  const HostConfig& config_;
  const StaticFiles& files_;
  const ModuleRegistry& modules_;
  const ServiceAccount& account_;
  bool stopping_ = false;
  bool poisoned_ = false;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_REQUEST_ROUTER_H_
