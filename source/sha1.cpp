#include <kestal_ulx/sha1.h>

#include "byte_order.hpp"
#include "digest.hpp"
#include "sha1_instructions.hpp"

#include <bit>
#include <utility>

namespace {

constexpr uint32_t initial_state[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};

// One of the 80 steps. The chaining words change roles instead of places; `schedule` holds the last 16 message words.
template <size_t index>
[[gnu::always_inline]] inline void step(uint32_t (&words)[5], uint32_t (&schedule)[16])
{
    constexpr uint32_t constants[4] = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};
    constexpr size_t round = index / 20;
    const uint32_t a = words[(80 - index) % 5];
    uint32_t &b = words[(81 - index) % 5];
    const uint32_t c = words[(82 - index) % 5];
    const uint32_t d = words[(83 - index) % 5];
    uint32_t &e = words[(84 - index) % 5];

    uint32_t &message = schedule[index % 16];
    if constexpr (index >= 16)
        message = std::rotl(
            message ^ schedule[(index + 2) % 16] ^ schedule[(index + 8) % 16] ^ schedule[(index + 13) % 16], 1);
    e += message + constants[round];
    if constexpr (round == 0)
        e += d ^ (b & (c ^ d));
    else if constexpr (round == 2)
        e += (c & d) + (b & (c ^ d));
    else
        e += b ^ c ^ d;
    e += std::rotl(a, 5);
    b = std::rotl(b, 30);
}

template <size_t... index>
void compress_block(uint32_t (&state)[5], const uint8_t *block, std::index_sequence<index...>)
{
    uint32_t schedule[16];
    for (size_t i = 0; i < 16; ++i)
        schedule[i] = kestal::load_big_32(block + 4 * i);
    uint32_t words[5] = {state[0], state[1], state[2], state[3], state[4]};
    (step<index>(words, schedule), ...);
    for (size_t i = 0; i < 5; ++i)
        state[i] += words[i];
}

void compress(uint32_t (&state)[5], const uint8_t *blocks, size_t count)
{
    if (kestal::sha1_instructions::usable())
        return kestal::sha1_instructions::compress(state, blocks, count);
    for (; count > 0; --count, blocks += kestal::digest_block_size)
        compress_block(state, blocks, std::make_index_sequence<80>());
}

void end_message(kestal_sha1_t *context)
{
    context->m_byte_count += kestal::end_blocks<std::endian::big>(
        context->m_block, context->m_byte_count % kestal::digest_block_size, context->m_byte_count * 8,
        [context](const uint8_t *blocks, size_t count) { compress(context->m_state, blocks, count); });
}

} // namespace

kestal_sha1_t *kestal_open_sha1(void)
{
    return kestal_init_sha1(static_cast<kestal_sha1_t *>(kestal_alloc(sizeof(kestal_sha1_t))));
}

kestal_sha1_t *kestal_close_sha1(kestal_sha1_t *context)
{
    kestal_check_free(context);
    return nullptr;
}

kestal_sha1_t *kestal_init_sha1(kestal_sha1_t *context)
{
    if (context == nullptr)
        return nullptr;
    context->m_byte_count = 0;
    std::copy_n(initial_state, 5, context->m_state);
    context->m_text[0] = '\0';
    return context;
}

int32_t kestal_sha1_push(kestal_sha1_t *context, const void *data, uint64_t size)
{
    if (context == nullptr || (data == nullptr && size != 0))
        return -1;
    if (size == 0)
        return 0;
    const size_t buffered = context->m_byte_count % kestal::digest_block_size;
    context->m_byte_count += size;
    context->m_text[0] = '\0';
    kestal::feed_blocks(context->m_block, buffered, static_cast<const uint8_t *>(data), static_cast<size_t>(size),
                        [context](const uint8_t *blocks, size_t count) { compress(context->m_state, blocks, count); });
    return 0;
}

int32_t kestal_sha1_push_file(kestal_sha1_t *context, const char *path)
{
    if (context == nullptr || path == nullptr)
        return -1;
    return kestal::feed_file(path, __func__,
                             [context](const uint8_t *data, size_t size) { kestal_sha1_push(context, data, size); });
}

const char *kestal_sha1_digest(kestal_sha1_t *context, uint8_t *out)
{
    return kestal::digest_once(context, out, end_message);
}
