// Streams over TFTP: files of a server, read block by block.
#include "stream_kind.hpp"

#include "guard.hpp"

#include <kestal_ulx/file.h>
#include <kestal_ulx/tftp.h>

#include <poll.h>
#include <string.h>

namespace kestal {

namespace {

constexpr int32_t timeout_ms = 16000;

// A context's state.
struct open_transfer {
    kestal_tftp_t *client;
    bool has_block; // received, and not yet delivered
};

open_transfer &state_of(const kestal_ctx_t &ctx)
{
    return *static_cast<open_transfer *>(ctx.m_plugin_state);
}

uint32_t open_tftp(kestal_ctx_t &ctx, stream_request &request)
{
    if (request.has_descriptor)
        return KESTAL_CTX_ERROR_NOT_SUPPORTED;
    owned_block<open_transfer> state(kestal_alloc(sizeof(open_transfer)), __func__);
    if (!state)
        return KESTAL_CTX_ERROR_NO_MEMORY;
    kestal_tftp_t *client = kestal_open_tftp(0, request.source, timeout_ms);
    const auto send_request =
        (request.flags & KESTAL_FILE_WRITE) != 0 ? kestal_tftp_write_request : kestal_tftp_read_request;
    if (send_request(client, nullptr, nullptr, timeout_ms) != 0) {
        const int error = errno;
        kestal_close_tftp(client);
        errno = error;
        return KESTAL_CTX_ERROR_REMOTE;
    }
    *state.get() = {.client = client, .has_block = false};
    ctx.m_plugin_state = state.release();
    return KESTAL_CTX_ERROR_NONE;
}

int32_t close_tftp(kestal_ctx_t &ctx)
{
    const owned_block<open_transfer> state(std::exchange(ctx.m_plugin_state, nullptr), __func__);
    return kestal_close_tftp(state->client);
}

// What has an end or an error to tell is ready, too.
int32_t is_readable(kestal_ctx_t &ctx, int32_t timeout)
{
    const open_transfer &state = state_of(ctx);
    if (state.has_block || state.client->m_state != KESTAL_TFTP_RECEIVING)
        return 1;
    return wait_for_descriptor(state.client->m_socket, POLLIN, timeout);
}

// One block; it stays for the next call when the buffer cannot take it.
int64_t read_block(kestal_ctx_t &ctx, void *buffer, uint64_t size)
{
    open_transfer &state = state_of(ctx);
    if (!state.has_block) {
        const int32_t length = kestal_tftp_read_data(state.client, timeout_ms);
        if (length <= 0)
            return length;
        state.has_block = true;
    }
    const uint64_t length = state.client->m_data_length;
    if (length > size) {
        ctx.m_last_error = KESTAL_CTX_ERROR_SHORT_BUFFER;
        return -1;
    }
    memcpy(buffer, state.client->m_data, static_cast<size_t>(length));
    state.has_block = false;
    return static_cast<int64_t>(length);
}

} // namespace

constinit const stream_kind tftp_kind = {.code = KESTAL_CTX_KIND_STREAM_TFTP,
                                         .types = {"application/ulx_stream_tftp"},
                                         .scheme = "tftp",
                                         .open = open_tftp,
                                         .close = close_tftp,
                                         .is_readable = is_readable,
                                         .read = read_block};

} // namespace kestal
