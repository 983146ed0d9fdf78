// Address strings: whatever reads is written as a text that reads as the same address, and nothing reaches beyond the
// output.
#include "fuzz.hpp"

#include <cstring>
#include <string>
#include <sys/socket.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    constexpr int32_t families[] = {AF_UNSPEC, AF_INET, AF_INET6, AF_UNIX};
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    char address[128];
    const uint64_t room = data[0] / 4 * 2;
    memset(address, 0xEE, sizeof address);
    const int32_t result = kestal_inet_ptos(families[data[0] % 4], text.c_str(), 80, address, room);
    for (uint64_t i = result == 0 ? kestal_sockaddr_size(address) : room; i < sizeof address; ++i)
        require(address[i] == '\xEE');
    if (result != 0)
        return 0;

    char written[KESTAL_ADDRESS_TEXT_SIZE];
    char again[128];
    char again_written[KESTAL_ADDRESS_TEXT_SIZE];
    uint32_t port = 0;
    require(kestal_inet_stopp(address, written, sizeof written, &port) == written);
    const int32_t family = kestal_sockaddr_domain(address);
    require(kestal_inet_ptos(family, written, port, again, sizeof again) == 0);
    require(strcmp(kestal_inet_stop(again, again_written, sizeof again_written), written) == 0);
    require(family == AF_UNIX || kestal_compare_sockaddr_address(address, again) == 0);
    require(kestal_sockaddr_get_port(again) == port);
    require(kestal_inet_pton(family, text.c_str(), again) == 0);
    require(kestal_sockaddr_scope(address) != 0);
    return 0;
}
