// Multicast membership on every interface, for modules that keep it while interfaces come and go.
#pragma once

#include <kestal_ulx/network_interface.h>

namespace kestal {

// Whether an interface has an address of that family (AF_UNSPEC: of either) other than 0.0.0.0 and ::.
bool has_address(const kestal_network_interface_t &interface, int32_t family);

// Leaves a group on the interfaces of `joined`, those of the last joining (null at first), and joins it on those there
// are now, which `joined`, the caller's to release, then lists. What is gone is left by the index it had: the system
// keeps counting such a membership, and allows a socket only so many.
void join_again(int32_t sock, const void *group, kestal_network_interface_t *&joined);

} // namespace kestal
