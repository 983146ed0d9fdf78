#include "descriptors.hpp"

#include <arpa/inet.h>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <random>
#include <sstream>
#include <sys/un.h>

namespace {

using kestal_test::address_of;

class addresses : public kestal_test::counted {};

// The address read from a text with default port 80, as "FAMILY TEXT PORT"; "-" when it is refused.
std::string reading(int32_t family, const std::string &text)
{
    sockaddr_storage address;
    memset(&address, 0xEE, sizeof address);
    if (kestal_inet_ptos(family, text.c_str(), 80, &address, sizeof address) != 0)
        return address.ss_family == 0 ? "-" : "not cleared";
    char written[KESTAL_ADDRESS_TEXT_SIZE];
    uint32_t port = 7;
    kestal_inet_stopp(&address, written, sizeof written, &port);
    return std::to_string(address.ss_family) + " " + written + " " + std::to_string(port);
}

TEST_F(addresses, reads_and_writes_address_strings)
{
    // What each reads as, and texts that do.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"2 1.2.3.4 80",
         "1.2.3.4 001.002.003.004 1.2.3.4. [1.2.3.4] [1.2.3.4 1.2.3.4/24 [1.2.3.4/0] 1.2.3.4/32 1.2.3.4/00 "
         "1.2.3.4:80 [1.2.3.4.]:00080 1.2.3.4/7:80 [1.2.3.4:80"},
        {"2 1.2.3.4 0", "1.2.3.4:0 [1.2.3.4]:0 1.2.3.4:00000"},
        {"-", "1.2.3.256 1.2.3 1.2.3. 1.2.3.4.5 1.2.3.4] 1.2.3.0004 1..2.3.4 1.2.3.4: 1.2.3.4:65536 "
              "1.2.3.4:000080 1.2.3.4:-1 1.2.3.4:http 1.2.3.4:80/24 1.2.3.4.. 1.2.3.4/ 1.2.3.4/024 1.2.3.4/a "
              "[1.2.3.4]/24 [[1.2.3.4]] [] a.b.c.d -1.2.3.4 +1.2.3.4 1.2.3.4x 0x1.2.3.4 12345678 1.2 1.2.3.1e1 1,2,3,4 "
              "1::2::3 ::1:: :::1:: 1:2:3:4:5:6:7 1:2:3 1 : :1 12345:: ::12345 ::1g g::1 1:2:3:4:5:6:7:1.2.3.4 "
              "::1:2:3:4:5:6:7:1.2.3.4 ::1.2.3 ::1.2.3.256 ::ffff:1.2.3.4.5 ::.1.2.3 fe80::1/128 fe80::1/129 ::/ "
              "::/064 ::1] [::1]] [::1]: [::1]:65536 [::1]x 1:2:3:4:5:6:7:8: fe80::1% [fe80::1%] fe80::1%/64 "
              "fe80::1%1a fe80::1%4294967296 1:2:3:4:5:6:7:8:: [::1]%1 ::1/64/64 localhost abc.def run/x . .. ~ "
              ".x/y ~user/x ... x"},
        {"10 :: 80", ":: [::] ::0 0::0 0:0:0:0:0:0:0:0 ::/0 [::]:80 0000:: ::0.0.0.0"},
        {"10 ::1 80", "::1 [::1] ::0001 0:0:0:0:0:0:0:1 [::1]:80 ::1/64 [::1/64]:80 0::1 ::0.0.0.1"},
        {"10 1:: 80", "1:: 0001:: 1:0:0:0:0:0:0:0 1:0:: [1::] [1::]:80 1::/64"},
        {"10 2001:db8::1:0:0:1 80", "2001:db8:0:0:1:0:0:1 2001:DB8::1:0:0:1 2001:0db8:0000::0001:0:0:01"},
        {"10 1:2:3:4:5:6:7:8 80", "1:2:3:4:5:6:7:8 [1:2:3:4:5:6:7:8]:80 :1:2:3:4:5:6:7:8 1:2:3:4:5:6:7::8"},
        {"10 1:2:3:4:5:6:7:8 90", "[1:2:3:4:5:6:7:8]:90 1:2:3:4:5:6:7:8:90 [1:2:3:4:5:6:7:8:90"},
        {"10 ::0.1.128.128 80", "::1:8080"},
        {"10 ::0.1.0.144 80", "[::1:90 [::1:90]"},
        {"10 1::2 80", "1::2: 1::2"}, // the colon stands before a group that does not come
        {"10 1:: 2", "1:::2"},        // the third one before a port
        {"10 ::ffff:1.2.3.4 80",
         "::ffff:1.2.3.4 ::FFFF:102:304 [::ffff:1.2.3.4]:80 0:0:0:0:0:ffff:1.2.3.4 ::ffff:1.2.3.4. "
         "::ffff:1.2.3.4/96"},
        {"10 ::1.2.3.4 80", "::1.2.3.4 ::102:304 ::0:1.2.3.4 0:0:0:0:0:0:1.2.3.4 1.2.3.4/33"},
        {"10 ::1.2.3.4%1 80", "1.2.3.4%1"}, // dotted alone is IPv6 too, where IPv4 refuses
        {"10 ::0.0.0.2 80", "::2 ::0.0.0.2"},
        {"10 1:2:3:4:5:6:102:304 80", "1:2:3:4:5:6:1.2.3.4 1:2:3:4:5:6::1.2.3.4"},
        {"10 fe80::1%1 80", "fe80::1%1 fe80::1%lo [fe80::1%lo] [fe80::1%lo]:80 [fe80::1%1/64]:80 fe80::1%lo/64"},
        {"10 fe80::1%4294967295 80", "fe80::1%4294967295"},
        {"10 fe80::1 80", "fe80::1 fe80::1%0 fe80::1%nosuch fe80::1%nosuch:80 fe80::1%-1 fe80::1/64"},
        {"10 fe80::1%1 1900", "fe80::1%1:1900 [fe80::1%lo]:1900"},
        {"1 /var/run/x 0", "/var/run/x"},
        {"1 / 0", "/"},
    };
    const std::string zeros(54, '0');
    const std::string path = "/" + std::string(106, 'x');
    std::vector<std::pair<std::string, std::string>> all = {
        {"10 fe80::1%4294967295 80", "fe80::1%" + zeros + "4294967295"},
        {"-", "fe80::1%" + zeros + "00000000001"},
        {"1 " + path + " 0", path + "xxx"},
        {"1 ../a 0", " ../a"},
        {"1  0", ""}};
    for (const char *refused : {"1.2.3.4 ", " 1.2.3.4", "::1 ", " ::1", "\t/x"})
        all.emplace_back("-", refused);
    for (const auto &[result, texts] : cases) {
        std::istringstream words(texts);
        for (std::string word; words >> word;)
            all.emplace_back(result, word);
    }
    EXPECT_GE(all.size(), 150u);
    for (const auto &[result, text] : all) {
        EXPECT_EQ(reading(0, text), result) << text;
        // The family named says the same; another refuses.
        for (const int32_t family : {AF_INET, AF_UNIX}) {
            const bool is_named = std::stoi(result == "-" ? "0" : result) == family;
            EXPECT_EQ(reading(family, text), is_named ? result : "-") << text << " as " << family;
            EXPECT_EQ(kestal_inet_pton(family, text.c_str(), nullptr), is_named ? 0 : -1) << text;
        }
    }
    EXPECT_EQ(reading(AF_INET6, "1.2.3.4"), "10 ::1.2.3.4 80"); // but for a dotted text, which IPv6 reads too
    EXPECT_EQ(reading(AF_APPLETALK, "1.2.3.4"), "-");
}

