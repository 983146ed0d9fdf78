#include "aes_hardware.hpp"

#include "processor.hpp"

#include <string.h>

// Each function that uses the instructions says so itself (AES_CODE): lambdas and callees do not inherit it.
#if defined(__x86_64__)
#include <immintrin.h>
#define AES_CODE __attribute__((target("aes,ssse3,sse4.1")))
#elif defined(__aarch64__)
#include <arm_neon.h>
#define AES_CODE __attribute__((target("+crypto")))
#endif

namespace kestal::aes_hardware {

#if defined(AES_CODE)

namespace {

#define AES_INLINE AES_CODE inline __attribute__((always_inline))

// --- a block in a register, and one round of the cipher: all that differs between the processors

#if defined(__x86_64__)

using block = __m128i;

AES_INLINE block load(const uint8_t *from)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(from));
}

AES_INLINE void store(uint8_t *to, block value)
{
    _mm_storeu_si128(reinterpret_cast<__m128i *>(to), value);
}

AES_INLINE block combine(block a, block b)
{
    return _mm_xor_si128(a, b);
}

AES_INLINE uint8_t first_byte(block value)
{
    return static_cast<uint8_t>(_mm_cvtsi128_si32(value));
}

// Drops the first byte and appends one.
AES_INLINE block shift_in(block value, uint8_t byte)
{
    return _mm_insert_epi8(_mm_srli_si128(value, 1), byte, 15);
}

AES_INLINE block rotate(block value)
{
    return _mm_alignr_epi8(value, value, 1);
}

AES_INLINE block inverse_mix(block value)
{
    return _mm_aesimc_si128(value);
}

template <size_t Count>
AES_INLINE void encrypt(block (&values)[Count], const uint8_t *keys, size_t rounds)
{
    for (block &value : values)
        value = combine(value, load(keys));
    for (const uint8_t *last = keys + 16 * rounds; (keys += 16) < last;)
        for (block &value : values)
            value = _mm_aesenc_si128(value, load(keys));
    for (block &value : values)
        value = _mm_aesenclast_si128(value, load(keys));
}

template <typename Keys, size_t Count>
AES_INLINE void decrypt(block (&values)[Count], const Keys &keys, size_t rounds)
{
    for (block &value : values)
        value = combine(value, keys.outer(0));
    for (size_t round = 1; round < rounds; ++round) {
        const block key = keys.inner(round);
        for (block &value : values)
            value = _mm_aesdec_si128(value, key);
    }
    for (block &value : values)
        value = _mm_aesdeclast_si128(value, keys.outer(rounds));
}

constexpr size_t in_flight = 8;

#else

using block = uint8x16_t;

AES_INLINE block load(const uint8_t *from)
{
    return vld1q_u8(from);
}

AES_INLINE void store(uint8_t *to, block value)
{
    vst1q_u8(to, value);
}

AES_INLINE block combine(block a, block b)
{
    return veorq_u8(a, b);
}

AES_INLINE uint8_t first_byte(block value)
{
    return vgetq_lane_u8(value, 0);
}

// Drops the first byte and appends one.
AES_INLINE block shift_in(block value, uint8_t byte)
{
    return vextq_u8(value, vdupq_n_u8(byte), 1);
}

AES_INLINE block rotate(block value)
{
    return vextq_u8(value, value, 1);
}

AES_INLINE block inverse_mix(block value)
{
    return vaesimcq_u8(value);
}

template <size_t Count>
AES_INLINE void encrypt(block (&values)[Count], const uint8_t *keys, size_t rounds)
{
    for (const uint8_t *last = keys + 16 * (rounds - 1); keys < last; keys += 16)
        for (block &value : values)
            value = vaesmcq_u8(vaeseq_u8(value, load(keys)));
    for (block &value : values)
        value = combine(vaeseq_u8(value, load(keys)), load(keys + 16));
}

template <typename Keys, size_t Count>
AES_INLINE void decrypt(block (&values)[Count], const Keys &keys, size_t rounds)
{
    block key = keys.outer(0);
    for (size_t round = 1; round < rounds; ++round) {
        for (block &value : values)
            value = vaesimcq_u8(vaesdq_u8(value, key));
        key = keys.inner(round);
    }
    for (block &value : values)
        value = combine(vaesdq_u8(value, key), keys.outer(rounds));
}

constexpr size_t in_flight = 8;

#endif

