#include "descriptors.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/un.h>
#include <unistd.h>

using kestal_test::port_of;

namespace {

class sockets : public kestal_test::descriptors_counted {
protected:
    void TearDown() override
    {
        for (const int32_t sock : opened_)
            kestal_close_socket(sock);
        descriptors_counted::TearDown();
    }

    int32_t keep(int32_t sock)
    {
        EXPECT_GE(sock, 0) << strerror(errno);
        opened_.push_back(sock);
        return sock;
    }

    kestal_socket_pair_t pair(int32_t domain = AF_UNIX, int32_t type = SOCK_STREAM)
    {
        kestal_socket_pair_t ends;
        EXPECT_EQ(kestal_socket_pair(domain, type, type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP, &ends), 0);
        keep(ends.m_socket[0]);
        keep(ends.m_socket[1]);
        return ends;
    }

    // A listener on a free port of the loopback.
    int32_t listener(int32_t backlog, sockaddr_in &address)
    {
        const int32_t sock = keep(kestal_open_socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
        EXPECT_EQ(kestal_inet_ptos(AF_INET, "127.0.0.1", 0, &address, sizeof address), 0);
        EXPECT_EQ(kestal_bind(sock, &address, sizeof address), 0);
        EXPECT_EQ(kestal_listen(sock, backlog), 0);
        return kestal_sockaddr_set_port(&address, port_of(sock)), sock;
    }

    std::vector<int32_t> opened_;
};

TEST_F(sockets, know_protocols_services_and_the_host)
{
    for (const auto &[name, number] : {std::pair("ip", 0), {"tcp", 6}, {"udp", 17}, {"ipv6", 41}, {"nosuch", -1}})
        EXPECT_EQ(kestal_get_protocol_by_name(name), number) << name;
    EXPECT_EQ(kestal_get_protocol_by_name(nullptr), -1);
    EXPECT_STREQ(kestal_get_name_by_protocol(6), "tcp");
    EXPECT_EQ(kestal_get_name_by_protocol(253), nullptr);

    EXPECT_EQ(kestal_get_service_by_name(nullptr, "tcp"), -1);
    EXPECT_EQ(kestal_get_service_by_name("nosuch-service", nullptr), 0);
    EXPECT_EQ(kestal_get_name_by_service(-1, nullptr), nullptr);
    if (access("/etc/services", R_OK) == 0) {
        EXPECT_EQ(kestal_get_service_by_name("http", nullptr), 80);
        EXPECT_EQ(kestal_get_service_by_name("tftp", "udp"), 69);
        EXPECT_STREQ(kestal_get_name_by_service(80, nullptr), "http");
    }
    char system[256];
    gethostname(system, sizeof system);
    char *own = kestal_get_hostname_alloc();
    EXPECT_STREQ(own, system);
    kestal_free(own);

    EXPECT_EQ(kestal_check_ipv4_support(), 0);
    EXPECT_EQ(kestal_check_unix_domain_socket_support(), 0);
    EXPECT_EQ(kestal_check_ipv6_support(), kestal_check_inet_support(AF_INET6, SOCK_DGRAM, IPPROTO_UDP));
    EXPECT_EQ(kestal_check_socket_support(AF_UNIX, SOCK_STREAM, IPPROTO_TCP), 0);
    EXPECT_EQ(kestal_check_socket_support(AF_INET, SOCK_STREAM, IPPROTO_UDP), -1);
    EXPECT_EQ(kestal_check_socket_support(-5, SOCK_STREAM, 0), -1);
}

TEST_F(sockets, tell_time_outs_apart)
{
    const kestal_socket_pair_t ends = pair();
    char buffer[65536] = {};
    for (const int32_t timeout : {0, 20}) {
        errno = 0;
        EXPECT_EQ(kestal_recv(ends.m_socket[1], buffer, 8, timeout), -2);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_EQ(kestal_recvfrom(ends.m_socket[1], buffer, 8, nullptr, nullptr, timeout), -2);
    }
    kestal_set_non_block_socket(ends.m_socket[0], 1);
    while (kestal_send(ends.m_socket[0], buffer, sizeof buffer, -1) > 0)
        ;
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(kestal_send(ends.m_socket[0], buffer, 1, 20), 0);
    EXPECT_EQ(kestal_send_message(ends.m_socket[0], 0, "%d", 1), 0);
    EXPECT_EQ(kestal_recv(ends.m_socket[1], buffer, sizeof buffer, 0), static_cast<int32_t>(sizeof buffer));

    sockaddr_in address;
    const int32_t listening = listener(0, address);
    EXPECT_EQ(kestal_accept(listening, nullptr, nullptr, 20), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    // The backlog fills, and the next one waits in vain.
    int32_t result = 0;
    while (result == 0)
        result = kestal_connect(keep(kestal_open_socket(AF_INET, SOCK_STREAM, 0)), &address, sizeof address, 60);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(kestal_recv(-1, buffer, 1, 0), -1);
    EXPECT_EQ(kestal_send(-1, buffer, 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(sockets, connect_and_accept)
{
    sockaddr_in address;
    const int32_t listening = listener(5, address);
    for (const int32_t timeout : {-1, 10000}) {
        const int32_t connecting = keep(kestal_open_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
        EXPECT_EQ(fcntl(connecting, F_GETFD), 0); // bits above 16 do not count
        EXPECT_EQ(kestal_connect(connecting, &address, sizeof address, timeout), 0);
        EXPECT_EQ(fcntl(connecting, F_GETFL) & O_NONBLOCK, 0);
        sockaddr_storage from;
        uint32_t length = sizeof from;
        const int32_t accepted = keep(kestal_accept(listening, &from, &length, timeout));
        EXPECT_EQ(kestal_sockaddr_get_port(&from), port_of(connecting));
        EXPECT_EQ(kestal_send_message(connecting, timeout, "%s %lu", "hello", uint64_t{7}), 7);
        char text[8] = {};
        EXPECT_EQ(kestal_recv_fill(accepted, text, 7, timeout), 7);
        EXPECT_STREQ(text, "hello 7");
        EXPECT_EQ(kestal_shutdown_socket(connecting, SHUT_WR), 0);
        EXPECT_EQ(kestal_recv(accepted, text, 1, timeout), 0);
        EXPECT_EQ(kestal_shutdown_socket(accepted, 77), 0); // receiving only
        EXPECT_EQ(kestal_send(accepted, "x", 1, -1), 1);
        EXPECT_EQ(kestal_close_socket_ex(dup(accepted), 10000), 0);
    }
    EXPECT_EQ(kestal_close_socket_ex(-1, 0), -1);
    EXPECT_EQ(errno, EINVAL);

    // Nobody listens there any more.
    const int32_t closed = keep(kestal_open_socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(kestal_bind(closed, &(address.sin_port = 0, address), sizeof address), 0);
    kestal_sockaddr_set_port(&address, port_of(closed));
    for (const int32_t timeout : {-1, 0, 10000}) {
        const int32_t connecting = keep(kestal_open_socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(kestal_connect(connecting, &address, sizeof address, timeout), -1);
        EXPECT_TRUE(errno == ECONNREFUSED || (timeout == 0 && errno == EINPROGRESS)) << strerror(errno);
        EXPECT_EQ(fcntl(connecting, F_GETFL) & O_NONBLOCK, 0);
    }

    // A unix listener that is busy refuses for now, and looks connected to nobody but the system.
    const kestal_test::temporary_directory directory;
    sockaddr_un local;
    ASSERT_EQ(kestal_inet_ptos(AF_UNIX, directory.path("s").c_str(), 0, &local, sizeof local), 0);
    const int32_t busy = keep(kestal_open_socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(kestal_bind(busy, &local, sizeof local), 0);
    ASSERT_EQ(kestal_listen(busy, 0), 0);
    int32_t result = 0;
    for (int i = 0; i < 4 && result == 0; ++i)
        result = kestal_connect(keep(kestal_open_socket(AF_UNIX, SOCK_STREAM, 0)), &local, sizeof local, 50);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(sockets, count_time_outs_into_what_they_fill)
{
    const struct {
        int32_t sent;
        bool is_closed;
        uint64_t size;
        int32_t result;
    } cases[] = {
        {8, false, 8, 8},  {9, false, 8, 8},  {3, true, 8, 3},   {0, true, 8, 0},
        {0, false, 8, -2}, {5, false, 8, -1}, {6, false, 8, -2}, {0, false, 0, 0},
    };
    for (const auto &[sent, is_closed, size, result] : cases)
        for (const bool tells_sender : {false, true}) {
            const kestal_socket_pair_t ends = pair();
            char buffer[16] = {};
            EXPECT_EQ(kestal_send(ends.m_socket[0], "123456789", static_cast<uint64_t>(sent), -1), sent);
            if (is_closed)
                kestal_shutdown_socket(ends.m_socket[0], SHUT_WR);
            sockaddr_storage from;
            uint32_t length = sizeof from;
            EXPECT_EQ(tells_sender ? kestal_recvfrom_fill(ends.m_socket[1], buffer, size, &from, &length, 0)
                                   : kestal_recv_fill(ends.m_socket[1], buffer, size, 0),
                      result)
                << sent << " of " << size;
            EXPECT_EQ(memcmp(buffer, "123456789", static_cast<size_t>(std::min<int64_t>(sent, 8))), 0);
        }
    char byte;
    EXPECT_EQ(kestal_recv_fill(-1, &byte, 1, 0), -1);
}

TEST_F(sockets, may_be_pipes)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    keep(ends[0]);
    char text[8] = {};
    sockaddr_storage from;
    uint32_t length = sizeof from;
    EXPECT_EQ(kestal_recv(ends[0], text, 1, 10), -2);
    EXPECT_EQ(kestal_send(ends[1], "ab", 2, 1000), 2);
    EXPECT_EQ(kestal_sendto(ends[1], "cd", 2, &from, sizeof from, -1), 2);
    EXPECT_EQ(kestal_sys_send(ends[1], "e", 1, 0), 1);
    EXPECT_EQ(kestal_recv(ends[0], text, 2, -1), 2);
    EXPECT_EQ(kestal_recvfrom(ends[0], text + 2, 3, &from, &length, 1000), 3);
    EXPECT_EQ(length, 0u);
    EXPECT_STREQ(text, "abcde");
    close(ends[1]);
    EXPECT_EQ(kestal_recv(ends[0], text, 1, 1000), 0);

    // Without a reader: a failure, and no signal for the process, neither now nor later.
    signal(SIGPIPE, SIG_DFL);
    ASSERT_EQ(pipe(ends), 0);
    keep(ends[1]);
    close(ends[0]);
    EXPECT_EQ(kestal_send(ends[1], "x", 1, -1), -1);
    EXPECT_EQ(errno, EPIPE);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    const kestal_socket_pair_t over = pair(AF_INET);
    kestal_shutdown_socket(over.m_socket[0], SHUT_RDWR);
    EXPECT_EQ(kestal_send(over.m_socket[0], "x", 1, -1), -1);
}

TEST_F(sockets, take_options)
{
    const int32_t sock = keep(kestal_open_socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    const auto option = [sock](int32_t level, int32_t name) {
        int value = -7;
        uint32_t length = sizeof value;
        EXPECT_EQ(kestal_getsockopt(sock, level, name, &value, &length), 0);
        return value;
    };
    const struct {
        int32_t (*set)(int32_t, int32_t);
        int32_t level, name, on, off;
    } switches[] = {
        {kestal_set_reuse_address_socket, SOL_SOCKET, SO_REUSEADDR, 1, 0},
        {kestal_set_broadcast_socket, SOL_SOCKET, SO_BROADCAST, 1, 0},
        {kestal_set_pmtud_socket, IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DO, IP_PMTUDISC_DONT},
        {kestal_set_naggle_socket, IPPROTO_TCP, TCP_NODELAY, 1, 0},
    };
    for (const auto &[set, level, name, on, off] : switches) {
        EXPECT_EQ(set(-1, 1), -1);
        EXPECT_EQ(set(sock, 5), 0);
        EXPECT_EQ(option(level, name), on);
        EXPECT_EQ(set(sock, 0), 0);
        EXPECT_EQ(option(level, name), off);
    }
    EXPECT_EQ(kestal_set_tx_socket_buffer_size(sock, 30000), 0);
    EXPECT_EQ(option(SOL_SOCKET, SO_SNDBUF), 60000); // the system doubles it
    EXPECT_EQ(kestal_set_rx_socket_buffer_size(sock, 20000), 0);
    EXPECT_EQ(option(SOL_SOCKET, SO_RCVBUF), 40000);
    for (const int32_t on : {1, 0}) {
        linger value = {7, 7};
        uint32_t length = sizeof value;
        EXPECT_EQ(kestal_set_linger_socket(sock, on, 9), 0);
        EXPECT_EQ(kestal_getsockopt(sock, SOL_SOCKET, SO_LINGER, &value, &length), 0);
        EXPECT_EQ(std::pair(value.l_onoff, value.l_linger), std::pair(on, 9)); // switched off, the system keeps it
    }
    fcntl(sock, F_SETFL, O_ASYNC);
    EXPECT_EQ(kestal_set_non_block_socket(sock, 1), 0);
    EXPECT_EQ(fcntl(sock, F_GETFL) & (O_NONBLOCK | O_ASYNC), O_NONBLOCK | O_ASYNC);
    EXPECT_EQ(kestal_set_non_block_socket(sock, 0), 0);
    EXPECT_EQ(fcntl(sock, F_GETFL) & (O_NONBLOCK | O_ASYNC), O_ASYNC);
    const std::vector<int32_t> refused = {kestal_set_tx_socket_buffer_size(-1, 1),
                                          kestal_set_rx_socket_buffer_size(-1, 1),
                                          kestal_set_linger_socket(-1, 1, 1),
                                          kestal_set_non_block_socket(-1, 1),
                                          kestal_hops_socket(-1, 1, 0),
                                          kestal_hops_socket(sock, 256, 0),
                                          kestal_hops_socket(sock, -2, 0)};
    EXPECT_EQ(refused, std::vector<int32_t>(7, -1));

    for (const int32_t domain : {AF_INET, AF_INET6}) {
        if (kestal_check_inet_support(domain, SOCK_DGRAM, IPPROTO_UDP) != 0)
            continue;
        const int32_t datagram = keep(kestal_open_socket(domain, SOCK_DGRAM, IPPROTO_UDP));
        EXPECT_EQ(kestal_hops_socket(datagram, -1, 1), 1); // the default of multicast
        EXPECT_EQ(kestal_hops_socket(datagram, 33, 0), 0);
        EXPECT_EQ(kestal_hops_socket(datagram, 255, 1), 0);
        EXPECT_EQ(kestal_hops_socket(datagram, -1, 0), 33);
        EXPECT_EQ(kestal_hops_socket(datagram, -1, 1), 255);
    }
    EXPECT_EQ(kestal_hops_socket(pair().m_socket[0], -1, 0), 0);
}

TEST_F(sockets, come_in_pairs)
{
    for (const int32_t domain : {AF_UNIX, AF_INET, AF_INET6})
        for (const int32_t type : {SOCK_STREAM, SOCK_DGRAM}) {
            if (kestal_check_socket_support(domain, type, 0) != 0)
                continue;
            const kestal_socket_pair_t ends = pair(domain, type);
            char text[4] = {};
            EXPECT_EQ(kestal_send(ends.m_socket[0], "abc", 3, 1000), 3);
            EXPECT_EQ(kestal_recv(ends.m_socket[1], text, 3, 1000), 3);
            EXPECT_STREQ(text, "abc");
            EXPECT_EQ(kestal_send(ends.m_socket[1], "x", 1, -1), type == SOCK_STREAM || domain == AF_UNIX ? 1 : -1);
        }
    const std::tuple<int32_t, int32_t, int32_t> refused[] = {{AF_INET, SOCK_STREAM, IPPROTO_UDP},
                                                             {AF_INET, SOCK_DGRAM, 0},
                                                             {AF_INET, SOCK_RAW, IPPROTO_TCP},
                                                             {AF_APPLETALK, SOCK_STREAM, IPPROTO_TCP}};
    for (const auto &[domain, type, protocol] : refused) {
        kestal_socket_pair_t ends = {{3, 3}};
        EXPECT_EQ(kestal_socket_pair(domain, type, protocol, &ends), -1);
        EXPECT_EQ(ends.m_socket[0] + ends.m_socket[1], -2);
    }
    EXPECT_EQ(kestal_socket_pair(AF_UNIX, SOCK_STREAM, 0, nullptr), -1);
    kestal_socket_pair_t pipe;
    ASSERT_EQ(kestal_socket_pipe(&pipe), 0);
    EXPECT_EQ(kestal_send(keep(pipe.m_socket[0]), "x", 1, -1), 1);
    EXPECT_EQ(kestal_socket_pipe(nullptr), -1);
    char byte;
    EXPECT_EQ(kestal_recv(keep(pipe.m_socket[1]), &byte, 1, -1), 1);
    EXPECT_EQ(
        kestal_test::with_each_allocation_failing([&] { kestal_send_message(pipe.m_socket[0], -1, "%s", "text"); }),
        1u);
    EXPECT_EQ(kestal_send_message(pipe.m_socket[0], -1, nullptr), -1);
}

} // namespace
