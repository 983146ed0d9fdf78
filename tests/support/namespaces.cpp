#include "namespaces.hpp"

#include "descriptors.hpp"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestal_test {

namespace {

constexpr int failed = 1;
constexpr int lacking = 77;

bool enter_namespaces()
{
    return unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("sysfs", "/sys", "sysfs", 0, nullptr) == 0 && system("ip link set lo up >/dev/null 2>&1") == 0;
}

int open_own_network()
{
    return open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
}

} // namespace

void in_own_network(const std::function<void()> &scenario)
{
    const bool had_failed = testing::Test::HasFailure();
    const pid_t child = fork();
    if (child == 0) {
        if (!enter_namespaces())
            _exit(lacking);
        const uint64_t blocks = kestal_get_alloc_count();
        const size_t descriptors = open_descriptors();
        scenario();
        EXPECT_EQ(kestal_thread_pool_wait(60000), 0) << "threads left behind";
        EXPECT_EQ(kestal_get_alloc_count(), blocks) << "live blocks left behind";
        EXPECT_EQ(open_descriptors(), descriptors) << "descriptors left open";
        fflush(nullptr);
        _exit(testing::Test::HasFailure() && !had_failed ? failed : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == lacking)
        GTEST_SKIP() << "needs ip(8) and the privilege to make network and mount namespaces";
    EXPECT_EQ(status, 0) << "see the failures above";
}

void with_hosts(const std::string &hosts, const std::function<void(const set_hosts_t &)> &scenario)
{
    in_own_network([&] {
        const temporary_directory directory;
        const set_hosts_t set_hosts = [&](const std::string &text) { directory.file("hosts", text); };
        set_hosts(hosts);
        run("mount --bind " + directory.path("hosts") + " /etc/hosts && mount --bind " +
            directory.file("switch", "hosts: files\n") + " /etc/nsswitch.conf && mount --bind " +
            directory.file("none", "") + " /etc/resolv.conf");
        scenario(set_hosts);
        run("umount -l /etc/hosts /etc/nsswitch.conf /etc/resolv.conf");
    });
}

other_network::other_network() : own_(open_own_network())
{
    EXPECT_EQ(unshare(CLONE_NEWNET), 0);
    other_ = open_own_network();
    EXPECT_EQ(setns(own_, CLONE_NEWNET), 0);
}

other_network::~other_network()
{
    close(own_);
    close(other_);
}

std::string other_network::path() const
{
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(other_);
}

void other_network::run(const std::function<void()> &work) const
{
    EXPECT_EQ(setns(other_, CLONE_NEWNET), 0);
    work();
    EXPECT_EQ(setns(own_, CLONE_NEWNET), 0);
}

void run(const std::string &command)
{
    EXPECT_EQ(system(command.c_str()), 0) << command;
}

} // namespace kestal_test
