// Streams over sockets: TCP connections, and the datagrams of a UDP port or multicast group.
#include "stream_kind.hpp"

#include "caller_text.hpp"
#include "guard.hpp"
#include "multicast.hpp"
#include "socket_address.hpp"
#include "socket_opener.hpp"

#include <kestal_ulx/address.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/socket.h>
#include <kestal_ulx/time_stamp.h>

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>

namespace kestal {

namespace {

constexpr int32_t connect_timeout_ms = 16000;

// A context's state.
struct open_socket {
    int32_t sock = KESTAL_INVALID_SOCKET;
    bool is_owned = false; // closed with the context
    // UDP only
    bool is_debugging = false;
    socket_address group{};                       // family 0: none
    kestal_network_interface_t *joined = nullptr; // the interfaces there were when it was joined last
    uint64_t missed_ms = 0;                       // without data until the group is joined again; 0: never
    uint64_t last_data = 0;                       // milliseconds
    uint64_t last_join = 0;
};

open_socket &state_of(const kestal_ctx_t &ctx)
{
    return *static_cast<open_socket *>(ctx.m_plugin_state);
}

// Takes the socket given, or what `open` gives (a descriptor, or -1), as the context's state.
template <typename Open>
uint32_t open_with(kestal_ctx_t &ctx, const stream_request &request, Open open)
{
    owned_block<open_socket> state(kestal_alloc(sizeof(open_socket)), __func__);
    if (!state)
        return KESTAL_CTX_ERROR_NO_MEMORY;
    *state.get() = {};
    state->is_owned = !request.has_descriptor;
    if (state->is_owned)
        state->sock = open(*state.get());
    else if (fcntl(request.descriptor, F_GETFD) >= 0)
        state->sock = request.descriptor;
    if (state->sock < 0)
        return KESTAL_CTX_ERROR_NOT_OPENED;
    ctx.m_plugin_state = state.release();
    return KESTAL_CTX_ERROR_NONE;
}

int32_t close_state(kestal_ctx_t &ctx)
{
    const owned_block<open_socket> state(std::exchange(ctx.m_plugin_state, nullptr), __func__);
    kestal_free_network_interface(state->joined);
    return state->is_owned ? kestal_close_socket(state->sock) : 0;
}

int32_t is_writable(kestal_ctx_t &ctx, int32_t timeout)
{
    return wait_for_descriptor(state_of(ctx).sock, POLLOUT, timeout);
}

// --- TCP

uint32_t open_tcp(kestal_ctx_t &ctx, stream_request &request)
{
    return open_with(ctx, request, [&](open_socket &) {
        return open_own_connect_socket(request.uri->m_host, request.uri->m_port, connect_timeout_ms);
    });
}

int32_t is_tcp_readable(kestal_ctx_t &ctx, int32_t timeout)
{
    return wait_for_descriptor(state_of(ctx).sock, POLLIN, timeout);
}

int64_t read_tcp(kestal_ctx_t &ctx, void *buffer, uint64_t size)
{
    return without_interruption([&] { return kestal_recv(state_of(ctx).sock, buffer, size, -1); });
}

int64_t write_tcp(kestal_ctx_t &ctx, const void *data, uint64_t size)
{
    return without_interruption([&] { return kestal_send(state_of(ctx).sock, data, size, -1); });
}

// --- UDP

int32_t open_port(open_socket &state, const kestal_uri_t &uri)
{
    if (uri.m_port == 0) { // nobody would know where to send
        errno = EINVAL;
        return KESTAL_INVALID_SOCKET;
    }
    const char *host = uri.m_host;
    if (kestal_inet_ptos(AF_UNSPEC, host, 0, &state.group, sizeof state.group) == 0 &&
        kestal_is_multicast(&state.group) != 0) {
        const int32_t sock = open_own_udp_socket(family_of(&state.group), nullptr, uri.m_port);
        if (sock >= 0)
            join_again(sock, &state.group, state.joined);
        return sock;
    }
    state.group = {};
    const bool is_any_host = is_empty(host);
    const int32_t sock = is_any_host ? open_own_udp_socket(AF_INET, nullptr, uri.m_port) : -1;
    return sock >= 0 ? sock : open_own_udp_socket(AF_UNSPEC, host, uri.m_port);
}

uint32_t open_udp(kestal_ctx_t &ctx, stream_request &request)
{
    const uint32_t error =
        open_with(ctx, request, [&](open_socket &state) { return open_port(state, *request.uri.get()); });
    if (error != KESTAL_CTX_ERROR_NONE)
        return error;
    open_socket &state = state_of(ctx);
    const int64_t missed = get_option_number(find_last_option(ctx, "missed_time", "missed_time"), 0, 0);
    state.missed_ms = missed > 0 ? static_cast<uint64_t>(missed) : 0;
    state.is_debugging = request.is_debugging;
    state.last_data = state.last_join = kestal_time_stamp_msec();
    return KESTAL_CTX_ERROR_NONE;
}

// Asked for when it is told: the option may have been set anew since the context was opened.
const char *source_of(const kestal_ctx_t &ctx)
{
    const kestal_ctx_option_t *source = find_last_option(ctx, "src", "source");
    return source == nullptr ? nullptr : static_cast<const char *>(source->m_value);
}

void note_silence(const kestal_ctx_t &ctx, open_socket &state)
{
    const uint64_t now = kestal_time_stamp_msec();
    const uint64_t silence = now - state.last_data;
    if (state.group.any.ss_family != AF_UNSPEC && state.missed_ms > 0 && silence >= state.missed_ms &&
        now - state.last_join >= state.missed_ms) {
        state.last_join = now;
        join_again(state.sock, &state.group, state.joined);
        if (state.is_debugging)
            kestal_error_printf(
                "need multicast stream ! (mime_type=\"\033[1;37m%s\033[0m\", url=\"\033[1;32m%s\033[0m\")\n",
                ctx.m_mime_type, source_of(ctx));
    } else if (state.is_debugging) {
        kestal_error_printf("wait udp stream ! (mime_type=\"\033[1;37m%s\033[0m\", url=\"\033[1;32m%s\033[0m\", "
                            "%lu.%03lu sec)\n",
                            ctx.m_mime_type, source_of(ctx), silence / 1000, silence % 1000);
    }
}

int32_t is_udp_readable(kestal_ctx_t &ctx, int32_t timeout)
{
    open_socket &state = state_of(ctx);
    for (;;) {
        // A wait without limit looks after the membership all the same.
        const bool goes_on = timeout < 0 && state.missed_ms > 0;
        const int32_t slice = goes_on ? static_cast<int32_t>(std::min<uint64_t>(state.missed_ms, INT32_MAX)) : timeout;
        const int32_t ready = wait_for_descriptor(state.sock, POLLIN, slice);
        if (ready != 0)
            return ready;
        note_silence(ctx, state);
        if (!goes_on)
            return 0;
    }
}

int64_t read_udp(kestal_ctx_t &ctx, void *buffer, uint64_t size)
{
    open_socket &state = state_of(ctx);
    const int64_t length = without_interruption([&] { return kestal_recv(state.sock, buffer, size, -1); });
    if (length >= 0)
        state.last_data = kestal_time_stamp_msec();
    return length;
}

} // namespace

constinit const stream_kind tcp_kind = {.code = KESTAL_CTX_KIND_STREAM_TCP,
                                        .types = {"application/ulx_stream_tcp"},
                                        .scheme = "tcp",
                                        .open = open_tcp,
                                        .close = close_state,
                                        .is_readable = is_tcp_readable,
                                        .read = read_tcp,
                                        .is_writable = is_writable,
                                        .write = write_tcp};

constinit const stream_kind udp_kind = {.code = KESTAL_CTX_KIND_STREAM_UDP,
                                        .types = {"application/ulx_stream_udp"},
                                        .scheme = "udp",
                                        .open = open_udp,
                                        .close = close_state,
                                        .is_readable = is_udp_readable,
                                        .read = read_udp,
                                        .is_writable = is_writable};

} // namespace kestal
