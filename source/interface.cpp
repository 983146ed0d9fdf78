#include "interface.hpp"

#include "caller_text.hpp"
#include "guard.hpp"
#include "instance.hpp"
#include "lock_guard.hpp"

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/buffer.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/text.h>

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace {

using kestal::or_empty;
using kestal::owned_block;
using kestal::owned_ctx;
using kestal::shared_spin_guard;

constexpr char source_path[] = "./source/interface";
constexpr char ctx_type[] = "application/ulx_base_ctx";
constexpr char stream_type[] = "application/ulx_stream";
constexpr uint32_t all_ones = UINT32_MAX;

// The record of a context, open or closed; ids of other things are none.
kestal_ctx_t *find_ctx(uint32_t id)
{
    return static_cast<kestal_ctx_t *>(kestal::find_ginstance(id, ctx_type));
}

// The same for a call on its options, which clears the last error.
kestal_ctx_t *find_ctx_for_options(uint32_t id)
{
    kestal_ctx_t *ctx = find_ctx(id);
    if (ctx != nullptr)
        ctx->m_last_error = KESTAL_CTX_ERROR_NONE;
    return ctx;
}

bool is_initialized(const kestal_plugin_t &plugin)
{
    return (plugin.m_flags & KESTAL_PLUGIN_INITIALIZED) != 0;
}

// A plugin's table when it is of the version known here, else null.
const kestal_ctx0_v0_interface_t *known_interface(const kestal_plugin_t &plugin)
{
    const kestal_ctx0_v0_interface_t *interface = plugin.m_interface;
    return interface != nullptr && interface->m_version == 1 ? interface : nullptr;
}

// --- options

bool has_name(const kestal_ctx_option_t &option, const char *name)
{
    return strcmp(or_empty(option.m_name), or_empty(name)) == 0;
}

kestal_ctx_option_t *new_option(const char *name, const void *value, uint64_t size)
{
    const size_t name_room = name == nullptr || name[0] == '\0' ? 0 : strlen(name) + 1;
    if (size >= SIZE_MAX - sizeof(kestal_ctx_option_t) - name_room)
        return nullptr;
    const size_t value_size = static_cast<size_t>(size);
    const size_t value_room = value_size == 0 ? 0 : value_size + 1;
    void *block = kestal_alloc(sizeof(kestal_ctx_option_t) + name_room + value_room);
    if (block == nullptr)
        return nullptr;
    kestal_ctx_option_t *option = static_cast<kestal_ctx_option_t *>(block);
    char *texts = reinterpret_cast<char *>(option + 1);
    *option = {};
    if (name_room > 0)
        option->m_name = static_cast<char *>(memcpy(texts, name, name_room));
    if (value_room > 0) {
        char *copy = texts + name_room;
        memset(copy, 0, value_room);
        if (value != nullptr)
            memcpy(copy, value, value_size);
        option->m_value = copy;
        option->m_value_size = size;
    }
    return option;
}

void free_options(kestal_ctx_t &ctx)
{
    while (kestal_ctx_option_t *option = ctx.m_option_head) {
        ctx.m_option_head = option->m_next;
        kestal_free(option);
    }
    ctx.m_option_tail = nullptr;
}

void append_option(kestal_ctx_t &ctx, kestal_ctx_option_t *option)
{
    if (ctx.m_option_tail == nullptr)
        ctx.m_option_head = option;
    else
        ctx.m_option_tail->m_next = option;
    ctx.m_option_tail = option;
}

void remove_first_option(kestal_ctx_t &ctx, const char *name)
{
    kestal_ctx_option_t *previous = nullptr;
    kestal_ctx_option_t *option = ctx.m_option_head;
    while (option != nullptr && !has_name(*option, name)) {
        previous = option;
        option = option->m_next;
    }
    if (option == nullptr)
        return;
    (previous == nullptr ? ctx.m_option_head : previous->m_next) = option->m_next;
    if (ctx.m_option_tail == option)
        ctx.m_option_tail = previous;
    kestal_free(option);
}

// --- open and close

void set_mime_type(kestal_ctx_t &ctx, char *mime_type)
{
    kestal_check_free(ctx.m_mime_type);
    ctx.m_mime_type = mime_type;
}

void forget_plugin(kestal_ctx_t &ctx)
{
    ctx.m_plugin = nullptr;
    ctx.m_plugin_state = nullptr;
    ctx.m_kind = -1;
    set_mime_type(ctx, nullptr);
}

// What became of the offer of a context to the loaded plugins.
struct offer {
    bool ended = false; // accepted, or refused with an error that ends the search
    int32_t result = -1;
    int cause = 0; // errno as the last open left it
};

void offer_to_plugin(kestal_ctx_t &ctx, kestal_plugin_t &plugin, offer &so_far)
{
    const shared_spin_guard guard(plugin.m_lock);
    if (!is_initialized(plugin) || kestal_compare_mime_type_hint(plugin.m_mime_type_hint, ctx.m_mime_type) != 0)
        return;
    const kestal_ctx0_v0_interface_t *s_interface_header = known_interface(plugin);
    if (s_interface_header == nullptr)
        return;
    if (s_interface_header->m_size < sizeof(kestal_ctx0_v0_interface_t))
        kestal_assert_fail_tag(source_path, "kestal_open_ctx", __LINE__,
                               "s_interface_header->m_size >= ((kestal_uint32_t)sizeof(kestal_ctx0_v0_interface_t))");
    if (s_interface_header->m_open == nullptr)
        return;
    ctx.m_plugin = &plugin;
    ctx.m_kind = -1;
    ctx.m_plugin_state = nullptr;
    ctx.m_last_error = KESTAL_CTX_ERROR_NONE;
    so_far.result = s_interface_header->m_open(&ctx);
    so_far.cause = errno;
    so_far.ended = so_far.result == 0 || ctx.m_last_error != KESTAL_CTX_ERROR_NOT_SUPPORTED;
}

offer offer_to_plugins(kestal_ctx_t &ctx)
{
    kestal_plugin_info_t *registry = kestal_get_plugin_info();
    const shared_spin_guard guard(registry->m_lock);
    offer so_far;
    for (kestal_plugin_t *plugin = registry->m_head; plugin != nullptr && !so_far.ended; plugin = plugin->m_next)
        offer_to_plugin(ctx, *plugin, so_far);
    return so_far;
}

void close_at_plugin(kestal_ctx_t &ctx)
{
    const shared_spin_guard guard(ctx.m_plugin->m_lock);
    if (!is_initialized(*ctx.m_plugin))
        return;
    const kestal_ctx0_v0_interface_t *interface = known_interface(*ctx.m_plugin);
    if (interface != nullptr && interface->m_close != nullptr)
        interface->m_close(&ctx);
}

// Opens a new context as a stream whose options `set_options` sets.
template <typename Options>
uint32_t open_stream(const char *mode, int32_t debug, Options set_options)
{
    owned_ctx ctx(kestal_new_ctx());
    if (!ctx || set_options(ctx.get()) != 0 || kestal_ctx_set_option_string(ctx.get(), 1, "mode", mode) != 0 ||
        kestal_ctx_set_option_int_string(ctx.get(), 1, "debug", debug) != 0 ||
        kestal_open_ctx(ctx.get(), stream_type) != 0)
        return KESTAL_INVALID_ID;
    return ctx.release();
}

// --- forwarding

template <typename Operation>
using slot = Operation kestal_ctx0_v0_interface_t::*;

// The serving plugin's operation; without one the last error says so.
template <typename Operation>
Operation find_operation(kestal_ctx_t &ctx, slot<Operation> wanted)
{
    const kestal_ctx0_v0_interface_t *interface = known_interface(*ctx.m_plugin);
    Operation operation = interface == nullptr ? nullptr : interface->*wanted;
    if (operation == nullptr)
        ctx.m_last_error = KESTAL_CTX_ERROR_NOT_SUPPORTED;
    return operation;
}

// The record of an open context with its last error cleared, or null.
kestal_ctx_t *start_call(uint32_t id)
{
    kestal_ctx_t *ctx = kestal_get_valid_ctx(id);
    if (ctx != nullptr)
        ctx->m_last_error = KESTAL_CTX_ERROR_NONE;
    return ctx;
}

template <typename Result, typename... Parameters, typename... Arguments>
Result call(kestal_ctx_t *ctx, Result failure, slot<Result (*)(kestal_ctx_t *, Parameters...)> wanted,
            Arguments... arguments)
{
    const auto operation = ctx == nullptr ? nullptr : find_operation(*ctx, wanted);
    return operation == nullptr ? failure : operation(ctx, arguments...);
}

using control_operation = int32_t (*)(kestal_ctx_t *, uint32_t, va_list);

int32_t call_control(uint32_t id, slot<control_operation> wanted, uint32_t code, va_list arguments)
{
    kestal_ctx_t *ctx = start_call(id);
    // Whether there are controls at all is judged by vbcontrol, whichever is called: plugins rely on it.
    if (ctx == nullptr || find_operation(*ctx, &kestal_ctx0_v0_interface_t::m_vbcontrol) == nullptr)
        return -1;
    const control_operation operation = find_operation(*ctx, wanted);
    return operation == nullptr ? -1 : operation(ctx, code, arguments);
}

// A formatted text for a call on an open context, whose last error tells of a failure.
char *format_for(uint32_t id, const char *format, va_list arguments)
{
    char *text = kestal_alloc_vsprintf(format, arguments);
    if (text != nullptr)
        return text;
    if (kestal_ctx_t *ctx = kestal_get_valid_ctx(id))
        ctx->m_last_error = KESTAL_CTX_ERROR_NO_MEMORY;
    return nullptr;
}

template <typename Record>
int32_t ask_database(uint32_t id, uint32_t code, Record &record)
{
    return kestal_ctx_xcontrol(id, code, &record, uint64_t{sizeof(record)});
}

// --- fetching a location whole

bool add_headers(uint32_t id, const char *headers)
{
    const char *line = or_empty(headers);
    while (*line != '\0') {
        const size_t length = strcspn(line, "\r\n");
        if (length > 0 && kestal_ctx_set_option(id, 0, "httpheader", line, length) != 0)
            return false;
        line += length;
        line += strspn(line, "\r\n");
    }
    return true;
}

class owned_buffer {
public:
    owned_buffer() : buffer_(kestal_open_buffer_ex(0)) {}
    ~owned_buffer() { kestal_close_buffer(buffer_); }
    owned_buffer(const owned_buffer &) = delete;
    owned_buffer &operator=(const owned_buffer &) = delete;

    kestal_buffer_t *get() const { return buffer_; }

private:
    kestal_buffer_t *buffer_;
};

// Gathers a stream up to its end; false when it fails, stalls, or reaches `limit` bytes.
bool gather(uint32_t id, uint64_t limit, int32_t timeout, kestal_buffer_t *gathered)
{
    for (;;) {
        char chunk[2048];
        if (kestal_ctx_is_readable(id, timeout) <= 0)
            return false;
        const int64_t length = kestal_ctx_read(id, chunk, sizeof(chunk));
        if (length <= 0)
            return length == 0;
        if (kestal_push_buffer_ex(gathered, chunk, static_cast<uint64_t>(length), 0) != static_cast<uint64_t>(length))
            return false;
        if (limit != 0 && kestal_get_buffer_size(gathered) >= limit)
            return false;
    }
}

} // namespace

