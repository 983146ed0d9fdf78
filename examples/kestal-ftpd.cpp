// kestal-ftpd: serves folders over FTP until it is told to end (SIGINT, SIGTERM).
//
//     kestal-ftpd --port 2121                               anybody, from the home folder of who starts it
//     kestal-ftpd --port 0 --user joe:secret:/srv/joe       a free port, printed; one user, who sees that folder only
//     kestal-ftpd --address ::1 --user ann:pw:/a --system   users in this order, then those of the machine
//     kestal-ftpd --sessions 20 --idle 60                   so many at once, and a minute for the next command
//
// An empty password in "--user joe::/srv/joe" lets joe in without one.
#include <kestal_ulx.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

constexpr char help[] = R"(usage: kestal-ftpd [OPTION]...
Serves folders over FTP until SIGINT or SIGTERM ends it. Without users anybody is let in, to the home folder of who
starts it.

      --address ADDRESS          listen on this address only
      --port PORT                listen on this port (21); 0: a free one, which is printed
      --user NAME:PASSWORD:HOME  let in NAME, who sees HOME only; an empty password: without one. May be repeated
      --system                   let in the users of the machine, behind those named
      --sessions NUMBER          so many at once; 0: as many as come (0)
      --idle SECONDS             how long a session waits for the next command; 0: without limit (300)
  -h, --help                     this text
)";

volatile std::sig_atomic_t stopped = 0;

struct user {
    std::string name, password, home;
};

struct options {
    int32_t port = KESTAL_FTPD_PORT;
    const char *address = nullptr;
    bool serves_system_users = false;
    int32_t idle_seconds = KESTAL_FTPD_COMMAND_TIMEOUT / 1000;
    int32_t most_sessions = 0;
    bool wants_help = false;
    std::vector<user> users;
};

// name:password:home, of which the home may have a ":" in it.
bool parse_user(char *text, options &wanted)
{
    const std::string whole(text);
    const size_t first = whole.find(':');
    const size_t second = first == std::string::npos ? first : whole.find(':', first + 1);
    if (first == 0 || second == std::string::npos || second + 1 == whole.size())
        return false;
    wanted.users.push_back(
        {whole.substr(0, first), whole.substr(first + 1, second - first - 1), whole.substr(second + 1)});
    std::memset(text + first + 1, '*', second - first - 1); // nobody finds the password in the list of processes
    return true;
}

bool parse_number(const char *text, long most, int32_t &number)
{
    char *end = nullptr;
    const long value = std::strtol(text, &end, 10);
    number = static_cast<int32_t>(value);
    return end != text && *end == '\0' && value >= 0 && value <= most;
}

bool parse(int count, char **words, options &wanted)
{
    for (int i = 1; i < count; ++i) {
        const std::string name = words[i];
        if (name == "--system" || name == "--help" || name == "-h") {
            (name == "--system" ? wanted.serves_system_users : wanted.wants_help) = true;
            continue;
        }
        if (++i == count)
            return false;
        if (name == "--address")
            wanted.address = words[i];
        else if (name == "--port"       ? !parse_number(words[i], 65535, wanted.port)
                 : name == "--idle"     ? !parse_number(words[i], 86400, wanted.idle_seconds)
                 : name == "--sessions" ? !parse_number(words[i], 1000000, wanted.most_sessions)
                                        : name != "--user" || !parse_user(words[i], wanted))
            return false;
    }
    return true;
}

bool add_users(kestal_ftpd_t *server, const options &wanted)
{
    for (const user &each : wanted.users) {
        if (access((each.home + "/").c_str(), X_OK) != 0) {
            std::fprintf(stderr, "kestal-ftpd: %s: %s\n", each.home.c_str(), std::strerror(errno));
            return false;
        }
        if (kestal_ftpd_add_user(server, nullptr, each.name.c_str(),
                                 each.password.empty() ? nullptr : each.password.c_str(), each.home.c_str()) != 0)
            return false;
    }
    return !wanted.serves_system_users ||
           kestal_ftpd_add_account(server, kestal_ftpd_new_account(nullptr, KESTAL_FTPD_ACCOUNT_SYSTEM)) == 0;
}

// The signals that end the server only end the wait for the next connection.
void watch_signals()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { stopped = 1; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGXFSZ, SIG_IGN); // a file that may not grow fails its upload alone
}

} // namespace

int main(int count, char **words)
{
    options wanted;
    if (!parse(count, words, wanted)) {
        std::fputs(help, stderr);
        return 2;
    }
    if (wanted.wants_help)
        return std::fputs(help, stdout) < 0 || std::fflush(stdout) != 0;
    watch_signals();
    kestal_ftpd_t *server = kestal_open_ftpd(wanted.address, wanted.port);
    if (server == nullptr) {
        std::fprintf(stderr, "kestal-ftpd: cannot listen on port %d: %s\n", static_cast<int>(wanted.port),
                     std::strerror(errno));
        return 1;
    }
    kestal_ftpd_set_timeouts(server, wanted.idle_seconds == 0 ? -1 : wanted.idle_seconds * 1000,
                             KESTAL_FTPD_SEND_TIMEOUT, KESTAL_FTPD_DATA_TIMEOUT);
    kestal_ftpd_set_session_limit(server, static_cast<uint32_t>(wanted.most_sessions));
    const bool is_ready = add_users(server, wanted);
    if (is_ready) {
        std::printf("port %u\n", static_cast<unsigned>(kestal_ftpd_get_port(server)));
        std::fflush(stdout);
    }
    while (is_ready && stopped == 0)
        kestal_ftpd_do(server, 500);
    kestal_close_ftpd(server);
    return is_ready && kestal_thread_pool_wait(1000) == 0 ? 0 : 1;
}
