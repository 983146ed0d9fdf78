// Colours for who draws: rows of pixels converted from one format to another.
#pragma once

#include <kestal_ulx/color.h>

#include <stddef.h>
#include <stdint.h>

namespace kestal {

// Converts `count` neighbouring pixels, each as kestal_convert_color does. Pixels of 16 and 32 bits lie in memory in the
// machine's byte order and may be unaligned, those of 24 bits are three bytes from the least significant on; what does
// not fit a pixel of the target is cut off. The rows must not overlap. False, and nothing done, when one of the formats
// has not 8, 16, 24 or 32 bits.
bool convert_color_row(uint32_t target_code, uint8_t *target, uint32_t source_code, const uint8_t *source,
                       size_t count);

} // namespace kestal