uint32_t kestal_new_ctx(void)
{
    owned_block<kestal_ctx_t> ctx(kestal_calloc(1, sizeof(kestal_ctx_t)), __func__);
    if (!ctx)
        return KESTAL_INVALID_ID;
    ctx->m_kind = -1;
    ctx->m_id = kestal_ginstance_new_ex(ctx.get(), ctx_type, nullptr);
    if (ctx->m_id == KESTAL_INVALID_ID)
        return KESTAL_INVALID_ID;
    ctx->m_base_plugin_id = kestal_load_plugin(nullptr, nullptr, nullptr);
    return ctx.release()->m_id;
}

int32_t kestal_open_ctx(uint32_t id, const char *mime_type)
{
    kestal_ctx_t *ctx = find_ctx(id);
    if (ctx == nullptr)
        return -1;
    ctx->m_last_error = KESTAL_CTX_ERROR_NONE;
    if (ctx->m_plugin != nullptr) {
        ctx->m_last_error = KESTAL_CTX_ERROR_ALREADY_OPEN;
        return -1;
    }
    char *type = mime_type == nullptr ? nullptr : kestal_strdup(mime_type);
    if (type == nullptr && mime_type != nullptr) {
        ctx->m_last_error = KESTAL_CTX_ERROR_NO_MEMORY;
        return -1;
    }
    set_mime_type(*ctx, type);
    const offer made = offer_to_plugins(*ctx);
    if (made.result == 0)
        return 0;
    if (ctx->m_last_error == KESTAL_CTX_ERROR_NONE)
        ctx->m_last_error = KESTAL_CTX_ERROR_NOT_SUPPORTED;
    forget_plugin(*ctx);
    errno = made.cause;
    return made.result;
}

