#include "descriptors.hpp"
#include "namespaces.hpp"

#include <future>
#include <net/if.h>

using kestal_test::caught_console;
using kestal_test::run;
using kestal_test::wait_until;

namespace {

class ssdp : public kestal_test::descriptors_counted {};

constexpr char search[] = "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n\r\n";

void replace(kestal_ssdp_t *ssdp, const char *name, const std::string &value)
{
    kestal_ssdp_set_option_string(ssdp, KESTAL_VALUE_REPLACE_BY_NAME, 1, name, value.c_str());
}

std::future<int32_t> start(kestal_ssdp_t *ssdp, int32_t (*how)(kestal_ssdp_t *) = kestal_ssdp_start)
{
    return std::async(std::launch::async, how, ssdp);
}

// Stops it at any moment, as often as that takes.
void stop(kestal_ssdp_t *ssdp, std::future<int32_t> &run)
{
    while (run.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
        EXPECT_EQ(kestal_ssdp_stop(ssdp), 0);
    EXPECT_EQ(run.get(), 0);
}

// Sends a datagram from the local address (with a "%" and the interface for IPv6).
void send(const std::string &from, const std::string &to, int32_t port, const std::string &datagram)
{
    EXPECT_EQ(kestal_send_udp_packet_ex(AF_UNSPEC, from.c_str(), 0, to.c_str(), port, KESTAL_HOPS_DEFAULT,
                                        datagram.data(), datagram.size(), 60000),
              static_cast<int32_t>(datagram.size()))
        << from;
}

// A port that only listeners, who share theirs, can have while this is open, which itself hears nobody.
struct kept_port : kestal_test::owned_socket {
    kept_port() : owned_socket(kestal_open_udp_socket("0.0.0.0", 0))
    {
        const sockaddr_storage nobody = kestal_test::address_of("127.0.0.2");
        EXPECT_EQ(kestal_connect(*this, &nobody, kestal_sockaddr_size(&nobody), -1), 0);
    }
};

TEST_F(ssdp, keeps_options)
{
    kestal_ssdp_t *listener = kestal_open_ssdp();
    const auto values = [listener](const char *name) {
        std::string all;
        const kestal_value_node_t *node = kestal_ssdp_get_option_node(listener, 1, name);
        for (; node != nullptr; node = kestal_search_value_node_by_name(node->m_next, 1, name))
            all += std::string(static_cast<char *>(node->m_data), node->m_size) + " ";
        return all;
    };
    EXPECT_EQ(values("multicast_ipv4_address") + values("multicast_ipv6_address"), "239.255.255.250 ff02::c ff05::c ");
    EXPECT_EQ(kestal_ssdp_get_option_int(listener, 1, "network_interface_scan_interval", 1), 300000);
    EXPECT_EQ(kestal_ssdp_get_option_int(listener, 0, "VERBOSE", -5), 0);
    EXPECT_EQ(kestal_ssdp_get_option_int(listener, 1, "VERBOSE", -5), -5);
    kestal_ssdp_set_option_int(listener, KESTAL_VALUE_ADD_IF_ABSENT, 1, "multicast_ipv4_port", 1901);
    EXPECT_EQ(values("multicast_ipv4_port") + values("multicast_ipv6_port"), "1900 1901 1900 ");
    EXPECT_EQ(kestal_ssdp_remove_option_by_int(listener, 1, "multicast_ipv4_port", 1900), 0);
    EXPECT_EQ(kestal_ssdp_remove_option_by_string(listener, 1, "multicast_ipv6_address", "ff02::c"), 0);
    EXPECT_STREQ(kestal_ssdp_get_option_string(listener, 1, "multicast_ipv6_address"), "ff05::c");
    EXPECT_EQ(kestal_ssdp_check_service(listener), -1) << "no event base";
    EXPECT_EQ(kestal_ssdp_stop(listener), 0);
    EXPECT_EQ(kestal_close_ssdp(listener) + kestal_close_ssdp(nullptr), 0);
    EXPECT_EQ(kestal_ssdp_restart(nullptr) + kestal_ssdp_start(nullptr) + kestal_ssdp_check_service(nullptr) +
                  kestal_ssdp_set_handler(nullptr, nullptr, nullptr) + kestal_ssdp_get_option_int(nullptr, 0, "a", -1) +
                  kestal_ssdp_set_option_string(nullptr, 0, 0, "a", "b"),
              -6);
}

TEST_F(ssdp, traces_what_happens)
{
    const kept_port kept;
    const std::string port = std::to_string(kept.port());
    kestal_ssdp_t *listener = kestal_open_ssdp();
    kestal_ssdp_remove_option_by_name(listener, 1, "multicast_ipv4_port");
    kestal_ssdp_remove_option_by_name(listener, 1, "multicast_ipv6_port");
    replace(listener, "multicast_ipv4_address", "");
    for (const auto &[name, value] : {std::pair("multicast_ipv4_port", "65536"),
                                      {"multicast_ipv4_port", "19x"},
                                      {"multicast_ipv4_port", ""},
                                      {"multicast_ipv4_port", port.c_str()},
                                      {"multicast_ipv4_address", "ff02::c"}})
        kestal_ssdp_set_option_string(listener, KESTAL_VALUE_ADD_IF_ABSENT, 1, name, value);
    replace(listener, "verbose", "1");
    std::string remembered;
    const auto remember = [](kestal_ssdp_t *, kestal_http_parser_t *message, const void *, void *all) {
        const char *method = kestal_http_parser_get_method(message);
        *static_cast<std::string *>(all) += method == nullptr ? "-" : method;
    };
    kestal_ssdp_set_handler(listener, remember, &remembered);
    const caught_console console;
    std::future<int32_t> run = start(listener);
    console.wait_for("wake up network interface scan event.");
    EXPECT_EQ(kestal_ssdp_check_service(listener), 0) << "no service of its own";
    const std::string invalid = "HTTP/1.1 200 OK\r\n%s%n\r\n"; // no end
    for (const std::string &datagram :
         {std::string(search), std::string("HTTP/1.1 200 OK\r\nA:b\r\n\r\nbody"), invalid, std::string()})
        send("127.0.0.1", "127.0.0.1", kept.port(), datagram);
    console.wait_for("recv multicast event", 4);
    EXPECT_EQ(kestal_ssdp_stop(listener), 0);
    EXPECT_EQ(run.get(), 0);
    EXPECT_EQ(kestal_close_ssdp(listener), 0);
    EXPECT_EQ(remembered, "M-SEARCH---");

    std::string text = kestal_test::numbers_masked(kestal_test::colours_named(console.text()), "from_port=<w:");
    const size_t joins = text.find("ssdp: [WARNING] <r:multicast_ipv4_address", text.find("wake up"));
    const size_t received = text.find("ssdp: [MESSAGE] <b:recv");
    ASSERT_LT(joins, received);
    text.erase(joins, received - joins); // as many as there are interfaces
    const auto traced = [&port](const std::string &what, size_t size, const std::string &datagram) {
        return "recv multicast event.> (" + what + ", <w:" + std::to_string(size) +
               "> bytes, bind_address=\"<w:0.0.0.0>\", bind_port=<w:" + port +
               ">, from_address=\"<w:127.0.0.1>\", from_port=<w:N>) {\n" + datagram + "}\n";
    };
    const std::string socket = " multicast event.> (bind_address=\"<w:0.0.0.0>\", bind_port=<w:" + port + ">)\n";
    const std::string expected[] = {
        "[MESSAGE] <y:starting event service.>\n",
        "[MESSAGE] <b:assign network interface scan event.>\n",
        "[WARNING] <r:invalid multicast_ipv4_port option !> (value=\"<w:65536>\")\n",
        "[WARNING] <r:invalid multicast_ipv4_port option !> (value=\"<w:19x>\")\n",
        "[WARNING] <r:multicast_ipv4_port option is empty !>\n",
        "[WARNING] <r:multicast_ipv4_address option is empty !>\n",
        "[WARNING] <r:invalid multicast_ipv4_address option !> (value=\"<w:ff02::c>\")\n",
        "[MESSAGE] <b:assign" + socket,
        "[MESSAGE] <g:wake up network interface scan event.>\n",
        "[MESSAGE] <b:" + traced("method=\"<w:M-SEARCH>\"", 51, search),
        "[MESSAGE] <b:" + traced("status-code=<w:200>", 28, "HTTP/1.1 200 OK\r\nA: b\r\n\r\n"),
        "[WARNING] <r:" + traced("<r:unknown-header>", invalid.size(), invalid),
        "[WARNING] <r:" + traced("<r:unknown-header>", 0, ""),
        "[MESSAGE] <y:stopping event service.>\n",
        "[MESSAGE] <b:unassign" + socket,
        "[MESSAGE] <b:unassign network interface scan event.>\n",
        "[MESSAGE] <y:stopped event service.>\n",
        "[MESSAGE] <y:closing ssdp.>\n",
        "[MESSAGE] <y:stopping event service.>\n",
        "[MESSAGE] <y:stopped event service.>\n",
        "[MESSAGE] <y:closed ssdp.>\n",
    };
    std::string all;
    for (const std::string &line : expected)
        all += "ssdp: " + line;
    EXPECT_EQ(text, all);
}

TEST_F(ssdp, hears_the_groups_on_every_interface)
{
    kestal_test::in_own_network([] {
        const kestal_test::other_network other;
        // Makes an interface a<number> here and its other end b<number> there.
        const auto connect = [&other](const std::string &number) {
            const auto set_up = [&number](const std::string &name, const std::string &host) {
                run("ip addr add 10.0." + number + "." + host + "/24 dev " + name + " && ip link set " + name +
                    " addrgenmode none up && ip addr add fe80::" + host + ":" + number + "/64 dev " + name + " nodad");
            };
            run("ip link add a" + number + " type veth peer name b" + number + " netns " + other.path());
            set_up("a" + number, "1");
            other.run([&] { set_up("b" + number, "2"); });
        };
        const auto search_from = [&other](const std::string &from, const std::string &group) {
            other.run([&] { send(from, group, 1900, search); });
        };
        const auto from = [](const std::string &address) { return "from_address=\"\033[1;37m" + address; };
        run("sysctl -qw net.ipv4.igmp_max_memberships=4"); // lo, a0, a1 and one more
        connect("0");
        connect("1");
        kestal_ssdp_t *listener = kestal_open_ssdp();
        replace(listener, "verbose", "1");
        const caught_console console;
        std::future<int32_t> run_of_listener = start(listener);
        const auto joined = [&console](const std::string &interface) {
            console.wait_for("multicast_zone=\"\033[1;37mff05::c\033[0m\", network_interface_index=\033[1;37m" +
                             std::to_string(if_nametoindex(interface.c_str())) + "\033[0m\n");
        };
        for (const std::string number : {"0", "1"}) {
            joined("a" + number);
            const std::string address = "10.0." + number + ".2", local = "fe80::2:" + number + "%b" + number;
            search_from(address, "239.255.255.250");
            console.wait_for(from(address));
            search_from(local, "ff02::c");
            search_from(local, "ff05::c");
            console.wait_for(from(local.substr(0, 10)), 2);
        }
        for (int turn = 2; turn < 5; ++turn) {
            const std::string number = std::to_string(turn), address = "10.0." + number + ".2";
            connect(number);
            search_from(address, "239.255.255.250");
            search_from("10.0.0.2", "239.255.255.250");
            console.wait_for(from("10.0.0.2"), 2 * turn - 2);
            EXPECT_EQ(console.text().find(address), std::string::npos) << "not before the next scan";
            kestal_test::advance_clock(300000);
            search_from("10.0.0.2", "239.255.255.250"); // wakes the loop
            joined("a" + number);
            search_from(address, "239.255.255.250");
            console.wait_for(from(address));
            run("ip link del a" + number);
        }
        EXPECT_EQ(kestal_close_ssdp(listener), 0);
        EXPECT_EQ(run_of_listener.get(), 0);
    });
}

kestal_ssdp_t *stopped_by_a_handler; // one of standard output
std::atomic<int> scans;

int32_t stop_at_scan(const char *text)
{
    const std::string trace = text == nullptr ? "" : text;
    const bool joins = trace.find("interface_index=") != std::string::npos;
    if (trace.find("wake up") != std::string::npos || (joins && trace.find("index=\033[1;37m0") == std::string::npos)) {
        ++scans;
        EXPECT_EQ(kestal_ssdp_start(stopped_by_a_handler), -1) << "runs already";
        EXPECT_EQ(kestal_close_ssdp(stopped_by_a_handler), -1) << "still runs";
    }
    return 0;
}

TEST_F(ssdp, is_stopped_from_anywhere)
{
    kestal_puts_handler_t before, errors_before;
    kestal_set_puts_handler(stop_at_scan, &before);
    kestal_set_error_puts_handler(kestal_quiet_puts, &errors_before);
    const kept_port kept;
    const auto open = [&kept] {
        kestal_ssdp_t *listener = kestal_open_ssdp();
        if (listener != nullptr) {
            replace(listener, "multicast_ipv4_port", std::to_string(kept.port()));
            kestal_ssdp_remove_option_by_name(listener, 1, "multicast_ipv6_port");
        }
        return listener;
    };
    EXPECT_GT(kestal_test::with_each_allocation_failing([&] {
                  kestal_ssdp_t *listener = open();
                  if (listener == nullptr)
                      return;
                  stopped_by_a_handler = listener;
                  // A scan whose traces find no memory goes by unseen: there will be another.
                  constexpr char interval[] = "network_interface_scan_interval";
                  kestal_ssdp_set_option_int(listener, KESTAL_VALUE_REPLACE_BY_NAME, 1, interval, 10);
                  kestal_ssdp_set_option_int(listener, KESTAL_VALUE_REPLACE_BY_NAME, 1, "verbose", 1);
                  if (kestal_ssdp_get_option_int(listener, 1, "verbose", 0) == 1 &&
                      kestal_ssdp_get_option_int(listener, 1, interval, 0) == 10 && kestal_ssdp_start(listener) == 0) {
                      EXPECT_EQ(listener->m_event_base, nullptr) << "torn down by start";
                  }
                  EXPECT_EQ(kestal_close_ssdp(listener), 0);
              }),
              20u);
    EXPECT_GT(scans, 20);

    kestal_ssdp_t *listener = open();
    kestal_ssdp_set_option_int(listener, KESTAL_VALUE_REPLACE_BY_NAME, 1, "stop_signal_event", 1);
    const auto is_running = [listener] { return kestal_ssdp_check_service(listener) == 0; };
    for (int turn = 0; turn < 20; ++turn) {
        std::future<int32_t> run = start(listener);
        if (turn % 2 == 0)
            wait_until(is_running);
        stop(listener, run);
        EXPECT_EQ(listener->m_head, nullptr);
    }
    std::future<int32_t> first = start(listener);
    wait_until(is_running);
    std::future<int32_t> second = start(listener, kestal_ssdp_restart);
    EXPECT_EQ(first.get(), 0) << "the second takes over";
    stop(listener, second);
    EXPECT_EQ(kestal_close_ssdp(listener), 0);
    kestal_set_puts_handler(before, nullptr);
    kestal_set_error_puts_handler(errors_before, nullptr);
}

} // namespace
