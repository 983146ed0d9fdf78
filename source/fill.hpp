// Boxes of pixels filled with one colour.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace kestal {

// Fills `height` rows of `width` pixels of 1 to 4 bytes each, one row every `line_length` bytes.
void fill_rows(uint8_t *first, uint64_t line_length, uint32_t color, size_t bytes, size_t width, size_t height);

} // namespace kestal
