#include <kestal_ulx/socket.h>

#include <kestal_ulx/address.h>
#include <kestal_ulx/assertion.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/select.h>

#include "failure.hpp"
#include "guard.hpp"
#include "socket_address.hpp"

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

namespace {

using kestal::fail_with;
using kestal::family_of;
using kestal::owned_block;
using kestal::owned_descriptor;
using kestal::short_lock_guard;
using kestal::socket_address;

constexpr uint32_t any_condition = KESTAL_SELECT_READ | KESTAL_SELECT_WRITE | KESTAL_SELECT_EXCEPTION;
constexpr int32_t pair_timeout_ms = 60000;

size_t capped(uint64_t size)
{
    return static_cast<size_t>(std::min<uint64_t>(size, INT32_MAX));
}

const sockaddr *as_sockaddr(const void *address)
{
    return static_cast<const sockaddr *>(address);
}

// --- names

struct known_protocol {
    const char *name;
    int32_t number;
};

// What every protocol database holds, for machines without one.
constexpr known_protocol known_protocols[] = {{"ip", IPPROTO_IP},     {"icmp", IPPROTO_ICMP},
                                              {"tcp", IPPROTO_TCP},   {"udp", IPPROTO_UDP},
                                              {"ipv6", IPPROTO_IPV6}, {"ipv6-icmp", IPPROTO_ICMPV6}};

constinit kestal_short_lock_t database_lock = 0;

// Texts that the databases keep for the next caller, kept for this thread.
class kept_name {
public:
    const char *keep(const char *name)
    {
        if (name == nullptr)
            return nullptr;
        kestal_snprintf(text_, sizeof text_, "%s", name);
        return text_;
    }

private:
    char text_[128];
};

thread_local constinit kept_name protocol_name{};
thread_local constinit kept_name service_name{};

const char *or_tcp(const char *protocol)
{
    return protocol != nullptr ? protocol : "tcp";
}

// The protocol that a socket of this domain takes where others take `protocol`: the system refuses any for unix.
int32_t protocol_in(int32_t domain, int32_t protocol)
{
    return domain == AF_UNIX ? 0 : protocol;
}

// --- probes

// An answer that is remembered once it is yes (0).
class probe {
public:
    int32_t check(int32_t domain)
    {
        const short_lock_guard guard(lock_);
        if (answer_ == -1)
            answer_ = kestal_check_inet_support(domain, SOCK_DGRAM, kestal_get_protocol_by_name("udp"));
        return answer_;
    }

private:
    kestal_short_lock_t lock_ = 0;
    int32_t answer_ = -1;
};

constinit probe v4_probe;
constinit probe v6_probe;
constinit probe local_probe;

// --- transfers

// Waits for a condition: 1, 0 when the time is up, -1 on failure. Without a time-out there is no wait.
int32_t wait_for(int32_t sock, uint32_t condition, int32_t timeout_ms)
{
    if (timeout_ms < 0)
        return 1;
    const int32_t found = kestal_single_select(sock, condition, timeout_ms);
    if (found == 0)
        errno = ETIMEDOUT;
    return found > 0 ? 1 : found;
}

// While it lives, a write to a pipe that nobody reads fails without a signal to the process.
class pipe_signal_guard {
public:
    explicit pipe_signal_guard(bool is_wanted) : is_active_(is_wanted)
    {
        if (!is_active_)
            return;
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) != 0;
        pthread_sigmask(SIG_BLOCK, &pipe_, &previous_);
    }
    ~pipe_signal_guard()
    {
        if (!is_active_)
            return;
        const int error = errno;
        const timespec at_once = {};
        if (!was_pending_ && error == EPIPE)
            sigtimedwait(&pipe_, nullptr, &at_once);
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
        errno = error;
    }
    pipe_signal_guard(const pipe_signal_guard &) = delete;
    pipe_signal_guard &operator=(const pipe_signal_guard &) = delete;

private:
    bool is_active_;
    bool was_pending_ = false;
    sigset_t pipe_;
    sigset_t previous_;
};

