// The FTP client's commands, one call each, and what servers are asked for with them.
#include "ftp.hpp"

#include <kestal_ulx/format.h>

#include <errno.h>

namespace {

constexpr int32_t code_system = 215;
constexpr int32_t code_file_status = 213;
constexpr int32_t code_done = 250;
constexpr int32_t code_path = 257;
constexpr int32_t code_need_more = 350;

int32_t run(kestal_ftp_t *ftp, const char *command)
{
    return ftp == nullptr ? -1 : kestal::run_ftp_command(*ftp, command, nullptr);
}

int32_t run(kestal_ftp_t *ftp, const char *command, const char *argument)
{
    if (ftp == nullptr)
        return -1;
    return argument == nullptr ? kestal::fail_with(EINVAL) : kestal::run_ftp_command(*ftp, command, argument);
}

int32_t run_optional(kestal_ftp_t *ftp, const char *command, const char *argument)
{
    return kestal::is_empty(argument) ? run(ftp, command) : run(ftp, command, argument);
}

int32_t zero_if(bool holds)
{
    return holds ? 0 : -1;
}

// Reads a whole number that fits, of at least one digit, and blanks behind it.
bool parse_size(const char *text, uint64_t &size)
{
    size = 0;
    if (*text < '0' || *text > '9')
        return false;
    for (; *text >= '0' && *text <= '9'; ++text)
        if (__builtin_mul_overflow(size, 10u, &size) ||
            __builtin_add_overflow(size, static_cast<uint64_t>(*text - '0'), &size))
            return false;
    while (*text == ' ')
        ++text;
    return *text == '\0';
}

// Takes a text out of its quotes, in place; a doubled quote stands for one. Null when it is not quoted.
char *take_quoted(char *text)
{
    if (*text != '"')
        return nullptr;
    char *end = text;
    for (const char *from = text + 1; *from != '\0'; *end++ = *from++)
        if (*from == '"' && *++from != '"') {
            *end = '\0';
            return text;
        }
    return nullptr;
}

} // namespace

const char *kestal::ftp_path_or_default(const kestal_ftp_t &ftp, const char *path)
{
    if (!is_empty(path))
        return path;
    const char *of_uri = ftp.m_uri == nullptr ? nullptr : ftp.m_uri->m_decoded_path;
    if (!is_empty(of_uri) && *of_uri == '/')
        ++of_uri;
    return is_empty(of_uri) ? nullptr : of_uri;
}

int32_t kestal_ftp_help(kestal_ftp_t *ftp, const char *command)
{
    return run_optional(ftp, "HELP", command);
}

int32_t kestal_ftp_opts(kestal_ftp_t *ftp, const char *option)
{
    return run(ftp, "OPTS", option);
}

int32_t kestal_ftp_site(kestal_ftp_t *ftp, const char *command)
{
    return run(ftp, "SITE", command);
}

int32_t kestal_ftp_user(kestal_ftp_t *ftp, const char *user)
{
    return run(ftp, "USER", user);
}

int32_t kestal_ftp_pass(kestal_ftp_t *ftp, const char *password)
{
    return run(ftp, "PASS", password);
}

int32_t kestal_ftp_acct(kestal_ftp_t *ftp, const char *account)
{
    return run(ftp, "ACCT", account);
}

int32_t kestal_ftp_quit(kestal_ftp_t *ftp)
{
    return run(ftp, "QUIT");
}

int32_t kestal_ftp_noop(kestal_ftp_t *ftp)
{
    return run(ftp, "NOOP");
}

int32_t kestal_ftp_syst(kestal_ftp_t *ftp)
{
    return run(ftp, "SYST");
}

int32_t kestal_ftp_type(kestal_ftp_t *ftp, const char *type)
{
    return run(ftp, "TYPE", type);
}

int32_t kestal_ftp_mode(kestal_ftp_t *ftp, const char *mode)
{
    return run(ftp, "MODE", mode);
}

int32_t kestal_ftp_stru(kestal_ftp_t *ftp, const char *structure)
{
    return run(ftp, "STRU", structure);
}

