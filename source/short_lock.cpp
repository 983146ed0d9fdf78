#include <kestal_ulx/short_lock.h>

#include <kestal_ulx/assertion.h>

#include <atomic>
#include <sys/select.h>

uint32_t kestal_atomic_exchange(uint32_t *word, uint32_t value)
{
    return std::atomic_ref(*word).exchange(value, std::memory_order_seq_cst);
}

void kestal_atomic_release(uint32_t *word)
{
    std::atomic_ref(*word).store(0, std::memory_order_release);
}

kestal_short_lock_t *kestal_init_short_lock(kestal_short_lock_t *lock)
{
    if (lock == nullptr) {
        kestal_assert_fail_tag("./source/short_lock.c", __func__, __LINE__,
                               "s_short_lock != ((kestal_short_lock_t *)0)");
        return nullptr;
    }
    kestal_atomic_release(lock);
    return lock;
}

int32_t kestal_uninit_short_lock(kestal_short_lock_t *)
{
    return 0;
}

int32_t kestal_try_short_lock(kestal_short_lock_t *lock)
{
    return lock != nullptr && kestal_atomic_exchange(lock, 1) == 0 ? 1 : 0;
}

void kestal_short_lock(kestal_short_lock_t *lock)
{
    if (lock == nullptr)
        return;
    while (kestal_atomic_exchange(lock, 1) != 0)
        kestal_load_balance_short();
}

void kestal_short_unlock(kestal_short_lock_t *lock)
{
    if (lock != nullptr)
        kestal_atomic_release(lock);
}

int32_t kestal_sleep_wait(uint32_t seconds, uint32_t microseconds)
{
    // Waits with select itself: the select set stands on this module.
    const uint64_t milliseconds = uint64_t{seconds} * 1000u + microseconds / 1000u;
    timeval wait{};
    wait.tv_sec = static_cast<time_t>(milliseconds / 1000u);
    wait.tv_usec = static_cast<suseconds_t>(milliseconds % 1000u * 1000u);
    return select(0, nullptr, nullptr, nullptr, &wait);
}

int32_t kestal_load_balance_short(void)
{
    return kestal_sleep_wait(0, 1000);
}

int32_t kestal_load_balance(void)
{
    return kestal_sleep_wait(0, 10000);
}

int32_t kestal_load_balance_long(void)
{
    return kestal_sleep_wait(0, 100000);
}