int32_t kestal_close_ctx(uint32_t id)
{
    kestal_ctx_t *ctx = find_ctx(id);
    if (ctx == nullptr)
        return -1;
    ctx->m_last_error = KESTAL_CTX_ERROR_NONE;
    if (ctx->m_plugin != nullptr)
        close_at_plugin(*ctx);
    forget_plugin(*ctx);
    ctx->m_last_error = KESTAL_CTX_ERROR_NONE;
    free_options(*ctx);
    return 0;
}

uint32_t kestal_destroy_ctx(uint32_t id)
{
    kestal_ctx_t *ctx = find_ctx(id);
    if (ctx == nullptr)
        return KESTAL_INVALID_ID;
    kestal_close_ctx(id);
    if (ctx->m_base_plugin_id != KESTAL_INVALID_ID)
        kestal_unload_plugin(ctx->m_base_plugin_id);
    kestal_ginstance_delete(id);
    kestal_free(ctx);
    return KESTAL_INVALID_ID;
}

uint32_t kestal_open_ctx_stream(const char *source, const char *mode, int32_t debug)
{
    return open_stream(mode, debug, [=](uint32_t id) { return kestal_ctx_set_option_string(id, 1, "src", source); });
}

uint32_t kestal_open_ctx_stream_fd(int32_t descriptor, const char *mode, int32_t debug)
{
    return open_stream(mode, debug,
                       [=](uint32_t id) { return kestal_ctx_set_option_int_string(id, 1, "fd", descriptor); });
}

