#include "support.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

using kestal_test::caught_assertions;

namespace {

constexpr uint32_t none = KESTAL_INVALID_ID;

using options = std::vector<std::pair<const char *, const char *>>; // name and value

std::string content_of(const std::string &path)
{
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

class builtin_plugin : public kestal_test::counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        id_ = kestal_new_ctx();
    }
    void TearDown() override
    {
        kestal_destroy_ctx(id_);
        counted::TearDown();
    }

    const kestal_ctx_t &record() const
    {
        return *static_cast<const kestal_ctx_t *>(kestal_ginstance_search(id_, nullptr));
    }

    // Opens the context anew; gives its kind, or -1 - last error.
    int32_t open(const char *type, const options &wanted)
    {
        kestal_close_ctx(id_);
        for (const auto &[name, value] : wanted)
            kestal_ctx_set_option_string(id_, 0, name, value);
        errno = 0;
        if (kestal_open_ctx(id_, type) != 0)
            return -1 - static_cast<int32_t>(record().m_last_error);
        return record().m_kind;
    }

    int32_t open_file(const std::string &path, const char *mode)
    {
        return open("application/ulx_stream", {{"src", path.c_str()}, {"mode", mode}});
    }

    std::string read_all()
    {
        std::string all;
        char chunk[100];
        while (kestal_ctx_is_readable(id_, 0) == 1) {
            const int64_t length = kestal_ctx_read(id_, chunk, sizeof(chunk));
            if (length <= 0)
                break;
            all.append(chunk, static_cast<size_t>(length));
        }
        return all;
    }

    int64_t size()
    {
        uint64_t size = 0;
        const int32_t result = kestal_ctx_control(id_, KESTAL_CTX_CONTROL_GET_SIZE, &size, uint64_t{sizeof(size)});
        return result == 0 ? static_cast<int64_t>(size) : -1;
    }

    uint32_t id_ = none;
};

