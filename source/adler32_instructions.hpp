// Adler-32 over whole vectors: x86 SSSE3 and AVX2.
#pragma once

#include "processor.hpp"

#include <stddef.h>
#include <stdint.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace kestal {

// The two sums, not reduced.
struct adler32_sums {
    uint64_t a, b;
};

} // namespace kestal

namespace kestal::adler32_instructions {

#if defined(__x86_64__)

// A byte counts in b as often as there are bytes from it to the end. A step takes two vectors: `weighted` counts a byte
// by its place in its vector (its 32-bit lanes take more than a MiB before they overflow), `high_bytes` the bytes of the
// first vectors once for each byte of the second, and `bytes_so_far` all bytes once for each byte of the steps that
// follow.

[[gnu::target("sse4.1"), gnu::always_inline]] inline uint64_t sum_of_lanes(__m128i lanes)
{
    return static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_add_epi64(lanes, _mm_unpackhi_epi64(lanes, lanes))));
}

[[gnu::target("ssse3,sse4.1")]] inline size_t add_ssse3(adler32_sums &total, const uint8_t *data, size_t size)
{
    constexpr size_t step = 32;
    const __m128i ones = _mm_set1_epi16(1);
    const __m128i zero = _mm_setzero_si128();
    const __m128i weights = _mm_set_epi8(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
    __m128i high_bytes = zero, low_bytes = zero, bytes_so_far = zero, weighted = zero;
    const size_t done = size / step * step;
    for (const uint8_t *end = data + done; data != end; data += step) {
        const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i *>(data));
        const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i *>(data + 16));
        bytes_so_far = _mm_add_epi64(bytes_so_far, _mm_add_epi64(high_bytes, low_bytes));
        high_bytes = _mm_add_epi64(high_bytes, _mm_sad_epu8(high, zero));
        low_bytes = _mm_add_epi64(low_bytes, _mm_sad_epu8(low, zero));
        const __m128i pairs = _mm_add_epi16(_mm_maddubs_epi16(high, weights), _mm_maddubs_epi16(low, weights));
        weighted = _mm_add_epi32(weighted, _mm_madd_epi16(pairs, ones));
    }
    weighted = _mm_add_epi64(_mm_unpacklo_epi32(weighted, zero), _mm_unpackhi_epi32(weighted, zero));
    weighted = _mm_add_epi64(weighted, _mm_slli_epi64(high_bytes, 4));
    weighted = _mm_add_epi64(weighted, _mm_slli_epi64(bytes_so_far, 5));
    total.b += done * total.a + sum_of_lanes(weighted);
    total.a += sum_of_lanes(_mm_add_epi64(high_bytes, low_bytes));
    return done;
}

[[gnu::target("avx2"), gnu::always_inline]] inline uint64_t sum_of_lanes(__m256i lanes)
{
    return sum_of_lanes(_mm_add_epi64(_mm256_castsi256_si128(lanes), _mm256_extracti128_si256(lanes, 1)));
}

[[gnu::target("avx2")]] inline size_t add_avx2(adler32_sums &total, const uint8_t *data, size_t size)
{
    constexpr size_t step = 64;
    const __m256i ones = _mm256_set1_epi16(1);
    const __m256i zero = _mm256_setzero_si256();
    const __m256i weights = _mm256_set_epi8(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21,
                                            22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32);
    __m256i high_bytes = zero, low_bytes = zero, bytes_so_far = zero, weighted = zero;
    const size_t done = size / step * step;
    for (const uint8_t *end = data + done; data != end; data += step) {
        const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(data));
        const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(data + 32));
        bytes_so_far = _mm256_add_epi64(bytes_so_far, _mm256_add_epi64(high_bytes, low_bytes));
        high_bytes = _mm256_add_epi64(high_bytes, _mm256_sad_epu8(high, zero));
        low_bytes = _mm256_add_epi64(low_bytes, _mm256_sad_epu8(low, zero));
        const __m256i pairs = _mm256_add_epi16(_mm256_maddubs_epi16(high, weights), _mm256_maddubs_epi16(low, weights));
        weighted = _mm256_add_epi32(weighted, _mm256_madd_epi16(pairs, ones));
    }
    weighted = _mm256_add_epi64(_mm256_unpacklo_epi32(weighted, zero), _mm256_unpackhi_epi32(weighted, zero));
    weighted = _mm256_add_epi64(weighted, _mm256_slli_epi64(high_bytes, 5));
    weighted = _mm256_add_epi64(weighted, _mm256_slli_epi64(bytes_so_far, 6));
    total.b += done * total.a + sum_of_lanes(weighted);
    total.a += sum_of_lanes(_mm256_add_epi64(high_bytes, low_bytes));
    return done;
}

// Adds as many of the bytes as it has instructions for, from the first on. Returns how many.
inline size_t add(adler32_sums &total, const uint8_t *data, size_t size)
{
    if (processor::has(processor::avx2))
        return add_avx2(total, data, size);
    if (processor::has(processor::ssse3))
        return add_ssse3(total, data, size);
    return 0;
}

#else

inline size_t add(adler32_sums &, const uint8_t *, size_t)
{
    return 0;
}

#endif

} // namespace kestal::adler32_instructions
