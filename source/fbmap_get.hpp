// Copies of boxes, as one map's redraw needs them while it holds the lock.
#pragma once

#include <kestal_ulx/fbmap_get.h>

#include "fbmap_record.hpp"

namespace kestal {

extern const fbmap_operation<int32_t, const kestal_raw_bitmap_t *, int32_t, int32_t, const kestal_rectangle_t *,
                             uint32_t>
    get_box_operation;

} // namespace kestal
