// Cyclic redundancy checks by carry-less multiplication (x86 PCLMULQDQ and its 512-bit form, AArch64 PMULL): folds a
// message, lane by lane, to one lane that leaves the same remainder, and divides that.
//
// All checks are taken as checks of 64 bits: the polynomial of a narrower one is multiplied by a power of x, which leaves
// its register in the low bits. Bit i of a word is the coefficient of x^(63 - i), and of a lane that of x^(127 - i). The
// carry-less product of two such words comes out as if it was divided by x, which the exponents of the factors make up
// for.
#pragma once

#include "processor.hpp"

#include <stddef.h>
#include <stdint.h>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__) && defined(__AARCH64EL__) && !defined(__clang__)
#include <arm_neon.h>
#define KESTAL_CRC_AARCH64
#endif

namespace kestal::crc_instructions {

// What moves a lane by some bits on in the message: the remainders of powers of x for its first and its last 8 bytes.
struct fold_factors {
    uint64_t first, last;
};

struct factors {
    fold_factors by_lanes[5]; // moves a lane on by 1, 2, 4, 8, 16 lanes
    uint64_t by_64;           // moves 8 bytes on
    uint64_t reciprocal;      // x^128 divided by the polynomial, without x^64
    uint64_t polynomial;      // without x^64
};

constexpr size_t lane_size = 16;

// Below this, tables are as fast.
constexpr size_t least_size = 64;

#if defined(__x86_64__)

inline bool usable()
{
    return processor::has(processor::pclmul);
}

[[gnu::target("pclmul,sse4.1"), gnu::always_inline]] inline __m128i load_lane(const uint8_t *from)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(from));
}

[[gnu::target("pclmul,sse4.1"), gnu::always_inline]] inline __m128i fold_lane(__m128i lane, const fold_factors &by,
                                                                              __m128i onto)
{
    const __m128i both = _mm_loadu_si128(reinterpret_cast<const __m128i *>(&by));
    const __m128i first = _mm_clmulepi64_si128(lane, both, 0x00);
    const __m128i last = _mm_clmulepi64_si128(lane, both, 0x11);
    return _mm_xor_si128(_mm_xor_si128(first, last), onto);
}

// The register behind a lane that no other follows: its first half is moved onto the second, and the quotient of that
// comes from a multiplication by the reciprocal (Barrett).
[[gnu::target("pclmul,sse4.1"), gnu::always_inline]] inline uint64_t divide(__m128i lane, const factors &by)
{
    const __m128i moved = _mm_clmulepi64_si128(lane, _mm_cvtsi64_si128(static_cast<int64_t>(by.by_64)), 0x00);
    const __m128i high = _mm_xor_si128(_mm_srli_si128(lane, 8), moved);
    __m128i quotient = _mm_clmulepi64_si128(high, _mm_cvtsi64_si128(static_cast<int64_t>(by.reciprocal)), 0x00);
    quotient = _mm_xor_si128(_mm_add_epi64(quotient, quotient), high);
    const __m128i multiple = _mm_clmulepi64_si128(quotient, _mm_cvtsi64_si128(static_cast<int64_t>(by.polynomial)), 0);
    const uint64_t low = static_cast<uint64_t>(_mm_cvtsi128_si64(multiple));
    const uint64_t rest =
        static_cast<uint64_t>(_mm_extract_epi64(_mm_xor_si128(_mm_add_epi64(multiple, multiple), moved), 1));
    return rest ^ low >> 63;
}

// Folds neighbours together until one lane is left: as few steps one behind the other as can be.
template <size_t count>
[[gnu::target("pclmul,sse4.1"), gnu::always_inline]] inline __m128i fold_together(__m128i (&lanes)[count],
                                                                                  const factors &by)
{
    size_t step = 0;
#pragma GCC unroll 3
    for (size_t distance = 1; distance < count; distance *= 2, ++step) {
#pragma GCC unroll 4
        for (size_t i = 2 * distance - 1; i < count; i += 2 * distance)
            lanes[i] = fold_lane(lanes[i - distance], by.by_lanes[step], lanes[i]);
    }
    return lanes[count - 1];
}

// The register behind a folded lane and the lanes that follow it.
[[gnu::target("pclmul,sse4.1"), gnu::always_inline]] inline uint64_t finish(__m128i folded, const uint8_t *data,
                                                                            const uint8_t *end, const factors &by)
{
    for (; data != end; data += lane_size)
        folded = fold_lane(folded, by.by_lanes[0], load_lane(data));
    return divide(folded, by);
}

// Works on 2^steps lanes side by side.
template <size_t steps>
[[gnu::target("pclmul,sse4.1")]] uint64_t update_128(uint64_t start, const uint8_t *data, const uint8_t *end,
                                                     const factors &by)
{
    constexpr size_t count = size_t{1} << steps;
    __m128i lanes[count];
#pragma GCC unroll 8
    for (size_t i = 0; i < count; ++i)
        lanes[i] = load_lane(data + i * lane_size);
    lanes[0] = _mm_xor_si128(lanes[0], _mm_cvtsi64_si128(static_cast<int64_t>(start)));
    data += count * lane_size;
    for (; static_cast<size_t>(end - data) >= count * lane_size; data += count * lane_size) {
#pragma GCC unroll 8
        for (size_t i = 0; i < count; ++i)
            lanes[i] = fold_lane(lanes[i], by.by_lanes[steps], load_lane(data + i * lane_size));
    }
    return finish(fold_together(lanes, by), data, end, by);
}

