#include "descriptors.hpp"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <pwd.h>
#include <shadow.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

// The system's users, as the test has them.
namespace {

struct system_user {
    const char *name, *password, *shadow;
};

constexpr const char *sha512 = "$6$sixteencharssalt$Xo2D38FKfhmTKG3N54zuUPlkFlrWB7/"
                               "uzpqrh7nFKz13pmOoJ3D8Wq7OSlX0zNT3gDDoY1c9XvDZiu8SHrFVe1";
constexpr uid_t system_uid = 4711;
constexpr system_user system_users[] = {
    {"old", "x", "abNANd1rDfiNc"},
    {"md5", "x", "$1$saltsalt$9xy1btjgzLYfb7hivXtC//"},
    {"short", "x", "$1$short$LxXJAIhwSz0xP5VN1cQt7/"},
    {"sha", "*", sha512},
    {"open", "", ""},
    {"locked", "x", "!"},
    {"shadowless", "x", nullptr},
    {"plain", "secret", nullptr},
    {nullptr, nullptr, nullptr}, // anybody else
};
std::string system_home;

const system_user &find_system_user(const char *name)
{
    const system_user *each = system_users;
    while (each->name != nullptr && strcmp(each->name, name) != 0)
        ++each;
    return *each;
}

} // namespace

extern "C" {
int __wrap_getpwnam_r(const char *name, passwd *entry, char *, size_t, passwd **result)
{
    const system_user &found = find_system_user(name);
    *result = found.name == nullptr ? nullptr : entry;
    *entry = {};
    entry->pw_name = const_cast<char *>(name);
    entry->pw_passwd = const_cast<char *>(found.password);
    entry->pw_uid = system_uid;
    entry->pw_gid = system_uid;
    entry->pw_dir = system_home.data();
    return 0;
}

int __wrap_getspnam_r(const char *name, spwd *entry, char *, size_t, spwd **result)
{
    *entry = {};
    entry->sp_pwdp = const_cast<char *>(find_system_user(name).shadow);
    *result = entry->sp_pwdp == nullptr ? nullptr : entry;
    return 0;
}
}

