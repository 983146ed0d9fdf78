// The addresses in replies to PASV and EPSV: what is read out of a text stands there.
#include "ftp.hpp"
#include "fuzz.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <regex>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 300) // the pattern recurses
        return 0;
    const std::string text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    static const std::regex zeros(R"((^|\D)0+(?=\d))");
    const std::string behind = text.substr(std::min(text.find('('), text.size()));
    const std::string plain = std::regex_replace(behind, zeros, "$1");
    sockaddr_in address{};
    if (kestal::parse_pasv_reply(text.c_str(), address)) {
        std::string bytes = "(";
        const auto *host = reinterpret_cast<const uint8_t *>(&address.sin_addr);
        for (size_t i = 0; i < 4; ++i)
            bytes += std::to_string(host[i]) + ",";
        const uint32_t port = ntohs(address.sin_port);
        require(port != 0 &&
                plain.rfind(bytes + std::to_string(port / 256) + "," + std::to_string(port % 256), 0) == 0);
    }
    if (const uint32_t port = kestal::parse_epsv_reply(text.c_str()); port != 0) {
        const std::string found = behind.substr(1, 1) + std::to_string(port);
        require(port < 65536 && (plain.find(found + behind[1], 2) != std::string::npos ||
                                 plain.find(found + ")", 2) != std::string::npos));
    }
    return 0;
}