int32_t write_plainly(int32_t descriptor, const void *data, uint64_t size, int32_t flags)
{
    const pipe_signal_guard guard((flags & MSG_NOSIGNAL) != 0);
    return static_cast<int32_t>(write(descriptor, data, capped(size)));
}

// Receives with `receive(place, room)` until `size` bytes are counted.
template <typename Receive>
int32_t fill(void *buffer, uint64_t size, Receive receive)
{
    // A time-out's -2 goes into the count like a length: callers rely on the sum. Taken unsigned it ends the loop.
    int32_t count = 0;
    while (static_cast<uint32_t>(count) < capped(size)) {
        const int32_t received = receive(static_cast<char *>(buffer) + count, size - static_cast<uint32_t>(count));
        if (received == -1)
            return -1;
        if (received == 0)
            break;
        count += received;
    }
    return count;
}

// --- connecting

bool has_connected(int32_t sock, int attempt_error)
{
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        return false;
    // A unix socket whose listener was busy has not even begun, and shows no error either.
    sockaddr_storage peer;
    length = sizeof peer;
    if (error == 0 && attempt_error == EAGAIN && getpeername(sock, reinterpret_cast<sockaddr *>(&peer), &length) != 0)
        error = EAGAIN;
    if (error != 0)
        errno = error;
    return error == 0;
}

// --- options

int32_t set_option(int32_t sock, int32_t level, int32_t option, int value)
{
    return sock == KESTAL_INVALID_SOCKET ? -1 : kestal_setsockopt(sock, level, option, &value, sizeof value);
}

// An option that belongs to a protocol, whose number is its level.
int32_t set_protocol_option(int32_t sock, const char *protocol, int32_t option, int value)
{
    return set_option(sock, kestal_get_protocol_by_name(protocol), option, value);
}

int32_t family_of_socket(int32_t sock)
{
    socket_address address{};
    uint32_t length = sizeof address;
    return kestal_getsockname(sock, &address, &length) == 0 ? family_of(&address) : -1;
}

// --- pairs

struct bound_address {
    socket_address address{};
    uint32_t length = 0;
};

// The loopback address of a domain with any port; of unix the system makes a name up.
bound_address loopback_of(int32_t domain)
{
    bound_address loopback;
    loopback.address.any.ss_family = static_cast<sa_family_t>(domain);
    loopback.length = kestal_sockaddr_size(&loopback.address);
    if (domain == AF_INET)
        loopback.address.v4.sin_addr.s_addr = kestal_be32_order(INADDR_LOOPBACK);
    else if (domain == AF_INET6)
        loopback.address.v6.sin6_addr = in6addr_loopback;
    else
        loopback.length = sizeof(sa_family_t);
    return loopback;
}

using get_name_t = int32_t (*)(int32_t, void *, uint32_t *);

bool get_name(get_name_t get, int32_t sock, bound_address &name)
{
    name.length = sizeof name.address;
    return get(sock, &name.address, &name.length) == 0;
}

// Whether what one end says of itself is what the other says of its peer.
bool is_peer_of(int32_t sock, int32_t other)
{
    bound_address own;
    bound_address peer;
    return get_name(kestal_getsockname, sock, own) && get_name(kestal_getpeername, other, peer) &&
           peer.length == own.length && memcmp(&peer.address, &own.address, own.length) == 0;
}