TEST_F(builtin_plugin, offers_an_extended_table_and_counts_initialisations)
{
    const char *hint = nullptr;
    const kestal_ctx0_v0_interface_t *table = nullptr;
    uint64_t size = 0;
    EXPECT_EQ(kestal_plugin_initialize_builtin_plugin(&hint, nullptr, &size), -1);
    EXPECT_EQ(kestal_plugin_initialize_builtin_plugin(&hint, &table, nullptr), -1);
    ASSERT_EQ(kestal_plugin_initialize_builtin_plugin(&hint, &table, &size), 0);
    EXPECT_STREQ(hint, "application/ulx_base;application/ulx_stream*;application/ulx_fb;application/ulx_linuxfb;"
                       "application/ulx_windows_dib;application/ulx_multicall*");
    EXPECT_EQ(table->m_version, 1u);
    EXPECT_EQ(table->m_revision, 1u);
    EXPECT_EQ(table->m_size, sizeof(kestal_ctx0_v1_interface_t));
    EXPECT_EQ(size, sizeof(kestal_ctx0_v1_interface_t));
    EXPECT_EQ(kestal_plugin_uninitialize_builtin_plugin(), 0);

    // One use for the context here; the library that it would bring along is not there, and nobody says so.
    testing::internal::CaptureStderr();
    const uint32_t plugin = kestal_load_plugin(nullptr, nullptr, nullptr);
    EXPECT_STREQ(kestal_plugin_get_name(plugin), "");
    EXPECT_EQ(kestal_plugin_execute_main(plugin, 0, nullptr), 1);
    kestal_unload_plugin(plugin);
    kestal_destroy_ctx(id_);
    EXPECT_EQ(kestal_get_plugin_info()->m_head, nullptr);
    id_ = kestal_new_ctx();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(builtin_plugin, picks_the_kind_by_type_and_scheme)
{
    const kestal_test::temporary_directory directory;
    const std::string path = directory.file("a b", "x");
    const std::string uri = "FILE://ignored.host" + directory.path("a%20b");
    const char *file = path.c_str();
    const struct {
        const char *type;
        options wanted;
        int32_t kind; // or -1 - last error
    } cases[] = {
        {"application/ulx_base", {}, 0},
        {"application/ulx_multicall", {}, 1},
        {"application/ulx_multicall_builtin", {}, 1},
        {"application/ulx_stream", {{"src", file}, {"mode", "rb"}}, 101},
        {"application/ulx_stream", {{"SOURCE", file}}, 101},                   // any case, and read without a mode
        {"application/ulx_stream", {{"src", "/nowhere"}, {"Src", file}}, 101}, // the last one counts
        {"application/ulx_stream", {{"src", uri.c_str()}}, 101},
        {"application/ulx_stream_file", {{"src", file}}, 101},
        {"application/ulx_stream", {{"src", "pipe://"}, {"mode", "r"}}, 104},
        {"application/ulx_stream_pipe", {{"src", "any"}, {"mode", "w"}}, 104},
        {"application/ulx_stream", {{"fd", "0"}}, 101},
        {"application/ulx_stream_pipe", {{"fd", "0"}}, 104},
        {"application/ulx_stream", {}, -4},
        {"application/ulx_stream", {{"src", ""}}, -4},
        {"application/ulx_stream", {{"src", file}, {"mode", "q"}}, -4},
        {"application/ulx_stream", {{"src", "http://host/"}}, -4},
        {"application/ulx_stream", {{"src", "/nowhere/at/all"}}, -2},
        {"application/ulx_stream", {{"fd", "-1"}}, -2},
        {"application/ulx_stream", {{"fd", "junk"}}, -2},
        {"application/ulx_stream", {{"fd", "1000000"}}, -2},
        {"APPLICATION/ULX_STREAM_FILE", {{"src", file}}, -4}, // hints match in any case, types do not
        {"application/ulx_stream_smoke", {{"src", file}}, -4},
        {"application/ulx_windows_dib", {}, -4},
        {"application/ulx_other", {}, -4},
        {nullptr, {}, -4},
    };
    for (const auto &[type, wanted, kind] : cases)
        EXPECT_EQ(open(type, wanted), kind)
            << (type ? type : "(null)") << " " << (wanted.empty() ? "" : wanted[0].second);

    EXPECT_EQ(open_file("/nowhere/at/all", "rb"), -2);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(kestal_open_ctx_stream("/nowhere/at/all", "rb", 0), none);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(kestal_open_ctx_stream_fd(1000000, "rb", 0), none);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(builtin_plugin, takes_a_text_without_scheme_as_the_name_it_is)
{
    const kestal_test::temporary_directory directory;
    for (const char *name : {"what?x=1", "100%25", "a&b", "file:x"}) {
        directory.file(name, name);
        ASSERT_EQ(open_file(directory.path(name), "rb"), 101);
        EXPECT_EQ(read_all(), name);
    }
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(directory.path(""));
    EXPECT_EQ(open_file("what?x=1", "rb"), 101);
    std::filesystem::current_path(before);
}

TEST_F(builtin_plugin, reads_writes_and_seeks_files)
{
    const kestal_test::temporary_directory directory;
    const std::string path = directory.path("file");
    ASSERT_EQ(open_file(path, "wb"), 101);
    EXPECT_EQ(kestal_ctx_is_writable(id_, 0), 1);
    EXPECT_EQ(kestal_ctx_write(id_, "0123456789", 10), 10);
    EXPECT_EQ(kestal_ctx_sync(id_), 0);
    char text[4] = {};
    EXPECT_EQ(kestal_ctx_read(id_, text, 3), -1);
    EXPECT_EQ(errno, EBADF);
    ASSERT_EQ(open_file(path, "ab"), 101);
    EXPECT_EQ(kestal_ctx_puts(id_, "abc"), 3);

    ASSERT_EQ(open_file(path, "r+b"), 101);
    EXPECT_EQ(size(), 13);
    EXPECT_EQ(kestal_ctx_seek(id_, -3, SEEK_END), 10);
    EXPECT_EQ(kestal_ctx_read(id_, text, 3), 3);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 1); // the end can be read
    EXPECT_EQ(kestal_ctx_read(id_, text, 3), 0);
    EXPECT_EQ(kestal_ctx_rewind(id_), 0);
    EXPECT_EQ(kestal_ctx_write(id_, "x", 1), 1);
    EXPECT_EQ(kestal_ctx_seek(id_, 1, SEEK_CUR), 2);
    EXPECT_EQ(kestal_ctx_seek(id_, -1, SEEK_SET), -1);
    EXPECT_EQ(content_of(path), "x123456789abc");

    const uint64_t word = sizeof(uint64_t);
    uint64_t value[2] = {7, 7};
    EXPECT_EQ(kestal_ctx_control(id_, KESTAL_CTX_CONTROL_GET_SIZE, nullptr, word), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 4);
    EXPECT_EQ(kestal_ctx_control(id_, KESTAL_CTX_CONTROL_GET_SIZE, value, word - 1), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 4);
    EXPECT_EQ(kestal_ctx_control(id_, 0, value, word), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 3);
    EXPECT_EQ(value[0], 7u);
    const caught_assertions reports;
    EXPECT_EQ(kestal_ctx_control(id_, KESTAL_CTX_CONTROL_GET_SIZE, value, word * 2), 0);
    EXPECT_EQ(value[0], 13u);
    EXPECT_EQ(value[1], 7u);
    EXPECT_EQ(reports.messages(), std::vector<std::string>{"s_arg_size == sizeof(*s_arg)"});
}

TEST_F(builtin_plugin, leaves_given_descriptors_and_standard_streams_open)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const std::string reading = std::to_string(ends[0]);
    ASSERT_EQ(open("application/ulx_stream_pipe", {{"fd", reading.c_str()}, {"mode", "rb"}}), 104);
    EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 0);
    EXPECT_EQ(kestal_ctx_is_readable(id_, 20), 0);
    EXPECT_EQ(kestal_ctx_seek(id_, 0, SEEK_SET), -1);
    EXPECT_EQ(kestal_ctx_rewind(id_), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 3);
    EXPECT_EQ(size(), -1);
    EXPECT_EQ(kestal_ctx_sync(id_), 0);

    const uint32_t writer = kestal_open_ctx_stream_fd(ends[1], "wb", 1);
    ASSERT_NE(writer, none);
    EXPECT_EQ(kestal_ctx_printf(writer, "%s", "through"), 7);
    EXPECT_EQ(kestal_ctx_seek(writer, 0, SEEK_CUR), -1);
    EXPECT_EQ(kestal_destroy_ctx(writer), none);
    EXPECT_NE(fcntl(ends[1], F_GETFD), -1);
    EXPECT_EQ(read_all(), "through");
    close(ends[1]);
    EXPECT_EQ(kestal_ctx_is_readable(id_, -1), 1); // a hang-up
    EXPECT_EQ(read_all(), "");
    close(ends[0]);
    EXPECT_EQ(kestal_ctx_is_readable(id_, 0), -1);

    const std::pair<const char *, int> streams[] = {{"rb", 0}, {"wb", 1}, {"r+b", 2}};
    for (const auto &[mode, descriptor] : streams) {
        const int kept = fcntl(descriptor, F_DUPFD_CLOEXEC, 3);
        const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(null, descriptor);
        close(null);
        EXPECT_EQ(open("application/ulx_stream", {{"src", "pipe://"}, {"mode", mode}}), 104);
        EXPECT_EQ(kestal_ctx_is_writable(id_, 0), 1);
        close(descriptor);
        EXPECT_EQ(kestal_ctx_is_writable(id_, 0), -1) << mode << " is not descriptor " << descriptor;
        dup2(kept, descriptor);
        close(kept);
        kestal_close_ctx(id_);
        EXPECT_NE(fcntl(descriptor, F_GETFD), -1);
    }
}

