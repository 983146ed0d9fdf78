// What the last wait of a select set found, walked without a look at every descriptor.
#pragma once

#include <kestal_ulx/select.h>

namespace kestal {

struct ready_descriptor {
    int32_t descriptor; // -1: none
    uint32_t conditions;
};

// The lowest descriptor from `from` on that the last wait found ready.
ready_descriptor next_ready(const kestal_select_t &set, int32_t from);

} // namespace kestal
