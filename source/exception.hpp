// How the dump of exception tags learns of the threads, which live on a higher floor.
#pragma once

#include <cstdint>

namespace kestal {

// Returns the number of threads and stores how many work, how many are idle, and the most there have been.
using thread_counters = uint64_t (*)(uint64_t *active, uint64_t *ready, uint64_t *max);

// Names the counters that dumps read from now on; until then, and with null, they read 0. From any thread.
void register_thread_counters(thread_counters counters);

} // namespace kestal
