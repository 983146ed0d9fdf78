#include <kestal_ulx/builtin_plugin.h>

#include "caller_text.hpp"
#include "plugin.hpp"
#include "stream_kind.hpp"
#include "stream_plugin.hpp"

#include <type_traits>

namespace {

using kestal::find_kind;
using kestal::refuse;
using kestal::stream_kind;
using kestal::stream_request;

constexpr char mime_type_hint_list[] =
    "application/ulx_base;application/ulx_stream*;application/ulx_fb;application/ulx_linuxfb;"
    "application/ulx_windows_dib;application/ulx_multicall*";
constexpr char stream_type[] = "application/ulx_stream";

// --- opening

const stream_kind *kind_of_source(const stream_request &request)
{
    const char *scheme = request.has_descriptor ? nullptr : request.uri->m_scheme_name;
    return kestal::find_kind_of_scheme(kestal::is_empty(scheme) ? "file" : scheme);
}

uint32_t open_kind(kestal_ctx_t &ctx)
{
    const char *type = ctx.m_mime_type == nullptr ? "" : ctx.m_mime_type;
    const bool is_any_stream = kestal_compare_mime_type(type, stream_type) == 0;
    const stream_kind *kind = kestal::find_kind_of_type(type);
    if (kind == nullptr && !is_any_stream)
        return KESTAL_CTX_ERROR_NOT_SUPPORTED;
    stream_request request;
    kestal::read_options(ctx, request);
    if (is_any_stream || kind->scheme != nullptr)
        if (const uint32_t error = kestal::prepare_stream(request); error != KESTAL_CTX_ERROR_NONE)
            return error;
    if (is_any_stream)
        kind = kind_of_source(request);
    if (kind == nullptr)
        return KESTAL_CTX_ERROR_NOT_SUPPORTED;
    ctx.m_kind = kind->code;
    return kind->open(ctx, request);
}

// --- passing on

// The operation of the context's kind, or null.
template <typename Operation>
Operation find_operation(const kestal_ctx_t &ctx, Operation stream_kind::*wanted)
{
    const stream_kind *kind = find_kind(ctx.m_kind);
    return kind == nullptr ? nullptr : kind->*wanted;
}

// What the context's kind answers; refused when it lacks the operation.
template <typename Result, typename... Arguments>
Result ask(kestal_ctx_t &ctx, Result (*stream_kind::*wanted)(kestal_ctx_t &, Arguments...),
           std::type_identity_t<Arguments>... arguments)
{
    const auto operation = find_operation(ctx, wanted);
    return operation == nullptr ? refuse(ctx, Result{-1}) : operation(ctx, arguments...);
}

// A kind that has nothing to wait for is ready.
int32_t wait(kestal_ctx_t &ctx, int32_t (*stream_kind::*wanted)(kestal_ctx_t &, int32_t), int32_t timeout)
{
    const auto operation = find_operation(ctx, wanted);
    return operation == nullptr ? 1 : operation(ctx, timeout);
}

int32_t close_ctx(kestal_ctx_t *ctx)
{
    const auto operation = find_operation(*ctx, &stream_kind::close);
    return operation == nullptr ? 0 : operation(*ctx);
}

int32_t vbcontrol(kestal_ctx_t *ctx, uint32_t, va_list)
{
    return refuse(*ctx, -1);
}

int32_t vxcontrol(kestal_ctx_t *ctx, uint32_t code, va_list arguments)
{
    return ask(*ctx, &stream_kind::xcontrol, code, arguments);
}

int32_t vcontrol(kestal_ctx_t *ctx, uint32_t code, va_list arguments)
{
    const auto operation = find_operation(*ctx, &stream_kind::get_size);
    if (code != KESTAL_CTX_CONTROL_GET_SIZE || operation == nullptr)
        return refuse(*ctx, -1);
    uint64_t *size = kestal::take_record<uint64_t>(*ctx, arguments);
    return size == nullptr ? -1 : operation(*ctx, *size);
}

int32_t is_readable(kestal_ctx_t *ctx, int32_t timeout)
{
    return wait(*ctx, &stream_kind::is_readable, timeout);
}

int64_t read(kestal_ctx_t *ctx, void *buffer, uint64_t size)
{
    return ask(*ctx, &stream_kind::read, buffer, size);
}

int32_t is_writable(kestal_ctx_t *ctx, int32_t timeout)
{
    return wait(*ctx, &stream_kind::is_writable, timeout);
}

int64_t write(kestal_ctx_t *ctx, const void *data, uint64_t size)
{
    return ask(*ctx, &stream_kind::write, data, size);
}

int64_t seek(kestal_ctx_t *ctx, int64_t offset, uint32_t whence)
{
    return ask(*ctx, &stream_kind::seek, offset, whence);
}

int32_t sync(kestal_ctx_t *ctx)
{
    return ask(*ctx, &stream_kind::sync);
}

int main_entry(int, char **)
{
    return 1;
}

constexpr kestal_ctx0_v1_interface_t interface_table = kestal::table_with([](kestal_ctx0_v0_interface_t &own) {
    own.m_open = kestal::open_by<open_kind>;
    own.m_close = close_ctx;
    own.m_vbcontrol = vbcontrol;
    own.m_vxcontrol = vxcontrol;
    own.m_vcontrol = vcontrol;
    own.m_is_readable = is_readable;
    own.m_read = read;
    own.m_is_writable = is_writable;
    own.m_write = write;
    own.m_seek = seek;
    own.m_sync = sync;
    own.m_main = main_entry;
});

constinit kestal::preloaded_plugins preloaded;

constexpr kestal::builtin_plugin_node own_node = {.next = nullptr,
                                                  .name = nullptr,
                                                  .initialize = kestal_plugin_initialize_builtin_plugin,
                                                  .uninitialize = kestal_plugin_uninitialize_builtin_plugin};

} // namespace

constinit const kestal::builtin_plugin_node *const kestal::builtin_plugins = &own_node;

int32_t kestal_plugin_initialize_builtin_plugin(const char **mime_type_hint,
                                                const kestal_ctx0_v0_interface_t **interface, uint64_t *interface_size)
{
    return kestal::initialize_plugin(mime_type_hint_list, interface_table, preloaded, mime_type_hint, interface,
                                     interface_size);
}

int32_t kestal_plugin_uninitialize_builtin_plugin(void)
{
    preloaded.unload();
    return 0;
}
