// The addresses in replies to PASV and EPSV, beside patterns that say the same in another way.
#include "ftp.hpp"
#include "fuzz.hpp"

#include <arpa/inet.h>
#include <regex>
#include <string>

namespace {

// The number of digits that do not matter is bounded by the pattern; one that is too large is none.
uint32_t number(const std::string &digits, uint32_t most)
{
    const size_t first = digits.find_first_not_of('0');
    if (first == std::string::npos)
        return 0;
    return digits.size() - first > 6 || std::stoul(digits.substr(first)) > most
               ? UINT32_MAX
               : static_cast<uint32_t>(std::stoul(digits.substr(first)));
}

void check_passive(const std::string &text)
{
    static const std::regex pattern(R"(^[^(]*\((\d+),(\d+),(\d+),(\d+),(\d+),(\d+)[,)][\s\S]*$)");
    std::smatch match;
    bool is_address = std::regex_match(text, match, pattern);
    uint32_t parts[6] = {};
    for (size_t i = 0; is_address && i < 6; ++i) {
        parts[i] = number(match[i + 1], 255);
        is_address = parts[i] != UINT32_MAX;
    }
    is_address = is_address && parts[4] + parts[5] > 0;
    sockaddr_in address{};
    require(kestal::parse_pasv_reply(text.c_str(), address) == is_address);
    if (!is_address)
        return;
    require(ntohl(address.sin_addr.s_addr) == (parts[0] << 24 | parts[1] << 16 | parts[2] << 8 | parts[3]));
    require(ntohs(address.sin_port) == parts[4] * 256 + parts[5]);
}

void check_extended(const std::string &text)
{
    static const std::regex pattern(R"(^[^(]*\(([^\d)])([\s\S]*?)\1([\s\S]*?)\1(\d+)(?:\1|\))[\s\S]*$)");
    std::smatch match;
    uint32_t port = std::regex_match(text, match, pattern) ? number(match[4], 65535) : 0;
    // A lazy field could have been stretched over a delimiter to reach a later number.
    if (port != 0 && (match[2].str() + match[3].str()).find(match[1].str()) != std::string::npos)
        port = 0;
    require(kestal::parse_epsv_reply(text.c_str()) == (port == UINT32_MAX ? 0 : port));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 300) // the patterns recurse
        return 0;
    const std::string text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    check_passive(text);
    check_extended(text);
    return 0;
}
