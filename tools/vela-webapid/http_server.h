// The worker's HTTP server: libmicrohttpd in this process's own thread,
// driven by the worker's poll loop (MHD's epoll descriptor is one of the
// descriptors it waits on). Connections are multiplexed, so a slow client
// holds up nobody; a request waiting for the master is suspended meanwhile.
#ifndef VELA_WEBAPID_HTTP_SERVER_H_
#define VELA_WEBAPID_HTTP_SERVER_H_

#include <microhttpd.h>

#include <string>

#include "host_config.h"
#include "master_link.h"
#include "request_router.h"

namespace vela::webapid {

class HttpServer {
 public:
  // Serves the listening socket `listenFd`, with the certificate and key
  // (PEM text) when TLS is configured. Throws std::runtime_error when the
  // server cannot start.
  HttpServer(const HostConfig& config, int listenFd, const std::string& tlsCert, const std::string& tlsKey,
             RequestRouter& router, MasterLink& master);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  int PollFd() const;
  // Milliseconds until the server must run again whatever happens; -1 for none.
  int TimeoutMs() const;
  void Run();
  // Stops accepting connections; the ones open are served to the end.
  void StopAccepting();
  // The master's answer for a suspended request is in.
  void Resume(HttpRequest* request);

  size_t RequestsInFlight() const { return inFlight_; }
  // Open connections, idle ones included.
  unsigned Connections() const;
  long RequestsDone() const { return done_; }

 private:
  static MHD_Result OnRequest(void* self, MHD_Connection* connection, const char* url, const char* method,
                              const char* version, const char* data, size_t* size, void** state);
  static void OnCompleted(void* self, MHD_Connection* connection, void** state, MHD_RequestTerminationCode why);
  MHD_Result Begin(MHD_Connection* connection, const char* url, const char* method, void** state);
  MHD_Result Step(HttpRequest* request);
  MHD_Result Queue(MHD_Connection* connection, const HttpResponse& response);
  std::string ClientAddress(MHD_Connection* connection) const;

  const HostConfig& config_;
  RequestRouter& router_;
  MasterLink& master_;
  MHD_Daemon* daemon_ = nullptr;
  size_t inFlight_ = 0;
  long done_ = 0;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_HTTP_SERVER_H_
