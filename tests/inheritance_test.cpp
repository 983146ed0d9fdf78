// Which descriptors a program inherits that is started from a user of the library: sockets that were asked for, as the
// system's own calls leave them; files, and whatever it keeps for itself, are not.
#include "descriptors.hpp"

#include <fcntl.h>
#include <future>

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

TEST_F(inheritance, is_for_the_sockets_of_callers)
{
    const kestal_test::owned_socket listening(kestal_open_listen_socket("127.0.0.1", 0));
    kestal_socket_pair_t pair, pipe;
    EXPECT_EQ(kestal_socket_pair(AF_INET, SOCK_STREAM, IPPROTO_TCP, &pair) | kestal_socket_pipe(&pipe), 0);
    const int32_t sockets[] = {kestal_open_socket(AF_INET, SOCK_DGRAM, 0),
                               kestal_open_connect_socket("127.0.0.1", listening.port(), 10000),
                               kestal_accept(listening, nullptr, nullptr, 10000),
                               kestal_open_listen_socket("127.0.0.1", 0),
                               kestal_open_udp_socket("127.0.0.1", 0),
                               pair.m_socket[0],
                               pair.m_socket[1],
                               pipe.m_socket[0],
                               pipe.m_socket[1]};
    for (const int32_t &each : sockets) {
        EXPECT_EQ(fcntl(each, F_GETFD), 0) << &each - sockets;
        kestal_close_socket(each);
    }
}

TEST_F(inheritance, is_not_for_what_the_library_keeps)
{
    const kestal_test::temporary_directory directory;
    const std::string file = directory.file("a", "a");
    const kestal_test::owned_socket listening(kestal_open_listen_socket("127.0.0.1", 0));
    const std::string listener = "127.0.0.1:" + std::to_string(listening.port());
    const std::set<int> before = all_descriptors();
    const uint32_t plugin = kestal_load_plugin(nullptr, nullptr, nullptr);
    const int opened = kestal_open_file(file.c_str(), KESTAL_FILE_READ, 0);
    const uint32_t streams[] = {kestal_open_ctx_stream(file.c_str(), "rb", 0),
                                kestal_open_ctx_stream(("tcp://" + listener).c_str(), "r+b", 0),
                                kestal_open_ctx_stream(("udp://" + listener).c_str(), "rb", 0)};
    kestal_event_base_t *events = kestal_new_event_base();
    kestal_tftp_t *tftp = kestal_open_tftp(0, ("tftp://" + listener + "/file").c_str(), 10000);

    // A server and two clients, each in the middle of an upload.
    kestal_ftpd_t *server = kestal_open_ftpd("127.0.0.1", 0);
    kestal_ftpd_add_user(server, nullptr, "joe", "secret", directory.path("").c_str());
    const std::string location = "ftp://127.0.0.1:" + std::to_string(kestal_ftpd_get_port(server));
    kestal_ftp_t *clients[] = {kestal_open_ftp(), kestal_open_ftp()};
    for (kestal_ftp_t *&client : clients) {
        const auto accepted = std::async(std::launch::async, [=] { return kestal_ftpd_do(server, -1); });
        client->m_passive = &client == clients ? 1 : 0;
        EXPECT_EQ(kestal_ftp_connect(client, location.c_str(), 21) + kestal_ftp_login(client, "joe", "secret", "I") +
                      kestal_ftp_open_stream(client, 0, "file", "w"),
                  0);
    }
    const std::set<int> now = all_descriptors();
    EXPECT_GE(now.size(), before.size() + 12);
    for (const int each : now)
        EXPECT_TRUE(before.contains(each) || fcntl(each, F_GETFD) == FD_CLOEXEC)
            << std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(each));

    for (kestal_ftp_t *client : clients)
        kestal_close_ftp(client);
    kestal_close_ftpd(server);
    kestal_close_tftp(tftp);
    kestal_free_event_base(events);
    for (const uint32_t stream : streams)
        kestal_destroy_ctx(stream);
    kestal_close_file(opened);
    kestal_unload_plugin(plugin);
}

} // namespace
