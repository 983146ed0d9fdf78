#include "descriptors.hpp"

using namespace std::string_literals;
using kestal_test::owned_socket;

namespace {

constexpr int32_t patience = 10000;
const std::string full(512, 'f');

std::string packet(char opcode, unsigned number, const std::string &rest = "")
{
    return std::string{0, opcode, static_cast<char>(number >> 8), static_cast<char>(number)} + rest;
}

std::string receive(int32_t sock, int32_t timeout = patience, sockaddr_in *from = nullptr)
{
    char bytes[2048];
    uint32_t length = sizeof *from;
    const int32_t size = kestal_recvfrom(sock, bytes, sizeof bytes, from, from == nullptr ? nullptr : &length, timeout);
    return size < 0 ? "nothing" : std::string(bytes, static_cast<size_t>(size));
}

// A server by hand: what it sends waits in the client's socket, and what it is sent waits in its own.
class tftp : public kestal_test::descriptors_counted {
protected:
    void TearDown() override
    {
        kestal_close_tftp(client_);
        descriptors_counted::TearDown();
    }

    void open(const std::string &path, uint32_t stream = 0)
    {
        kestal_close_tftp(client_);
        client_ = kestal_open_tftp(stream, (location_ + path).c_str(), patience);
    }
    int32_t request() const { return kestal_tftp_read_request(client_, nullptr, nullptr, patience); }
    uint32_t port() const { return kestal_test::port_of(client_->m_socket); }
    void send(const std::string &bytes) const { send(bytes, transfers_, port()); }
    static void send(const std::string &bytes, int32_t from, uint32_t port)
    {
        sockaddr_storage to = kestal_test::address_of("127.0.0.1");
        kestal_sockaddr_set_port(&to, port);
        EXPECT_GE(kestal_sendto(from, bytes.data(), bytes.size(), &to, sizeof(sockaddr_in), patience), 0);
    }

    // The data of the next block, or the name of the error.
    std::string read(int32_t timeout = patience) const
    {
        errno = 0;
        const int32_t length = kestal_tftp_read_data(client_, timeout);
        if (length < 0)
            return strerrorname_np(errno);
        EXPECT_EQ(client_->m_data[client_->m_data_length], '\0');
        return {reinterpret_cast<const char *>(client_->m_data), static_cast<size_t>(length)};
    }