int32_t kestal_ftp_size(kestal_ftp_t *ftp, const char *path)
{
    return run(ftp, "SIZE", path);
}

int32_t kestal_ftp_mdtm(kestal_ftp_t *ftp, const char *path)
{
    return run(ftp, "MDTM", path);
}

int32_t kestal_ftp_stat(kestal_ftp_t *ftp, const char *path)
{
    return run_optional(ftp, "STAT", path);
}

int32_t kestal_ftp_cwd(kestal_ftp_t *ftp, const char *path)
{
    return run(ftp, "CWD", path);
}

int32_t kestal_ftp_cdup(kestal_ftp_t *ftp)
{
    return run(ftp, "CDUP");
}

int32_t kestal_ftp_pwd(kestal_ftp_t *ftp)
{
    return run(ftp, "PWD");
}

int32_t kestal_ftp_rnfr(kestal_ftp_t *ftp, const char *path)
{
    return run(ftp, "RNFR", path);
}

int32_t kestal_ftp_rnto(kestal_ftp_t *ftp, const char *path)
{
    return run(ftp, "RNTO", path);
}

int32_t kestal_ftp_dele(kestal_ftp_t *ftp, const char *path)
{
    return run(ftp, "DELE", path);
}

int32_t kestal_ftp_rmd(kestal_ftp_t *ftp, const char *path)
{
    return run(ftp, "RMD", path);
}

int32_t kestal_ftp_mkd(kestal_ftp_t *ftp, const char *path)
{
    return run(ftp, "MKD", path);
}

int32_t kestal_ftp_rest(kestal_ftp_t *ftp, uint64_t offset)
{
    return kestal_ftp_command_printf(ftp, "REST %llu\r\n", offset);
}

int32_t kestal_ftp_port(kestal_ftp_t *ftp, const char *argument)
{
    return run(ftp, "PORT", argument);
}

int32_t kestal_ftp_eprt(kestal_ftp_t *ftp, const char *argument)
{
    return run(ftp, "EPRT", argument);
}

int32_t kestal_ftp_pasv(kestal_ftp_t *ftp)
{
    return run(ftp, "PASV");
}

int32_t kestal_ftp_epsv(kestal_ftp_t *ftp, int32_t protocol)
{
    return kestal_ftp_command_printf(ftp, "EPSV %d\r\n", protocol);
}

int32_t kestal_ftp_abor(kestal_ftp_t *ftp)
{
    return run(ftp, "ABOR");
}

const char *kestal_ftp_get_system(kestal_ftp_t *ftp)
{
    return kestal_ftp_syst(ftp) == code_system ? ftp->m_reply_text : nullptr;
}

int32_t kestal_ftp_get_size(kestal_ftp_t *ftp, const char *path, uint64_t *out_size)
{
    uint64_t size = 0;
    const bool is_known = kestal_ftp_size(ftp, path) == code_file_status && parse_size(ftp->m_reply_text, size);
    if (out_size != nullptr)
        *out_size = is_known ? size : 0;
    return zero_if(is_known);
}

int32_t kestal_ftp_chdir(kestal_ftp_t *ftp, const char *path)
{
    return zero_if(kestal_ftp_cwd(ftp, path) == code_done);
}

const char *kestal_ftp_get_pwd(kestal_ftp_t *ftp)
{
    if (kestal_ftp_pwd(ftp) != code_path)
        return nullptr;
    return take_quoted(ftp->m_reply_line + (ftp->m_reply_text - ftp->m_reply_line));
}

int32_t kestal_ftp_rename(kestal_ftp_t *ftp, const char *from, const char *to)
{
    return zero_if(to != nullptr && kestal_ftp_rnfr(ftp, from) == code_need_more &&
                   kestal_ftp_rnto(ftp, to) == code_done);
}

int32_t kestal_ftp_remove(kestal_ftp_t *ftp, const char *path)
{
    return zero_if(kestal_ftp_dele(ftp, path) == code_done);
}