kestal_ctx_t *kestal_get_valid_ctx(uint32_t id)
{
    kestal_ctx_t *ctx = find_ctx(id);
    return ctx != nullptr && ctx->m_plugin != nullptr && is_initialized(*ctx->m_plugin) ? ctx : nullptr;
}

const char *kestal_get_ctx_plugin_name(uint32_t id)
{
    const kestal_ctx_t *ctx = kestal_get_valid_ctx(id);
    return ctx == nullptr ? nullptr : ctx->m_plugin->m_name;
}

const char *kestal_get_ctx_mime_type_hint(uint32_t id)
{
    const kestal_ctx_t *ctx = kestal_get_valid_ctx(id);
    return ctx == nullptr ? nullptr : ctx->m_plugin->m_mime_type_hint;
}

int32_t kestal_check_ctx_mime_type(uint32_t id, const char *mime_type)
{
    const kestal_ctx_t *ctx = kestal_get_valid_ctx(id);
    return ctx == nullptr ? -1 : kestal_compare_mime_type_hint(ctx->m_plugin->m_mime_type_hint, mime_type);
}

int32_t kestal_compare_mime_type(const char *left, const char *right)
{
    return strcmp(or_empty(left), or_empty(right));
}

int32_t kestal_compare_mime_type_hint(const char *hint_list, const char *mime_type)
{
    // A plugin without a list takes any request.
    if (hint_list == nullptr)
        return 0;
    return kestal_match_wildcard_list(hint_list, ";|", mime_type) != 0 ? 0 : -1;
}

