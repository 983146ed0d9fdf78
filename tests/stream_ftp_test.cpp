#include "descriptors.hpp"
#include "ftp_server.hpp"

#include <cerrno>
#include <optional>

namespace {

// Streams from a server of the test's own, served by the built-in plugin or by the one for FTP only.
class stream_ftp : public kestal_test::descriptors_counted, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        descriptors_counted::SetUp();
        server_.emplace();
        base_ = kestal_load_plugin(nullptr, nullptr, nullptr); // the first to be loaded is the last to be asked
        if (is_ftp_only())
            plugin_ =
                kestal_load_plugin(KESTAL_TEST_PLUGINS "/ftp_plugin.so", "kestal_plugin_initialize_builtin_ftp_plugin",
                                   "kestal_plugin_uninitialize_builtin_ftp_plugin");
    }
    void TearDown() override
    {
        close();
        kestal_unload_plugin(plugin_);
        kestal_unload_plugin(base_);
        server_.reset();
        descriptors_counted::TearDown();
    }

    static bool is_ftp_only() { return GetParam(); }

    // 0, or the last error of the refusal.
    uint32_t open(const std::string &location, const char *mode, const char *offset = "0")
    {
        id_ = kestal_new_ctx();
        for (const auto &[name, value] : {std::pair("src", location.c_str()), {"mode", mode}, {"offset", offset}})
            kestal_ctx_set_option_string(id_, 1, name, value);
        errno = 0;
        if (kestal_open_ctx(id_, "application/ulx_stream_ftp") == 0)
            return 0;
        const auto *record = static_cast<const kestal_ctx_t *>(kestal_ginstance_search(id_, nullptr));
        return record == nullptr ? KESTAL_CTX_ERROR_NO_MEMORY : record->m_last_error;
    }
    // Also where the server lets it wait for the answers to an abort.
    void close()
    {
        kestal_test::as_time_passes(0, [this] {
            id_ = kestal_destroy_ctx(id_);
            return 0;
        });
    }

    // What the stream has still got, with "!" and the errno behind it where it fails.
    std::string read_all()
    {
        std::string all;
        char block[4096];
        int64_t length;
        while ((length = kestal_ctx_read(id_, block, sizeof block)) > 0)
            all.append(block, static_cast<size_t>(length));
        return length == 0 ? all : all + "!" + std::to_string(errno);
    }

    std::string read_location(const std::string &location, const char *offset = "0")
    {
        const uint32_t error = open(location, "rb", offset);
        const int cause = errno;
        const std::string all =
            error == 0 ? read_all() : "refused " + std::to_string(error) + " " + std::to_string(cause);
        close();
        return all;
    }

    std::optional<kestal_test::ftp_server> server_;
    uint32_t base_ = KESTAL_INVALID_ID;
    uint32_t plugin_ = KESTAL_INVALID_ID;
    uint32_t id_ = KESTAL_INVALID_ID;
};

TEST_P(stream_ftp, reads_files)
{
    std::string content(100000, 'c');
    content.replace(50000, 1, "\n");
    server_->serve(content);
    ASSERT_EQ(open(server_->uri("//a%20b", "ftp", "me:pass%21@"), "r"), 0u);
    EXPECT_EQ(server_->heard(), "USER me|PASS pass!|TYPE A|SIZE /a b|PASV|RETR /a b|");
    EXPECT_STREQ(kestal_get_ctx_plugin_name(id_), is_ftp_only() ? "ftp_plugin.so" : "");
    EXPECT_EQ(kestal_get_valid_ctx(id_)->m_kind, is_ftp_only() ? 101 : 103);
    EXPECT_EQ(kestal_ctx_is_readable(id_, 10000), 1);
    EXPECT_TRUE(read_all() == content);
    EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 1);
    EXPECT_EQ(read_all(), "");

    uint64_t size = 0;
    EXPECT_EQ(kestal_ctx_control(id_, KESTAL_CTX_CONTROL_GET_SIZE, &size, uint64_t{8}), is_ftp_only() ? -1 : 0);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), is_ftp_only() ? 3u : 0u);
    EXPECT_EQ(size, content.size());
    EXPECT_EQ(kestal_ctx_control(id_, 0, nullptr, uint64_t{0}), is_ftp_only() ? 0 : -1);
    EXPECT_EQ(kestal_ctx_is_writable(id_, 0), 1);
    EXPECT_EQ(kestal_ctx_write(id_, "x", 1) + kestal_ctx_seek(id_, 0, 0) + kestal_ctx_sync(id_), -3);
    close();
    EXPECT_EQ(read_location(server_->uri("/x"), "99990").size(), is_ftp_only() ? 100000u : 10u);
    EXPECT_TRUE(read_location(server_->uri("/x", "ftp@active")) == content);
    EXPECT_TRUE(read_location(server_->uri("/x"), "end") == (is_ftp_only() ? content : "refused 4 0"));
}

