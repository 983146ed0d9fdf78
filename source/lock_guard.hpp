// Guards that hold a lock or a spin lock for a scope. The tag is the function and line that make the guard.
#pragma once

#include <kestal_ulx/lock.h>
#include <kestal_ulx/spin_lock.h>

#include <sched.h>

namespace kestal {

// Holds a lock, waiting for it without limit.
class lock_guard {
public:
    explicit lock_guard(kestal_lock_t &lock, const char *name = __builtin_FUNCTION(),
                        uint64_t line = static_cast<uint64_t>(__builtin_LINE()))
        : lock_(lock), name_(name), line_(line)
    {
        kestal_lock_timeout_tag(&lock_, KESTAL_LOCK_NO_TIMEOUT, name_, line_);
    }
    ~lock_guard() { kestal_unlock_tag(&lock_, name_, line_); }
    lock_guard(const lock_guard &) = delete;
    lock_guard &operator=(const lock_guard &) = delete;

private:
    kestal_lock_t &lock_;
    const char *name_;
    uint64_t line_;
};

// Holds a spin lock in one mode, waiting for it without limit. Offers the processor to other threads a few times before
// it begins to sleep: most holders are gone by then, and threads that only look something up stay side by side.
template <int32_t mode>
class spin_guard {
public:
    explicit spin_guard(kestal_spin_lock_t &lock, const char *name = __builtin_FUNCTION(),
                        uint64_t line = static_cast<uint64_t>(__builtin_LINE()))
        : lock_(lock), name_(name), line_(line)
    {
        for (int i = 0; i < offers; ++i) {
            if (kestal_reference_try_spin_lock_tag(&lock_, mode, name_, line_) != 0)
                return;
            sched_yield();
        }
        kestal_reference_spin_lock_tag(&lock_, mode, name_, line_);
    }
    ~spin_guard() { kestal_reference_spin_unlock_tag(&lock_, name_, line_); }
    spin_guard(const spin_guard &) = delete;
    spin_guard &operator=(const spin_guard &) = delete;

private:
    static constexpr int offers = 8;

    kestal_spin_lock_t &lock_;
    const char *name_;
    uint64_t line_;
};

using shared_spin_guard = spin_guard<KESTAL_SPIN_LOCK_SHARED>;
using exclusive_spin_guard = spin_guard<KESTAL_SPIN_LOCK_EXCLUSIVE>;

} // namespace kestal