TEST_F(addresses, agrees_with_the_system_on_random_addresses)
{
    std::mt19937 random(4291);
    char own[KESTAL_ADDRESS_TEXT_SIZE];
    char system[INET6_ADDRSTRLEN];
    for (int round = 0; round < 20000; ++round) {
        uint16_t groups[8];
        for (uint16_t &group : groups) // many zeros, and short groups
            group = static_cast<uint16_t>(random() % 3 == 0 ? 0 : random() >> random() % 32);
        if (round % 7 == 0)
            memset(groups, 0, 12);
        const int family = round % 4 == 0 ? AF_INET : AF_INET6;
        const size_t size = family == AF_INET ? 4 : 16;
        uint8_t back[2][16] = {};
        inet_ntop(family, groups, system, sizeof system);
        ASSERT_EQ(kestal_inet_ntop(family, groups, own, sizeof own), own);
        // The system's text is read, the system reads ours, and both mean the same.
        ASSERT_EQ(kestal_inet_pton(family, system, back[0]), 0) << system;
        ASSERT_EQ(inet_pton(family, own, back[1]), 1) << own;
        ASSERT_EQ(memcmp(back[0], groups, size) | memcmp(back[1], groups, size), 0) << system << " " << own;
        // The texts differ by design for a lone zero group and for small compatible addresses only.
        const bool may_differ = strstr(system, ":0") != nullptr || strncmp(system, "0:", 2) == 0 || groups[6] == 0;
        ASSERT_STREQ(own, family == AF_INET6 && may_differ ? own : system);
    }
}

