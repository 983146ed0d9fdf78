#include "ftpd_data.hpp"

#include <kestal_ulx/address.h>
#include <kestal_ulx/socket.h>

#include "guard.hpp"
#include "timer.hpp"

#include <array>
#include <errno.h>
#include <poll.h>
#include <string_view>

namespace {

using kestal::ftpd_session;
using kestal::ftpd_wait_result;
using kestal::owned_descriptor;
using kestal::socket_address;

bool has_ip(const socket_address &address)
{
    return family_of(&address) == AF_INET || family_of(&address) == AF_INET6;
}

int32_t open_for(const socket_address &address)
{
    return socket(family_of(&address), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
}

// A decimal number up to `most` with nothing behind it but `end`, behind which the text goes on.
bool take_number(const char *&text, uint32_t most, char end, uint32_t &number)
{
    const char *digit = text;
    number = 0;
    for (; *digit >= '0' && *digit <= '9' && number <= most; ++digit)
        number = number * 10 + static_cast<uint32_t>(*digit - '0');
    if (digit == text || number > most || *digit != end)
        return false;
    text = end == '\0' ? digit : digit + 1;
    return true;
}

// h1,h2,h3,h4,p1,p2
bool parse_port(const char *text, socket_address &address)
{
    std::array<uint32_t, 6> numbers{};
    for (size_t i = 0; i < numbers.size(); ++i)
        if (!take_number(text, 255, i + 1 < numbers.size() ? ',' : '\0', numbers[i]))
            return false;
    address.v4.sin_family = AF_INET;
    address.v4.sin_addr.s_addr = kestal_be32_order(numbers[0] << 24 | numbers[1] << 16 | numbers[2] << 8 | numbers[3]);
    return kestal_sockaddr_set_port(&address, numbers[4] << 8 | numbers[5]) == 0;
}

// |1|192.168.0.1|2121| or |2|fe80::1|2121|, with any character for the "|" (RFC 2428).
bool parse_extended_port(const char *text, socket_address &address)
{
    const char mark = *text;
    const char *at = text + 1;
    uint32_t protocol = 0;
    uint32_t port = 0;
    if (mark < '!' || !take_number(at, 2, mark, protocol) || protocol == 0)
        return false;
    const char *end = strchr(at, mark);
    char host[KESTAL_ADDRESS_TEXT_SIZE];
    if (end == nullptr || end - at >= static_cast<ptrdiff_t>(sizeof host))
        return false;
    memcpy(host, at, static_cast<size_t>(end - at));
    host[end - at] = '\0';
    at = end + 1;
    if (!take_number(at, 65535, mark, port) || *at != '\0')
        return false;
    return kestal_inet_ptos(protocol == 1 ? AF_INET : AF_INET6, host, port, &address, sizeof address) == 0 &&
           kestal_sockaddr_get_port(&address) == port;
}

// Some clients leave their IPv6 address open: "::".
bool is_of_client(const ftpd_session &session, const socket_address &target)
{
    return kestal_compare_sockaddr_address(&target, &session.peer) == 0 ||
           (family_of(&target) == AF_INET6 && family_of(&session.peer) == AF_INET6 &&
            kestal_in6addr_is_unspecified(&target.v6.sin6_addr) != 0);
}

int32_t connect_to_client(ftpd_session &session, const char *&failure)
{
    failure = "Socket error !";
    owned_descriptor sock(open_for(session.data_address));
    if (sock.get() < 0)
        return -1;
    socket_address own = session.local;
    kestal_sockaddr_set_port(&own, 0);
    kestal_bind(sock.get(), &own, kestal_sockaddr_size(&own)); // else the system chooses

    failure = "Connect error !";
    const uint32_t size = kestal_sockaddr_size(&session.data_address);
    if (connect(sock.get(), reinterpret_cast<sockaddr *>(&session.data_address), size) == 0)
        return sock.release();
    int error = 0;
    uint32_t length = sizeof error;
    if (errno != EINPROGRESS || ftpd_wait_data(session, sock.get(), POLLOUT) != ftpd_wait_result::ready ||
        kestal_getsockopt(sock.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0)
        return -1;
    return sock.release();
}

// Of all who come, only the client's own address is let in.
int32_t accept_client(ftpd_session &session, const char *&failure)
{
    failure = "Accept error !";
    const kestal::timer due(session.timeouts.data_ms < 0 ? 0 : static_cast<uint64_t>(session.timeouts.data_ms));
    do {
        if (ftpd_wait_data(session, session.data_listener, POLLIN) != ftpd_wait_result::ready)
            return -1;
        socket_address peer = {};
        socklen_t length = sizeof peer;
        owned_descriptor sock(
            accept4(session.data_listener, reinterpret_cast<sockaddr *>(&peer), &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (sock.get() >= 0 && kestal_compare_sockaddr_address(&peer, &session.peer) == 0)
            return sock.release();
        // Without room for a descriptor there would be no end to accepting it.
        if (sock.get() < 0 && errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
            return -1;
    } while (session.timeouts.data_ms < 0 || !due.expired());
    return -1;
}

} // namespace

namespace kestal {

ftpd_listen_result ftpd_listen(ftpd_session &session)
{
    ftpd_forget_data(session);
    if (!has_ip(session.local))
        return ftpd_listen_result::no_socket;
    owned_descriptor sock(open_for(session.local));
    if (sock.get() < 0)
        return ftpd_listen_result::no_socket;
    session.data_address = session.local;
    kestal_sockaddr_set_port(&session.data_address, 0);
    if (kestal_bind(sock.get(), &session.data_address, kestal_sockaddr_size(&session.data_address)) != 0)
        return ftpd_listen_result::no_bind;
    uint32_t length = sizeof session.data_address;
    if (kestal_getsockname(sock.get(), &session.data_address, &length) != 0)
        return ftpd_listen_result::no_name;
    if (kestal_listen(sock.get(), 1) != 0)
        return ftpd_listen_result::no_listen;
    session.data_listener = sock.release();
    session.data_mode = ftpd_data_mode::passive;
    return ftpd_listen_result::done;
}

bool ftpd_set_target(ftpd_session &session, const char *text, bool is_extended)
{
    socket_address target = {};
    if (!(is_extended ? parse_extended_port : parse_port)(text, target))
        return false;
    const uint32_t port = kestal_sockaddr_get_port(&target);
    if (port == 0 || !is_of_client(session, target))
        return false;
    ftpd_forget_data(session);
    session.data_address = session.peer; // with the scope of a link-local address
    kestal_sockaddr_set_port(&session.data_address, port);
    session.data_mode = ftpd_data_mode::active;
    return true;
}

void ftpd_forget_data(ftpd_session &session)
{
    if (session.data_listener != KESTAL_INVALID_SOCKET)
        kestal_close_socket(session.data_listener);
    session.data_listener = KESTAL_INVALID_SOCKET;
    session.data_mode = ftpd_data_mode::none;
}

int32_t ftpd_open_data(ftpd_session &session, const char *&failure)
{
    failure = "Socket error !";
    int32_t sock = -1;
    if (session.data_mode == ftpd_data_mode::active)
        sock = connect_to_client(session, failure);
    else if (session.data_mode == ftpd_data_mode::passive)
        sock = accept_client(session, failure);
    ftpd_forget_data(session);
    return sock;
}

bool ftpd_send_data(ftpd_session &session, int32_t sock, const void *data, size_t size)
{
    const auto *bytes = static_cast<const char *>(data);
    for (size_t sent = 0; sent < size;) {
        const int32_t count = kestal_sys_send(sock, bytes + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count > 0)
            sent += static_cast<size_t>(count);
        else if (count == 0 || (errno != EAGAIN && errno != EINTR) ||
                 ftpd_wait_data(session, sock, POLLOUT) != ftpd_wait_result::ready)
            return false;
    }
    return true;
}

} // namespace kestal
