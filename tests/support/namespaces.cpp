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

// Runs the work in a child process: its exit status, failed when anything failed in it.
int in_child(const std::function<int()> &work)
{
    const bool had_failed = testing::Test::HasFailure();
    const pid_t child = fork();
    if (child == 0) {
        const int status = work();
        fflush(nullptr);
        _exit(status != 0 ? status : testing::Test::HasFailure() && !had_failed ? failed : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : failed;
}

bool enter_namespaces()
{
    return unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("sysfs", "/sys", "sysfs", 0, nullptr) == 0 && system("ip link set lo up >/dev/null 2>&1") == 0;
}

} // namespace

void in_own_network(const std::function<void()> &scenario)
{
    const int status = in_child([&] {
        if (!enter_namespaces())
            return lacking;
        const uint64_t blocks = kestal_get_alloc_count();
        const size_t descriptors = open_descriptors();
        scenario();
        EXPECT_EQ(kestal_get_alloc_count(), blocks) << "live blocks left behind";
        EXPECT_EQ(open_descriptors(), descriptors) << "descriptors left open";
        return 0;
    });
    if (status == lacking)
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
        run("umount /etc/hosts /etc/nsswitch.conf /etc/resolv.conf");
    });
}

other_network::other_network()
{
    int ready[2];
    int end[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(end, O_CLOEXEC) != 0)
        abort();
    process_ = fork();
    if (process_ == 0) {
        char byte = 0;
        close(end[1]);
        const bool is_ready = unshare(CLONE_NEWNET) == 0 && write(ready[1], &byte, 1) == 1;
        _exit(is_ready && read(end[0], &byte, 1) == 0 ? 0 : failed);
    }
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
    close(end[0]);
    end_ = end[1];
}

other_network::~other_network()
{
    close(end_);
    waitpid(process_, nullptr, 0);
}

void other_network::run(const std::function<void()> &work) const
{
    // On a thread, not in a child: that of a process with threads could wait for ever for memory.
    std::thread([&] {
        const int network = open(("/proc/" + process() + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(setns(network, CLONE_NEWNET), 0);
        close(network);
        work();
    }).join();
}

void run(const std::string &command)
{
    EXPECT_EQ(system(command.c_str()), 0) << command;
}

} // namespace kestal_test
