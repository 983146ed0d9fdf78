// SHA-256 with the processor's own rounds, four at a time: x86 SHA extensions and AArch64 cryptographic extension.
#pragma once

#include "processor.hpp"

#include <stddef.h>
#include <stdint.h>
#include <utility>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__) && defined(__AARCH64EL__) && !defined(__clang__)
#include <arm_neon.h>
#define KESTAL_SHA256_AARCH64
#endif

namespace kestal::sha256_instructions {

#if defined(__x86_64__)

inline bool usable()
{
    return processor::has(processor::sha);
}

// The chaining words in the order that the instructions want, the first letter in the highest lane.
struct state_registers {
    __m128i abef;
    __m128i cdgh;
};

template <size_t group>
[[gnu::target("sha,sse4.1"), gnu::always_inline]] inline void
four_rounds(state_registers &state, const uint8_t *block, __m128i (&words)[4], const uint32_t (&constants)[64])
{
    __m128i &message = words[group % 4];
    if constexpr (group < 4) {
        message = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block + 16 * group));
        message = _mm_shuffle_epi8(message, _mm_set_epi64x(0x0C0D0E0F08090A0B, 0x0405060700010203));
    } else {
        const __m128i newest = words[(group + 3) % 4];
        message = _mm_sha256msg1_epu32(message, words[(group + 1) % 4]);
        message = _mm_add_epi32(message, _mm_alignr_epi8(newest, words[(group + 2) % 4], 4));
        message = _mm_sha256msg2_epu32(message, newest);
    }
    const __m128i added =
        _mm_add_epi32(message, _mm_loadu_si128(reinterpret_cast<const __m128i *>(constants + 4 * group)));
    state.cdgh = _mm_sha256rnds2_epu32(state.cdgh, state.abef, added);
    state.abef = _mm_sha256rnds2_epu32(state.abef, state.cdgh, _mm_shuffle_epi32(added, 0x0E));
}

template <size_t... group>
[[gnu::target("sha,sse4.1"), gnu::always_inline]] inline void
all_rounds(state_registers &state, const uint8_t *block, __m128i (&words)[4], const uint32_t (&constants)[64],
           std::index_sequence<group...>)
{
    (four_rounds<group>(state, block, words, constants), ...);
}

[[gnu::target("sha,sse4.1")]] inline void compress(uint32_t (&state)[8], const uint8_t *blocks, size_t count,
                                                   const uint32_t (&constants)[64])
{
    const __m128i dcba = _mm_loadu_si128(reinterpret_cast<const __m128i *>(state));
    const __m128i hgfe = _mm_loadu_si128(reinterpret_cast<const __m128i *>(state + 4));
    const __m128i cdab = _mm_shuffle_epi32(dcba, 0xB1);
    const __m128i efgh = _mm_shuffle_epi32(hgfe, 0x1B);
    state_registers now{_mm_alignr_epi8(cdab, efgh, 8), _mm_blend_epi16(efgh, cdab, 0xF0)};
    for (; count > 0; --count, blocks += 64) {
        __m128i words[4];
        const state_registers before = now;
        all_rounds(now, blocks, words, constants, std::make_index_sequence<16>());
        now.abef = _mm_add_epi32(now.abef, before.abef);
        now.cdgh = _mm_add_epi32(now.cdgh, before.cdgh);
    }
    const __m128i feba = _mm_shuffle_epi32(now.abef, 0x1B);
    const __m128i dchg = _mm_shuffle_epi32(now.cdgh, 0xB1);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(state), _mm_blend_epi16(feba, dchg, 0xF0));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(state + 4), _mm_alignr_epi8(dchg, feba, 8));
}

#elif defined(KESTAL_SHA256_AARCH64)

inline bool usable()
{
    return processor::has(processor::arm_sha2);
}

template <size_t group>
[[gnu::target("+crypto"), gnu::always_inline]] inline void
four_rounds(uint32x4_t &abcd, uint32x4_t &efgh, uint32x4_t (&words)[4], const uint32_t (&constants)[64])
{
    uint32x4_t &message = words[group % 4];
    if constexpr (group >= 4) {
        message = vsha256su0q_u32(message, words[(group + 1) % 4]);
        message = vsha256su1q_u32(message, words[(group + 2) % 4], words[(group + 3) % 4]);
    }
    const uint32x4_t added = vaddq_u32(message, vld1q_u32(constants + 4 * group));
    const uint32x4_t abcd_before = abcd;
    abcd = vsha256hq_u32(abcd, efgh, added);
    efgh = vsha256h2q_u32(efgh, abcd_before, added);
}

template <size_t... group>
[[gnu::target("+crypto"), gnu::always_inline]] inline void
all_rounds(uint32x4_t &abcd, uint32x4_t &efgh, uint32x4_t (&words)[4], const uint32_t (&constants)[64],
           std::index_sequence<group...>)
{
    (four_rounds<group>(abcd, efgh, words, constants), ...);
}

[[gnu::target("+crypto")]] inline void compress(uint32_t (&state)[8], const uint8_t *blocks, size_t count,
                                                const uint32_t (&constants)[64])
{
    uint32x4_t abcd = vld1q_u32(state);
    uint32x4_t efgh = vld1q_u32(state + 4);
    for (; count > 0; --count, blocks += 64) {
        uint32x4_t words[4];
        for (size_t i = 0; i < 4; ++i)
            words[i] = vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(blocks + 16 * i)));
        const uint32x4_t abcd_before = abcd;
        const uint32x4_t efgh_before = efgh;
        all_rounds(abcd, efgh, words, constants, std::make_index_sequence<16>());
        abcd = vaddq_u32(abcd, abcd_before);
        efgh = vaddq_u32(efgh, efgh_before);
    }
    vst1q_u32(state, abcd);
    vst1q_u32(state + 4, efgh);
}

#else

inline bool usable()
{
    return false;
}

inline void compress(uint32_t (&)[8], const uint8_t *, size_t, const uint32_t (&)[64])
{}

#endif

} // namespace kestal::sha256_instructions
