#include "descriptors.hpp"
#include "namespaces.hpp"

#include <net/if.h>

using kestal_test::in_own_network;
using kestal_test::run;

namespace {

class network_interface : public kestal_test::descriptors_counted {};

// The list as "NAME:MARKS ..." with the addresses and their marks behind each interface: "+ADDRESS/PREFIX:MARKS".
std::string shown(kestal_network_interface_t *list, bool mark_seen = true)
{
    std::string text;
    const auto marks = [mark_seen](uint32_t &change) {
        std::string letters = (change & KESTAL_NETWORK_CHANGE_NEW) != 0 ? ":N" : ":";
        letters += (change & KESTAL_NETWORK_CHANGE_REMOVED) != 0 ? "R" : "";
        letters += (change & KESTAL_NETWORK_CHANGE_CHANGED) != 0 ? "C" : "";
        letters += (change & KESTAL_NETWORK_CHANGE_SEEN) != 0 ? "s" : "";
        change |= mark_seen ? KESTAL_NETWORK_CHANGE_SEEN : 0;
        return letters;
    };
    for (; list != nullptr; list = list->m_next) {
        const bool is_there = (list->m_change & KESTAL_NETWORK_CHANGE_REMOVED) == 0;
        EXPECT_TRUE(!is_there || list->m_index == if_nametoindex(list->m_name)) << list->m_name;
        text += list->m_name + marks(list->m_change);
        for (auto *address = list->m_address_head; address != nullptr; address = address->m_next) {
            char written[KESTAL_ADDRESS_TEXT_SIZE];
            EXPECT_EQ(address->m_scope, kestal_sockaddr_scope(address->m_address));
            EXPECT_EQ(kestal_sockaddr_domain(address->m_netmask), address->m_family);
            if (address->m_scope == KESTAL_SCOPE_LINK) // the system's own, which come when they please
                continue;
            text += std::string("+") + kestal_inet_stop(address->m_address, written, sizeof written) + "/" +
                    std::to_string(address->m_prefix_length) + marks(address->m_change);
        }
        text += " ";
    }
    return text;
}

TEST_F(network_interface, lists_what_there_is)
{
    kestal_network_interface_t *list = kestal_get_network_interface();
    EXPECT_EQ(shown(list).rfind("lo:N+127.0.0.1/8:N", 0), 0u) << shown(list);
    EXPECT_EQ(list->m_flags & 0x45u, 0x45u);
    EXPECT_EQ(kestal_free_network_interface(list), nullptr);
    list = kestal_get_network_interface_ex(KESTAL_NETWORK_UPDATE_IPV4, "LO|nosuch*");
    EXPECT_EQ(shown(list), "lo:N+127.0.0.1/8:N ");
    EXPECT_EQ(list->m_flags & KESTAL_NETWORK_INTERFACE_COUNTERS, 0u);
    kestal_free_network_interface(list);
    EXPECT_EQ(kestal_update_network_interface(nullptr, KESTAL_NETWORK_UPDATE_ALL), -1);
}

TEST_F(network_interface, finds_by_the_first_pattern_that_matches)
{
    kestal_network_interface_t second = {}, first = {};
    second.m_name = "eth1";
    first.m_name = "wlan0";
    first.m_next = &second;
    for (const auto &[pattern, name] : {std::pair<const char *, const char *>(nullptr, "eth1"),
                                        {"bond*|wlan*|*", "wlan0"},
                                        {"en*", nullptr},
                                        {"", nullptr}}) {
        const kestal_network_interface_t *found = kestal_search_network_interface(&first, pattern);
        EXPECT_STREQ(found == nullptr ? nullptr : found->m_name, name) << pattern;
    }
}

TEST_F(network_interface, marks_what_changed)
{
    in_own_network([] {
        run("ip link add eth0 type veth peer name eth1 && ip addr add 10.0.0.1/24 dev eth0");
        run("sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1");
        kestal_network_interface_t *list = nullptr;
        const auto update = [&list](uint32_t flags) {
            EXPECT_EQ(kestal_update_network_interface(&list, flags), 0);
            return shown(list);
        };
        constexpr uint32_t marking = KESTAL_NETWORK_UPDATE_ALL & ~KESTAL_NETWORK_UPDATE_DROP;
        EXPECT_EQ(update(marking), "lo:N+127.0.0.1/8:N eth1:N eth0:N+10.0.0.1/24:N ");
        EXPECT_EQ(update(marking), "lo:s+127.0.0.1/8:s eth1:s eth0:s+10.0.0.1/24:s ");
        run("ip addr add 10.0.0.2/30 dev eth0 label eth0:x && ip link set eth1 address 02:00:00:00:00:01");
        EXPECT_EQ(update(0xC00D), "lo:s+127.0.0.1/8:s eth1:C eth0:C+10.0.0.1/24:s+10.0.0.2/30:N ");
        run("ip addr del 10.0.0.1/24 dev eth0");
        EXPECT_EQ(update(marking), "lo:s+127.0.0.1/8:s eth1:s eth0:C+10.0.0.2/30:s+10.0.0.1/24:R ");
        EXPECT_EQ(update(marking), "lo:s+127.0.0.1/8:s eth1:s eth0:s+10.0.0.2/30:s ");
        run("ip link set eth0 up");
        EXPECT_EQ(kestal_update_network_interface(&list, marking), 0);
        EXPECT_EQ(kestal_update_network_interface(&list, marking), 0); // marks stay until they are seen
        EXPECT_EQ(shown(list), "lo:s+127.0.0.1/8:s eth1:s eth0:C+10.0.0.2/30:s ");
        run("ip link del eth0");
        EXPECT_EQ(update(marking), "lo:s+127.0.0.1/8:s eth1:R eth0:R+10.0.0.2/30:s ");
        EXPECT_EQ(kestal_search_network_interface(list, nullptr), list);
        EXPECT_EQ(update(marking), "lo:s+127.0.0.1/8:s ");
        run("ip link set lo down");
        EXPECT_EQ(update(0), "");
        EXPECT_EQ(update(KESTAL_NETWORK_UPDATE_INTERFACES), "lo:N ");
        kestal_free_network_interface(list);
    });
}

TEST_F(network_interface, survives_failing_allocations)
{
    EXPECT_GE(kestal_test::with_each_allocation_failing([] {
                  kestal_network_interface_t *list = nullptr;
                  kestal_update_network_interface(&list, KESTAL_NETWORK_UPDATE_ALL);
                  const std::string before = shown(list, false);
                  if (kestal_update_network_interface(&list, KESTAL_NETWORK_UPDATE_ALL) != 0) {
                      EXPECT_EQ(shown(list, false), before);
                  }
                  kestal_free_network_interface(list);
              }),
              4u);
}

} // namespace
