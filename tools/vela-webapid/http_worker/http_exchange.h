// One HTTP request as the host's request router sees it, and what it
// makes of it: an answer, or first a question for the master, or a call
// for the executor.
#ifndef VELA_WEBAPID_HTTP_WORKER_HTTP_EXCHANGE_H_
#define VELA_WEBAPID_HTTP_WORKER_HTTP_EXCHANGE_H_

#include <json/json.h>

#include <string>
#include <utility>
#include <vector>

struct MHD_Connection;

namespace vela::webapid {

struct HttpRequest {
  MHD_Connection* connection = nullptr;
  std::string method;
  std::string path;
  std::string clientAddress;  // the proxy's client when a trusted proxy names one
  std::string body;
  bool bodyTooLarge = false;
  // The master's answer, once asked (see RouteStep::query).
  bool answered = false;
  Json::Value masterAnswer;
  // The executor's answer (an envelope), once a call was sent.
  bool executed = false;
  std::string executorAnswer;
  bool waiting = false;

  // A request header or cookie; "" when absent.
  std::string Header(const char* name) const;
  std::string Cookie(const char* name) const;
};

struct HttpResponse {
  unsigned status = 200;
  std::string contentType = "application/json";
  std::string body;
  const std::string* staticBody = nullptr;  // instead of body: lives as long as the worker
  std::vector<std::pair<std::string, std::string>> headers;
};

// One of: a response; a question for the master; a call for the executor.
// The router is asked again with the answer in the request.
struct RouteStep {
  enum class Kind { kRespond, kAskMaster, kExecute } kind = Kind::kRespond;
  Json::Value query;    // kAskMaster
  std::string secret;   // kAskMaster: sent beside the query, then wiped
  std::string call;     // kExecute: the call's frame
  HttpResponse response;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_HTTP_WORKER_HTTP_EXCHANGE_H_
