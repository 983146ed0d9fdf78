#include "descriptors.hpp"

#include <csignal>
#include <deque>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <unistd.h>

using kestal_test::address_of;
using kestal_test::owned_socket;
using kestal_test::port_of;

namespace {

class sockets : public kestal_test::descriptors_counted {
protected:
    void TearDown() override
    {
        opened_.clear();
        descriptors_counted::TearDown();
    }

    int32_t keep(int32_t sock) { return opened_.emplace_back(sock); }
    int32_t stream(int32_t domain = AF_INET) { return keep(kestal_open_socket(domain, SOCK_STREAM, 0)); }

    kestal_socket_pair_t pair(int32_t domain = AF_UNIX, int32_t type = SOCK_STREAM)
    {
        kestal_socket_pair_t ends;
        EXPECT_EQ(kestal_socket_pair(domain, type, type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP, &ends), 0);
        keep(ends.m_socket[0]);
        keep(ends.m_socket[1]);
        return ends;
    }

    // A listener on the address, which gets its port.
    int32_t listener(int32_t backlog, sockaddr_storage &address)
    {
        const int32_t sock = stream(address.ss_family);
        EXPECT_EQ(kestal_bind(sock, &address, kestal_sockaddr_size(&address)), 0);
        EXPECT_EQ(kestal_listen(sock, backlog), 0);
        kestal_sockaddr_set_port(&address, address.ss_family == AF_INET ? port_of(sock) : 0);
        return sock;
    }

