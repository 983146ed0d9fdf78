// One control connection of the FTP server: what a session remembers, its lines in and its replies out.
#pragma once

#include <kestal_ulx/ftpd_account.h>

#include "socket_address.hpp"

#include <limits.h>

namespace kestal {

// Milliseconds; negative: no limit.
struct ftpd_timeouts {
    int32_t command_ms;
    int32_t send_ms;
    int32_t data_ms;
};

// Which of the values that one command leaves to another outlive the next command.
enum ftpd_carry : uint32_t { ftpd_carry_user = 0x1, ftpd_carry_restart = 0x2, ftpd_carry_rename = 0x4 };

enum class ftpd_data_mode { none, passive, active };

// What the thread was before it took on the numbers of a system's user.
struct ftpd_identity {
    bool is_taken;
    int group_count;
    uint32_t *groups;
};

struct ftpd_session {
    const kestal_ftpd_account_t *accounts; // the server's
    ftpd_timeouts timeouts;
    int32_t stop; // readable when the server stops
    bool is_over;

    int32_t control;
    bool has_ended;   // the client will send no more
    bool is_skipping; // the rest of a line that was refused
    uint32_t received;
    char input[511]; // received, not yet read
    char line[512];
    socket_address peer;
    socket_address local;

    uint32_t carry_over; // ftpd_carry bits
    char *user;
    uint64_t restart_offset;
    char *rename_source; // as the client sees it

    kestal_ftpd_account_t *account; // the session's own copy; null until login
    ftpd_identity identity;
    int32_t home; // the account's home folder; -1 while it has not been opened
    char current[PATH_MAX];

    char type;
    ftpd_data_mode data_mode;
    int32_t data_listener;
    socket_address data_address;
    char data_buffer[4096];
};

// A session over a connected socket, which it closes in the end. Null, with the socket left alone, without memory.
ftpd_session *ftpd_new_session(const kestal_ftpd_account_t *accounts, const ftpd_timeouts &timeouts, int32_t control,
                               int32_t stop);

// Ends the connection in an orderly way and releases the session, which is logged out.
void ftpd_free_session(ftpd_session *session);

// --- waiting

enum class ftpd_wait_result { ready, timed_out, stopped, aborted };

// Waits for poll events on a data socket as long as the session waits for data, ready for an ABOR meanwhile.
ftpd_wait_result ftpd_wait_data(ftpd_session &session, int32_t sock, int16_t events);

// Whether a transfer is to end, without waiting.
bool ftpd_is_interrupted(ftpd_session &session);

// --- lines and replies

struct ftpd_line {
    char *text; // valid until the next line; null: the session is over
    bool is_whole;
};

// The next line without its end. Of one that is too long, or has NUL bytes in it, the beginning.
ftpd_line ftpd_next_line(ftpd_session &session);

// Sends a text as it stands. False when it could not be sent: the session is over.
bool ftpd_send(const ftpd_session &session, const char *text, size_t length);

// Formats one reply, with its end of line, and sends it; bytes that would end the line are replaced.
bool ftpd_reply_format(const ftpd_session &session, const char *format, ...);

bool ftpd_reply(const ftpd_session &session, uint32_t code, const char *text);
bool ftpd_reply(const ftpd_session &session, uint32_t code, const char *first, const char *second);

} // namespace kestal
