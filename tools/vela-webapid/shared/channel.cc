#include "shared/channel.h"

#include <string.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "base/json_text.h"

namespace vela::webapid {

bool SendMessage(int fd, const Json::Value& message, std::string* secret) {
  std::string text = vela::base::CompactJson(message);
  if (secret != nullptr) {
    text.reserve(text.size() + 1 + secret->size());
    text += '\0';
    text += *secret;
    explicit_bzero(secret->data(), secret->size());
  }
  ssize_t n = -1;
  if (text.size() <= kMaxChannelMessage) {
    while ((n = send(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL)) < 0 && errno == EINTR) {
    }
  }
  const bool sent = n == static_cast<ssize_t>(text.size());
  explicit_bzero(text.data(), text.size());
  return sent;
}

ReceiveResult ReceiveMessage(int fd, Json::Value& message, std::string* secret) {
  char buffer[kMaxChannelMessage + 1];
  for (;;) {
    const ssize_t n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (n == 0) return ReceiveResult::kClosed;
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno == EAGAIN ? ReceiveResult::kNone : ReceiveResult::kClosed;
    }
    const size_t size = static_cast<size_t>(n);
    const char* nul = static_cast<const char*>(memchr(buffer, '\0', size));
    const size_t jsonSize = nul != nullptr ? static_cast<size_t>(nul - buffer) : size;
    const bool parsed =
        size <= kMaxChannelMessage && vela::base::ParseJsonObject(std::string(buffer, jsonSize), message);
    if (parsed && secret != nullptr) {
      // Made at its final size at once, so no copy is left behind.
      const size_t secretSize = nul != nullptr ? size - jsonSize - 1 : 0;
      explicit_bzero(secret->data(), secret->size());
      secret->assign(buffer + size - secretSize, secretSize);
    }
    explicit_bzero(buffer, size);
    if (parsed) return ReceiveResult::kMessage;
  }
}

}  // namespace vela::webapid