namespace {

using kestal_test::port_of;

int connect_to(const std::string &host, uint32_t port)
{
    sockaddr_storage address = kestal_test::address_of(host);
    kestal_sockaddr_set_port(&address, port);
    const int sock = socket(address.ss_family, SOCK_STREAM, 0);
    const timeval limit = {30, 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    EXPECT_EQ(connect(sock, reinterpret_cast<sockaddr *>(&address), kestal_sockaddr_size(&address)), 0);
    return sock;
}

// All that comes, to the end of the connection, which is closed.
std::string read_all(int sock)
{
    std::string data;
    char piece[65536];
    for (ssize_t count; (count = recv(sock, piece, sizeof piece, 0)) > 0;)
        data.append(piece, static_cast<size_t>(count));
    close(sock);
    return data;
}

class client {
public:
    explicit client(uint32_t port, const char *host = "127.0.0.1") : host_(host), sock_(connect_to(host, port)) {}
    ~client() { hang_up(); }

    void hang_up()
    {
        if (sock_ >= 0)
            close(sock_);
        sock_ = -1;
    }

    void send(const std::string &bytes) const { ::send(sock_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

    // One reply with all its lines, the last without its end; empty when the connection has ended.
    std::string reply()
    {
        for (size_t begin = 0, end = 0;; begin = end + 2) {
            char piece[4096];
            while ((end = received_.find("\r\n", begin)) == std::string::npos) {
                const ssize_t count = recv(sock_, piece, sizeof piece, 0);
                if (count <= 0)
                    return "";
                received_.append(piece, static_cast<size_t>(count));
            }
            const size_t code = std::min(received_.find_first_not_of("\xFF\xF4\xF2", begin), end);
            if (end > code + 3 && received_[code] <= '9' && received_[code + 3] == ' ') {
                const std::string whole = received_.substr(0, end);
                received_.erase(0, end + 2);
                return whole;
            }
        }
    }

    // So many replies, parted by "|".
    std::string replies(int count)
    {
        std::string all = reply();
        while (--count > 0)
            all += "|" + reply();
        return all;
    }

    std::string ask(const std::string &command, int count = 1)
    {
        send(command + "\r\n");
        return replies(count);
    }

    void log_in()
    {
        EXPECT_EQ(reply(), "220 KESTAL FTP Server");
        EXPECT_EQ(ask("USER joe"), "331 Password required for joe");
        EXPECT_EQ(ask("PASS secret"), "230 Login successful.");
    }

    // A data connection by EPSV; -1 when the server has none to offer.
    int passive()
    {
        unsigned port = 0;
        const bool is_offered = sscanf(ask("EPSV").c_str(), "229 Entering Extended Passive Mode (|||%u|).", &port) == 1;
        return is_offered ? connect_to(host_, port) : -1;
    }

    // The last of the commands begins a transfer, which is given this content; what it gives.
    std::string transfer(const std::vector<std::string> &commands, const std::string &content = "")
    {
        const int data = passive();
        for (const std::string &command : commands)
            last = ask(command);
        const bool has_begun = last.starts_with("150 ");
        ::send(data, content.data(), content.size(), MSG_NOSIGNAL);
        shutdown(data, has_begun ? SHUT_WR : SHUT_RDWR);
        const std::string received = read_all(data);
        if (has_begun)
            last = reply();
        return received;
    }

    std::string last; // how a transfer ended

private:
    const char *host_;
    int sock_;
    std::string received_;
};

// A server with joe, whose password is secret, served on a thread of the test's.
class ftpd : public kestal_test::descriptors_counted {
protected:
    void SetUp() override
    {
        descriptors_counted::SetUp();
        descriptors_ = kestal_test::open_descriptors();
        mkdir(path("").c_str(), 0755);
        chmod(files_.path("").c_str(), 0755);
        ASSERT_TRUE(start());
    }
    void TearDown() override
    {
        stop();
        EXPECT_EQ(kestal_test::open_descriptors(), descriptors_) << "closed, it has given back all";
        descriptors_counted::TearDown();
    }

    // False without memory.
    bool start(const char *address = "127.0.0.1", bool has_joe = true)
    {
        server_ = kestal_open_ftpd(address, 0);
        if (server_ == nullptr)
            return false;
        if (has_joe)
            kestal_ftpd_add_user(server_, nullptr, "joe", "secret", path("").c_str());
        acceptor_ = std::thread([this] {
            while (kestal_ftpd_do(server_, -1) == 0 || errno != ECANCELED) {
            }
        });
        return true;
    }
    void stop()
    {
        if (server_ == nullptr)
            return;
        kestal_ftpd_stop(server_, 0);
        acceptor_.join();
        EXPECT_EQ(kestal_close_ftpd(std::exchange(server_, nullptr)), 0);
    }

    uint32_t port() const { return kestal_ftpd_get_port(server_); }
    std::string path(const std::string &name) const { return files_.path("home/" + name); }
    void file(const std::string &name, const std::string &content) const { files_.file("home/" + name, content); }
    std::string content(const std::string &name) const
    {
        std::ostringstream all;
        all << std::ifstream(path(name)).rdbuf();
        return all.str();
    }

    kestal_test::temporary_directory files_;
    size_t descriptors_ = 0;
    kestal_ftpd_t *server_ = nullptr;
    std::thread acceptor_;
};

const std::string done = "226 Transfer complete";

void converse(client &peer, const std::vector<std::pair<std::string, std::string>> &exchanges)
{
    for (const auto &[command, reply] : exchanges)
        EXPECT_EQ(peer.ask(command), reply) << command;
}

TEST_F(ftpd, answers_every_command_with_its_text)
{
    file("file", "content");
    file("doomed", "");
    timespec times[2] = {{951782400, 0}, {951782400, 0}};
    utimensat(AT_FDCWD, path("file").c_str(), times, 0);
    mkfifo(path("pipe").c_str(), 0666);

    client peer(port());
    EXPECT_EQ(peer.reply(), "220 KESTAL FTP Server");
    // clang-format off
    converse(peer, {
        {"SYST", "530 Please login with USER and PASS !"}, {"user joe", "500 user not understood"},
        {"FEAT", "500 FEAT not understood"}, {"", "500  not understood"},
        {"PASS secret", "530 Please login with USER !"}, {"USER nobody", "331 Password required for nobody"},
        {"PASS secret", "530 Login incorrect !"}, {"USER joe", "331 Password required for joe"},
        {"PASS wrong", "530 Login incorrect !"}, {"USER joe", "331 Password required for joe"},
        {"PASS secret", "230 Login successful."}, {"SYST", "215 UNIX Type: L8"}, {"TYPE a", "200 Type set to A"},
        {"SIZE file", "504 SIZE not implemented for type"}, {"TYPE L", "200 Type set to L (byte size 8)"},
        {"TYPE L 8", "200 Type set to L 8"}, {"TYPE L 7", "504 Byte size must be 8 !"},
        {"TYPE E", "501 Type unknown !"}, {"TYPE", "500 TYPE not understood !"},
        {"TYPE A N", "500 TYPE not understood !"}, {"TYPE I", "200 Type set to I"},
        {"MODE S", "502 MODE command not implemented !"}, {"STRU F", "502 STRU command not implemented !"},
        {"ACCT x", "502 ACCT command not implemented !"}, {"ABOR", "426 Transfer aborted. Data connection closed."},
        {"NOOP", "200 NOOP command successful"}, {"OPTS UTF8 ON", "200 OK, UTF-8 enabled"},
        {"OPTS UTF8", "504 UIF-8 disabled"}, {"OPTS LANG en", "200 OK"},
        {"OPTS MLST x", "501 OPTS: MLST x not understood"}, {"REST 10", "320 Restart position ready"},
        {"REST -1", "501 Illegal REST command"}, {"REST 99999999999999999999", "501 Illegal REST command"},
        {"EPSV 2", "502 EPSV command not implemented !"}, {"LIST", "451 Socket error !"},
        {"MKD a \"b\" c", "250 MKD command successful"}, {"MKD a \"b\" c", "550 Can not make directory !"},
        {"CWD a \"b\" c", "250 CWD command successful"}, {"XPWD", "257 \"/a \"\"b\"\" c\" is current directory."},
        {"RMD .", "550 Can not remove current directory !"}, {"DELE .", "550 Can not delete current directory !"},
        {"RMD /", "550 Can not remove home directory !"}, {"DELE ..", "550 Can not delete home directory !"},
        {"CWD ../../..", "250 CWD command successful"}, {"CDUP", "250 CWD command successful"},
        {"PWD", "257 \"/\" is current directory."},
        {"CWD nowhere/else", "550 /nowhere/else: No such file or directory"},
        {"CWD file", "550 Can not change directory !"}, {"RMD file", "550 Can not remove directory !"},
        {"DELE a \"b\" c", "550 Can not delete file !"}, {"RMD a \"b\" c", "250 RMD command successful"},
        {"DELE doomed", "250 DELE command successful"}, {"SIZE file", "213 7"}, {"SIZE gone", "550 Unknown size !"},
        {"SIZE /", "550 /: not a regular file."}, {"MDTM file", "213 20000229000000"},
        {"MDTM gone", "550 Unknown size !"}, {"MDTM pipe", "550 /pipe: not a plain file."},
        {"RNFR gone", "550 /gone: No such file or directory."}, {"RNFR /", "550 RNFR error !"},
        {"RNTO new", "550 RNTO error !"}, {"RNFR file", "350 RNFR successful"},
        {"RNTO no/where", "550 /no/where: Rename error."}, {"RNFR file", "350 RNFR successful"},
        {"RNTO new\tname", "250 Rename successful"}, {"CWD new\tname/x\ny", "550 Can not change directory !"},
        {"RNFR x\ny", "550 /x?y: No such file or directory."}, {"RETR gone", "550 Can not open file !"},
        {"RETR pipe", "550 Stream error !"}, {"STOR pipe", "550 Stream error !"},
        {"STOR no/where", "550 Can not open file !"},
        {"HELP", "214-The following commands are recognized (* =>'s unimplemented):\r\n"
                 " CWD     XCWD    CDUP    XCUP    SMNT*   QUIT    PORT    PASV\r\n"
                 " EPRT*   EPSV*   ALLO*   RNFR    RNTO    DELE    MDTM    RMD\r\n"
                 " XRMD    MKD     XMKD    PWD     XPWD    SIZE    SYST    HELP\r\n"
                 " NOOP    FEAT*   OPTS    AUTH*   CCC*    CONF*   ENC*    MIC*\r\n"
                 " PBSZ*   PROT*   TYPE    STRU*   MODE*   RETR    STOR    STOU*\r\n"
                 " APPE    REST    ABOR    USER    PASS    ACCT*   REIN*   LIST\r\n"
                 " NLST    STAT*   SITE*   MLSD*   MLST*\r\n"
                 "214 Direct comments to KESTAL Co.,LTD."},
        {"USER joe", "331 Password required for joe"}, {"PWD", "530 Please login with USER and PASS !"},
        {"PASS secret", "530 Please login with USER !"}, {"QUIT", "221 Good-bye"}, {"", ""}}); // the end
    // clang-format on
}

TEST_F(ftpd, carries_values_over_to_the_next_command_only)
{
    file("file", "0123456789");
    client peer(port());
    peer.log_in();
    // clang-format off
    converse(peer, {
        {"RNFR file", "350 RNFR successful"}, {"no such", "500 no not understood"}, {"RNTO x", "550 RNTO error !"},
        {"RNFR file", "350 RNFR successful"}, {"RNFR gone", "550 /gone: No such file or directory."},
        {"RNTO x", "550 RNTO error !"}, {"REST 11", "320 Restart position ready"},
        {"RETR file", "550 Can not seek file !"}});
    // clang-format on
    EXPECT_EQ(peer.transfer({"REST 4", "RETR file"}), "456789");
    EXPECT_EQ(peer.transfer({"REST 4", "NOOP", "RETR file"}), "0123456789");
    peer.transfer({"STOR file"}, "new content");
    peer.transfer({"REST 3", "STOR file"}, "est");
    EXPECT_EQ(content("file"), "newest") << "what stands before the offset stays, what comes ends the file";
    peer.transfer({"APPE file"}, "+");
    EXPECT_EQ(peer.last, done);
    EXPECT_EQ(content("file"), "newest+");
    peer.ask("EPSV");
    EXPECT_EQ(peer.ask("STOR file"), "150 Opening data connection");
    EXPECT_EQ(content("file"), "newest+") << "while the client does not come, the old content stays";
}

TEST_F(ftpd, reads_lines_however_they_arrive)
{
    client peer(port());
    EXPECT_EQ(peer.reply(), "220 KESTAL FTP Server");
    for (const char byte : std::string("USER joe\r\nPASS secret\r\n"))
        peer.send(std::string(1, byte));
    EXPECT_EQ(peer.replies(2), "331 Password required for joe|230 Login successful.");
    peer.send("NOOP\r\nSYST\r\nNO");
    EXPECT_EQ(peer.replies(2), "200 NOOP command successful|215 UNIX Type: L8");
    peer.send("OP\r");
    peer.send("\nNOOP more\r\n \tNOOP\r\n");
    EXPECT_EQ(peer.replies(3), "200 NOOP command successful|200 NOOP command successful|200 NOOP command successful");

    EXPECT_EQ(peer.ask("MKD " + std::string(505, '/')), "550 Can not make directory !") << "511 bytes are a line";
    for (const size_t size : {512u, 100000u})
        EXPECT_EQ(peer.ask("SYST " + std::string(size - 5, 'x') + "\r\nNOOP", 2),
                  "500 SYST not understood|200 NOOP command successful");
    peer.send(std::string("DELE a\0b\r\nNOOP\r\n", 16));
    EXPECT_EQ(peer.replies(2), "500 DELE not understood|200 NOOP command successful");
    peer.send("\xFF\xF4\xFF\xF2"
              "ABOR\r\n");
    EXPECT_EQ(peer.reply(), "\xFF\xF4\xFF\xF2"
                            "426 Transfer aborted. Data connection closed.");
    peer.send("DELE half a line");
}

TEST_F(ftpd, lists_folders_patterns_and_files)
{
    mkdir(path("folder").c_str(), 0750);
    for (const char *name : {"folder/two.txt", "folder/.hidden.txt", "folder/\xEA\xB0\x80 b", "folder/line\nend"})
        file(name, "22");
    EXPECT_EQ(symlink("folder/two.txt", path("link").c_str()), 0);
    timespec times[2] = {{951782400, 0}, {951782400, 0}};
    utimensat(AT_FDCWD, path("folder/two.txt").c_str(), times, 0);
    chmod(path("folder/two.txt").c_str(), 04640);

    client peer(port());
    peer.log_in();
    const std::string names = peer.transfer({"NLST -la folder"});
    for (const char *name : {".hidden.txt", "line?end", "two.txt", "\xEA\xB0\x80 b"})
        EXPECT_NE(("\n" + names).find("\nfolder/" + std::string(name) + "\r\n"), std::string::npos) << name;
    EXPECT_EQ(peer.transfer({"NLST folder/*.t?t"}), "folder/two.txt\r\n");
    EXPECT_EQ(peer.ask("LIST folder/none"), "550 /folder/none: No such file or directory");
    const std::string none(500, 'x'); // no file system has a name so long
    EXPECT_EQ(peer.ask("LIST " + none), "550 /" + none + ": No such file or directory");
    EXPECT_EQ(peer.transfer({"NLST *" + none}), "");

    const std::string line = peer.transfer({"LIST -l folder/two.txt"});
    EXPECT_TRUE(line.starts_with("-rwSr-----   1 ")) << line;
    EXPECT_TRUE(line.ends_with("        2 Feb 29  2000 two.txt\r\n")) << line;
    const std::string link = peer.transfer({"LIST link"});
    EXPECT_TRUE(link.starts_with("lrwxrwxrwx   1 ") && link.ends_with(" link -> folder/two.txt\r\n")) << link;
    EXPECT_EQ(link[link.find(" link") - 3], ':') << "a time of today: " << link;
    EXPECT_NE(peer.transfer({"LIST"}).find("drwxr-x---   2 "), std::string::npos);
    for (int i = 0; i < 300; ++i)
        file("folder/" + std::string(100, 'n') + std::to_string(i), "");
    const std::string all = peer.transfer({"LIST folder"});
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 304);
}

TEST_F(ftpd, keeps_every_command_beneath_the_home)
{
    mkdir(files_.path("outside").c_str(), 0777);
    files_.file("outside/secret", "secret");
    EXPECT_EQ(symlink("../outside", path("out").c_str()), 0);
    EXPECT_EQ(symlink(files_.path("outside/secret").c_str(), path("absolute").c_str()), 0);
    file("file", "own");
    client peer(port());
    peer.log_in();
    for (const std::string name : {"out/secret", "/../../outside/secret", "./out/../out/secret"}) {
        for (const char *word :
             {"CWD ", "RETR ", "STOR ", "APPE ", "SIZE ", "MDTM ", "MKD ", "RMD ", "DELE ", "RNFR ", "LIST ", "NLST "})
            EXPECT_EQ(peer.ask(word + name).substr(0, 3), "550") << word << name;
        peer.ask("RNFR file");
        EXPECT_TRUE(peer.ask("RNTO " + name).ends_with(": Rename error.")) << name;
    }
    for (const char *word : {"RETR ", "STOR ", "SIZE "})
        EXPECT_EQ(peer.ask(word + std::string("absolute")).substr(0, 3), "550") << word;
    EXPECT_EQ(peer.ask("LIST out/sec*").substr(0, 3), "550");
    EXPECT_EQ(peer.transfer({"NLST absolute"}), "absolute\r\n");
    converse(peer, {{"DELE absolute", "250 DELE command successful"}, {"DELE out", "250 DELE command successful"}});
    EXPECT_EQ(std::ifstream(files_.path("outside/secret")).get(), 's');
}

TEST_F(ftpd, makes_data_connections_to_the_client_only)
{
    file("file", "content");
    client peer(port());
    peer.log_in();
    const int32_t listener = kestal_open_listen_socket("127.0.0.1", 0);
    const uint32_t at = port_of(listener);
    const std::string tail = "," + std::to_string(at >> 8) + "," + std::to_string(at & 255);
    for (const std::string &target : {"127,0,0,2" + tail, std::string("127,0,0,1,0,0"), "127,0,0,1" + tail + ",1",
                                      std::string("127,0,0,1,256,1"), std::string("127,0,0,1,1"), std::string()})
        EXPECT_EQ(peer.ask("PORT " + target), "501 Illegal PORT command") << target;
    for (const char *target : {"|1|127.0.0.2|21|", "|2|::1|21|", "|2|::|21|", "|1|127.0.0.1|0|", "", "|3|x|1|",
                               "|1|127.0.0.1|", "|1|127.0.0.1|70000|", "1127.0.0.121", "|1||21|", "|1|127.0.0.1|21|x"})
        EXPECT_EQ(peer.ask(std::string("EPRT ") + target), "502 EPRT command not implemented !") << target;
    EXPECT_EQ(peer.ask("RETR file"), "451 Socket error !");

    const std::string good[] = {"PORT 127,0,0,1" + tail, "EPRT |1|127.0.0.1|" + std::to_string(at) + "|"};
    for (const std::string &command : good) {
        EXPECT_EQ(peer.ask(command), "200 " + command.substr(0, 4) + " command successful");
        EXPECT_EQ(peer.ask("RETR file"), "150 Opening data connection");
        EXPECT_EQ(read_all(kestal_accept(listener, nullptr, nullptr, 30000)), "content");
        EXPECT_EQ(peer.reply(), done);
    }
    close(listener);
    peer.ask("PORT 127,0,0,1,0,1"); // nobody listens there
    EXPECT_EQ(peer.ask("RETR file", 2), "150 Opening data connection|451 Connect error !");

    unsigned high = 0, low = 0;
    EXPECT_EQ(sscanf(peer.ask("PASV").c_str(), "227 Entering passive mode (127,0,0,1,%u,%u).", &high, &low), 2);
    const int32_t stranger =
        kestal_open_connect_socket_ex(0, "127.0.0.9", 0, "127.0.0.1", static_cast<int32_t>(high << 8 | low), 30000);
    kestal_set_non_block_socket(stranger, 0);
    EXPECT_EQ(peer.ask("RETR file"), "150 Opening data connection");
    EXPECT_EQ(read_all(stranger), "") << "another machine's connection is not served";
    EXPECT_EQ(read_all(connect_to("127.0.0.1", high << 8 | low)), "content");
    EXPECT_EQ(peer.reply(), done);
}

TEST_F(ftpd, gives_up_on_clients_that_stall)
{
    EXPECT_EQ(truncate((file("large", ""), path("large")).c_str(), 100000000), 0);
    EXPECT_EQ(kestal_ftpd_set_timeouts(server_, 60000, 60000, 20), 0);
    client peer(port());
    peer.log_in();
    close(peer.passive()); // waits in the queue, and has ended
    EXPECT_EQ(peer.ask("STOR short", 2), "150 Opening data connection|" + done);
    peer.ask("EPSV");
    EXPECT_EQ(peer.ask("STOR never", 2), "150 Opening data connection|451 Accept error !");
    EXPECT_EQ(peer.ask("SIZE never"), "550 Unknown size !") << "nothing is made for a client that does not come";
    for (const auto &[command, end] :
         {std::pair("RETR large", "550 Data send error !"), {"STOR short", "550 Data read error !"}}) {
        const int data = peer.passive();
        EXPECT_EQ(peer.ask(command, 2), std::string("150 Opening data connection|") + end);
        close(data);
    }

    EXPECT_EQ(kestal_ftpd_set_timeouts(server_, 20, 60000, 60000), 0);
    client silent(port());
    EXPECT_EQ(silent.replies(2), "220 KESTAL FTP Server|");
    peer.send("QUIT\r\n" + std::string(1000, 'x'));
    silent.hang_up();
    const std::string more(1 << 20, 'x');
    const time_t limit = time(nullptr) + 20;
    while (kestal_ftpd_get_session_count(server_) != 0 && time(nullptr) < limit)
        peer.send(more);
    EXPECT_EQ(kestal_ftpd_get_session_count(server_), 0u) << "one that never stops talking";
}

TEST_F(ftpd, ends_transfers_on_abor_hang_up_and_stop)
{
    EXPECT_EQ(truncate((file("large", ""), path("large")).c_str(), 100000000), 0);
    client peer(port());
    peer.log_in();
    char first = 1;
    const int data = peer.passive();
    EXPECT_EQ(peer.ask("RETR large"), "150 Opening data connection");
    EXPECT_EQ(recv(data, &first, 1, 0), 1);
    peer.send("\xFF\xF4\xFF\xF2"
              "ABOR\r\nNOOP\r\n");
    EXPECT_EQ(peer.replies(3), "550 Data send error !|\xFF\xF4\xFF\xF2"
                               "426 Transfer aborted. Data connection closed.|200 NOOP command successful");
    close(data);
    const int upload = peer.passive();
    EXPECT_EQ(peer.ask("STOR upload"), "150 Opening data connection");
    EXPECT_EQ(send(upload, "x", 1, 0), 1);
    kestal_test::wait_until([&] { return content("upload") == "x"; });
    EXPECT_EQ(kestal_ftpd_set_session_limit(server_, 1), 0);
    EXPECT_EQ(client(port()).replies(2), "421 Service not available !|");
    EXPECT_EQ(kestal_ftpd_set_session_limit(server_, 0), 0);
    EXPECT_EQ(client(port()).reply(), "220 KESTAL FTP Server");
    EXPECT_EQ(kestal_ftpd_stop(server_, 0), -1) << "one is left";
    EXPECT_EQ(peer.replies(2), "550 Data read error !|");
    peer.hang_up();
    EXPECT_EQ(kestal_ftpd_stop(server_, 30000), 0);
    close(upload);
    EXPECT_EQ(kestal_ftpd_do(server_, -1), -1);
    EXPECT_EQ(kestal_ftpd_serve(server_, -1), -1);
}

TEST_F(ftpd, logs_in_by_the_first_account_that_fits)
{
    system_home = path("system");
    mkdir(system_home.c_str(), 0777);
    chmod(system_home.c_str(), 0777);
    kestal_ftpd_account_t *chain = kestal_ftpd_new_account("md5", 0);
    chain->m_next = kestal_ftpd_new_account("sha", KESTAL_FTPD_ACCOUNT_SYSTEM);
    EXPECT_EQ(kestal_ftpd_account_set_plain_password(chain, "plain first"), 0);
    EXPECT_EQ(kestal_ftpd_add_account(server_, chain), 0);
    kestal_ftpd_account_t *own = nullptr;
    EXPECT_EQ(kestal_ftpd_add_user(nullptr, &own, "free", nullptr, nullptr), 0);
    EXPECT_EQ(kestal_ftpd_add_account(server_, own), 0);
    const bool crypts = dlopen("libcrypt.so.1", RTLD_NOW | RTLD_LOCAL) != nullptr;
    struct {
        const char *user, *password;
        bool enters;
    } const cases[] = {
        // clang-format off
        {"sha", "secret", crypts}, {"sha", "Secret", false}, {"sha", sha512, false}, {"md5", "plain first", true},
        {"md5", "secret", false}, {"free", nullptr, true}, {"open", "", false}, {"old", "secret", false},
        {"old", "secret", crypts}, {"short", "secret", crypts}, {"open", nullptr, true}, {"locked", "!", false},
        {"shadowless", "x", false}, {"plain", "secret", true}, {"plain", "", false}, {"unheard-of", "", false},
        // clang-format on
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        if (i == 8) // from here on any user of the system
            kestal_ftpd_add_account(server_, kestal_ftpd_new_account(nullptr, KESTAL_FTPD_ACCOUNT_SYSTEM));
        const auto &[user, password, enters] = cases[i];
        client peer(port());
        peer.reply();
        std::string last = peer.ask(std::string("USER ") + user);
        if (password != nullptr) {
            EXPECT_EQ(last, std::string("331 Password required for ") + user);
            last = peer.ask(std::string("PASS ") + password);
        }
        EXPECT_EQ(last, enters ? "230 Login successful." : "530 Login incorrect !") << user << " " << password;
    }
    client peer(port());
    peer.reply();
    EXPECT_EQ(peer.ask("USER open"), "230 Login successful.");
    peer.transfer({"STOR mine"});
    struct stat status;
    EXPECT_EQ(stat(path("system/mine").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, geteuid() == 0 ? system_uid : geteuid()) << "files belong to the user who stored them";
    setenv("HOME", path("").c_str(), 1);
    EXPECT_EQ(peer.ask("USER free"), "230 Login successful.");
    peer.transfer({"STOR other"});
    EXPECT_EQ(stat(path("other").c_str(), &status), 0) << "home is where the process lives";
    EXPECT_EQ(status.st_uid, geteuid());
}

TEST_F(ftpd, serves_anybody_without_accounts)
{
    stop();
    ASSERT_TRUE(start(nullptr, false));
    file("file", "content");
    setenv("HOME", path("").c_str(), 1);
    client peer(port());
    peer.reply();
    EXPECT_EQ(peer.ask("USER anonymous"), "230 Login successful.");
    EXPECT_EQ(peer.transfer({"RETR file"}), "content");
    unsetenv("HOME");
    setenv("HOMEDRIVE", files_.path("").c_str(), 1);
    setenv("HOMEPATH", "home", 1);
    EXPECT_EQ(peer.ask("USER ftp"), "230 Login successful.");
    EXPECT_EQ(peer.ask("SIZE /file"), "213 7");
    if (kestal_check_ipv6_support() == 0) {
        client other(port(), "::1");
        other.reply();
        converse(other, {{"USER ftp", "230 Login successful."},
                         {"PASV", "425 Can not open passive connection"},
                         {"EPSV 1", "502 EPSV command not implemented !"},
                         {"EPRT |2|::2|21|", "502 EPRT command not implemented !"},
                         {"EPRT |2|::|21|", "200 EPRT command successful"}}); // the client's own, left open
        other.transfer({"STOR /file"}, "more content");
        EXPECT_EQ(content("file"), "more content");
    }
    // A session that one's own thread serves.
    kestal_socket_pair_t ends;
    EXPECT_EQ(kestal_socket_pair(AF_UNIX, SOCK_STREAM, 0, &ends), 0);
    const std::string commands = "USER x\r\nEPSV\r\nPASV\r\nPORT 127,0,0,1,9,9\r\nQUIT\r\n";
    EXPECT_EQ(send(ends.m_socket[0], commands.data(), commands.size(), 0), static_cast<ssize_t>(commands.size()));
    shutdown(ends.m_socket[0], SHUT_WR);
    EXPECT_EQ(kestal_ftpd_serve(server_, ends.m_socket[1]), 0);
    EXPECT_EQ(read_all(ends.m_socket[0]),
              "220 KESTAL FTP Server\r\n230 Login successful.\r\n500 EPSV socket create fail !\r\n"
              "425 PASV socket create fail !\r\n501 Illegal PORT command\r\n221 Good-bye\r\n");
}

TEST_F(ftpd, survives_allocations_that_fail)
{
    file("file", "content");
    stop();
    const uint64_t failures = kestal_test::with_each_allocation_failing([&] {
        if (!start())
            return;
        {
            client peer(port());
            peer.reply();
            for (const char *command : {"USER joe", "PASS secret", "RNFR file", "OPTS UTF8 ON"})
                peer.ask(command);
            EXPECT_TRUE(peer.transfer({"RETR file"}) == "content" || peer.last != done);
            peer.transfer({"LIST"});
            peer.transfer({"APPE other"}, "x");
        }
        stop();
    });
    EXPECT_GT(failures, 10u);
}

TEST_F(ftpd, refuses_what_it_can_not_use)
{
    for (const auto &[address, at] : {std::pair("not an address", 0u), {"127.0.0.1", port()}, {nullptr, 70000u}})
        EXPECT_EQ(kestal_open_ftpd(address, static_cast<int32_t>(at)), nullptr) << at;
    kestal_ftpd_account_t *account = nullptr;
    EXPECT_EQ(kestal_close_ftpd(nullptr) + kestal_ftpd_do(nullptr, 0) + kestal_ftpd_serve(nullptr, -1) +
                  kestal_ftpd_stop(nullptr, 0) + kestal_ftpd_set_timeouts(nullptr, 0, 0, 0) +
                  kestal_ftpd_set_session_limit(nullptr, 0) + kestal_ftpd_get_socket(nullptr) +
                  kestal_ftpd_add_account(server_, nullptr) + kestal_ftpd_free_account(nullptr) +
                  kestal_ftpd_account_set_plain_password(nullptr, "x") +
                  kestal_ftpd_account_set_path_home(nullptr, "x") +
                  kestal_ftpd_add_user(server_, &account, nullptr, "x", "/"),
              -12);
    EXPECT_EQ(kestal_ftpd_get_session_count(nullptr) + kestal_ftpd_get_port(nullptr), 0u);
}

} // namespace
