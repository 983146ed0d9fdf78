#include <kestal_ulx/socket_opener.h>

#include <kestal_ulx/address.h>
#include <kestal_ulx/assertion.h>
#include <kestal_ulx/multicast.h>
#include <kestal_ulx/resolver.h>
#include <kestal_ulx/socket.h>

#include "caller_text.hpp"
#include "failure.hpp"
#include "guard.hpp"
#include "socket_address.hpp"
#include "socket_opener.hpp"

#include <errno.h>

namespace {

using kestal::fail_with;
using kestal::family_of;
using kestal::is_empty;
using kestal::owned_descriptor;
using kestal::short_lock_guard;
using kestal::socket_address;

constexpr int32_t port_limit = 65536;
constexpr int32_t resolver_timeout_ms = 60000;
constexpr int32_t resolve_at_once = -1;
constexpr int32_t backlog = 128;

constinit kestal_short_lock_t network_lock = 0;
constinit int32_t network_use_count = 0;
constinit kestal_resolver_cache_t *sg_resolver_cache = nullptr;

void check_network(bool holds, uint64_t line, const char *message)
{
    if (!holds)
        kestal_assert_fail_tag("./source/socket.c", "__kestal_init_network", line, message);
}

// --- where to

// The addresses that a host stands for. A unix path stands for itself, and no host of the unix family for a name that
// the system makes up.
class target {
public:
    target(int32_t family, const char *host, int32_t port, int32_t timeout_ms)
    {
        if (family == AF_UNIX && is_empty(host)) {
            set_local(0);
            return;
        }
        if (!is_empty(host) && kestal_inet_ptos(AF_UNIX, host, 0, &local_, sizeof local_) == 0 &&
            local_.sun_path[0] != '\0') {
            set_local(strlen(local_.sun_path));
            return;
        }
        list_ = kestal_open_resolver_ex(host, static_cast<uint32_t>(port), timeout_ms);
        if (list_ == nullptr)
            errno = EHOSTUNREACH;
    }
    ~target() { kestal_close_resolver(list_); }
    target(const target &) = delete;
    target &operator=(const target &) = delete;

    // The first address of that family, or of any for 0; null when there is none.
    const kestal_resolver_t *find(int32_t family) const
    {
        const kestal_resolver_t *record = first();
        while (record != nullptr && !is_wanted(*record, family))
            record = record->m_next;
        return record;
    }

    // The first descriptor that `open` gives for one of the addresses of that family.
    template <typename Open>
    int32_t open_first(int32_t family, Open open) const
    {
        for (const kestal_resolver_t *record = first(); record != nullptr; record = record->m_next)
            if (is_wanted(*record, family))
                if (const int32_t sock = open(*record); sock != KESTAL_INVALID_SOCKET)
                    return sock;
        return KESTAL_INVALID_SOCKET;
    }

    const kestal_resolver_t *first() const { return local_record_.m_address != nullptr ? &local_record_ : list_; }

    static bool is_wanted(const kestal_resolver_t &record, int32_t family)
    {
        return family == AF_UNSPEC || record.m_family == family;
    }

private:
    void set_local(size_t path_length)
    {
        local_.sun_family = AF_UNIX;
        local_record_.m_family = AF_UNIX;
        local_record_.m_address = &local_;
        local_record_.m_address_length = static_cast<uint32_t>(path_length + offsetof(sockaddr_un, sun_path));
    }