// A pair over the loopback of a domain.
bool connect_pair(int32_t domain, int32_t type, int32_t protocol, kestal_socket_pair_t &pair)
{
    const bool is_stream = type == SOCK_STREAM;
    if ((!is_stream && type != SOCK_DGRAM) || protocol != kestal_get_protocol_by_name(is_stream ? "tcp" : "udp")) {
        errno = EPROTONOSUPPORT;
        return false;
    }
    protocol = protocol_in(domain, protocol);
    owned_descriptor bound(kestal_open_socket(domain, type, protocol));
    bound_address name = loopback_of(domain);
    if (bound.get() < 0 || kestal_bind(bound.get(), &name.address, name.length) != 0 ||
        (is_stream && kestal_listen(bound.get(), 1) != 0) || !get_name(kestal_getsockname, bound.get(), name))
        return false;
    owned_descriptor connecting(kestal_open_socket(domain, type, protocol));
    if (connecting.get() < 0 || kestal_connect(connecting.get(), &name.address, name.length, pair_timeout_ms) != 0)
        return false;
    owned_descriptor accepted(is_stream ? kestal_accept(bound.get(), nullptr, nullptr, pair_timeout_ms)
                                        : bound.release());
    // A stranger may have come to the loopback address first.
    if (accepted.get() < 0 || !is_peer_of(accepted.get(), connecting.get()) ||
        (is_stream && !is_peer_of(connecting.get(), accepted.get())))
        return false;
    pair = {{connecting.release(), accepted.release()}};
    return true;
}

void check_end(const kestal_socket_pair_t &pair, int end, uint64_t line, const char *message)
{
    if (pair.m_socket[end] == KESTAL_INVALID_SOCKET)
        kestal_assert_fail_tag("./source/socket.c", "kestal_socket_pair", line, message);
}

} // namespace

int32_t kestal_get_protocol_by_name(const char *name)
{
    if (name == nullptr)
        return -1;
    {
        const short_lock_guard guard(database_lock);
        if (const protoent *found = getprotobyname(name))
            return found->p_proto;
    }
    for (const known_protocol &known : known_protocols)
        if (strcmp(known.name, name) == 0)
            return known.number;
    return -1;
}

const char *kestal_get_name_by_protocol(int32_t number)
{
    {
        const short_lock_guard guard(database_lock);
        if (const protoent *found = getprotobynumber(number))
            return protocol_name.keep(found->p_name);
    }
    for (const known_protocol &known : known_protocols)
        if (known.number == number)
            return known.name;
    return nullptr;
}

int32_t kestal_get_service_by_name(const char *name, const char *protocol)
{
    if (name == nullptr)
        return -1;
    const short_lock_guard guard(database_lock);
    const servent *found = getservbyname(name, or_tcp(protocol));
    return found == nullptr ? 0 : kestal_be16_order(static_cast<uint16_t>(found->s_port));
}

const char *kestal_get_name_by_service(int32_t port, const char *protocol)
{
    if (port < 0 || port > UINT16_MAX)
        return nullptr;
    const short_lock_guard guard(database_lock);
    const servent *found = getservbyport(kestal_be16_order(static_cast<uint16_t>(port)), or_tcp(protocol));
    return found == nullptr ? nullptr : service_name.keep(found->s_name);
}

char *kestal_get_hostname_alloc_tag(const char *name, uint64_t line)
{
    char text[256] = {};
    return gethostname(text, sizeof text - 1) == 0 ? kestal_strdup_tag(text, name, line) : nullptr;
}

int32_t kestal_open_socket(int32_t domain, int32_t type, int32_t protocol)
{
    return socket(domain, type & 0xFFFF, protocol);
}

int32_t kestal_getsockname(int32_t sock, void *address, uint32_t *address_length)
{
    return getsockname(sock, static_cast<sockaddr *>(address), address_length);
}

int32_t kestal_getpeername(int32_t sock, void *address, uint32_t *address_length)
{
    return getpeername(sock, static_cast<sockaddr *>(address), address_length);
}

int32_t kestal_getsockopt(int32_t sock, int32_t level, int32_t option, void *value, uint32_t *value_length)
{
    return getsockopt(sock, level, option, value, value_length);
}

int32_t kestal_setsockopt(int32_t sock, int32_t level, int32_t option, const void *value, uint32_t value_length)
{
    return setsockopt(sock, level, option, value, value_length);
}

