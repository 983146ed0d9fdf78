/**
 * @file
 * Spin lock with reference count: a short lock that guards a count of holders and an exclusive flag, so that many may
 * hold it shared or one exclusively. For state that is read often and changed rarely.
 *
 * A waiter sleeps between attempts (1 ms, then 10 ms); there is no order among waiters, no recursion and no owner. The
 * lock remembers the call-site tag of the holder that found it free. The memory is the caller's, or comes from
 * kestal_new_spin_lock; a zeroed record is a free lock. Any thread may call anything.
 */
#ifndef KESTAL_ULX_SPIN_LOCK_H
#define KESTAL_ULX_SPIN_LOCK_H

#include <kestal_ulx/short_lock.h>

KESTAL_BEGIN_DECLS

/* The modes of the reference calls: bit 1 asks for exclusive holding. */
#define KESTAL_SPIN_LOCK_SHARED 1    /**< holds beside others */
#define KESTAL_SPIN_LOCK_EXCLUSIVE 3 /**< holds alone */

/** A free lock is all zero. */
typedef struct kestal_spin_lock {
    kestal_short_lock_t m_guard; /**< guards the fields below */
    const char *m_name;          /**< tag of the holder that raised the count from 0 to 1 */
    uint64_t m_line;             /**< line of that holder */
    uint32_t m_exclusive;        /**< 1 while held exclusively */
    uint32_t m_count;            /**< number of holders */
} kestal_spin_lock_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(sizeof(kestal_spin_lock_t) == 32, "layout of kestal_spin_lock_t");
#endif

/* The calls with the call site filled in as the tag: the ones to use. */
/** kestal_reference_try_spin_lock_tag with the caller's name and line. */
#define kestal_reference_try_spin_lock(lock, mode)                                                                     \
    kestal_reference_try_spin_lock_tag((lock), (mode), __func__, __LINE__)
/** kestal_reference_spin_lock_tag with the caller's name and line. */
#define kestal_reference_spin_lock(lock, mode) kestal_reference_spin_lock_tag((lock), (mode), __func__, __LINE__)
/** kestal_reference_spin_lock_timeout_tag with the caller's name and line. */
#define kestal_reference_spin_lock_timeout(lock, mode, timeout)                                                        \
    kestal_reference_spin_lock_timeout_tag((lock), (mode), (timeout), __func__, __LINE__)
/** kestal_reference_spin_unlock_tag with the caller's name and line. */
#define kestal_reference_spin_unlock(lock) kestal_reference_spin_unlock_tag((lock), __func__, __LINE__)
/** kestal_try_spin_lock_tag with the caller's name and line. */
#define kestal_try_spin_lock(lock) kestal_try_spin_lock_tag((lock), __func__, __LINE__)
/** kestal_spin_lock_tag with the caller's name and line. */
#define kestal_spin_lock(lock) kestal_spin_lock_tag((lock), __func__, __LINE__)
/** kestal_spin_lock_timeout_tag with the caller's name and line. */
#define kestal_spin_lock_timeout(lock, timeout) kestal_spin_lock_timeout_tag((lock), (timeout), __func__, __LINE__)
/** kestal_spin_unlock_tag with the caller's name and line. */
#define kestal_spin_unlock(lock) kestal_spin_unlock_tag((lock), __func__, __LINE__)

/** Makes the lock free and returns it. Null reports an assertion and gives null. */
KESTAL_API kestal_spin_lock_t *kestal_init_spin_lock(kestal_spin_lock_t *lock);

/** Ends the use of a lock; there is nothing to release. Returns 0; null reports an assertion and gives -1. */
KESTAL_API int32_t kestal_uninit_spin_lock(kestal_spin_lock_t *lock);

/** A new, free lock, or null when memory is short. Ended by kestal_free_spin_lock. */
KESTAL_API kestal_spin_lock_t *kestal_new_spin_lock(void);

/** Ends and releases a lock that kestal_new_spin_lock made. Returns 0; null reports an assertion and gives -1. */
KESTAL_API int32_t kestal_free_spin_lock(kestal_spin_lock_t *lock);

/**
 * One attempt, exclusive when `mode` has bit 1 (0x02) and shared otherwise: 1 when taken, 0 when not. It never waits,
 * not even for another thread that is at the same lock's count just then. 0 for null.
 */
KESTAL_API int32_t kestal_reference_try_spin_lock_tag(kestal_spin_lock_t *lock, int32_t mode, const char *name,
                                                      uint64_t line);

/** Takes the lock in the given mode, waiting without limit. Null is ignored. */
KESTAL_API void kestal_reference_spin_lock_tag(kestal_spin_lock_t *lock, int32_t mode, const char *name, uint64_t line);

/**
 * Takes the lock in the given mode, waiting at most `timeout` milliseconds (negative: without limit, 0: one attempt).
 * 1 when taken, 0 when the time was up or the lock is null.
 */
KESTAL_API int32_t kestal_reference_spin_lock_timeout_tag(kestal_spin_lock_t *lock, int32_t mode, int32_t timeout,
                                                          const char *name, uint64_t line);

/**
 * Takes one holder off the count and ends exclusive holding, whoever calls. When the count is 0 already, a framed
 * warning with the tag goes to the error sink and the count stays 0. Null is ignored.
 */
KESTAL_API void kestal_reference_spin_unlock_tag(kestal_spin_lock_t *lock, const char *name, uint64_t line);

/** kestal_reference_try_spin_lock_tag in exclusive mode. */
KESTAL_API int32_t kestal_try_spin_lock_tag(kestal_spin_lock_t *lock, const char *name, uint64_t line);

/** kestal_reference_spin_lock_tag in exclusive mode. */
KESTAL_API void kestal_spin_lock_tag(kestal_spin_lock_t *lock, const char *name, uint64_t line);

/** kestal_reference_spin_lock_timeout_tag in exclusive mode. */
KESTAL_API int32_t kestal_spin_lock_timeout_tag(kestal_spin_lock_t *lock, int32_t timeout, const char *name,
                                                uint64_t line);

/** kestal_reference_spin_unlock_tag. */
KESTAL_API void kestal_spin_unlock_tag(kestal_spin_lock_t *lock, const char *name, uint64_t line);

KESTAL_END_DECLS

#endif