    kestal_resolver_t *list_ = nullptr;
    kestal_resolver_t local_record_{};
    sockaddr_un local_{};
};

// --- sockets for one address

// Whose a socket will be: the flag that it is opened with.
enum owner { the_caller = 0, the_library = SOCK_CLOEXEC };

int32_t open_socket(int32_t family, int32_t type, owner whose)
{
    const char *protocol = type == SOCK_STREAM ? "tcp" : "udp";
    return socket(family, type | whose, family == AF_UNIX ? 0 : kestal_get_protocol_by_name(protocol));
}

void set_v6_only(int32_t sock, int on)
{
    kestal_setsockopt(sock, kestal_get_protocol_by_name("ipv6"), IPV6_V6ONLY, &on, sizeof on);
}

bool bind_to(int32_t sock, const kestal_resolver_t &record)
{
    return kestal_bind(sock, record.m_address, record.m_address_length) == 0;
}

int32_t listen_on(const kestal_resolver_t &record, bool is_v6_only)
{
    owned_descriptor sock(open_socket(record.m_family, SOCK_STREAM, the_caller));
    if (sock.get() < 0)
        return -1;
    if (record.m_family == AF_INET6 && is_v6_only)
        set_v6_only(sock.get(), 1);
    kestal_set_reuse_address_socket(sock.get(), 1);
    return bind_to(sock.get(), record) && kestal_listen(sock.get(), backlog) == 0 ? sock.release() : -1;
}

// Connects, from an address of `from` when there is one to bind to.
int32_t connect_to(const kestal_resolver_t &record, const target *from, int32_t timeout_ms, owner whose)
{
    owned_descriptor sock(open_socket(record.m_family, SOCK_STREAM, whose));
    if (sock.get() < 0)
        return -1;
    if (record.m_family == AF_INET6)
        set_v6_only(sock.get(), 0);
    if (from != nullptr) {
        const kestal_resolver_t *local = from->find(record.m_family);
        if (local == nullptr)
            return fail_with(EADDRNOTAVAIL);
        if (!bind_to(sock.get(), *local))
            return -1;
    }
    return kestal_connect(sock.get(), record.m_address, record.m_address_length, timeout_ms) == 0 ? sock.release() : -1;
}

int32_t open_datagram(const kestal_resolver_t &record, owner whose)
{
    owned_descriptor sock(open_socket(record.m_family, SOCK_DGRAM, whose));
    if (sock.get() < 0)
        return -1;
    if (record.m_family == AF_INET6)
        set_v6_only(sock.get(), 1);
    if (record.m_family == AF_INET) {
        const auto *address = static_cast<const uint8_t *>(record.m_address) + offsetof(sockaddr_in, sin_addr);
        kestal_setsockopt(sock.get(), kestal_get_protocol_by_name("ip"), IP_MULTICAST_IF, address, sizeof(in_addr));
    }
    // Between datagram sockets that have the option on, the system gives out a port of its choice twice: set after the binding.
    const bool is_port_chosen = kestal_sockaddr_get_port(record.m_address) == 0;
    if (!is_port_chosen)
        kestal_set_reuse_address_socket(sock.get(), 1);
    if (!bind_to(sock.get(), record))
        return -1;
    if (is_port_chosen)
        kestal_set_reuse_address_socket(sock.get(), 1);
    return sock.release();
}

// Sends to a group by the interface that its scope names: the system minds that for link-local groups only.
void choose_interface(int32_t sock, const void *group)
{
    sockaddr_in6 v6;
    if (family_of(group) != AF_INET6)
        return;
    memcpy(&v6, group, sizeof v6);
    if (v6.sin6_scope_id != 0)
        kestal_setsockopt(sock, kestal_get_protocol_by_name("ipv6"), IPV6_MULTICAST_IF, &v6.sin6_scope_id,
                          sizeof v6.sin6_scope_id);
}

bool read_group(const char *text, socket_address &group)
{
    return (kestal_inet_ptos(AF_INET, text, 0, &group, sizeof group) == 0 && kestal_is_multicast(&group) != 0) ||
           (kestal_inet_ptos(AF_INET6, text, 0, &group, sizeof group) == 0 && kestal_is_multicast(&group) != 0);
}

// --- sockets by host and port

int32_t connect_by_name(int32_t family, const char *bind_address_string, int32_t bind_port, const char *host,
                        int32_t port, int32_t timeout_ms, owner whose)
{
    if (bind_port < 0 || bind_port >= port_limit || host == nullptr || port < 1 || port >= port_limit)
        return fail_with(EINVAL);
    const target remote(AF_UNSPEC, host, port, resolver_timeout_ms);
    const auto connect_from = [&](const target *from) {
        return remote.open_first(
            family, [=](const kestal_resolver_t &record) { return connect_to(record, from, timeout_ms, whose); });
    };
    // Without a wish the system binds while it connects, and may use a local port for several peers.
    if (is_empty(bind_address_string) && bind_port == 0)
        return connect_from(nullptr);
    const target local(AF_UNSPEC, bind_address_string, bind_port, resolver_timeout_ms);
    return connect_from(&local);
}

int32_t bind_by_name(int32_t family, const char *bind_address_string, int32_t port, const char *multicast_group_string,
                     owner whose)
{
    if (port == -1)
        port = 0;
    if (port < 0 || port >= port_limit)
        return fail_with(EINVAL);
    socket_address group{};
    const bool has_group = !is_empty(multicast_group_string);
    if (has_group) {
        if (!read_group(multicast_group_string, group) || (family != AF_UNSPEC && family != family_of(&group)))
            return fail_with(EINVAL);
        family = family_of(&group);
    }
    const target local(family, bind_address_string, port, resolver_timeout_ms);
    const int32_t sock =
        local.open_first(family, [=](const kestal_resolver_t &record) { return open_datagram(record, whose); });
    if (sock != KESTAL_INVALID_SOCKET && has_group)
        kestal_multicast_join_all(sock, &group, 1);
    return sock;
}

} // namespace

