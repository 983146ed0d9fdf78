// FTP servers side by side, each asked by one session: a large file, a small one and a listing. The other servers want
// root's rights.
#include <kestal_ulx.h>

#include "peer_process.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace {

constexpr size_t large_size = 64 << 20;
constexpr size_t small_size = 4096;
constexpr int listed = 500;
constexpr const char *nobody = "daemon"; // an account of every system

// A folder to serve, and a free port to do it on.
class place {
public:
    place()
    {
        for (const char *name : {"/root", "/root/names", "/root/new", "/empty"})
            std::filesystem::create_directory(folder_.path() + name);
        std::ofstream(root() + "/large") << std::string(large_size, 'x');
        std::ofstream(root() + "/small") << std::string(small_size, 'x');
        for (int i = 0; i < listed; ++i)
            std::ofstream(root() + "/names/file" + std::to_string(i)) << i;
        std::filesystem::permissions(root() + "/new", std::filesystem::perms(0777));
    }

    std::string root() const { return folder_.path() + "/root"; }
    const std::string &port() const { return port_; }
    std::string file(const std::string &name, const std::string &content) const
    {
        std::ofstream(folder_.path() + "/" + name) << content;
        return folder_.path() + "/" + name;
    }
    std::string path(const std::string &name) const { return folder_.path() + "/" + name; }

private:
    kestal_bench::folder folder_;
    const std::string port_ = kestal_bench::free_port(kestal_open_listen_socket("127.0.0.1", 0));
};

using command = std::vector<std::string>;

command kestal(const place &at)
{
    return {KESTAL_FTPD, "--port", at.port(), "--user", "joe:secret:" + at.root()};
}

command vsftpd(const place &at)
{
    const std::string settings = "listen=YES\nlisten_address=127.0.0.1\nlisten_port=" + at.port() +
                                 "\nbackground=NO\nanonymous_enable=YES\nno_anon_password=YES\nanon_root=" + at.root() +
                                 "\nftp_username=" + nobody + "\nnopriv_user=" + nobody +
                                 "\nwrite_enable=YES\nanon_upload_enable=YES\nanon_other_write_enable=YES\n"
                                 "anon_umask=000\nsecure_chroot_dir=" +
                                 at.path("empty") + "\nseccomp_sandbox=NO\nxferlog_enable=NO\n";
    return {kestal_bench::find_program("vsftpd"), at.file("vsftpd.conf", settings)};
}

command pure_ftpd(const place &at)
{
    const std::string accounts =
        at.file("accounts", "joe:$1$saltsalt$9xy1btjgzLYfb7hivXtC//:1:1::" + at.root() + "/./::::::::::::\n");
    kestal_bench::run({kestal_bench::find_program("pure-pw"), "mkdb", at.path("accounts.pdb"), "-f", accounts});
    return {kestal_bench::find_program("pure-ftpd"),
            "-S",
            "127.0.0.1," + at.port(),
            "-l",
            "puredb:" + at.path("accounts.pdb"),
            "-E",
            "-H",
            "-u",
            "1",
            "-g",
            at.path("pid")};
}

// One session that goes on from transfer to transfer. Sockets and nothing else: libcurl 7.88 waits a second for nothing
// whenever a server that runs on its own machine answers EPSV at once.
class client {
public:
    client(const place &at, bool is_anonymous) : control_(connect_to(at.port()))
    {
        reply();
        ask(is_anonymous ? "USER anonymous" : "USER joe");
        ask("PASS secret");
        ask("TYPE I");
    }
    ~client() { kestal_close_socket(control_); }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    // The number of bytes that came, or went.
    size_t fetch(const std::string &request)
    {
        const int32_t data = begin(request);
        size_t moved = 0;
        for (ssize_t count; (count = recv(data, buffer_.data(), buffer_.size(), 0)) > 0;)
            moved += static_cast<size_t>(count);
        return end(data, moved);
    }
    size_t store(const std::string &request, size_t size)
    {
        const int32_t data = begin(request);
        size_t moved = 0;
        for (ssize_t count = 1; moved < size && count > 0; moved += static_cast<size_t>(count))
            count = send(data, buffer_.data(), std::min(size - moved, buffer_.size()), MSG_NOSIGNAL);
        return end(data, moved);
    }

private:
    static int32_t connect_to(const std::string &port)
    {
        return kestal_open_connect_socket("127.0.0.1", std::stoi("0" + port), 1000);
    }

    int32_t begin(const std::string &request)
    {
        const std::string passive = ask("EPSV"); // 229 ... (|||PORT|)
        const int32_t data = connect_to(passive.substr(std::min(passive.find("|||"), passive.size() - 3) + 3, 5));
        ask(request);
        return data;
    }
    size_t end(int32_t data, size_t moved)
    {
        kestal_close_socket(data);
        return reply().starts_with("226") ? moved : 0;
    }

    std::string ask(const std::string &request)
    {
        const std::string line = request + "\r\n";
        send(control_, line.data(), line.size(), MSG_NOSIGNAL);
        return reply();
    }
    // The last line of the next reply, whose code has a blank behind it.
    std::string reply()
    {
        for (std::string line;;) {
            const size_t end = received_.find("\r\n");
            if (end != std::string::npos) {
                line = received_.substr(0, end);
                received_.erase(0, end + 2);
                if (line.size() > 3 && line[0] >= '1' && line[0] <= '5' && line[3] == ' ')
                    return line;
                continue;
            }
            char piece[4096];
            const ssize_t count = recv(control_, piece, sizeof piece, 0);
            if (count <= 0)
                return "no reply";
            received_.append(piece, static_cast<size_t>(count));
        }
    }

    int32_t control_;
    std::string received_;
    std::vector<char> buffer_ = std::vector<char>(256 << 10);
};

template <command (*serve)(const place &), typename Transfer>
void transfer(benchmark::State &state, Transfer once)
{
    const place at;
    const kestal_bench::server server(serve(at));
    if (!kestal_bench::answers(at.port())) {
        state.SkipWithError("no server");
        return;
    }
    client peer(at, serve == vsftpd);
    once(peer); // logged in
    for (auto _ : state) {
        if (!once(peer)) {
            state.SkipWithError("not all of it");
            return;
        }
        state.PauseTiming();
        std::filesystem::remove(at.root() + "/new/file");
        state.ResumeTiming();
    }
}

template <typename Transfer>
void row(const std::string &name, Transfer once)
{
    benchmark::RegisterBenchmark((name + ":kestal").c_str(), transfer<kestal, Transfer>, once)->UseRealTime();
    if (!kestal_bench::find_program("vsftpd").empty())
        benchmark::RegisterBenchmark((name + ":vsftpd").c_str(), transfer<vsftpd, Transfer>, once)->UseRealTime();
    if (!kestal_bench::find_program("pure-ftpd").empty())
        benchmark::RegisterBenchmark((name + ":pure-ftpd").c_str(), transfer<pure_ftpd, Transfer>, once)->UseRealTime();
}

[[maybe_unused]] const bool registered = [] {
    row("FTP server, 64 MiB sent", [](client &peer) { return peer.fetch("RETR large") == large_size; });
    row("FTP server, 64 MiB received",
        [](client &peer) { return peer.store("STOR new/file", large_size) == large_size; });
    row("FTP server, 4 KiB sent", [](client &peer) { return peer.fetch("RETR small") == small_size; });
    row("FTP server, 4 KiB received",
        [](client &peer) { return peer.store("STOR new/file", small_size) == small_size; });
    row("FTP server, list of 500 files", [](client &peer) { return peer.fetch("LIST names") > listed * 50; });
    return true;
}();

} // namespace
