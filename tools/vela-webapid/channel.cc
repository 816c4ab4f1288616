#include "channel.h"

#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "base/json_text.h"

namespace vela::webapid {

bool SendMessage(int fd, const Json::Value& message) {
  const std::string text = vela::base::CompactJson(message);
  if (text.size() > kMaxChannelMessage) return false;
  ssize_t n;
  while ((n = send(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL)) < 0 && errno == EINTR) {
  }
  return n == static_cast<ssize_t>(text.size());
}

ReceiveResult ReceiveMessage(int fd, Json::Value& message) {
  char buffer[kMaxChannelMessage + 1];
  for (;;) {
    const ssize_t n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (n == 0) return ReceiveResult::kClosed;
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno == EAGAIN ? ReceiveResult::kNone : ReceiveResult::kClosed;
    }
    if (static_cast<size_t>(n) <= kMaxChannelMessage &&
        vela::base::ParseJsonObject(std::string(buffer, static_cast<size_t>(n)), message)) {
      return ReceiveResult::kMessage;
    }
  }
}

}  // namespace vela::webapid
