// Events that look up a host and connect to it: the two steps of theirs that a look at the base takes.
#pragma once

#include <kestal_ulx/event.h>

namespace kestal {

// Asks for the addresses of an event that waits for them.
void resolve_event(kestal_event_t &event);

// Begins the connection of an event that has addresses, or ends it when `ready` (KESTAL_SELECT_ bits) says that there
// is news of it. What came of it is added to the event's result.
void connect_event(kestal_event_t &event, uint32_t ready);

} // namespace kestal
