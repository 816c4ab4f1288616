// The listening socket the master binds once and every worker accepts on.
#ifndef VELA_WEBAPID_LISTEN_SOCKET_H_
#define VELA_WEBAPID_LISTEN_SOCKET_H_

#include <string>

#include "base/unique_fd.h"

namespace vela::webapid {

using vela::base::UniqueFd;

// Binds and listens on "ADDRESS:PORT" or "[IPv6]:PORT" (numeric
// addresses). Throws std::runtime_error naming the address on failure.
UniqueFd BindListenSocket(const std::string& listen);
// "ADDRESS:PORT" the socket is bound to (the port the kernel chose for 0).
std::string BoundAddress(int fd);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_LISTEN_SOCKET_H_
