// A worker's side of the stream to its executor. Calls go out one at a
// time, in the order they came; the others wait here, so the executor's
// socket never has to hold more than one.
#ifndef VELA_WEBAPID_HTTP_WORKER_EXECUTOR_LINK_H_
#define VELA_WEBAPID_HTTP_WORKER_EXECUTOR_LINK_H_

#include <deque>
#include <functional>
#include <string>

#include "http_worker/http_exchange.h"
#include "shared/frame_stream.h"

namespace vela::webapid {

class ExecutorLink {
 public:
  // Called with a request once request->executorAnswer holds its answer.
  using Answered = std::function<void(HttpRequest*)>;

  ExecutorLink(int fd, Answered answered) : stream_(fd), answered_(std::move(answered)) {}

  int Fd() const { return stream_.Fd(); }
  bool WantsToWrite() const { return stream_.WantsToWrite(); }
  bool Gone() const { return gone_; }
  size_t Pending() const { return queue_.size() + (current_ != nullptr ? 1 : 0); }
  // Queues the call; false when the executor is gone.
  bool Call(HttpRequest* request, std::string frame);
  // The request went away before its answer.
  void Forget(HttpRequest* request);
  // False when the executor is gone; every waiting request is then
  // answered with `lost`.
  bool OnReadable(const std::string& lost);
  bool OnWritable(const std::string& lost);

 private:
  struct Queued {
    HttpRequest* request;
    std::string frame;
  };
  void SendNext();
  void FailAll(const std::string& lost);
  void Deliver(HttpRequest* request, std::string answer);

  FrameStream stream_;
  Answered answered_;
  std::deque<Queued> queue_;
  HttpRequest* current_ = nullptr;
  bool currentForgotten_ = false;
  bool busy_ = false;
  bool gone_ = false;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_HTTP_WORKER_EXECUTOR_LINK_H_