    std::deque<owned_socket> opened_;
};

TEST_F(sockets, know_protocols_services_and_the_host)
{
    EXPECT_EQ(kestal_get_protocol_by_name("udp"), 17);
    EXPECT_EQ(kestal_get_protocol_by_name("nosuch") & kestal_get_protocol_by_name(nullptr), -1);
    EXPECT_STREQ(kestal_get_name_by_protocol(6), "tcp");
    EXPECT_EQ(kestal_get_name_by_protocol(253), nullptr);
    EXPECT_EQ(kestal_get_service_by_name(nullptr, "udp"), -1);
    EXPECT_EQ(kestal_get_service_by_name("no such", "udp"), 0);
    for (const int32_t port : {-1, 65536 + 80})
        EXPECT_EQ(kestal_get_name_by_service(port, nullptr), nullptr);
    if (access("/etc/services", R_OK) == 0) {
        EXPECT_EQ(kestal_get_service_by_name("tftp", "udp"), 69);
        EXPECT_STREQ(kestal_get_name_by_service(80, nullptr), "http");
    }
    char system[256];
    gethostname(system, sizeof system);
    EXPECT_EQ(kestal_test::owned(kestal_get_hostname_alloc()), system);
    EXPECT_EQ(kestal_check_ipv4_support() | kestal_check_unix_domain_socket_support(), 0);
    EXPECT_EQ(kestal_check_ipv6_support(), kestal_check_inet_support(AF_INET6, SOCK_DGRAM, IPPROTO_UDP));
    EXPECT_EQ(kestal_check_socket_support(AF_INET, SOCK_STREAM, IPPROTO_UDP), -1);
}

TEST_F(sockets, tell_time_outs_apart)
{
    const auto [ends] = pair();
    char buffer[65536] = {};
    for (const int32_t timeout : {0, 20}) {
        errno = 0;
        EXPECT_EQ(kestal_recv(ends[1], buffer, 8, timeout), -2);
        EXPECT_EQ(errno, ETIMEDOUT);
    }
    kestal_set_non_block_socket(ends[0], 1);
    while (kestal_send(ends[0], buffer, sizeof buffer, -1) > 0)
        ;
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(kestal_send(ends[0], buffer, 1, 20), 0);
    EXPECT_EQ(kestal_recv(-1, buffer, 1, 0) & kestal_send(-1, buffer, 1, 0), -1);
    EXPECT_EQ(errno, EBADF);

    sockaddr_storage address = address_of("127.0.0.1");
    EXPECT_EQ(kestal_accept(listener(0, address), nullptr, nullptr, 20), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    // The backlog fills, and the next one waits in vain. A unix listener refuses for now, which must not look connected.
    const kestal_test::temporary_directory directory;
    sockaddr_storage local = address_of(directory.path("s"));
    listener(0, local);
    for (const auto &[full, error] : {std::pair(&address, ETIMEDOUT), {&local, EAGAIN}}) {
        while (kestal_connect(stream(full->ss_family), full, kestal_sockaddr_size(full), 60) == 0)
            ;
        EXPECT_EQ(errno, error);
    }
}

TEST_F(sockets, connect_and_accept)
{
    sockaddr_storage address = address_of("127.0.0.1"), from;
    uint32_t length = sizeof from;
    const int32_t listening = listener(5, address);
    const owned_socket closed(kestal_test::bound_socket());
    const sockaddr_storage silent = address_of("127.0.0.1:" + std::to_string(closed.port()));
    for (const int32_t timeout : {-1, 10000}) {
        const int32_t connecting = keep(kestal_open_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
        EXPECT_EQ(fcntl(connecting, F_GETFD), 0); // bits above 16 do not count
        EXPECT_EQ(kestal_connect(connecting, &address, sizeof(sockaddr_in), timeout), 0);
        EXPECT_EQ(fcntl(connecting, F_GETFL) & O_NONBLOCK, 0);
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
        EXPECT_EQ(kestal_connect(stream(), &silent, sizeof(sockaddr_in), timeout), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
    }
    EXPECT_EQ(kestal_close_socket_ex(-1, 0), -1);
}

TEST_F(sockets, count_time_outs_into_what_they_fill)
{
    const struct {
        int32_t sent;
        bool is_closed;
        uint64_t size;
        int32_t result;
    } cases[] = {{9, false, 8, 8},  {3, true, 8, 3},   {0, true, 8, 0}, {0, false, 8, -2},
                 {5, false, 8, -1}, {6, false, 8, -2}, {0, false, 0, 0}};
    char buffer[16] = {};
    for (const auto &[sent, is_closed, size, result] : cases) {
        const auto [ends] = pair();
        EXPECT_EQ(kestal_send(ends[0], "123456789", static_cast<uint64_t>(sent), -1), sent);
        if (is_closed)
            kestal_shutdown_socket(ends[0], SHUT_WR);
        EXPECT_EQ(kestal_recv_fill(ends[1], buffer, size, 0), result) << sent << " of " << size;
        EXPECT_EQ(memcmp(buffer, "123456789", static_cast<size_t>(std::min(sent, 8))), 0);
    }
    // A sender without a name leaves room for the name of the next.
    sockaddr_storage from = {};
    uint32_t length = sizeof from;
    const sa_family_t any_name = AF_UNIX;
    const auto datagrams = [this] { return keep(kestal_open_socket(AF_UNIX, SOCK_DGRAM, 0)); };
    const int32_t receiver = datagrams(), nameless = datagrams(), named = datagrams();
    for (const int32_t sock : {receiver, named})
        EXPECT_EQ(kestal_bind(sock, &any_name, sizeof any_name), 0);
    EXPECT_EQ(kestal_getsockname(receiver, &from, &length), 0);
    for (const int32_t sender : {nameless, named})
        EXPECT_EQ(kestal_sendto_message(sender, -1, &from, length, "%d", 1), 1);
    from = {};
    length = sizeof from;
    EXPECT_EQ(kestal_recvfrom_fill(receiver, buffer, 3, &from, &length, 0), 2 - 2 - 2);
    EXPECT_EQ(from.ss_family, AF_UNIX);
}

TEST_F(sockets, may_be_pipes_and_terminals)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    keep(ends[0]);
    char text[8] = {};
    sockaddr_storage from;
    uint32_t length = sizeof from;
    EXPECT_EQ(kestal_recv(ends[0], text, 1, 10), -2);
    EXPECT_EQ(kestal_sendto(ends[1], "ab", 2, &from, sizeof from, -1), 2);
    EXPECT_EQ(kestal_sys_send(ends[1], "c", 1, 0), 1);
    EXPECT_EQ(kestal_recvfrom(ends[0], text, 3, &from, &length, 10000), 3);
    EXPECT_EQ(length, 0u);
    EXPECT_STREQ(text, "abc");
    close(ends[1]);
    EXPECT_EQ(kestal_recv(ends[0], text, 1, 10000), 0);

    const int32_t terminal = keep(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_EQ(grantpt(terminal) | unlockpt(terminal), 0);
    const int32_t user = keep(open(ptsname(terminal), O_RDWR | O_NOCTTY));
    EXPECT_EQ(kestal_recv(user, text, 8, 0), -2);
    EXPECT_EQ(kestal_send(terminal, "line\n", 5, 10000), 5);
    EXPECT_EQ(kestal_recv(user, text, 8, 10000), 5);

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
    const auto [over] = pair(AF_INET);
    kestal_shutdown_socket(over[0], SHUT_RDWR);
    EXPECT_EQ(kestal_send(over[0], "x", 1, -1), -1);
}

TEST_F(sockets, take_options)
{
    const int32_t sock = stream();
    const auto set_linger = [](int32_t to, int32_t on) { return kestal_set_linger_socket(to, on, 9); };
    const struct {
        int32_t (*set)(int32_t, int32_t);
        int32_t level, name, on, off; // what 20000 and 0 make of it
    } cases[] = {
        {kestal_set_reuse_address_socket, SOL_SOCKET, SO_REUSEADDR, 1, 0},
        {kestal_set_broadcast_socket, SOL_SOCKET, SO_BROADCAST, 1, 0},
        {kestal_set_pmtud_socket, IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DO, IP_PMTUDISC_DONT},
        {kestal_set_naggle_socket, IPPROTO_TCP, TCP_NODELAY, 1, 0},
        {set_linger, SOL_SOCKET, SO_LINGER, 1, 0},
    };
    for (const auto &[set, level, name, on, off] : cases)
        for (const int32_t value : {20000, 0}) {
            linger found = {-7, 9};
            uint32_t length = sizeof found;
            EXPECT_EQ(set(-1, value), -1);
            EXPECT_EQ(set(sock, value), 0);
            EXPECT_EQ(kestal_getsockopt(sock, level, name, &found, &length), 0);
            EXPECT_EQ(found.l_onoff, value != 0 ? on : off) << level << " " << name;
            EXPECT_EQ(found.l_linger, 9); // switched off, the system keeps it
        }
    EXPECT_EQ(kestal_set_tx_socket_buffer_size(sock, 20000) | kestal_set_rx_socket_buffer_size(sock, 20000), 0);
    EXPECT_EQ(kestal_hops_socket(-1, 1, 0) & kestal_hops_socket(sock, 256, 0) & kestal_hops_socket(sock, -2, 0), -1);
    EXPECT_EQ(kestal_hops_socket(pair().m_socket[0], -1, 0), 0);
    for (const int32_t domain : {AF_INET, AF_INET6}) {
        if (kestal_check_inet_support(domain, SOCK_DGRAM, IPPROTO_UDP) != 0)
            continue;
        const int32_t datagram = keep(kestal_open_socket(domain, SOCK_DGRAM, IPPROTO_UDP));
        EXPECT_EQ(kestal_hops_socket(datagram, 33, 0) | kestal_hops_socket(datagram, 255, 1), 0);
        EXPECT_EQ(kestal_hops_socket(datagram, -1, 0), 33);
        EXPECT_EQ(kestal_hops_socket(datagram, -1, 1), 255);
    }
}

TEST_F(sockets, come_in_pairs)
{
    char text[4] = {};
    for (const int32_t domain : {AF_UNIX, AF_INET, AF_INET6})
        for (const int32_t type : {SOCK_STREAM, SOCK_DGRAM}) {
            if (kestal_check_socket_support(domain, type, 0) != 0)
                continue;
            const auto [ends] = pair(domain, type);
            EXPECT_EQ(kestal_send(ends[0], "abc", 3, 10000), 3);
            EXPECT_EQ(kestal_recv(ends[1], text, 3, 10000), 3);
            EXPECT_STREQ(text, "abc");
            EXPECT_EQ(kestal_send(ends[1], "x", 1, -1), type == SOCK_STREAM || domain == AF_UNIX ? 1 : -1);
        }
    for (const auto &[domain, type, protocol] : {std::tuple(AF_INET, SOCK_STREAM, IPPROTO_UDP),
                                                 {AF_INET, SOCK_DGRAM, IPPROTO_IP},
                                                 {AF_APPLETALK, SOCK_STREAM, IPPROTO_TCP}}) {
        kestal_socket_pair_t ends = {{3, 3}};
        EXPECT_EQ(kestal_socket_pair(domain, type, protocol, &ends), -1);
        EXPECT_EQ(ends.m_socket[0] + ends.m_socket[1], -2);
    }
    kestal_socket_pair_t pipe;
    ASSERT_EQ(kestal_socket_pipe(&pipe), 0);
    const int32_t sending = keep(pipe.m_socket[0]);
    keep(pipe.m_socket[1]);
    EXPECT_EQ(kestal_test::with_each_allocation_failing([=] { kestal_send_message(sending, -1, "%s", "text"); }), 1u);
    EXPECT_EQ(kestal_send_message(sending, -1, nullptr) & kestal_recv_fill(-1, text, 1, 0), -1);
    EXPECT_EQ(kestal_socket_pair(AF_UNIX, SOCK_STREAM, 0, nullptr) & kestal_socket_pipe(nullptr), -1);
}

} // namespace
