// Where lines end, for whoever cuts bytes into lines: CR and LF each end one, but not as the second half of a
// double-byte character.
#pragma once

#include <bit>
#include <stdint.h>
#include <string.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kestal {

// Skips bytes that neither end a line nor begin a double-byte character.
inline const char *skip_plain(const char *at, const char *end)
{
#if defined(__SSE2__)
    for (; end - at >= 16; at += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(at));
        const __m128i ends =
            _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\r')), _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\n')));
        const int stops = _mm_movemask_epi8(_mm_or_si128(bytes, ends));
        if (stops != 0)
            return at + std::countr_zero(static_cast<unsigned>(stops));
    }
#endif
    constexpr uint64_t ones = 0x0101010101010101, lows = 0x7F7F7F7F7F7F7F7F;
    // Sets the high bit of every byte that is 0, and no other bit.
    constexpr auto zero_bytes = [](uint64_t word) { return ~(((word & lows) + lows) | word | lows); };
    while (end - at >= 8) {
        uint64_t word;
        memcpy(&word, at, sizeof word);
        const uint64_t stops = (word & ~lows) | zero_bytes(word ^ ones * '\r') | zero_bytes(word ^ ones * '\n');
        if (stops != 0) {
            const int bits =
                std::endian::native == std::endian::little ? std::countr_zero(stops) : std::countl_zero(stops);
            return at + bits / 8;
        }
        at += 8;
    }
    while (at < end && static_cast<unsigned char>(*at) < 0x80 && *at != '\r' && *at != '\n')
        ++at;
    return at;
}

// The place of the CR or LF that ends a line, or the end. `high_byte` tells and is told whether the byte before is the
// first half of a double-byte character, whose second half ends no line.
inline const char *find_line_end(const char *at, const char *end, uint32_t &high_byte)
{
    while (at < end) {
        if (high_byte != 0) {
            high_byte = 0;
            ++at;
            continue;
        }
        at = skip_plain(at, end);
        if (at == end || static_cast<unsigned char>(*at) < 0x80)
            return at;
        high_byte = 1;
        ++at;
    }
    return at;
}

} // namespace kestal