const char *kestal_get_ctx_error_text(uint32_t code)
{
    switch (code) {
    case KESTAL_CTX_ERROR_NONE:
        return "no error";
    case KESTAL_CTX_ERROR_NOT_OPENED:
        return "cannot be opened";
    case KESTAL_CTX_ERROR_NOT_SUPPORTED:
        return "not supported";
    case KESTAL_CTX_ERROR_BAD_ARGUMENT:
        return "bad argument";
    case KESTAL_CTX_ERROR_SHORT_BUFFER:
        return "buffer too small";
    case KESTAL_CTX_ERROR_NO_MEMORY:
        return "out of memory";
    case KESTAL_CTX_ERROR_ALREADY_OPEN:
        return "already open";
    case KESTAL_CTX_ERROR_REMOTE:
        return "remote transfer could not be set up";
    default:
        return "unknown error";
    }
}

int32_t kestal_ctx_set_option(uint32_t id, uint32_t replace, const char *name, const void *value, uint64_t size)
{
    kestal_ctx_t *ctx = find_ctx_for_options(id);
    if (ctx == nullptr)
        return -1;
    if (name == nullptr && replace == all_ones && value == nullptr && size == 0) {
        free_options(*ctx);
        return 0;
    }
    // Made before the old one goes: the value may be the old option's.
    kestal_ctx_option_t *option = new_option(name, value, size);
    if (option == nullptr) {
        ctx->m_last_error = KESTAL_CTX_ERROR_NO_MEMORY;
        return -1;
    }
    if (replace != 0)
        remove_first_option(*ctx, name);
    append_option(*ctx, option);
    return 0;
}

int32_t kestal_ctx_set_option_string(uint32_t id, uint32_t replace, const char *name, const char *text)
{
    return kestal_ctx_set_option(id, replace, name, or_empty(text), strlen(or_empty(text)));
}

int32_t kestal_ctx_set_option_fstring(uint32_t id, uint32_t replace, const char *name, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int32_t result = kestal_ctx_set_option_vfstring(id, replace, name, format, arguments);
    va_end(arguments);
    return result;
}

int32_t kestal_ctx_set_option_vfstring(uint32_t id, uint32_t replace, const char *name, const char *format,
                                       va_list arguments)
{
    const owned_block<char> text(kestal_alloc_vsprintf(format, arguments), __func__);
    // Success although nothing was set: callers rely on the option being left alone.
    if (!text) {
        find_ctx_for_options(id);
        return 0;
    }
    return kestal_ctx_set_option_string(id, replace, name, text.get());
}

int32_t kestal_ctx_set_option_int_string(uint32_t id, uint32_t replace, const char *name, int32_t value)
{
    char text[16];
    kestal_snprintf(text, sizeof(text), "%d", value);
    return kestal_ctx_set_option_string(id, replace, name, text);
}

const kestal_ctx_option_t *kestal_ctx_get_option(uint32_t id, const char *name)
{
    const kestal_ctx_t *ctx = find_ctx_for_options(id);
    const kestal_ctx_option_t *option = ctx == nullptr ? nullptr : ctx->m_option_head;
    while (option != nullptr && !has_name(*option, name))
        option = option->m_next;
    return option;
}

const char *kestal_ctx_get_option_string_ex(uint32_t id, const char *name, const char *otherwise)
{
    const kestal_ctx_option_t *option = kestal_ctx_get_option(id, name);
    return option == nullptr || option->m_value == nullptr ? otherwise : static_cast<const char *>(option->m_value);
}