    const owned_socket server_{kestal_open_udp_socket("127.0.0.1", -1)};
    const owned_socket transfers_{kestal_open_udp_socket("127.0.0.1", -1)}; // for all that follows a request
    std::string location_ = "tftp://127.0.0.1:" + std::to_string(server_.port());
    kestal_tftp_t *client_ = nullptr;
};

TEST_F(tftp, requests_files)
{
    const struct {
        const char *path, *name, *mode;
        std::string wanted;
    } cases[] = {{"//dir/file", nullptr, nullptr, "dir/file\0octet\0"s},
                 {"/a%20b?x=1", nullptr, "netascii", "a b\0netascii\0"s},
                 {"/x", "/as it stands", "", "/as it stands\0\0"s}};
    for (const auto &[path, name, mode, wanted] : cases) {
        open(path);
        EXPECT_EQ(kestal_tftp_write_request(client_, name, mode, patience), 0);
        EXPECT_EQ(receive(server_), "\0\2"s + wanted);
        EXPECT_EQ(read(), "EINVAL");
        EXPECT_EQ(kestal_tftp_read_request(client_, name, mode, patience), 0);
        EXPECT_EQ(receive(server_), "\0\1"s + wanted);
    }
    kestal_close_uri(std::exchange(client_->m_uri, nullptr));
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

TEST_F(tftp, takes_blocks_in_order_once_and_from_one_sender)
{
    open("/f");
    kestal_setsockopt(client_->m_socket, SOL_SOCKET, SO_BINDTODEVICE, "lo", sizeof "lo");
    request();
    for (const std::string &last : {""s, full.substr(1)}) {
        const uint32_t port_before = port();
        do
            request();
        while (port() == port_before);
        send(packet(3, 1, "for the transfer before"), transfers_, port_before);
        for (const auto &[block, bytes] : {std::pair(2u, full), {1, full}, {1, full}, {0, "lost"}, {2, last}}) {
            send(packet(3, block, bytes));
            if (block == 1)
                send(packet(3, 2, "forged"), server_, port());
        }
        for (const std::string &expected : {full, last, ""s})
            EXPECT_EQ(read(), expected);
        for (const unsigned block : {2u, 1u, 1u, 0u, 2u})
            EXPECT_EQ(receive(transfers_), packet(4, block));
    }
    char interface[16] = {};
    uint32_t length = sizeof interface;
    kestal_getsockopt(client_->m_socket, SOL_SOCKET, SO_BINDTODEVICE, interface, &length);
    EXPECT_STREQ(interface, "lo") << "what its user has set stays";
}

TEST_F(tftp, failed_transfers_stay_failed)
{
    open("/f");
    const auto fails = [this](const std::string &answer, const std::string &error) {
        request();
        send(answer);
        EXPECT_EQ(read(), error) << answer;
        EXPECT_EQ(read(), "EINVAL");
    };
    fails(packet(5, 1, "File not found\0"s), "ENOENT");
    for (const std::string &odd : {packet(5, 8, "?\0"s), "\0\5"s, packet(4, 1), packet(3, 1, full + "x"), ""s})
        fails(odd, "EPROTO");
    {
        const kestal_test::failing_allocation failing(2); // the first is the request's own
        fails(packet(3, 1), "ENOMEM");
    }
    // A block again gives new time, but not for ever.
    request();
    for (int i = 0; i < 150; ++i)
        send(packet(3, 7));
    EXPECT_EQ(kestal_test::as_time_passes(1000, [this] { return kestal_tftp_read_data(client_, patience); }), -1);
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(receive(transfers_), packet(4, 7));
    EXPECT_EQ(receive(client_->m_socket), packet(3, 7)) << "some are not even read";
    kestal_close_socket(std::exchange(client_->m_socket, -1));
    EXPECT_EQ(request(), -1);
    EXPECT_EQ(read(), "EBADF");
}

TEST_F(tftp, works_over_a_stream)
{
    const owned_socket listening(kestal_open_listen_socket("127.0.0.1", 0));
    location_ = "tftp://127.0.0.1:" + std::to_string(listening.port());
    for (const auto &[last, result] :
         {std::pair(packet(3, 2, "end"), "end"), {packet(3, 1, full), "EPROTO"}, {"", "EPROTO"}}) {
        open("/file", 1);
        const owned_socket peer(kestal_accept(listening, nullptr, nullptr, patience));
        EXPECT_EQ(request(), 0);
        EXPECT_EQ(receive(peer), "\0\1file\0octet\0"s);
        kestal_send(peer, packet(3, 1, full).data(), 516, patience);
        EXPECT_EQ(read(), full);
        EXPECT_EQ(receive(peer), packet(4, 1));
        kestal_send(peer, last.data(), last.size(), patience);
        kestal_shutdown_socket(peer, 1);
        EXPECT_EQ(read(), result);
    }
    location_ = "tftp://127.0.0.1:1"; // where nobody listens
    open("/file", 1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(client_, nullptr);
}

TEST_F(tftp, files_are_streams)
{
    location_ += "/a%20b";
    uint32_t id = KESTAL_INVALID_ID;
    sockaddr_in client = {};
    // A location is all there or not opened.
    kestal_test::with_each_allocation_failing([&] {
        id = kestal_open_ctx_stream(location_.c_str(), "rb", 0);
        EXPECT_TRUE(id == KESTAL_INVALID_ID || receive(server_, patience, &client) == "\0\1a b\0octet\0"s);
        id = kestal_destroy_ctx(id);
    });
    id = kestal_open_ctx_stream(location_.c_str(), "rb", 0);
    receive(server_, patience, &client);
    EXPECT_EQ(kestal_get_valid_ctx(id)->m_kind, 102);
    EXPECT_EQ(kestal_ctx_is_readable(id, 0), 0);
    send(packet(3, 1, "all"), transfers_, kestal_sockaddr_get_port(&client));
    char block[3];
    EXPECT_EQ(kestal_ctx_is_readable(id, patience), 1);
    EXPECT_EQ(kestal_ctx_read(id, block, 2), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id), KESTAL_CTX_ERROR_SHORT_BUFFER);
    EXPECT_EQ(kestal_ctx_is_readable(id, 0), 1);
    EXPECT_EQ(kestal_ctx_read(id, block, 3), 3);
    EXPECT_EQ(std::string(block, 3), "all");
    EXPECT_EQ(kestal_ctx_read(id, block, 3), 0);
    kestal_destroy_ctx(id);
}

} // namespace
