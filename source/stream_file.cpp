// Streams over descriptors: files, the process's own pipes, and descriptors that the caller opened.
#include "stream_kind.hpp"

#include "guard.hpp"

#include <kestal_ulx/file.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/text.h>

#include <algorithm>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace kestal {

namespace {

constexpr uint64_t largest_transfer = INT32_MAX;

// A context's state.
struct open_descriptor {
    int descriptor;
    bool is_owned; // closed with the context
};

open_descriptor &state_of(const kestal_ctx_t &ctx)
{
    return *static_cast<open_descriptor *>(ctx.m_plugin_state);
}

// Without a scheme a location is the file's name as it stands, whatever characters it holds.
const char *path_of(const stream_request &request)
{
    const char *scheme = request.uri->m_scheme_name;
    return kestal_compare_ignore_case(scheme, "file") == 0 ? request.uri->m_decoded_path : request.source;
}

int standard_stream(uint32_t flags)
{
    switch (flags & (KESTAL_FILE_READ | KESTAL_FILE_WRITE)) {
    case KESTAL_FILE_READ:
        return STDIN_FILENO;
    case KESTAL_FILE_WRITE:
        return STDOUT_FILENO;
    default:
        return STDERR_FILENO;
    }
}

// Takes what `find` gives (a descriptor, or -1) as the context's state.
template <typename Find>
uint32_t open_with(kestal_ctx_t &ctx, bool is_owned, Find find)
{
    owned_block<open_descriptor> state(kestal_alloc(sizeof(open_descriptor)), __func__);
    if (!state)
        return KESTAL_CTX_ERROR_NO_MEMORY;
    *state.get() = {.descriptor = find(), .is_owned = is_owned};
    if (state->descriptor < 0)
        return KESTAL_CTX_ERROR_NOT_OPENED;
    ctx.m_plugin_state = state.release();
    return KESTAL_CTX_ERROR_NONE;
}

uint32_t open_given(kestal_ctx_t &ctx, const stream_request &request)
{
    return open_with(ctx, false, [&] { return fcntl(request.descriptor, F_GETFD) < 0 ? -1 : request.descriptor; });
}

uint32_t open_file(kestal_ctx_t &ctx, stream_request &request)
{
    if (request.has_descriptor)
        return open_given(ctx, request);
    const char *path = path_of(request);
    if (path == nullptr)
        return KESTAL_CTX_ERROR_NO_MEMORY;
    return open_with(ctx, true, [&] { return kestal_open_file(path, request.flags, request.permission); });
}

uint32_t open_pipe(kestal_ctx_t &ctx, stream_request &request)
{
    if (request.has_descriptor)
        return open_given(ctx, request);
    return open_with(ctx, false, [&] { return standard_stream(request.flags); });
}

int32_t close_state(kestal_ctx_t &ctx)
{
    const owned_block<open_descriptor> state(std::exchange(ctx.m_plugin_state, nullptr), __func__);
    return state->is_owned ? kestal_close_file(state->descriptor) : 0;
}

int32_t get_size(kestal_ctx_t &ctx, uint64_t &size)
{
    const int64_t known = kestal_get_file_size(state_of(ctx).descriptor);
    if (known < 0) {
        ctx.m_last_error = KESTAL_CTX_ERROR_NOT_SUPPORTED;
        return -1;
    }
    size = static_cast<uint64_t>(known);
    return 0;
}

int32_t is_readable(kestal_ctx_t &ctx, int32_t timeout)
{
    return wait_for_descriptor(state_of(ctx).descriptor, POLLIN, timeout);
}

int32_t is_writable(kestal_ctx_t &ctx, int32_t timeout)
{
    return wait_for_descriptor(state_of(ctx).descriptor, POLLOUT, timeout);
}

int64_t read_some(kestal_ctx_t &ctx, void *buffer, uint64_t size)
{
    const size_t length = static_cast<size_t>(std::min(size, largest_transfer));
    return without_interruption([&] { return read(state_of(ctx).descriptor, buffer, length); });
}

int64_t write_some(kestal_ctx_t &ctx, const void *data, uint64_t size)
{
    const size_t length = static_cast<size_t>(std::min(size, largest_transfer));
    return without_interruption([&] { return write(state_of(ctx).descriptor, data, length); });
}

int64_t seek(kestal_ctx_t &ctx, int64_t offset, uint32_t whence)
{
    return lseek(state_of(ctx).descriptor, offset, static_cast<int>(whence));
}

int32_t sync_to_device(kestal_ctx_t &ctx)
{
    return kestal_sync_file(state_of(ctx).descriptor);
}

} // namespace

constinit const stream_kind file_kind = {.code = KESTAL_CTX_KIND_STREAM_FILE,
                                         .types = {"application/ulx_stream_file"},
                                         .scheme = "file",
                                         .open = open_file,
                                         .close = close_state,
                                         .get_size = get_size,
                                         .is_readable = is_readable,
                                         .read = read_some,
                                         .is_writable = is_writable,
                                         .write = write_some,
                                         .seek = seek,
                                         .sync = sync_to_device};

constinit const stream_kind pipe_kind = {.code = KESTAL_CTX_KIND_STREAM_PIPE,
                                         .types = {"application/ulx_stream_pipe"},
                                         .scheme = "pipe",
                                         .open = open_pipe,
                                         .close = close_state,
                                         .is_readable = is_readable,
                                         .read = read_some,
                                         .is_writable = is_writable,
                                         .write = write_some,
                                         .sync = sync_to_device};

} // namespace kestal
