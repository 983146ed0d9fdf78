// Which of the descriptors that the library opens are inherited by the programs that the process starts: the sockets of
// its callers are, as the system's own calls leave them; files, and whatever it keeps for itself, are not.
#include "descriptors.hpp"

#include <fcntl.h>
#include <memory>

namespace {

class inheritance : public kestal_test::descriptors_counted {};

std::set<int> all_descriptors()
{
    std::set<int> all;
    for (int each = 0; each < 1024; ++each)
        if (fcntl(each, F_GETFD) >= 0)
            all.insert(each);
    return all;
}

// What becomes of the descriptors that came since: "inherited", "kept", "inherited kept" or "".
std::string fate_since(const std::set<int> &before)
{
    bool is_inherited = false, is_kept = false;
    for (const int each : all_descriptors())
        if (!before.contains(each))
            ((fcntl(each, F_GETFD) & FD_CLOEXEC) == 0 ? is_inherited : is_kept) = true;
    return is_inherited && is_kept ? "inherited kept" : is_inherited ? "inherited" : is_kept ? "kept" : "";
}

// What is open, with the way to close it.
using opened = std::vector<std::shared_ptr<void>>;

template <typename Thing, typename Close>
opened hold(Thing thing, Close close)
{
    return {std::shared_ptr<void>(nullptr, [=](void *) { close(thing); })};
}

opened hold(std::initializer_list<int32_t> sockets)
{
    opened all;
    for (const int32_t each : sockets) {
        EXPECT_GE(each, 0);
        all.push_back(std::make_shared<kestal_test::owned_socket>(each));
    }
    return all;
}

TEST_F(inheritance, is_for_the_sockets_of_callers)
{
    const kestal_test::temporary_directory directory;
    const std::string file = directory.file("a", "a");
    const kestal_test::owned_socket listening(kestal_open_listen_socket("127.0.0.1", 0));
    const std::string listener = "127.0.0.1:" + std::to_string(listening.port());
    const uint32_t plugin = kestal_load_plugin(nullptr, nullptr, nullptr);
    const auto stream = [](const std::string &location, const char *mode) {
        return hold(kestal_open_ctx_stream(location.c_str(), mode, 0), kestal_destroy_ctx);
    };
    kestal_socket_pair_t pair = {};
    const struct {
        const char *what;
        std::string fate;
        std::function<opened()> open;
    } cases[] = {
        {"socket", "inherited", [] { return hold({kestal_open_socket(AF_INET, SOCK_DGRAM, 0)}); }},
        {"connected", "inherited",
         [&] { return hold({kestal_open_connect_socket("127.0.0.1", listening.port(), 10000)}); }},
        {"accepted", "inherited", [&] { return hold({kestal_accept(listening, nullptr, nullptr, 10000)}); }},
        {"datagrams", "inherited", [] { return hold({kestal_open_udp_socket("127.0.0.1", 0)}); }},
        {"pair", "inherited",
         [&] {
             kestal_socket_pair(AF_INET, SOCK_STREAM, IPPROTO_TCP, &pair);
             return hold({pair.m_socket[0], pair.m_socket[1]});
         }},
        {"pipe", "inherited",
         [&] {
             kestal_socket_pipe(&pair);
             return hold({pair.m_socket[0], pair.m_socket[1]});
         }},
        {"file", "kept", [&] { return hold(kestal_open_file(file.c_str(), KESTAL_FILE_READ, 0), kestal_close_file); }},
        {"stream of a file", "kept", [&] { return stream(file, "rb"); }},
        {"stream over TCP", "kept", [&] { return stream("tcp://" + listener, "r+b"); }},
        {"stream of datagrams", "kept", [&] { return stream("udp://" + listener, "rb"); }},
        {"event base", "kept", [] { return hold(kestal_new_event_base(), kestal_free_event_base); }},
        {"TFTP", "kept",
         [&] { return hold(kestal_open_tftp(0, ("tftp://" + listener + "/file").c_str(), 10000), kestal_close_tftp); }},
    };
    for (const auto &each : cases) {
        const std::set<int> before = all_descriptors();
        const opened now = each.open();
        EXPECT_EQ(fate_since(before), each.fate) << each.what;
    }
    kestal_unload_plugin(plugin);
}

} // namespace
