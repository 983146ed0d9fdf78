#include "descriptors.hpp"
#include "ftp.hpp"
#include "ftp_server.hpp"

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <netinet/tcp.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using kestal_test::as_time_passes;
using kestal_test::caught_console;
using kestal_test::ftp_server;
using kestal_test::noise;
using kestal_test::owned_socket;

namespace {

using texts = std::vector<std::string>;

// A client that is closed with its scope; given a server's location, it is logged in there.
struct client {
    client() = default;
    explicit client(const std::string &uri) { log_in(uri); }
    ~client() { EXPECT_EQ(kestal_close_ftp(ftp), nullptr); }
    client(const client &) = delete;
    client &operator=(const client &) = delete;
    operator kestal_ftp_t *() const { return ftp; }
    kestal_ftp_t *operator->() const { return ftp; }
    void connect(const std::string &uri) const { EXPECT_EQ(kestal_ftp_connect(ftp, uri.c_str(), 0), 0); }
    void log_in(const std::string &uri) const
    {
        connect(uri);
        EXPECT_EQ(kestal_ftp_login(ftp, nullptr, nullptr, nullptr), 0);
    }

    kestal_ftp_t *const ftp = kestal_open_ftp();
};

class ftp : public kestal_test::descriptors_counted {};

// A client whose server is the test itself: each piece sent arrives by itself.
struct wire {
    wire()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
        send("220 hello\r\n");
        EXPECT_EQ(kestal_ftp_set_connect_socket(of, ends[0], "ftp://host", 0), 0);
    }
    ~wire() { hang_up(); }
    void send(const std::string &piece) { EXPECT_GT(write(ends[1], piece.data(), piece.size()), 0); }
    void hang_up() { close(std::exchange(ends[1], -1)); }

    int ends[2];
    client of;
};

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return file ? std::string{std::istreambuf_iterator<char>(file), {}} : "<none>";
}

// --- replies

TEST_F(ftp, reads_replies_however_they_are_split)
{
    const struct {
        std::string sent;
        int32_t code;
        const char *text;
        std::string echo;
    } cases[] = {{"230-Welcome\r\n230-x\r\n230 OK\r\n", 230, "OK", "230-Welcome\n230-x\n230 OK\n"},
                 {"2300 x\r\n\r\n12 y\rA23 z\n230 \r\n", 230, "", "2300 x\n\n12 y\nA23 z\n230 \n"},
                 {"230\r\n211-free\n 226 x\n500 other\r", 500, "other", "230\n211-free\n 226 x\n500 other\n"}};
    for (const auto &[sent, code, text, echo] : cases)
        for (size_t split = 0; split < sent.size(); ++split) { // in two pieces, at first byte by byte
            const caught_console console;
            wire server;
            server.of->m_verbose = 1;
            for (size_t at = 0, end = 0; at < sent.size(); at = end) {
                end = split == 0 ? at + 1 : at < split ? split : sent.size();
                server.send(sent.substr(at, end - at));
            }
            server.send("200 next\r\n");
            EXPECT_EQ(kestal_ftp_command_puts(server.of, nullptr), code) << sent << split;
            EXPECT_STREQ(server.of->m_reply_text, text);
            EXPECT_EQ(kestal_ftp_command_puts(server.of, nullptr), 200);
            EXPECT_EQ(console.text(), echo + "200 next\n") << split;
        }
}