namespace kestal {

int32_t open_own_connect_socket(const char *host, int32_t port, int32_t timeout_ms)
{
    return connect_by_name(AF_UNSPEC, nullptr, 0, host, port, timeout_ms, the_library);
}

int32_t open_own_udp_socket(int32_t family, const char *bind_address_string, int32_t port)
{
    return bind_by_name(family, bind_address_string, port, nullptr, the_library);
}

} // namespace kestal

int32_t kestal_init_network(void)
{
    const short_lock_guard guard(network_lock);
    if (network_use_count < 0)
        return -1;
    if (network_use_count == 0) {
        check_network(sg_resolver_cache == nullptr, __LINE__, "sg_resolver_cache == ((kestal_resolver_cache_t *)0)");
        sg_resolver_cache = kestal_open_resolver_cache();
        check_network(sg_resolver_cache != nullptr, __LINE__, "sg_resolver_cache != ((kestal_resolver_cache_t *)0)");
        if (sg_resolver_cache == nullptr)
            return -1;
    }
    ++network_use_count;
    return 0;
}

int32_t kestal_uninit_network(void)
{
    kestal_resolver_cache_t *unused = nullptr;
    {
        const short_lock_guard guard(network_lock);
        if (network_use_count <= 0)
            return -1;
        if (--network_use_count == 0)
            unused = std::exchange(sg_resolver_cache, nullptr);
    }
    kestal_close_resolver_cache(unused);
    return 0;
}

int32_t kestal_is_init_network(void)
{
    const short_lock_guard guard(network_lock);
    return network_use_count > 0 ? 1 : 0;
}

int32_t kestal_open_listen_socket_ex(int32_t family, const char *address_string, int32_t port)
{
    if (port < 0 || port >= port_limit)
        return fail_with(EINVAL);
    const target local(family, address_string, port, resolve_at_once);
    return local.open_first(family,
                            [=](const kestal_resolver_t &record) { return listen_on(record, family != AF_UNSPEC); });
}

int32_t kestal_open_listen_socket(const char *address_string, int32_t port)
{
    return kestal_open_listen_socket_ex(AF_UNSPEC, address_string, port);
}

int32_t kestal_open_connect_socket_ex(int32_t family, const char *bind_address_string, int32_t bind_port,
                                      const char *host, int32_t port, int32_t timeout_ms)
{
    return connect_by_name(family, bind_address_string, bind_port, host, port, timeout_ms, the_caller);
}

int32_t kestal_open_connect_socket(const char *host, int32_t port, int32_t timeout_ms)
{
    return kestal_open_connect_socket_ex(AF_UNSPEC, nullptr, 0, host, port, timeout_ms);
}

int32_t kestal_open_udp_socket_ex(int32_t family, const char *bind_address_string, int32_t port,
                                  const char *multicast_group_string)
{
    return bind_by_name(family, bind_address_string, port, multicast_group_string, the_caller);
}

int32_t kestal_open_udp_socket(const char *bind_address_string, int32_t port)
{
    return kestal_open_udp_socket_ex(AF_UNSPEC, bind_address_string, port, nullptr);
}

int32_t kestal_send_udp_packet_ex(int32_t family, const char *bind_address_string, int32_t bind_port, const char *host,
                                  int32_t port, int32_t hops, const void *data, uint64_t size, int32_t timeout_ms)
{
    if (host == nullptr || port < 1 || port >= port_limit)
        return fail_with(EINVAL);
    const target remote(AF_UNSPEC, host, port, resolver_timeout_ms);
    int32_t result = -1;
    for (const kestal_resolver_t *record = remote.first(); record != nullptr; record = record->m_next) {
        if (!target::is_wanted(*record, family))
            continue;
        const bool is_group = kestal_is_multicast(record->m_address) != 0;
        const owned_descriptor sock(bind_by_name(record->m_family, bind_address_string, bind_port,
                                                 is_group ? record->m_text : nullptr, the_library));
        result = -1;
        if (sock.get() < 0)
            continue;
        if (is_group)
            choose_interface(sock.get(), record->m_address);
        kestal_set_broadcast_socket(sock.get(), 1);
        if (hops < KESTAL_HOPS_DEFAULT)
            kestal_hops_socket(sock.get(), hops, is_group);
        result = kestal_sendto(sock.get(), data, size, record->m_address, record->m_address_length, timeout_ms);
    }
    return result;
}

int32_t kestal_send_udp_packet(const char *host, int32_t port, const void *data, uint64_t size, int32_t timeout_ms)
{
    return kestal_send_udp_packet_ex(AF_UNSPEC, nullptr, -1, host, port, KESTAL_HOPS_DEFAULT, data, size, timeout_ms);
}
