#include <kestal_ulx/buffer.h>

#include "guard.hpp"
#include "line_end.hpp"
#include "lock_guard.hpp"

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/file.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>

#include <algorithm>
#include <atomic>
#include <string.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr uint64_t unit_size = 4096;
constexpr uint32_t creation_flags = 0xFF;
// Flags under which nodes point at memory that a caller gave.
constexpr uint32_t lending_flags = KESTAL_BUFFER_REFERENCE | KESTAL_BUFFER_ADOPT;
constexpr uint32_t line_end_flags = KESTAL_BUFFER_CR | KESTAL_BUFFER_LF;

char *bytes_of(const kestal_buffer_node_t &node)
{
    return static_cast<char *>(node.m_data);
}

// Whether the node points at memory that a caller gave; a node that stores its own bytes bears none of these flags.
bool is_lent(const kestal_buffer_node_t &node)
{
    return (node.m_flags & lending_flags) != 0;
}

bool is_adopted(const kestal_buffer_node_t &node)
{
    return (node.m_flags & KESTAL_BUFFER_ADOPT) != 0;
}

// The only word of a buffer that threads other than its own may read while kestal_end_buffer changes it.
uint32_t flags_of(kestal_buffer_t &buffer)
{
    return std::atomic_ref(buffer.m_flags).load(std::memory_order_relaxed);
}

// Stores bytes, or zeros, into a node's free room.
void fill_node(kestal_buffer_node_t &node, const char *data, uint64_t length)
{
    char *room = bytes_of(node) + node.m_fill;
    if (data != nullptr)
        memcpy(room, data, static_cast<size_t>(length));
    else
        memset(room, 0, static_cast<size_t>(length));
    node.m_fill += length;
}

kestal_buffer_node_t *new_node(const void *data, uint64_t length, uint64_t least, uint32_t flags)
{
    if (data == nullptr)
        flags &= ~lending_flags;
    const bool stores = (flags & lending_flags) == 0;
    const uint64_t capacity = stores && (flags & KESTAL_BUFFER_EXACT) == 0 ? std::max(length, least) : length;
    if (stores && capacity > UINT64_MAX - sizeof(kestal_buffer_node_t))
        return nullptr;
    auto *node = static_cast<kestal_buffer_node_t *>(
        kestal_alloc_tag(sizeof(kestal_buffer_node_t) + (stores ? capacity : 0), "kestal_new_buffer_node", __LINE__));
    if (node == nullptr)
        return nullptr;
    *node = {.m_next = nullptr,
             .m_flags = flags,
             .m_capacity = capacity,
             .m_fill = stores ? 0 : length,
             .m_read_position = 0,
             .m_data = stores ? node + 1 : const_cast<void *>(data)};
    if (stores)
        fill_node(*node, static_cast<const char *>(data), length);
    return node;
}

void free_node(kestal_buffer_node_t *node)
{
    // Memory referred to is its owner's to wipe: it may be read-only.
    if ((node->m_flags & KESTAL_BUFFER_WIPE) != 0 && (!is_lent(*node) || is_adopted(*node)))
        explicit_bzero(node->m_data, static_cast<size_t>(node->m_fill));
    if (is_adopted(*node))
        kestal_free(node->m_data);
    kestal_free(node);
}

kestal_buffer_node_t *unlink_head(kestal_buffer_t &buffer)
{
    kestal_buffer_node_t *head = std::exchange(buffer.m_head, buffer.m_head->m_next);
    if (buffer.m_head == nullptr)
        buffer.m_tail = nullptr;
    return head;
}

void forget_scan(kestal_buffer_t &buffer)
{
    buffer.m_scan_node = nullptr;
    buffer.m_scan_length = 0;
    buffer.m_scan_high_byte = 0;
}

void count_taken(kestal_buffer_t &buffer, uint64_t length)
{
    buffer.m_size -= length;
    buffer.m_offset += length;
    forget_scan(buffer);
}

// Takes bytes, of which as many must be queued, into the destination, or drops them without one.
void take(kestal_buffer_t &buffer, char *destination, uint64_t length)
{
    for (uint64_t left = length; left > 0;) {
        kestal_buffer_node_t &head = *buffer.m_head;
        const uint64_t part = std::min(left, head.m_fill - head.m_read_position);
        if (destination != nullptr) {
            memcpy(destination, bytes_of(head) + head.m_read_position, static_cast<size_t>(part));
            destination += part;
        }
        left -= part;
        head.m_read_position += part;
        if (head.m_read_position == head.m_fill)
            free_node(unlink_head(buffer));
    }
    count_taken(buffer, length);
}

