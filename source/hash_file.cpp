#include <kestal_ulx/hash_file.h>

#include "guard.hpp"
#include "interface.hpp"

#include <kestal_ulx/buffer.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/short_lock.h>
#include <kestal_ulx/text.h>
#include <kestal_ulx/time_stamp.h>

#include <errno.h>
#include <string.h>

namespace {

using kestal::owned_block;
using kestal::owned_ctx;

constexpr uint64_t chunk_size = 32768;
constexpr uint64_t size_limit = 1048576;
constexpr int32_t wait_limit = 16000;  // ms for one wait
constexpr uint64_t time_limit = 60000; // ms in all

// Queues the bytes of a stream up to its end or a limit; false when memory is short.
bool gather(uint32_t stream, kestal_buffer_t *gathered)
{
    const uint64_t start = kestal_time_stamp_msec();
    const owned_block<char> chunk(kestal_alloc(chunk_size), __func__);
    if (!chunk)
        return false;
    do {
        const int32_t ready = kestal_ctx_is_readable(stream, wait_limit);
        if (ready == 0) {
            kestal_load_balance();
            continue;
        }
        const int64_t length = ready < 0 ? -1 : kestal_ctx_read(stream, chunk.get(), chunk_size);
        if (length <= 0)
            return true;
        const uint64_t queued = kestal_push_buffer_ex(gathered, chunk.get(), static_cast<uint64_t>(length), 0);
        if (queued != static_cast<uint64_t>(length))
            return false;
    } while (kestal_get_buffer_size(gathered) <= size_limit && kestal_time_stamp_msec() - start <= time_limit);
    return true;
}

// A line's first character that matters, or null when the line makes no entry.
const char *content_of(const char *line)
{
    const char *content = kestal_skip_space(line);
    return *content == '\0' || *content == '#' ? nullptr : content;
}

kestal_hash_file_t *new_entry(const char *line)
{
    const size_t length = strlen(line);
    void *block = kestal_alloc_tag(sizeof(kestal_hash_file_t) + length + 1, "kestal_load_hash_file", __LINE__);
    if (block == nullptr)
        return nullptr;
    kestal_hash_file_t *entry = static_cast<kestal_hash_file_t *>(block);
    char *key = static_cast<char *>(memcpy(entry + 1, line, length + 1));
    char *key_end = key + strcspn(key, " \t\r\n");
    char *value = key_end + (*key_end == '\0' ? 0 : 1);
    *key_end = '\0';
    value += kestal_skip_space(value) - value;
    *entry = {.m_next = nullptr, .m_key = key, .m_value = value};
    return entry;
}

// Makes an entry of each line; false when memory is short.
bool append_entries(kestal_buffer_t *gathered, kestal_hash_file_t **end)
{
    for (;;) {
        errno = 0;
        const owned_block<char> line(kestal_pop_buffer_line(gathered), __func__);
        if (!line)
            return errno != ENOMEM;
        const char *content = content_of(line.get());
        if (content == nullptr)
            continue;
        *end = new_entry(content);
        if (*end == nullptr)
            return false;
        end = &(*end)->m_next;
    }
}

} // namespace

kestal_hash_file_t *kestal_load_hash_file(const char *name)
{
    const owned_ctx stream(kestal_open_ctx_stream(name, "rb", 0));
    if (!stream)
        return nullptr;
    kestal_buffer_t *gathered = kestal_open_buffer_ex(0);
    kestal_hash_file_t *head = nullptr;
    if (gathered != nullptr && (!gather(stream.get(), gathered) || !append_entries(gathered, &head))) {
        kestal_free_hash_file(head);
        head = nullptr;
    }
    kestal_close_buffer(gathered);
    return head;
}

int32_t kestal_free_hash_file(kestal_hash_file_t *head)
{
    while (head != nullptr) {
        kestal_hash_file_t *next = head->m_next;
        kestal_free(head);
        head = next;
    }
    return 0;
}
