// One HTTP request as the host's request router sees it, and what it
// makes of it: an answer, or first a question for the master.
#ifndef VELA_WEBAPID_HTTP_EXCHANGE_H_
#define VELA_WEBAPID_HTTP_EXCHANGE_H_

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
  std::string clientAddress;
  std::string body;
  bool bodyTooLarge = false;
  // The master's answer, once asked (see RouteStep::query).
  bool answered = false;
  bool waiting = false;
  Json::Value masterAnswer;

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

// Either a response, or a question for the master; the router is asked
// again with the answer in the request.
struct RouteStep {
  bool ask = false;
  Json::Value query;
  HttpResponse response;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_HTTP_EXCHANGE_H_