bool append_node(kestal_buffer_t &buffer, const char *data, uint64_t length, uint32_t flags)
{
    kestal_buffer_node_t *node = new_node(data, length, buffer.m_unit_size, flags);
    if (node == nullptr)
        return false;
    if (buffer.m_tail != nullptr)
        buffer.m_tail->m_next = node;
    else
        buffer.m_head = node;
    buffer.m_tail = node;
    return true;
}

// Queues bytes under exactly these flags.
uint64_t append(kestal_buffer_t &buffer, const char *data, uint64_t length, uint32_t flags)
{
    uint64_t queued = 0;
    if (buffer.m_tail != nullptr && (flags & lending_flags) == 0) {
        kestal_buffer_node_t &tail = *buffer.m_tail;
        queued = std::min(length, tail.m_capacity - tail.m_fill);
        fill_node(tail, data, queued);
        tail.m_flags |= flags & KESTAL_BUFFER_WIPE;
    }
    if (queued < length && append_node(buffer, data == nullptr ? nullptr : data + queued, length - queued, flags))
        queued = length;
    buffer.m_size += queued;
    return queued;
}

// Queues bytes under the buffer's flags, but for those of `without`, and `flags` together.
uint64_t push(kestal_buffer_t &buffer, const void *data, uint64_t length, uint32_t flags, uint32_t without = 0)
{
    const auto append_all = [&] {
        const uint32_t all_flags = ((flags_of(buffer) & ~without) | flags) & creation_flags;
        return append(buffer, static_cast<const char *>(data), length, all_flags);
    };
    if (buffer.m_service == nullptr)
        return append_all();
    const kestal::lock_guard guard(buffer.m_lock);
    return append_all();
}

// Queues a copy of bytes that will not stay where they are.
uint64_t push_copy(kestal_buffer_t &buffer, const char *data, uint64_t length)
{
    return push(buffer, data, length, 0, lending_flags);
}

// The length of the first line with its end, or 0 when it is not complete. Goes on where the last search ended.
uint64_t find_line(kestal_buffer_t &buffer)
{
    kestal_buffer_node_t *node = buffer.m_scan_node;
    if (node == nullptr) {
        node = buffer.m_head;
        buffer.m_scan_position = node == nullptr ? 0 : node->m_read_position;
    }
    for (; node != nullptr; node = node->m_next, buffer.m_scan_position = 0) {
        const char *begin = bytes_of(*node) + buffer.m_scan_position, *end = bytes_of(*node) + node->m_fill;
        const char *at = kestal::find_line_end(begin, end, buffer.m_scan_high_byte);
        buffer.m_scan_node = node;
        buffer.m_scan_position += static_cast<uint64_t>(at - begin);
        buffer.m_scan_length += static_cast<uint64_t>(at - begin);
        if (at < end)
            return buffer.m_scan_length + 1;
        if (node->m_next == nullptr)
            break;
    }
    return 0;
}

// Drops the head byte when it is the second half of the CR LF or LF CR that ended the last line.
void drop_pair_byte(kestal_buffer_t &buffer)
{
    const uint32_t state = buffer.m_flags & line_end_flags;
    if (state == 0 || buffer.m_size == 0)
        return;
    const char partner = state == KESTAL_BUFFER_CR ? '\n' : '\r';
    if (bytes_of(*buffer.m_head)[buffer.m_head->m_read_position] != partner)
        return;
    take(buffer, nullptr, 1);
    buffer.m_flags &= ~line_end_flags;
}

// Hands every queued node to the handler until the service is to end.
void __kestal_buffer_handler_service(kestal_service_t *service, void *argument)
{
    kestal_buffer_t &buffer = *static_cast<kestal_buffer_t *>(argument);
    kestal_ack_service(service);
    while (kestal_break_service(service) == 0) {
        uint64_t length = 0, offset = 0, size = 0;
        void *block = nullptr;
        {
            const kestal::lock_guard guard(buffer.m_lock);
            offset = buffer.m_offset;
            block = kestal_get_buffer_node(&buffer, &length);
            size = buffer.m_size;
        }
        if (block == nullptr) {
            kestal_load_balance();
            continue;
        }
        buffer.m_handler(buffer.m_handler_context, block, length, offset, size);
        kestal_free(block);
    }
}

} // namespace

kestal_buffer_t *kestal_open_buffer_ex2(uint32_t flags, kestal_buffer_handler_t handler, void *context)
{
    auto *buffer = static_cast<kestal_buffer_t *>(kestal_calloc(1, sizeof(kestal_buffer_t)));
    if (buffer == nullptr)
        return nullptr;
    buffer->m_flags = (flags | (handler != nullptr ? KESTAL_BUFFER_EXACT : 0)) & creation_flags;
    buffer->m_unit_size = unit_size;
    buffer->m_handler_context = context;
    buffer->m_handler = handler;
    kestal_init_lock(&buffer->m_lock);
    if (handler == nullptr)
        return buffer;
    buffer->m_service = kestal_open_service_ex("buffer handler", __kestal_buffer_handler_service, buffer, 0);
    return buffer->m_service != nullptr ? buffer : kestal_close_buffer(buffer);
}

