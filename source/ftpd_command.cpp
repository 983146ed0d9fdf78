#include "ftpd_command.hpp"

#include <kestal_ulx/address.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/text.h>

#include "ftpd_data.hpp"
#include "ftpd_list.hpp"
#include "ftpd_login.hpp"
#include "ftpd_path.hpp"
#include "ftpd_transfer.hpp"
#include "guard.hpp"

#include <algorithm>
#include <errno.h>
#include <stdio.h>
#include <string_view>
#include <time.h>

namespace {

using kestal::ftpd_carry_rename;
using kestal::ftpd_carry_restart;
using kestal::ftpd_carry_user;
using kestal::ftpd_data_mode;
using kestal::ftpd_listen_result;
using kestal::ftpd_listing;
using kestal::ftpd_login_result;
using kestal::ftpd_reply;
using kestal::ftpd_reply_format;
using kestal::ftpd_session;
using kestal::name_beneath;
using kestal::open_beneath;
using kestal::owned_descriptor;
using kestal::virtual_path;

constexpr const char *help_rows[] = {
    "CWD     XCWD    CDUP    XCUP    SMNT*   QUIT    PORT    PASV",
    "EPRT*   EPSV*   ALLO*   RNFR    RNTO    DELE    MDTM    RMD",
    "XRMD    MKD     XMKD    PWD     XPWD    SIZE    SYST    HELP",
    "NOOP    FEAT*   OPTS    AUTH*   CCC*    CONF*   ENC*    MIC*",
    "PBSZ*   PROT*   TYPE    STRU*   MODE*   RETR    STOR    STOU*",
    "APPE    REST    ABOR    USER    PASS    ACCT*   REIN*   LIST",
    "NLST    STAT*   SITE*   MLSD*   MLST*",
};

// A carry-over value that has had its command.
void drop(char *&text)
{
    kestal_check_free(text);
    text = nullptr;
}

void drop_what_is_not_carried(ftpd_session &session)
{
    const uint32_t carried = std::exchange(session.carry_over, 0);
    if ((carried & ftpd_carry_user) == 0)
        drop(session.user);
    if ((carried & ftpd_carry_restart) == 0)
        session.restart_offset = 0;
    if ((carried & ftpd_carry_rename) == 0)
        drop(session.rename_source);
}

// --- login

bool reply_logged_in(const ftpd_session &session)
{
    return ftpd_reply(session, 230, "Login successful.");
}

bool reply_no_memory(const ftpd_session &session)
{
    return ftpd_reply(session, 451, "Memory exhausted !");
}

bool do_user(ftpd_session &session, const char *argument)
{
    const ftpd_login_result result = ftpd_log_in(session, argument, nullptr);
    if (result == ftpd_login_result::accepted)
        return reply_logged_in(session);
    if (result == ftpd_login_result::no_memory)
        return reply_no_memory(session);
    drop(session.user);
    session.user = kestal_strdup(argument);
    if (session.user == nullptr)
        return reply_no_memory(session);
    session.carry_over |= ftpd_carry_user;
    return ftpd_reply(session, 331, "Password required for ", argument);
}

bool do_pass(ftpd_session &session, const char *argument)
{
    if (session.user == nullptr)
        return ftpd_reply(session, 530, "Please login with USER !");
    if (ftpd_log_in(session, session.user, argument) == ftpd_login_result::accepted)
        return reply_logged_in(session);
    return ftpd_reply(session, 530, "Login incorrect !");
}

bool do_quit(ftpd_session &session, const char *)
{
    session.is_over = true;
    return ftpd_reply(session, 221, "Good-bye");
}

// --- settings and answers without files

bool do_syst(ftpd_session &session, const char *)
{
    return ftpd_reply(session, 215, "UNIX Type: L8");
}

bool do_noop(ftpd_session &session, const char *)
{
    return ftpd_reply(session, 200, "NOOP command successful");
}

bool do_abor(ftpd_session &session, const char *)
{
    return ftpd_reply(session, 426, "Transfer aborted. Data connection closed.");
}

bool do_mode(ftpd_session &session, const char *)
{
    return ftpd_reply(session, 502, "MODE command not implemented !");
}

bool do_stru(ftpd_session &session, const char *)
{
    return ftpd_reply(session, 502, "STRU command not implemented !");
}

bool do_acct(ftpd_session &session, const char *)
{
    return ftpd_reply(session, 502, "ACCT command not implemented !");
}

bool do_site(ftpd_session &session, const char *)
{
    return ftpd_reply(session, 502, "SITE command not implemented !");
}

// Exactly one letter, or "L" with a byte size: what says more, such as "A N", is refused.
bool do_type(ftpd_session &session, const char *argument)
{
    const std::string_view text(argument);
    const char letter = text.empty() ? '\0' : static_cast<char>(text[0] & ~0x20);
    if (text.size() == 3 && letter == 'L' && text[1] == ' ') {
        if (text[2] != '8')
            return ftpd_reply(session, 504, "Byte size must be 8 !");
        session.type = 'L';
        return ftpd_reply(session, 200, "Type set to L 8");
    }
    if (text.size() != 1)
        return ftpd_reply(session, 500, "TYPE not understood !");
    switch (letter) {
    case 'A':
        session.type = letter;
        return ftpd_reply(session, 200, "Type set to A");
    case 'I':
        session.type = letter;
        return ftpd_reply(session, 200, "Type set to I");
    case 'L':
        session.type = letter;
        return ftpd_reply(session, 200, "Type set to L (byte size 8)");
    default:
        return ftpd_reply(session, 501, "Type unknown !");
    }
}

bool do_opts(ftpd_session &session, const char *argument)
{
    const char *cursor = argument;
    const kestal::owned_block<char> option(kestal_alloc_word(&cursor, nullptr, 0), __func__);
    const kestal::owned_block<char> value(kestal_alloc_word(&cursor, nullptr, 0), __func__);
    const auto is_one_of = [](const char *word, std::initializer_list<const char *> words) {
        return std::any_of(words.begin(), words.end(),
                           [word](const char *each) { return kestal_compare_ignore_case(word, each) == 0; });
    };
    if (is_one_of(option.get(), {"UTF8", "UTF-8"})) {
        if (is_one_of(value.get(), {"ON", "ENABLE", "TRUE"}))
            return ftpd_reply(session, 200, "OK, UTF-8 enabled");
        return ftpd_reply(session, 504, "UIF-8 disabled"); // spelled so: clients know it
    }
    if (is_one_of(option.get(), {"LANG"}))
        return ftpd_reply(session, 200, "OK");
    return ftpd_reply_format(session, "%03u%c%s%s%s", 501u, ' ', "OPTS: ", argument, " not understood");
}

bool do_help(ftpd_session &session, const char *)
{
    char text[1024];
    uint64_t length = kestal_snprintf(text, sizeof text, "%03u%c%s\r\n", 214u, '-',
                                      "The following commands are recognized (* =>'s unimplemented):");
    for (const char *row : help_rows)
        length += kestal_snprintf(text + length, sizeof text - length, "%c%s\r\n", ' ', row);
    length += kestal_snprintf(text + length, sizeof text - length, "%03u%c%s\r\n", 214u, ' ',
                              "Direct comments to KESTAL Co.,LTD.");
    return ftpd_send(session, text, static_cast<size_t>(length));
}

// --- data connections

bool do_port(ftpd_session &session, const char *argument)
{
    if (ftpd_set_target(session, argument, false))
        return ftpd_reply(session, 200, "PORT command successful");
    return ftpd_reply(session, 501, "Illegal PORT command");
}

bool do_eprt(ftpd_session &session, const char *argument)
{
    if (ftpd_set_target(session, argument, true))
        return ftpd_reply(session, 200, "EPRT command successful");
    return ftpd_reply(session, 502, "EPRT command not implemented !");
}

bool reply_not_listening(ftpd_session &session, uint32_t code, const char *command, ftpd_listen_result result)
{
    const char *text = " listen fail !";
    if (result == ftpd_listen_result::no_socket)
        text = " socket create fail !";
    else if (result == ftpd_listen_result::no_bind)
        text = " bind fail !";
    else if (result == ftpd_listen_result::no_name)
        text = " getsockname fail !";
    return ftpd_reply(session, code, command, text);
}

bool do_pasv(ftpd_session &session, const char *)
{
    if (family_of(&session.local) == AF_INET6)
        return ftpd_reply(session, 425, "Can not open passive connection");
    if (const ftpd_listen_result result = ftpd_listen(session); result != ftpd_listen_result::done)
        return reply_not_listening(session, 425, "PASV", result);
    const uint32_t address = kestal_be32_order(session.data_address.v4.sin_addr.s_addr);
    const uint32_t port = kestal_sockaddr_get_port(&session.data_address);
    return ftpd_reply_format(session, "%03u%cEntering passive mode (%u,%u,%u,%u,%u,%u).", 227u, ' ', address >> 24,
                             address >> 16 & 0xFF, address >> 8 & 0xFF, address & 0xFF, port >> 8, port & 0xFF);
}

bool do_epsv(ftpd_session &session, const char *argument)
{
    const char *own_protocol = family_of(&session.local) == AF_INET6 ? "2" : "1";
    if (*argument != '\0' && strcmp(argument, own_protocol) != 0)
        return ftpd_reply(session, 502, "EPSV command not implemented !");
    if (const ftpd_listen_result result = ftpd_listen(session); result != ftpd_listen_result::done)
        return reply_not_listening(session, 500, "EPSV", result);
    return ftpd_reply_format(session, "%03u%cEntering Extended Passive Mode (|||%u|).", 229u, ' ',
                             kestal_sockaddr_get_port(&session.data_address));
}

// --- folders

// The home folder, opened when it is first needed and kept: what is put in its place later is not served.
bool has_home(ftpd_session &session)
{
    if (session.home < 0)
        session.home = open(session.account->m_path_home, O_PATH | O_DIRECTORY | O_CLOEXEC);
    return session.home >= 0;
}

// Where an argument leads. False when there is no such place.
bool locate(ftpd_session &session, const char *argument, virtual_path &path)
{
    errno = ENAMETOOLONG;
    return path.assign(session.current, argument) && has_home(session);
}

bool do_pwd(ftpd_session &session, const char *)
{
    char doubled[2 * PATH_MAX]; // a quote is written twice (RFC 959)
    size_t length = 0;
    for (const char *each = session.current; *each != '\0'; ++each) {
        if (*each == '"')
            doubled[length++] = '"';
        doubled[length++] = *each;
    }
    doubled[length] = '\0';
    return ftpd_reply_format(session, "%03u%c\"%s\" is current directory.", 257u, ' ', doubled);
}

bool do_cwd(ftpd_session &session, const char *argument)
{
    virtual_path path;
    const bool is_located = locate(session, argument, path);
    const owned_descriptor folder(is_located ? open_beneath(session.home, path.beneath(), O_PATH | O_DIRECTORY) : -1);
    // The "." in it opens for those only who may go there.
    const owned_descriptor inside(folder.get() < 0 ? -1 : openat(folder.get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (inside.get() >= 0) {
        strcpy(session.current, path.text());
        return ftpd_reply(session, 250, "CWD command successful");
    }
    if (errno == ENOENT)
        return ftpd_reply(session, 550, path.text(), ": No such file or directory");
    return ftpd_reply(session, 550, "Can not change directory !");
}

bool do_cdup(ftpd_session &session, const char *)
{
    return do_cwd(session, "..");
}

bool do_mkd(ftpd_session &session, const char *argument)
{
    virtual_path path;
    if (locate(session, argument, path)) {
        const name_beneath place(session.home, path);
        if (place.folder() >= 0 && mkdirat(place.folder(), place.name(), 0777) == 0)
            return ftpd_reply(session, 250, "MKD command successful");
    }
    return ftpd_reply(session, 550, "Can not make directory !");
}

// What RMD and DELE have in common: `flags` are those of unlinkat, the texts those of the one or the other.
struct removal {
    int flags;
    const char *done;
    const char *is_home;
    const char *is_current;
    const char *failed;
};

bool remove(ftpd_session &session, const char *argument, const removal &kind)
{
    virtual_path path;
    if (!locate(session, argument, path))
        return ftpd_reply(session, 550, kind.failed);
    if (path.is_home())
        return ftpd_reply(session, 550, kind.is_home);
    if (strcmp(path.text(), session.current) == 0)
        return ftpd_reply(session, 550, kind.is_current);
    const name_beneath place(session.home, path);
    if (place.folder() < 0 || unlinkat(place.folder(), place.name(), kind.flags) != 0)
        return ftpd_reply(session, 550, kind.failed);
    return ftpd_reply(session, 250, kind.done);
}

bool do_rmd(ftpd_session &session, const char *argument)
{
    return remove(session, argument,
                  {AT_REMOVEDIR, "RMD command successful", "Can not remove home directory !",
                   "Can not remove current directory !", "Can not remove directory !"});
}

bool do_dele(ftpd_session &session, const char *argument)
{
    return remove(session, argument,
                  {0, "DELE command successful", "Can not delete home directory !",
                   "Can not delete current directory !", "Can not delete file !"});
}

bool do_rnfr(ftpd_session &session, const char *argument)
{
    virtual_path path;
    if (!locate(session, argument, path))
        return ftpd_reply(session, 550, "RNFR error !");
    const name_beneath place(session.home, path);
    struct stat status;
    if (place.folder() < 0 || fstatat(place.folder(), place.name(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return ftpd_reply(session, 550, path.text(), ": No such file or directory.");
        return ftpd_reply(session, 550, "RNFR error !");
    }
    drop(session.rename_source);
    session.rename_source = kestal_strdup(path.text());
    if (session.rename_source == nullptr)
        return ftpd_reply(session, 550, "RNFR error !");
    session.carry_over |= ftpd_carry_rename;
    return ftpd_reply(session, 350, "RNFR successful");
}

bool do_rnto(ftpd_session &session, const char *argument)
{
    virtual_path from;
    virtual_path to;
    if (session.rename_source == nullptr)
        return ftpd_reply(session, 550, "RNTO error !");
    if (from.assign("/", session.rename_source) && locate(session, argument, to)) {
        const name_beneath source(session.home, from);
        const name_beneath target(session.home, to);
        if (source.folder() >= 0 && target.folder() >= 0 &&
            renameat(source.folder(), source.name(), target.folder(), target.name()) == 0)
            return ftpd_reply(session, 250, "Rename successful");
    }
    return ftpd_reply(session, 550, to.text(), ": Rename error.");
}

// --- files

bool do_size(ftpd_session &session, const char *argument)
{
    if (session.type == 'A') // the size on the wire would be that with CR LF
        return ftpd_reply(session, 504, "SIZE not implemented for type");
    virtual_path path;
    const bool is_located = locate(session, argument, path);
    const owned_descriptor found(is_located ? open_beneath(session.home, path.beneath(), O_PATH) : -1);
    struct stat status;
    if (found.get() < 0 || fstat(found.get(), &status) != 0)
        return ftpd_reply(session, 550, "Unknown size !");
    if (!S_ISREG(status.st_mode))
        return ftpd_reply(session, 550, path.text(), ": not a regular file.");
    const owned_descriptor file(open_beneath(session.home, path.beneath(), O_RDONLY | O_NONBLOCK));
    if (file.get() < 0)
        return ftpd_reply(session, 550, path.text(), ": Can not open file !");
    return ftpd_reply_format(session, "%03u%c%llu", 213u, ' ', static_cast<uint64_t>(status.st_size));
}

bool do_mdtm(ftpd_session &session, const char *argument)
{
    virtual_path path;
    const bool is_located = locate(session, argument, path);
    const owned_descriptor found(is_located ? open_beneath(session.home, path.beneath(), O_PATH) : -1);
    struct stat status;
    if (found.get() < 0 || fstat(found.get(), &status) != 0)
        return ftpd_reply(session, 550, "Unknown size !"); // of a time too: clients know the text
    if (!S_ISREG(status.st_mode))
        return ftpd_reply(session, 550, path.text(), ": not a plain file.");
    tm when = {};
    gmtime_r(&status.st_mtime, &when); // UTC (RFC 3659)
    return ftpd_reply_format(session, "%03u%c%04u%02u%02u%02u%02u%02u", 213u, ' ', when.tm_year + 1900, when.tm_mon + 1,
                             when.tm_mday, when.tm_hour, when.tm_min, when.tm_sec);
}

bool do_rest(ftpd_session &session, const char *argument)
{
    uint64_t offset = 0;
    const char *digit = argument;
    for (; *digit >= '0' && *digit <= '9' && offset <= (INT64_MAX - 9) / 10; ++digit)
        offset = offset * 10 + static_cast<uint64_t>(*digit - '0');
    if (digit == argument || *digit != '\0')
        return ftpd_reply(session, 501, "Illegal REST command");
    session.restart_offset = offset;
    session.carry_over |= ftpd_carry_restart;
    // 320, where 350 is usual: callers rely on it.
    return ftpd_reply(session, 320, "Restart position ready");
}

// Announces a transfer, makes its connection, lets `transfer(socket)` do the rest, and tells the end.
template <typename Transfer>
bool run_transfer(ftpd_session &session, const char *announcement, Transfer transfer)
{
    if (session.data_mode == ftpd_data_mode::none)
        return ftpd_reply(session, 451, "Socket error !");
    if (!ftpd_reply(session, 150, announcement))
        return false;
    const char *failure = nullptr;
    {
        const owned_descriptor sock(ftpd_open_data(session, failure));
        if (sock.get() < 0)
            return ftpd_reply(session, 451, failure);
        failure = transfer(sock.get());
    }
    return failure == nullptr ? ftpd_reply(session, 226, "Transfer complete") : ftpd_reply(session, 550, failure);
}

bool list(ftpd_session &session, const char *argument, bool is_long)
{
    ftpd_listing listing(session, is_long);
    if (!has_home(session) || !listing.open(argument))
        return ftpd_reply(session, 550, listing.path(), ": No such file or directory");
    return run_transfer(session, "Opening ASCII mode data connection for file list",
                        [&](int32_t sock) { return listing.send(sock); });
}

bool do_list(ftpd_session &session, const char *argument)
{
    return list(session, argument, true);
}

bool do_nlst(ftpd_session &session, const char *argument)
{
    return list(session, argument, false);
}

// Why a file that is not there can not be made, as far as can be told without making it; else null.
const char *why_not_made(const ftpd_session &session, const virtual_path &path, int flags)
{
    const name_beneath place(session.home, path);
    if (place.folder() < 0 || faccessat(place.folder(), ".", W_OK | X_OK, AT_EACCESS) != 0)
        return "Can not open file !";
    return (flags & O_APPEND) != 0 || session.restart_offset == 0 ? nullptr : "Can not seek file !";
}

// Opens a regular file at the restart offset. -1, and the reply, for anything else; -1 without a reply for one to write to
// that is not there and can be made, by O_CREAT. Opening never waits: the name may be that of a pipe.
int open_regular(ftpd_session &session, const char *argument, int flags, const char *&failure)
{
    virtual_path path;
    failure = "Can not open file !";
    if (!locate(session, argument, path))
        return -1;
    owned_descriptor file(open_beneath(session.home, path.beneath(), flags | O_NONBLOCK | O_NOCTTY, 0666));
    if (file.get() < 0 && errno == ENOENT && (flags & (O_WRONLY | O_CREAT)) == O_WRONLY)
        failure = why_not_made(session, path, flags);
    else if (file.get() >= 0 || errno == EISDIR || errno == ENXIO)
        failure = "Stream error !";
    struct stat status;
    if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return -1;
    failure = "Can not seek file !";
    const uint64_t offset = (flags & O_APPEND) == 0 ? session.restart_offset : 0;
    if (offset > static_cast<uint64_t>(status.st_size) ||
        (offset != 0 && lseek(file.get(), static_cast<off_t>(offset), SEEK_SET) < 0))
        return -1;
    return file.release();
}

bool do_retr(ftpd_session &session, const char *argument)
{
    const char *failure = nullptr;
    const owned_descriptor file(open_regular(session, argument, O_RDONLY, failure));
    if (file.get() < 0)
        return ftpd_reply(session, 550, failure);
    return run_transfer(session, "Opening data connection",
                        [&](int32_t sock) { return ftpd_send_file(session, sock, file.get()); });
}

// Lets a file end at so many bytes. One that does so already is left alone: file systems flush a file that was cut.
bool cut(int file, off_t size)
{
    struct stat status;
    return fstat(file, &status) == 0 && (status.st_size == size || ftruncate(file, size) == 0);
}

// STOR and APPE, which differ in `flags`. Nothing is made or cut before the client has made its data connection.
bool store(ftpd_session &session, const char *argument, int flags)
{
    const char *failure = nullptr;
    owned_descriptor file(open_regular(session, argument, O_WRONLY | flags, failure));
    if (file.get() < 0 && failure != nullptr)
        return ftpd_reply(session, 550, failure);
    const auto kept = static_cast<off_t>(session.restart_offset);
    return run_transfer(session, "Opening data connection", [&](int32_t sock) {
        owned_descriptor target(file.get() < 0 ? open_regular(session, argument, O_WRONLY | O_CREAT | flags, failure)
                                               : file.release());
        if (target.get() < 0)
            return failure;
        if ((flags & O_APPEND) == 0 && !cut(target.get(), kept))
            return "Stream error !";
        failure = ftpd_receive_file(session, sock, target.get());
        // Some file systems tell only when a file is closed that they could not store it.
        return close(target.release()) != 0 && failure == nullptr ? "Data send error !" : failure;
    });
}

bool do_stor(ftpd_session &session, const char *argument)
{
    return store(session, argument, 0);
}

bool do_appe(ftpd_session &session, const char *argument)
{
    return store(session, argument, O_APPEND);
}

// --- the table

struct command {
    const char *word;
    bool needs_login;
    bool (*handler)(ftpd_session &session, const char *argument);
};

constexpr command commands[] = {
    {"USER", false, do_user}, {"PASS", false, do_pass}, {"QUIT", false, do_quit}, {"SYST", true, do_syst},
    {"TYPE", true, do_type},  {"MODE", true, do_mode},  {"STRU", true, do_stru},  {"ACCT", true, do_acct},
    {"SITE", true, do_site},  {"ABOR", true, do_abor},  {"NOOP", true, do_noop},  {"PORT", true, do_port},
    {"EPRT", true, do_eprt},  {"PASV", true, do_pasv},  {"EPSV", true, do_epsv},  {"LPSV", true, do_epsv},
    {"PWD", true, do_pwd},    {"XPWD", true, do_pwd},   {"CWD", true, do_cwd},    {"XCWD", true, do_cwd},
    {"CDUP", true, do_cdup},  {"XCUP", true, do_cdup},  {"MKD", true, do_mkd},    {"XMKD", true, do_mkd},
    {"RMD", true, do_rmd},    {"XRMD", true, do_rmd},   {"DELE", true, do_dele},  {"RNFR", true, do_rnfr},
    {"RNTO", true, do_rnto},  {"SIZE", true, do_size},  {"MDTM", true, do_mdtm},  {"REST", true, do_rest},
    {"LIST", true, do_list},  {"NLST", true, do_nlst},  {"RETR", true, do_retr},  {"STOR", true, do_stor},
    {"APPE", true, do_appe},  {"OPTS", true, do_opts},  {"HELP", true, do_help},
};

} // namespace

namespace kestal {

bool ftpd_execute(ftpd_session &session, const ftpd_line &line)
{
    drop_what_is_not_carried(session);
    char *word = line.text + strspn(line.text, " \t");
    char *end = word + strcspn(word, " \t");
    const char *argument = *end == '\0' ? end : end + 1;
    *end = '\0';
    const auto *found = std::find_if(std::begin(commands), std::end(commands),
                                     [word](const command &each) { return strcmp(each.word, word) == 0; });
    if (!line.is_whole || found == std::end(commands))
        return ftpd_reply(session, 500, word, " not understood");
    if (found->needs_login && session.account == nullptr)
        return ftpd_reply(session, 530, "Please login with USER and PASS !");
    return found->handler(session, argument);
}

} // namespace kestal
