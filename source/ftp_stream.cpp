// The FTP client's data connections: passive and active, and the streams over them.
#include "deadline.hpp"
#include "ftp.hpp"
#include "guard.hpp"

#include <kestal_ulx/address.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/socket.h>
#include <kestal_ulx/time_stamp.h>

#include <algorithm>
#include <array>
#include <errno.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <utility>

namespace {

using kestal::deadline;
using kestal::fail_with;
using kestal::owned_descriptor;
using kestal::socket_address;

constexpr int32_t protocol_v6 = 2; // RFC 2428
constexpr int32_t step_ms = 100;
constexpr int32_t abort_grace_ms = 1000; // for the second reply to an abort

constexpr int32_t code_open_already = 125;
constexpr int32_t code_opening = 150;
constexpr int32_t code_ok = 200;
constexpr int32_t code_closing = 226;
constexpr int32_t code_passive = 227;
constexpr int32_t code_extended_passive = 229;
constexpr int32_t code_need_more = 350;

using get_name_t = int32_t (*)(int32_t, void *, uint32_t *);

// The address of one end of the control connection.
bool get_control_name(const kestal_ftp_t &ftp, get_name_t get, socket_address &address)
{
    uint32_t length = sizeof address;
    address = {};
    return get(ftp.m_control_socket, &address, &length) == 0;
}

int32_t open_stream_socket(const socket_address &address)
{
    const int32_t sock = socket(kestal::family_of(&address), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (sock >= 0)
        kestal::keep_ftp_socket_alive(sock); // an accepted connection is as its listener
    return sock;
}

// What has become of a connection: an error, or 0.
int error_of(int32_t sock)
{
    int error = 0;
    uint32_t length = sizeof error;
    return kestal_getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

// --- passive: the client connects

// The address that the server waits at.
bool ask_for_address(kestal_ftp_t &ftp, socket_address &address)
{
    if (!get_control_name(ftp, kestal_getpeername, address))
        return false;
    if (ftp.m_family != AF_INET) {
        const uint32_t port = kestal_ftp_epsv(&ftp, protocol_v6) == code_extended_passive
                                  ? kestal::parse_epsv_reply(ftp.m_reply_text)
                                  : 0;
        return port > 0 && kestal_sockaddr_set_port(&address, port) == 0;
    }
    sockaddr_in named{};
    if (kestal_ftp_pasv(&ftp) != code_passive || !kestal::parse_pasv_reply(ftp.m_reply_text, named))
        return false;
    address.v4.sin_port = named.sin_port;
    if (ftp.m_same_host == 0)
        address.v4.sin_addr = named.sin_addr;
    return true;
}

int32_t connect_data(kestal_ftp_t &ftp, const socket_address &address)
{
    owned_descriptor sock(open_stream_socket(address));
    if (sock.get() < 0)
        return -1;
    if (kestal_connect(sock.get(), &address, kestal_sockaddr_size(&address), -1) == 0)
        return sock.release();
    if (errno != EINPROGRESS ||
        kestal::wait_for_ftp_socket(ftp, sock.get(), KESTAL_SELECT_WRITE, ftp.m_data_timeout) != 1)
        return -1;
    const int error = error_of(sock.get());
    return error == 0 ? sock.release() : fail_with(error);
}

// --- active: the server connects

int32_t listen_beside_control(const kestal_ftp_t &ftp, socket_address &address)
{
    if (!get_control_name(ftp, kestal_getsockname, address))
        return -1;
    if (ftp.m_family != AF_INET && ftp.m_family != AF_INET6)
        return fail_with(EAFNOSUPPORT);
    kestal_sockaddr_set_port(&address, 0);
    uint32_t length = kestal_sockaddr_size(&address);
    owned_descriptor sock(open_stream_socket(address));
    if (sock.get() < 0 || kestal_bind(sock.get(), &address, length) != 0 || kestal_listen(sock.get(), 1) != 0 ||
        kestal_getsockname(sock.get(), &address, &length) != 0)
        return -1;
    return sock.release();
}

int32_t send_port(kestal_ftp_t &ftp, const socket_address &address)
{
    std::array<uint8_t, 4> host;
    memcpy(host.data(), &address.v4.sin_addr, host.size());
    const uint32_t port = kestal_sockaddr_get_port(&address);
    char text[32];
    kestal_snprintf(text, sizeof text, "%u,%u,%u,%u,%u,%u", uint32_t{host[0]}, uint32_t{host[1]}, uint32_t{host[2]},
                    uint32_t{host[3]}, port >> 8, port & 0xFF);
    if (ftp.m_verbose != 0)
        kestal_printf("ftp: [MESSAGE] port command (control_socket=%d, listen_socket=%d, port_string=\"%s\")\n",
                      ftp.m_control_socket, ftp.m_listen_socket, text);
    return kestal_ftp_port(&ftp, text);
}

int32_t send_eprt(kestal_ftp_t &ftp, socket_address address)
{
    address.v6.sin6_scope_id = 0; // means something on this machine only
    char host[KESTAL_ADDRESS_TEXT_SIZE];
    char text[KESTAL_ADDRESS_TEXT_SIZE + 16];
    kestal_snprintf(text, sizeof text, "|%d|%s|%d|", protocol_v6, kestal_inet_stop(&address, host, sizeof host),
                    static_cast<int32_t>(kestal_sockaddr_get_port(&address)));
    if (ftp.m_verbose != 0)
        kestal_printf("ftp: [MESSAGE] eprt command (control_socket=%d, listen_socket=%d, port_string=\"%s\")\n",
                      ftp.m_control_socket, ftp.m_listen_socket, text);
    return kestal_ftp_eprt(&ftp, text);
}

// Takes the server's connection as the data connection. It may come after the reply that announces it; once there is a
// further reply (more is queued than the LF behind the last one's CR) it is there already, or does not come.
bool take_accepted(kestal_ftp_t &ftp)
{
    const uint64_t start = kestal_time_stamp_msec();
    while (ftp.m_accepted_socket < 0) {
        const bool is_last_look = kestal_get_buffer_size(ftp.m_receive_queue) > 1;
        const uint64_t passed = kestal_time_stamp_msec() - start;
        if (ftp.m_data_timeout >= 0 && passed > static_cast<uint64_t>(ftp.m_data_timeout))
            return fail_with(ETIMEDOUT) == 0;
        if (ftp.m_listen_socket < 0)
            return fail_with(EMFILE) == 0;
        kestal::step_ftp(ftp, is_last_look ? 0 : step_ms);
        if (ftp.m_accepted_socket < 0 && (is_last_look || (ftp.m_state & KESTAL_FTP_USABLE) == 0))
            return false;
    }
    ftp.m_data_socket = std::exchange(ftp.m_accepted_socket, KESTAL_INVALID_SOCKET);
    kestal_set_non_block_socket(ftp.m_data_socket, 1);
    kestal::close_ftp_socket(ftp.m_listen_socket);
    return true;
}

// --- streams

struct stream_mode {
    const char *command;
    char letter;
    bool needs_path;
};

constexpr stream_mode stream_modes[] = {
    {"RETR", 'r', true}, {"STOR", 'w', true}, {"APPE", 'a', true}, {"LIST", 'l', false}, {"NLST", 'n', false}};

const stream_mode *find_mode(const char *mode)
{
    if (mode == nullptr)
        return nullptr;
    const char letter = *mode >= 'A' && *mode <= 'Z' ? static_cast<char>(*mode - 'A' + 'a') : *mode;
    const auto *found = std::ranges::find(stream_modes, letter, &stream_mode::letter);
    return found == std::end(stream_modes) ? nullptr : found;
}

bool open_stream(kestal_ftp_t &ftp, uint64_t offset, const char *path, const stream_mode &mode)
{
    if ((ftp.m_passive != 0 ? kestal_ftp_passive(&ftp) : kestal_ftp_active(&ftp)) != 0)
        return false;
    if (offset > 0 && kestal_ftp_rest(&ftp, offset) != code_need_more)
        return false;
    const int32_t code = kestal::run_ftp_command(ftp, mode.command, path);
    if (code != code_open_already && code != code_opening)
        return false;
    return ftp.m_data_socket >= 0 || take_accepted(ftp);
}

void count_moved(kestal_ftp_t &ftp, int32_t count)
{
    ftp.m_bytes += static_cast<uint64_t>(count);
    ftp.m_elapsed = kestal_time_stamp_msec() - ftp.m_start_time;
    ftp.m_bytes_per_second = kestal::scale(ftp.m_bytes, 1000, std::max<uint64_t>(ftp.m_elapsed, 1));
}

// Makes the transfer (a count, or -1), waiting until the data connection is ready for it.
template <typename Transfer>
int32_t transfer_in_time(kestal_ftp_t &ftp, uint32_t condition, int32_t timeout_ms, Transfer transfer)
{
    for (;;) {
        const int32_t count = transfer();
        if (count >= 0) {
            count_moved(ftp, count);
            return count;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            return -1;
        if (kestal::wait_for_ftp_socket(ftp, ftp.m_data_socket, condition,
                                        timeout_ms < 0 ? ftp.m_data_timeout : timeout_ms) != 1)
            return -1;
    }
}

// On a slow link much of an upload is still on its way when its last call returns, and the server answers when it has
// all: until then it is the data's time that runs, anew with every piece that goes. What waits on a connection that has
// failed never goes.
void finish_sending(kestal_ftp_t &ftp)
{
    int before = 0, waiting = 0;
    deadline end(ftp.m_data_timeout);
    while (ioctl(ftp.m_data_socket, SIOCOUTQ, &waiting) == 0 && waiting > 0) {
        if ((before == 0 && kestal_shutdown_socket(ftp.m_data_socket, SHUT_WR) != 0) ||
            error_of(ftp.m_data_socket) != 0)
            return;
        if (waiting != std::exchange(before, waiting))
            end = deadline(ftp.m_data_timeout);
        if (end.left() == 0 || kestal::wait_for_ftp_socket(ftp, ftp.m_control_socket, KESTAL_SELECT_READ, step_ms) != 0)
            return;
    }
}

// --- replies that name an address

// Reads a number of at most `most` that ends with one of the characters: the place behind it, or null.
const char *parse_number(const char *text, uint32_t most, const char *ends, uint32_t &number)
{
    const char *at = text;
    for (number = 0; *at >= '0' && *at <= '9' && number <= most; ++at)
        number = number * 10 + static_cast<uint32_t>(*at - '0');
    const bool is_number = at > text && number <= most && *at != '\0' && strchr(ends, *at) != nullptr;
    return is_number ? at + 1 : nullptr;
}

} // namespace

uint64_t kestal::scale(uint64_t value, uint64_t by, uint64_t whole)
{
    uint64_t product;
    return __builtin_mul_overflow(value, by, &product) ? value / whole * by : product / whole;
}

bool kestal::parse_pasv_reply(const char *text, sockaddr_in &address)
{
    const char *at = strchr(text, '(');
    if (at == nullptr)
        return false;
    ++at;
    std::array<uint8_t, 6> bytes;
    for (size_t i = 0; i < bytes.size(); ++i) {
        uint32_t number = 0;
        at = parse_number(at, 255, i + 1 < bytes.size() ? "," : ",)", number);
        if (at == nullptr)
            return false;
        bytes[i] = static_cast<uint8_t>(number);
    }
    address = {};
    address.sin_family = AF_INET;
    memcpy(&address.sin_addr, bytes.data(), sizeof address.sin_addr);
    memcpy(&address.sin_port, bytes.data() + 4, sizeof address.sin_port);
    return address.sin_port != 0;
}

// "(|||port|)", in which protocol and address may be named, and another character but a digit may stand for "|".
uint32_t kestal::parse_epsv_reply(const char *text)
{
    const char *at = strchr(text, '(');
    if (at == nullptr || *++at == '\0' || *at == ')' || (*at >= '0' && *at <= '9'))
        return 0;
    const char ends[] = {*at, ')', '\0'};
    for (int delimiters = 1; delimiters < 3 && at != nullptr; ++delimiters)
        at = strchr(at + 1, ends[0]);
    uint32_t port = 0;
    return at != nullptr && parse_number(at + 1, 65535, ends, port) != nullptr ? port : 0;
}

int32_t kestal_ftp_passive(kestal_ftp_t *ftp)
{
    if (ftp == nullptr)
        return -1;
    kestal_ftp_disconnect_data(ftp);
    socket_address address;
    if (!ask_for_address(*ftp, address))
        return -1;
    ftp->m_data_socket = connect_data(*ftp, address);
    return ftp->m_data_socket >= 0 ? 0 : -1;
}

int32_t kestal_ftp_active(kestal_ftp_t *ftp)
{
    if (ftp == nullptr)
        return -1;
    kestal_ftp_disconnect_data(ftp);
    socket_address address;
    ftp->m_listen_socket = listen_beside_control(*ftp, address);
    if (ftp->m_listen_socket < 0)
        return -1;
    if ((ftp->m_family == AF_INET ? send_port(*ftp, address) : send_eprt(*ftp, address)) == code_ok)
        return 0;
    kestal_ftp_disconnect_data(ftp);
    return -1;
}

int32_t kestal_ftp_open_stream(kestal_ftp_t *ftp, uint64_t restart_offset, const char *path, const char *mode)
{
    const stream_mode *found = find_mode(mode);
    if (ftp == nullptr || found == nullptr)
        return fail_with(EINVAL);
    path = found->needs_path ? kestal::ftp_path_or_default(*ftp, path) : path;
    if (found->needs_path && path == nullptr)
        return fail_with(EINVAL);
    ftp->m_start_time = kestal_time_stamp_msec();
    ftp->m_elapsed = ftp->m_bytes = ftp->m_bytes_per_second = 0;
    if (open_stream(*ftp, restart_offset, kestal::is_empty(path) ? nullptr : path, *found))
        return 0;
    kestal_ftp_disconnect_data(ftp);
    return -1;
}

int32_t kestal_ftp_recv_stream(kestal_ftp_t *ftp, void *buffer, uint64_t size, int32_t timeout_ms)
{
    if (ftp == nullptr || buffer == nullptr)
        return fail_with(EINVAL);
    return transfer_in_time(*ftp, KESTAL_SELECT_READ, timeout_ms, [=] {
        return kestal_sys_recv(ftp->m_data_socket, buffer, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    });
}

int32_t kestal_ftp_send_stream(kestal_ftp_t *ftp, const void *data, uint64_t size, int32_t timeout_ms)
{
    if (ftp == nullptr || data == nullptr)
        return fail_with(EINVAL);
    return transfer_in_time(*ftp, KESTAL_SELECT_WRITE, timeout_ms, [=] {
        return kestal_sys_send(ftp->m_data_socket, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    });
}

int32_t kestal_ftp_close_stream(kestal_ftp_t *ftp)
{
    if (ftp == nullptr || ftp->m_data_socket < 0)
        return fail_with(EBADF);
    finish_sending(*ftp);
    kestal_ftp_disconnect_data(ftp);
    return kestal_ftp_command_puts(ftp, nullptr) == code_closing ? 0 : -1;
}

int32_t kestal_ftp_abort_stream(kestal_ftp_t *ftp)
{
    if (ftp == nullptr)
        return -1;
    const bool had_stream = ftp->m_data_socket >= 0;
    const bool is_sent = kestal::send_ftp_command(*ftp, "ABOR", nullptr);
    // A server that is busy with the transfer reads its commands only once that has ended.
    kestal_ftp_disconnect_data(ftp);
    const int32_t first = is_sent ? kestal::read_ftp_reply(*ftp, ftp->m_command_timeout) : -1;
    if (first == -1 || !had_stream)
        return first == code_closing ? 0 : -1;
    // The transfer and the abort have a reply each, whatever the first one's code: a transfer that was complete already
    // is told by 226, and the abort then by 225 or 426. A server that sends one for both is not waited for any longer.
    const int32_t grace =
        ftp->m_command_timeout < 0 ? abort_grace_ms : std::min(ftp->m_command_timeout, abort_grace_ms);
    const int32_t second = kestal::read_ftp_reply(*ftp, grace);
    if (second == -1)
        ftp->m_reply_code = first;
    return first == code_closing || second == code_closing ? 0 : -1;
}
