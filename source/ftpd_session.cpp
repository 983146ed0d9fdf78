#include "ftpd_session.hpp"

#include <kestal_ulx/address.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/socket.h>

#include "timer.hpp"

#include <algorithm>
#include <errno.h>
#include <poll.h>
#include <string_view>
#include <unistd.h>

namespace {

using kestal::ftpd_session;
using kestal::ftpd_wait_result;
using kestal::socket_address;

constexpr int32_t farewell_ms = 2000;
constexpr std::string_view line_end = "\r\n";
constexpr std::string_view telnet_bytes = "\xFF\xF4\xF2"; // command, interrupt process, data mark

// A time to wait until, on the library's clock.
class deadline {
public:
    explicit deadline(int32_t timeout_ms)
        : is_limited_(timeout_ms >= 0), due_(is_limited_ ? static_cast<uint64_t>(timeout_ms) : 0)
    {}
    // What poll takes.
    int remaining() const { return is_limited_ ? static_cast<int>(due_.remaining(INT32_MAX)) : -1; }

private:
    bool is_limited_;
    kestal::timer due_;
};

// IPv4 in its own form, also when it came over an IPv6 socket.
void unmap(socket_address &address)
{
    if (family_of(&address) != AF_INET6 || kestal_in6addr_is_v4_mapped(&address.v6.sin6_addr) == 0)
        return;
    sockaddr_in plain = {};
    plain.sin_family = AF_INET;
    plain.sin_port = address.v6.sin6_port;
    memcpy(&plain.sin_addr, address.v6.sin6_addr.s6_addr + 12, sizeof plain.sin_addr);
    address.v4 = plain;
}

// --- input

std::string_view input_of(const ftpd_session &session)
{
    return {session.input, session.received};
}

void drop_input(ftpd_session &session, size_t count)
{
    memmove(session.input, session.input + count, session.received - count);
    session.received -= static_cast<uint32_t>(count);
    explicit_bzero(session.input + session.received, count); // it may have been a password
}

bool has_room(const ftpd_session &session)
{
    return !session.has_ended && session.received < sizeof session.input;
}

// Takes what has come, without waiting.
void receive(ftpd_session &session)
{
    const int32_t count = kestal_sys_recv(session.control, session.input + session.received,
                                          sizeof session.input - session.received, MSG_DONTWAIT);
    if (count > 0)
        session.received += static_cast<uint32_t>(count);
    else if (count == 0 || (errno != EAGAIN && errno != EINTR))
        session.has_ended = true;
}

std::string_view without_telnet_bytes(std::string_view line)
{
    line.remove_prefix(std::min(line.find_first_not_of(telnet_bytes), line.size()));
    return line;
}

// Whether the client has sent ABOR, read already or not.
bool has_abort(const ftpd_session &session)
{
    std::string_view input = input_of(session);
    for (size_t end = 0; (end = input.find(line_end)) != std::string_view::npos;
         input.remove_prefix(end + line_end.size()))
        if (without_telnet_bytes({input.data(), end}) == "ABOR")
            return true;
    return false;
}

bool echo_telnet_bytes(ftpd_session &session)
{
    const size_t count = session.received - without_telnet_bytes(input_of(session)).size();
    for (size_t i = 0; i < count; ++i)
        if (!ftpd_send(session, session.input + i, 1))
            return false;
    drop_input(session, count);
    return true;
}

// Moves so many bytes of input into the line. False when a text can not hold them.
bool take_line(ftpd_session &session, size_t length)
{
    memcpy(session.line, session.input, length);
    session.line[length] = '\0';
    return strlen(session.line) == length;
}

// Drops what has come of a line that was refused, to its end.
void skip_line(ftpd_session &session)
{
    const std::string_view input = input_of(session);
    const size_t end = input.find(line_end);
    session.is_skipping = end == std::string_view::npos;
    if (!session.is_skipping)
        drop_input(session, end + line_end.size());
    else
        drop_input(session, session.received - (input.ends_with('\r') ? 1 : 0));
}

// --- waiting

// Waits for a socket; with `watched`, the session's own, for input beside it.
ftpd_wait_result wait(const ftpd_session &session, int32_t sock, int16_t events, const deadline &due,
                      ftpd_session *watched)
{
    for (;;) {
        const bool is_watching = watched != nullptr && has_room(session);
        pollfd all[] = {{sock, events, 0}, {session.stop, POLLIN, 0}, {is_watching ? session.control : -1, POLLIN, 0}};
        const int ready = poll(all, std::size(all), due.remaining());
        if (ready == 0)
            return ftpd_wait_result::timed_out;
        if (ready < 0 && errno != EINTR)
            return ftpd_wait_result::stopped;
        if (ready < 0)
            continue;
        if (all[1].revents != 0)
            return ftpd_wait_result::stopped;
        if (all[2].revents != 0) {
            receive(*watched);
            if (has_abort(session))
                return ftpd_wait_result::aborted;
        }
        if (all[0].revents != 0)
            return ftpd_wait_result::ready;
    }
}

// Lets the client read the last reply: closed with a linger of zero, a connection is reset and what is under way is lost.
void say_farewell(ftpd_session &session)
{
    const deadline due(farewell_ms);
    kestal_shutdown_socket(session.control, SHUT_WR);
    while (!session.has_ended && due.remaining() != 0) { // however much it still has to say
        pollfd peer = {session.control, POLLIN, 0};
        const int ready = poll(&peer, 1, due.remaining());
        if (ready == 0 || (ready < 0 && errno != EINTR))
            return;
        session.received = 0;
        receive(session);
    }
}

} // namespace

