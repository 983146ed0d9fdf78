// Connections to hosts, of an event on this machine, and of an opener and an event on a network and with names of the
// test's own.
#include "descriptors.hpp"
#include "namespaces.hpp"

#include <sys/socket.h>

namespace {

using kestal_test::owned_socket;

class event_connect : public kestal_test::descriptors_counted {};

constexpr uint32_t resolved = KESTAL_EVENT_RESOLVED, connecting = KESTAL_EVENT_CONNECTING,
                   connected = KESTAL_EVENT_CONNECTED, failed = KESTAL_EVENT_CONNECT_FAILED;

std::string peer_of(int32_t sock)
{
    sockaddr_storage peer = {};
    uint32_t length = sizeof peer;
    char text[KESTAL_ADDRESS_TEXT_SIZE];
    EXPECT_EQ(kestal_getpeername(sock, &peer, &length), 0);
    return kestal_inet_stop(&peer, text, sizeof text);
}

// What an event that connects to the host hears, and with whom, until it is connected or not to be.
struct attempt {
    uint32_t what = 0;
    std::string peer = "-";
    int32_t listener = -1; // one that the host stands for: sends a byte, which must be heard of as well

    static void handle(kestal_event_t *event, int32_t sock, uint32_t what, void *context)
    {
        auto *self = static_cast<attempt *>(context);
        EXPECT_EQ(self->what & what & failed, 0u) << "what failed is not tried again";
        self->what |= what & ~(KESTAL_EVENT_ASSIGNED | KESTAL_EVENT_UNASSIGNED);
        const bool is_connected = (what & connected) != 0;
        if (is_connected)
            self->peer = peer_of(sock);
        if (is_connected && self->listener >= 0)
            kestal_send(owned_socket(kestal_accept(self->listener, nullptr, nullptr, -1)), "x", 1, -1);
        else if ((what & failed) != 0)
            kestal_event_base_exit_loop(event->m_base, 0); // after one more look; without memory the time-out comes
        else if (is_connected || (what & (KESTAL_EVENT_READ | KESTAL_EVENT_TIMEOUT)) != 0)
            kestal_event_base_break_loop(event->m_base);
    }

