#include "http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "host_codes.h"

namespace vela::webapid {

namespace {

void LogLibraryMessage(void*, const char* format, va_list ap) { vsyslog(LOG_WARNING, format, ap); }

std::string Trim(const std::string& s) {
  const auto first = s.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(" \t") - first + 1);
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

HttpServer::HttpServer(const HostConfig& config, int listenFd, const std::string& tlsCert,
                       const std::string& tlsKey, RequestRouter& router, MasterLink& master)
    : config_(config), router_(router), master_(master) {
  unsigned int flags = MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
  // The logger first, so that the library's messages about the other
  // options reach the log too.
  std::vector<MHD_OptionItem> options = {
      {MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(&LogLibraryMessage), nullptr},
      {MHD_OPTION_LISTEN_SOCKET, listenFd, nullptr},
      {MHD_OPTION_CONNECTION_LIMIT, config.maxConnections, nullptr},
      {MHD_OPTION_PER_IP_CONNECTION_LIMIT, config.maxConnectionsPerAddress, nullptr},
      {MHD_OPTION_CONNECTION_TIMEOUT, config.connectionTimeout, nullptr},
      {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&HttpServer::OnCompleted), this},
  };
  if (config.Tls()) {
    if (MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
      throw std::runtime_error("this libmicrohttpd has no TLS support");
    }
    flags |= MHD_USE_TLS;
    options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(tlsCert.c_str())});
    options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(tlsKey.c_str())});
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
  request->clientAddress = ClientAddress(connection);
  // A body announced as too large is refused before it is read.
  const char* length = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (length != nullptr && strtoull(length, nullptr, 10) > config_.maxBodyBytes) {
    request->bodyTooLarge = true;
    return Step(request);
  }
  return MHD_YES;
}

MHD_Result HttpServer::Step(HttpRequest* request) {
  RouteStep step = router_.Route(*request);
  if (!step.ask) return Queue(request->connection, step.response);
  if (!master_.Ask(request, std::move(step.query))) {
    request->answered = true;
    request->masterAnswer["code"] = kCodeUnavailable;
    return Step(request);
  }
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

void HttpServer::OnCompleted(void* self, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
  auto* server = static_cast<HttpServer*>(self);
  auto* request = static_cast<HttpRequest*>(*state);
  if (request == nullptr) return;
  if (request->waiting) server->master_.Forget(request);
  delete request;
  *state = nullptr;
  --server->inFlight_;
  ++server->done_;
}

std::string HttpServer::ClientAddress(MHD_Connection* connection) const {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  char text[INET6_ADDRSTRLEN] = "?";
  bool loopback = false;
  if (info != nullptr && info->client_addr != nullptr) {
    const sockaddr* address = info->client_addr;
    if (address->sa_family == AF_INET) {
      const auto* in4 = reinterpret_cast<const sockaddr_in*>(address);
      inet_ntop(AF_INET, &in4->sin_addr, text, sizeof(text));
      loopback = (ntohl(in4->sin_addr.s_addr) >> 24) == 127;
    } else if (address->sa_family == AF_INET6) {
      const auto* in6 = reinterpret_cast<const sockaddr_in6*>(address);
      inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof(text));
      loopback = IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr);
    }
  }
  // Behind a reverse proxy on this machine, the proxy names the client.
  if (loopback && !config_.forwardedForHeader.empty()) {
    const char* forwarded =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, config_.forwardedForHeader.c_str());
    if (forwarded != nullptr) {
      const std::string list = forwarded;
      const std::string last = Trim(list.substr(list.rfind(',') == std::string::npos ? 0 : list.rfind(',') + 1));
      if (!last.empty() && last.size() < 64) return last;
    }
  }
  return text;
}

}  // namespace vela::webapid
