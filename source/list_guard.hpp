// Guards the list work of a lock: a few instructions, so a caller that meets it taken offers the processor to the
// holder a few times before it begins to sleep.
#pragma once

#include <kestal_ulx/short_lock.h>

#include <atomic>
#include <sched.h>

namespace kestal {

constexpr uint32_t guard_taken = 1;
constexpr int guard_offers = 8;

[[gnu::noinline]] inline uint32_t wait_for_guard(std::atomic_ref<uint32_t> word)
{
    for (int tries = 0;; ++tries) {
        if (tries < guard_offers)
            sched_yield();
        else
            kestal_load_balance_short();
        const uint32_t before = word.exchange(guard_taken, std::memory_order_acquire);
        if (before != guard_taken)
            return before;
    }
}

// Takes a guard word and returns its value before.
inline uint32_t take_guard(std::atomic_ref<uint32_t> word)
{
    const uint32_t before = word.exchange(guard_taken, std::memory_order_acquire);
    return before != guard_taken ? before : wait_for_guard(word);
}

// Holds a guard word, 0 when free, for a scope.
class list_guard {
public:
    explicit list_guard(kestal_short_lock_t &word) : word_(word) { take_guard(word_); }
    ~list_guard() { word_.store(0, std::memory_order_release); }
    list_guard(const list_guard &) = delete;
    list_guard &operator=(const list_guard &) = delete;

private:
    std::atomic_ref<kestal_short_lock_t> word_;
};

} // namespace kestal
