// An FTP server of the test's own, on a loopback address: it answers as it is told, else as a plain server does.
#pragma once

#include <map>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <thread>

namespace kestal_test {

class ftp_server {
public:
    using answers = std::map<std::string, std::string>;

    explicit ftp_server(const std::string &host = "127.0.0.1", const answers &told = {});
    ~ftp_server();
    ftp_server(const ftp_server &) = delete;
    ftp_server &operator=(const ftp_server &) = delete;

    std::string uri(const std::string &path = "/file", const std::string &scheme = "ftp",
                    const std::string &user = "") const;

    // The answer to a command, named with its argument or without ("" is the greeting): sent as it stands. "hang up"
    // ends the connection. "end" is the reply that closes a download.
    void answer(const std::string &command, const std::string &text);
    // What every file and list holds. Both connections are reset once so much of it was sent.
    void serve(const std::string &content, size_t cut_after = SIZE_MAX);
    // The commands since the last call, with a "|" behind each; the port of a data connection reads N.
    std::string heard();
    // What the last upload brought.
    std::string stored();

private:
    void run();
    bool respond(const std::string &line);
    bool say(const std::string &text) const;
    int open_data();
    bool send_file(const std::string &content, size_t cut_after);
    bool receive_file();

    std::string host_;
    int listening_;
    int control_ = -1;
    int passive_ = -1;             // listens for a data connection
    sockaddr_storage active_ = {}; // where to connect one to
    size_t offset_ = 0;
    std::mutex mutex_; // of all below
    answers answers_ = {{"", "220 test\r\n"},   {"USER", "331 and?\r\n"}, {"PASS", "230 welcome\r\n"},
                        {"TYPE", "200 ok\r\n"}, {"NOOP", "200 here\r\n"}, {"ABOR", "226 over\r\n"}};
    std::string content_, heard_, stored_;
    size_t cut_after_ = SIZE_MAX;
    std::thread thread_;
};

} // namespace kestal_test
