// An FTP server of the test's own, on a loopback address: it answers as it is told, else as a plain server does.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace kestal_test {

class ftp_server {
public:
    explicit ftp_server(const char *host = "127.0.0.1");
    ~ftp_server();
    ftp_server(const ftp_server &) = delete;
    ftp_server &operator=(const ftp_server &) = delete;

    std::string uri(const std::string &path = "/file", const std::string &scheme = "ftp",
                    const std::string &user = "") const;

    // The answer to a command, named with its argument or without ("" is the greeting): sent as it stands. "hang up"
    // ends the connection. "end" is the reply that closes a transfer.
    void answer(const std::string &command, const std::string &text);
    // What every file and list holds. Both connections are reset once so much of it was sent.
    void serve(const std::string &content, size_t cut_after = SIZE_MAX);
    // The commands since the last call, with a "|" behind each; the port of a data connection reads N.
    std::string heard();
    // What the last upload brought.
    std::string stored();

private:
    struct session;
    void run();
    void serve(int control);
    bool respond(session &at, const std::string &line);

    const std::string host_;
    const int family_;
    int listening_;
    int control_ = -1;
    std::mutex mutex_; // of all below
    std::map<std::string, std::string> answers_;
    std::string content_, heard_, stored_;
    size_t cut_after_ = SIZE_MAX;
    bool is_over_ = false;
    std::thread thread_;
};

} // namespace kestal_test