TEST_F(ftp, ends_with_the_connection_or_the_time_and_bounds_lines)
{
    // The time-out begins anew with every line, within bounds.
    for (const auto &[lines, step, code] : {std::tuple(9, 1000u, 230), {0, 1000, -1}, {100, 10000, -1}}) {
        wire server;
        for (int line = 1; line <= lines; ++line)
            server.send(line < lines ? "230-goes on\r\n" : "230 ends\r\n");
        EXPECT_EQ(as_time_passes(step, [&] { return kestal_ftp_noop(server.of); }), code) << lines;
        EXPECT_TRUE(code != -1 || errno == ETIMEDOUT) << lines;
    }
    wire server;
    EXPECT_EQ(kestal_ftp_check(server.of), 0);
    server.send("331 " + std::string(40000, 'x'));
    server.send("\n230-unfinished\r\n");
    server.send("23");
    EXPECT_EQ(kestal_ftp_command_puts(server.of, "FIRST\r\n"), 331);
    EXPECT_EQ(strlen(server.of->m_reply_text), 16379u);
    server.hang_up();
    for (const char *command : {"NOOP\r\n", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(kestal_ftp_command_puts(server.of, command), -1);
        EXPECT_EQ(server.of->m_reply_code, -1);
    }
    EXPECT_EQ(kestal_ftp_check(server.of), -1);
}

TEST_F(ftp, sends_commands_as_they_are_written)
{
    ftp_server server;
    const client of(server.uri());
    server.heard();
    EXPECT_EQ(kestal_ftp_help(of, nullptr) + kestal_ftp_opts(of, "UTF8 ON") + kestal_ftp_site(of, "IDLE") +
                  kestal_ftp_acct(of, "a") + kestal_ftp_mode(of, "S") + kestal_ftp_stru(of, "F") +
                  kestal_ftp_mdtm(of, "f") + kestal_ftp_stat(of, "") + kestal_ftp_cdup(of) +
                  kestal_ftp_mkd(of, "\xEC\x95") + kestal_ftp_rmd(of, "d e") +
                  kestal_ftp_command_printf(of, "X%03d\r\n", 7) + kestal_ftp_quit(of),
              13 * 500);
    EXPECT_EQ(kestal_ftp_rest(of, UINT64_MAX), 350);
    // Nothing that would be two commands, or none.
    EXPECT_EQ(kestal_ftp_dele(of, "x\rDELE y") + kestal_ftp_cwd(of, "a\nb") + kestal_ftp_cwd(of, nullptr), -3);
    EXPECT_EQ(server.heard(), "HELP|OPTS UTF8 ON|SITE IDLE|ACCT a|MODE S|STRU F|MDTM f|STAT|CDUP|MKD \xEC\x95|RMD d e|"
                              "X007|QUIT|REST 18446744073709551615|");

    server.answer("SYST", "215 UNIX\r\n");
    EXPECT_STREQ(kestal_ftp_get_system(of), "UNIX");
    server.answer("PWD", "257 \"/a \"\"b\"\" c\" is it\r\n");
    EXPECT_STREQ(kestal_ftp_get_pwd(of), "/a \"b\" c");
    server.answer("PWD", "257 \"open\r\n");
    EXPECT_EQ(kestal_ftp_get_pwd(of), nullptr);
    server.answer("RNFR", "350 ok\r\n");
    EXPECT_EQ(kestal_ftp_rename(of, "a", "b") + kestal_ftp_chdir(of, "d") + kestal_ftp_remove(of, "b"), -3);
    for (const char *command : {"RNTO", "CWD", "DELE"})
        server.answer(command, "250 ok\r\n");
    EXPECT_EQ(kestal_ftp_rename(of, "a", "b") | kestal_ftp_chdir(of, "d") | kestal_ftp_remove(of, "b"), 0);
    for (const auto &[answer, wanted] : {std::pair("213 123456789012\r\n", 123456789012u),
                                         {"213 18446744073709551616\r\n", 0},
                                         {"213 -1\r\n", 0},
                                         {"550 1\r\n", 0}}) {
        uint64_t size = 1;
        server.answer("SIZE", answer);
        EXPECT_EQ(kestal_ftp_get_size(of, "f", &size), wanted == 0 ? -1 : 0) << answer;
        EXPECT_EQ(size, wanted) << answer;
    }
}

// --- logging in

TEST_F(ftp, logs_in)
{
    const struct {
        const char *user_in_uri, *user, *password;
        ftp_server::answers answers;
        int32_t result;
        const char *heard;
    } cases[] = {{"", nullptr, nullptr, {}, 0, "USER anonymous|PASS anonymous@localhost|TYPE A|"},
                 {"joe:p%40ss%zz@", nullptr, nullptr, {}, 0, "USER joe|PASS p@ss%zz|TYPE A|"},
                 {"joe:@", "ann", nullptr, {}, 0, "USER ann|PASS |TYPE A|"},
                 {"joe@", nullptr, nullptr, {{"USER", "230 in\r\n"}}, 0, "USER joe|TYPE A|"},
                 {"joe:pw@", nullptr, "own", {{"USER", "530 no\r\n"}}, -1, "USER joe|"},
                 {"joe:pw@", nullptr, "own", {{"TYPE", "504 no\r\n"}}, 0, "USER joe|PASS own|TYPE A|"},
                 {"joe:pw@", nullptr, "own", {{"TYPE", "hang up"}}, -1, "USER joe|PASS own|TYPE A|"},
                 {"a%0D%0ADELE%20b@", nullptr, nullptr, {}, -1, ""}};
    const client of;
    for (const auto &[user_in_uri, user, password, answers, result, heard] : cases) {
        ftp_server server("127.0.0.1", answers);
        of.connect(server.uri("", "ftp", user_in_uri));
        EXPECT_EQ(kestal_ftp_login(of, user, password, "A"), result) << heard;
        EXPECT_EQ(server.heard(), heard);
        kestal_ftp_disconnect(of);
    }
    // Only one greeting is welcome.
    ftp_server server("127.0.0.1", {{"", "120-busy\r\n120 come later\r\n"}});
    EXPECT_EQ(kestal_ftp_connect(of, server.uri().c_str(), 0), -1);
    EXPECT_STREQ(of->m_reply_text, "come later");
    for (const char *uri : {"ftp:///x", static_cast<const char *>(nullptr), "ftp://127.0.0.1:1/"})
        EXPECT_EQ(kestal_ftp_connect(of, uri, 0), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

std::string asked; // the prompts so far
texts typed;       // the answers to come, each typed as it is asked for
int terminal = -1;

int32_t type_answer(const char *part)
{
    asked += part == nullptr ? "" : part;
    if (part != nullptr && !typed.empty()) {
        EXPECT_GT(write(terminal, typed[0].data(), typed[0].size()), 0);
        typed.erase(typed.begin());
    }
    return 0;
}

TEST_F(ftp, asks_the_user)
{
    const std::string secret = std::to_string(getpid()) + "-Open-Sesame-Open"; // nowhere else in memory
    const std::string end = secret.substr(secret.size() - 8);                  // what a shorter text on it leaves
    const struct {
        texts typed;
        int32_t attempts, result;
        const char *user, *prompts;
        std::string heard;
    } cases[] = {
        {{"joe\n", secret + "\n"}, 1, 0, "", "Username: Password: ", "USER joe|PASS " + secret + "|TYPE I|"},
        {{secret + "\n"}, 2, 0, "joe:bad@", "Password: ", "USER joe|PASS bad|PASS " + secret + "|TYPE I|"},
        {{"joe\n", "b\n", "c\n"}, -1, -1, "@", "Username: Password: Password: Password: ", "USER joe|PASS b|PASS c|"},
        {{secret + "\n"}, 1, -1, "joe@", "Password: ", "USER joe|PASS " + secret + "|"},
        {{std::string(256, 'x') + "\n"}, 1, -1, "", "Username: ", ""},
    };
    int ends = -1;
    ASSERT_EQ(openpty(&terminal, &ends, nullptr, nullptr, nullptr), 0);
    const int input = dup(STDIN_FILENO);
    dup2(ends, STDIN_FILENO);
    kestal_puts_handler_t before = nullptr;
    kestal_set_puts_handler(type_answer, &before);
    for (const auto &[answers, attempts, result, user, prompts, heard] : cases) {
        ftp_server server("127.0.0.1",
                          {{"PASS", "530 no\r\n"}, {"PASS " + secret, result == 0 ? "230 yes\r\n" : "530 no\r\n"}});
        const client of;
        of.connect(server.uri("", "ftp", user));
        asked.clear();
        typed = answers;
        typed.push_back("\x04"); // the end of the input
        of->m_ask_user = of->m_ask_password = 1;
        of->m_password_attempts = attempts;
        EXPECT_EQ(kestal_ftp_login(of, nullptr, nullptr, "I"), result) << heard;
        EXPECT_FALSE(kestal_test::is_on_the_stack(end));
        EXPECT_EQ(memmem(of->m_block, 65536, end.data(), end.size()), nullptr);
        EXPECT_EQ(server.heard(), heard);
        EXPECT_EQ(asked, prompts);
        // What the terminal showed: user names only.
        char shown[4096];
        for (std::string all; all.find(answers[0] == "joe\n" ? "joe\r\n" : "\n") == std::string::npos;) {
            const ssize_t count = read(terminal, shown, sizeof shown);
            ASSERT_GT(count, 0);
            all.append(shown, static_cast<size_t>(count));
            EXPECT_EQ(all.find(secret), std::string::npos);
        }
    }
    kestal_set_puts_handler(before, nullptr);
    dup2(input, STDIN_FILENO);
    for (const int descriptor : {terminal, ends, input})
        close(descriptor);
}

// --- data connections

TEST_F(ftp, reads_addresses_in_replies)
{
    sockaddr_in address{};
    EXPECT_TRUE(kestal::parse_pasv_reply("go (127,1,2,255,4,210).", address));
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), 0x7F0102FFu);
    EXPECT_EQ(ntohs(address.sin_port), 1234);
    for (const char *text : {"", "127,0,0,1,4,210", "(127,0,0,1,4)", "(127,0,0,1,4,256)", "(127,0,0,1,,210)",
                             "(127,0,0,1,4,210", "(127.0.0.1,4,210)", "(127,0,0,1,0,0)", "(4294967423,0,0,1,4,210)"})
        EXPECT_FALSE(kestal::parse_pasv_reply(text, address)) << text;
    for (const char *text : {"go (|||1234|)", "(|2|::1|1234|)", "(!!!1234!)", "(,,,1234)"})
        EXPECT_EQ(kestal::parse_epsv_reply(text), 1234u) << text;
    for (const char *text :
         {"(|||65536|)", "(|||0|)", "(||80|)", "(|||80", "|||80|", "(", "(|", "(||||)", "()", "(1112341)"})
        EXPECT_EQ(kestal::parse_epsv_reply(text), 0u) << text;
}

TEST_F(ftp, refuses_streams_and_stays_in_step)
{
    const struct {
        const char *command, *answer;
        int32_t passive;
        uint64_t offset;
    } cases[] = {{"REST", "320 odd\r\n", 1, 9},
                 {"RETR", "226 nothing to do\r\n", 1, 0},
                 {"PORT", "500 no\r\n", 0, 0},
                 {"RETR", "150 now\r\n425 cannot\r\n", 0, 0}}; // never comes
    for (const auto &[command, answer, passive, offset] : cases) {
        ftp_server server("127.0.0.1", {{command, answer}});
        const client of(server.uri());
        of->m_passive = passive;
        EXPECT_EQ(kestal_ftp_open_stream(of, offset, "f", "r"), -1) << answer;
        EXPECT_EQ(strstr(answer, "\r\n425") != nullptr ? kestal_ftp_command_puts(of, nullptr) : 425, 425);
        EXPECT_EQ(kestal_ftp_noop(of), 200) << answer;
    }
    ftp_server server;
    const client of(server.uri(""));
    for (const char *mode : {"x", static_cast<const char *>(nullptr), "r"}) // the last without a path
        EXPECT_EQ(kestal_ftp_open_stream(of, 0, nullptr, mode), -1);
    EXPECT_EQ(kestal_ftp_close_stream(of), -1);
    char byte;
    // A server that lets its client wait: for data, and for a connection.
    server.answer("RETR", "150 wait\r\n");
    EXPECT_EQ(kestal_ftp_open_stream(of, 0, "f", "r"), 0);
    EXPECT_EQ(kestal_ftp_recv_stream(of, &byte, 1, 0), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    of->m_passive = of->m_data_timeout = 0;
    EXPECT_EQ(kestal_ftp_open_stream(of, 0, "f", "r"), -1);
    EXPECT_EQ(errno, ETIMEDOUT);

    // Where the server points is followed unless the setting forbids it.
    of->m_data_timeout = 60000;
    owned_socket elsewhere(kestal_open_listen_socket("127.0.0.9", 0));
    const std::string port = std::to_string(elsewhere.port() / 256) + "," + std::to_string(elsewhere.port() % 256);
    server.answer("PASV", "227 (127,0,0,9," + port + ")\r\n");
    EXPECT_EQ(kestal_ftp_passive(of), 0);
    EXPECT_EQ(kestal_ftp_set_option(of, KESTAL_FTP_OPTION_SAME_HOST, 1), 0);
    EXPECT_EQ(kestal_ftp_passive(of), -1);
    of->m_verbose = 1;
    const caught_console console;
    EXPECT_EQ(kestal_ftp_active(of), 0);
    EXPECT_TRUE(console.text().starts_with("ftp: [MESSAGE] port command (control_socket=")) << console.text();
    owned_socket stranger(kestal_open_connect_socket_ex(
        0, "127.0.0.9", 0, "127.0.0.1", static_cast<int32_t>(kestal_test::port_of(of->m_listen_socket)), 10000));
    EXPECT_EQ(kestal_ftp_noop(of) + kestal_ftp_noop(of), 400);
    EXPECT_EQ(of->m_accepted_socket, -1);
    // Without a descriptor for it the server's connection is given up, not tried for ever.
    owned_socket unaccepted(kestal_open_connect_socket(
        "127.0.0.1", static_cast<int32_t>(kestal_test::port_of(of->m_listen_socket)), 10000));
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(kestal_ftp_noop(of) + kestal_ftp_noop(of), 400);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(of->m_listen_socket, -1);
}

// A connected client in the middle of an upload, and the server's end of its data connection.
struct slow_upload : wire {
    slow_upload()
    {
        kestal_socket_pair_t pair;
        EXPECT_EQ(kestal_socket_pair(AF_INET, SOCK_STREAM, IPPROTO_TCP, &pair), 0);
        sock = of->m_data_socket = pair.m_socket[0];
        data = pair.m_socket[1];
        const std::string block(100000, 'x');
        while (kestal_ftp_send_stream(of, block.data(), block.size(), 0) > 0)
            ;
    }
    // Once the client has said all; it waits for the rest to go.
    void wait_until_closing() const
    {
        tcp_info info = {};
        socklen_t size = sizeof info;
        kestal_test::wait_until([&] {
            const bool is_open = getsockopt(sock, IPPROTO_TCP, TCP_INFO, &info, &size) == 0;
            return !is_open || info.tcpi_state == TCP_FIN_WAIT1;
        });
    }

    int32_t sock, data; // the client's end, and the server's
};

TEST_F(ftp, waits_for_a_slow_link)
{
    slow_upload upload;
    uint64_t received = 0;
    std::thread server([&] {
        upload.wait_until_closing();
        kestal_test::advance_clock(45000);                           // longer than a reply may take, not than data
        std::this_thread::sleep_for(std::chrono::milliseconds(200)); // one who does not wait would be gone
        char block[65536];
        for (int32_t count; (count = kestal_recv(upload.data, block, sizeof block, 10000)) > 0;)
            received += static_cast<uint32_t>(count);
        upload.send("226 stored\r\n");
    });
    EXPECT_EQ(kestal_ftp_close_stream(upload.of), 0);
    server.join();
    EXPECT_EQ(received, upload.of->m_bytes);
    kestal_close_socket(upload.data);
}

TEST_F(ftp, does_not_wait_for_an_upload_that_was_reset)
{
    slow_upload upload;
    std::thread server([&] {
        upload.wait_until_closing();
        kestal_set_linger_socket(upload.data, 1, 0);
        kestal_close_socket(upload.data);
    });
    upload.of->m_command_timeout = 1;
    const uint64_t start = kestal_time_stamp_msec();
    EXPECT_EQ(kestal_ftp_close_stream(upload.of), -1);
    EXPECT_LT(kestal_time_stamp_msec() - start, static_cast<uint64_t>(upload.of->m_data_timeout));
    server.join();
}

TEST_F(ftp, aborts_and_stays_in_step)
{
    const struct {
        texts answers;
        int32_t result, code;
    } cases[] = {{{"426 lost\r\n", "226 over\r\n"}, 0, 226},
                 {{"226 sent\r\n", "225 nothing\r\n"}, 0, 225},
                 {{"550 lost\r\n", "426 over\r\n"}, -1, 426},
                 {{"226 alone\r\n"}, 0, 226},
                 {{}, -1, -1}};
    for (const auto &[answers, result, code] : cases) {
        slow_upload upload;
        for (const std::string &answer : answers)
            upload.send(answer);
        EXPECT_EQ(as_time_passes(1000, [&] { return kestal_ftp_abort_stream(upload.of); }), result) << code;
        EXPECT_EQ(upload.of->m_reply_code, code);
        EXPECT_EQ(upload.of->m_data_socket, -1) << code;
        upload.send("200 here\r\n");
        EXPECT_EQ(kestal_ftp_noop(upload.of), 200) << code;
        upload.send("226 over\r\n");
        EXPECT_EQ(kestal_ftp_abort_stream(upload.of), 0) << "with nothing to abort there is one reply";
        kestal_close_socket(upload.data);
    }
    // One that is busy sending hears of it only once its connection is gone.
    ftp_server server;
    server.serve(std::string(32 << 20, 'x'));
    const client of(server.uri());
    char byte;
    EXPECT_EQ(kestal_ftp_open_stream(of, 0, "f", "r"), 0);
    EXPECT_EQ(kestal_ftp_recv_stream(of, &byte, 1, -1), 1);
    EXPECT_EQ(as_time_passes(0, [&] { return kestal_ftp_abort_stream(of); }), 0);
    EXPECT_EQ(kestal_ftp_noop(of), 200);
}

// --- downloads

TEST_F(ftp, downloads_files)
{
    constexpr uint32_t make = KESTAL_FTP_DOWNLOAD_MAKE_DIRECTORIES, remove = KESTAL_FTP_DOWNLOAD_REMOVE;
    constexpr uint32_t need_size = KESTAL_FTP_DOWNLOAD_NEED_SIZE, shown = 0x19; // also verbose, and without time-out
    const std::string data = noise(150000);
    const struct {
        uint32_t flags;
        const char *path;
        size_t cut_after;
        ftp_server::answers answers;
        const char *left;                            // null: the data
    } cases[] = {{0, "d/f", SIZE_MAX, {}, "<none>"}, // no such directory
                 {make, "d/e/f", SIZE_MAX, {}, nullptr},
                 {shown, "old", SIZE_MAX, {{"SIZE", "550 no\r\n"}}, nullptr},
                 {need_size, "old", SIZE_MAX, {{"SIZE", "550 no\r\n"}}, "old"},
                 {remove, "old", SIZE_MAX, {{"RETR", "550 none\r\n"}}, "old"},
                 {remove, "old", SIZE_MAX, {{"end", "426 lost\r\n"}}, "<none>"},
                 {remove, "f", 100000, {}, "<none>"},
                 {0, "f", 100000, {}, "what came"}};
    for (const auto &[flags, name, cut_after, answers, left] : cases) {
        const kestal_test::temporary_directory directory;
        directory.file("old", "old");
        ftp_server server("127.0.0.1", answers);
        server.serve(data, cut_after);
        const client of(server.uri());
        const caught_console console;
        const std::string path = directory.path(name);
        const mode_t mask = umask(077);
        EXPECT_EQ(kestal_ftp_download_to_file(of, flags, "f", path.c_str(), 0644), left == nullptr ? 0 : -1);
        umask(mask);
        const std::string found = content_of(path);
        const bool is_data = !found.empty() && data.starts_with(found);
        EXPECT_EQ(is_data && left != nullptr ? "what came" : found, left == nullptr ? data : left) << flags << name;
        EXPECT_TRUE(left != nullptr || std::filesystem::status(path).permissions() == std::filesystem::perms{0644});
        EXPECT_EQ(of->m_data_timeout, flags == shown ? -1 : 60000);
        const std::string text = console.text();
        EXPECT_EQ(text.find("bps, ETA 00:00 \n226 done\n") != std::string::npos, flags == shown) << text;
        // What is lost is lost, and the client can be used again.
        EXPECT_EQ(kestal_ftp_check(of), cut_after < data.size() ? -1 : 0);
        of.log_in(server.uri());
        EXPECT_EQ(kestal_ftp_noop(of), 200);
    }
}

TEST_F(ftp, downloads_into_memory_and_in_one_call)
{
    const kestal_test::temporary_directory directory;
    const std::string text = "[a]\nb = c\nd = e", file = directory.path("f");
    ftp_server server;
    server.serve(text);
    kestal_buffer_t *buffer = kestal_open_buffer_ex(0);
    kestal_ini_t *ini = kestal_open_ini();
    const std::string uri = server.uri("/d/f", "ftp", "joe:pw@");
    EXPECT_EQ(kestal_ftp_simple_download_to_buffer(0, uri.c_str(), nullptr, nullptr, buffer), 0);
    EXPECT_EQ(server.heard(), "USER joe|PASS pw|TYPE I|SIZE d/f|PASV|RETR d/f|");
    EXPECT_EQ(kestal_test::owned(kestal_alloc_pop_buffer_ex(buffer, text.size(), 1), text.size()), text);
    EXPECT_EQ(kestal_ftp_simple_download_to_ini(0, uri.c_str(), nullptr, nullptr, ini), 0);
    EXPECT_STREQ(kestal_search_ini_value(ini, "a", "d"), "e");
    server.serve("");
    EXPECT_EQ(kestal_ftp_simple_download_to_file(0, uri.c_str(), "u", "p", file.c_str(), 0600), 0);
    EXPECT_EQ(content_of(file), "");
    const client of(uri);
    const std::string pipe = directory.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(kestal_ftp_download_to_file(of, 0, nullptr, pipe.c_str(), 0400), 0);
    EXPECT_EQ(std::filesystem::status(pipe).permissions(), std::filesystem::perms{0600}) << "it is no file";
    close(reader);
    EXPECT_EQ(kestal_ftp_download_to_buffer(of, 0, "f", nullptr) + kestal_ftp_download_to_ini(of, 0, "f", nullptr), -2);
    // An upload to a connection that is gone, without a signal to the process.
    EXPECT_EQ(kestal_ftp_passive(of), 0);
    shutdown(of->m_data_socket, SHUT_RDWR);
    EXPECT_EQ(kestal_ftp_send_stream(of, text.data(), text.size(), 1000), -1);
    EXPECT_EQ(errno, EPIPE);
    kestal_close_ini(ini);
    kestal_close_buffer(buffer);
}

TEST_F(ftp, draws_progress)
{
    const struct {
        uint64_t bytes, elapsed, total;
        const char *text;
    } cases[] = {{0, 0, 100, "         0,   0.00 bps, ETA 99:59"},
                 {1240, 8000, 2480, "      1240,   1.24Kbps, ETA 00:08"},
                 {12345678901, 1000, UINT64_MAX, "12345678901,  98.76Gbps, ETA 249"}};
    const client of;
    for (const auto &[bytes, elapsed, total, text] : cases) {
        const caught_console console;
        of->m_bytes = bytes;
        of->m_elapsed = elapsed;
        EXPECT_EQ(kestal_ftp_download_progress_bar(of, "label", bytes, total), 0);
        EXPECT_NE(console.text().find(text), std::string::npos) << console.text() << "\n" << text;
    }
}

TEST_F(ftp, leaves_nothing_behind_when_memory_is_short)
{
    const kestal_test::temporary_directory directory;
    kestal_init_network(); // its cache is not the client's
    const bool has_v6 = kestal_check_ipv6_support() == 0;
    for (const auto &[host, scheme] :
         {std::pair("127.0.0.1", "ftp@passive"), {has_v6 ? "::1" : "127.0.0.1", "ftp@active"}}) {
        ftp_server server(host);
        server.serve(noise(100000));
        const std::string uri = server.uri("/f", scheme), path = directory.path("d/f");
        const auto scenario = [&] {
            kestal_ftp_simple_download_to_file(KESTAL_FTP_DOWNLOAD_MAKE_DIRECTORIES, uri.c_str(), nullptr, nullptr,
                                               path.c_str(), 0644);
        };
        EXPECT_GT(kestal_test::with_each_allocation_failing(scenario), 20u);
    }
    kestal_uninit_network();
}

TEST_F(ftp, answers_null_and_begins_with_defaults)
{
    char byte = 0;
    const client unconnected;
    for (kestal_ftp_t *of : {static_cast<kestal_ftp_t *>(nullptr), unconnected.ftp}) {
        EXPECT_EQ(kestal_ftp_login(of, "", "", "") + kestal_ftp_set_option(of, 99, 1) + kestal_ftp_check(of) +
                      kestal_ftp_command_puts(of, "x") + kestal_ftp_command_printf(of, "x") + kestal_ftp_cwd(of, "x") +
                      kestal_ftp_rest(of, 1) + kestal_ftp_get_size(of, "x", nullptr) + kestal_ftp_passive(of) +
                      kestal_ftp_active(of) + kestal_ftp_open_stream(of, 0, "x", "r") +
                      kestal_ftp_recv_stream(of, &byte, 1, 0) + kestal_ftp_send_stream(of, &byte, 1, 0) +
                      kestal_ftp_close_stream(of) + kestal_ftp_abort_stream(of) +
                      kestal_ftp_download_to_file(of, 0, "x", "x", 0),
                  -16);
        EXPECT_TRUE(kestal_ftp_get_system(of) == nullptr && kestal_ftp_get_pwd(of) == nullptr);
    }
    EXPECT_EQ(kestal_ftp_connect(nullptr, "", 0) + kestal_ftp_disconnect(nullptr) +
                  kestal_ftp_download_progress_bar(nullptr, "", 0, 0) +
                  kestal_ftp_download_to_buffer(nullptr, 0, "x", nullptr),
              -4);
    const int32_t defaults[] = {0, 24000, 60000, 0, 0, 1, 1}; // in the order of the fields and their options
    EXPECT_EQ(memcmp(unconnected.ftp, defaults, sizeof defaults), 0);
    const int32_t changed[] = {71, 72, 73, 74, 75, 76, 77};
    for (const int32_t value : changed)
        EXPECT_EQ(kestal_ftp_set_option(unconnected, value - 70, value), 0);
    EXPECT_EQ(memcmp(unconnected.ftp, changed, sizeof changed), 0);
}

} // namespace
