#include "support.hpp"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

TEST(file, modes_are_read_as_fopen_reads_them)
{
    constexpr uint32_t r = KESTAL_FILE_READ, w = KESTAL_FILE_WRITE, c = KESTAL_FILE_CREATE, t = KESTAL_FILE_TRUNCATE,
                       image = KESTAL_FILE_IMAGE;
    uint32_t flags = 77, permission = 77;
    for (const char *mode :
         {static_cast<const char *>(nullptr), "", "b", "R", "rr", "rbt", "r++", "w10000", "w06b", "w99999999999"})
        EXPECT_EQ(kestal_parse_file_mode(mode, &flags, &permission), -1) << (mode == nullptr ? "<null>" : mode);
    EXPECT_TRUE(flags == 77 && permission == 77);
    for (const auto &[mode, expected, mask] : {std::tuple("r", r, 0666u),
                                               {"rb+e", r | w | image, 0666u},
                                               {"rn7777", r | KESTAL_FILE_NONBLOCK, 07777u},
                                               {"w+t", r | w | c | t | KESTAL_FILE_TEXT, 0666u},
                                               {"a", w | c | KESTAL_FILE_APPEND, 0666u},
                                               {"wx0", w | c | t | KESTAL_FILE_EXCLUSIVE, 0u}}) {
        EXPECT_EQ(kestal_parse_file_mode(mode, &flags, &permission), 0) << mode;
        EXPECT_TRUE(flags == expected && permission == mask) << mode;
    }
}

// Opens by a mode text; -1 when either step fails.
int open_as(const std::string &path, const char *mode)
{
    uint32_t flags = 0, permission = 0;
    const int32_t parsed = kestal_parse_file_mode(mode, &flags, &permission);
    return parsed != 0 ? -1 : kestal_open_file(path.c_str(), flags, permission);
}

TEST(file, writes_appends_and_reads)
{
    const kestal_test::temporary_directory directory;
    const std::string path = directory.path("file");
    EXPECT_EQ(open_as(path, "r"), -1);
    int descriptor = open_as(path, "wx0640");
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(kestal_write_file_all(descriptor, "0123456789", 10, 1000), 0);
    EXPECT_EQ(kestal_close_file(descriptor), 0);
    EXPECT_EQ(open_as(path, "wx"), -1);
    EXPECT_EQ(errno, EEXIST);

    descriptor = open_as(path, "a+");
    EXPECT_EQ(kestal_seek_file(descriptor, 0, SEEK_SET), 0);
    EXPECT_EQ(kestal_write_file(descriptor, "ab", 2, -1), 2);
    EXPECT_EQ(kestal_get_file_size(descriptor), 12);
    EXPECT_EQ(kestal_seek_file(descriptor, -4, SEEK_END), 8);
    char data[16] = {};
    EXPECT_EQ(kestal_read_file(descriptor, data, sizeof data, 0), 4);
    EXPECT_STREQ(data, "89ab");
    EXPECT_EQ(kestal_read_file_all(descriptor, data, sizeof data, -1), 0);
    kestal_close_file(descriptor);

    descriptor = open_as(path, "w");
    EXPECT_EQ(kestal_get_file_size(descriptor), 0);
    EXPECT_EQ(kestal_read_file_all(descriptor, data, 1, -1), -1);
    kestal_close_file(descriptor);
    EXPECT_EQ(kestal_open_file(path.c_str(), KESTAL_FILE_CREATE, 0), -1);
}

TEST(file, makes_the_directories_of_a_path)
{
    const kestal_test::temporary_directory directory;
    for (const char *name : {"a/b//c/file", "a/b/c/file", "file", "x/../y/file"})
        EXPECT_EQ(kestal_make_parent_directories(directory.path(name).c_str(), 0700), 0) << name;
    struct stat status;
    for (const char *name : {"a", "a/b/c", "y"})
        EXPECT_TRUE(stat(directory.path(name).c_str(), &status) == 0 && status.st_mode == (S_IFDIR | 0700)) << name;
    EXPECT_EQ(access(directory.path("file").c_str(), F_OK), -1);
    EXPECT_EQ(kestal_make_parent_directories("", 0700) + kestal_make_parent_directories(nullptr, 0700), -1);

    const int descriptor = open_as(directory.path("a/file"), "w0777");
    EXPECT_EQ(kestal_make_parent_directories(directory.path("a/file/b").c_str(), 0700), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(kestal_sync_file(descriptor), 0);
    EXPECT_EQ(kestal_set_file_permission(descriptor, 0622), 0);
    EXPECT_TRUE(fstat(descriptor, &status) == 0 && status.st_mode == (S_IFREG | 0622));
    kestal_close_file(descriptor);
    EXPECT_EQ(kestal_sync_file(descriptor) + kestal_set_file_permission(descriptor, 0), -2);
    kestal_test::with_each_allocation_failing(
        [&] { kestal_make_parent_directories(directory.path("a/b").c_str(), 0700); });
}

TEST(file, waits_for_a_pipe_as_long_as_told)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    char data[8];
    EXPECT_EQ(kestal_read_file(ends[0], data, sizeof data, 20), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(kestal_get_file_size(ends[0]), -1);

    // A blocking pipe that nobody reads: the time-out holds for a write longer than its room.
    const std::string much(1u << 20, 'x');
    EXPECT_EQ(kestal_write_file_all(ends[1], much.data(), much.size(), 20), -1);
    EXPECT_EQ(errno, ETIMEDOUT);

    // Pieces that come one by one, among signals, to a reader that must not wait in read itself.
    ASSERT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
    while (read(ends[0], data, sizeof data) > 0)
        ;
    signal(SIGUSR1, [](int) {});
    std::thread writer([&, reader = pthread_self()] {
        for (size_t at = 0; at < much.size(); at += much.size() / 16) {
            pthread_kill(reader, SIGUSR1);
            EXPECT_EQ(kestal_write_file_all(ends[1], much.data() + at, much.size() / 16, -1), 0);
        }
        close(ends[1]);
    });
    std::string copy(much.size() + 1, '\0');
    errno = 1;
    EXPECT_EQ(kestal_read_file_all(ends[0], copy.data(), copy.size(), 60000), static_cast<int64_t>(much.size()));
    EXPECT_EQ(errno, 0);
    writer.join();
    signal(SIGUSR1, SIG_DFL);
    close(ends[0]);
}

} // namespace