int32_t kestal_bind(int32_t sock, const void *address, uint32_t address_length)
{
    return bind(sock, as_sockaddr(address), address_length);
}

int32_t kestal_listen(int32_t sock, int32_t backlog)
{
    return listen(sock, backlog);
}

int32_t kestal_close_socket(int32_t sock)
{
    return close(sock);
}

int32_t kestal_shutdown_socket(int32_t sock, int32_t how)
{
    return shutdown(sock, how == SHUT_WR || how == SHUT_RDWR ? how : SHUT_RD);
}

int32_t kestal_close_socket_ex(int32_t sock, int32_t timeout_ms)
{
    if (sock == KESTAL_INVALID_SOCKET)
        return fail_with(EINVAL);
    if (kestal_shutdown_socket(sock, SHUT_RDWR) == 0)
        kestal_single_select(sock, KESTAL_SELECT_READ | KESTAL_SELECT_EXCEPTION, timeout_ms);
    return kestal_close_socket(sock);
}

int32_t kestal_check_socket_support(int32_t domain, int32_t type, int32_t protocol)
{
    const int32_t sock = socket(domain, (type & 0xFFFF) | SOCK_CLOEXEC, protocol_in(domain, protocol));
    return sock == KESTAL_INVALID_SOCKET ? -1 : kestal_close_socket(sock);
}

int32_t kestal_check_inet_support(int32_t domain, int32_t type, int32_t protocol)
{
    return kestal_check_socket_support(domain, type, protocol);
}

int32_t kestal_check_ipv4_support(void)
{
    return v4_probe.check(AF_INET);
}

int32_t kestal_check_ipv6_support(void)
{
    return v6_probe.check(AF_INET6);
}

int32_t kestal_check_unix_domain_socket_support(void)
{
    return local_probe.check(AF_UNIX);
}

int32_t kestal_connect(int32_t sock, const void *address, uint32_t address_length, int32_t timeout_ms)
{
    if (timeout_ms >= 0)
        kestal_set_non_block_socket(sock, 1);
    const int result = connect(sock, as_sockaddr(address), address_length);
    const int error = errno;
    if (timeout_ms >= 0)
        kestal_set_non_block_socket(sock, 0);
    errno = error;
    if (result == 0)
        return 0;
    if (timeout_ms < 1 || (error != EINPROGRESS && error != EAGAIN))
        return -1;
    return wait_for(sock, any_condition, timeout_ms) == 1 && has_connected(sock, error) ? 0 : -1;
}

int32_t kestal_accept(int32_t sock, void *address, uint32_t *address_length, int32_t timeout_ms)
{
    if (wait_for(sock, KESTAL_SELECT_READ, timeout_ms) != 1)
        return -1;
    return accept(sock, static_cast<sockaddr *>(address), address_length);
}

int32_t kestal_sys_recv(int32_t sock, void *buffer, uint64_t size, int32_t flags)
{
    const ssize_t count = recv(sock, buffer, capped(size), flags);
    return static_cast<int32_t>(count < 0 && errno == ENOTSOCK ? read(sock, buffer, capped(size)) : count);
}

int32_t kestal_sys_send(int32_t sock, const void *data, uint64_t size, int32_t flags)
{
    const ssize_t count = send(sock, data, capped(size), flags);
    return count < 0 && errno == ENOTSOCK ? write_plainly(sock, data, size, flags) : static_cast<int32_t>(count);
}

int32_t kestal_sys_recvfrom(int32_t sock, void *buffer, uint64_t size, int32_t flags, void *address,
                            uint32_t *address_length)
{
    const ssize_t count = recvfrom(sock, buffer, capped(size), flags, static_cast<sockaddr *>(address), address_length);
    if (count >= 0 || errno != ENOTSOCK)
        return static_cast<int32_t>(count);
    if (address_length != nullptr)
        *address_length = 0;
    return static_cast<int32_t>(read(sock, buffer, capped(size)));
}

