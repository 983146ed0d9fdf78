#include "descriptors.hpp"

#include "ftpd_path.hpp"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

TEST(ftpd_virtual_path, is_normalised_under_its_root)
{
    struct {
        const char *current, *argument, *path;
    } const cases[] = {
        // clang-format off
        {"/", "", "/"}, {"/a", "b/c/", "/a/b/c"}, {"/a", "/b", "/b"}, {"/a/b", "..", "/a"}, {"/", "../../..", "/"},
        {"/a", "././/b/.", "/a/b"}, {"/a", "...", "/a/..."}, {"/a", "..b/.c", "/a/..b/.c"},
        {"/a", "b/../../../etc", "/etc"}, {"/", " x ", "/ x "}, {"/a", "/..//../.", "/"},
        // clang-format on
    };
    for (const auto &[current, argument, expected] : cases) {
        kestal::virtual_path path;
        EXPECT_TRUE(path.assign(current, argument)) << argument;
        EXPECT_STREQ(path.text(), expected) << current << " and " << argument;
        EXPECT_STREQ(path.beneath(), strcmp(expected, "/") == 0 ? "." : expected + 1);
    }
    kestal::virtual_path path;
    EXPECT_TRUE(path.assign("/", std::string(PATH_MAX - 2, 'x')));
    EXPECT_FALSE(path.assign("/a", std::string(PATH_MAX - 3, 'x')));
}

// Both ways of opening must agree; where the kernel lacks its own, only the other is looked at.
class ftpd_confinement : public kestal_test::descriptors_counted {
protected:
    using opener = int (*)(int, const char *, int, mode_t);

    ftpd_confinement()
    {
        std::filesystem::create_directories(files_.path("home/folder/deep"));
        files_.file("secret", "secret");
        files_.file("home/file", "file");
        files_.file("home/folder/deep/file", "deep");
        home_ = open(files_.path("home").c_str(), O_PATH | O_DIRECTORY);
        if (const int probe = kestal::open_beneath_by_kernel(home_, ".", O_PATH, 0); probe >= 0) {
            close(probe);
            openers_.push_back(kestal::open_beneath_by_kernel);
        }
    }
    ~ftpd_confinement() override { close(home_); }

    void link(const std::string &target, const std::string &name) const
    {
        EXPECT_EQ(symlink(target.c_str(), files_.path("home/" + name).c_str()), 0) << name;
    }

    // What the file holds, or the error.
    std::string content(opener open, const std::string &path) const
    {
        char bytes[16];
        const int file = open(home_, path.c_str(), O_RDONLY, 0);
        const ssize_t count = file < 0 ? -1 : read(file, bytes, sizeof bytes);
        const int error = errno;
        close(file);
        return count < 0 ? strerrorname_np(error) : std::string(bytes, static_cast<size_t>(count));
    }

    kestal_test::temporary_directory files_;
    int home_ = -1;
    std::vector<opener> openers_ = {kestal::open_beneath_by_steps};
};

TEST_F(ftpd_confinement, follows_links_that_stay_inside_and_refuses_those_that_leave)
{
    link("file", "inside");
    link("folder/deep/../../file", "through");
    link("../file", "folder/up");
    link("deep", "folder/deeper");
    link("folder/deeper/..//up", "many");
    link("../secret", "outside");
    link(files_.path("secret"), "absolute");
    link(files_.path("home/file"), "absolute_inside");
    link("..", "parent");
    link("/proc/self/root", "magic");
    link("pong", "ping");
    link("ping", "pong");
    link("nowhere", "dangling");

    struct {
        const char *path, *content;
    } const cases[] = {
        // clang-format off
        {"inside", "file"}, {"through", "file"}, {"folder/deeper/file", "deep"}, {"many", "file"},
        {"./folder/../file", "file"}, {"outside", "EXDEV"}, {"absolute", "EXDEV"}, {"absolute_inside", "EXDEV"},
        {"parent/secret", "EXDEV"}, {"folder/../../secret", "EXDEV"}, {"magic/etc/passwd", "EXDEV"},
        {"ping", "ELOOP"}, {"dangling", "ENOENT"}, {"nowhere/file", "ENOENT"}, {"file/more", "ENOTDIR"}, {".", "EISDIR"},
        // clang-format on
    };
    for (const auto &[path, expected] : cases)
        for (const opener open : openers_)
            EXPECT_EQ(content(open, path), expected) << path;

    for (const opener open : openers_) {
        EXPECT_EQ(open(home_, "outside", O_WRONLY | O_CREAT | O_TRUNC, 0666), -1);
        EXPECT_EQ(open(home_, "inside", O_RDONLY | O_NOFOLLOW, 0), -1);
        const int fresh = open(home_, "dangling", O_WRONLY | O_CREAT, 0666);
        EXPECT_GE(fresh, 0) << "what a link inside names is made";
        close(fresh);
        EXPECT_EQ(unlink(files_.path("home/nowhere").c_str()), 0);
    }
    EXPECT_EQ(kestal::open_beneath_by_steps(home_, std::string(NAME_MAX + 1, 'x').c_str(), O_RDONLY, 0), -1);
}

// A folder that is exchanged for a link out of the home again and again, while files are opened through it.
TEST_F(ftpd_confinement, holds_while_links_are_exchanged)
{
    std::filesystem::create_directory(files_.path("home/changing"));
    files_.file("home/changing/secret", "ours");
    link("..", "trap");
    std::atomic<bool> done{false};
    std::thread exchanger([&] {
        while (!done)
            renameat2(home_, "trap", home_, "changing", RENAME_EXCHANGE);
    });
    for (int i = 0; i < 3000; ++i)
        for (const opener open : openers_)
            for (const char *path : {"changing/secret", "trap/secret"})
                EXPECT_NE(content(open, path), "secret");
    done = true;
    exchanger.join();
}

} // namespace
