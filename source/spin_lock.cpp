#include <kestal_ulx/spin_lock.h>

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>

#include "framed_warning.hpp"
#include "list_guard.hpp"
#include "timer.hpp"

namespace {

using kestal::list_guard;

constexpr int32_t exclusive_bit = 0x02;

bool is_given(const kestal_spin_lock_t *lock, const char *function, uint64_t line)
{
    if (lock == nullptr)
        kestal_assert_fail_tag("./source/spin_lock", function, line, "s_this_spin_lock != ((kestal_spin_lock_t *)0)");
    return lock != nullptr;
}

// One attempt, which does not even wait for the guard.
[[gnu::always_inline]] inline bool try_take(kestal_spin_lock_t &lock, int32_t mode, const char *name, uint64_t line)
{
    const std::atomic_ref guard(lock.m_guard);
    if (guard.exchange(kestal::guard_taken, std::memory_order_acquire) != 0)
        return false;
    const bool exclusive = (mode & exclusive_bit) != 0;
    const bool taken = lock.m_exclusive == 0 && lock.m_count < (exclusive ? 1 : UINT32_MAX);
    if (taken) {
        lock.m_exclusive = exclusive;
        if (lock.m_count++ == 0) {
            lock.m_name = name;
            lock.m_line = line;
        }
    }
    guard.store(0, std::memory_order_release);
    return taken;
}

// Attempts with sleeps between them: 1 ms once, then 10 ms. A negative time-out is none.
[[gnu::noinline]] bool wait_for(kestal_spin_lock_t &lock, int32_t mode, int32_t timeout, const char *name,
                                uint64_t line)
{
    const bool endless = timeout < 0;
    const kestal::timer due(endless ? 0 : static_cast<uint64_t>(timeout));
    kestal_load_balance_short();
    while (!try_take(lock, mode, name, line)) {
        if (!endless && due.expired())
            return false;
        kestal_load_balance();
    }
    return true;
}

bool take(kestal_spin_lock_t *lock, int32_t mode, int32_t timeout, const char *name, uint64_t line)
{
    if (lock == nullptr)
        return false;
    if (try_take(*lock, mode, name, line))
        return true;
    return timeout != 0 && wait_for(*lock, mode, timeout, name, line);
}

[[gnu::noinline]] void warn_of_free_lock(const char *name, uint64_t line)
{
    kestal_error_printf(
        KESTAL_FRAMED("kestal: [WARNING] unlock - invalid reference count (already unlocked ?, \"%s:%lu\")"), name,
        line);
}

void give_back(kestal_spin_lock_t *lock, const char *name, uint64_t line)
{
    if (lock == nullptr)
        return;
    bool was_held = false;
    {
        const list_guard guard(lock->m_guard);
        was_held = lock->m_count > 0;
        lock->m_count -= was_held;
        lock->m_exclusive = 0;
    }
    if (!was_held)
        warn_of_free_lock(name, line);
}

} // namespace

kestal_spin_lock_t *kestal_init_spin_lock(kestal_spin_lock_t *lock)
{
    if (!is_given(lock, __func__, __LINE__))
        return nullptr;
    *lock = {};
    return lock;
}

int32_t kestal_uninit_spin_lock(kestal_spin_lock_t *lock)
{
    return is_given(lock, __func__, __LINE__) ? 0 : -1;
}

kestal_spin_lock_t *kestal_new_spin_lock(void)
{
    auto *lock = static_cast<kestal_spin_lock_t *>(kestal_alloc(sizeof(kestal_spin_lock_t)));
    return lock == nullptr ? nullptr : kestal_init_spin_lock(lock);
}

int32_t kestal_free_spin_lock(kestal_spin_lock_t *lock)
{
    if (kestal_uninit_spin_lock(lock) != 0)
        return -1;
    kestal_free(lock);
    return 0;
}

int32_t kestal_reference_try_spin_lock_tag(kestal_spin_lock_t *lock, int32_t mode, const char *name, uint64_t line)
{
    return take(lock, mode, 0, name, line);
}

void kestal_reference_spin_lock_tag(kestal_spin_lock_t *lock, int32_t mode, const char *name, uint64_t line)
{
    take(lock, mode, -1, name, line);
}

int32_t kestal_reference_spin_lock_timeout_tag(kestal_spin_lock_t *lock, int32_t mode, int32_t timeout,
                                               const char *name, uint64_t line)
{
    return take(lock, mode, timeout, name, line);
}

void kestal_reference_spin_unlock_tag(kestal_spin_lock_t *lock, const char *name, uint64_t line)
{
    give_back(lock, name, line);
}

int32_t kestal_try_spin_lock_tag(kestal_spin_lock_t *lock, const char *name, uint64_t line)
{
    return take(lock, KESTAL_SPIN_LOCK_EXCLUSIVE, 0, name, line);
}

void kestal_spin_lock_tag(kestal_spin_lock_t *lock, const char *name, uint64_t line)
{
    take(lock, KESTAL_SPIN_LOCK_EXCLUSIVE, -1, name, line);
}

int32_t kestal_spin_lock_timeout_tag(kestal_spin_lock_t *lock, int32_t timeout, const char *name, uint64_t line)
{
    return take(lock, KESTAL_SPIN_LOCK_EXCLUSIVE, timeout, name, line);
}

void kestal_spin_unlock_tag(kestal_spin_lock_t *lock, const char *name, uint64_t line)
{
    give_back(lock, name, line);
}