namespace kestal {

ftpd_session *ftpd_new_session(const kestal_ftpd_account_t *accounts, const ftpd_timeouts &timeouts, int32_t control,
                               int32_t stop)
{
    auto *session = static_cast<ftpd_session *>(kestal_calloc(1, sizeof(ftpd_session)));
    if (session == nullptr)
        return nullptr;
    session->accounts = accounts;
    session->timeouts = timeouts;
    session->control = control;
    session->stop = stop;
    session->home = -1;
    session->current[0] = '/';
    session->type = 'I';
    session->data_listener = KESTAL_INVALID_SOCKET;
    uint32_t length = sizeof session->peer;
    kestal_getpeername(control, &session->peer, &length);
    length = sizeof session->local;
    kestal_getsockname(control, &session->local, &length);
    unmap(session->peer);
    unmap(session->local);
    return session;
}

void ftpd_free_session(ftpd_session *session)
{
    say_farewell(*session);
    kestal_close_socket(session->control);
    kestal_check_free(session->user);
    kestal_check_free(session->rename_source);
    explicit_bzero(session, sizeof *session);
    kestal_free(session);
}

ftpd_wait_result ftpd_wait_data(ftpd_session &session, int32_t sock, int16_t events)
{
    if (has_abort(session))
        return ftpd_wait_result::aborted;
    return wait(session, sock, events, deadline(session.timeouts.data_ms), &session);
}

bool ftpd_is_interrupted(ftpd_session &session)
{
    pollfd both[] = {{session.stop, POLLIN, 0}, {has_room(session) ? session.control : -1, POLLIN, 0}};
    if (poll(both, std::size(both), 0) <= 0)
        return false;
    if (both[1].revents != 0)
        receive(session);
    return both[0].revents != 0 || has_abort(session);
}

ftpd_line ftpd_next_line(ftpd_session &session)
{
    explicit_bzero(session.line, sizeof session.line);
    const deadline due(session.timeouts.command_ms);
    for (;;) {
        if (session.is_skipping)
            skip_line(session);
        if (!session.is_skipping && !echo_telnet_bytes(session))
            return {nullptr, false};
        const size_t end = input_of(session).find(line_end);
        if (!session.is_skipping && end != std::string_view::npos) {
            const bool is_whole = take_line(session, end);
            drop_input(session, end + line_end.size());
            return {session.line, is_whole};
        }
        if (session.received == sizeof session.input) {
            take_line(session, session.received);
            session.is_skipping = true;
            return {session.line, false};
        }
        if (session.has_ended || wait(session, session.control, POLLIN, due, nullptr) != ftpd_wait_result::ready)
            return {nullptr, false};
        receive(session);
    }
}

bool ftpd_send(const ftpd_session &session, const char *text, size_t length)
{
    const deadline due(session.timeouts.send_ms);
    for (size_t sent = 0; sent < length;) {
        const int32_t count = kestal_sys_send(session.control, text + sent, length - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count > 0)
            sent += static_cast<size_t>(count);
        else if (count == 0 || (errno != EAGAIN && errno != EINTR) ||
                 wait(session, session.control, POLLOUT, due, nullptr) != ftpd_wait_result::ready)
            return false;
    }
    return true;
}

bool ftpd_reply_format(const ftpd_session &session, const char *format, ...)
{
    char text[2 * PATH_MAX + 128];
    va_list list;
    va_start(list, format);
    const auto length = static_cast<size_t>(kestal_vsnprintf(text, sizeof text - line_end.size(), format, list));
    va_end(list);
    const auto ends_line = [](char each) { return static_cast<unsigned char>(each) < ' ' || each == '\x7F'; };
    std::replace_if(text, text + length, ends_line, '?');
    memcpy(text + length, line_end.data(), line_end.size());
    return ftpd_send(session, text, length + line_end.size());
}

bool ftpd_reply(const ftpd_session &session, uint32_t code, const char *text)
{
    return ftpd_reply_format(session, "%03u%c%s", code, ' ', text);
}

bool ftpd_reply(const ftpd_session &session, uint32_t code, const char *first, const char *second)
{
    return ftpd_reply_format(session, "%03u%c%s%s", code, ' ', first, second);
}

} // namespace kestal