const char *kestal_ctx_get_option_string(uint32_t id, const char *name)
{
    return kestal_ctx_get_option_string_ex(id, name, nullptr);
}

int32_t kestal_ctx_bcontrol(uint32_t id, uint32_t code, ...)
{
    va_list arguments;
    va_start(arguments, code);
    const int32_t result = kestal_ctx_vbcontrol(id, code, arguments);
    va_end(arguments);
    return result;
}

int32_t kestal_ctx_vbcontrol(uint32_t id, uint32_t code, va_list arguments)
{
    return call_control(id, &kestal_ctx0_v0_interface_t::m_vbcontrol, code, arguments);
}

int32_t kestal_ctx_xcontrol(uint32_t id, uint32_t code, ...)
{
    va_list arguments;
    va_start(arguments, code);
    const int32_t result = kestal_ctx_vxcontrol(id, code, arguments);
    va_end(arguments);
    return result;
}

int32_t kestal_ctx_vxcontrol(uint32_t id, uint32_t code, va_list arguments)
{
    return call_control(id, &kestal_ctx0_v0_interface_t::m_vxcontrol, code, arguments);
}

int32_t kestal_ctx_control(uint32_t id, uint32_t code, ...)
{
    va_list arguments;
    va_start(arguments, code);
    const int32_t result = kestal_ctx_vcontrol(id, code, arguments);
    va_end(arguments);
    return result;
}

int32_t kestal_ctx_vcontrol(uint32_t id, uint32_t code, va_list arguments)
{
    return call_control(id, &kestal_ctx0_v0_interface_t::m_vcontrol, code, arguments);
}

int32_t kestal_ctx_is_readable(uint32_t id, int32_t timeout)
{
    return call(start_call(id), -1, &kestal_ctx0_v0_interface_t::m_is_readable, timeout);
}

int64_t kestal_ctx_read(uint32_t id, void *buffer, uint64_t size)
{
    return call(start_call(id), int64_t{-1}, &kestal_ctx0_v0_interface_t::m_read, buffer, size);
}

int32_t kestal_ctx_is_writable(uint32_t id, int32_t timeout)
{
    return call(start_call(id), -1, &kestal_ctx0_v0_interface_t::m_is_writable, timeout);
}

int64_t kestal_ctx_write(uint32_t id, const void *data, uint64_t size)
{
    return call(start_call(id), int64_t{-1}, &kestal_ctx0_v0_interface_t::m_write, data, size);
}

int64_t kestal_ctx_seek(uint32_t id, int64_t offset, uint32_t whence)
{
    return call(start_call(id), int64_t{-1}, &kestal_ctx0_v0_interface_t::m_seek, offset, whence);
}

int32_t kestal_ctx_rewind(uint32_t id)
{
    return kestal_ctx_seek(id, 0, SEEK_SET) == 0 ? 0 : -1;
}

int32_t kestal_ctx_sync(uint32_t id)
{
    return call(start_call(id), -1, &kestal_ctx0_v0_interface_t::m_sync);
}

void *kestal_ctx_get_env(uint32_t id, uint64_t a, uint64_t b, uint64_t *size)
{
    if (size != nullptr)
        *size = 0;
    return call(start_call(id), static_cast<void *>(nullptr), &kestal_ctx0_v0_interface_t::m_get_env, a, b, size);
}

int32_t kestal_ctx_set_env(uint32_t id, uint64_t a, uint64_t b, uint64_t c, uint64_t d)
{
    return call(start_call(id), -1, &kestal_ctx0_v0_interface_t::m_set_env, a, b, c, d);
}

int32_t kestal_ctx_get_last_error(uint32_t id)
{
    return static_cast<int32_t>(
        call(kestal_get_valid_ctx(id), all_ones, &kestal_ctx0_v0_interface_t::m_get_last_error));
}

int32_t kestal_ctx_set_last_error(uint32_t id, uint32_t code)
{
    return call(kestal_get_valid_ctx(id), -1, &kestal_ctx0_v0_interface_t::m_set_last_error, code);
}