TEST_F(builtin_plugin, serves_many_threads)
{
    const kestal_test::temporary_directory directory;
    const std::string path = directory.file("file", "content");
    kestal_destroy_ctx(id_); // so that the plugin itself comes and goes
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&path] {
            for (int i = 0; i < 50; ++i) {
                const uint32_t stream = kestal_open_ctx_stream(path.c_str(), "rb", 0);
                char text[8] = {};
                EXPECT_EQ(kestal_ctx_read(stream, text, 7), 7);
                EXPECT_STREQ(text, "content");
                kestal_destroy_ctx(stream);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(kestal_get_plugin_info()->m_head, nullptr);
    EXPECT_EQ(kestal_ginstance_alloc_count(nullptr), 0u);
}

TEST_F(builtin_plugin, serves_plain_contexts_without_a_stream)
{
    for (const char *type : {"application/ulx_base", "application/ulx_multicall"}) {
        ASSERT_GE(open(type, {}), 0);
        char byte = 0;
        uint64_t word = 1;
        EXPECT_EQ(kestal_ctx_is_readable(id_, 0), 1);
        EXPECT_EQ(kestal_ctx_is_writable(id_, 0), 1);
        EXPECT_EQ(kestal_ctx_set_last_error(id_, 9), 0);
        EXPECT_EQ(kestal_ctx_get_last_error(id_), 9);
        EXPECT_EQ(kestal_ctx_read(id_, &byte, 1), -1);
        EXPECT_EQ(kestal_ctx_get_last_error(id_), 3);
        EXPECT_EQ(kestal_ctx_write(id_, &byte, 1), -1);
        EXPECT_EQ(kestal_ctx_sync(id_), -1);
        EXPECT_EQ(kestal_ctx_get_env(id_, 0, 0, &word), nullptr);
        EXPECT_EQ(word, 0u);
        EXPECT_EQ(kestal_ctx_set_env(id_, 0, 0, 0, 0), -1);
        EXPECT_EQ(kestal_ctx_get_last_error(id_), 3);
        EXPECT_EQ(kestal_ctx_bcontrol(id_, 0, nullptr, uint64_t{0}), -1);
        EXPECT_EQ(kestal_ctx_xcontrol(id_, 0, nullptr, uint64_t{0}), -1);
        EXPECT_EQ(size(), -1);
        EXPECT_EQ(kestal_ctx_execute_main(id_, 0, nullptr), 1);
        EXPECT_EQ(kestal_ctx_is_executable_main(id_), 0);
    }
}

} // namespace