TEST_P(stream_ftp, writes_files)
{
    const std::string much(300000, 'm');
    for (const auto &[mode, commands] : {std::pair("wb", "|PASV|STOR x|"), {"ab", "|PASV|REST 5|APPE x|"}}) {
        server_->serve("12345");
        ASSERT_EQ(open(server_->uri("/x"), mode), 0u);
        EXPECT_NE(server_->heard().find(commands), std::string::npos);
        EXPECT_EQ(kestal_ctx_read(id_, nullptr, 1), -1);
        int64_t length = 1;
        for (size_t sent = 0; sent < much.size() && length > 0; sent += static_cast<size_t>(length))
            length = kestal_ctx_write(id_, much.data() + sent, much.size() - sent);
        close();
        EXPECT_TRUE(server_->stored() == much);
    }
}

TEST_P(stream_ftp, tells_what_went_wrong)
{
    const std::string aborted = "!" + std::to_string(ECONNABORTED);
    server_->serve(std::string(100000, 'c'), 60000);
    EXPECT_TRUE(read_location(server_->uri("/x")).ends_with("!" + std::to_string(ECONNRESET)));
    server_->serve("short");
    server_->answer("end", "426 lost\r\n");
    ASSERT_EQ(open(server_->uri("/x"), "rb"), 0u);
    EXPECT_EQ(read_all(), "short" + aborted);
    EXPECT_EQ(read_all(), aborted);
    close();
    server_->answer("end", "250 some servers say so\r\n");
    EXPECT_EQ(read_location(server_->uri("/x")), "short");

    server_->serve(std::string(10000000, 'c'));
    ASSERT_EQ(open(server_->uri("/x"), "rb"), 0u);
    char byte;
    EXPECT_EQ(kestal_ctx_read(id_, &byte, 1), 1);
    server_->heard();
    close();
    EXPECT_EQ(server_->heard(), "ABOR|");

    for (const auto &[command, answer, error] :
         {std::tuple("RETR", "550 no such file\r\n", ENOENT),
          {"RETR", "502 no\r\n", EOPNOTSUPP},
          {"PASV", "hang up", ECONNRESET},
          {"PASV", "227 (127,0,0,1,0,1)\r\n", ECONNREFUSED}, // where nobody listens
          {"PASV", "227 nowhere\r\n", EPROTO},
          {"PASS", "530 who?\r\n", EACCES},
          {"", "421 busy\r\n", ECONNREFUSED}}) {
        server_->answer(command, answer);
        EXPECT_EQ(read_location(server_->uri("/x")), "refused 10 " + std::to_string(error));
    }
}

TEST_P(stream_ftp, survives_short_memory)
{
    server_->serve("content");
    const auto failures = kestal_test::with_each_allocation_failing([this] {
        const std::string got = read_location(server_->uri("/x"));
        EXPECT_TRUE(got == "content" || got.rfind("refused", 0) == 0 || got.find('!') != std::string::npos) << got;
    });
    EXPECT_GE(failures, 10u);
    EXPECT_EQ(kestal_plugin_initialize_builtin_ftp_plugin(nullptr, nullptr, nullptr), -1);
}

INSTANTIATE_TEST_SUITE_P(, stream_ftp, testing::Bool(),
                         [](const auto &each) { return each.param ? "ftp_only" : "builtin"; });

} // namespace
