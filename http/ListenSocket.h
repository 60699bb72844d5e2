// ListenSocket: the console's listening TCP socket, either made here for an
// address or inherited from systemd (socket activation), which keeps the port
// held while the console restarts. A socket made here takes SO_REUSEADDR
// only, never SO_REUSEPORT, so no second program can share the port.
// Failures throw std::runtime_error; the caller owns the descriptor.
#pragma once

#include <optional>

#include "http/ListenAddress.h"

namespace listen_socket {

// A listening socket bound to address (port 0: any free port).
int open(const ListenAddress& address);
// The stream socket systemd passed (LISTEN_FDS), if it passed one.
std::optional<int> inherited();
// The address a socket is bound to.
ListenAddress address_of(int fd);

}  // namespace listen_socket
