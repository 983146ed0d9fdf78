// Locations that are acted on.
#pragma once

#include <kestal_ulx/uri.h>

namespace kestal {

// As kestal_open_uri, but null (ENOMEM) when a part found no memory: without its host, user or path a location is another.
kestal_uri_t *open_whole_uri(const char *text);

} // namespace kestal
