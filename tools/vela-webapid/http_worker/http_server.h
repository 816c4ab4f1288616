// The worker's HTTP server: libmicrohttpd in this process's own thread,
// driven by the worker's poll loop (MHD's epoll descriptor is one of the
// descriptors it waits on). Connections are multiplexed, so a slow client
// holds up nobody; a request waiting for the master or the executor is
// suspended meanwhile.
//
// Every connection is counted in the table all workers share, and has a
// deadline: from its opening, or from its last answer, a client has
// connection_timeout seconds to begin a request, and from its first line
// request_timeout seconds to send the whole of it. Sending slowly does not
// move a deadline.
#ifndef VELA_WEBAPID_HTTP_WORKER_HTTP_SERVER_H_
#define VELA_WEBAPID_HTTP_WORKER_HTTP_SERVER_H_

#include <microhttpd.h>

#include <chrono>
#include <functional>
#include <set>
#include <string>

#include "http_worker/request_router.h"
#include "shared/connection_table.h"
#include "shared/host_config.h"

namespace vela::webapid {

class HttpServer {
 public:
  using Clock = std::chrono::steady_clock;
  // Serves the listening socket `listenFd`, with the certificate and key
  // (PEM text) when TLS is configured; `dispatch` takes the requests the
  // router wants the master or the executor to answer first. Throws
  // std::runtime_error when the server cannot start.
  using Dispatch = std::function<bool(HttpRequest*, RouteStep&)>;
  using Forget = std::function<void(HttpRequest*)>;
  HttpServer(const HostConfig& config, int listenFd, const std::string& tlsCert, const std::string& tlsKey,
             RequestRouter& router, ConnectionTable& connections, int slot, Dispatch dispatch, Forget forget);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  int PollFd() const;
  // Milliseconds until the server must run again whatever happens; -1 for none.
  int TimeoutMs() const;
  void Run();
  // Closes the connections past their deadline.
  void CloseOverdue();
  // Stops accepting connections; the ones open are served to the end.
  void StopAccepting();
  // The answer for a suspended request is in.
  void Resume(HttpRequest* request);

  size_t RequestsInFlight() const { return inFlight_; }
  // Open connections, idle ones included.
  unsigned Connections() const;

 private:
  struct Peer {
    MHD_Connection* connection;
    int fd;
    std::string address;  // raw bytes, the key of the shared table
    std::string text;     // printable
    bool proxy = false;
    bool admitted = false;
    bool busy = false;    // a whole request is in; its answer is on its way
    bool closing = false;
    Clock::time_point deadline;
  };

  static MHD_Result OnRequest(void* self, MHD_Connection* connection, const char* url, const char* method,
                              const char* version, const char* data, size_t* size, void** state);
  static void OnCompleted(void* self, MHD_Connection* connection, void** state, MHD_RequestTerminationCode why);
  static void OnConnection(void* self, MHD_Connection* connection, void** socketState,
                           MHD_ConnectionNotificationCode what);
  static void* OnRequestLine(void* self, const char* uri, MHD_Connection* connection);
  MHD_Result Begin(MHD_Connection* connection, const char* url, const char* method, void** state);
  MHD_Result Step(HttpRequest* request);
  MHD_Result Queue(MHD_Connection* connection, const HttpResponse& response);
  Peer* PeerOf(MHD_Connection* connection) const;
  void Admit(MHD_Connection* connection, void** socketState);
  std::string ClientAddress(MHD_Connection* connection, const Peer* peer) const;

  const HostConfig& config_;
  RequestRouter& router_;
  ConnectionTable& connections_;
  int slot_;
  Dispatch dispatch_;
  Forget forget_;
  MHD_Daemon* daemon_ = nullptr;
  std::set<Peer*> peers_;
  size_t inFlight_ = 0;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_HTTP_WORKER_HTTP_SERVER_H_
