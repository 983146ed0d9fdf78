#include "descriptors.hpp"

#include <cerrno>

using kestal_test::port_of;

namespace {

class stream_tftp : public kestal_test::descriptors_counted {
protected:
    void SetUp() override
    {
        descriptors_counted::SetUp();
        server_ = kestal_open_udp_socket("127.0.0.1", -1);
    }
    void TearDown() override
    {
        kestal_close_socket(server_);
        kestal_destroy_ctx(id_);
        descriptors_counted::TearDown();
    }

    // The request that opening the server's file in that mode brings, or "refused N" with the last error.
    std::string open(const std::string &mode, const std::string &type = "application/ulx_stream")
    {
        kestal_destroy_ctx(id_);
        id_ = kestal_new_ctx();
        const std::string source = "tftp://127.0.0.1:" + std::to_string(port_of(server_)) + "/a%20file";
        kestal_ctx_set_option_string(id_, 1, "src", source.c_str());
        kestal_ctx_set_option_string(id_, 1, "mode", mode.c_str());
        const auto *record = static_cast<const kestal_ctx_t *>(kestal_ginstance_search(id_, nullptr));
        if (record == nullptr || kestal_open_ctx(id_, type.c_str()) != 0)
            return record == nullptr ? "no context" : "refused " + std::to_string(record->m_last_error);
        EXPECT_EQ(record->m_kind, KESTAL_CTX_KIND_STREAM_TFTP);
        char request[64];
        uint32_t length = sizeof client_;
        const int32_t size = kestal_recvfrom(server_, request, sizeof request, &client_, &length, 10000);
        return {request, static_cast<size_t>(size)};
    }

    void send(char block, const std::string &bytes)
    {
        const std::string packet = std::string{'\0', '\3', '\0', block} + bytes;
        kestal_sendto(server_, packet.data(), packet.size(), &client_, sizeof client_, 10000);
    }

    std::string read(uint64_t size = 512)
    {
        char bytes[512];
        const int64_t length = kestal_ctx_read(id_, bytes, size);
        return length < 0 ? "error " + std::to_string(kestal_ctx_get_last_error(id_))
                          : std::string(bytes, static_cast<size_t>(length));
    }

    uint32_t id_ = KESTAL_INVALID_ID;
    int32_t server_ = -1;
    sockaddr_in client_ = {};
};

TEST_F(stream_tftp, reads_blocks)
{
    EXPECT_EQ(open("w", "application/ulx_stream_tftp"), std::string("\0\2a file\0octet\0", 15));
    EXPECT_EQ(kestal_ctx_write(id_, "x", 1), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 3u);

    const std::string full(512, 'f');
    EXPECT_EQ(open("rb"), std::string("\0\1a file\0octet\0", 15));
    EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 0);
    send(1, full);
    send(2, "end");
    EXPECT_EQ(kestal_ctx_is_readable(id_, 10000), 1);
    EXPECT_EQ(read(511), "error 5");
    EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 1);
    EXPECT_EQ(read(), full);
    EXPECT_EQ(read(2), "error 5");
    EXPECT_EQ(read(3), "end");
    EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 1);
    EXPECT_EQ(read(), "");
    uint64_t size = 1;
    EXPECT_EQ(kestal_ctx_control(id_, KESTAL_CTX_CONTROL_GET_SIZE, &size, uint64_t{sizeof size}), -1);
    EXPECT_EQ(kestal_ctx_seek(id_, 0, 0), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 3u);
}

TEST_F(stream_tftp, refuses_what_cannot_be_requested)
{
    for (const auto &[name, value, error] :
         {std::tuple("fd", "0", 3u), std::tuple("src", "tftp://127.0.0.1:70000/x", 10u)}) {
        id_ = kestal_new_ctx();
        kestal_ctx_set_option_string(id_, 1, name, value);
        EXPECT_EQ(kestal_open_ctx(id_, "application/ulx_stream_tftp"), -1);
        EXPECT_EQ(static_cast<const kestal_ctx_t *>(kestal_ginstance_search(id_, nullptr))->m_last_error, error);
        id_ = kestal_destroy_ctx(id_);
    }
    kestal_test::with_each_allocation_failing([this] {
        open("rb");
        id_ = kestal_destroy_ctx(id_);
    });
}

} // namespace