int64_t kestal_ctx_puts(uint32_t id, const char *text)
{
    return kestal_ctx_write(id, or_empty(text), strlen(or_empty(text)));
}

int64_t kestal_ctx_printf(uint32_t id, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int64_t result = kestal_ctx_vprintf(id, format, arguments);
    va_end(arguments);
    return result;
}

int64_t kestal_ctx_vprintf(uint32_t id, const char *format, va_list arguments)
{
    const owned_block<char> text(format_for(id, format, arguments), __func__);
    return text ? kestal_ctx_puts(id, text.get()) : 0;
}

kestal_main_entry_t kestal_ctx_get_main_entry(uint32_t id)
{
    kestal_ctx_t *ctx = start_call(id);
    if (ctx == nullptr)
        return nullptr;
    const kestal_ctx0_v0_interface_t *s_interface_header = known_interface(*ctx->m_plugin);
    if (s_interface_header == nullptr || s_interface_header->m_revision == 0) {
        ctx->m_last_error = KESTAL_CTX_ERROR_NOT_SUPPORTED;
        return nullptr;
    }
    if (s_interface_header->m_size < sizeof(kestal_ctx0_v1_interface_t))
        kestal_assert_fail_tag(source_path, __func__, __LINE__,
                               "s_interface_header->m_size >= sizeof(kestal_ctx0_v1_interface_t)");
    return find_operation(*ctx, &kestal_ctx0_v0_interface_t::m_main);
}

int32_t kestal_ctx_is_executable_main(uint32_t id)
{
    return kestal_ctx_get_main_entry(id) == nullptr ? -1 : 0;
}

int kestal_ctx_execute_main(uint32_t id, int argc, char **argv)
{
    const kestal_main_entry_t entry = kestal_ctx_get_main_entry(id);
    return entry == nullptr ? 1 : entry(argc, argv);
}

uint64_t kestal_ctx_db_get_query_puts(uint32_t id, const char *query)
{
    kestal_ctx_db_get_query_record_t record = {.m_result = 0, .m_reserved = 0, .m_query = query};
    ask_database(id, KESTAL_CTX_CONTROL_DB_GET_QUERY, record);
    return record.m_result;
}

uint64_t kestal_ctx_db_get_query(uint32_t id, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const uint64_t result = kestal_ctx_db_get_vquery(id, format, arguments);
    va_end(arguments);
    return result;
}

uint64_t kestal_ctx_db_get_vquery(uint32_t id, const char *format, va_list arguments)
{
    const owned_block<char> query(format_for(id, format, arguments), __func__);
    return query ? kestal_ctx_db_get_query_puts(id, query.get()) : 0;
}

int32_t kestal_ctx_db_set_query_puts(uint32_t id, const char *query)
{
    kestal_ctx_db_set_query_record_t record = {.m_status = -1, .m_padding = 0, .m_reserved = 0, .m_query = query};
    ask_database(id, KESTAL_CTX_CONTROL_DB_SET_QUERY, record);
    return record.m_status;
}

int32_t kestal_ctx_db_set_query(uint32_t id, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int32_t result = kestal_ctx_db_set_vquery(id, format, arguments);
    va_end(arguments);
    return result;
}

int32_t kestal_ctx_db_set_vquery(uint32_t id, const char *format, va_list arguments)
{
    const owned_block<char> query(format_for(id, format, arguments), __func__);
    return query ? kestal_ctx_db_set_query_puts(id, query.get()) : -1;
}

uint64_t kestal_ctx_db_free_result(uint32_t id, uint64_t result)
{
    kestal_ctx_db_free_result_record_t record = {.m_result = result};
    ask_database(id, KESTAL_CTX_CONTROL_DB_FREE_RESULT, record);
    return record.m_result;
}

uint64_t kestal_ctx_db_fetch_row(uint32_t id, uint64_t result)
{
    kestal_ctx_db_fetch_row_record_t record = {.m_row = 0, .m_result = result};
    ask_database(id, KESTAL_CTX_CONTROL_DB_FETCH_ROW, record);
    return record.m_row;
}

