// A worker's side of its channel to the master: questions about sessions,
// logins and calls (shared/messages.h), each for one request, whose
// answers come back in any order.
#ifndef VELA_WEBAPID_HTTP_WORKER_MASTER_LINK_H_
#define VELA_WEBAPID_HTTP_WORKER_MASTER_LINK_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_map>

#include "http_worker/http_exchange.h"

namespace vela::webapid {

class MasterLink {
 public:
  using Clock = std::chrono::steady_clock;
  // Called with a request once its answer is in request.masterAnswer.
  using Answered = std::function<void(HttpRequest*)>;

  MasterLink(int fd, std::chrono::milliseconds answerTimeout, Answered answered);

  int Fd() const { return fd_; }
  // Sends the question (with `secret`, wiped then); false when it cannot
  // be sent.
  bool Ask(HttpRequest* request, Json::Value query, std::string& secret);
  // The request went away before its answer.
  void Forget(HttpRequest* request);
  // Takes the answers that arrived. False when the master is gone; every
  // waiting request is then answered "unavailable".
  bool OnReadable();
  // Answers "unavailable" to requests whose answer is overdue.
  void ExpireOverdue();
  std::optional<Clock::time_point> NextDeadline() const;

 private:
  struct Waiting {
    HttpRequest* request;
    Clock::time_point deadline;
  };
  void Deliver(HttpRequest* request, Json::Value answer);
  void FailAll();

  int fd_;
  std::chrono::milliseconds answerTimeout_;
  Answered answered_;
  uint64_t nextId_ = 1;
  std::unordered_map<uint64_t, Waiting> waiting_;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_HTTP_WORKER_MASTER_LINK_H_
