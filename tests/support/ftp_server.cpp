#include "ftp_server.hpp"

#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <regex>
#include <sys/socket.h>
#include <unistd.h>

namespace kestal_test {

namespace {

union address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

address address_of(const std::string &host, int family, uint16_t port)
{
    address made{};
    made.any.sa_family = static_cast<sa_family_t>(family);
    made.v4.sin_port = htons(port); // in both at the same place
    inet_pton(family, host.c_str(), family == AF_INET ? static_cast<void *>(&made.v4.sin_addr) : &made.v6.sin6_addr);
    return made;
}

socklen_t size_of(int family)
{
    return family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

int listen_on(const std::string &host, int family)
{
    const int sock = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const address local = address_of(host, family, 0);
    EXPECT_EQ(bind(sock, &local.any, size_of(family)), 0);
    EXPECT_EQ(listen(sock, 16), 0);
    const timeval limit = {10, 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit); // of data connections that never come
    return sock;
}

uint16_t port_of(int sock)
{
    address local{};
    socklen_t length = sizeof local;
    getsockname(sock, &local.any, &length);
    return ntohs(local.v4.sin_port);
}

bool send_all(int sock, const std::string &data)
{
    for (size_t sent = 0; sent < data.size();) {
        const ssize_t count = send(sock, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (count < 0)
            return false;
        sent += static_cast<size_t>(count);
    }
    return true;
}

void reset(int sock)
{
    const linger at_once = {1, 0};
    setsockopt(sock, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(sock);
}

} // namespace

// One control connection.
struct ftp_server::session {
    int control;
    int listening = -1; // passive
    address target{};   // active
    size_t offset = 0;

    // Answers that the transfer begins, and opens its connection; an active one comes after the answer.
    int open_data()
    {
        if (listening < 0) {
            send_all(control, "150 I come\r\n");
            const int sock = socket(target.any.sa_family, SOCK_STREAM, 0);
            connect(sock, &target.any, size_of(target.any.sa_family)); // a client may have given up
            return sock;
        }
        const int sock = accept(listening, nullptr, nullptr);
        close(std::exchange(listening, -1));
        send_all(control, "125 go on\r\n");
        return sock;
    }
};

ftp_server::ftp_server(const char *host)
    : host_(host), family_(strchr(host, ':') != nullptr ? AF_INET6 : AF_INET), listening_(listen_on(host_, family_)),
      thread_([this] { run(); })
{}

ftp_server::~ftp_server()
{
    {
        const std::lock_guard guard(mutex_);
        is_over_ = true;
        shutdown(listening_, SHUT_RDWR);
        shutdown(control_, SHUT_RDWR);
    }
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
    for (;;) {
        const int control = accept(listening_, nullptr, nullptr);
        {
            const std::lock_guard guard(mutex_);
            if (is_over_) {
                close(control);
                return;
            }
            control_ = control;
        }
        if (control >= 0)
            serve(control);
        const std::lock_guard guard(mutex_);
        close(std::exchange(control_, -1));
    }
}

void ftp_server::serve(int control)
{
    session at{control};
    std::string line;
    bool goes_on = respond(at, line);
    for (char byte; goes_on && recv(control, &byte, 1, 0) == 1;) {
        if (byte != '\n') {
            line += byte;
            continue;
        }
        line.pop_back(); // CR
        goes_on = respond(at, line);
        line.clear();
    }
    close(at.listening);
}

bool ftp_server::respond(session &at, const std::string &line)
{
    const std::string verb(line, 0, line.find(' '));
    const std::string argument(line, std::min(line.size(), verb.size() + 1));
    std::unique_lock lock(mutex_);
    if (!line.empty())
        heard_ += line + "|";
    auto told = answers_.find(line);
    if (told == answers_.end())
        told = answers_.find(verb);
    const std::string answer = told == answers_.end() ? "" : told->second, content = content_;
    const auto told_end = answers_.find("end");
    const std::string end = told_end == answers_.end() ? "" : told_end->second;
    const size_t cut_after = cut_after_;
    const bool is_told = told != answers_.end();
    lock.unlock();
    if (is_told)
        return answer != "hang up" && send_all(at.control, answer);

    if (verb == "PASV" || verb == "EPSV") {
        close(std::exchange(at.listening, listen_on(host_, family_)));
        const int port = port_of(at.listening);
        const std::string two_bytes = std::to_string(port / 256) + "," + std::to_string(port % 256);
        return send_all(at.control, verb == "PASV" ? "227 at (127,0,0,1," + two_bytes + ").\r\n"
                                                   : "229 at (|||" + std::to_string(port) + "|)\r\n");
    }
    if (verb == "PORT" || verb == "EPRT") {
        unsigned high = 0, low = 0;
        if (verb == "PORT")
            EXPECT_EQ(sscanf(argument.c_str(), "127,0,0,1,%u,%u", &high, &low), 2) << line;
        else
            EXPECT_EQ(sscanf(argument.c_str(), "|2|::1|%u|", &low), 1) << line;
        at.target = address_of(host_, family_, static_cast<uint16_t>(high * 256 + low));
        return send_all(at.control, "200 ok\r\n");
    }
    if (verb == "REST") {
        at.offset = std::stoul(argument);
        return send_all(at.control, "350 go on\r\n");
    }
    if (verb == "RETR" || verb == "LIST" || verb == "NLST") {
        const int data = at.open_data();
        const bool is_sent = send_all(data, content.substr(std::exchange(at.offset, 0), cut_after));
        if (cut_after < content.size()) {
            reset(data);
            return false;
        }
        close(data);
        return send_all(at.control, !end.empty() ? end : is_sent ? "226 done\r\n" : "426 lost\r\n");
    }
    if (verb == "STOR" || verb == "APPE") {
        const int data = at.open_data();
        std::string received;
        char block[4096];
        for (ssize_t count; (count = recv(data, block, sizeof block, 0)) > 0;)
            received.append(block, static_cast<size_t>(count));
        close(data);
        const std::lock_guard guard(mutex_);
        stored_ = received;
        return send_all(at.control, "226 stored\r\n");
    }
    static const std::map<std::string, std::string> plain = {
        {"", "220 test"},     {"USER", "331 and?"}, {"PASS", "230 welcome"}, {"TYPE", "200 ok"},
        {"NOOP", "200 here"}, {"ABOR", "226 over"}, {"QUIT", "221 bye"}};
    if (verb == "SIZE")
        return send_all(at.control, "213 " + std::to_string(content.size()) + "\r\n");
    const auto found = plain.find(verb);
    return send_all(at.control, (found == plain.end() ? "500 what?" : found->second) + "\r\n");
}

} // namespace kestal_test
