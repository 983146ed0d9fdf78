// What the rooms of the FTP client share: the engine that moves bytes, the reply reader, commands put together.
#pragma once

#include "caller_text.hpp"
#include "failure.hpp"
#include "socket_address.hpp"

#include <kestal_ulx/ftp.h>
#include <kestal_ulx/memory.h>

#include <string.h>

namespace kestal {

constexpr uint64_t ftp_block_size = 65536;
constexpr uint64_t ftp_line_size = 16384; // with a NUL

// Owns one text that nobody may find in memory afterwards.
class secret_text {
public:
    explicit secret_text(char *text) : text_(text) {}
    ~secret_text()
    {
        if (text_ == nullptr)
            return;
        explicit_bzero(text_, strlen(text_));
        kestal_free(text_);
    }
    secret_text(const secret_text &) = delete;
    secret_text &operator=(const secret_text &) = delete;

    const char *get() const { return text_; }

private:
    char *text_;
};

// Closes a socket of the client's and marks it closed; errno stays.
void close_ftp_socket(int32_t &sock);

// Keeps a connection known to what lies between while nothing moves on it, and ends it some minutes after its peer is gone.
void keep_ftp_socket_alive(int32_t sock);

// Waits on one socket for KESTAL_SELECT_ conditions, at most `timeout_ms` (negative: no limit), whatever signals come:
// 1, 0 with errno ETIMEDOUT when the time is up, -1 on failure.
int32_t wait_for_ftp_socket(kestal_ftp_t &ftp, int32_t sock, uint32_t conditions, int32_t timeout_ms);

// One step of the engine: waits at most so long, then sends, receives and accepts what can be at once.
void step_ftp(kestal_ftp_t &ftp, int32_t timeout_ms);

// Sends a command with its argument (null: none); an argument that would be more than one command is refused. False,
// with nothing left queued, when nothing went within the command time-out.
bool send_ftp_command(kestal_ftp_t &ftp, const char *command, const char *argument);

// Reads the next complete reply, each line within the time-out: its code, or -1.
int32_t read_ftp_reply(kestal_ftp_t &ftp, int32_t timeout_ms);

// Sends a command and reads the reply: its code, or -1.
int32_t run_ftp_command(kestal_ftp_t &ftp, const char *command, const char *argument);

// The path given or, when it is null or empty, that of the client's URI; null when there is neither.
const char *ftp_path_or_default(const kestal_ftp_t &ftp, const char *path);

// value x by / whole, without overflow.
uint64_t scale(uint64_t value, uint64_t by, uint64_t whole);

// Reads the address of a reply to PASV, and the port of one to EPSV (0: there is none).
bool parse_pasv_reply(const char *text, sockaddr_in &address);
uint32_t parse_epsv_reply(const char *text);

} // namespace kestal
