// Connections to hosts by name, of an opener and of an event, on a network and with names of the test's own.
#include "descriptors.hpp"
#include "namespaces.hpp"

namespace {

using kestal_test::owned_socket;

class connecting_by_name : public kestal_test::descriptors_counted {};

constexpr uint32_t resolved = KESTAL_EVENT_RESOLVED;
constexpr uint32_t connecting = KESTAL_EVENT_CONNECTING;
constexpr uint32_t connected = KESTAL_EVENT_CONNECTED;
constexpr uint32_t failed = KESTAL_EVENT_CONNECT_FAILED;

struct told {
    kestal_event_base_t *base;
    uint32_t what = 0;
    std::string peer = "-";

    static void handler(kestal_event_t *, int32_t sock, uint32_t what, void *context)
    {
        auto *self = static_cast<told *>(context);
        self->what |= what & ~(KESTAL_EVENT_ASSIGNED | KESTAL_EVENT_UNASSIGNED);
        if ((what & connected) != 0)
            self->peer = peer_of(sock);
        // Without memory the loop goes on, to the next time-out.
        if ((what & (connected | failed | KESTAL_EVENT_TIMEOUT)) != 0)
            kestal_event_base_exit_loop(self->base, 0);
    }

    static std::string peer_of(int32_t sock)
    {
        sockaddr_storage peer = {};
        uint32_t length = sizeof peer;
        char text[KESTAL_ADDRESS_TEXT_SIZE];
        EXPECT_EQ(kestal_getpeername(sock, &peer, &length), 0);
        return kestal_inet_stop(&peer, text, sizeof text);
    }
};

// What an event that connects to the host hears, and with whom.
std::pair<uint32_t, std::string> connect_by_event(const char *host, int32_t port, int32_t timeout_ms)
{
    told heard{kestal_new_event_base()};
    if (heard.base == nullptr)
        return {};
    kestal_event_t *event = kestal_new_event_with_resolver(
        heard.base, -1, KESTAL_EVENT_CONNECT | KESTAL_EVENT_RESOLVE | KESTAL_EVENT_PERSIST, told::handler, &heard,
        nullptr, -1, host, port);
    if (kestal_add_event(event, timeout_ms) == 0)
        kestal_event_base_dispatch(heard.base);
    const int32_t sock = event == nullptr ? -1 : event->m_descriptor;
    kestal_free_event(event);
    kestal_close_socket(sock);
    kestal_free_event_base(heard.base);
    return {heard.what, heard.peer};
}

TEST_F(connecting_by_name, tries_one_address_after_the_other)
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
                EXPECT_EQ(sock < 0 ? "-" : told::peer_of(sock), peer) << host;
                EXPECT_EQ(sock < 0 ? errno : 0, error) << host;
                kestal_close_socket(sock);
                EXPECT_EQ(connect_by_event(host, port, 20000), std::pair(resolved | what, std::string(event_peer)))
                    << host;
            }
            EXPECT_EQ(connect_by_event("nobody", port, 200).first, KESTAL_EVENT_TIMEOUT);
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
