// The listening socket the master binds once and every worker accepts on.
// It can be handed over to a new program with the usual LISTEN_FDS and
// LISTEN_PID variables (descriptor 3): the host does so when it restarts
// in place, and takes one so from a service manager.
#ifndef VELA_WEBAPID_MASTER_LISTEN_SOCKET_H_
#define VELA_WEBAPID_MASTER_LISTEN_SOCKET_H_

#include <string>

#include "base/unique_fd.h"

namespace vela::webapid {

using vela::base::UniqueFd;

// Binds and listens on "ADDRESS:PORT" or "[IPv6]:PORT" (numeric
// addresses). Throws std::runtime_error naming the address on failure.
UniqueFd BindListenSocket(const std::string& listen);
// The listening socket handed to this process, if any (the variables are
// then removed from the environment). Throws when what was handed over is
// no listening stream socket.
UniqueFd InheritedListenSocket();
// Makes `fd` descriptor 3, kept across exec, and sets the variables for
// the program about to be run by this process.
bool HandOverListenSocket(int fd);
// "ADDRESS:PORT" the socket is bound to (the port the kernel chose for 0).
std::string BoundAddress(int fd);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_MASTER_LISTEN_SOCKET_H_