    void run(kestal_event_base_t *base, const char *host, int32_t port, int32_t timeout_ms,
             const char *bind_address = nullptr, int32_t sock = -1)
    {
        kestal_event_t *event = kestal_new_event_with_resolver(
            base, sock, KESTAL_EVENT_CONNECT | KESTAL_EVENT_RESOLVE | KESTAL_EVENT_PERSIST | KESTAL_EVENT_READ, handle,
            this, bind_address, -1, host, port);
        if (kestal_add_event(event, timeout_ms) == 0) {
            EXPECT_EQ(kestal_event_pending(event, KESTAL_EVENT_CONNECT, nullptr), KESTAL_EVENT_CONNECT);
            kestal_event_base_dispatch(base);
        }
        if (event != nullptr)
            sock = event->m_descriptor;
        kestal_free_event(event);
        kestal_close_socket(sock);
    }
};

attempt connect_by_event(const char *host, int32_t port, int32_t timeout_ms)
{
    attempt heard;
    kestal_event_base_t *base = kestal_new_event_base();
    if (base != nullptr)
        heard.run(base, host, port, timeout_ms);
    kestal_free_event_base(base);
    return heard;
}

TEST_F(event_connect, tells_how_it_went)
{
    const kestal_test::temporary_directory directory;
    const std::string path = directory.path("socket"), silent = directory.path("silent");
    const owned_socket local(kestal_open_listen_socket(path.c_str(), 0));
    const char *any_local = kestal_check_ipv6_support() == 0 ? "::" : "127.0.0.1"; // "localhost" may be ::1 first
    const owned_socket server(kestal_open_listen_socket(any_local, 0));
    const int32_t port = server.port(), closed = owned_socket(kestal_open_listen_socket("127.0.0.1", 0)).port();
    const int32_t bound = kestal_open_socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_storage any = kestal_test::address_of("0.0.0.0");
    EXPECT_EQ(kestal_bind(bound, &any, sizeof(sockaddr_in)), 0);
    constexpr uint32_t done = resolved | connected | KESTAL_EVENT_READ;
    const struct {
        const char *bind_address, *host;
        int32_t port, listener;
        uint32_t what;
        int32_t sock;
    } cases[] = {
        {nullptr, "127.0.0.1", port, server, done, -1},
        {nullptr, "localhost", port, server, done, -1},
        {nullptr, "127.0.0.1", port, server, done, -1}, // by what was found before
        {"127.0.0.7", "127.0.0.1", port, server, done, -1},
        {nullptr, "127.0.0.1", port, server, done, bound},
        {nullptr, path.c_str(), 0, local, done, -1},
        {"127.0.0.1", "127.0.0.1", closed, -1, resolved | failed, -1},
        {"::1", "127.0.0.1", port, -1, resolved | failed, -1},       // another family
        {"192.0.2.1", "127.0.0.1", port, -1, resolved | failed, -1}, // not local
        {nullptr, "255.255.255.255", 80, -1, resolved | failed, -1}, // unreachable
        {nullptr, silent.c_str(), 0, -1, resolved | failed, -1},
        {nullptr, "no host\n", 80, -1, KESTAL_EVENT_TIMEOUT, -1}, // of a failed look-up nothing
    };
    kestal_event_base_t *base = kestal_new_event_base();
    for (const auto &[bind_address, host, to, listener, what, sock] : cases) {
        attempt heard{.listener = listener};
        heard.run(base, host, to, what == KESTAL_EVENT_TIMEOUT ? 300 : 20000, bind_address, sock);
        EXPECT_EQ(heard.what & ~connecting, what) << host; // a connection within the machine may be there at once
    }
    kestal_free_event_base(base);
}

TEST_F(event_connect, tries_one_address_after_the_other)
{
    // "second" begins with an address that datagrams can go to and connections cannot, "late" with one where nobody
    // listens: what the system's look-up can send nothing to, it would put last.
    kestal_test::with_hosts(
        "127.0.0.1 good\n127.0.0.2 closed\n10.1.1.1 unreachable\n10.9.9.7 second\n10.9.9.9 second\n"
        "10.9.9.8 late\n10.9.9.9 late\n",
        [](const auto &) {
            kestal_test::run("ip route add unreachable 10.1.1.1 && ip addr add 10.9.9.7/32 dev lo && "
                             "ip addr add 10.9.9.8/32 dev lo && ip addr add 10.9.9.9/32 dev lo && "
                             "ip rule add pref 2 lookup local && ip rule del pref 0 && "
                             "ip rule add pref 1 to 10.9.9.7 ipproto tcp unreachable");
            const owned_socket good(kestal_open_listen_socket("127.0.0.1", 0));
            const int32_t port = good.port();
            const owned_socket second(kestal_open_listen_socket("10.9.9.9", port));
            const struct {
                const char *host, *peer;
                int error;     // of the opener; 0: connected
                uint32_t what; // that the event hears, besides being resolved
                const char *event_peer;
            } cases[] = {{"good", "127.0.0.1", 0, connecting | connected, "127.0.0.1"},
                         {"second", "10.9.9.9", 0, connecting | connected, "10.9.9.9"},
                         {"late", "10.9.9.9", 0, connecting | failed, "-"},
                         {"closed", "-", ECONNREFUSED, connecting | failed, "-"},
                         {"unreachable", "-", EHOSTUNREACH, failed, "-"},
                         {"10.1.1.1", "-", EHOSTUNREACH, failed, "-"},
                         {"127.0.0.2", "-", ECONNREFUSED, connecting | failed, "-"}};
            for (const auto &[host, peer, error, what, event_peer] : cases) {
                errno = 0;
                const int32_t sock = kestal_open_connect_socket(host, port, 10000);
                EXPECT_EQ(sock < 0 ? "-" : peer_of(sock), peer) << host;
                EXPECT_EQ(sock < 0 ? errno : 0, error) << host;
                kestal_close_socket(sock);
                const attempt heard = connect_by_event(host, port, 20000);
                EXPECT_EQ(heard.what, resolved | what) << host;
                EXPECT_EQ(heard.peer, event_peer) << host;
            }
            EXPECT_EQ(connect_by_event("nobody", port, 200).what, KESTAL_EVENT_TIMEOUT);
            EXPECT_EQ(kestal_open_connect_socket_ex(AF_INET6, nullptr, 0, "good", port, 1000), -1);

            kestal_resolver_t *list = kestal_open_resolver("second", 1);
            EXPECT_STREQ(list->m_text, "10.9.9.7");
            kestal_close_resolver(list);
            const kestal_test::caught_assertions reports;
            const kestal_test::caught_errors errors;
            EXPECT_GE(kestal_test::with_each_allocation_failing(
                          [=] { kestal_close_socket(kestal_open_connect_socket("second", port, 10000)); }),
                      4u);
            EXPECT_GE(kestal_test::with_each_allocation_failing([=] { connect_by_event("second", port, 50); }), 10u);
        });
}

} // namespace