TEST_F(addresses, leaves_outputs_that_cannot_be_filled_cleared)
{
    for (const auto &[text, size] : {std::pair("1.2.3.4", 15u), {"::1", 27}, {"/x", 109}}) {
        std::string address(size + 1, 'x');
        EXPECT_EQ(kestal_inet_ptos(0, text, 80, address.data(), size), -1) << text;
        EXPECT_EQ(address, std::string(size, '\0') + "x");
        EXPECT_EQ(kestal_inet_ptos(0, text, 80, address.data(), size + 1), 0) << text;
    }
    sockaddr_un address;
    EXPECT_EQ(kestal_inet_ptos(0, nullptr, 80, &address, sizeof address), -1);
    EXPECT_EQ(kestal_inet_ptos(0, "1.2.3.4", 65536, &address, sizeof address), -1);
    EXPECT_EQ(kestal_inet_ptos(0, "1.2.3.4:5", 65536, &address, sizeof address), 0);
    char text[KESTAL_ADDRESS_TEXT_SIZE];
    EXPECT_EQ(kestal_inet_stop(&address, text, 0), nullptr);
    EXPECT_STREQ(kestal_inet_stop(&address, text, 4), "1.2");
    std::string path(108, 'p'); // without a NUL, then an abstract one
    for (const auto &[first, written] : {std::pair('p', path.c_str()), {'\0', &path[1]}}) {
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path);
        address.sun_path[0] = first;
        EXPECT_STREQ(kestal_inet_stop(&address, text, sizeof text), written);
    }
    EXPECT_STREQ(kestal_inet_ntop(AF_INET, nullptr, text, sizeof text), "0.0.0.0");
    EXPECT_STREQ(kestal_inet_ntop(AF_UNIX, "\0name", text, sizeof text), "name");
    EXPECT_EQ(kestal_inet_ntop(0, "x", text, sizeof text), nullptr);
    EXPECT_EQ(kestal_inet_stop(nullptr, text, sizeof text), nullptr);
    EXPECT_EQ(kestal_sockaddr_scope(nullptr) & kestal_compare_sockaddr_address(&address, nullptr), -1);
    EXPECT_EQ(kestal_compare_sockaddr_address(nullptr, nullptr) | kestal_sockaddr_domain(nullptr), 0);
    EXPECT_EQ(kestal_interface_name_to_index(nullptr) + kestal_sockaddr_size(nullptr), 0u);
}

TEST_F(addresses, tells_scopes_and_kinds)
{
    const std::tuple<int32_t, std::string, std::string> scopes[] = {
        {-1, "Unknown", "0.0.0.0 :: /x"},
        {1, "Host", "127.0.0.1 127.255.255.255 ::1"},
        {2, "Link", "169.254.0.1 fe80::1 febf::"},
        {5, "Site", "10.0.0.0 172.16.0.1 172.31.255.255 192.168.1.1 255.255.255.255 fec0::1 feff::"},
        {14, "Global", "9.255.255.255 11.0.0.0 172.15.0.1 172.32.0.0 192.169.0.1 240.0.0.1 2001:db8::1 fc00::"},
        {0xFF01, "Mapped", "::ffff:127.0.0.1"},
        {0xFF02, "Compat", "::1.2.3.4 ::2"},
        {0xFF03, "Multicast", "224.0.0.0 239.255.255.255 ff02::1 ffff::"},
    };
    for (const auto &[scope, name, texts] : scopes) {
        EXPECT_EQ(kestal_sockaddr_scope_name(scope), name);
        std::istringstream words(texts);
        for (std::string text; words >> text;) {
            const sockaddr_storage address = address_of(text);
            EXPECT_EQ(kestal_sockaddr_scope(&address), scope) << text;
            EXPECT_EQ(kestal_is_multicast(&address), scope == 0xFF03) << text;
        }
    }

    const std::pair<char, int32_t (*)(const void *)> kinds[] = {{'U', kestal_in6addr_is_unspecified},
                                                                {'H', kestal_in6addr_is_loopback},
                                                                {'L', kestal_in6addr_is_link_local},
                                                                {'S', kestal_in6addr_is_site_local},
                                                                {'A', kestal_in6addr_is_v4_mapped},
                                                                {'C', kestal_in6addr_is_v4_compatible},
                                                                {'M', kestal_in6addr_is_multicast},
                                                                {'N', kestal_in6addr_is_multicast_node_local},
                                                                {'I', kestal_in6addr_is_multicast_link_local},
                                                                {'T', kestal_in6addr_is_multicast_site_local},
                                                                {'O', kestal_in6addr_is_multicast_org_local},
                                                                {'G', kestal_in6addr_is_multicast_global},
                                                                {'K', kestal_in6addr_is_scope_link_local},
                                                                {'E', kestal_in6addr_is_scope_embeddable}};
    std::istringstream cases(
        ":: U ::1 H fe80:: LKE febf::1 LKE fec0:: S fe7f:: - ::ffff:0.0.0.1 A ::0.0.0.2 C "
        "::1:0:0:1 - ff01::1 MNE ff12::1 MIKE ff05::1 MT ff08::1 MO ff0e::1 MG ff03::1 M 2001:: -");
    for (std::string text, expected; cases >> text >> expected;) {
        uint8_t raw[16];
        ASSERT_EQ(kestal_inet_pton(AF_INET6, text.c_str(), raw), 0);
        std::string found;
        for (const auto &[letter, is_kind] : kinds)
            found += is_kind(raw) != 0 ? std::string(1, letter) : "";
        EXPECT_EQ(found.empty() ? "-" : found, expected) << text;
        uint8_t copy[16] = {9};
        EXPECT_EQ(kestal_in6addr_compare(raw, copy), 0);
        EXPECT_EQ(kestal_in6addr_copy(copy, raw) & kestal_in6addr_compare(raw, copy), 1);
        EXPECT_EQ(kestal_in6addr_multicast_scope(raw), raw[1] & 15);
    }
}

