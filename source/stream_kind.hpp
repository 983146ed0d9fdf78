// The kinds of context that the built-in plugin serves: what each kind is asked for, and where a new one is entered.
// A kind is one constant of type stream_kind, defined in the source file of its family (stream_file.cpp: files and
// pipes; stream_socket.cpp: TCP and UDP; stream_tftp.cpp; stream_ftp.cpp) and listed in stream_kind.cpp; the plugin itself only passes calls on.
#pragma once

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/interface.h>
#include <kestal_ulx/uri.h>

#include <array>
#include <errno.h>
#include <utility>

namespace kestal {

// Owns one URI.
class owned_uri {
public:
    owned_uri() = default;
    ~owned_uri() { reset(nullptr); }
    owned_uri(const owned_uri &) = delete;
    owned_uri &operator=(const owned_uri &) = delete;

    const kestal_uri_t *get() const { return uri_; }
    const kestal_uri_t *operator->() const { return uri_; }
    kestal_uri_t *release() { return std::exchange(uri_, nullptr); }
    void reset(kestal_uri_t *uri)
    {
        if (uri_ != nullptr)
            kestal_close_uri(uri_);
        uri_ = uri;
    }

private:
    kestal_uri_t *uri_ = nullptr;
};

// What a context's options ask for. Texts are the options' own, which may change once the context is open.
struct stream_request {
    const char *source = nullptr; // null when there is none
    owned_uri uri;                // the source of a stream in its parts; a kind that needs it for longer takes it over
    const char *mode = "rb";
    uint32_t flags = 0;      // the mode as KESTAL_FILE_... flags; streams only
    uint32_t permission = 0; // the mode's permissions of a new file; streams only
    bool has_descriptor = false;
    int32_t descriptor = -1; // the caller's, never closed by the context; -1 is a bad one
    bool is_debugging = false;
    int64_t offset = 0; // where to begin, for transports that cannot seek; -1 is a bad one
};

// One kind. An operation that it does not have is null: the answer is then last error 3, or "ready" to a wait. Opening
// gives the last error (0: open); everything else answers as the plugin's interface has it. A failing system call
// leaves its cause in errno.
struct stream_kind {
    int32_t code;                           // KESTAL_CTX_KIND_..., a context's m_kind
    std::array<const char *, 2> types = {}; // MIME types, compared with case
    const char *scheme = nullptr;           // picks the kind for the type "application/ulx_stream"; null for no stream

    uint32_t (*open)(kestal_ctx_t &ctx, stream_request &request) = nullptr;
    int32_t (*close)(kestal_ctx_t &ctx) = nullptr;
    int32_t (*xcontrol)(kestal_ctx_t &ctx, uint32_t code, va_list arguments) = nullptr;
    int32_t (*get_size)(kestal_ctx_t &ctx, uint64_t &size) = nullptr;
    int32_t (*is_readable)(kestal_ctx_t &ctx, int32_t timeout) = nullptr;
    int64_t (*read)(kestal_ctx_t &ctx, void *buffer, uint64_t size) = nullptr;
    int32_t (*is_writable)(kestal_ctx_t &ctx, int32_t timeout) = nullptr;
    int64_t (*write)(kestal_ctx_t &ctx, const void *data, uint64_t size) = nullptr;
    int64_t (*seek)(kestal_ctx_t &ctx, int64_t offset, uint32_t whence) = nullptr;
    int32_t (*sync)(kestal_ctx_t &ctx) = nullptr;
};

extern const stream_kind base_kind;
extern const stream_kind multicall_kind;
extern const stream_kind file_kind;
extern const stream_kind pipe_kind;
extern const stream_kind tcp_kind;
extern const stream_kind udp_kind;
extern const stream_kind tftp_kind;
extern const stream_kind ftp_kind;
extern const stream_kind fb_kind;

// The kind of that code, type or scheme, or null.
const stream_kind *find_kind(int32_t code);
const stream_kind *find_kind_of_type(const char *mime_type);
const stream_kind *find_kind_of_scheme(const char *scheme);

// What the context's options ask for, so far as it holds for any kind.
void read_options(const kestal_ctx_t &ctx, stream_request &request);

// Completes the request for a stream: mode and, when no descriptor was given, the source's parts. The last error.
uint32_t prepare_stream(stream_request &request);

// The last option of either name, whatever the case, or null.
const kestal_ctx_option_t *find_last_option(const kestal_ctx_t &ctx, const char *name, const char *other_name);

// Its value as a decimal number: `otherwise` without an option or when it is no number, `valueless` without a value.
int64_t get_option_number(const kestal_ctx_option_t *option, int64_t otherwise, int64_t valueless);

// Waits for `events` (of poll) or a hang-up: 1, 0 after `timeout` ms (negative: no limit), -1 on failure. Signals do
// not end the wait.
int32_t wait_for_descriptor(int descriptor, short events, int32_t timeout);

// The transfer's result, made again as long as only a signal ends it.
template <typename Transfer>
int64_t without_interruption(Transfer transfer)
{
    int64_t count = 0;
    do
        count = transfer();
    while (count < 0 && errno == EINTR);
    return count;
}

// The record that a control call brings, or null with last error 4 when it is missing or too small.
template <typename Record>
Record *take_record(kestal_ctx_t &ctx, va_list arguments)
{
    Record *s_arg = va_arg(arguments, Record *);
    const uint64_t s_arg_size = va_arg(arguments, uint64_t);
    if (s_arg == nullptr || s_arg_size < sizeof(*s_arg)) {
        ctx.m_last_error = KESTAL_CTX_ERROR_BAD_ARGUMENT;
        return nullptr;
    }
    if (s_arg_size != sizeof(*s_arg))
        kestal_assert_fail_tag("./source/builtin_plugin", __func__, __LINE__, "s_arg_size == sizeof(*s_arg)");
    return s_arg;
}

} // namespace kestal