// Forwards the round keys are taken as they stand. For the equivalent inverse cipher: backwards, the inner ones through
// the inverse column mix.
constexpr size_t most_rounds = 14;

// Keeps the compiler from copying a key to where nobody overwrites it, to have it at hand in every turn of a loop.
AES_INLINE void forget_copies()
{
    __asm__ volatile("" ::: "memory");
}

// Mixes each key when it is its turn: for a block alone, which has to wait for its rounds anyway.
struct keys_on_the_way {
    const uint8_t *round_key;
    size_t rounds;

    AES_INLINE block outer(size_t round) const { return load(round_key + 16 * (rounds - round)); }
    AES_INLINE block inner(size_t round) const { return inverse_mix(outer(round)); }
};

// Mixed once for many blocks.
struct keys_at_hand {
    block keys[most_rounds + 1];

    AES_INLINE keys_at_hand(const uint8_t *round_key, size_t rounds)
    {
        const keys_on_the_way source{round_key, rounds};
        keys[0] = source.outer(0);
        for (size_t round = 1; round < rounds; ++round)
            keys[round] = source.inner(round);
        keys[rounds] = source.outer(rounds);
    }
    ~keys_at_hand() { explicit_bzero(keys, sizeof keys); }
    keys_at_hand(const keys_at_hand &) = delete;
    keys_at_hand &operator=(const keys_at_hand &) = delete;

    AES_INLINE block outer(size_t round) const { return keys[round]; }
    AES_INLINE block inner(size_t round) const { return keys[round]; }
};

template <size_t Count>
AES_INLINE void load_blocks(block (&values)[Count], const uint8_t *from)
{
    for (size_t i = 0; i < Count; ++i)
        values[i] = load(from + 16 * i);
}

template <size_t Count>
AES_INLINE void store_blocks(uint8_t *to, const block (&values)[Count])
{
    for (size_t i = 0; i < Count; ++i)
        store(to + 16 * i, values[i]);
}

// The number of blocks that CBC processes: a partial last block counts as whole.
uint64_t whole_blocks(uint64_t size)
{
    return size / 16 + (size % 16 != 0);
}

// --- steps over `Count` blocks at once

template <size_t Count, typename Keys>
AES_INLINE void ecb_decrypt_step(uint8_t *data, const Keys &keys, size_t rounds)
{
    block values[Count];
    load_blocks(values, data);
    decrypt(values, keys, rounds);
    store_blocks(data, values);
    forget_copies();
}

template <size_t Count, typename Keys>
AES_INLINE void cbc_decrypt_step(uint8_t *data, block &chain, const Keys &keys, size_t rounds)
{
    block received[Count];
    load_blocks(received, data);
    block values[Count];
    for (size_t i = 0; i < Count; ++i)
        values[i] = received[i];
    decrypt(values, keys, rounds);
    values[0] = combine(values[0], chain);
    for (size_t i = 1; i < Count; ++i)
        values[i] = combine(values[i], received[i - 1]);
    chain = received[Count - 1];
    store_blocks(data, values);
    forget_copies();
}

template <size_t Count>
AES_INLINE void cfb8_decrypt_step(uint8_t *data, block &shift_register, const uint8_t *keys, size_t rounds)
{
    block values[Count];
    for (size_t i = 0; i < Count; ++i) {
        values[i] = shift_register;
        shift_register = shift_in(shift_register, data[i]);
    }
    encrypt(values, keys, rounds);
    for (size_t i = 0; i < Count; ++i)
        data[i] = static_cast<uint8_t>(data[i] ^ first_byte(values[i]));
}

} // namespace

bool is_available()
{
#if defined(__aarch64__)
    return processor::has(processor::arm_aes);
#else
    return processor::has(processor::aes);
#endif
}

AES_CODE uint32_t substitute_word(uint32_t word)
{
    // All four columns alike: the row shift of the last round changes nothing.
#if defined(__aarch64__)
    const block spread = vreinterpretq_u8_u32(vdupq_n_u32(word));
    return vgetq_lane_u32(vreinterpretq_u32_u8(vaeseq_u8(spread, vdupq_n_u8(0))), 0);
#else
    const block spread = _mm_set1_epi32(static_cast<int>(word));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_aesenclast_si128(spread, _mm_setzero_si128())));
#endif
}

