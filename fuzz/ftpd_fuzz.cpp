// Bytes as what a client sends over one control connection: every reply has to be one, and nothing may be touched outside
// the home, a folder made for this. A byte 1 stands for a PORT command to where data connections are taken.
#include <kestal_ulx.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

void require(bool holds)
{
    if (!holds)
        std::abort();
}

class surroundings {
public:
    surroundings()
    {
        char name[] = "/tmp/ftpd_fuzz-XXXXXX";
        require(mkdtemp(name) != nullptr);
        root_ = name;
        std::ofstream(root_ / "secret") << "secret";
        server_ = kestal_open_ftpd("127.0.0.1", 0);
        kestal_ftpd_set_timeouts(server_, 100, 10, 1);
        kestal_ftpd_add_user(server_, nullptr, "a", nullptr, home().c_str());
        kestal_ftpd_add_user(server_, nullptr, "b", "p", home().c_str());
        listener_ = kestal_open_listen_socket("127.0.0.1", 0);
        kestal_set_non_block_socket(listener_, 1);
        sockaddr_in own = {};
        uint32_t length = sizeof own;
        require(kestal_getsockname(listener_, &own, &length) == 0);
        const uint32_t port = kestal_sockaddr_get_port(&own);
        port_command_ = "PORT 127,0,0,1," + std::to_string(port >> 8) + "," + std::to_string(port & 255) + "\r\n";
    }
    ~surroundings()
    {
        kestal_close_ftpd(server_);
        kestal_close_socket(listener_);
        fs::remove_all(root_);
    }

    void run(const uint8_t *data, size_t size)
    {
        fill_home();
        kestal_socket_pair_t ends;
        require(kestal_socket_pair(size % 2 == 0 ? AF_UNIX : AF_INET, SOCK_STREAM, IPPROTO_TCP, &ends) == 0);
        send_input(ends.m_socket[0], data, size);
        require(kestal_ftpd_serve(server_, ends.m_socket[1]) == 0);
        check_replies(ends.m_socket[0]);
        kestal_close_socket(ends.m_socket[0]);
        for (int32_t sock; (sock = kestal_accept(listener_, nullptr, nullptr, -1)) >= 0;)
            kestal_close_socket(sock);
        require(fs::file_size(root_ / "secret") == 6);
        require(std::distance(fs::directory_iterator(root_), {}) == 2);
    }

private:
    fs::path home() const { return root_ / "home"; }

    void fill_home() const
    {
        fs::remove_all(home());
        fs::create_directories(home() / "d/e");
        std::ofstream(home() / "f") << "content";
        fs::create_symlink("..", home() / "u");
        fs::create_symlink("../secret", home() / "s");
        fs::create_symlink("../f", home() / "d/l");
    }

    void send_input(int32_t sock, const uint8_t *data, size_t size) const
    {
        std::string input;
        for (size_t i = 0; i < size; ++i)
            if (data[i] == 1)
                input += port_command_;
            else
                input += static_cast<char>(data[i]);
        kestal_sys_send(sock, input.data(), input.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        kestal_shutdown_socket(sock, SHUT_WR);
    }

    // Lines that begin with a code, or a blank within those of HELP; what Telnet asks for comes back before them.
    static void check_replies(int32_t sock)
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

    fs::path root_;
    kestal_ftpd_t *server_;
    int32_t listener_;
    std::string port_command_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static surroundings here;
    here.run(data, size);
    return 0;
}
