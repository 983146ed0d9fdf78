#include "descriptors.hpp"
#include "namespaces.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <net/if.h>

using kestal_test::address_of;
using kestal_test::in_own_network;
using kestal_test::other_network;
using kestal_test::port_of;
using kestal_test::run;

namespace {

class multicast : public kestal_test::descriptors_counted {};

// Interfaces "va" and "vb" here, each linked to its like in another network, which sends from it.
class links {
public:
    links()
    {
        for (const char *name : {"va", "vb"}) {
            const std::string here = name;
            const std::string net = here == "va" ? "1" : "2";
            run("ip link add " + here + " type veth peer name " + here + "x netns " + other_.process() +
                " && ip link set " + here + " up && ip addr add 10." + net + ".0.1/24 dev " + here +
                " && ip addr add fd0" + net + "::1/64 dev " + here + " nodad");
            other_.run([&] {
                run("ip link set " + here + "x up && ip addr add 10." + net + ".0.2/24 dev " + here +
                    "x && ip addr add 10." + net + ".0.3/24 dev " + here + "x && ip addr add fd0" + net +
                    "::2/64 dev " + here + "x nodad && ip addr add fd0" + net + "::3/64 dev " + here + "x nodad");
            });
        }
    }

    // Sends the sender's own address to the group, from each address in turn.
    void send(int32_t sock, const char *group, const std::vector<const char *> &senders) const
    {
        const auto port = static_cast<int32_t>(port_of(sock));
        other_.run([&] {
            for (const char *sender : senders)
                EXPECT_GT(kestal_send_udp_packet_ex(0, sender, -1, (group + scope_of(sender)).c_str(), port, 3, sender,
                                                    strlen(sender), 1000),
                          0)
                    << sender << " to " << group;
        });
    }

private:
    // IPv6 needs to be told by which interface.
    static std::string scope_of(const std::string &sender)
    {
        return sender.rfind("fd01", 0) == 0 ? "%vax" : sender.rfind("fd02", 0) == 0 ? "%vbx" : "";
    }

