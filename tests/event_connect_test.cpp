// Connections to hosts, of an opener and of an event, on a network and with names of the test's own.
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

// What an event that connects to a host hears, and with whom, until it is connected or not to be.
struct attempt {
    int32_t listener; // one that the host may stand for: sends a byte, which must be heard of as well
    uint32_t what = 0;
    std::string peer = "-";

    static void handle(kestal_event_t *event, int32_t sock, uint32_t what, void *context)
    {
        auto *self = static_cast<attempt *>(context);
        EXPECT_EQ(self->what & what & failed, 0u) << "what failed is not tried again";
        self->what |= what & ~(KESTAL_EVENT_ASSIGNED | KESTAL_EVENT_UNASSIGNED);
        if ((what & connected) != 0) {
            self->peer = peer_of(sock);
            const int32_t accepted = kestal_accept(self->listener, nullptr, nullptr, 10000);
            kestal_send(accepted, "x", 1, -1);
            kestal_close_socket(accepted);
        } else if ((what & failed) != 0) {
            kestal_event_base_exit_loop(event->m_base, 0); // after one more look; without memory the time-out comes
        } else if ((what & (KESTAL_EVENT_READ | KESTAL_EVENT_TIMEOUT)) != 0) {
            kestal_event_base_break_loop(event->m_base);
        }
    }

    void run(const char *bind_address, const char *host, int32_t port, int32_t timeout_ms)
    {
        kestal_event_base_t *base = kestal_new_event_base();
        kestal_event_t *event = kestal_new_event_with_resolver(
            base, -1, KESTAL_EVENT_CONNECT | KESTAL_EVENT_RESOLVE | KESTAL_EVENT_PERSIST | KESTAL_EVENT_READ, handle,
            this, bind_address, -1, host, port);
        if (base != nullptr && kestal_add_event(event, timeout_ms) == 0) {
            EXPECT_EQ(kestal_event_pending(event, KESTAL_EVENT_CONNECT, nullptr), KESTAL_EVENT_CONNECT);
            kestal_event_base_dispatch(base);
        }
        const int32_t sock = event == nullptr ? -1 : event->m_descriptor;
        kestal_free_event(event);
        kestal_close_socket(sock);
        kestal_free_event_base(base);
    }
};

TEST_F(event_connect, tells_how_it_went)
{
    // "second" begins with an address that datagrams can go to and connections cannot, "late" with one where nobody
    // listens: what the system's look-up can send nothing to, it would put last.
    kestal_test::with_hosts(
        "127.0.0.1 good\n10.1.1.1 unreachable\n10.9.9.7 second\n10.9.9.9 second\n10.9.9.8 late\n10.9.9.9 late\n",
        [](const auto &) {
            kestal_test::run("ip route add unreachable 10.1.1.1 && ip addr add 10.9.9.7/32 dev lo && "
                             "ip addr add 10.9.9.8/32 dev lo && ip addr add 10.9.9.9/32 dev lo && "
                             "ip rule add pref 2 lookup local && ip rule del pref 0 && "
                             "ip rule add pref 1 to 10.9.9.7 ipproto tcp unreachable");
            const kestal_test::temporary_directory directory;
            const std::string path = directory.path("socket"), silent = directory.path("silent");
            const owned_socket good(kestal_open_listen_socket("127.0.0.1", 0));
            const owned_socket local(kestal_open_listen_socket(path.c_str(), 0));
            const int32_t port = good.port();
            const owned_socket second(kestal_open_listen_socket("10.9.9.9", port));
            const struct {
                const char *bind_address, *host, *peer;
                int error, listener; // of the opener, 0: connected; whom the event reaches
                uint32_t what;       // that the event hears
            } cases[] = {
                {nullptr, "good", "127.0.0.1", 0, good, resolved | connected | KESTAL_EVENT_READ},
                {"127.0.0.7", "127.0.0.1", "127.0.0.1", 0, good, resolved | connected | KESTAL_EVENT_READ},
                {nullptr, path.c_str(), path.c_str(), 0, local, resolved | connected | KESTAL_EVENT_READ},
                {nullptr, "second", "10.9.9.9", 0, second, resolved | connected | KESTAL_EVENT_READ},
                {nullptr, "late", "10.9.9.9", 0, -1, resolved | failed},
                {nullptr, "127.0.0.2", "-", ECONNREFUSED, -1, resolved | failed},
                {nullptr, silent.c_str(), "-", ENOENT, -1, resolved | failed},
                {"::1", "127.0.0.1", "-", EADDRNOTAVAIL, -1, resolved | failed},       // another family
                {"192.0.2.1", "127.0.0.1", "-", EADDRNOTAVAIL, -1, resolved | failed}, // not local
                {nullptr, "unreachable", "-", EHOSTUNREACH, -1, resolved | failed},
            };
            for (const auto &[bind_address, host, peer, error, listener, what] : cases) {
                const int32_t sock = kestal_open_connect_socket_ex(0, bind_address, 0, host, port, 10000);
                EXPECT_EQ(sock < 0 ? errno : 0, error) << host;
                EXPECT_EQ(sock < 0 ? "-" : peer_of(sock), peer) << host;
                kestal_close_socket(listener < 0 || sock < 0 ? -1 : kestal_accept(listener, nullptr, nullptr, 10000));
                kestal_close_socket(sock);
                attempt heard{.listener = listener};
                heard.run(bind_address, host, port, 20000);
                EXPECT_EQ(heard.what & ~connecting, what) << host; // a connection may be there at once
                EXPECT_EQ(heard.peer, listener < 0 ? "-" : peer) << host;
            }
            attempt unknown{.listener = -1}; // of a failed look-up it hears nothing
            unknown.run(nullptr, "nobody", port, 200);
            EXPECT_EQ(unknown.what, KESTAL_EVENT_TIMEOUT);
            const kestal_test::caught_assertions reports;
            const kestal_test::caught_errors errors;
            EXPECT_GE(kestal_test::with_each_allocation_failing(
                          [=] { kestal_close_socket(kestal_open_connect_socket("second", port, 10000)); }),
                      4u);
            EXPECT_GE(kestal_test::with_each_allocation_failing([&] {
                          attempt heard{.listener = second};
                          heard.run(nullptr, "second", port, 50);
                      }),
                      10u);
        });
}

} // namespace
