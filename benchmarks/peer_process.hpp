// Programs as the sides of a benchmark: servers that run as long as it does, and clients run to their end.
#pragma once

#include <kestal_ulx.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace kestal_bench {

inline pid_t spawn(std::vector<std::string> command)
{
    std::vector<char *> arguments;
    for (std::string &part : command)
        arguments.push_back(part.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        posix_spawn_file_actions_addopen(&actions, descriptor, "/dev/null", O_RDWR, 0);
    pid_t process = -1;
    const int error = posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? process : -1;
}

// Whether a program ran to a good end.
inline bool run(const std::vector<std::string> &command)
{
    const pid_t process = spawn(command);
    int status = 0;
    return process > 0 && waitpid(process, &status, 0) == process && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class server {
public:
    explicit server(const std::vector<std::string> &command) : process_(spawn(command)) {}
    ~server()
    {
        if (process_ > 0 && kill(process_, SIGTERM) == 0)
            waitpid(process_, nullptr, 0);
    }
    server(const server &) = delete;
    server &operator=(const server &) = delete;

private:
    pid_t process_;
};

// A program's path, among the installed ones and those that script/bootstrap unpacked; empty when there is none.
inline std::string find_program(const std::string &name)
{
    for (const char *folder : {"/usr/sbin", "/usr/bin", KESTAL_BENCH_PEERS "/usr/sbin", KESTAL_BENCH_PEERS "/usr/bin"})
        if (const std::string path = std::string(folder) + "/" + name; access(path.c_str(), X_OK) == 0)
            return path;
    return {};
}

// The port of a socket, which is closed: a free one.
inline std::string free_port(int32_t probe)
{
    sockaddr_storage name = {};
    uint32_t length = sizeof name;
    kestal_getsockname(probe, &name, &length);
    kestal_close_socket(probe);
    return std::to_string(kestal_sockaddr_get_port(&name));
}

// Whether somebody listens at the port before too long.
inline bool answers(const std::string &port)
{
    for (int tries = 0; tries < 300; ++tries) {
        const int32_t sock = kestal_open_connect_socket("127.0.0.1", std::stoi(port), 1000);
        kestal_close_socket(sock);
        if (sock >= 0)
            return true;
        kestal_load_balance();
    }
    return false;
}

// A folder that every user may read, removed in the end.
class folder {
public:
    folder()
    {
        char name[] = "/tmp/kestal-bench-XXXXXX";
        path_ = mkdtemp(name);
        std::filesystem::permissions(path_, std::filesystem::perms(0755));
    }
    ~folder() { std::filesystem::remove_all(path_); }
    folder(const folder &) = delete;
    folder &operator=(const folder &) = delete;

    const std::string &path() const { return path_; }

private:
    std::string path_;
};

} // namespace kestal_bench
