#include "support.hpp"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

using kestal_test::caught_assertions;
using kestal_test::temporary_directory;

namespace {

constexpr uint32_t none = KESTAL_INVALID_ID;
constexpr uint32_t size_code = KESTAL_CTX_CONTROL_GET_SIZE;
constexpr uint64_t word = sizeof(uint64_t);

class builtin_plugin : public kestal_test::counted {
protected:
    void TearDown() override
    {
        kestal_destroy_ctx(id_);
        counted::TearDown();
    }

    // Opens the context anew as "application/ulx_..." with these options; gives its kind, or -1 - last error.
    int32_t open(const std::string &type, const std::vector<std::pair<const char *, std::string>> &options)
    {
        kestal_close_ctx(id_);
        for (const auto &[name, value] : options)
            kestal_ctx_set_option(id_, 0, name, value.data(), value.size());
        errno = 0;
        const auto *record = static_cast<const kestal_ctx_t *>(kestal_ginstance_search(id_, nullptr));
        return kestal_open_ctx(id_, ("application/ulx_" + type).c_str()) == 0
                   ? record->m_kind
                   : -1 - static_cast<int32_t>(record->m_last_error);
    }

    int32_t open_file(const std::string &path, const char *mode)
    {
        return open("stream", {{"src", path}, {"mode", mode}});
    }

    std::string read_all()
    {
        std::string all;
        char chunk[5];
        int64_t length = 0;
        while (kestal_ctx_is_readable(id_, 0) == 1 && (length = kestal_ctx_read(id_, chunk, sizeof(chunk))) > 0)
            all.append(chunk, static_cast<size_t>(length));
        return all;
    }

    const uint32_t id_ = kestal_new_ctx();
};

TEST_F(builtin_plugin, offers_an_extended_table_without_a_word)
{
    const char *hint = nullptr;
    const kestal_ctx0_v0_interface_t *table = nullptr;
    uint64_t size = 0;
    EXPECT_EQ(kestal_plugin_initialize_builtin_plugin(&hint, nullptr, &size), -1);
    // The library that it would bring along is not there, and nobody says so.
    testing::internal::CaptureStderr();
    EXPECT_EQ(kestal_plugin_initialize_builtin_plugin(&hint, &table, &size), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_STREQ(hint, "application/ulx_base;application/ulx_stream*;application/ulx_fb;application/ulx_linuxfb;"
                       "application/ulx_windows_dib;application/ulx_multicall*");
    EXPECT_EQ(table->m_version * table->m_revision, 1u);
    EXPECT_EQ(table->m_size, sizeof(kestal_ctx0_v1_interface_t));
    EXPECT_EQ(kestal_plugin_uninitialize_builtin_plugin(), 0);
}

TEST_F(builtin_plugin, picks_the_kind_by_type_and_scheme)
{
    const temporary_directory directory;
    const std::string path = directory.file("a%b", "x");
    const struct {
        const char *type;
        std::vector<std::pair<const char *, std::string>> options;
        int32_t kind; // or -1 - last error
    } cases[] = {
        {"base", {}, 0},
        {"stream", {{"SOURCE", path}}, 101},                                   // any case, and read without a mode
        {"stream", {{"src", "/nowhere"}, {"src", path}, {"mode", "rb"}}, 101}, // the last one counts
        {"stream", {{"src", "FILE://host" + directory.path("a%25b")}}, 101},
        {"stream", {{"src", "pipe://"}, {"mode", "r"}}, 104},
        {"stream_pipe", {{"src", "any"}, {"mode", "w"}}, 104},
        {"stream", {}, -4},
        {"stream", {{"src", path}, {"mode", "q"}}, -4},
        {"stream", {{"src", "http://host/"}}, -4},
        {"stream", {{"src", "/nowhere/at/all"}}, -2},
        {"stream", {{"fd", "4294967296"}}, -2},
        {"STREAM_FILE", {{"src", path}}, -4}, // hints match in any case, types do not
        {"windows_dib", {}, -4},
    };
    for (const auto &[type, options, kind] : cases)
        EXPECT_EQ(open(type, options), kind) << type;
    EXPECT_EQ(kestal_open_ctx_stream("/nowhere/at/all", "rb", 0), none);
    EXPECT_EQ(errno, ENOENT);

    for (const char *name : {"what?x=1", "100%25", "file:x"}) { // without a scheme the name is what it is
        EXPECT_EQ(open_file(directory.file(name, name), "rb"), 101);
        EXPECT_EQ(read_all(), name);
    }
}

TEST_F(builtin_plugin, reads_writes_and_seeks_files)
{
    const temporary_directory directory;
    const std::string path = directory.path("file");
    ASSERT_EQ(open_file(path, "wb"), 101);
    EXPECT_EQ(kestal_ctx_write(id_, "0123456789", 10), 10);
    EXPECT_EQ(kestal_ctx_sync(id_), 0);
    ASSERT_EQ(open_file(path, "ab"), 101);
    EXPECT_EQ(kestal_ctx_puts(id_, "abc"), 3);

    ASSERT_EQ(open_file(path, "r+b"), 101);
    EXPECT_EQ(kestal_ctx_seek(id_, -3, SEEK_END), 10);
    EXPECT_EQ(read_all(), "abc");
    EXPECT_EQ(kestal_ctx_rewind(id_), 0);
    EXPECT_EQ(kestal_ctx_write(id_, "x", 1), 1);
    EXPECT_EQ(kestal_ctx_seek(id_, -1, SEEK_SET), -1);
    EXPECT_EQ(read_all(), "123456789abc");

    uint64_t value[2] = {7, 7};
    EXPECT_EQ(kestal_ctx_control(id_, size_code, nullptr, word) + kestal_ctx_control(id_, size_code, value, word - 1),
              -2);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 4);
    EXPECT_EQ(kestal_ctx_control(id_, 0, value, word), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 3);
    const caught_assertions reports;
    EXPECT_EQ(kestal_ctx_control(id_, size_code, value, word * 2), 0);
    EXPECT_EQ(reports.messages(), std::vector<std::string>{"s_arg_size == sizeof(*s_arg)"});
    EXPECT_EQ(value[0], 13u);
    EXPECT_EQ(value[1], 7u);
}

TEST_F(builtin_plugin, leaves_given_descriptors_and_standard_streams_open)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(open("stream_pipe", {{"mode", "rb"}, {"fd", std::to_string(ends[0])}}), 104);
    EXPECT_EQ(kestal_ctx_is_readable(id_, 20), 0);
    EXPECT_EQ(kestal_ctx_sync(id_), 0);
    EXPECT_EQ(kestal_ctx_control(id_, size_code, nullptr, word), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 3);