int32_t kestal_sys_sendto(int32_t sock, const void *data, uint64_t size, int32_t flags, const void *address,
                          uint32_t address_length)
{
    const ssize_t count = sendto(sock, data, capped(size), flags, as_sockaddr(address), address_length);
    return count < 0 && errno == ENOTSOCK ? write_plainly(sock, data, size, flags) : static_cast<int32_t>(count);
}

int32_t kestal_recv(int32_t sock, void *buffer, uint64_t size, int32_t timeout_ms)
{
    return kestal_recvfrom(sock, buffer, size, nullptr, nullptr, timeout_ms);
}

int32_t kestal_recvfrom(int32_t sock, void *buffer, uint64_t size, void *address, uint32_t *address_length,
                        int32_t timeout_ms)
{
    const int32_t ready = wait_for(sock, KESTAL_SELECT_READ, timeout_ms);
    if (ready != 1)
        return ready == 0 ? KESTAL_RECEIVE_TIMEOUT : -1;
    return kestal_sys_recvfrom(sock, buffer, size, MSG_NOSIGNAL, address, address_length);
}

int32_t kestal_send(int32_t sock, const void *data, uint64_t size, int32_t timeout_ms)
{
    return kestal_sendto(sock, data, size, nullptr, 0, timeout_ms);
}

int32_t kestal_sendto(int32_t sock, const void *data, uint64_t size, const void *address, uint32_t address_length,
                      int32_t timeout_ms)
{
    // A time-out is 0 here and -2 to a receive: callers read it as nothing sent yet.
    const int32_t ready = wait_for(sock, KESTAL_SELECT_WRITE, timeout_ms);
    return ready != 1 ? ready : kestal_sys_sendto(sock, data, size, MSG_NOSIGNAL, address, address_length);
}

int32_t kestal_recv_fill(int32_t sock, void *buffer, uint64_t size, int32_t timeout_ms)
{
    return kestal_recvfrom_fill(sock, buffer, size, nullptr, nullptr, timeout_ms);
}

int32_t kestal_recvfrom_fill(int32_t sock, void *buffer, uint64_t size, void *address, uint32_t *address_length,
                             int32_t timeout_ms)
{
    const uint32_t room = address_length == nullptr ? 0 : *address_length;
    return fill(buffer, size, [=](void *place, uint64_t left) {
        if (address_length != nullptr)
            *address_length = room;
        return kestal_recvfrom(sock, place, left, address, address_length, timeout_ms);
    });
}

int32_t kestal_send_message(int32_t sock, int32_t timeout_ms, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const int32_t result = kestal_send_vmessage(sock, timeout_ms, format, list);
    va_end(list);
    return result;
}

int32_t kestal_send_vmessage(int32_t sock, int32_t timeout_ms, const char *format, va_list list)
{
    return kestal_sendto_vmessage(sock, timeout_ms, nullptr, 0, format, list);
}

int32_t kestal_sendto_message(int32_t sock, int32_t timeout_ms, const void *address, uint32_t address_length,
                              const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const int32_t result = kestal_sendto_vmessage(sock, timeout_ms, address, address_length, format, list);
    va_end(list);
    return result;
}

int32_t kestal_sendto_vmessage(int32_t sock, int32_t timeout_ms, const void *address, uint32_t address_length,
                               const char *format, va_list list)
{
    const owned_block<char> text(kestal_alloc_vsprintf(format, list), __func__);
    return !text ? -1 : kestal_sendto(sock, text.get(), strlen(text.get()), address, address_length, timeout_ms);
}

int32_t kestal_set_tx_socket_buffer_size(int32_t sock, int32_t bytes)
{
    return set_option(sock, SOL_SOCKET, SO_SNDBUF, bytes);
}

int32_t kestal_set_rx_socket_buffer_size(int32_t sock, int32_t bytes)
{
    return set_option(sock, SOL_SOCKET, SO_RCVBUF, bytes);
}

