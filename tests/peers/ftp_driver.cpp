// ftp_driver URI [OPERATION ARGUMENT...]...: one session of the FTP client, for the tests against other people's servers.
// Prints a line per operation: its name, "ok" or "failed", and what the server said last or what was asked for.
#include <kestal_ulx.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>

namespace {

using arguments = char **;

// Receives an open stream to its end, or only so many bytes.
bool receive(kestal_ftp_t *ftp, const char *path, uint64_t most = UINT64_MAX, std::ios::openmode mode = std::ios::out)
{
    std::ofstream out(path, mode | std::ios::binary);
    static char block[100000];
    while (ftp->m_bytes < most) {
        const int32_t count = kestal_ftp_recv_stream(ftp, block, sizeof block, -1);
        if (count <= 0)
            return count == 0;
        out.write(block, count);
    }
    return true;
}

bool send(kestal_ftp_t *ftp, const char *path)
{
    std::ifstream in(path, std::ios::binary);
    const std::string data{std::istreambuf_iterator<char>(in), {}};
    for (size_t sent = 0; sent < data.size();) {
        const int32_t count = kestal_ftp_send_stream(ftp, data.data() + sent, data.size() - sent, -1);
        if (count <= 0)
            return false;
        sent += static_cast<size_t>(count);
    }
    return true;
}

struct operation {
    int count; // of its arguments
    std::function<bool(kestal_ftp_t *, arguments)> run;
};

bool moves(kestal_ftp_t *ftp, const char *offset, const char *path, const char *mode, const std::function<bool()> &move)
{
    if (kestal_ftp_open_stream(ftp, std::strtoull(offset, nullptr, 10), path, mode) != 0)
        return false;
    const bool has_moved = move();
    return (has_moved ? kestal_ftp_close_stream(ftp) : kestal_ftp_abort_stream(ftp)) == 0 && has_moved;
}

const std::map<std::string, operation> operations = {
    {"login",
     {2, [](auto ftp,
            auto a) { return kestal_ftp_login(ftp, *a[0] ? a[0] : nullptr, *a[0] ? a[1] : nullptr, "I") == 0; }}},
    {"active", {0, [](auto ftp, auto) { return kestal_ftp_set_option(ftp, KESTAL_FTP_OPTION_PASSIVE, 0) == 0; }}},
    {"timeout",
     {1, [](auto ftp,
            auto a) { return kestal_ftp_set_option(ftp, KESTAL_FTP_OPTION_COMMAND_TIMEOUT, std::atoi(a[0])) == 0; }}},
    {"get", {2, [](auto ftp, auto a) { return moves(ftp, "0", a[0], "r", [=] { return receive(ftp, a[1]); }); }}},
    {"resume",
     {3,
      [](auto ftp, auto a) {
          return moves(ftp, a[0], a[1], "r", [=] { return receive(ftp, a[2], UINT64_MAX, std::ios::app); });
      }}},
    {"put", {2, [](auto ftp, auto a) { return moves(ftp, "0", a[1], "w", [=] { return send(ftp, a[0]); }); }}},
    {"append", {2, [](auto ftp, auto a) { return moves(ftp, "0", a[1], "a", [=] { return send(ftp, a[0]); }); }}},
    {"list", {2, [](auto ftp, auto a) { return moves(ftp, "0", a[0], "L", [=] { return receive(ftp, a[1]); }); }}},
    {"names", {2, [](auto ftp, auto a) { return moves(ftp, "0", a[0], "n", [=] { return receive(ftp, a[1]); }); }}},
    {"download",
     {3,
      [](auto ftp, auto a) {
          return kestal_ftp_download_to_file(ftp, static_cast<uint32_t>(std::atoi(a[0])), a[1], a[2], 0640) == 0;
      }}},
    {"abort",
     {2,
      [](auto ftp, auto a) {
          if (kestal_ftp_open_stream(ftp, 0, a[1], "r") != 0 ||
              !receive(ftp, "/dev/null", std::strtoull(a[0], nullptr, 10)))
              return false;
          kestal_ftp_abort_stream(ftp);
          return kestal_ftp_noop(ftp) == 200; // in step again
      }}},
    {"size", {1, [](auto ftp, auto a) { return kestal_ftp_get_size(ftp, a[0], nullptr) == 0; }}},
    {"rename", {2, [](auto ftp, auto a) { return kestal_ftp_rename(ftp, a[0], a[1]) == 0; }}},
    {"remove", {1, [](auto ftp, auto a) { return kestal_ftp_remove(ftp, a[0]) == 0; }}},
    {"chdir", {1, [](auto ftp, auto a) { return kestal_ftp_chdir(ftp, a[0]) == 0; }}},
    {"pwd", {0, [](auto ftp, auto) { return kestal_ftp_get_pwd(ftp) != nullptr; }}},
    {"quote", {1, [](auto ftp, auto a) { return kestal_ftp_command_printf(ftp, "%s\r\n", a[0]) < 400; }}},
};

} // namespace

int main(int argc, char **argv)
{
    kestal_ftp_t *ftp = kestal_open_ftp();
    bool is_well = kestal_ftp_connect(ftp, argv[1], 0) == 0;
    std::printf("connect %s\n", is_well ? "ok" : "failed");
    for (int i = 2; i < argc;) {
        const operation &next = operations.at(argv[i]);
        const bool is_done = next.run(ftp, argv + i + 1);
        std::printf("%s %s: %d %s\n", argv[i], is_done ? "ok" : "failed", ftp->m_reply_code,
                    ftp->m_reply_text == nullptr ? "-" : ftp->m_reply_text);
        is_well = is_well && is_done;
        i += 1 + next.count;
    }
    kestal_close_ftp(ftp);
    is_well = is_well && kestal_get_alloc_count() == 0;
    return is_well ? 0 : 1;
}
