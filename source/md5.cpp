#include <kestal_ulx/md5.h>

#include "byte_order.hpp"
#include "digest.hpp"
#include "settled.hpp"

#include <bit>
#include <utility>

namespace {

constexpr uint32_t initial_state[4] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};

// floor(2^32 x |sin(i + 1)|), in radians.
constexpr uint32_t sines[64] = {
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391};

constexpr int rotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// Which word of the block a step takes.
constexpr size_t word_of(size_t step)
{
    constexpr size_t factors[4] = {1, 5, 3, 7}, offsets[4] = {0, 1, 5, 0};
    return (step * factors[step / 16] + offsets[step / 16]) % 16;
}

// One of the 64 steps. The chaining words change roles instead of places; b is the one computed last.
template <size_t index>
[[gnu::always_inline]] inline void step(uint32_t (&words)[4], const uint8_t *block)
{
    constexpr size_t round = index / 16;
    const uint32_t b = words[(65 - index) % 4];
    const uint32_t c = words[(66 - index) % 4];
    const uint32_t d = words[(67 - index) % 4];
    uint32_t &a = words[(64 - index) % 4];

    uint32_t sum = kestal::settled(a + kestal::load_little_32(block + 4 * word_of(index)) + sines[index]);
    if constexpr (round == 0)
        sum += d ^ (b & (c ^ d));
    else if constexpr (round == 1)
        sum = kestal::settled(sum + (c & ~d)) + (b & d);
    else if constexpr (round == 2)
        sum += b ^ (c ^ d);
    else
        sum += c ^ (b | ~d);
    a = std::rotl(sum, rotations[round][index % 4]) + b;
}

template <size_t... index>
void compress_block(uint32_t (&state)[4], const uint8_t *block, std::index_sequence<index...>)
{
    uint32_t words[4] = {state[0], state[1], state[2], state[3]};
    (step<index>(words, block), ...);
    for (size_t i = 0; i < 4; ++i)
        state[i] += words[i];
}

void compress(uint32_t (&state)[4], const uint8_t *blocks, size_t count)
{
    for (; count > 0; --count, blocks += kestal::digest_block_size)
        compress_block(state, blocks, std::make_index_sequence<64>());
}

uint64_t bit_count(const kestal_md5_t &context)
{
    return uint64_t{context.m_bit_count[1]} << 32 | context.m_bit_count[0];
}

size_t buffered_bytes(const kestal_md5_t &context)
{
    return context.m_bit_count[0] / 8 % kestal::digest_block_size;
}

} // namespace

kestal_md5_t *kestal_open_md5(void)
{
    return kestal_init_md5(static_cast<kestal_md5_t *>(kestal_alloc(sizeof(kestal_md5_t))));
}

kestal_md5_t *kestal_close_md5(kestal_md5_t *context)
{
    kestal_check_free(context);
    return nullptr;
}

kestal_md5_t *kestal_init_md5(kestal_md5_t *context)
{
    if (context == nullptr)
        return nullptr;
    context->m_zero = 0;
    context->m_bit_count[0] = context->m_bit_count[1] = 0;
    std::copy_n(initial_state, 4, context->m_state);
    context->m_text[0] = '\0';
    return context;
}

int32_t kestal_md5_push(kestal_md5_t *context, const void *data, uint64_t size)
{
    if (context == nullptr || (data == nullptr && size != 0))
        return -1;
    if (size == 0)
        return 0;
    const size_t buffered = buffered_bytes(*context);
    const uint64_t bits = bit_count(*context) + size * 8;
    context->m_bit_count[0] = static_cast<uint32_t>(bits);
    context->m_bit_count[1] = static_cast<uint32_t>(bits >> 32);
    kestal::feed_blocks(context->m_block, buffered, static_cast<const uint8_t *>(data), static_cast<size_t>(size),
                        [context](const uint8_t *blocks, size_t count) { compress(context->m_state, blocks, count); });
    return 0;
}

int32_t kestal_md5_push_file(kestal_md5_t *context, const char *path)
{
    if (context == nullptr || path == nullptr)
        return -1;
    return kestal::feed_file(path, __func__,
                             [context](const uint8_t *data, size_t size) { kestal_md5_push(context, data, size); });
}

const char *kestal_md5_digest(kestal_md5_t *context, uint8_t *out)
{
    if (context == nullptr)
        return nullptr;
    // Ends a copy: callers take the digest midway and go on pushing.
    kestal_md5_t ended = *context;
    kestal::end_blocks<std::endian::little>(
        ended.m_block, buffered_bytes(ended), bit_count(ended),
        [&ended](const uint8_t *blocks, size_t count) { compress(ended.m_state, blocks, count); });

    kestal::write_digest<std::endian::little>(ended.m_state, out, context->m_text);
    return context->m_text;
}
