// The FTP client's control connection: what is queued goes out and what comes in is queued, step by step; replies are
// read out of the queue line by line.
#include "deadline.hpp"
#include "ftp.hpp"
#include "guard.hpp"

#include <kestal_ulx/address.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/socket.h>
#include <kestal_ulx/time_stamp.h>

#include <algorithm>
#include <errno.h>
#include <netinet/tcp.h>

namespace kestal {

namespace {

constexpr uint64_t receive_limit = 0x20000; // bytes queued beyond which nothing more is received
constexpr int32_t step_ms = 100;
constexpr int64_t lines_of_time = 64; // a reply may take so many times what a line may

// Waits with the client's set as it stands; signals do not end the wait.
int32_t dispatch(kestal_ftp_t &ftp, int32_t timeout_ms)
{
    const deadline end(timeout_ms);
    for (int32_t left = timeout_ms;; left = end.left()) {
        const int32_t ready = kestal_select_dispatch(ftp.m_select, left);
        if (ready >= 0 || errno != EINTR || left == 0)
            return ready;
    }
}

bool is_usable(const kestal_ftp_t &ftp)
{
    return (ftp.m_state & KESTAL_FTP_USABLE) != 0;
}

void mark_broken(kestal_ftp_t &ftp)
{
    ftp.m_state &= ~KESTAL_FTP_USABLE;
}

// A transfer that only has to be tried again later.
bool is_for_later()
{
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

bool waits_for_data_connection(const kestal_ftp_t &ftp)
{
    return ftp.m_listen_socket >= 0 && ftp.m_accepted_socket < 0;
}

bool fill_set(kestal_ftp_t &ftp)
{
    kestal_clear_select(ftp.m_select);
    uint32_t conditions = 0;
    if (kestal_get_buffer_size(ftp.m_send_queue) > 0)
        conditions |= KESTAL_SELECT_WRITE;
    if (kestal_get_buffer_size(ftp.m_receive_queue) < receive_limit)
        conditions |= KESTAL_SELECT_READ;
    return kestal_set_select(ftp.m_select, ftp.m_control_socket, conditions) == 0 &&
           (!waits_for_data_connection(ftp) ||
            kestal_set_select(ftp.m_select, ftp.m_listen_socket, KESTAL_SELECT_READ) == 0);
}

void send_some(kestal_ftp_t &ftp)
{
    const uint64_t length = kestal_peek_buffer_ex(ftp.m_send_queue, ftp.m_block, ftp_block_size, 0, 0);
    const int32_t sent = kestal_sys_send(ftp.m_control_socket, ftp.m_block, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    const bool is_later = sent < 0 && is_for_later();
    explicit_bzero(ftp.m_block, static_cast<size_t>(length)); // it may have been a password
    if (sent > 0) {
        kestal_pop_buffer_ex(ftp.m_send_queue, nullptr, static_cast<uint64_t>(sent), 0);
        ftp.m_state |= KESTAL_FTP_SENT;
    } else if (!is_later) {
        mark_broken(ftp);
    }
}

void receive_some(kestal_ftp_t &ftp)
{
    const int32_t received =
        kestal_sys_recv(ftp.m_control_socket, ftp.m_block, ftp_block_size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (received < 0 && is_for_later())
        return;
    if (received <= 0) {
        errno = received == 0 ? ECONNRESET : errno; // the server has ended the connection
        mark_broken(ftp);
        return;
    }
    // Servers close a transfer with small pieces: a late acknowledgement of one would hold up the next.
    const int on = 1;
    kestal_setsockopt(ftp.m_control_socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    const auto length = static_cast<uint64_t>(received);
    if (kestal_push_buffer_ex(ftp.m_receive_queue, ftp.m_block, length, 0) == length)
        ftp.m_state |= KESTAL_FTP_RECEIVED;
    else
        mark_broken(ftp); // what was lost may have been a reply
}

void accept_data_connection(kestal_ftp_t &ftp)
{
    socket_address from{};
    uint32_t length = sizeof from;
    owned_descriptor accepted(accept4(ftp.m_listen_socket, reinterpret_cast<sockaddr *>(&from), &length, SOCK_CLOEXEC));
    if (accepted.get() < 0) {
        // Without room for a descriptor there would be no end to accepting it.
        if (!is_for_later() && errno != ECONNABORTED)
            close_ftp_socket(ftp.m_listen_socket);
        return;
    }
    socket_address peer{};
    length = sizeof peer;
    if (ftp.m_same_host != 0 && (kestal_getpeername(ftp.m_control_socket, &peer, &length) != 0 ||
                                 kestal_compare_sockaddr_address(&peer, &from) != 0))
        return;
    ftp.m_accepted_socket = accepted.release();
}

// --- replies

// Moves received bytes into the line; true when it is complete. CR, LF and CR LF end a line.
bool take_line(kestal_ftp_t &ftp)
{
    for (int32_t byte; (byte = kestal_pop_buffer_uint8(ftp.m_receive_queue)) >= 0;) {
        const bool is_second_half = byte == '\n' && (ftp.m_state & KESTAL_FTP_LINE_CR) != 0;
        ftp.m_state &= ~KESTAL_FTP_LINE_CR;
        if (is_second_half)
            continue;
        if ((ftp.m_state & KESTAL_FTP_LINE_COMPLETE) != 0)
            ftp.m_reply_length = 0;
        ftp.m_state &= ~KESTAL_FTP_LINE_COMPLETE;
        if (byte == '\r' || byte == '\n') {
            ftp.m_reply_line[ftp.m_reply_length] = '\0';
            ftp.m_state |= KESTAL_FTP_LINE_COMPLETE | (byte == '\r' ? KESTAL_FTP_LINE_CR : 0);
            return true;
        }
        if (ftp.m_reply_length < ftp_line_size - 1)
            ftp.m_reply_line[ftp.m_reply_length++] = static_cast<char>(byte);
    }
    return false;
}

// Bytes that keep coming put off the end of the line's time, not that of the reply's.
bool read_line(kestal_ftp_t &ftp, int32_t timeout_ms, const deadline &reply_end)
{
    const deadline end(timeout_ms);
    while (reply_end.left() != 0) {
        if (take_line(ftp))
            return true;
        if (!is_usable(ftp))
            return false;
        const int32_t left = end.left();
        step_ftp(ftp, left < 0 ? step_ms : std::min(left, step_ms));
        if (end.left() == 0 && (ftp.m_state & KESTAL_FTP_RECEIVED) == 0)
            break;
    }
    return fail_with(ETIMEDOUT) == 0;
}

// What a whole reply may take, so that a server cannot hold a caller for ever.
int32_t reply_time(int32_t timeout_ms)
{
    const int64_t whole = std::max<int64_t>(timeout_ms, 1000) * lines_of_time;
    return timeout_ms < 0 ? -1 : static_cast<int32_t>(std::min<int64_t>(whole, INT32_MAX));
}

bool is_digit(char character)
{
    return character >= '0' && character <= '9';
}

// Whether the line ends a reply. The lines before it, whatever their codes, are free text.
bool ends_reply(const kestal_ftp_t &ftp)
{
    return ftp.m_reply_length > 3 && is_digit(ftp.m_reply_line[0]) && ftp.m_reply_line[3] == ' ';
}

int32_t code_of(const char *line)
{
    int32_t code = 0;
    for (int i = 0; i < 3 && is_digit(line[i]); ++i)
        code = code * 10 + (line[i] - '0');
    return code;
}

bool queue(kestal_ftp_t &ftp, const char *text)
{
    return kestal_push_puts_ex(ftp.m_send_queue, text, 0) == strlen(text);
}

// Sends what was queued, which is taken back when that failed or nothing goes within the command time-out.
bool send_queued(kestal_ftp_t &ftp, bool is_queued)
{
    ftp.m_reply_code = -1;
    if (!is_usable(ftp))
        return fail_with(ENOTCONN) == 0;
    if (is_queued)
        step_ftp(ftp, ftp.m_command_timeout);
    if (is_queued && (ftp.m_state & KESTAL_FTP_SENT) != 0)
        return true;
    kestal_flush_buffer(ftp.m_send_queue);
    return false;
}

} // namespace

void close_ftp_socket(int32_t &sock)
{
    const int error = errno;
    if (sock >= 0)
        kestal_close_socket(sock);
    sock = KESTAL_INVALID_SOCKET;
    errno = error;
}

void keep_ftp_socket_alive(int32_t sock)
{
    constexpr int on = 1, idle_seconds = 60, interval_seconds = 15;
    kestal_setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    kestal_setsockopt(sock, IPPROTO_TCP, TCP_KEEPIDLE, &idle_seconds, sizeof idle_seconds);
    kestal_setsockopt(sock, IPPROTO_TCP, TCP_KEEPINTVL, &interval_seconds, sizeof interval_seconds);
}

int32_t wait_for_ftp_socket(kestal_ftp_t &ftp, int32_t sock, uint32_t conditions, int32_t timeout_ms)
{
    kestal_clear_select(ftp.m_select);
    if (kestal_set_select(ftp.m_select, sock, conditions) != 0)
        return fail_with(ENOMEM);
    const int32_t ready = dispatch(ftp, timeout_ms);
    if (ready == 0)
        errno = ETIMEDOUT;
    return std::min(ready, 1);
}

void step_ftp(kestal_ftp_t &ftp, int32_t timeout_ms)
{
    ftp.m_state &= ~(KESTAL_FTP_SENT | KESTAL_FTP_RECEIVED);
    if (!is_usable(ftp))
        return;
    if (!fill_set(ftp) || dispatch(ftp, timeout_ms) < 0) {
        mark_broken(ftp);
        return;
    }
    if (kestal_is_select(ftp.m_select, ftp.m_control_socket, KESTAL_SELECT_WRITE) != 0)
        send_some(ftp);
    if (kestal_is_select(ftp.m_select, ftp.m_control_socket, KESTAL_SELECT_READ) != 0)
        receive_some(ftp);
    if (waits_for_data_connection(ftp) && kestal_is_select(ftp.m_select, ftp.m_listen_socket, KESTAL_SELECT_READ) != 0)
        accept_data_connection(ftp);
}

bool send_ftp_command(kestal_ftp_t &ftp, const char *command, const char *argument)
{
    if (argument == nullptr)
        return send_queued(ftp, queue(ftp, command) && queue(ftp, "\r\n"));
    if (strpbrk(argument, "\r\n") != nullptr)
        return fail_with(EINVAL) == 0;
    return send_queued(ftp, queue(ftp, command) && queue(ftp, " ") && queue(ftp, argument) && queue(ftp, "\r\n"));
}

int32_t read_ftp_reply(kestal_ftp_t &ftp, int32_t timeout_ms)
{
    ftp.m_reply_code = -1;
    ftp.m_reply_text = nullptr;
    const deadline end(reply_time(timeout_ms));
    do {
        if (!read_line(ftp, timeout_ms, end))
            return -1;
        if (ftp.m_verbose != 0)
            kestal_printf("%s\n", ftp.m_reply_line);
    } while (!ends_reply(ftp));
    ftp.m_reply_code = code_of(ftp.m_reply_line);
    ftp.m_reply_text = ftp.m_reply_line + 4;
    return ftp.m_reply_code;
}

int32_t run_ftp_command(kestal_ftp_t &ftp, const char *command, const char *argument)
{
    ftp.m_reply_code = -1;
    return send_ftp_command(ftp, command, argument) ? read_ftp_reply(ftp, ftp.m_command_timeout) : -1;
}

} // namespace kestal

int32_t kestal_ftp_command_puts(kestal_ftp_t *ftp, const char *text)
{
    if (ftp == nullptr)
        return -1;
    if (text != nullptr && !kestal::send_queued(*ftp, text[0] != '\0' && kestal::queue(*ftp, text)))
        return -1;
    return kestal::read_ftp_reply(*ftp, ftp->m_command_timeout);
}

int32_t kestal_ftp_command_printf(kestal_ftp_t *ftp, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const int32_t code = kestal_ftp_command_vprintf(ftp, format, list);
    va_end(list);
    return code;
}

int32_t kestal_ftp_command_vprintf(kestal_ftp_t *ftp, const char *format, va_list list)
{
    if (ftp == nullptr)
        return -1;
    ftp->m_reply_code = -1;
    const kestal::secret_text text(kestal_alloc_vsprintf(format, list));
    return text.get() == nullptr ? -1 : kestal_ftp_command_puts(ftp, text.get());
}
