// A map's drawing operations, for those that draw more than one of them while they hold the lock.
#pragma once

#include <kestal_ulx/fbmap_draw.h>

#include "fbmap_record.hpp"

namespace kestal {

extern const fbmap_operation<int32_t, uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t> box_operation;
extern const fbmap_operation<int32_t, uint32_t, int32_t, int32_t, int32_t, int32_t> line_operation;
extern const fbmap_operation<int32_t, uint32_t, int32_t, int32_t, uint32_t, uint32_t> circle_operation;

// Fills what lies in the map of an area, by its operation for boxes. True when anything does.
bool fill_area(kestal_fbmap_t &map, uint32_t color, const area &asked);

} // namespace kestal