kestal_buffer_t *kestal_open_buffer_ex(uint32_t flags)
{
    return kestal_open_buffer_ex2(flags, nullptr, nullptr);
}

kestal_buffer_t *kestal_close_buffer(kestal_buffer_t *buffer)
{
    if (buffer == nullptr)
        return nullptr;
    if (buffer->m_service != nullptr)
        kestal_close_service(buffer->m_service);
    kestal_flush_buffer(buffer);
    kestal_uninit_lock(&buffer->m_lock);
    kestal_free(buffer);
    return nullptr;
}

int32_t kestal_end_buffer(kestal_buffer_t *buffer)
{
    if (buffer == nullptr)
        return -1;
    // The whole word: creation flags and line state go too.
    std::atomic_ref(buffer->m_flags).store(KESTAL_BUFFER_ENDED, std::memory_order_relaxed);
    return 0;
}

uint64_t kestal_push_buffer_ex(kestal_buffer_t *buffer, const void *data, uint64_t length, uint32_t flags)
{
    return buffer == nullptr || length == 0 ? 0 : push(*buffer, data, length, flags);
}

uint64_t kestal_push_puts_ex(kestal_buffer_t *buffer, const char *text, uint32_t flags)
{
    return text == nullptr ? 0 : kestal_push_buffer_ex(buffer, text, strlen(text), flags);
}

uint64_t kestal_push_vprintf(kestal_buffer_t *buffer, const char *format, va_list arguments)
{
    if (buffer == nullptr)
        return 0;
    kestal::owned_block<char> text(kestal_alloc_vsprintf(format, arguments), "kestal_push_vprintf");
    if (!text)
        return 0;
    const uint64_t length = strlen(text.get());
    if ((flags_of(*buffer) & lending_flags) == 0)
        return push_copy(*buffer, text.get(), length);
    // A queue that keeps to memory it is given gets this text for good.
    const uint64_t queued = kestal_push_buffer_ex(buffer, text.get(), length, KESTAL_BUFFER_ADOPT);
    if (queued > 0)
        text.release();
    return queued;
}

uint64_t kestal_push_printf(kestal_buffer_t *buffer, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const uint64_t queued = kestal_push_vprintf(buffer, format, arguments);
    va_end(arguments);
    return queued;
}

uint64_t kestal_pop_buffer_ex(kestal_buffer_t *buffer, void *destination, uint64_t length, int32_t exact)
{
    if (buffer == nullptr || length == 0 || (exact != 0 && length > buffer->m_size))
        return 0;
    length = std::min(length, buffer->m_size);
    take(*buffer, static_cast<char *>(destination), length);
    return length;
}

uint64_t kestal_peek_buffer_ex(kestal_buffer_t *buffer, void *destination, uint64_t length, uint64_t offset,
                               int32_t exact)
{
    if (buffer == nullptr || destination == nullptr || offset >= buffer->m_size)
        return 0;
    const uint64_t present = buffer->m_size - offset;
    if (exact != 0 && length > present)
        return 0;
    length = std::min(length, present);
    char *to = static_cast<char *>(destination);
    const kestal_buffer_node_t *node = buffer->m_head;
    for (uint64_t left = length; left > 0; node = node->m_next) {
        const uint64_t unread = node->m_fill - node->m_read_position;
        const uint64_t skipped = std::min(offset, unread);
        const uint64_t part = std::min(left, unread - skipped);
        memcpy(to, bytes_of(*node) + node->m_read_position + skipped, static_cast<size_t>(part));
        to += part;
        left -= part;
        offset -= skipped;
    }
    return length;
}

void *kestal_alloc_pop_buffer_ex(kestal_buffer_t *buffer, uint64_t length, int32_t exact)
{
    if (buffer == nullptr || (exact != 0 && length > buffer->m_size))
        return nullptr;
    length = std::min(length, buffer->m_size);
    if (length == 0)
        return nullptr;
    kestal_buffer_node_t *head = buffer->m_head;
    if (is_adopted(*head) && head->m_read_position == 0 && head->m_fill == length) {
        void *block = head->m_data;
        kestal_free(unlink_head(*buffer));
        count_taken(*buffer, length);
        return block;
    }
    char *block = static_cast<char *>(kestal_alloc(length));
    if (block != nullptr)
        take(*buffer, block, length);
    return block;
}

