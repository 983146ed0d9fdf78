// SHA-1 with the processor's own rounds, four at a time: x86 SHA extensions and AArch64 cryptographic extension.
#pragma once

#include "processor.hpp"

#include <stddef.h>
#include <stdint.h>
#include <utility>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__) && defined(__AARCH64EL__) && !defined(__clang__)
#include <arm_neon.h>
#define KESTAL_SHA1_AARCH64
#endif

namespace kestal::sha1_instructions {

#if defined(__x86_64__)

inline bool usable()
{
    return processor::has(processor::sha);
}

struct state_registers {
    __m128i abcd; // a in the highest lane
    __m128i e;    // in the highest lane: e itself at first, then the a of four rounds ago, from which e is made
};

template <size_t group>
[[gnu::target("sha,sse4.1"), gnu::always_inline]] inline void four_rounds(state_registers &state, const uint8_t *block,
                                                                          __m128i (&words)[4])
{
    __m128i &message = words[group % 4];
    if constexpr (group < 4) {
        message = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block + 16 * group));
        message = _mm_shuffle_epi8(message, _mm_set_epi64x(0x0001020304050607, 0x08090A0B0C0D0E0F));
    } else {
        message = _mm_sha1msg1_epu32(message, words[(group + 1) % 4]);
        message = _mm_xor_si128(message, words[(group + 2) % 4]);
        message = _mm_sha1msg2_epu32(message, words[(group + 3) % 4]);
    }
    const __m128i added = group == 0 ? _mm_add_epi32(state.e, message) : _mm_sha1nexte_epu32(state.e, message);
    state.e = state.abcd;
    __asm__("" : "+x"(state.e)); // the copy is e, not abcd, which the next instruction waits for
    state.abcd = _mm_sha1rnds4_epu32(state.abcd, added, group / 5);
}

template <size_t... group>
[[gnu::target("sha,sse4.1"), gnu::always_inline]] inline void
all_rounds(state_registers &state, const uint8_t *block, __m128i (&words)[4], std::index_sequence<group...>)
{
    (four_rounds<group>(state, block, words), ...);
}

[[gnu::target("sha,sse4.1")]] inline void compress(uint32_t (&state)[5], const uint8_t *blocks, size_t count)
{
    state_registers now;
    now.abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(state)), 0x1B);
    now.e = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);
    for (; count > 0; --count, blocks += 64) {
        __m128i words[4];
        const state_registers before = now;
        all_rounds(now, blocks, words, std::make_index_sequence<20>());
        now.e = _mm_sha1nexte_epu32(now.e, before.e);
        now.abcd = _mm_add_epi32(now.abcd, before.abcd);
    }
    _mm_storeu_si128(reinterpret_cast<__m128i *>(state), _mm_shuffle_epi32(now.abcd, 0x1B));
    state[4] = static_cast<uint32_t>(_mm_extract_epi32(now.e, 3));
}

#elif defined(KESTAL_SHA1_AARCH64)

inline bool usable()
{
    return processor::has(processor::arm_sha1);
}

template <size_t group>
[[gnu::target("+crypto"), gnu::always_inline]] inline void four_rounds(uint32x4_t &abcd, uint32_t &e,
                                                                       uint32x4_t (&words)[4])
{
    constexpr uint32_t constants[4] = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};
    constexpr size_t round = group / 5;
    uint32x4_t &message = words[group % 4];
    if constexpr (group >= 4) {
        message = vsha1su0q_u32(message, words[(group + 1) % 4], words[(group + 2) % 4]);
        message = vsha1su1q_u32(message, words[(group + 3) % 4]);
    }
    const uint32x4_t added = vaddq_u32(message, vdupq_n_u32(constants[round]));
    const uint32_t next_e = vsha1h_u32(vgetq_lane_u32(abcd, 0));
    if constexpr (round == 0)
        abcd = vsha1cq_u32(abcd, e, added);
    else if constexpr (round == 2)
        abcd = vsha1mq_u32(abcd, e, added);
    else
        abcd = vsha1pq_u32(abcd, e, added);
    e = next_e;
}

template <size_t... group>
[[gnu::target("+crypto"), gnu::always_inline]] inline void
all_rounds(uint32x4_t &abcd, uint32_t &e, uint32x4_t (&words)[4], std::index_sequence<group...>)
{
    (four_rounds<group>(abcd, e, words), ...);
}

[[gnu::target("+crypto")]] inline void compress(uint32_t (&state)[5], const uint8_t *blocks, size_t count)
{
    uint32x4_t abcd = vld1q_u32(state);
    uint32_t e = state[4];
    for (; count > 0; --count, blocks += 64) {
        uint32x4_t words[4];
        for (size_t i = 0; i < 4; ++i)
            words[i] = vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(blocks + 16 * i)));
        const uint32x4_t abcd_before = abcd;
        const uint32_t e_before = e;
        all_rounds(abcd, e, words, std::make_index_sequence<20>());
        abcd = vaddq_u32(abcd, abcd_before);
        e += e_before;
    }
    vst1q_u32(state, abcd);
    state[4] = e;
}

#else

inline bool usable()
{
    return false;
}

inline void compress(uint32_t (&)[5], const uint8_t *, size_t)
{}

#endif

} // namespace kestal::sha1_instructions
