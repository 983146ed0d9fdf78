// The end of a wait, which signals and spurious wake-ups do not move, and the wait for a descriptor.
#pragma once

#include <kestal_ulx/time_stamp.h>

#include <errno.h>
#include <poll.h>
#include <stdint.h>

namespace kestal {

class deadline {
public:
    // Milliseconds from now; negative: never.
    explicit deadline(int32_t timeout) : timeout_(timeout), start_(timeout < 0 ? 0 : kestal_time_stamp_msec()) {}

    // Milliseconds left, as poll takes them.
    int left() const
    {
        if (timeout_ < 0)
            return -1;
        const uint64_t elapsed = kestal_time_stamp_msec() - start_;
        return elapsed >= static_cast<uint64_t>(timeout_) ? 0 : timeout_ - static_cast<int32_t>(elapsed);
    }

private:
    int32_t timeout_;
    uint64_t start_;
};

// Waits until the descriptor is ready for `events` (of poll), has failed or was hung up. False with the cause in errno:
// ETIMEDOUT when the time is up. Works for any descriptor, above 1023 too.
inline bool wait_for_events(int descriptor, short events, const deadline &end)
{
    pollfd entry{.fd = descriptor, .events = events, .revents = 0};
    for (;;) {
        const int ready = poll(&entry, 1, end.left());
        if (ready > 0 && (entry.revents & POLLNVAL) == 0)
            return true;
        if (ready >= 0)
            errno = ready > 0 ? EBADF : ETIMEDOUT;
        if (ready >= 0 || errno != EINTR)
            return false;
    }
}

} // namespace kestal