uint64_t kestal_ctx_db_get_row_count(uint32_t id, uint64_t result)
{
    kestal_ctx_db_get_count_record_t record = {.m_count = 0, .m_result = result};
    ask_database(id, KESTAL_CTX_CONTROL_DB_GET_ROW_COUNT, record);
    return record.m_count;
}

uint64_t kestal_ctx_db_get_field_count(uint32_t id, uint64_t result)
{
    kestal_ctx_db_get_count_record_t record = {.m_count = 0, .m_result = result};
    ask_database(id, KESTAL_CTX_CONTROL_DB_GET_FIELD_COUNT, record);
    return record.m_count;
}

int32_t kestal_ctx_db_get_field_index(uint32_t id, uint64_t result, uint32_t flags, const char *name)
{
    kestal_ctx_db_get_field_index_record_t record = {
        .m_index = -1, .m_flags = flags, .m_name = name, .m_result = result};
    ask_database(id, KESTAL_CTX_CONTROL_DB_GET_FIELD_INDEX, record);
    return record.m_index;
}

int32_t kestal_ctx_db_get_field_index_f(uint32_t id, uint64_t result, uint32_t flags, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int32_t index = kestal_ctx_db_get_field_index_v(id, result, flags, format, arguments);
    va_end(arguments);
    return index;
}

int32_t kestal_ctx_db_get_field_index_v(uint32_t id, uint64_t result, uint32_t flags, const char *format,
                                        va_list arguments)
{
    const owned_block<char> name(format_for(id, format, arguments), __func__);
    return name ? kestal_ctx_db_get_field_index(id, result, flags, name.get()) : -1;
}

const char *kestal_ctx_db_get_field_name(uint32_t id, uint64_t result, uint32_t index)
{
    kestal_ctx_db_get_field_name_record_t record = {
        .m_name = nullptr, .m_index = index, .m_padding = 0, .m_result = result};
    ask_database(id, KESTAL_CTX_CONTROL_DB_GET_FIELD_NAME, record);
    return record.m_name;
}

int32_t kestal_ctx_db_dump_result(uint32_t id, uint64_t result, uint64_t a, uint64_t b)
{
    kestal_ctx_db_dump_result_record_t record = {.m_a = a, .m_b = b, .m_result = result};
    return ask_database(id, KESTAL_CTX_CONTROL_DB_DUMP_RESULT, record);
}

int32_t kestal_ctx_get_fbinfo(uint32_t id, kestal_ctx_fbinfo_t *info)
{
    return kestal_ctx_xcontrol(id, KESTAL_CTX_CONTROL_GET_FBINFO, info, uint64_t{sizeof(*info)});
}

int32_t kestal_ctx_simple_http_get(const char *url, const char *headers, uint64_t limit, int32_t timeout, void **data,
                                   uint64_t *size)
{
    if (data != nullptr)
        *data = nullptr;
    if (size != nullptr)
        *size = 0;
    const owned_ctx ctx(kestal_new_ctx());
    if (!ctx || kestal_ctx_set_option_string(ctx.get(), 1, "src", url) != 0 ||
        kestal_ctx_set_option_string(ctx.get(), 1, "mode", "rb") != 0 ||
        kestal_ctx_set_option_string(ctx.get(), 1, "debug", "0") != 0 || !add_headers(ctx.get(), headers) ||
        kestal_open_ctx(ctx.get(), stream_type) != 0)
        return -1;
    const owned_buffer gathered;
    if (gathered.get() == nullptr || !gather(ctx.get(), limit, timeout, gathered.get()))
        return -1;
    const uint64_t length = kestal_get_buffer_size(gathered.get());
    if (length == 0 || data == nullptr)
        return 0;
    *data = kestal_alloc_pop_buffer_ex(gathered.get(), length, 1);
    if (*data == nullptr)
        return -1;
    if (size != nullptr)
        *size = length;
    return 0;
}
