#include <kestal_ulx/simple_digest.h>

#include "guard.hpp"
#include "interface.hpp"

#include <kestal_ulx/memory.h>
#include <kestal_ulx/time_stamp.h>

#include <sched.h>

namespace {

using kestal::owned_block;
using kestal::owned_ctx;

constexpr uint64_t chunk_size = 32768;
constexpr int32_t wait_limit = 16000;      // ms for one wait
constexpr uint64_t patience_limit = 60000; // ms from the start, for a stream that has nothing to read

// Waits until the stream can be read; false when it fails or patience ends.
bool wait_for_bytes(uint32_t stream, uint64_t start)
{
    for (;;) {
        const int32_t ready = kestal_ctx_is_readable(stream, wait_limit);
        if (ready != 0)
            return ready > 0;
        if (kestal_time_stamp_msec() - start > patience_limit)
            return false;
        sched_yield();
    }
}

template <typename Context>
int32_t digest_stream(const char *source, Context *context, Context *(*init)(Context *),
                      int32_t (*push)(Context *, const void *, uint64_t))
{
    const uint64_t start = kestal_time_stamp_msec();
    if (context != nullptr)
        init(context);
    const owned_ctx stream(kestal_open_ctx_stream(source, "rb", 0));
    const owned_block<char> chunk(kestal_alloc(chunk_size), __func__);
    if (!stream || !chunk)
        return -1;
    while (wait_for_bytes(stream.get(), start)) {
        const int64_t length = kestal_ctx_read(stream.get(), chunk.get(), chunk_size);
        if (length <= 0)
            return length == 0 ? 0 : -1;
        if (context != nullptr)
            push(context, chunk.get(), static_cast<uint64_t>(length));
    }
    return -1;
}

} // namespace

int32_t kestal_simple_md5(const char *source, kestal_md5_t *context)
{
    return digest_stream(source, context, kestal_init_md5, kestal_md5_push);
}

int32_t kestal_simple_sha1(const char *source, kestal_sha1_t *context)
{
    return digest_stream(source, context, kestal_init_sha1, kestal_sha1_push);
}

int32_t kestal_simple_sha256(const char *source, kestal_sha256_t *context)
{
    return digest_stream(source, context, kestal_init_sha256, kestal_sha256_push);
}
