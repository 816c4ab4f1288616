#include "http_worker/executor_link.h"

#include <algorithm>

namespace vela::webapid {

void ExecutorLink::Deliver(HttpRequest* request, std::string answer) {
  request->executorAnswer = std::move(answer);
  request->executed = true;
  answered_(request);
}

bool ExecutorLink::Call(HttpRequest* request, std::string frame) {
  if (gone_) return false;
  queue_.push_back(Queued{request, std::move(frame)});
  SendNext();
  return !gone_;
}

void ExecutorLink::SendNext() {
  if (busy_ || queue_.empty() || gone_) return;
  Queued next = std::move(queue_.front());
  queue_.pop_front();
  current_ = next.request;
  currentForgotten_ = false;
  busy_ = true;
  if (!stream_.Send(next.frame)) gone_ = true;
}

void ExecutorLink::Forget(HttpRequest* request) {
  if (request == current_) {
    // Its answer still comes and is dropped; the executor stays in step.
    currentForgotten_ = true;
    current_ = nullptr;
    return;
  }
  queue_.erase(std::remove_if(queue_.begin(), queue_.end(), [request](const Queued& q) { return q.request == request; }),
               queue_.end());
}

void ExecutorLink::FailAll(const std::string& lost) {
  gone_ = true;
  HttpRequest* current = current_;
  current_ = nullptr;
  auto queue = std::move(queue_);
  queue_.clear();
  if (current != nullptr) Deliver(current, lost);
  for (Queued& q : queue) Deliver(q.request, lost);
}

bool ExecutorLink::OnReadable(const std::string& lost) {
  const bool open = stream_.OnReadable();
  std::string answer;
  while (busy_ && stream_.Next(answer)) {
    busy_ = false;
    HttpRequest* request = current_;
    current_ = nullptr;
    if (request != nullptr && !currentForgotten_) Deliver(request, std::move(answer));
    SendNext();
  }
  if (!open || gone_) FailAll(lost);
  return !gone_;
}

bool ExecutorLink::OnWritable(const std::string& lost) {
  if (!stream_.OnWritable()) {
    FailAll(lost);
    return false;
  }
  return true;
}

}  // namespace vela::webapid
