// What the contexts and plugins need of the process's instance registry beyond its public calls.
#pragma once

#include <kestal_ulx/instance.h>

namespace kestal {

// The pointer of an id that is registered with exactly this MIME type, compared under the registry's lock; else null.
void *find_ginstance(uint32_t id, const char *mime_type);

} // namespace kestal
