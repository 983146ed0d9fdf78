// Sockets that the library opens for itself: as those for callers, but programs that the process starts do not inherit
// them.
#pragma once

#include <stdint.h>

namespace kestal {

// As kestal_open_connect_socket.
int32_t open_own_connect_socket(const char *host, int32_t port, int32_t timeout_ms);

// As kestal_open_udp_socket_ex, without a group.
int32_t open_own_udp_socket(int32_t family, const char *bind_address_string, int32_t port);

} // namespace kestal