[[gnu::target("avx512f,vpclmulqdq"), gnu::always_inline]] inline __m512i
fold_lanes(__m512i lanes, const fold_factors &by, __m512i onto)
{
    const __m128i pair = _mm_loadu_si128(reinterpret_cast<const __m128i *>(&by));
    const __m512i both = _mm512_maskz_broadcast_i32x4(0xFFFF, pair);
    const __m512i first = _mm512_clmulepi64_epi128(lanes, both, 0x00);
    const __m512i last = _mm512_clmulepi64_epi128(lanes, both, 0x11);
    return _mm512_ternarylogic_epi64(first, last, onto, 0x96); // the exclusive or of all three
}

[[gnu::target("avx512f,vpclmulqdq,pclmul,sse4.1")]] inline uint64_t update_512(uint64_t start, const uint8_t *data,
                                                                               const uint8_t *end, const factors &by)
{
    constexpr size_t count = 4;
    __m512i lanes[count];
#pragma GCC unroll 8
    for (size_t i = 0; i < count; ++i)
        lanes[i] = _mm512_loadu_si512(data + i * 64);
    const __m128i initial = _mm_cvtsi64_si128(static_cast<int64_t>(start));
    lanes[0] = _mm512_xor_si512(lanes[0], _mm512_zextsi128_si512(initial));
    data += count * 64;
    for (; static_cast<size_t>(end - data) >= count * 64; data += count * 64) {
#pragma GCC unroll 8
        for (size_t i = 0; i < count; ++i)
            lanes[i] = fold_lanes(lanes[i], by.by_lanes[4], _mm512_loadu_si512(data + i * 64));
    }
#pragma GCC unroll 8
    for (size_t i = 1; i < count; ++i)
        lanes[i] = fold_lanes(lanes[i - 1], by.by_lanes[2], lanes[i]);
    __m512i folded = lanes[count - 1];
    for (; static_cast<size_t>(end - data) >= 64; data += 64)
        folded = fold_lanes(folded, by.by_lanes[2], _mm512_loadu_si512(data));

    uint8_t apart[4 * lane_size];
    _mm512_storeu_si512(apart, folded);
    __m128i last[4];
#pragma GCC unroll 8
    for (size_t i = 0; i < 4; ++i)
        last[i] = load_lane(apart + i * lane_size);
    return finish(fold_together(last, by), data, end, by);
}

// The register behind the whole lanes of at least `least_size` bytes, of which the first ones meet the register `start`.
inline uint64_t update(uint64_t start, const uint8_t *data, size_t size, const factors &by)
{
    const uint8_t *end = data + size / lane_size * lane_size;
    if (size >= 512 && processor::has(processor::vpclmul))
        return update_512(start, data, end, by);
    return size >= 256 ? update_128<3>(start, data, end, by) : update_128<2>(start, data, end, by);
}

#elif defined(KESTAL_CRC_AARCH64)

inline bool usable()
{
    return processor::has(processor::arm_pmull);
}

[[gnu::target("+crypto"), gnu::always_inline]] inline uint64x2_t load_lane(const uint8_t *from)
{
    return vreinterpretq_u64_u8(vld1q_u8(from));
}

[[gnu::target("+crypto"), gnu::always_inline]] inline uint64x2_t fold_lane(uint64x2_t lane, const fold_factors &by,
                                                                           uint64x2_t onto)
{
    const poly128_t first = vmull_p64(vgetq_lane_u64(lane, 0), by.first);
    const poly128_t last = vmull_p64(vgetq_lane_u64(lane, 1), by.last);
    return veorq_u64(veorq_u64(vreinterpretq_u64_p128(first), vreinterpretq_u64_p128(last)), onto);
}

// As on x86.
[[gnu::target("+crypto"), gnu::always_inline]] inline uint64_t divide(uint64x2_t lane, const factors &by)
{
    const uint64x2_t moved = vreinterpretq_u64_p128(vmull_p64(vgetq_lane_u64(lane, 0), by.by_64));
    const uint64_t high = vgetq_lane_u64(lane, 1) ^ vgetq_lane_u64(moved, 0);
    const uint64_t shifted = vgetq_lane_u64(vreinterpretq_u64_p128(vmull_p64(high, by.reciprocal)), 0);
    const uint64x2_t multiple = vreinterpretq_u64_p128(vmull_p64(shifted << 1 ^ high, by.polynomial));
    return vgetq_lane_u64(multiple, 1) << 1 ^ vgetq_lane_u64(multiple, 0) >> 63 ^ vgetq_lane_u64(moved, 1);
}

[[gnu::target("+crypto")]] inline uint64_t update(uint64_t start, const uint8_t *data, size_t size, const factors &by)
{
    constexpr size_t count = 4;
    const uint8_t *end = data + size / lane_size * lane_size;
    uint64x2_t lanes[count];
#pragma GCC unroll 8
    for (size_t i = 0; i < count; ++i)
        lanes[i] = load_lane(data + i * lane_size);
    lanes[0] = veorq_u64(lanes[0], vcombine_u64(vcreate_u64(start), vcreate_u64(0)));
    data += count * lane_size;
    for (; static_cast<size_t>(end - data) >= count * lane_size; data += count * lane_size) {
#pragma GCC unroll 8
        for (size_t i = 0; i < count; ++i)
            lanes[i] = fold_lane(lanes[i], by.by_lanes[2], load_lane(data + i * lane_size));
    }
#pragma GCC unroll 8
    for (size_t i = 1; i < count; ++i)
        lanes[i] = fold_lane(lanes[i - 1], by.by_lanes[0], lanes[i]);
    uint64x2_t folded = lanes[count - 1];
    for (; data != end; data += lane_size)
        folded = fold_lane(folded, by.by_lanes[0], load_lane(data));
    return divide(folded, by);
}

#else

inline bool usable()
{
    return false;
}

inline uint64_t update(uint64_t start, const uint8_t *, size_t, const factors &)
{
    return start;
}

#endif

} // namespace kestal::crc_instructions
