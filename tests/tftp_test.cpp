#include "descriptors.hpp"

#include <cerrno>

using namespace std::string_literals;
using kestal_test::port_of;

namespace {

constexpr int32_t patience = 10000;
const std::string full(512, 'f');

std::string word(unsigned number)
{
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

std::string data(unsigned block, const std::string &bytes)
{
    return word(3) + word(block) + bytes;
}

std::string failed(int error)
{
    return "failed: " + std::to_string(error);
}

// A server by hand: what it sends waits in the client's socket, and what it is sent waits in its own.
class tftp : public kestal_test::descriptors_counted {
protected:
    void SetUp() override
    {
        descriptors_counted::SetUp();
        server_ = kestal_open_udp_socket("127.0.0.1", -1);
        transfers_ = kestal_open_udp_socket("127.0.0.1", -1);
        location_ = "tftp://127.0.0.1:" + std::to_string(port_of(server_));
        open("/file");
    }
    void TearDown() override
    {
        kestal_close_tftp(client_);
        kestal_close_socket(server_);
        kestal_close_socket(transfers_);
        descriptors_counted::TearDown();
    }

    void open(const std::string &path)
    {
        kestal_close_tftp(client_);
        client_ = kestal_open_tftp(0, (location_ + path).c_str(), patience);
    }
    int32_t request() const { return kestal_tftp_read_request(client_, nullptr, nullptr, patience); }

    static std::string receive(int32_t sock, int32_t timeout = patience, sockaddr_in *from = nullptr)
    {
        char packet[2048];
        uint32_t length = sizeof *from;
        const int32_t size = kestal_recvfrom(sock, packet, sizeof packet, from, from ? &length : nullptr, timeout);
        return size < 0 ? "nothing" : std::string(packet, static_cast<size_t>(size));
    }

    void send(const std::string &packet) const
    {
        sockaddr_in client = {};
        uint32_t length = sizeof client;
        kestal_getsockname(client_->m_socket, &client, &length);
        client.sin_addr.s_addr = kestal_be32_order(INADDR_LOOPBACK);
        kestal_sendto(transfers_, packet.data(), packet.size(), &client, length, patience);
    }

    // The data of the next block, or "failed: " and the errno.
    std::string read(int32_t timeout = patience) const
    {
        errno = 0;
        const int32_t length = kestal_tftp_read_data(client_, timeout);
        if (length < 0)
            return failed(errno);
        EXPECT_EQ(client_->m_data[client_->m_data_length], '\0');
        return {reinterpret_cast<const char *>(client_->m_data), static_cast<size_t>(length)};
    }

    kestal_tftp_t *client_ = nullptr;
    int32_t server_ = -1;
    int32_t transfers_ = -1; // the server's port for all that follows a request
    std::string location_;
};

TEST_F(tftp, requests_files)
{
    const struct {
        const char *path, *name, *mode;
        std::string wanted;
    } cases[] = {{"//dir/file", nullptr, nullptr, "dir/file\0octet\0"s},
                 {"/a%20b?x=1", nullptr, nullptr, "a b\0octet\0"s},
                 {"", nullptr, "netascii", "\0netascii\0"s},
                 {"/x", "/as it stands", "", "/as it stands\0\0"s}};
    for (const auto &each : cases) {
        open(each.path);
        EXPECT_EQ(kestal_tftp_write_request(client_, each.name, each.mode, patience), 0);
        EXPECT_EQ(receive(server_), word(2) + each.wanted);
        EXPECT_EQ(client_->m_state, KESTAL_TFTP_FAILED);
        EXPECT_EQ(kestal_tftp_read_request(client_, each.name, each.mode, patience), 0);
        EXPECT_EQ(receive(server_), word(1) + each.wanted);
        EXPECT_EQ(client_->m_state, KESTAL_TFTP_RECEIVING);
    }
    kestal_close_uri(client_->m_uri);
    client_->m_uri = nullptr;
    const kestal_test::caught_assertions reports;
    EXPECT_EQ(request(), -1);
    EXPECT_EQ(reports.messages(), std::vector<std::string>{"s_tftp->m_uri != ((kestal_uri_t *)0)"});

    kestal_close_tftp(client_);
    client_ = kestal_open_tftp(0, nullptr, patience);
    EXPECT_EQ(kestal_sockaddr_get_port(&client_->m_server_address), 69u);
    EXPECT_EQ(kestal_hops_socket(client_->m_socket, -1, 0), 64);
    EXPECT_EQ(kestal_tftp_read_request(nullptr, "x", nullptr, 0) + kestal_tftp_write_request(nullptr, "x", nullptr, 0) +
                  kestal_tftp_read_data(nullptr, 0) + kestal_close_tftp(nullptr),
              -4);
}

TEST_F(tftp, takes_blocks_in_order_and_once)
{
    for (const std::string &last : {""s, "1"s, full.substr(1)}) {
        request();
        for (const std::string &packet :
             {data(2, full), data(1, full), data(1, full), data(0, "lost"), data(2, last), data(1, "late")})
            send(packet);
        EXPECT_EQ(read(), full);
        EXPECT_EQ(read(), last);
        EXPECT_EQ(read(), "");
        EXPECT_EQ(client_->m_state, KESTAL_TFTP_COMPLETE);
        for (const unsigned block : {2u, 1u, 1u, 0u, 2u})
            EXPECT_EQ(receive(transfers_), word(4) + word(block));
        EXPECT_EQ(receive(transfers_, 0), "nothing");
    }
    request();
    client_->m_block = 65534;
    for (const unsigned block : {65535u, 0u, 1u}) {
        send(data(block, full));
        EXPECT_EQ(read(), full);
    }
}

TEST_F(tftp, failed_transfers_stay_failed)
{
    EXPECT_EQ(read(), failed(EINVAL));
    const std::string refusal = word(5);
    for (const auto &[packet, error] : {std::pair(refusal + word(1) + "File not found\0"s, ENOENT),
                                        {refusal + word(7) + "?\0"s, EPERM},
                                        {refusal + word(8) + "?\0"s, EPROTO},
                                        {refusal, EPROTO},
                                        {word(4) + word(1), EPROTO},
                                        {data(1, full + "x"), EPROTO},
                                        {data(1, full + full + full), EPROTO},
                                        {"", EPROTO},
                                        {data(1, "x"), ENOMEM},
                                        {"time-out", ETIMEDOUT}}) {
        request();
        if (error != ETIMEDOUT)
            send(packet);
        const kestal_test::failing_allocation failing(error == ENOMEM ? 1 : 0);
        EXPECT_EQ(read(error == ETIMEDOUT ? 0 : patience), failed(error)) << packet;
        EXPECT_EQ(read(), failed(EINVAL));
        EXPECT_EQ(receive(transfers_, 0), "nothing");
    }
    request();
    kestal_close_socket(std::exchange(client_->m_socket, -1));
    EXPECT_EQ(read(), failed(EBADF));
    EXPECT_EQ(request(), -1);
}

TEST_F(tftp, works_over_a_stream)
{
    const int32_t listening = kestal_open_listen_socket("127.0.0.1", 0);
    const std::string location = "tftp://127.0.0.1:" + std::to_string(port_of(listening)) + "/file";
    for (const auto &[last, result] :
         {std::pair(data(2, "end"), "end"s), {data(1, full), failed(EPROTO)}, {"", failed(EPROTO)}}) {
        kestal_close_tftp(client_);
        client_ = kestal_open_tftp(1, location.c_str(), patience);
        const int32_t peer = kestal_accept(listening, nullptr, nullptr, patience);
        EXPECT_EQ(request(), 0);
        EXPECT_EQ(receive(peer), "\0\1file\0octet\0"s);
        kestal_send(peer, data(1, full).data(), 516, patience);
        EXPECT_EQ(read(), full);
        EXPECT_EQ(receive(peer), word(4) + word(1));
        kestal_send(peer, last.data(), last.size(), patience);
        kestal_shutdown_socket(peer, 1);
        EXPECT_EQ(read(), result);
        kestal_close_socket(peer);
    }
    kestal_close_socket(listening);
    EXPECT_EQ(kestal_open_tftp(1, location.c_str(), patience), nullptr);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(tftp, files_are_streams)
{
    const std::string location = location_ + "/a%20b";
    kestal_test::with_each_allocation_failing(
        [&] { kestal_destroy_ctx(kestal_open_ctx_stream(location.c_str(), "rb", 0)); });
    // A location is all there or not opened: without its host or path it would be another.
    kestal_test::with_each_allocation_failing([] {
        if (kestal_tftp_t *opened = kestal_open_tftp(0, "tftp://user@127.0.0.9:70/f", patience)) {
            EXPECT_STREQ(opened->m_uri->m_host, "127.0.0.9");
            EXPECT_STREQ(opened->m_uri->m_user, "user");
            EXPECT_STREQ(opened->m_uri->m_decoded_path, "/f");
            EXPECT_EQ(kestal_sockaddr_get_port(&opened->m_server_address), 70u);
            kestal_close_tftp(opened);
        }
    });
    while (receive(server_, 0) != "nothing")
        ;
    uint32_t id = kestal_open_ctx_stream(location.c_str(), "rb", 0);
    EXPECT_EQ(kestal_get_valid_ctx(id)->m_kind, 102);
    sockaddr_in client = {};
    EXPECT_EQ(receive(server_, patience, &client), "\0\1a b\0octet\0"s);
    EXPECT_EQ(kestal_ctx_is_readable(id, 0), 0);
    kestal_sendto(transfers_, data(1, "all").data(), 7, &client, sizeof client, patience);
    EXPECT_EQ(kestal_ctx_is_readable(id, patience), 1);
    char block[512];
    EXPECT_EQ(kestal_ctx_read(id, block, 2), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id), KESTAL_CTX_ERROR_SHORT_BUFFER);
    EXPECT_EQ(kestal_ctx_is_readable(id, 0), 1);
    EXPECT_EQ(kestal_ctx_read(id, block, 3), 3);
    EXPECT_EQ(std::string(block, 3), "all");
    EXPECT_EQ(kestal_ctx_is_readable(id, 0), 1);
    EXPECT_EQ(kestal_ctx_read(id, block, 3), 0);
    kestal_destroy_ctx(id);
    id = kestal_open_ctx_stream((location_ + "/x").c_str(), "w", 0);
    EXPECT_EQ(receive(server_), "\0\2x\0octet\0"s);
    EXPECT_EQ(kestal_ctx_write(id, "x", 1), -1);
    kestal_destroy_ctx(id);
}

} // namespace
