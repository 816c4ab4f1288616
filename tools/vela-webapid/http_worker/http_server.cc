#include "http_worker/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "shared/host_codes.h"
#include "shared/host_log.h"

namespace vela::webapid {

namespace {

// TLS 1.2 and 1.3 only, with AEAD ciphers and forward-secret key exchange.
constexpr char kTlsPriorities[] =
    "SECURE128:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2:-CIPHER-ALL:+AES-256-GCM:+AES-128-GCM:+CHACHA20-POLY1305:"
    "-MAC-ALL:+AEAD:-KX-ALL:+ECDHE-ECDSA:+ECDHE-RSA";

void LogLibraryMessage(void*, const char* format, va_list ap) {
  // The library tells one event (a client gone mid-request) in several
  // formats, each ending in a newline: all its messages share one budget
  // in the host's log, and each is one line there.
  char text[512];
  vsnprintf(text, sizeof(text), format, ap);
  size_t length = strlen(text);
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) text[--length] = '\0';
  HostLog(LOG_WARNING, "%s", text);
}

std::string Trim(const std::string& s) {
  const auto first = s.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

// The peer's address: raw bytes for the shared table, and as text.
void PeerAddress(int fd, std::string& raw, std::string& text) {
  sockaddr_storage address = {};
  socklen_t length = sizeof(address);
  char printable[INET6_ADDRSTRLEN] = "?";
  raw.clear();
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    if (address.ss_family == AF_INET) {
      const auto* in4 = reinterpret_cast<const sockaddr_in*>(&address);
      inet_ntop(AF_INET, &in4->sin_addr, printable, sizeof(printable));
      raw.assign(reinterpret_cast<const char*>(&in4->sin_addr), sizeof(in4->sin_addr));
    } else if (address.ss_family == AF_INET6) {
      const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&address);
      inet_ntop(AF_INET6, &in6->sin6_addr, printable, sizeof(printable));
      raw.assign(reinterpret_cast<const char*>(&in6->sin6_addr), sizeof(in6->sin6_addr));
    }
  }
  text = printable;
}

}  // namespace

std::string HttpRequest::Header(const char* name) const {
  const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value != nullptr ? value : "";
}

std::string HttpRequest::Cookie(const char* name) const {
  const char* value = MHD_lookup_connection_value(connection, MHD_COOKIE_KIND, name);
  return value != nullptr ? value : "";
}

HttpServer::HttpServer(const HostConfig& config, int listenFd, const std::string& tlsCert, const std::string& tlsKey,
                       RequestRouter& router, ConnectionTable& connections, int slot, Dispatch dispatch,
                       Forget forget)
    : config_(config),
      router_(router),
      connections_(connections),
      slot_(slot),
      dispatch_(std::move(dispatch)),
      forget_(std::move(forget)) {
  unsigned int flags = MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
  // The logger first, so that the library's messages about the other
  // options reach the log too. Limits per address are the shared table's,
  // across all workers; the library's own count only this worker's.
  std::vector<MHD_OptionItem> options = {
      {MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(&LogLibraryMessage), nullptr},
      {MHD_OPTION_LISTEN_SOCKET, listenFd, nullptr},
      {MHD_OPTION_CONNECTION_LIMIT, config.maxConnections, nullptr},
      {MHD_OPTION_CONNECTION_TIMEOUT, config.connectionTimeout, nullptr},
      {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&HttpServer::OnCompleted), this},
      {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&HttpServer::OnConnection), this},
      {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(&HttpServer::OnRequestLine), this},
  };
  if (config.Tls()) {
    if (MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
      throw std::runtime_error("this libmicrohttpd has no TLS support");
    }
    flags |= MHD_USE_TLS;
    options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(tlsCert.c_str())});
    options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(tlsKey.c_str())});
    options.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(kTlsPriorities)});
  }
  options.push_back({MHD_OPTION_END, 0, nullptr});
  daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &HttpServer::OnRequest, this, MHD_OPTION_ARRAY,
                             options.data(), MHD_OPTION_END);
  if (daemon_ == nullptr) throw std::runtime_error("the HTTP server did not start (see the lines before)");
}

HttpServer::~HttpServer() {
  if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
}

int HttpServer::PollFd() const { return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd; }

int HttpServer::TimeoutMs() const {
  MHD_UNSIGNED_LONG_LONG timeout = 0;
  if (MHD_get_timeout(daemon_, &timeout) != MHD_YES) return -1;
  return timeout > INT_MAX ? INT_MAX : static_cast<int>(timeout);
}

void HttpServer::Run() { MHD_run(daemon_); }

unsigned HttpServer::Connections() const {
  return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_CURRENT_CONNECTIONS)->num_connections;
}

void HttpServer::StopAccepting() {
  const MHD_socket fd = MHD_quiesce_daemon(daemon_);
  if (fd != MHD_INVALID_SOCKET) close(fd);  // this worker's copy; the master keeps its own
}

void HttpServer::Resume(HttpRequest* request) {
  request->waiting = false;
  MHD_resume_connection(request->connection);
}

HttpServer::Peer* HttpServer::PeerOf(MHD_Connection* connection) const {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return info != nullptr ? static_cast<Peer*>(info->socket_context) : nullptr;
}

void HttpServer::OnConnection(void* self, MHD_Connection* connection, void** socketState,
                              MHD_ConnectionNotificationCode what) {
  auto* server = static_cast<HttpServer*>(self);
  auto* peer = static_cast<Peer*>(*socketState);
  if (what == MHD_CONNECTION_NOTIFY_STARTED) {
    server->Admit(connection, socketState);
    return;
  }
  if (peer == nullptr) return;
  if (peer->admitted) server->connections_.Release(server->slot_, peer->address, peer->proxy);
  server->peers_.erase(peer);
  delete peer;
  *socketState = nullptr;
}

