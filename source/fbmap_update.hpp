// Redrawing while the lock is held: what the public calls on maps end with.
#pragma once

#include <kestal_ulx/fbmap_update.h>

namespace kestal {

int32_t update_fbmap(kestal_fbmap_t &map);
int32_t hide_fbmap(kestal_fbmap_t &map);

} // namespace kestal