    other_network other_;
};

// What comes, up to the text `last`.
std::string received(int32_t sock, const std::string &last)
{
    std::string all;
    for (;;) {
        char text[64] = {};
        if (kestal_recv(sock, text, sizeof text - 1, 5000) <= 0)
            return all + "(nothing more)";
        all += text + std::string(" ");
        if (text == last)
            return all;
    }
}

void with_links(const std::function<void(const links &)> &scenario)
{
    in_own_network([&] { scenario(links()); });
}

TEST_F(multicast, comes_by_the_interfaces_that_were_joined)
{
    with_links([](const links &net) {
        const struct {
            int32_t family;
            const char *any, *text;
            std::vector<const char *> senders; // on a, then on b
        } cases[] = {{AF_INET, "0.0.0.0", "239.1.2.3", {"10.1.0.2", "10.2.0.2"}},
                     {AF_INET6, "::", "ff15::7", {"fd01::2", "fd02::2"}}};
        for (const auto &[family, any, text, senders] : cases) {
            const sockaddr_storage group = address_of(text);
            const std::string on_a = senders[0] + std::string(" ");
            const std::string on_b = senders[1] + std::string(" ");
            const int32_t sock = kestal_open_udp_socket_ex(family, any, -1, nullptr);
            const auto join_each = [&](const char *name, uint32_t index, const std::string &expected) {
                EXPECT_EQ(kestal_multicast_join(sock, &group, name, index, 1), 0) << text;
                EXPECT_EQ(kestal_multicast_join(sock, &group, name, index, 1), -1);
                EXPECT_EQ(errno, EADDRINUSE);
                net.send(sock, text, {senders[1], senders[0], senders[1]});
                EXPECT_EQ(received(sock, senders[expected == on_a ? 0 : 1]), expected);
                EXPECT_EQ(kestal_multicast_join(sock, &group, name, index, 0), 0);
                EXPECT_EQ(kestal_multicast_join(sock, &group, name, index, 0), -1);
                char rest[64];
                while (kestal_recv(sock, rest, sizeof rest, 50) > 0)
                    ;
            };
            join_each("va", 0, on_a);
            join_each("", if_nametoindex("va"), on_a);
            join_each(nullptr, if_nametoindex("vb"), on_b);
            EXPECT_EQ(kestal_multicast_join_all(sock, &group, 1), 0);
            net.send(sock, text, senders);
            EXPECT_EQ(received(sock, senders[1]), on_a + on_b);
            EXPECT_EQ(kestal_multicast_join_all(sock, &group, 0), 0);
            EXPECT_EQ(kestal_multicast_join_all(sock, &group, 0), -1);
            EXPECT_EQ(kestal_multicast_join(sock, &group, "nosuch", 0, 1), family == AF_INET ? -1 : 0); // by route
            kestal_close_socket(sock);

            // Opened with the group.
            const int32_t opened = kestal_open_udp_socket_ex(0, nullptr, -1, text);
            net.send(opened, text, senders);
            EXPECT_EQ(received(opened, senders[1]), on_a + on_b);
            kestal_close_socket(opened);
            kestal_test::with_each_allocation_failing(
                [text = text] { kestal_close_socket(kestal_open_udp_socket_ex(0, nullptr, -1, text)); });
        }
        // By raw address.
        const int32_t sock = kestal_open_udp_socket("0.0.0.0", -1);
        const in_addr group = {inet_addr("239.1.2.3")};
        const in_addr b = {inet_addr("10.2.0.1")};
        EXPECT_EQ(kestal_inet_multicast_join(sock, &group, &b, 1), 0);
        net.send(sock, "239.1.2.3", {"10.1.0.2", "10.2.0.2"});
        EXPECT_EQ(received(sock, "10.2.0.2"), "10.2.0.2 ");
        EXPECT_EQ(kestal_inet_multicast_join(sock, &group, &b, 0), 0);
        EXPECT_EQ(kestal_inet_multicast_join(sock, &group, nullptr, 1), 0);
        net.send(sock, "239.1.2.3", {"10.1.0.2", "10.2.0.2"});
        EXPECT_EQ(received(sock, "10.2.0.2"), "10.1.0.2 10.2.0.2 ");
        const in6_addr group6 = in6addr_loopback;
        EXPECT_EQ(kestal_inet6_multicast_join(sock, &group6, 0, 1), -1);
        kestal_close_socket(sock);
    });
}

TEST_F(multicast, comes_from_the_senders_that_were_chosen)
{
    with_links([](const links &net) {
        const struct {
            int32_t family;
            const char *any, *text;
            std::vector<const char *> senders; // two on a, one on b
        } cases[] = {{AF_INET, "0.0.0.0", "232.1.2.3", {"10.1.0.2", "10.1.0.3", "10.2.0.2"}},
                     {AF_INET6, "::", "ff35::7", {"fd01::2", "fd01::3", "fd02::2"}}};
        for (const auto &[family, any, text, senders] : cases) {
            const sockaddr_storage group = address_of(text);
            const sockaddr_storage first = address_of(senders[0]);
            const sockaddr_storage second = address_of(senders[1]);
            const std::vector<const char *> sent = {senders[1], senders[2], senders[0]};
            const int32_t sock = kestal_open_udp_socket_ex(family, any, -1, nullptr);
            EXPECT_EQ(kestal_multicast_join_source_group(sock, &group, &first, "va", 0, 1), 0);
            net.send(sock, text, sent);
            EXPECT_EQ(received(sock, senders[0]), senders[0] + std::string(" "));
            EXPECT_EQ(kestal_multicast_join_source_group(sock, &group, &first, nullptr, if_nametoindex("va"), 0), 0);
            EXPECT_EQ(kestal_multicast_join_source_group_all(sock, &group, &first, 1), 0);
            net.send(sock, text, sent);
            EXPECT_EQ(received(sock, senders[0]), senders[0] + std::string(" "));
            EXPECT_EQ(kestal_multicast_join_source_group_all(sock, &group, &first, 0), 0);

            EXPECT_EQ(kestal_multicast_join_all(sock, &group, 1), 0);
            EXPECT_EQ(kestal_multicast_block_source_group(sock, &group, &second, "va", 0, 1), 0);
            net.send(sock, text, sent);
            EXPECT_EQ(received(sock, senders[0]), std::string(senders[2]) + " " + senders[0] + " ");
            EXPECT_EQ(kestal_multicast_block_source_group(sock, &group, &second, "va", 0, 0), 0);
            EXPECT_EQ(kestal_multicast_block_source_all(sock, &group, &second, 1), 0);
            EXPECT_EQ(kestal_multicast_block_source_all(sock, &group, &second, 0), 0);
            net.send(sock, text, sent);
            EXPECT_EQ(received(sock, senders[0]), std::string(senders[1]) + " " + senders[2] + " " + senders[0] + " ");
            kestal_close_socket(sock);
        }
    });
}

TEST_F(multicast, refuses_what_is_no_group)
{
    const int32_t sock = kestal_open_udp_socket("127.0.0.1", -1);
    const sockaddr_storage host = address_of("10.0.0.1");
    const sockaddr_storage group = address_of("239.0.0.1");
    const sockaddr_storage other = address_of("fd01::1");
    const std::vector<int32_t> refused = {kestal_multicast_join(sock, &host, nullptr, 0, 1),
                                          kestal_multicast_join(sock, nullptr, nullptr, 0, 1),
                                          kestal_multicast_join(-1, &group, nullptr, 0, 1),
                                          kestal_multicast_join_all(sock, &host, 1),
                                          kestal_multicast_join_all(sock, nullptr, 1),
                                          kestal_inet_multicast_join(sock, nullptr, nullptr, 1),
                                          kestal_inet6_multicast_join(sock, nullptr, 0, 1),
                                          kestal_multicast_join_source_group(sock, &host, &host, nullptr, 0, 1),
                                          kestal_multicast_join_source_group(sock, &group, &other, nullptr, 0, 1),
                                          kestal_multicast_block_source_group(sock, &group, nullptr, nullptr, 0, 1),
                                          kestal_multicast_join_source_group_all(sock, nullptr, nullptr, 1)};
    EXPECT_EQ(refused, std::vector<int32_t>(11, -1));
    kestal_close_socket(sock);
}

} // namespace
