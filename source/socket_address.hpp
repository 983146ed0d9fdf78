// The socket addresses that the library knows, as one value.
#pragma once

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace kestal {

union socket_address {
    sockaddr_un local; // first, as the largest: it is what {} zeroes
    sockaddr_in v4;
    sockaddr_in6 v6;
    sockaddr_storage any;
};

inline int32_t family_of(const void *address)
{
    sa_family_t family = AF_UNSPEC;
    if (address != nullptr)
        memcpy(&family, static_cast<const char *>(address) + offsetof(sockaddr, sa_family), sizeof family);
    return family;
}

} // namespace kestal
