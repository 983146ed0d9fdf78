// Bytes as what a client sends over one control connection: every reply has to be one, and nothing may be touched outside
// the home, a folder made for this. A byte 1 stands for a PORT command to where data connections are taken.
#include "fuzz.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const fs::path root = "/tmp/ftpd_fuzz-" + std::to_string(getpid()), home = root / "home";
kestal_ftpd_t *server;
int32_t listener;
std::string port_command;

void fill_home()
{
    fs::remove_all(home);
    fs::create_directories(home / "d/e");
    std::ofstream(home / "f") << "content";
    fs::create_symlink("..", home / "u");
    fs::create_symlink("../secret", home / "s");
    fs::create_symlink("../f", home / "d/l");
}

// Lines that begin with a code, or a blank within those of HELP; what Telnet asks for comes back before them.
void check_replies(int32_t sock)
{
    std::string replies;
    char piece[65536];
    for (int32_t count; (count = kestal_sys_recv(sock, piece, sizeof piece, 0)) > 0;)
        replies.append(piece, static_cast<size_t>(count));
    require(replies.starts_with("220 KESTAL FTP Server\r\n"));
    for (size_t begin = 0, end = 0; (end = replies.find("\r\n", begin)) != std::string::npos; begin = end + 2) {
        const size_t code = std::min(replies.find_first_not_of("\xFF\xF4\xF2", begin), end);
        require(end - code > 4 && (replies[code] == ' ' || (replies[code] >= '1' && replies[code] <= '5')));
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    require(fs::create_directory(root));
    std::atexit([] { fs::remove_all(root); });
    std::ofstream(root / "secret") << "secret";
    server = kestal_open_ftpd("127.0.0.1", 0);
    kestal_ftpd_set_timeouts(server, 100, 10, 1);
    kestal_ftpd_add_user(server, nullptr, "a", nullptr, home.c_str());
    kestal_ftpd_add_user(server, nullptr, "b", "p", home.c_str());
    listener = kestal_open_listen_socket("127.0.0.1", 0);
    kestal_set_non_block_socket(listener, 1);
    sockaddr_in own = {};
    uint32_t length = sizeof own;
    require(kestal_getsockname(listener, &own, &length) == 0);
    const uint32_t port = kestal_sockaddr_get_port(&own);
    port_command = "PORT 127,0,0,1," + std::to_string(port >> 8) + "," + std::to_string(port & 255) + "\r\n";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fill_home();
    std::string input;
    for (const uint8_t *byte = data; byte != data + size; ++byte)
        input += *byte == 1 ? port_command : std::string(1, static_cast<char>(*byte));
    kestal_socket_pair_t ends;
    require(kestal_socket_pair(size % 2 == 0 ? AF_UNIX : AF_INET, SOCK_STREAM, IPPROTO_TCP, &ends) == 0);
    kestal_sys_send(ends.m_socket[0], input.data(), input.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    kestal_shutdown_socket(ends.m_socket[0], SHUT_WR);
    require(kestal_ftpd_serve(server, ends.m_socket[1]) == 0);
    check_replies(ends.m_socket[0]);
    kestal_close_socket(ends.m_socket[0]);
    for (int32_t sock; (sock = kestal_accept(listener, nullptr, nullptr, -1)) >= 0;)
        kestal_close_socket(sock);
    require(fs::file_size(root / "secret") == 6);
    require(std::distance(fs::directory_iterator(root), {}) == 2);
    return 0;
}
