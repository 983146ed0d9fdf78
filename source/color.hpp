// Colours for who draws: rows of pixels converted from one format to another.
#pragma once

#include <kestal_ulx/color.h>

#include <stddef.h>
#include <stdint.h>

namespace kestal {

// The bits that a pixel of the format takes: the sum of the fields' widths.
constexpr uint32_t bits_per_pixel(uint32_t code)
{
    return (code & 0x0F0F0F0Fu) * 0x01010101u >> 24;
}

// The bytes of a pixel of 8, 16, 24 or 32 bits; 0 for any other depth.
constexpr uint32_t bytes_per_pixel(uint32_t code)
{
    const uint32_t bits = bits_per_pixel(code);
    return bits % 8 == 0 && bits <= 32 ? bits / 8 : 0;
}

// Converts `count` neighbouring pixels, each as kestal_convert_color does. Pixels of 16 and 32 bits lie in memory in the
// machine's byte order and may be unaligned, those of 24 bits are three bytes from the least significant on; what does
// not fit a pixel of the target is cut off. The rows must not overlap. False, and nothing done, when one of the formats
// has not 8, 16, 24 or 32 bits.
bool convert_color_row(uint32_t target_code, uint8_t *target, uint32_t source_code, const uint8_t *source,
                       size_t count);

} // namespace kestal
