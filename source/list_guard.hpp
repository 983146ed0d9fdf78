// Holds the guard word of a lock for a scope. What it guards is a few instructions of list work, so a caller that meets
// it taken offers the processor to the holder a few times before it begins to sleep.
#pragma once

#include <kestal_ulx/short_lock.h>

#include <atomic>
#include <sched.h>

namespace kestal {

class list_guard {
public:
    explicit list_guard(kestal_short_lock_t &word) : word_(word)
    {
        if (!try_take())
            wait();
    }
    ~list_guard() { word_.store(0, std::memory_order_release); }
    list_guard(const list_guard &) = delete;
    list_guard &operator=(const list_guard &) = delete;

private:
    static constexpr int offers = 8;

    bool try_take() { return word_.exchange(1, std::memory_order_acquire) == 0; }

    void wait()
    {
        for (int i = 0; i < offers; ++i) {
            sched_yield();
            if (try_take())
                return;
        }
        do
            kestal_load_balance_short();
        while (!try_take());
    }

    std::atomic_ref<kestal_short_lock_t> word_;
};

} // namespace kestal