TEST_F(addresses, compares_and_masks)
{
    for (const auto &[text, other, result] : {std::tuple("[fe80::1%1]:5", "[fe80::1%2]:6", 0),
                                              {"1.2.3.4:1", "1.2.3.4:2", 0},
                                              {"1.2.3.4", "1.2.3.5", -1},
                                              {"::1.2.3.4", "1.2.3.4", -1},
                                              {"/x", "/x", -1}}) { // a path is the same as nothing
        const sockaddr_storage a = address_of(text), b = address_of(other);
        EXPECT_EQ(kestal_compare_sockaddr_address(&a, &b), result) << text;
    }
    for (const auto &[text, size, port] : {std::tuple("::", 28u, 65535u), {"1.2.3.4", 16u, 65535u}, {"/x", 110u, 0u}}) {
        sockaddr_storage address = address_of(text);
        EXPECT_EQ(kestal_sockaddr_size(&address), size);
        EXPECT_EQ(kestal_sockaddr_set_port(&address, 65536), port == 0 ? 0 : -1);
        EXPECT_EQ(kestal_sockaddr_set_port(&address, 65535), 0);
        EXPECT_EQ(kestal_sockaddr_get_port(&address), port);
    }
    for (const auto &[text, bits, mask, network] : {std::tuple("192.168.1.77", 24u, "255.255.255.0", "192.168.1.255"),
                                                    {"10.1.2.3", 0u, "0.0.0.0", "255.255.255.255"},
                                                    {"10.1.2.3", 13u, "255.248.0.0", "10.7.255.255"},
                                                    {"10.1.2.3", 99u, "255.255.255.255", "10.1.2.3"},
                                                    {"fe80::1", 10u, "ffc0::", "?UNSPEC"},
                                                    {"/x", 8u, "?UNSPEC", "?UNSPEC"}}) {
        const sockaddr_storage address = address_of(text);
        sockaddr_storage outputs[2];
        memset(outputs, 0xEE, sizeof outputs);
        EXPECT_EQ(kestal_prefix_sockaddr(&address, bits, &outputs[0], &outputs[1]), text[0] == '/' ? -1 : 0);
        char written[KESTAL_ADDRESS_TEXT_SIZE];
        EXPECT_STREQ(kestal_inet_stop(&outputs[0], written, sizeof written), mask);
        EXPECT_STREQ(kestal_inet_stop(&outputs[1], written, sizeof written), network);
    }
}

TEST_F(addresses, sums_as_the_internet_does)
{
    std::mt19937 random(1071);
    std::vector<uint8_t> data(70000);
    std::generate(data.begin(), data.end(), [&] { return random() % 4 == 0 ? 0xFF : random() & 0xFF; });
    for (const size_t size : {0u, 1u, 7u, 8u, 20u, 69999u, 70000u}) {
        uint64_t sum = size % 2 != 0 ? data[size - 1] : 0; // an odd byte adds as it is
        for (size_t i = 0; i + 1 < size; i += 2)
            sum += htons(static_cast<uint16_t>(data[i] << 8 | data[i + 1]));
        while (sum >> 16 != 0)
            sum = (sum >> 16) + (sum & 0xFFFF);
        EXPECT_EQ(kestal_rfc1071_checksum(data.data(), size), sum ^ 0xFFFF) << size;
    }
}

} // namespace
