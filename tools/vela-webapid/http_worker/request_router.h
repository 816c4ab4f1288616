// What the host answers to each request of a worker:
//
//   GET  /, /<file>                    the administrator's page
//   POST /auth/login                   {"user","password"}: a session cookie and the CSRF token
//   GET  /auth/session                 the session's user and CSRF token (after a reload)
//   POST /auth/logout                  ends the session
//   POST /api/<API>/<VERSION>/<METHOD> a module's method, the body being its parameters
//
// A request for a host name the host does not answer to is refused before
// anything else, so a page whose name was made to point at this machine
// cannot talk to it. Every answer under /auth and /api is the web API's
// envelope; the calls that need a session also need the session's CSRF
// token in the X-Vela-CSRF header, and a browser's Origin must be the
// host's own (or a configured one). Module calls go to the executor only
// with the master's ticket.
#ifndef VELA_WEBAPID_HTTP_WORKER_REQUEST_ROUTER_H_
#define VELA_WEBAPID_HTTP_WORKER_REQUEST_ROUTER_H_

#include <set>
#include <string>

#include "http_worker/http_exchange.h"
#include "shared/host_config.h"
#include "shared/static_files.h"

namespace vela::webapid {

inline constexpr char kCsrfHeader[] = "X-Vela-CSRF";

class RequestRouter {
 public:
  // `boundAddress` is the address the listening socket has (ADDRESS:PORT).
  RequestRouter(const HostConfig& config, const StaticFiles& files, const std::string& boundAddress);

  // Whether the request's Host names this host.
  bool HostAllowed(const HttpRequest& request) const;
  // Asked once when a request is complete, and again after each answer of
  // the master or the executor that an earlier step asked for.
  RouteStep Route(HttpRequest& request);
  // From now on answers ask clients to close their connections.
  void SetStopping() { stopping_ = true; }
  // Requests of logged-in users answered so far: what wears a worker out.
  long LoggedInRequests() const { return loggedIn_; }

 private:
  RouteStep Login(HttpRequest& request);
  RouteStep Logout(HttpRequest& request);
  RouteStep SessionInfo(HttpRequest& request);
  Json::Value SessionData(const HttpRequest& request) const;
  RouteStep CallModule(HttpRequest& request);
  HttpResponse Static(const HttpRequest& request) const;
  bool OriginAllowed(const HttpRequest& request) const;
  // The session ID of the cookie, and a question for the master about it.
  RouteStep AskAboutSession(const HttpRequest& request, const char* op) const;
  HttpResponse MasterRefusal(const HttpRequest& request) const;
  HttpResponse Finish(HttpResponse response) const;
  std::string CookieAttributes() const;

  const HostConfig& config_;
  const StaticFiles& files_;
  std::set<std::string> hostNames_;  // lower case, without a port
  std::string sessionCookie_;
  std::string deviceCookie_;
  bool secure_;
  bool stopping_ = false;
  long loggedIn_ = 0;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_HTTP_WORKER_REQUEST_ROUTER_H_
