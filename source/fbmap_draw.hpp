// A map's drawing operations, for those that draw more than one of them while they hold the lock.
#pragma once

#include <kestal_ulx/fbmap_draw.h>

#include "fbmap_record.hpp"

#include <span>

namespace kestal {

extern const fbmap_operation<int32_t, uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t> box_operation;
extern const fbmap_operation<int32_t, uint32_t, int32_t, int32_t, int32_t, int32_t> line_operation;
extern const fbmap_operation<int32_t, uint32_t, int32_t, int32_t, uint32_t, uint32_t> circle_operation;

// Fills what lies in the map of an area, by its operation for boxes. True when anything does.
bool fill_area(kestal_fbmap_t &map, uint32_t color, const area &asked);

// Draws the set bits of rows of 32, the highest bit leftmost, from (x, y) on, as so many boxes of one pixel. False, and
// nothing done, when the map's owner draws its boxes.
bool draw_bits(kestal_fbmap_t &map, uint32_t color, int64_t x, int64_t y, std::span<const uint32_t> rows);

} // namespace kestal
