// What the message digests with blocks of 64 bytes share.
#pragma once

#include "byte_order.hpp"
#include "guard.hpp"

#include <kestal_ulx/file.h>

#include <algorithm>
#include <stdint.h>
#include <string.h>

namespace kestal {

constexpr size_t digest_block_size = 64;

// Feeds bytes through the block buffer, which holds `buffered` of them: whole blocks go to compress(blocks, count)
// where they lie. Returns how many bytes the buffer holds now.
template <typename Compress>
size_t feed_blocks(uint8_t (&block)[digest_block_size], size_t buffered, const uint8_t *data, size_t size,
                   Compress compress)
{
    if (buffered > 0) {
        const size_t fill = std::min(size, digest_block_size - buffered);
        memcpy(block + buffered, data, fill);
        data += fill;
        size -= fill;
        buffered += fill;
        if (buffered < digest_block_size)
            return buffered;
        compress(block, 1);
    }
    const size_t count = size / digest_block_size;
    if (count > 0)
        compress(data, count);
    const size_t rest = size % digest_block_size;
    if (rest > 0)
        memcpy(block, data + count * digest_block_size, rest);
    return rest;
}

// Ends a message with a one bit, zero bits, and its length in bits in the last 8 bytes of a block. Returns how many bytes
// that added.
template <std::endian order, typename Compress>
size_t end_blocks(const uint8_t (&block)[digest_block_size], size_t buffered, uint64_t bit_count, Compress compress)
{
    const size_t count = buffered < digest_block_size - sizeof bit_count ? 1 : 2;
    const size_t added = count * digest_block_size - buffered;
    uint8_t ending[2 * digest_block_size];
    memcpy(ending, block, buffered);
    memset(ending + buffered, 0, added);
    ending[buffered] = 0x80;
    store_word<uint64_t, order>(ending + buffered + added - sizeof bit_count, bit_count);
    compress(ending, count);
    return added;
}

// The four bytes of a word as eight upper-case digits, the highest byte first.
inline void write_hexadecimal(uint32_t word, char *text)
{
    uint64_t digits = word;
    digits = (digits << 16 | digits) & 0x0000FFFF0000FFFF;
    digits = (digits << 8 | digits) & 0x00FF00FF00FF00FF;
    digits = (digits << 4 | digits) & 0x0F0F0F0F0F0F0F0F;
    const uint64_t letters = ((digits + 0x0606060606060606) >> 4) & 0x0101010101010101;
    digits += 0x3030303030303030 + letters * ('A' - '9' - 1);
    store_big_64(reinterpret_cast<uint8_t *>(text), digits);
}

// Writes the chaining words in the digest's byte order to `out` (which may be null), and the text of those bytes.
template <std::endian order, size_t count>
void write_digest(const uint32_t (&state)[count], uint8_t *out, char *text)
{
    for (size_t i = 0; i < count; ++i) {
        if (out != nullptr)
            store_word<uint32_t, order>(out + 4 * i, state[i]);
        write_hexadecimal(order == std::endian::big ? state[i] : swap_bytes(state[i]), text + 8 * i);
    }
    text[8 * count] = '\0';
}

// What a digest call of a context gives whose text says that the message was ended already: the chaining words are then
// its digest. Null for no context.
template <typename Context>
const char *digest_once(Context *context, uint8_t *out, void (*end_message)(Context *))
{
    if (context == nullptr)
        return nullptr;
    if (context->m_text[0] == '\0')
        end_message(context);
    write_digest<std::endian::big>(context->m_state, out, context->m_text);
    return context->m_text;
}

// Feeds a file to push(data, size); 0, or -1 when it cannot be read to its end.
template <typename Push>
int32_t feed_file(const char *path, const char *tag, Push push)
{
    constexpr size_t chunk_size = 32768;
    const owned_descriptor file(kestal_open_file(path, KESTAL_FILE_READ, 0));
    if (file.get() < 0)
        return -1;
    const owned_block<uint8_t> chunk(kestal_alloc_tag(chunk_size, tag, __LINE__), tag);
    if (!chunk)
        return -1;
    int64_t count;
    while ((count = kestal_read_file(file.get(), chunk.get(), chunk_size, -1)) > 0)
        push(chunk.get(), static_cast<size_t>(count));
    return count == 0 ? 0 : -1;
}

} // namespace kestal