void *kestal_get_buffer_node(kestal_buffer_t *buffer, uint64_t *length)
{
    const bool is_empty = buffer == nullptr || buffer->m_head == nullptr;
    const uint64_t unread = is_empty ? 0 : buffer->m_head->m_fill - buffer->m_head->m_read_position;
    void *block = kestal_alloc_pop_buffer_ex(buffer, unread, 0);
    if (length != nullptr)
        *length = block == nullptr ? 0 : unread;
    return block;
}

// So short that it is felt whether it begins with a cache line.
[[gnu::aligned(64)]] int32_t kestal_pop_buffer_uint8(kestal_buffer_t *buffer)
{
    if (buffer == nullptr || buffer->m_size == 0)
        return -1;
    kestal_buffer_node_t &head = *buffer->m_head;
    const auto byte = static_cast<uint8_t>(bytes_of(head)[head.m_read_position]);
    if (++head.m_read_position == head.m_fill)
        free_node(unlink_head(*buffer));
    count_taken(*buffer, 1);
    return byte;
}

int32_t kestal_peek_buffer_uint8(kestal_buffer_t *buffer, uint64_t offset)
{
    uint8_t byte = 0;
    return kestal_peek_buffer_ex(buffer, &byte, 1, offset, 0) == 1 ? byte : -1;
}

char *kestal_pop_buffer_line(kestal_buffer_t *buffer)
{
    if (buffer == nullptr)
        return nullptr;
    drop_pair_byte(*buffer);
    const uint64_t length = find_line(*buffer);
    char *line = length == 0 ? nullptr : static_cast<char *>(kestal_alloc(length));
    if (line == nullptr)
        return nullptr;
    take(*buffer, line, length);
    char &end = line[length - 1];
    buffer->m_flags = (buffer->m_flags & ~line_end_flags) | (end == '\r' ? KESTAL_BUFFER_CR : KESTAL_BUFFER_LF);
    end = '\0';
    if (buffer->m_size > 0) {
        drop_pair_byte(*buffer);
        buffer->m_flags &= ~line_end_flags;
    }
    return line;
}

uint64_t kestal_flush_buffer(kestal_buffer_t *buffer)
{
    return kestal_pop_buffer_ex(buffer, nullptr, UINT64_MAX, 0);
}

uint64_t kestal_get_buffer_size(kestal_buffer_t *buffer)
{
    return buffer == nullptr ? 0 : buffer->m_size;
}

uint64_t kestal_get_buffer_offset(kestal_buffer_t *buffer)
{
    return buffer == nullptr ? 0 : buffer->m_offset;
}

uint64_t kestal_set_buffer_offset(kestal_buffer_t *buffer, uint64_t offset)
{
    if (buffer == nullptr)
        return 0;
    buffer->m_offset = offset;
    return offset;
}

int32_t kestal_push_buffer_from_file(kestal_buffer_t *buffer, const char *path, int64_t start, uint64_t maximum)
{
    if (buffer == nullptr)
        return -1;
    kestal::owned_descriptor file(kestal_open_file(path, KESTAL_FILE_READ, 0));
    if (file.get() < 0)
        return -1;
    if (start != 0 && kestal_seek_file(file.get(), start, start > 0 ? SEEK_SET : SEEK_END) < 0) {
        file.release(); // left open: kept
        return -1;
    }
    uint64_t pushed = 0;
    char chunk[unit_size];
    while (maximum == 0 || pushed < maximum) {
        const uint64_t wanted = maximum == 0 ? unit_size : std::min(unit_size, maximum - pushed);
        const int64_t read = kestal_read_file(file.get(), chunk, wanted, -1);
        if (read <= 0)
            break;
        const uint64_t queued = push_copy(*buffer, chunk, static_cast<uint64_t>(read));
        pushed += queued;
        if (queued != static_cast<uint64_t>(read)) {
            kestal_assert_fail_tag("./source/buffer", __func__, __LINE__, "s_unit_size == ((size_t)s_read_bytes)");
            break;
        }
    }
    return static_cast<int32_t>(std::min(pushed, uint64_t{INT32_MAX}));
}

void *kestal_load_file(const char *path, int64_t start, uint64_t maximum, uint64_t *length)
{
    if (length != nullptr)
        *length = 0;
    kestal_buffer_t *buffer = kestal_open_buffer_ex(0);
    if (buffer == nullptr)
        return nullptr;
    void *block = nullptr;
    if (kestal_push_buffer_from_file(buffer, path, start, maximum) > 0) {
        const uint64_t size = kestal_get_buffer_size(buffer);
        block = kestal_alloc_pop_buffer_ex(buffer, size, 1);
        if (block != nullptr && length != nullptr)
            *length = size;
    }
    kestal_close_buffer(buffer);
    return block;
}
