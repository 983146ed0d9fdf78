#include "descriptors.hpp"

#include <cerrno>

using namespace std::string_literals;
using kestal_test::port_of;

namespace {

constexpr int32_t patience = 10000;

std::string word(unsigned number)
{
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

std::string data(unsigned block, const std::string &bytes)
{
    return word(3) + word(block) + bytes;
}

std::string full(char byte = 'f')
{
    return std::string(512, byte);
}

// A server by hand: what it sends waits in the client's socket, and what it is sent waits in its own.
class tftp : public kestal_test::descriptors_counted {
protected:
    void SetUp() override
    {
        descriptors_counted::SetUp();
        server_ = kestal_open_udp_socket("127.0.0.1", -1);
        transfer_port_ = kestal_open_udp_socket("127.0.0.1", -1);
        location_ = "tftp://127.0.0.1:" + std::to_string(port_of(server_));
    }
    void TearDown() override
    {
        kestal_close_tftp(client_);
        kestal_close_socket(server_);
        kestal_close_socket(transfer_port_);
        descriptors_counted::TearDown();
    }

    void open(const std::string &path)
    {
        kestal_close_tftp(client_);
        client_ = kestal_open_tftp(0, (location_ + path).c_str(), patience);
        ASSERT_NE(client_, nullptr);
    }

    static std::string receive(int32_t sock, int32_t timeout = patience)
    {
        char packet[2048];
        const int32_t size = kestal_recv(sock, packet, sizeof packet, timeout);
        return size < 0 ? "nothing" : std::string(packet, static_cast<size_t>(size));
    }

    void send(const std::string &packet) const
    {
        sockaddr_in client = {};
        uint32_t length = sizeof client;
        kestal_getsockname(client_->m_socket, &client, &length);
        client.sin_addr.s_addr = kestal_be32_order(INADDR_LOOPBACK);
        EXPECT_EQ(kestal_sendto(transfer_port_, packet.data(), packet.size(), &client, length, patience),
                  static_cast<int32_t>(packet.size()));
    }

    // The data of the next block, which has to be what the result says; the errno of a failure.
    std::string read(int32_t timeout = patience) const
    {
        errno = 0;
        const int32_t length = kestal_tftp_read_data(client_, timeout);
        if (length < 0)
            return "failed: " + std::to_string(errno);
        EXPECT_TRUE(length == 0 || client_->m_data_length == static_cast<uint64_t>(length));
        EXPECT_EQ(client_->m_data[client_->m_data_length], '\0');
        return {reinterpret_cast<const char *>(client_->m_data), static_cast<size_t>(length)};
    }

    kestal_tftp_t *client_ = nullptr;
    int32_t server_ = -1;
    int32_t transfer_port_ = -1;
    std::string location_;
};

TEST_F(tftp, requests_files)
{
    const struct {
        const char *path, *name, *mode;
        std::string wanted;
    } cases[] = {
        {"//dir/file", nullptr, nullptr, "dir/file\0octet\0"s},
        {"/a%20b?x=1", nullptr, nullptr, "a b\0octet\0"s},
        {"", nullptr, "netascii", "\0netascii\0"s},
        {"/other", "/as it stands", "", "/as it stands\0\0"s},
        {"/", std::string(600, 'n').c_str(), nullptr, std::string(600, 'n') + "\0octet\0"s},
    };
    for (const auto &each : cases) {
        open(each.path);
        const std::string name = each.name == nullptr ? "" : each.wanted.substr(0, each.wanted.find('\0'));
        EXPECT_EQ(kestal_tftp_write_request(client_, each.name ? name.c_str() : nullptr, each.mode, patience), 0);
        EXPECT_EQ(receive(server_), word(2) + each.wanted);
        EXPECT_EQ(client_->m_state, KESTAL_TFTP_FAILED);
        EXPECT_EQ(kestal_tftp_read_request(client_, each.name ? name.c_str() : nullptr, each.mode, patience), 0);
        EXPECT_EQ(receive(server_), word(1) + each.wanted);
        EXPECT_EQ(client_->m_state, KESTAL_TFTP_RECEIVING);
    }
    EXPECT_EQ(kestal_tftp_read_request(client_, std::string(70000, 'n').c_str(), nullptr, patience), -1);

    kestal_close_uri(client_->m_uri);
    client_->m_uri = nullptr;
    const kestal_test::caught_assertions reports;
    EXPECT_EQ(kestal_tftp_read_request(client_, nullptr, nullptr, patience), -1);
    EXPECT_EQ(reports.messages(), std::vector<std::string>{"s_tftp->m_uri != ((kestal_uri_t *)0)"});
    EXPECT_EQ(kestal_tftp_read_request(client_, "x", nullptr, patience), 0);
}

TEST_F(tftp, receives_files_of_every_length)
{
    open("/file");
    for (const size_t size : {0u, 1u, 511u, 512u, 513u, 1024u, 1025u, 5000u}) {
        EXPECT_EQ(kestal_tftp_read_request(client_, nullptr, nullptr, patience), 0);
        receive(server_);
        std::string file;
        for (size_t i = 0; i < size; ++i)
            file += static_cast<char>(i * 7 % 251);
        for (unsigned block = 1; (block - 1) * 512 <= size; ++block) {
            const std::string bytes = file.substr((block - 1) * 512, 512);
            send(data(block, bytes));
            EXPECT_EQ(read(), bytes);
            EXPECT_EQ(receive(transfer_port_), word(4) + word(block));
        }
        EXPECT_EQ(client_->m_state, KESTAL_TFTP_COMPLETE);
        EXPECT_EQ(read(), "");
        EXPECT_EQ(receive(transfer_port_, 0), "nothing");
    }
}

TEST_F(tftp, takes_blocks_in_order_and_once)
{
    open("/file");
    kestal_tftp_read_request(client_, nullptr, nullptr, patience);
    send(data(2, full('x')));
    send(data(1, full('a')));
    send(data(1, full('a')));
    send(data(0, "lost"));
    send(data(2, full('b')));
    EXPECT_EQ(read(), full('a'));
    EXPECT_EQ(read(), full('b'));
    for (const unsigned block : {2u, 1u, 1u, 0u, 2u})
        EXPECT_EQ(receive(transfer_port_), word(4) + word(block));
    client_->m_block = 65534;
    send(data(65535, full('c')));
    send(data(0, full('d')));
    send(data(1, "e"));
    EXPECT_EQ(read(), full('c'));
    EXPECT_EQ(read(), full('d'));
    EXPECT_EQ(read(), "e");
    EXPECT_EQ(read(), "");
}

TEST_F(tftp, failed_transfers_stay_failed)
{
    const struct {
        std::string packet;
        int error;
        bool is_acknowledged = false;
    } cases[] = {
        {word(5) + word(1) + "File not found\0"s, ENOENT},
        {word(5) + word(2) + "no\0"s, EACCES},
        {word(5) + word(7) + "?\0"s, EPERM},
        {word(5) + word(0) + "?\0"s, EPROTO},
        {word(5) + word(8), EPROTO},
        {word(5), EPROTO},
        {"", EPROTO},
        {word(4) + word(1), EPROTO},
        {data(1, full() + "x"), EPROTO},
        {data(1, full() + full() + full()), EPROTO},
        {"time-out", ETIMEDOUT},
    };
    open("/file");
    EXPECT_EQ(read(), "failed: " + std::to_string(EINVAL));
    for (const auto &each : cases) {
        kestal_tftp_read_request(client_, nullptr, nullptr, patience);
        if (each.error != ETIMEDOUT)
            send(each.packet);
        EXPECT_EQ(read(each.error == ETIMEDOUT ? 0 : patience), "failed: " + std::to_string(each.error)) << each.packet;
        send(data(1, "too late"));
        EXPECT_EQ(read(), "failed: " + std::to_string(EINVAL));
        EXPECT_EQ(client_->m_state, KESTAL_TFTP_FAILED);
        EXPECT_EQ(receive(transfer_port_, 0), "nothing");
        EXPECT_EQ(receive(client_->m_socket), data(1, "too late"));
    }
    kestal_tftp_read_request(client_, nullptr, nullptr, patience);
    send(data(1, "well"));
    EXPECT_EQ(read(), "well");

    kestal_tftp_read_request(client_, nullptr, nullptr, patience);
    kestal_close_socket(client_->m_socket);
    client_->m_socket = -1;
    EXPECT_EQ(read(), "failed: " + std::to_string(EBADF));
    EXPECT_EQ(kestal_tftp_read_request(client_, nullptr, nullptr, patience), -1);
    EXPECT_EQ(kestal_tftp_read_request(nullptr, "x", nullptr, 0), -1);
    EXPECT_EQ(kestal_tftp_write_request(nullptr, "x", nullptr, 0), -1);
    EXPECT_EQ(kestal_tftp_read_data(nullptr, 0), -1);
    EXPECT_EQ(kestal_close_tftp(nullptr), -1);
}

TEST_F(tftp, works_over_a_stream)
{
    const int32_t listening = kestal_open_listen_socket("127.0.0.1", 0);
    const std::string location = "tftp://127.0.0.1:" + std::to_string(port_of(listening)) + "/file";
    for (const std::string &last : {data(3, "end"), data(2, full()), data(5, full()), ""s}) {
        kestal_close_tftp(client_);
        client_ = kestal_open_tftp(1, location.c_str(), patience);
        ASSERT_NE(client_, nullptr);
        const int32_t peer = kestal_accept(listening, nullptr, nullptr, patience);
        EXPECT_EQ(kestal_tftp_read_request(client_, nullptr, nullptr, patience), 0);
        EXPECT_EQ(receive(peer), "\0\1file\0octet\0"s);
        for (const unsigned block : {1u, 2u}) {
            const std::string packet = data(block, full());
            kestal_send(peer, packet.data(), packet.size(), patience);
            EXPECT_EQ(read(), full());
            EXPECT_EQ(receive(peer), word(4) + word(block));
        }
        if (last.empty())
            kestal_shutdown_socket(peer, 1);
        else
            kestal_send(peer, last.data(), last.size(), patience);
        EXPECT_EQ(read(), last == data(3, "end") ? "end" : "failed: " + std::to_string(EPROTO));
        kestal_close_socket(peer);
    }
    kestal_close_socket(listening);
    EXPECT_EQ(kestal_open_tftp(1, location.c_str(), patience), nullptr);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(tftp, finds_its_server)
{
    client_ = kestal_open_tftp(0, nullptr, patience);
    ASSERT_NE(client_, nullptr);
    EXPECT_STREQ(client_->m_uri->m_scheme, "tftp");
    EXPECT_EQ(kestal_sockaddr_get_port(&client_->m_server_address), 69u);
    EXPECT_EQ(kestal_hops_socket(client_->m_socket, -1, 0), 64);
    location_ = "tftp://[::1]:7069";
    if (kestal_check_ipv6_support() == 0) {
        open("/x");
        EXPECT_EQ(client_->m_server_address.ss_family, AF_INET6);
        EXPECT_EQ(client_->m_local_address.ss_family, AF_INET6);
        EXPECT_EQ(kestal_sockaddr_get_port(&client_->m_server_address), 7069u);
    }
}

TEST_F(tftp, survives_short_memory)
{
    const auto failures = kestal_test::with_each_allocation_failing([this] {
        client_ = kestal_open_tftp(0, (location_ + "/file").c_str(), patience);
        if (client_ != nullptr && kestal_tftp_read_request(client_, nullptr, nullptr, patience) == 0) {
            send(data(1, "all"));
            const std::string got = read();
            EXPECT_TRUE(got == "all" || (got == "failed: " + std::to_string(ENOMEM) && read()[0] == 'f')) << got;
        }
        kestal_close_tftp(client_);
        client_ = nullptr;
    });
    EXPECT_GE(failures, 4u);
}

} // namespace