void HttpServer::Admit(MHD_Connection* connection, void** socketState) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  auto* peer = new Peer{connection, info != nullptr ? info->connect_fd : -1, "", "", false, false, false, false,
                        Clock::now() + std::chrono::seconds(config_.connectionTimeout)};
  *socketState = peer;
  peers_.insert(peer);
  PeerAddress(peer->fd, peer->address, peer->text);
  peer->proxy = std::find(config_.trustedProxies.begin(), config_.trustedProxies.end(), peer->text) !=
                config_.trustedProxies.end();
  const ConnectionTable::Admission admission = connections_.Admit(slot_, peer->address, peer->proxy);
  if (admission == ConnectionTable::Admission::kAdmitted) {
    peer->admitted = true;
    return;
  }
  HostLog(LOG_WARNING, "refused a connection from %s: %s", peer->text.c_str(),
          admission == ConnectionTable::Admission::kAddressFull ? "too many from that address" : "too many connections");
  // Closed under the library, which then drops the connection.
  peer->closing = true;
  shutdown(peer->fd, SHUT_RDWR);
}

void* HttpServer::OnRequestLine(void* self, const char*, MHD_Connection* connection) {
  auto* server = static_cast<HttpServer*>(self);
  if (Peer* peer = server->PeerOf(connection)) {
    peer->deadline = Clock::now() + std::chrono::seconds(server->config_.requestTimeout);
  }
  return nullptr;
}

void HttpServer::CloseOverdue() {
  const Clock::time_point now = Clock::now();
  for (Peer* peer : peers_) {
    if (peer->busy || peer->closing || peer->deadline > now) continue;
    peer->closing = true;
    HostLog(LOG_NOTICE, "closed a connection from %s: no whole request in time", peer->text.c_str());
    shutdown(peer->fd, SHUT_RDWR);
  }
}

MHD_Result HttpServer::OnRequest(void* self, MHD_Connection* connection, const char* url, const char* method,
                                 const char*, const char* data, size_t* size, void** state) {
  auto* server = static_cast<HttpServer*>(self);
  auto* request = static_cast<HttpRequest*>(*state);
  if (request == nullptr) return server->Begin(connection, url, method, state);
  if (*size != 0) {
    // Beyond the limit the body is read and dropped; the answer says why.
    if (!request->bodyTooLarge && request->body.size() + *size > server->config_.maxBodyBytes) {
      request->bodyTooLarge = true;
      std::string().swap(request->body);
    }
    if (!request->bodyTooLarge) request->body.append(data, *size);
    *size = 0;
    return MHD_YES;
  }
  return server->Step(request);
}

MHD_Result HttpServer::Begin(MHD_Connection* connection, const char* url, const char* method, void** state) {
  auto* request = new HttpRequest;
  *state = request;
  ++inFlight_;
  request->connection = connection;
  request->method = method;
  request->path = url;
  request->clientAddress = ClientAddress(connection, PeerOf(connection));
  // A request for a host name not served, or with a body announced as too
  // large, is answered before its body is read.
  const char* length = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (length != nullptr && strtoull(length, nullptr, 10) > config_.maxBodyBytes) request->bodyTooLarge = true;
  if (request->bodyTooLarge || !router_.HostAllowed(*request)) return Step(request);
  return MHD_YES;
}

MHD_Result HttpServer::Step(HttpRequest* request) {
  if (Peer* peer = PeerOf(request->connection)) peer->busy = true;
  RouteStep step = router_.Route(*request);
  if (step.kind == RouteStep::Kind::kRespond) return Queue(request->connection, step.response);
  if (!dispatch_(request, step)) return Step(request);  // answered at once: unavailable
  request->waiting = true;
  MHD_suspend_connection(request->connection);
  return MHD_YES;
}

MHD_Result HttpServer::Queue(MHD_Connection* connection, const HttpResponse& response) {
  const std::string& body = response.staticBody != nullptr ? *response.staticBody : response.body;
  MHD_Response* out = MHD_create_response_from_buffer(
      body.size(), const_cast<char*>(body.data()),
      response.staticBody != nullptr ? MHD_RESPMEM_PERSISTENT : MHD_RESPMEM_MUST_COPY);
  if (out == nullptr) return MHD_NO;
  for (const auto& [name, value] : response.headers) MHD_add_response_header(out, name.c_str(), value.c_str());
  const MHD_Result result = MHD_queue_response(connection, response.status, out);
  MHD_destroy_response(out);
  return result;
}

void HttpServer::OnCompleted(void* self, MHD_Connection* connection, void** state, MHD_RequestTerminationCode) {
  auto* server = static_cast<HttpServer*>(self);
  if (Peer* peer = server->PeerOf(connection)) {
    peer->busy = false;
    peer->deadline = Clock::now() + std::chrono::seconds(server->config_.connectionTimeout);
  }
  auto* request = static_cast<HttpRequest*>(*state);
  if (request == nullptr) return;
  if (request->waiting) server->forget_(request);
  delete request;
  *state = nullptr;
  --server->inFlight_;
}

std::string HttpServer::ClientAddress(MHD_Connection* connection, const Peer* peer) const {
  if (peer == nullptr) return "?";
  // Behind a trusted reverse proxy, the proxy names the client.
  if (peer->proxy && !config_.forwardedForHeader.empty()) {
    const char* forwarded =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, config_.forwardedForHeader.c_str());
    if (forwarded != nullptr) {
      const std::string list = forwarded;
      const auto comma = list.rfind(',');
      const std::string last = Trim(list.substr(comma == std::string::npos ? 0 : comma + 1));
      if (!last.empty() && last.size() < 64) return last;
    }
  }
  return peer->text;
}

}  // namespace vela::webapid
