#include "master/listen_socket.h"

#include <fcntl.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <cstdlib>
#include <stdexcept>

namespace vela::webapid {

namespace {

constexpr int kBacklog = 511;

[[noreturn]] void Fail(const std::string& listen, const std::string& what) {
  throw std::runtime_error("cannot listen on " + listen + ": " + what);
}

}  // namespace

UniqueFd BindListenSocket(const std::string& listen) {
  const auto colon = listen.rfind(':');
  if (colon == std::string::npos || colon == 0) Fail(listen, "expected ADDRESS:PORT");
  std::string host = listen.substr(0, colon);
  const std::string portText = listen.substr(colon + 1);
  char* end = nullptr;
  const long port = strtol(portText.c_str(), &end, 10);
  if (portText.empty() || *end != '\0' || port < 0 || port > 65535) Fail(listen, "bad port");

  sockaddr_storage address = {};
  socklen_t length = 0;
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
    in6->sin6_family = AF_INET6;
    in6->sin6_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &in6->sin6_addr) != 1) {
      Fail(listen, "bad IPv6 address");
    }
    length = sizeof(*in6);
  } else {
    auto* in4 = reinterpret_cast<sockaddr_in*>(&address);
    in4->sin_family = AF_INET;
    in4->sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host.c_str(), &in4->sin_addr) != 1) Fail(listen, "bad IPv4 address");
    length = sizeof(*in4);
  }

  UniqueFd fd(socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.Valid()) Fail(listen, strerror(errno));
  const int on = 1;
  if (setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) Fail(listen, strerror(errno));
  if (address.ss_family == AF_INET6 && setsockopt(fd.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on)) != 0) {
    Fail(listen, strerror(errno));
  }
  if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0) Fail(listen, strerror(errno));
  if (::listen(fd.Get(), kBacklog) != 0) Fail(listen, strerror(errno));
  return fd;
}

UniqueFd InheritedListenSocket() {
  constexpr int kFirst = 3;
  const char* fds = getenv("LISTEN_FDS");
  const char* pid = getenv("LISTEN_PID");
  const bool ours = fds != nullptr && pid != nullptr && strcmp(fds, "1") == 0 && atol(pid) == getpid();
  unsetenv("LISTEN_FDS");
  unsetenv("LISTEN_PID");
  unsetenv("LISTEN_FDNAMES");
  if (!ours) return UniqueFd();
  int type = 0;
  int listening = 0;
  socklen_t length = sizeof(type);
  socklen_t length2 = sizeof(listening);
  if (getsockopt(kFirst, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_STREAM ||
      getsockopt(kFirst, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length2) != 0 || listening == 0) {
    throw std::runtime_error("descriptor 3 handed over with LISTEN_FDS is no listening stream socket");
  }
  fcntl(kFirst, F_SETFD, FD_CLOEXEC);
  fcntl(kFirst, F_SETFL, fcntl(kFirst, F_GETFL) | O_NONBLOCK);
  return UniqueFd(kFirst);
}

bool HandOverListenSocket(int fd) {
  constexpr int kFirst = 3;
  // dup2 of a descriptor onto itself would keep close-on-exec.
  if (fd != kFirst && dup2(fd, kFirst) != kFirst) return false;
  if (fcntl(kFirst, F_SETFD, 0) != 0) return false;
  setenv("LISTEN_FDS", "1", 1);
  setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
  return true;
}

std::string BoundAddress(int fd) {
  sockaddr_storage address = {};
  socklen_t length = sizeof(address);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "?";
  char text[INET6_ADDRSTRLEN] = "?";
  if (address.ss_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
    inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof(text));
    return "[" + std::string(text) + "]:" + std::to_string(ntohs(in6->sin6_port));
  }
  const auto* in4 = reinterpret_cast<sockaddr_in*>(&address);
  inet_ntop(AF_INET, &in4->sin_addr, text, sizeof(text));
  return std::string(text) + ":" + std::to_string(ntohs(in4->sin_port));
}

}  // namespace vela::webapid