AES_CODE void ecb_encrypt(uint8_t *data, uint64_t size, uint8_t *, const uint8_t *round_key, size_t rounds)
{
    uint64_t blocks = size / 16;
    for (; blocks >= in_flight; blocks -= in_flight, data += 16 * in_flight) {
        block values[in_flight];
        load_blocks(values, data);
        encrypt(values, round_key, rounds);
        store_blocks(data, values);
    }
    for (; blocks > 0; --blocks, data += 16) {
        block value[1] = {load(data)};
        encrypt(value, round_key, rounds);
        store(data, value[0]);
    }
}

AES_CODE void ecb_decrypt(uint8_t *data, uint64_t size, uint8_t *, const uint8_t *round_key, size_t rounds)
{
    uint64_t blocks = size / 16;
    if (blocks == 1)
        return ecb_decrypt_step<1>(data, keys_on_the_way{round_key, rounds}, rounds);
    const keys_at_hand keys(round_key, rounds);
    for (; blocks >= in_flight; blocks -= in_flight, data += 16 * in_flight)
        ecb_decrypt_step<in_flight>(data, keys, rounds);
    for (; blocks > 0; --blocks, data += 16)
        ecb_decrypt_step<1>(data, keys, rounds);
}

AES_CODE void cbc_encrypt(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds)
{
    uint64_t blocks = whole_blocks(size);
    block chain[1] = {load(iv)};
    for (; blocks > 0; --blocks, data += 16) {
        chain[0] = combine(chain[0], load(data));
        encrypt(chain, round_key, rounds);
        store(data, chain[0]);
    }
    store(iv, chain[0]);
}

AES_CODE void cbc_decrypt(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds)
{
    uint64_t blocks = whole_blocks(size);
    block chain = load(iv);
    if (blocks == 1) {
        cbc_decrypt_step<1>(data, chain, keys_on_the_way{round_key, rounds}, rounds);
    } else {
        const keys_at_hand keys(round_key, rounds);
        for (; blocks >= in_flight; blocks -= in_flight, data += 16 * in_flight)
            cbc_decrypt_step<in_flight>(data, chain, keys, rounds);
        for (; blocks > 0; --blocks, data += 16)
            cbc_decrypt_step<1>(data, chain, keys, rounds);
    }
    store(iv, chain);
}

AES_CODE void cfb8_encrypt(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds)
{
    block shift_register = load(iv);
    for (uint64_t i = 0; i < size; ++i) {
        block value[1] = {shift_register};
        encrypt(value, round_key, rounds);
        data[i] = static_cast<uint8_t>(data[i] ^ first_byte(value[0]));
        shift_register = shift_in(shift_register, data[i]);
    }
    store(iv, shift_register);
}

AES_CODE void cfb8_decrypt(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds)
{
    block shift_register = load(iv);
    for (; size >= in_flight; size -= in_flight, data += in_flight)
        cfb8_decrypt_step<in_flight>(data, shift_register, round_key, rounds);
    for (; size > 0; --size, ++data)
        cfb8_decrypt_step<1>(data, shift_register, round_key, rounds);
    store(iv, shift_register);
}

AES_CODE void ofb8(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds)
{
    block value[1] = {load(iv)};
    for (uint64_t i = 0; i < size; ++i) {
        encrypt(value, round_key, rounds);
        data[i] = static_cast<uint8_t>(data[i] ^ first_byte(value[0]));
        value[0] = rotate(value[0]);
    }
    store(iv, value[0]);
}

#else // no instructions known for this processor

bool is_available()
{
    return false;
}

uint32_t substitute_word(uint32_t)
{
    return 0;
}

void ecb_encrypt(uint8_t *, uint64_t, uint8_t *, const uint8_t *, size_t)
{}

void ecb_decrypt(uint8_t *, uint64_t, uint8_t *, const uint8_t *, size_t)
{}

void cbc_encrypt(uint8_t *, uint64_t, uint8_t *, const uint8_t *, size_t)
{}

void cbc_decrypt(uint8_t *, uint64_t, uint8_t *, const uint8_t *, size_t)
{}

void cfb8_encrypt(uint8_t *, uint64_t, uint8_t *, const uint8_t *, size_t)
{}

void cfb8_decrypt(uint8_t *, uint64_t, uint8_t *, const uint8_t *, size_t)
{}

void ofb8(uint8_t *, uint64_t, uint8_t *, const uint8_t *, size_t)
{}

#endif

} // namespace kestal::aes_hardware
