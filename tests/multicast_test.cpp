#include "descriptors.hpp"
#include "namespaces.hpp"

#include <algorithm>
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
            run("ip link add " + name + " type veth peer name " + name + "x netns " + other_.path() +
                " && ip link set " + name + " up" + add(name, 1));
            other_.run([&] { run("ip link set " + name + "x up" + add(name + "x", 2) + add(name + "x", 3)); });
        }
    }

    // Sends "0", "1" ... from the senders in turn to the group, and gives in that order what comes to the socket of the
    // `count` that are to come; behind them whatever else came.
    std::string exchange(int32_t sock, const std::string &group, const std::vector<std::string> &senders,
                         size_t count) const
    {
        static char turn = 'A'; // what is late from another exchange is none of this one's
        ++turn;
        const auto port = static_cast<int32_t>(kestal_test::port_of(sock));
        other_.run([&] {
            char packet[] = {turn, '0'};
            for (const std::string &sender : senders) {
                // IPv6 needs to be told by which interface.
                const char *scope = sender[0] != 'f' ? "" : sender[3] == '1' ? "%vax" : "%vbx";
                for (const int32_t hops : {0, 3}) { // without any it goes nowhere
                    EXPECT_EQ(kestal_send_udp_packet_ex(0, sender.c_str(), -1, (group + scope).c_str(), port, hops,
                                                        packet, hops == 0 ? 1 : 2, 1000),
                              hops == 0 ? 1 : 2);
                }
                ++packet[1];
            }
        });
        std::string all;
        char packet[2];
        while (kestal_recv(sock, packet, 2, all.size() < count ? 10000 : 20) > 0)
            if (packet[0] == turn)
                all += packet[1];
        std::sort(all.begin(), all.end());
        return all;
    }

private:
    kestal_test::other_network other_;
};

TEST_F(multicast, comes_by_the_interfaces_and_from_the_senders_that_were_chosen)
{
    kestal_test::in_own_network([] {
        const links net;
        const uint8_t b4[] = {10, 2, 0, 1};
        const uint32_t va = if_nametoindex("va"), vb = if_nametoindex("vb");
        for (const auto &[any, text, first, second, third] : // the first two on a, the third on b
             {std::tuple("0.0.0.0", "232.1.2.3", "10.1.0.2", "10.1.0.3", "10.2.0.2"),
              {"::", "ff35::7", "fd01::2", "fd01::3", "fd02::2"}}) {
            const sockaddr_storage group = address_of(text), one = address_of(first), two = address_of(second);
            const bool is_v4 = group.ss_family == AF_INET;
            const owned_socket sock(kestal_open_udp_socket(any, -1));
            uint8_t raw[16];
            EXPECT_EQ(kestal_inet_pton(0, text, raw), 0);
            const auto heard = [&, to = text, senders = {second, third, first}](int32_t from, size_t count) {
                return net.exchange(from, to, {senders.begin(), senders.end()}, count);
            };
            const std::pair<std::string, std::function<int32_t(int32_t)>> ways[] = {
                {"02", [&](int32_t on) { return kestal_multicast_join(sock, &group, "va", 0, on); }},
                {"02", [&](int32_t on) { return kestal_multicast_join(sock, &group, "", va, on); }},
                {"1",
                 [&](int32_t on) {
                     return is_v4 ? kestal_inet_multicast_join(sock, raw, b4, on)
                                  : kestal_inet6_multicast_join(sock, raw, vb, on);
                 }},
                {"012", [&](int32_t on) { return kestal_multicast_join_all(sock, &group, on); }},
                {"012",
                 [&](int32_t on) {
                     return is_v4 ? kestal_inet_multicast_join(sock, raw, nullptr, on)
                                  : kestal_multicast_join_all(sock, &group, on);
                 }},
                {"2", [&](int32_t on) { return kestal_multicast_join_source_group(sock, &group, &one, "va", 0, on); }},
                {"2", [&](int32_t on) { return kestal_multicast_join_source_group_all(sock, &group, &one, on); }}};
            for (const auto &[expected, join] : ways) {
                EXPECT_EQ(join(1), 0) << text;
                EXPECT_EQ(join(1), -1);
                EXPECT_EQ(heard(sock, expected.size()), expected) << text;
                EXPECT_EQ(join(0), 0);
                EXPECT_EQ(join(0), -1);
            }
            EXPECT_EQ(kestal_multicast_join_all(sock, &group, 1), 0);
            EXPECT_EQ(kestal_multicast_block_source_group(sock, &group, &two, "va", 0, 1), 0);
            EXPECT_EQ(heard(sock, 2), "12");
            EXPECT_EQ(kestal_multicast_block_source_group(sock, &group, &two, "va", 0, 0), 0);
            EXPECT_EQ(kestal_multicast_block_source_all(sock, &group, &two, 1), 0);
            EXPECT_EQ(heard(sock, 2), "12");
            EXPECT_EQ(kestal_multicast_block_source_all(sock, &group, &two, 0), 0);
            EXPECT_EQ(heard(sock, 3), "012");
            EXPECT_EQ(kestal_multicast_join_all(sock, &group, 0), 0);
            EXPECT_EQ(kestal_multicast_join(sock, &group, "nosuch", 0, 1), is_v4 ? -1 : 0); // by route
            // What is gone can be left by the index that it had.
            run("ip link add d0 type veth peer d1 && ip link set d0 up && ip addr add 10.9.0.1/24 dev d0");
            const uint32_t gone = if_nametoindex("d0");
            EXPECT_EQ(kestal_multicast_join_source_group(sock, &group, &one, "d0", 0, 1), 0);
            run("ip link del d0");
            EXPECT_EQ(kestal_multicast_join_source_group(sock, &group, &one, nullptr, gone, 0), 0);
            EXPECT_EQ(kestal_multicast_join(sock, &group, nullptr, gone, 0), -1);
            const owned_socket with_group(kestal_open_udp_socket_ex(0, nullptr, -1, text));
            EXPECT_EQ(heard(with_group, 3), "012");
            run("ip route replace 232.0.0.0/8 dev va");
            EXPECT_GE(kestal_test::with_each_allocation_failing([&] { // interfaces that cannot be listed: by route
                          const owned_socket fresh(kestal_open_socket(group.ss_family, SOCK_DGRAM, 0));
                          EXPECT_EQ(kestal_multicast_join_all(fresh, &group, 1), 0);
                      }),
                      2u);
        }
    });
}

TEST_F(multicast, refuses_what_is_no_group)
{
    const owned_socket sock(kestal_open_udp_socket("127.0.0.1", -1));
    const sockaddr_storage host = address_of("10.0.0.1"), group = address_of("239.0.0.1"), v6 = address_of("fd01::1");
    for (const int32_t result :
         {kestal_multicast_join(sock, &host, nullptr, 0, 1), kestal_multicast_join(-1, &group, nullptr, 0, 1),
          kestal_multicast_join_all(sock, nullptr, 1), kestal_inet_multicast_join(sock, nullptr, nullptr, 1),
          kestal_inet6_multicast_join(sock, nullptr, 0, 1),
          kestal_multicast_join_source_group(sock, &host, &host, nullptr, 0, 1),
          kestal_multicast_join_source_group(sock, &group, &v6, nullptr, 0, 1),
          kestal_multicast_block_source_group(sock, &group, nullptr, nullptr, 0, 1)})
        EXPECT_EQ(result, -1);
}

} // namespace
