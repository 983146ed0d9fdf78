#include <kestal_ulx/sha256.h>

#include "byte_order.hpp"
#include "digest.hpp"
#include "settled.hpp"
#include "sha256_instructions.hpp"

#include <bit>
#include <utility>

namespace {

// The first 32 bits behind the point of the first 8 primes' square roots.
constexpr uint32_t initial_state[8] = {0x6A09E667, 0xBB67AE85, 0x3C6EF372, 0xA54FF53A,
                                       0x510E527F, 0x9B05688C, 0x1F83D9AB, 0x5BE0CD19};

// The first 32 bits behind the point of the first 64 primes' cube roots.
constexpr uint32_t constants[64] = {
    0x428A2F98, 0x71374491, 0xB5C0FBCF, 0xE9B5DBA5, 0x3956C25B, 0x59F111F1, 0x923F82A4, 0xAB1C5ED5,
    0xD807AA98, 0x12835B01, 0x243185BE, 0x550C7DC3, 0x72BE5D74, 0x80DEB1FE, 0x9BDC06A7, 0xC19BF174,
    0xE49B69C1, 0xEFBE4786, 0x0FC19DC6, 0x240CA1CC, 0x2DE92C6F, 0x4A7484AA, 0x5CB0A9DC, 0x76F988DA,
    0x983E5152, 0xA831C66D, 0xB00327C8, 0xBF597FC7, 0xC6E00BF3, 0xD5A79147, 0x06CA6351, 0x14292967,
    0x27B70A85, 0x2E1B2138, 0x4D2C6DFC, 0x53380D13, 0x650A7354, 0x766A0ABB, 0x81C2C92E, 0x92722C85,
    0xA2BFE8A1, 0xA81A664B, 0xC24B8B70, 0xC76C51A3, 0xD192E819, 0xD6990624, 0xF40E3585, 0x106AA070,
    0x19A4C116, 0x1E376C08, 0x2748774C, 0x34B0BCB5, 0x391C0CB3, 0x4ED8AA4A, 0x5B9CCA4F, 0x682E6FF3,
    0x748F82EE, 0x78A5636F, 0x84C87814, 0x8CC70208, 0x90BEFFFA, 0xA4506CEB, 0xBEF9A3F7, 0xC67178F2};

// One of 16 steps. The chaining words change roles instead of places; `schedule` holds the last 16 message words.
template <size_t index, bool extends>
[[gnu::always_inline]] inline void step(uint32_t (&words)[8], uint32_t (&schedule)[16], uint32_t constant)
{
    const uint32_t a = words[(16 - index) % 8];
    const uint32_t b = words[(17 - index) % 8];
    const uint32_t c = words[(18 - index) % 8];
    uint32_t &d = words[(19 - index) % 8];
    const uint32_t e = words[(20 - index) % 8];
    const uint32_t f = words[(21 - index) % 8];
    const uint32_t g = words[(22 - index) % 8];
    uint32_t &h = words[(23 - index) % 8];

    uint32_t &message = schedule[index];
    if constexpr (extends) {
        const uint32_t early = schedule[(index + 1) % 16];
        const uint32_t late = schedule[(index + 14) % 16];
        message += (std::rotr(early, 7) ^ std::rotr(early, 18) ^ early >> 3) + schedule[(index + 9) % 16] +
                   (std::rotr(late, 17) ^ std::rotr(late, 19) ^ late >> 10);
    }
    // The sums over e and a come last: the next step waits for them.
    h = kestal::settled(h + message + constant);
    h = kestal::settled(h + (g ^ (e & (f ^ g)))) + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25));
    d += h;
    h = kestal::settled(h + (b ^ ((a ^ b) & (b ^ c)))) + std::rotr(std::rotr(std::rotr(a, 9) ^ a, 11) ^ a, 2);
}

// Sixteen of the 64 steps, after which all words stand in their places again.
template <bool extends, size_t... index>
[[gnu::always_inline]] inline void steps(uint32_t (&words)[8], uint32_t (&schedule)[16], const uint32_t *added,
                                         std::index_sequence<index...>)
{
    (step<index, extends>(words, schedule, added[index]), ...);
}

void compress_block(uint32_t (&state)[8], const uint8_t *block)
{
    constexpr std::make_index_sequence<16> all;
    uint32_t schedule[16];
    for (size_t i = 0; i < 16; ++i)
        schedule[i] = kestal::load_big_32(block + 4 * i);
    uint32_t words[8];
    std::copy_n(state, 8, words);
    steps<false>(words, schedule, constants, all);
    for (size_t done = 16; done < 64; done += 16)
        steps<true>(words, schedule, constants + done, all);
    for (size_t i = 0; i < 8; ++i)
        state[i] += words[i];
}

void compress(uint32_t (&state)[8], const uint8_t *blocks, size_t count)
{
    if (kestal::sha256_instructions::usable())
        return kestal::sha256_instructions::compress(state, blocks, count, constants);
    for (; count > 0; --count, blocks += kestal::digest_block_size)
        compress_block(state, blocks);
}

void end_message(kestal_sha256_t *context)
{
    context->m_byte_count += kestal::end_blocks<std::endian::big>(
        context->m_block, context->m_buffered, context->m_byte_count * 8,
        [context](const uint8_t *blocks, size_t count) { compress(context->m_state, blocks, count); });
    context->m_buffered = 0;
}

} // namespace

kestal_sha256_t *kestal_open_sha256(void)
{
    return kestal_init_sha256(static_cast<kestal_sha256_t *>(kestal_alloc(sizeof(kestal_sha256_t))));
}

kestal_sha256_t *kestal_close_sha256(kestal_sha256_t *context)
{
    kestal_check_free(context);
    return nullptr;
}

kestal_sha256_t *kestal_init_sha256(kestal_sha256_t *context)
{
    if (context == nullptr)
        return nullptr;
    context->m_byte_count = 0;
    context->m_buffered = 0;
    std::copy_n(initial_state, 8, context->m_state);
    context->m_text[0] = '\0';
    return context;
}

int32_t kestal_sha256_push(kestal_sha256_t *context, const void *data, uint64_t size)
{
    if (context == nullptr || (data == nullptr && size != 0))
        return -1;
    if (size == 0)
        return 0;
    context->m_byte_count += size;
    context->m_text[0] = '\0';
    context->m_buffered = static_cast<uint32_t>(kestal::feed_blocks(
        context->m_block, context->m_buffered, static_cast<const uint8_t *>(data), static_cast<size_t>(size),
        [context](const uint8_t *blocks, size_t count) { compress(context->m_state, blocks, count); }));
    return 0;
}

int32_t kestal_sha256_push_file(kestal_sha256_t *context, const char *path)
{
    if (context == nullptr || path == nullptr)
        return -1;
    return kestal::feed_file(path, __func__,
                             [context](const uint8_t *data, size_t size) { kestal_sha256_push(context, data, size); });
}

const char *kestal_sha256_digest(kestal_sha256_t *context, uint8_t *out)
{
    return kestal::digest_once(context, out, end_message);
}