    const uint32_t writer = kestal_open_ctx_stream_fd(ends[1], "wb", 1);
    EXPECT_EQ(kestal_ctx_puts(writer, "through"), 7);
    EXPECT_EQ(kestal_destroy_ctx(writer), none);
    EXPECT_EQ(read_all(), "through");
    EXPECT_EQ(close(ends[1]), 0);
    EXPECT_EQ(kestal_ctx_is_readable(id_, -1), 1); // a hang-up
    EXPECT_EQ(read_all(), "");
    EXPECT_EQ(close(ends[0]), 0);
    EXPECT_EQ(kestal_ctx_is_readable(id_, 0), -1);

    for (const auto &[mode, descriptor] : {std::pair("rb", 0), std::pair("wb", 1), std::pair("r+b", 2)}) {
        EXPECT_EQ(open_file("pipe://", mode), 104);
        kestal_close_ctx(id_);
        EXPECT_NE(fcntl(descriptor, F_GETFD), -1) << mode;
    }
}

TEST_F(builtin_plugin, serves_plain_contexts_without_a_stream)
{
    ASSERT_EQ(open("base", {}), 0);
    char byte = 0;
    EXPECT_EQ(kestal_ctx_is_readable(id_, 0) & kestal_ctx_is_writable(id_, 0), 1);
    EXPECT_EQ(kestal_ctx_set_last_error(id_, 9), 0);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 9);
    EXPECT_EQ(kestal_ctx_execute_main(id_, 0, nullptr), 1);
    EXPECT_EQ(kestal_ctx_read(id_, &byte, 1) & kestal_ctx_write(id_, &byte, 1) & kestal_ctx_seek(id_, 0, 0), -1);
    EXPECT_EQ(kestal_ctx_sync(id_) & kestal_ctx_set_env(id_, 0, 0, 0, 0) & kestal_ctx_bcontrol(id_, 0), -1);
    EXPECT_EQ(kestal_ctx_xcontrol(id_, 0) & kestal_ctx_control(id_, size_code), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), 3);
    EXPECT_EQ(kestal_ctx_get_env(id_, 0, 0, nullptr), nullptr);
}

} // namespace
