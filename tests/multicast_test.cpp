#include "descriptors.hpp"
#include "namespaces.hpp"

#include <net/if.h>

using kestal_test::address_of;
using kestal_test::owned_socket;
using kestal_test::run;

namespace {

class multicast : public kestal_test::descriptors_counted {};

// Interfaces "va" and "vb" here, each linked to its like in another network, which sends from it.
class links {
public:
    links()
    {
        for (const std::string name : {"va", "vb"}) {
            const std::string net = name == "va" ? "1" : "2";
            const auto add = [&net](const std::string &device, int host) {
                const std::string number = std::to_string(host);
                return " && ip addr add 10." + net + ".0." + number + "/24 dev " + device + " && ip addr add fd0" +
                       net + "::" + number + "/64 dev " + device + " nodad";
            };
            run("ip link add " + name + " type veth peer name " + name + "x netns " + other_.process() +
                " && ip link set " + name + " up" + add(name, 1));
            other_.run([&] { run("ip link set " + name + "x up" + add(name + "x", 2) + add(name + "x", 3)); });
        }
    }

    // Sends "0", "1" ... from the senders in turn to the group, and gives what comes to the socket, up to `last`.
    std::string exchange(int32_t sock, const std::string &group, const std::vector<std::string> &senders,
                         char last) const
    {
        const auto port = static_cast<int32_t>(kestal_test::port_of(sock));
        other_.run([&] {
            char text = '0';
            for (const std::string &sender : senders) {
                // IPv6 needs to be told by which interface.
                const char *scope = sender[0] != 'f' ? "" : sender[3] == '1' ? "%vax" : "%vbx";
                const auto send = [&](const char *byte, int32_t hops) {
                    return kestal_send_udp_packet_ex(0, sender.c_str(), -1, (group + scope).c_str(), port, hops, byte,
                                                     1, 1000);
                };
                EXPECT_EQ(send("x", 0), 1); // goes nowhere
                EXPECT_EQ(send(&text, 3), 1) << sender << " to " << group;
                ++text;
            }
        });
        std::string all;
        for (char text = '\0'; text != last; all += text)
            if (kestal_recv(sock, &text, 1, 5000) != 1)
                return all + " and nothing more";
        return all;
    }

private:
    kestal_test::other_network other_;
};

TEST_F(multicast, comes_by_the_interfaces_that_were_joined)
{
    kestal_test::in_own_network([] {
        const links net;
        const uint8_t b4[] = {10, 2, 0, 1};
        for (const auto &[any, text, a, b] :
             {std::tuple("0.0.0.0", "239.1.2.3", "10.1.0.2", "10.2.0.2"), {"::", "ff15::7", "fd01::2", "fd02::2"}}) {
            const sockaddr_storage group = address_of(text);
            const bool is_v4 = group.ss_family == AF_INET;
            const owned_socket sock(kestal_open_udp_socket(any, -1));
            uint8_t raw[16];
            EXPECT_EQ(kestal_inet_pton(0, text, raw), 0);
            const uint32_t va = if_nametoindex("va");
            const uint32_t vb = if_nametoindex("vb");
            const std::function<int32_t(int32_t)> ways[] = {
                [&](int32_t on) { return kestal_multicast_join(sock, &group, "va", 0, on); },
                [&](int32_t on) { return kestal_multicast_join(sock, &group, "", va, on); },
                [&](int32_t on) { return kestal_multicast_join(sock, &group, nullptr, vb, on); },
                [&](int32_t on) {
                    return is_v4 ? kestal_inet_multicast_join(sock, raw, b4, on)
                                 : kestal_inet6_multicast_join(sock, raw, vb, on);
                },
                [&](int32_t on) { return kestal_multicast_join_all(sock, &group, on); },
                [&](int32_t on) {
                    return is_v4 ? kestal_inet_multicast_join(sock, raw, nullptr, on)
                                 : kestal_multicast_join_all(sock, &group, on);
                }};
            const std::string heard[] = {"0", "0", "1", "1", "01", "01"};
            for (size_t way = 0; way < std::size(heard); ++way) {
                EXPECT_EQ(ways[way](1), 0) << text << " " << way;
                EXPECT_EQ(ways[way](1), -1);
                EXPECT_EQ(errno, EADDRINUSE);
                EXPECT_EQ(net.exchange(sock, text, {a, b}, heard[way].back()), heard[way]) << text << " " << way;
                EXPECT_EQ(ways[way](0), 0);
                EXPECT_EQ(ways[way](0), -1);
                char more;
                EXPECT_EQ(kestal_recv(sock, &more, 1, 20), -2);
            }
            EXPECT_EQ(kestal_multicast_join(sock, &group, "nosuch", 0, 1), is_v4 ? -1 : 0); // by route
            const owned_socket with_group(kestal_open_udp_socket_ex(0, nullptr, -1, text));
            EXPECT_EQ(net.exchange(with_group, text, {a, b}, '1'), "01");
            run("ip route replace 239.0.0.0/8 dev va");
            EXPECT_GE(kestal_test::with_each_allocation_failing([&] { // interfaces that cannot be listed: by route
                          const owned_socket fresh(kestal_open_socket(group.ss_family, SOCK_DGRAM, 0));
                          EXPECT_EQ(kestal_multicast_join_all(fresh, &group, 1), 0);
                      }),
                      2u);
        }
    });
}

TEST_F(multicast, comes_from_the_senders_that_were_chosen)
{
    kestal_test::in_own_network([] {
        const links net;
        for (const auto &[any, text, first, second, third] : // the first two on a, the third on b
             {std::tuple("0.0.0.0", "232.1.2.3", "10.1.0.2", "10.1.0.3", "10.2.0.2"),
              {"::", "ff35::7", "fd01::2", "fd01::3", "fd02::2"}}) {
            const sockaddr_storage group = address_of(text);
            const sockaddr_storage one = address_of(first);
            const sockaddr_storage two = address_of(second);
            const owned_socket sock(kestal_open_udp_socket(any, -1));
            const std::vector<std::string> senders = {second, third, first};
            const auto heard = [&, to = text] { return net.exchange(sock, to, senders, '2'); };
            EXPECT_EQ(kestal_multicast_join_source_group(sock, &group, &one, "va", 0, 1), 0);
            EXPECT_EQ(heard(), "2");
            EXPECT_EQ(kestal_multicast_join_source_group(sock, &group, &one, nullptr, if_nametoindex("va"), 0), 0);
            EXPECT_EQ(kestal_multicast_join_source_group_all(sock, &group, &one, 1), 0);
            EXPECT_EQ(heard(), "2");
            EXPECT_EQ(kestal_multicast_join_source_group_all(sock, &group, &one, 0), 0);
            EXPECT_EQ(kestal_multicast_join_all(sock, &group, 1), 0);
            EXPECT_EQ(kestal_multicast_block_source_group(sock, &group, &two, "va", 0, 1), 0);
            EXPECT_EQ(heard(), "12");
            EXPECT_EQ(kestal_multicast_block_source_group(sock, &group, &two, "va", 0, 0), 0);
            EXPECT_EQ(kestal_multicast_block_source_all(sock, &group, &two, 1), 0);
            EXPECT_EQ(heard(), "12");
            EXPECT_EQ(kestal_multicast_block_source_all(sock, &group, &two, 0), 0);
            EXPECT_EQ(heard(), "012");
            // What is gone can be left by the index that it had.
            run("ip link add d0 type veth peer d1 && ip link set d0 up && ip addr add 10.9.0.1/24 dev d0");
            const uint32_t gone = if_nametoindex("d0");
            EXPECT_EQ(kestal_multicast_join_source_group(sock, &group, &one, "d0", 0, 1), 0);
            run("ip link del d0");
            EXPECT_EQ(kestal_multicast_join_source_group(sock, &group, &one, nullptr, gone, 0), 0);
            EXPECT_EQ(kestal_multicast_join(sock, &group, nullptr, gone, 0), -1);
        }
    });
}

TEST_F(multicast, refuses_what_is_no_group)
{
    const owned_socket sock(kestal_open_udp_socket("127.0.0.1", -1));
    const sockaddr_storage host = address_of("10.0.0.1");
    const sockaddr_storage group = address_of("239.0.0.1");
    const sockaddr_storage other = address_of("fd01::1");
    for (const int32_t result :
         {kestal_multicast_join(sock, &host, nullptr, 0, 1), kestal_multicast_join(sock, nullptr, nullptr, 0, 1),
          kestal_multicast_join(-1, &group, nullptr, 0, 1), kestal_multicast_join_all(sock, &host, 1),
          kestal_multicast_join_all(sock, nullptr, 1), kestal_inet_multicast_join(sock, nullptr, nullptr, 1),
          kestal_inet6_multicast_join(sock, nullptr, 0, 1),
          kestal_multicast_join_source_group(sock, &host, &host, nullptr, 0, 1),
          kestal_multicast_join_source_group(sock, &group, &other, nullptr, 0, 1),
          kestal_multicast_block_source_group(sock, &group, nullptr, nullptr, 0, 1),
          kestal_multicast_join_source_group_all(sock, nullptr, nullptr, 1)})
        EXPECT_EQ(result, -1);
}

} // namespace
