// Replies of an FTP server in any pieces, beside a reader that has the whole of them before it.
#include "fuzz.hpp"

#include <algorithm>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t longest_line = 16383;
constexpr size_t most_pieces = 100; // that a socket holds unread

// The text of the next reply in what is left of the input, which is taken from it; -1 without one, else the code.
int32_t next_reply(std::string &rest, std::string &text)
{
    for (;;) {
        const size_t end = rest.find_first_of("\r\n");
        if (end == std::string::npos)
            return -1;
        const std::string line = rest.substr(0, std::min(end, longest_line));
        rest.erase(0, end + (rest.compare(end, 2, "\r\n") == 0 ? 2 : 1));
        if (line.size() < 4 || line[0] < '0' || line[0] > '9' || line[3] != ' ')
            continue;
        text = line.substr(4).c_str(); // a NUL ends what a caller sees
        return std::atoi(line.substr(0, 3).c_str());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string greeting = "220 hello\r\n";
    if (size < 1 || size > 40000)
        return 0;
    std::string rest(reinterpret_cast<const char *>(data) + 1, size - 1);
    const size_t piece = std::max<size_t>({1, data[0], rest.size() / most_pieces + 1});
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0);
    require(write(ends[1], greeting.data(), greeting.size()) > 0);
    for (size_t at = 0; at < rest.size(); at += piece)
        require(write(ends[1], rest.data() + at, std::min(piece, rest.size() - at)) > 0);
    shutdown(ends[1], SHUT_WR);

    kestal_ftp_t *ftp = kestal_open_ftp();
    require(kestal_ftp_set_connect_socket(ftp, ends[0], "ftp://host", 0) == 0);
    std::string text;
    int32_t code = 0;
    while (code != -1) {
        code = next_reply(rest, text);
        require(kestal_ftp_command_puts(ftp, nullptr) == code);
        require(code == -1 || (text == ftp->m_reply_text && ftp->m_reply_code == code));
    }
    // What is read out of replies.
    kestal_ftp_get_pwd(ftp);
    kestal_close_ftp(ftp);
    close(ends[1]);
    return 0;
}
