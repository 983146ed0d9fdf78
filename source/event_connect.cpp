#include "event_connect.hpp"

#include "event.hpp"

#include <kestal_ulx/address.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/socket.h>

#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using kestal::change_flags;

constexpr uint32_t no_port = 0;

struct local_address {
    sockaddr_storage address; // has room for a unix path too
    uint32_t length;          // 0: not to be bound
};

void trace(const kestal_event_t &event, const char *text)
{
    if (kestal::is_tracing())
        kestal_error_printf("kestal_event: [MESSAGE] %s (event=%p, descriptor=%d)\n", text,
                            static_cast<const void *>(&event), event.m_descriptor);
}

void finish(kestal_event_t &event, uint32_t outcome, const char *text)
{
    event.m_result |= outcome;
    trace(event, text);
}

void withdraw_interest(kestal_event_t &event)
{
    if (event.m_descriptor >= 0)
        event.m_base->m_state->watched.set(event.m_descriptor, 0);
}

void fail(kestal_event_t &event, const char *text)
{
    change_flags(event, KESTAL_EVENT_CONNECTING, 0);
    event.m_state |= kestal::event_connect_failed;
    withdraw_interest(event);
    finish(event, KESTAL_EVENT_CONNECT_FAILED, text);
}

// What the socket is to be bound to. False when the event's own address is not of this family.
bool make_local_address(const kestal_event_t &event, int32_t family, local_address &local)
{
    const uint32_t port = event.m_bind_port < 0 ? no_port : static_cast<uint32_t>(event.m_bind_port);
    const char *text = event.m_bind_address;
    if (text != nullptr && *text == '\0')
        text = nullptr;
    local = {};
    if (text != nullptr) {
        if (kestal_inet_ptos(family, text, port, &local.address, sizeof(local.address)) != 0)
            return false;
        local.length = kestal_sockaddr_size(&local.address);
        return true;
    }
    if (family == AF_UNIX)
        return true;
    local.address.ss_family = static_cast<sa_family_t>(family);
    kestal_sockaddr_set_port(&local.address, port);
    local.length = kestal_sockaddr_size(&local.address);
    return true;
}

int32_t open_stream_socket(int32_t family)
{
    const int32_t descriptor =
        kestal_open_socket(family, SOCK_STREAM, family == AF_UNIX ? 0 : kestal_get_protocol_by_name("tcp"));
    if (descriptor >= 0 && family == AF_INET6) {
        const int off = 0;
        kestal_setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
    }
    return descriptor;
}

// 0 when connected, else an error number: EINPROGRESS when that takes time.
int connect_socket(const kestal_event_t &event, int32_t descriptor, bool is_new, const kestal_resolver_t &target)
{
    local_address local;
    if (!make_local_address(event, target.m_family, local))
        return EADDRNOTAVAIL;
    // A caller's socket may be bound already.
    if (local.length != 0 && kestal_bind(descriptor, &local.address, local.length) != 0 && (is_new || errno != EINVAL))
        return errno;
    kestal_set_non_block_socket(descriptor, 1);
    const auto *address = static_cast<const sockaddr *>(target.m_address);
    const int error = connect(descriptor, address, target.m_address_length) == 0 ? 0 : errno;
    kestal_set_non_block_socket(descriptor, 0);
    return error;
}

// True when a connection has begun, or is there already.
bool try_address(kestal_event_t &event, const kestal_resolver_t &target)
{
    const bool is_new = event.m_descriptor < 0;
    const int32_t descriptor = is_new ? open_stream_socket(target.m_family) : event.m_descriptor;
    if (descriptor < 0)
        return false;
    const int error = connect_socket(event, descriptor, is_new, target);
    if (error == 0 || error == EINPROGRESS) {
        const uint32_t state = error == 0 ? KESTAL_EVENT_CONNECTED : KESTAL_EVENT_CONNECTING;
        event.m_descriptor = descriptor;
        change_flags(event, 0, state);
        if (kestal::watch_event(event)) {
            finish(event, state, error == 0 ? "connected immediately." : "connecting...");
            return true;
        }
        change_flags(event, state, 0);
    }
    if (is_new) {
        event.m_descriptor = -1;
        kestal_close_socket(descriptor);
    }
    return false;
}

void begin(kestal_event_t &event)
{
    for (const kestal_resolver_t *at = event.m_resolved; at != nullptr; at = at->m_next)
        if (try_address(event, *at))
            return;
    fail(event, "immediately connect failed !");
}

void end(kestal_event_t &event)
{
    int error = 0;
    uint32_t length = sizeof(error);
    if (kestal_getsockopt(event.m_descriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        fail(event, "connect failed !");
        return;
    }
    change_flags(event, KESTAL_EVENT_CONNECTING, KESTAL_EVENT_CONNECTED);
    kestal::watch_event(event);
    finish(event, KESTAL_EVENT_CONNECTED, "connected.");
}

} // namespace

void kestal::resolve_event(kestal_event_t &event)
{
    kestal_event_base_t &base = *event.m_base;
    sockaddr_un path;
    if (is_unix_path(event.m_resolver_name, path)) {
        kestal_resolver_t record{};
        record.m_family = AF_UNIX;
        record.m_address = &path;
        record.m_address_length = sizeof(path);
        event.m_resolved = kestal_duplicate_resolver(&record);
    } else if (open_resolver_cache(base)) {
        event.m_resolved = kestal_get_resolver_cache(base.m_resolver_cache, event.m_resolver_name,
                                                     static_cast<uint32_t>(event.m_resolver_port), 0);
    } else {
        wake_loop(base);
    }
    if (event.m_resolved == nullptr)
        return;
    event.m_result |= KESTAL_EVENT_RESOLVED;
    attend_event(event);
}

void kestal::connect_event(kestal_event_t &event, uint32_t ready)
{
    if ((event.m_state & event_connect_failed) != 0)
        return;
    if (has_flags(event, KESTAL_EVENT_CONNECTING)) {
        if (ready != 0)
            end(event);
    } else if (event.m_resolved != nullptr) {
        begin(event);
        attend_event(event);
    }
}
