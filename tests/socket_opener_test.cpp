#include "descriptors.hpp"
#include "namespaces.hpp"

#include <cerrno>
#include <cstring>
#include <thread>
#include <unistd.h>

using kestal_test::in_own_network;
using kestal_test::port_of;
using kestal_test::with_each_allocation_failing;

namespace {

class socket_opener : public kestal_test::descriptors_counted {};

constexpr int32_t timeout_ms = 10000;

int32_t port(int32_t sock)
{
    return static_cast<int32_t>(port_of(sock));
}

// The peer of the next connection that a listener accepts, as text; "-" when none comes.
std::string next_peer(int32_t listening, int32_t wait_ms = timeout_ms)
{
    sockaddr_storage from = {};
    uint32_t length = sizeof from;
    const int32_t accepted = kestal_accept(listening, &from, &length, wait_ms);
    if (accepted < 0)
        return "-";
    kestal_close_socket(accepted);
    char text[KESTAL_ADDRESS_TEXT_SIZE];
    return kestal_inet_stop(&from, text, sizeof text);
}

TEST_F(socket_opener, counts_the_users_of_the_network)
{
    EXPECT_EQ(kestal_uninit_network(), -1);
    EXPECT_EQ(kestal_is_init_network(), 0);
    EXPECT_EQ(kestal_init_network(), 0);
    EXPECT_EQ(kestal_init_network(), 0);
    EXPECT_EQ(kestal_uninit_network(), 0);
    EXPECT_EQ(kestal_is_init_network(), 1);
    EXPECT_EQ(kestal_uninit_network(), 0);
    EXPECT_EQ(kestal_is_init_network(), 0);
    const kestal_test::caught_assertions reports;
    with_each_allocation_failing([] {
        if (kestal_init_network() == 0)
            kestal_uninit_network();
    });
    EXPECT_EQ(reports.messages(), std::vector<std::string>{"sg_resolver_cache != ((kestal_resolver_cache_t *)0)"});
}

TEST_F(socket_opener, listens_and_connects)
{
    const kestal_test::temporary_directory directory;
    const std::string path = directory.path("s");
    const bool has_v6 = kestal_check_ipv6_support() == 0;
    const struct {
        int32_t family;
        const char *listen, *connect, *bind;
        const char *peer; // "-" when nobody can come
    } cases[] = {
        {0, "127.0.0.1", "127.0.0.1", nullptr, "127.0.0.1"},
        {AF_INET, nullptr, "[127.0.0.9]", "127.0.0.7", "127.0.0.7"},
        {AF_INET, "", "127.0.0.1", "localhost", "127.0.0.1"},
        {AF_INET6, nullptr, "::1", nullptr, has_v6 ? "::1" : "-"},
        {AF_INET6, "::1", "[::1]", "::1", has_v6 ? "::1" : "-"},
        {AF_INET6, nullptr, "127.0.0.1", nullptr, "-"}, // IPv6 only
        {AF_INET, "::1", "::1", nullptr, "-"},
        {0, "127.0.0.1", "127.0.0.1", "::1", "-"},
        {0, path.c_str(), path.c_str(), nullptr, ""},
    };
    for (const auto &[family, listen, connect, bind, peer] : cases) {
        const int32_t listening = kestal_open_listen_socket_ex(family, listen, 0);
        const int32_t to = listening < 0 || connect[0] == '/' ? 1 : port(listening);
        const int32_t connecting = kestal_open_connect_socket_ex(0, bind, 0, connect, to, timeout_ms);
        EXPECT_EQ(next_peer(listening, peer == std::string("-") ? 0 : timeout_ms), peer) << listen << " " << connect;
        EXPECT_EQ(connecting < 0, peer == std::string("-")) << connect;
        kestal_close_socket(connecting);
        kestal_close_socket(listening);
    }
    // A named local port, and one that is taken.
    const int32_t listening = kestal_open_listen_socket("127.0.0.1", 0);
    const int32_t local = kestal_open_connect_socket("127.0.0.1", port(listening), timeout_ms);
    const int32_t taken = port(local);
    EXPECT_EQ(kestal_open_connect_socket_ex(0, "127.0.0.1", taken, "127.0.0.1", port(listening), timeout_ms), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(kestal_open_listen_socket("127.0.0.1", port(listening)), -1);
    const std::vector<int32_t> refused = {kestal_open_listen_socket(nullptr, 65536),
                                          kestal_open_listen_socket(nullptr, -1),
                                          kestal_open_connect_socket(nullptr, 1, 0),
                                          kestal_open_connect_socket("127.0.0.1", 0, 0),
                                          kestal_open_connect_socket("127.0.0.1", 65536, 0),
                                          kestal_open_connect_socket_ex(0, nullptr, 65536, "127.0.0.1", 1, 0),
                                          kestal_open_listen_socket_ex(AF_APPLETALK, nullptr, 0)};
    EXPECT_EQ(refused, std::vector<int32_t>(7, -1));
    EXPECT_GE(with_each_allocation_failing([=] {
                  kestal_close_socket(
                      kestal_open_connect_socket_ex(0, "127.0.0.1", 0, "127.0.0.1", port(listening), 1000));
                  kestal_close_socket(kestal_open_listen_socket(nullptr, 0));
              }),
              3u);
    kestal_close_socket(local);
    kestal_close_socket(listening);
}

TEST_F(socket_opener, tries_every_address)
{
    const char *reason = in_own_network([] {
        const kestal_test::temporary_directory directory;
        kestal_test::run("ip link set lo up && mount --bind " +
                         directory.file("hosts", "127.0.0.1 many\n127.0.0.2 many\n127.0.0.3 many\n") +
                         " /etc/hosts && mount --bind " + directory.file("conf", "hosts: files\n") +
                         " /etc/nsswitch.conf");
        const int32_t listening = kestal_open_listen_socket("127.0.0.3", 0);
        const int32_t connecting = kestal_open_connect_socket("many", port(listening), timeout_ms);
        EXPECT_GE(connecting, 0) << strerror(errno);
        EXPECT_EQ(next_peer(listening), "127.0.0.1");
        kestal_close_socket(connecting);
        EXPECT_EQ(kestal_open_connect_socket_ex(AF_INET6, nullptr, 0, "many", port(listening), timeout_ms), -1);

        // A name to listen on gives its first address; a datagram goes to all of them.
        const int32_t named = kestal_open_listen_socket("many", port(listening));
        EXPECT_GE(named, 0);
        kestal_close_socket(named);
        kestal_close_socket(listening);
        int32_t socks[3];
        socks[0] = kestal_open_udp_socket("127.0.0.1", -1);
        const int32_t to = port(socks[0]);
        socks[1] = kestal_open_udp_socket("127.0.0.2", to);
        socks[2] = kestal_open_udp_socket("127.0.0.3", to);
        EXPECT_EQ(kestal_send_udp_packet("many", to, "datagram", 8, 1000), 8);
        for (const int32_t sock : socks) {
            char text[16] = {};
            EXPECT_EQ(kestal_recv(sock, text, sizeof text, timeout_ms), 8);
            kestal_close_socket(sock);
        }
        kestal_test::run("umount /etc/hosts /etc/nsswitch.conf");
    });
    if (reason != nullptr)
        GTEST_SKIP() << reason;
}

TEST_F(socket_opener, sends_datagrams)
{
    const kestal_test::temporary_directory directory;
    const std::string path = directory.path("s");
    for (const char *address : {"127.0.0.1", "::1", path.c_str()}) {
        const int32_t sock = kestal_open_udp_socket(address, -1);
        if (sock < 0) {
            EXPECT_NE(kestal_check_ipv6_support(), 0);
            continue;
        }
        const int32_t to = address == path ? 1 : port(sock);
        char text[16] = {};
        if (address != path) {
            EXPECT_EQ(kestal_send_udp_packet_ex(0, address, -1, address, to, 7, "one", 3, 1000), 3);
            EXPECT_EQ(kestal_recv(sock, text, sizeof text, timeout_ms), 3);
            EXPECT_EQ(kestal_send_udp_packet_ex(AF_UNIX, nullptr, -1, address, to, 7, "one", 3, 1000), -1);
        }
        EXPECT_EQ(kestal_send_udp_packet(address, 0, "x", 1, 0), -1);
        kestal_close_socket(sock);
    }
    const std::vector<int32_t> refused = {
        kestal_send_udp_packet(nullptr, 1, "x", 1, 0),
        kestal_send_udp_packet("127.0.0.1", 65536, "x", 1, 0),
        kestal_open_udp_socket(nullptr, 65536),
        kestal_open_udp_socket(nullptr, -2),
        kestal_open_udp_socket_ex(0, nullptr, -1, "10.0.0.1"),        // no group
        kestal_open_udp_socket_ex(0, nullptr, -1, "fd00::1"),         // none either
        kestal_open_udp_socket_ex(0, nullptr, -1, "group"),           // no address
        kestal_open_udp_socket_ex(AF_INET6, nullptr, -1, "239.0.0.1") // another family
    };
    EXPECT_EQ(refused, std::vector<int32_t>(8, -1));
}

} // namespace
