#include "descriptors.hpp"
#include "namespaces.hpp"

#include <net/if.h>
#include <unistd.h>

using kestal_test::caught_errors;
using kestal_test::owned_socket;

namespace {

using namespace std::string_literals;

class stream_socket : public kestal_test::descriptors_counted {
protected:
    void TearDown() override
    {
        kestal_destroy_ctx(id_);
        descriptors_counted::TearDown();
    }

    // The kind of the context opened on the location, or -1 - last error.
    int32_t open(const std::string &location, const char *missed_time = nullptr)
    {
        kestal_destroy_ctx(id_);
        id_ = kestal_new_ctx();
        kestal_ctx_set_option_string(id_, 1, "src", location.c_str());
        kestal_ctx_set_option_string(id_, 1, "debug", missed_time == nullptr ? "0" : "1");
        if (missed_time != nullptr)
            kestal_ctx_set_option_string(id_, 1, "missed_time", missed_time);
        errno = 0;
        const auto *record = static_cast<const kestal_ctx_t *>(kestal_ginstance_search(id_, nullptr));
        if (kestal_open_ctx(id_, "application/ulx_stream") == 0)
            return record->m_kind;
        return record == nullptr ? -1 : -1 - static_cast<int32_t>(record->m_last_error);
    }

    std::string read()
    {
        char text[64] = {};
        const int64_t length = kestal_ctx_read(id_, text, sizeof text - 1);
        return length < 0 ? "failed" : text;
    }

    uint32_t id_ = KESTAL_INVALID_ID;
};

TEST_F(stream_socket, reads_and_writes_connections)
{
    const owned_socket listening(kestal_open_listen_socket("127.0.0.1", 0));
    const std::string location = "tcp://127.0.0.1:" + std::to_string(listening.port()) + "/any/path";
    ASSERT_EQ(open(location), 106);
    {
        const owned_socket peer(kestal_accept(listening, nullptr, nullptr, 10000));
        EXPECT_EQ(kestal_ctx_is_readable(id_, 10), 0);
        EXPECT_EQ(kestal_ctx_is_writable(id_, 10000), 1);
        EXPECT_EQ(kestal_ctx_puts(id_, "question"), 8);
        char text[16] = {};
        EXPECT_EQ(kestal_recv_fill(peer, text, 8, 10000), 8);
        EXPECT_STREQ(text, "question");
        EXPECT_EQ(kestal_send(peer, "answer", 6, -1), 6);
        EXPECT_EQ(kestal_ctx_is_readable(id_, 10000), 1);
        EXPECT_EQ(read(), "answer");
        EXPECT_EQ(kestal_ctx_seek(id_, 0, 0), -1);
    }
    EXPECT_EQ(kestal_ctx_is_readable(id_, 10000), 1);
    EXPECT_EQ(read(), "");
    id_ = kestal_destroy_ctx(id_);
    kestal_test::with_each_allocation_failing([&] {
        open(location);
        id_ = kestal_destroy_ctx(id_);
    });
    const owned_socket silent(kestal_test::bound_socket());
    for (const std::string &refused : {"tcp://127.0.0.1:" + std::to_string(silent.port()), "tcp://127.0.0.1/"s,
                                       "tcp://127.0.0.1:65536"s, "tcp://:80"s, "udp://127.0.0.1"s})
        EXPECT_EQ(open(refused), -2) << refused;

    // A descriptor given stays open.
    kestal_socket_pair_t ends;
    ASSERT_EQ(kestal_socket_pipe(&ends), 0);
    kestal_ctx_set_option_int_string(id_, 1, "fd", ends.m_socket[0]);
    EXPECT_EQ(kestal_open_ctx(id_, "application/ulx_stream_tcp"), 0);
    kestal_close_ctx(id_);
    EXPECT_EQ(kestal_close_socket(ends.m_socket[0]) + kestal_close_socket(ends.m_socket[1]), 0);
}

TEST_F(stream_socket, reads_datagrams_of_a_port)
{
    const owned_socket held(kestal_open_udp_socket(nullptr, -1)); // the port; the socket opened last gets what comes
    for (const std::string host : {"127.0.0.1", ""}) {
        const std::string location = "udp://" + host + ":" + std::to_string(held.port());
        ASSERT_EQ(open(location, "5"), 105);
        const caught_errors errors;
        kestal_ctx_set_option_string(id_, 1, "src", "another"); // told as it is then
        EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 0);
        EXPECT_EQ(errors.text().substr(0, errors.text().rfind(", ")),
                  "wait udp stream ! (mime_type=\"\033[1;37mapplication/ulx_stream\033[0m\", "
                  "url=\"\033[1;32manother\033[0m\"");
        for (const char *text : {"one", "two"})
            EXPECT_EQ(kestal_send_udp_packet("127.0.0.1", held.port(), text, 3, 10000), 3);
        EXPECT_EQ(kestal_ctx_is_readable(id_, 10000), 1);
        EXPECT_EQ(read(), "one");
        EXPECT_EQ(read(), "two");
        EXPECT_EQ(kestal_ctx_write(id_, "x", 1), -1);
    }
}

