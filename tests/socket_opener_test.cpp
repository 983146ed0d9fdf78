#include "descriptors.hpp"
#include "namespaces.hpp"

#include <deque>
#include <set>

using kestal_test::owned_socket;
using kestal_test::with_each_allocation_failing;

namespace {

class socket_opener : public kestal_test::descriptors_counted {};

constexpr int32_t timeout_ms = 10000;

// The peer of the next connection that a listener accepts, as text; "-" when none comes.
std::string next_peer(int32_t listening, int32_t wait_ms)
{
    sockaddr_storage from = {};
    uint32_t length = sizeof from;
    const int32_t accepted = kestal_accept(listening, &from, &length, wait_ms);
    kestal_close_socket(accepted);
    char text[KESTAL_ADDRESS_TEXT_SIZE];
    return accepted < 0 ? "-" : kestal_inet_stop(&from, text, sizeof text);
}

TEST_F(socket_opener, counts_the_users_of_the_network)
{
    EXPECT_EQ(kestal_uninit_network(), -1);
    EXPECT_EQ(kestal_init_network() | kestal_init_network() | kestal_uninit_network(), 0);
    EXPECT_EQ(kestal_is_init_network(), 1);
    EXPECT_EQ(kestal_uninit_network() | kestal_is_init_network(), 0);
    const kestal_test::caught_assertions reports;
    with_each_allocation_failing([] {
        if (kestal_init_network() == 0)
            kestal_uninit_network();
    });
    EXPECT_EQ(reports.distinct(), (std::set<std::string>{"g_kestal_resolver_cache != ((kestal_resolver_cache_t *)0)",
                                                         "sg_resolver_cache != ((kestal_resolver_cache_t *)0)"}));
}

TEST_F(socket_opener, listens_and_connects)
{
    const kestal_test::temporary_directory directory;
    const std::string path = directory.path("s");
    const struct {
        int32_t family;
        const char *listen, *connect, *bind;
        std::string peer; // "-" when nobody can come
    } cases[] = {
        {AF_INET, nullptr, "[127.0.0.9]", "127.0.0.7", "127.0.0.7"},
        {AF_INET, "", "127.0.0.1", "localhost", "127.0.0.1"},
        {AF_INET6, "::1", "[::1]", "::1", kestal_check_ipv6_support() == 0 ? "::1" : "-"},
        {AF_INET6, nullptr, "127.0.0.1", nullptr, "-"}, // IPv6 only
        {0, path.c_str(), path.c_str(), nullptr, ""},
    };
    for (const auto &[family, listen, connect, bind, peer] : cases) {
        const int32_t listening = kestal_open_listen_socket_ex(family, listen, 0);
        const uint32_t to = listening < 0 || connect == path ? 1 : kestal_test::port_of(listening);
        const int32_t connecting =
            kestal_open_connect_socket_ex(0, bind, 0, connect, static_cast<int32_t>(to), timeout_ms);
        EXPECT_EQ(next_peer(listening, peer == "-" ? 0 : timeout_ms), peer) << connect;
        EXPECT_TRUE(connecting >= 0 || peer == "-") << connect; // where nobody comes, another may listen
        kestal_close_socket(connecting);
        kestal_close_socket(listening);
    }
    const owned_socket listening(kestal_open_listen_socket("127.0.0.1", 0));
    const int32_t to = listening.port();
    const owned_socket local(kestal_open_connect_socket("127.0.0.1", to, timeout_ms));
    EXPECT_EQ(kestal_open_connect_socket_ex(0, "127.0.0.1", local.port(), "127.0.0.1", to, timeout_ms), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_GE(with_each_allocation_failing([=] {
                  kestal_close_socket(kestal_open_connect_socket_ex(0, "localhost", 0, "127.0.0.1", to, 1000));
                  kestal_close_socket(kestal_open_listen_socket(nullptr, 0));
                  kestal_send_udp_packet_ex(AF_INET, "127.0.0.1", -1, "127.0.0.1", to, 256, "x", 1, 1000);
              }),
              6u);
    const int32_t refused[] = {
        kestal_open_listen_socket("127.0.0.1", to),
        kestal_open_listen_socket(nullptr, 65536),
        kestal_open_listen_socket_ex(AF_APPLETALK, nullptr, 0),
        kestal_open_connect_socket(nullptr, 1, 0),
        kestal_open_connect_socket("127.0.0.1", 0, 0),
        kestal_open_connect_socket_ex(0, nullptr, 65536, "127.0.0.1", 1, 0),
        kestal_send_udp_packet(nullptr, 1, "x", 1, 0),
        kestal_send_udp_packet("127.0.0.1", 65536, "x", 1, 0),
        kestal_send_udp_packet_ex(AF_INET6, nullptr, -1, "127.0.0.1", 1, 7, "x", 1, 0),
        kestal_open_udp_socket(nullptr, -2),
        kestal_open_udp_socket_ex(0, nullptr, -1, "10.0.0.1"),        // no group
        kestal_open_udp_socket_ex(0, nullptr, -1, "group"),           // no address
        kestal_open_udp_socket_ex(AF_INET6, nullptr, -1, "239.0.0.1") // another family
    };
    for (const int32_t &result : refused)
        EXPECT_EQ(result, -1) << &result - refused;
}

TEST_F(socket_opener, sends_datagrams)
{
    const kestal_test::temporary_directory directory;
    const std::string path = directory.path("s");
    char text[16] = {};
    for (const std::string address : {"127.0.0.1", "::1", path.c_str()}) {
        if (address == "::1" && kestal_check_ipv6_support() != 0)
            continue;
        const char *from = address == path ? nullptr : address.c_str();
        const owned_socket sock(kestal_open_udp_socket(address.c_str(), -1));
        EXPECT_EQ(kestal_send_udp_packet_ex(0, from, -1, address.c_str(), from == nullptr ? 1 : sock.port(), 7, "one",
                                            3, 1000),
                  3);
        EXPECT_EQ(kestal_recv(sock, text, sizeof text, timeout_ms), 3) << address;
    }
    // Ports that the system chooses are chosen once each.
    std::deque<owned_socket> several;
    std::set<int32_t> chosen;
    while (several.size() < 800)
        chosen.insert(several.emplace_back(kestal_open_udp_socket("127.0.0.1", 0)).port());
    EXPECT_EQ(chosen.size(), several.size());
    const owned_socket any(kestal_open_udp_socket(nullptr, -1));
    EXPECT_EQ(kestal_send_udp_packet("127.255.255.255", any.port(), "to all", 6, 1000), 6);
    EXPECT_EQ(kestal_recv(any, text, sizeof text, timeout_ms), 6);
    kestal_test::with_hosts("127.0.0.1 many\n127.0.0.2 many\n127.0.0.3 many\n", [&](const auto &) {
        EXPECT_EQ(kestal_open_listen_socket("none", 0), -1);
        EXPECT_EQ(errno, EHOSTUNREACH);
        // A port on which a connection still lingers can be listened on again.
        for (int turn = 0; turn < 2; ++turn) {
            const owned_socket before(kestal_open_listen_socket("many", 5000)); // on one of its addresses
            const owned_socket peer(kestal_open_connect_socket("many", 5000, timeout_ms));
            EXPECT_NE(next_peer(before, timeout_ms), "-");
        }
        // A datagram goes to all of them.
        std::deque<owned_socket> socks;
        for (const char *address : {"127.0.0.1", "127.0.0.2", "127.0.0.3"})
            socks.emplace_back(kestal_open_udp_socket(address, socks.empty() ? -1 : socks[0].port()));
        EXPECT_EQ(kestal_send_udp_packet("many", socks[0].port(), "datagram", 8, 1000), 8);
        for (const owned_socket &sock : socks)
            EXPECT_EQ(kestal_recv(sock, text, sizeof text, timeout_ms), 8);
    });
}

} // namespace
