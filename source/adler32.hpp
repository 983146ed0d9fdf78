// Adler-32 of a short text as inline code, for modules that look many up.
#pragma once

#include <kestal_ulx/adler32.h>

#include "byte_order.hpp"

#include <stdint.h>

namespace kestal {

// The sum of a word's bytes, and the same with each byte counted as often as there are bytes from it to the end.
struct adler32_word {
    explicit adler32_word(uint64_t bytes)
    {
        constexpr uint64_t lanes = 0x00FF00FF00FF00FF;
        const uint64_t even = bytes & lanes, odd = bytes >> 8 & lanes;
        // The highest lane of a product is the sum of all lanes, each with its weight.
        sum = static_cast<uint32_t>((even + odd) * 0x0001000100010001 >> 48);
        weighted = static_cast<uint32_t>((even * 0x0008000600040002 >> 48) + (odd * 0x0007000500030001 >> 48));
    }

    uint32_t sum, weighted;
};

// One to eight bytes as the last ones of a word; those before them are 0.
inline uint64_t as_last_bytes(const uint8_t *bytes, uint64_t size)
{
    const uint64_t before = 64 - 8 * size;
    if (size >= 4)
        return uint64_t{load_little_32(bytes)} << before | uint64_t{load_little_32(bytes + size - 4)} << 32;
    const uint64_t middle = size / 2;
    return uint64_t{bytes[0]} << before | uint64_t{bytes[middle]} << (before + 8 * middle) |
           uint64_t{bytes[size - 1]} << 56;
}

// kestal_update_adler32 from 1 on. Neither sum of 16 bytes reaches the modulus.
inline uint32_t adler32_of(const void *text, uint64_t size)
{
    if (size == 0 || size > 16)
        return kestal_update_adler32(1, text, size);
    const auto *bytes = static_cast<const uint8_t *>(text);
    if (size <= 8) {
        const adler32_word only(as_last_bytes(bytes, size));
        return (static_cast<uint32_t>(size) + only.weighted) << 16 | (1 + only.sum);
    }
    const adler32_word first(load_little_64(bytes));
    const uint64_t twice = 8 * (16 - size); // bits that the two words have in common
    const adler32_word second(load_little_64(bytes + size - 8) >> twice << twice);
    const uint32_t a = 1 + first.sum;
    const uint32_t b = 8 + first.weighted + static_cast<uint32_t>(size - 8) * a + second.weighted;
    return b << 16 | (a + second.sum);
}

} // namespace kestal