TEST_F(stream_socket, joins_a_silent_group_again)
{
    kestal_test::in_own_network([this] {
        const kestal_test::other_network other;
        const auto link = [&other] {
            kestal_test::run("ip link add v0 type veth peer name v1 netns " + other.path() +
                             " && ip link set v0 up && ip addr add 10.1.0.1/24 dev v0 && "
                             "ip addr add fd01::1/64 dev v0 nodad");
            other.run([] {
                kestal_test::run("ip link set v1 up && ip addr add 10.1.0.2/24 dev v1 && "
                                 "ip addr add fd01::2/64 dev v1 nodad");
            });
        };
        kestal_test::run("sysctl -qw net.ipv4.igmp_max_memberships=2"); // lo and one more
        link();
        for (const auto &[name, to, from] :
             {std::tuple("239.1.2.3", "239.1.2.3", "10.1.0.2"), {"ff15::7", "ff15::7%v1", "fd01::2"}}) {
            const sockaddr_storage group = kestal_test::address_of(name), sender = kestal_test::address_of(from);
            const std::string url = std::string("udp://") + (*name == 'f' ? "[ff15::7]" : name) + ":5000";
            const auto send = [&, to = to, from = from](const char *text) {
                other.run([&] { EXPECT_EQ(kestal_send_udp_packet_ex(0, from, -1, to, 5000, 3, text, 5, 1000), 5); });
            };
            const auto exchange = [&](const char *text) {
                send(text);
                ASSERT_EQ(kestal_ctx_is_readable(id_, 10000), 1);
                EXPECT_EQ(read(), text);
            };
            const int32_t sock = dup(0); // the number that the stream's socket gets
            kestal_close_socket(sock);
            ASSERT_EQ(open(url, "60000"), 105);
            kestal_test::advance_clock(30000); // data ends a silence
            exchange("first");
            const uint32_t gone = if_nametoindex("v0");
            kestal_test::run("ip link del v0");
            link();
            send("lost.");
            kestal_test::advance_clock(50000);
            const caught_errors errors;
            EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 0);
            EXPECT_NE(errors.text().find("\033[0m\", 5"), std::string::npos)
                << errors.text(); // seconds, on a busy machine some more
            kestal_test::advance_clock(10000);
            EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 0);
            errors.wait_for("need multicast stream ! (mime_type=\"\033[1;37mapplication/ulx_stream\033[0m\", "
                            "url=\"\033[1;32m" +
                            url + "\033[0m\")\n");
            EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 0); // joined just now
            errors.wait_for("wait udp", 2);
            exchange("again");
            EXPECT_EQ(kestal_multicast_join(sock, &group, nullptr, gone, 0), -1) << "the system counts it no longer";
            // What is a member still leaves first, and what it had blocked with it.
            EXPECT_EQ(kestal_multicast_block_source_all(sock, &group, &sender, 1), 0);
            kestal_test::advance_clock(60000);
            EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 0);
            exchange("fresh");
            id_ = kestal_destroy_ctx(id_);
        }
    });
}

} // namespace
