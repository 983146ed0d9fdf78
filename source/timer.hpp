// A deadline on the library's clock: never early, and it can be pushed on.
#pragma once

#include <kestal_ulx/time_stamp.h>

#include <algorithm>

namespace kestal {

class timer {
public:
    explicit timer(uint64_t milliseconds) : start_(kestal_time_stamp_nsec()), due_(start_ + milliseconds * per_ms) {}

    bool expired() const { return kestal_time_stamp_nsec() >= due_; }
    // Milliseconds since the start.
    uint64_t elapsed() const { return (kestal_time_stamp_nsec() - start_) / per_ms; }

    // Milliseconds left, rounded up, but no more than `most`.
    uint32_t remaining(uint32_t most) const
    {
        const uint64_t now = kestal_time_stamp_nsec();
        return now >= due_ ? 0 : static_cast<uint32_t>(std::min<uint64_t>((due_ - now + per_ms - 1) / per_ms, most));
    }

    // Moves the deadline on in steps until it lies ahead.
    void push(uint64_t milliseconds)
    {
        while (expired())
            due_ += milliseconds * per_ms;
    }

private:
    static constexpr uint64_t per_ms = 1000000;

    uint64_t start_;
    uint64_t due_;
};

} // namespace kestal