int32_t kestal_set_reuse_address_socket(int32_t sock, int32_t on)
{
    return set_option(sock, SOL_SOCKET, SO_REUSEADDR, on != 0);
}

int32_t kestal_set_broadcast_socket(int32_t sock, int32_t on)
{
    return set_option(sock, SOL_SOCKET, SO_BROADCAST, on != 0);
}

int32_t kestal_set_linger_socket(int32_t sock, int32_t on, int32_t seconds)
{
    if (sock == KESTAL_INVALID_SOCKET)
        return -1;
    const linger value = {.l_onoff = on != 0, .l_linger = on != 0 ? seconds : 0};
    return kestal_setsockopt(sock, SOL_SOCKET, SO_LINGER, &value, sizeof value);
}

int32_t kestal_set_pmtud_socket(int32_t sock, int32_t on)
{
    return set_protocol_option(sock, "ip", IP_MTU_DISCOVER, on != 0 ? IP_PMTUDISC_DO : IP_PMTUDISC_DONT);
}

int32_t kestal_set_naggle_socket(int32_t sock, int32_t on)
{
    return set_protocol_option(sock, "tcp", TCP_NODELAY, on != 0);
}

int32_t kestal_set_non_block_socket(int32_t sock, int32_t on)
{
    if (sock == KESTAL_INVALID_SOCKET)
        return -1;
    const int flags = fcntl(sock, F_GETFL);
    if (flags < 0)
        return -1;
    return fcntl(sock, F_SETFL, on != 0 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

int32_t kestal_hops_socket(int32_t sock, int32_t hops, int32_t multicast)
{
    if (sock == KESTAL_INVALID_SOCKET)
        return -1;
    if (hops < -1 || hops > 255)
        return fail_with(EINVAL);
    const int32_t family = family_of_socket(sock);
    if (family == AF_UNIX)
        return 0;
    if (family != AF_INET && family != AF_INET6)
        return -1;
    const bool is_v4 = family == AF_INET;
    const int32_t level = kestal_get_protocol_by_name(is_v4 ? "ip" : "ipv6");
    const int32_t option = is_v4 ? (multicast != 0 ? IP_MULTICAST_TTL : IP_TTL)
                                 : (multicast != 0 ? IPV6_MULTICAST_HOPS : IPV6_UNICAST_HOPS);
    if (hops != -1)
        return kestal_setsockopt(sock, level, option, &hops, sizeof hops);
    int value = 0;
    uint32_t length = sizeof value;
    return kestal_getsockopt(sock, level, option, &value, &length) == 0 ? value : -1;
}

int32_t kestal_socket_pair(int32_t domain, int32_t type, int32_t protocol, kestal_socket_pair_t *out_pair)
{
    if (out_pair == nullptr)
        return -1;
    *out_pair = {{KESTAL_INVALID_SOCKET, KESTAL_INVALID_SOCKET}};
    if (domain == AF_UNIX && socketpair(domain, type, protocol_in(domain, protocol), out_pair->m_socket) == 0)
        return 0;
    if (domain != AF_UNIX && domain != AF_INET && domain != AF_INET6)
        return fail_with(EAFNOSUPPORT);
    if (!connect_pair(domain, type, protocol, *out_pair))
        return -1;
    check_end(*out_pair, 0, __LINE__, "s_socket[0] != def_kestal_invalid_socket");
    check_end(*out_pair, 1, __LINE__, "s_socket[1] != def_kestal_invalid_socket");
    return 0;
}

int32_t kestal_socket_pipe(kestal_socket_pair_t *out_pair)
{
    if (out_pair == nullptr)
        return -1;
    for (const int32_t domain : {AF_UNIX, AF_INET, AF_INET6})
        if (kestal_socket_pair(domain, SOCK_STREAM, kestal_get_protocol_by_name("tcp"), out_pair) == 0)
            return 0;
    int ends[2];
    if (pipe(ends) != 0)
        return -1;
    *out_pair = {{ends[1], ends[0]}};
    return 0;
}
