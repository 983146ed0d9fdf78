#include <kestal_ulx/builtin_ftp_plugin.h>

#include "stream_ftp.hpp"
#include "stream_plugin.hpp"

#include <kestal_ulx/text.h>

namespace {

using kestal::refuse;
using kestal::stream_request;

constexpr char mime_type_hint_list[] = "application/ulx_stream*";

// A context's m_kind: this plugin's own numbers.
constexpr int32_t kind_any_stream = 100; // until the source's scheme is known
constexpr int32_t kind_ftp = 101;
constexpr int32_t kind_none = -1;

constexpr int32_t without_limit = -1;

int32_t kind_of_type(const char *type)
{
    if (kestal_compare_mime_type(type, "application/ulx_stream") == 0)
        return kind_any_stream;
    return kestal_compare_mime_type(type, "application/ulx_stream_ftp") == 0 ? kind_ftp : kind_none;
}

uint32_t open_transfer(kestal_ctx_t &ctx)
{
    ctx.m_kind = kind_of_type(ctx.m_mime_type);
    if (ctx.m_kind == kind_none)
        return KESTAL_CTX_ERROR_NOT_SUPPORTED;
    stream_request request;
    kestal::read_options(ctx, request);
    request.has_descriptor = false;
    request.offset = 0;
    if (const uint32_t error = kestal::prepare_stream(request); error != KESTAL_CTX_ERROR_NONE)
        return error;
    if (kestal_compare_ignore_case(request.uri->m_scheme_name, "ftp") == 0)
        ctx.m_kind = kind_ftp;
    if (ctx.m_kind != kind_ftp)
        return KESTAL_CTX_ERROR_NOT_SUPPORTED;
    // Short memory for the record is no reason to end the search for a plugin.
    const uint32_t error = kestal::open_ftp_transfer(ctx, request, without_limit);
    return error == KESTAL_CTX_ERROR_NO_MEMORY ? KESTAL_CTX_ERROR_NOT_SUPPORTED : error;
}

int32_t close_ctx(kestal_ctx_t *ctx)
{
    if (ctx->m_kind == kind_none)
        return refuse(*ctx, -1);
    return ctx->m_plugin_state == nullptr ? 0 : kestal::close_ftp_transfer(*ctx);
}

// Serves vbcontrol and vxcontrol.
int32_t control_nothing(kestal_ctx_t *ctx, uint32_t code, va_list)
{
    return code == 0 ? 0 : refuse(*ctx, -1);
}

int32_t vcontrol(kestal_ctx_t *ctx, uint32_t code, va_list arguments)
{
    if (code != KESTAL_CTX_CONTROL_GET_SIZE)
        return control_nothing(ctx, code, arguments);
    uint64_t *size = kestal::take_record<uint64_t>(*ctx, arguments);
    if (size == nullptr)
        return -1;
    *size = kestal::ftp_transfer_of(*ctx).size;
    return refuse(*ctx, -1); // stored all the same: callers read the record, not the result
}

int32_t is_readable(kestal_ctx_t *, int32_t)
{
    return 1;
}

int64_t read(kestal_ctx_t *ctx, void *buffer, uint64_t size)
{
    return kestal::read_ftp_transfer(*ctx, buffer, size);
}

int32_t is_writable(kestal_ctx_t *ctx, int32_t)
{
    return refuse(*ctx, 1);
}

int64_t write(kestal_ctx_t *ctx, const void *data, uint64_t size)
{
    return kestal::write_ftp_transfer(*ctx, data, size);
}

int64_t seek(kestal_ctx_t *ctx, int64_t, uint32_t)
{
    return refuse(*ctx, int64_t{-1});
}

int32_t sync(kestal_ctx_t *ctx)
{
    return refuse(*ctx, -1);
}

constexpr kestal_ctx0_v1_interface_t interface_table = kestal::table_with([](kestal_ctx0_v0_interface_t &own) {
    own.m_open = kestal::open_by<open_transfer>;
    own.m_close = close_ctx;
    own.m_vbcontrol = control_nothing;
    own.m_vxcontrol = control_nothing;
    own.m_vcontrol = vcontrol;
    own.m_is_readable = is_readable;
    own.m_read = read;
    own.m_is_writable = is_writable;
    own.m_write = write;
    own.m_seek = seek;
    own.m_sync = sync;
});

constinit kestal::preloaded_plugins preloaded;

} // namespace

int32_t kestal_plugin_initialize_builtin_ftp_plugin(const char **mime_type_hint,
                                                    const kestal_ctx0_v0_interface_t **interface,
                                                    uint64_t *interface_size)
{
    return kestal::initialize_plugin(mime_type_hint_list, interface_table, preloaded, mime_type_hint, interface,
                                     interface_size);
}

int32_t kestal_plugin_uninitialize_builtin_ftp_plugin(void)
{
    preloaded.unload();
    return 0;
}
