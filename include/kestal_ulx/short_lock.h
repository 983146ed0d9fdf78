/**
 * @file
 * Short lock: one 32-bit word taken by an atomic exchange, for a few instructions of work on shared state; and the
 * back-off sleeps with which every waiting loop of the library waits.
 *
 * A waiter sleeps 1 ms between attempts. There is no owner, no recursion and no fairness: taking the same lock twice
 * in one thread never returns. The holder must not sleep, allocate or print. A zeroed word is a free lock.
 */
#ifndef KESTAL_ULX_SHORT_LOCK_H
#define KESTAL_ULX_SHORT_LOCK_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** 0 free, 1 taken. */
typedef uint32_t kestal_short_lock_t;

/** Stores `value` and returns what was there before, in one sequentially consistent step. */
KESTAL_API uint32_t kestal_atomic_exchange(uint32_t *word, uint32_t value);

/** Stores 0 with release ordering. */
KESTAL_API void kestal_atomic_release(uint32_t *word);

/** Makes the lock free and returns it. Null reports an assertion and gives null. */
KESTAL_API kestal_short_lock_t *kestal_init_short_lock(kestal_short_lock_t *lock);

/** Ends the use of a lock; there is nothing to release. Returns 0. */
KESTAL_API int32_t kestal_uninit_short_lock(kestal_short_lock_t *lock);

/** One attempt: 1 when this call took the lock, 0 when it was taken already (or is null). */
KESTAL_API int32_t kestal_try_short_lock(kestal_short_lock_t *lock);

/** Takes the lock, sleeping 1 ms between attempts, without a time-out. Null is ignored. */
KESTAL_API void kestal_short_lock(kestal_short_lock_t *lock);

/** Frees the lock, whoever holds it. Null is ignored. */
KESTAL_API void kestal_short_unlock(kestal_short_lock_t *lock);

/**
 * Sleeps seconds x 1000 + microseconds / 1000 milliseconds, in whole milliseconds: below 1000 microseconds it returns
 * at once. 0 after the full time, -1 when a signal cut it short.
 */
KESTAL_API int32_t kestal_sleep_wait(uint32_t seconds, uint32_t microseconds);

/** The short back-off sleep: 1 ms. Result as kestal_sleep_wait. */
KESTAL_API int32_t kestal_load_balance_short(void);

/** The normal back-off sleep: 10 ms. Result as kestal_sleep_wait. */
KESTAL_API int32_t kestal_load_balance(void);

/** The long back-off sleep: 100 ms. Result as kestal_sleep_wait. */
KESTAL_API int32_t kestal_load_balance_long(void);

KESTAL_END_DECLS

#endif
