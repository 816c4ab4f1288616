#include "http_worker/master_link.h"

#include <syslog.h>

#include "shared/channel.h"
#include "shared/host_codes.h"
#include "shared/host_log.h"
#include "shared/messages.h"

namespace vela::webapid {

namespace {

Json::Value Unavailable() {
  Json::Value answer;
  answer[msg::kCode] = kCodeUnavailable;
  return answer;
}

}  // namespace

MasterLink::MasterLink(int fd, std::chrono::milliseconds answerTimeout, Answered answered)
    : fd_(fd), answerTimeout_(answerTimeout), answered_(std::move(answered)) {}

bool MasterLink::Ask(HttpRequest* request, Json::Value query, std::string& secret) {
  const uint64_t id = nextId_++;
  query[msg::kId] = static_cast<Json::UInt64>(id);
  const bool sent = SendMessage(fd_, query, secret.empty() ? nullptr : &secret);
  if (!sent) {
    HostLog(LOG_ERR, "cannot ask the master about %s %s", request->method.c_str(), request->path.c_str());
    return false;
  }
  waiting_[id] = Waiting{request, Clock::now() + answerTimeout_};
  return true;
}

void MasterLink::Forget(HttpRequest* request) {
  for (auto it = waiting_.begin(); it != waiting_.end(); ++it) {
    if (it->second.request == request) {
      waiting_.erase(it);
      return;
    }
  }
}

void MasterLink::Deliver(HttpRequest* request, Json::Value answer) {
  request->masterAnswer = std::move(answer);
  request->answered = true;
  answered_(request);
}

bool MasterLink::OnReadable() {
  Json::Value message;
  for (;;) {
    switch (ReceiveMessage(fd_, message)) {
      case ReceiveResult::kNone:
        return true;
      case ReceiveResult::kClosed:
        FailAll();
        return false;
      case ReceiveResult::kMessage:
        break;
    }
    if (!message[msg::kId].isUInt64()) continue;
    const auto it = waiting_.find(message[msg::kId].asUInt64());
    if (it == waiting_.end()) continue;  // its request went away meanwhile
    HttpRequest* request = it->second.request;
    waiting_.erase(it);
    Deliver(request, std::move(message));
  }
}

void MasterLink::ExpireOverdue() {
  const Clock::time_point now = Clock::now();
  for (auto it = waiting_.begin(); it != waiting_.end();) {
    if (it->second.deadline > now) {
      ++it;
      continue;
    }
    HttpRequest* request = it->second.request;
    HostLog(LOG_ERR, "the master did not answer about %s %s in time", request->method.c_str(),
           request->path.c_str());
    it = waiting_.erase(it);
    Deliver(request, Unavailable());
  }
}

void MasterLink::FailAll() {
  auto waiting = std::move(waiting_);
  waiting_.clear();
  for (auto& entry : waiting) Deliver(entry.second.request, Unavailable());
}

std::optional<MasterLink::Clock::time_point> MasterLink::NextDeadline() const {
  std::optional<Clock::time_point> next;
  for (const auto& entry : waiting_) {
    if (!next || entry.second.deadline < *next) next = entry.second.deadline;
  }
  return next;
}

}  // namespace vela::webapid
