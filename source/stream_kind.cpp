#include "stream_kind.hpp"

#include "deadline.hpp"
#include "uri.hpp"

#include <kestal_ulx/file.h>
#include <kestal_ulx/text.h>

#include <algorithm>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

namespace kestal {

namespace {

constexpr const stream_kind *kinds[] = {
    &base_kind, &multicall_kind, &file_kind, &pipe_kind, &tcp_kind, &udp_kind,
#if KESTAL_PROTOCOLS
    &tftp_kind, &ftp_kind,
#endif
#if KESTAL_PICTURES
    &fb_kind,
#endif
};

uint32_t open_without_state(kestal_ctx_t &, stream_request &)
{
    return KESTAL_CTX_ERROR_NONE;
}

template <typename Condition>
const stream_kind *find_kind_if(Condition is_wanted)
{
    for (const stream_kind *kind : kinds)
        if (is_wanted(*kind))
            return kind;
    return nullptr;
}

} // namespace

constinit const stream_kind base_kind = {
    .code = KESTAL_CTX_KIND_BASE, .types = {"application/ulx_base"}, .open = open_without_state};

constinit const stream_kind multicall_kind = {
    .code = KESTAL_CTX_KIND_MULTICALL,
    .types = {"application/ulx_multicall", "application/ulx_multicall_builtin"},
    .open = open_without_state};

const stream_kind *find_kind(int32_t code)
{
    return find_kind_if([=](const stream_kind &kind) { return kind.code == code; });
}

const stream_kind *find_kind_of_type(const char *mime_type)
{
    return find_kind_if([=](const stream_kind &kind) {
        return std::any_of(kind.types.begin(), kind.types.end(),
                           [=](const char *type) { return type != nullptr && strcmp(type, mime_type) == 0; });
    });
}

const stream_kind *find_kind_of_scheme(const char *scheme)
{
    return find_kind_if([=](const stream_kind &kind) {
        return kind.scheme != nullptr && kestal_compare_ignore_case(kind.scheme, scheme) == 0;
    });
}

void read_options(const kestal_ctx_t &ctx, stream_request &request)
{
    if (const kestal_ctx_option_t *source = find_last_option(ctx, "src", "source"))
        request.source = static_cast<const char *>(source->m_value);
    if (const kestal_ctx_option_t *mode = find_last_option(ctx, "mode", "mode"))
        request.mode = static_cast<const char *>(mode->m_value);
    const kestal_ctx_option_t *descriptor = find_last_option(ctx, "fd", "fd");
    request.has_descriptor = descriptor != nullptr;
    const int64_t number = get_option_number(descriptor, -1, -1);
    request.descriptor = number < 0 || number > INT32_MAX ? -1 : static_cast<int32_t>(number);
    request.is_debugging = get_option_number(find_last_option(ctx, "debug", "verbose"), 0, 1) != 0;
    const kestal_ctx_option_t *offset = find_last_option(ctx, "offset", "offset");
    request.offset = std::max<int64_t>(get_option_number(offset, offset == nullptr ? 0 : -1, -1), -1);
}

uint32_t prepare_stream(stream_request &request)
{
    if (kestal_parse_file_mode(request.mode, &request.flags, &request.permission) != 0)
        return KESTAL_CTX_ERROR_NOT_SUPPORTED;
    if (request.has_descriptor)
        return KESTAL_CTX_ERROR_NONE;
    if (request.source == nullptr)
        return KESTAL_CTX_ERROR_NOT_SUPPORTED;
    request.uri.reset(open_whole_uri(request.source));
    return request.uri.get() == nullptr ? KESTAL_CTX_ERROR_NO_MEMORY : KESTAL_CTX_ERROR_NONE;
}

const kestal_ctx_option_t *find_last_option(const kestal_ctx_t &ctx, const char *name, const char *other_name)
{
    const kestal_ctx_option_t *last = nullptr;
    for (const kestal_ctx_option_t *option = ctx.m_option_head; option != nullptr; option = option->m_next)
        if (option->m_name != nullptr && (kestal_compare_ignore_case(option->m_name, name) == 0 ||
                                          kestal_compare_ignore_case(option->m_name, other_name) == 0))
            last = option;
    return last;
}

int64_t get_option_number(const kestal_ctx_option_t *option, int64_t otherwise, int64_t valueless)
{
    if (option == nullptr)
        return otherwise;
    if (option->m_value == nullptr)
        return valueless;
    const char *text = static_cast<const char *>(option->m_value);
    char *end = nullptr;
    errno = 0;
    const long long number = strtoll(text, &end, 10);
    return end != text && *end == '\0' && errno == 0 ? number : otherwise;
}

int32_t wait_for_descriptor(int descriptor, short events, int32_t timeout)
{
    if (wait_for_events(descriptor, events, deadline(timeout)))
        return 1;
    return errno == ETIMEDOUT ? 0 : -1;
}

} // namespace kestal
