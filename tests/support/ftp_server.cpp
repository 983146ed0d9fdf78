#include "ftp_server.hpp"

#include "descriptors.hpp"

#include <regex>
#include <sys/socket.h>
#include <unistd.h>

namespace kestal_test {

namespace {

int stream_socket(const sockaddr_storage &address, int (*attach)(int, const sockaddr *, socklen_t))
{
    const int sock = socket(address.ss_family, SOCK_STREAM, 0);
    attach(sock, reinterpret_cast<const sockaddr *>(&address), kestal_sockaddr_size(&address));
    return sock;
}

int listen_on(const std::string &host)
{
    const int sock = stream_socket(address_of(host), bind);
    EXPECT_EQ(listen(sock, 16), 0);
    return sock;
}

bool send_all(int sock, const std::string &data)
{
    return send(sock, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

} // namespace

ftp_server::ftp_server(const std::string &host, const answers &told)
    : host_(host), listening_(listen_on(host)), thread_([this] { run(); })
{
    for (const auto &[command, text] : told)
        answer(command, text);
}

ftp_server::~ftp_server()
{
    shutdown(listening_, SHUT_RDWR);
    thread_.join();
    close(listening_);
}

std::string ftp_server::uri(const std::string &path, const std::string &scheme, const std::string &user) const
{
    return scheme + "://" + user + "[" + host_ + "]:" + std::to_string(port_of(listening_)) + path;
}

void ftp_server::answer(const std::string &command, const std::string &text)
{
    const std::lock_guard guard(mutex_);
    answers_[command] = text;
}

void ftp_server::serve(const std::string &content, size_t cut_after)
{
    const std::lock_guard guard(mutex_);
    content_ = content;
    cut_after_ = cut_after;
}

std::string ftp_server::heard()
{
    const std::lock_guard guard(mutex_);
    const std::regex port(R"((PORT (?:\d+,){4})\d+,\d+|(EPRT \|2\|::1\|)\d+)");
    return std::regex_replace(std::exchange(heard_, ""), port, "$1$2N");
}

std::string ftp_server::stored()
{
    const std::lock_guard guard(mutex_);
    return std::exchange(stored_, "");
}

void ftp_server::run()
{
    while ((control_ = accept(listening_, nullptr, nullptr)) >= 0) {
        bool goes_on = respond("");
        std::string line;
        for (char byte; goes_on && recv(control_, &byte, 1, 0) == 1;) {
            line += byte;
            if (!line.ends_with("\r\n"))
                continue;
            goes_on = respond(line.substr(0, line.size() - 2));
            line.clear();
        }
        close(control_);
        close(std::exchange(passive_, -1));
    }
}

bool ftp_server::say(const std::string &text) const
{
    return send_all(control_, text);
}

bool ftp_server::respond(const std::string &line)
{
    const std::string verb = line.substr(0, line.find(' '));
    std::unique_lock lock(mutex_);
    heard_ += line.empty() ? "" : line + "|";
    const auto whole = answers_.find(line), told = whole == answers_.end() ? answers_.find(verb) : whole;
    const std::string answer = told == answers_.end() ? "" : told->second;
    const std::string content = content_;
    const size_t cut_after = cut_after_;
    lock.unlock();
    unsigned high = 0, low = 0;
    if (!answer.empty())
        return answer != "hang up" && say(answer);
    if (verb == "PASV" || verb == "EPSV") {
        close(std::exchange(passive_, listen_on(host_)));
        const unsigned port = port_of(passive_);
        const std::string bytes = std::to_string(port / 256) + "," + std::to_string(port % 256);
        return say(verb == "PASV" ? "227 at (127,0,0,1," + bytes + ").\r\n"
                                  : "229 (|||" + std::to_string(port) + "|)\r\n");
    }
    if (sscanf(line.c_str(), "PORT 127,0,0,1,%u,%u", &high, &low) == 2 ||
        sscanf(line.c_str(), "EPRT |2|::1|%u|", &low) == 1) {
        active_ = address_of(host_);
        kestal_sockaddr_set_port(&active_, high * 256 + low);
        return say("200 ok\r\n");
    }
    if (sscanf(line.c_str(), "REST %zu", &offset_) == 1)
        return say("350 go on\r\n");
    if (verb == "SIZE")
        return say("213 " + std::to_string(content.size()) + "\r\n");
    if (verb == "RETR" || verb == "LIST" || verb == "NLST")
        return send_file(content.substr(std::exchange(offset_, 0)), cut_after);
    return verb == "STOR" || verb == "APPE" ? receive_file() : say("500 what?\r\n");
}

// Answers that the transfer begins; an active connection is made after that.
int ftp_server::open_data()
{
    if (passive_ < 0)
        return say("150 I come\r\n") ? stream_socket(active_, connect) : -1; // the client may have given up
    const int data = accept(passive_, nullptr, nullptr);
    close(std::exchange(passive_, -1));
    say("125 go on\r\n");
    return data;
}

bool ftp_server::send_file(const std::string &content, size_t cut_after)
{
    const int data = open_data();
    const bool is_sent = send_all(data, content.substr(0, cut_after)), is_cut = cut_after < content.size();
    const linger at_once = {is_cut, 0};
    setsockopt(data, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(data);
    const std::lock_guard guard(mutex_);
    const auto told = answers_.find("end");
    return !is_cut && say(told != answers_.end() ? told->second : is_sent ? "226 done\r\n" : "426 lost\r\n");
}

bool ftp_server::receive_file()
{
    const int data = open_data();
    std::string received;
    char block[4096];
    for (ssize_t count; (count = recv(data, block, sizeof block, 0)) > 0;)
        received.append(block, static_cast<size_t>(count));
    close(data);
    const std::lock_guard guard(mutex_);
    stored_ = received;
    return say("226 stored\r\n");
}

} // namespace kestal_test
