// Text drawn while the lock is held.
#pragma once

#include <kestal_ulx/fbmap_text.h>

namespace kestal {

int32_t draw_text(kestal_fbmap_t &map, const char *text);

} // namespace kestal
