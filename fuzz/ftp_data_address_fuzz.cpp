// The addresses in replies to PASV and EPSV: what is read out of a text stands there.
#include "ftp.hpp"
#include "fuzz.hpp"

#include <arpa/inet.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    sockaddr_in address{};
    if (kestal::parse_pasv_reply(text.c_str(), address)) {
        unsigned bytes[6];
        const char *at = strchr(text.c_str(), '(') + 1;
        require(sscanf(at, "%u,%u,%u,%u,%u,%u", &bytes[0], &bytes[1], &bytes[2], &bytes[3], &bytes[4], &bytes[5]) == 6);
        require(ntohl(address.sin_addr.s_addr) == (bytes[0] << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3]));
        require(ntohs(address.sin_port) == (bytes[4] << 8 | bytes[5]) && address.sin_port != 0);
    }
    if (const uint32_t port = kestal::parse_epsv_reply(text.c_str()); port != 0)
        require(port < 65536 && text.find(std::to_string(port)) != std::string::npos);
    return 0;
}
