/**
 * @file
 * Lock (mutex) with time-out, and the lock condition: waiting threads sleep, each on a pipe of its own, and are woken
 * first come, first served. A newcomer never passes a waiter.
 *
 * The memory is the caller's (made ready by kestal_init_lock or KESTAL_LOCK_INITIALIZER) or comes from
 * kestal_new_lock; it must not move while in use. Any thread may call anything, and any thread may unlock; a thread must
 * not be cancelled while it waits. Tags name the code that initialised, holds or waits, for the diagnostics; the name is
 * not copied and must stay valid. A lock says nothing about its troubles unless its owner sets the message bits in
 * `m_flags`; they go to the error sink.
 */
#ifndef KESTAL_ULX_LOCK_H
#define KESTAL_ULX_LOCK_H

#include <kestal_ulx/short_lock.h>

KESTAL_BEGIN_DECLS

/* Bits of kestal_lock_t.m_flags; set them after initialisation and before the lock is shared. */
#define KESTAL_LOCK_WARNINGS 0x10u      /**< print warnings and errors; so does 0x20 */
#define KESTAL_LOCK_MORE_WARNINGS 0x20u /**< as 0x10 */
#define KESTAL_LOCK_ERRORS 0x40u        /**< print errors */
#define KESTAL_LOCK_INITIALIZED 0x80u   /**< set by initialisation */
#define KESTAL_LOCK_RECURSIVE 0x100u    /**< the owning thread may lock again */
#define KESTAL_LOCK_ALLOCATED 0x8000u   /**< made by kestal_new_lock */

/** All ones: for a wait no limit, as a lock's default time-out 1,800,000 ms. */
#define KESTAL_LOCK_NO_TIMEOUT UINT32_MAX

/** One thread's hold on, or wait for, a lock. */
typedef struct kestal_lock_claim {
    struct kestal_lock_claim *m_prev; /**< the newer hold; the waiter ahead */
    struct kestal_lock_claim *m_next; /**< the older hold; the waiter behind */
    uint64_t m_thread_id;             /**< 0 when the lock is not recursive */
    int32_t m_pipe[2];                /**< read and write end that wake a waiter; -1 when there is none */
    const char *m_name;               /**< tag of the caller */
    uint64_t m_line;                  /**< line of the caller */
} kestal_lock_claim_t;

/** A lock. The message and recursion bits and the default time-out are the owner's to set; the rest is private. */
typedef struct kestal_lock {
    uint32_t m_flags;                   /**< KESTAL_LOCK_ bits */
    uint32_t m_default_timeout;         /**< ms before an endless wait warns of a dead-lock; all ones: 1,800,000 */
    kestal_short_lock_t m_guard;        /**< guards the lists; its value also stands for the simplest of them */
    kestal_lock_claim_t *m_holder;      /**< most recent first; kept up only while it says more than m_guard does */
    kestal_lock_claim_t *m_waiter_head; /**< first come */
    kestal_lock_claim_t *m_waiter_tail; /**< last come */
    const char *m_name;                 /**< tag of the initialiser */
    uint64_t m_line;                    /**< line of the initialiser */
    kestal_lock_claim_t m_first_hold;   /**< private: the hold that found the lock free needs no memory of its own */
} kestal_lock_t;

/** A lock initialised at compile time: what kestal_init_lock makes, under this tag. For locks of static storage. */
#define KESTAL_LOCK_INITIALIZER(name, line)                                                                            \
    {                                                                                                                  \
        KESTAL_LOCK_INITIALIZED, UINT32_MAX, 0, NULL, NULL, NULL, (name), (line),                                      \
        {                                                                                                              \
            NULL, NULL, 0, {-1, -1}, NULL, 0                                                                           \
        }                                                                                                              \
    }

/** One thread's wait on a condition, on that thread's stack. */
typedef struct kestal_lock_condition_waiter {
    struct kestal_lock_condition_waiter *m_prev; /**< the one ahead */
    struct kestal_lock_condition_waiter *m_next; /**< the one behind */
    uint32_t m_signalled;                        /**< 1: woken */
    int32_t m_pipe[2];                           /**< read and write end that wake it */
    const char *m_name;                          /**< tag of the caller */
    uint64_t m_line;                             /**< line of the caller */
} kestal_lock_condition_waiter_t;

/** A condition: all private. */
typedef struct kestal_lock_condition {
    kestal_short_lock_t m_guard;                   /**< guards the list */
    kestal_lock_condition_waiter_t *m_waiter_head; /**< the first to be woken */
    kestal_lock_condition_waiter_t *m_waiter_tail; /**< the last */
    const char *m_name;                            /**< tag of the initialiser */
    uint64_t m_line;                               /**< line of the initialiser */
} kestal_lock_condition_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(offsetof(kestal_lock_t, m_holder) == 16, "layout of kestal_lock_t");
KESTAL_STATIC_ASSERT(offsetof(kestal_lock_t, m_line) == 48, "layout of kestal_lock_t");
KESTAL_STATIC_ASSERT(offsetof(kestal_lock_claim_t, m_line) == 40, "layout of kestal_lock_claim_t");
KESTAL_STATIC_ASSERT(sizeof(kestal_lock_condition_t) == 40, "layout of kestal_lock_condition_t");
#endif

/* The calls with the call site filled in as the tag: the ones to use. */
/** kestal_init_lock_tag with the caller's name and line. */
#define kestal_init_lock(lock) kestal_init_lock_tag((lock), __func__, __LINE__)
/** kestal_uninit_lock_tag with the caller's name and line. */
#define kestal_uninit_lock(lock) kestal_uninit_lock_tag((lock), __func__, __LINE__)
/** kestal_new_lock_tag with the caller's name and line. */
#define kestal_new_lock() kestal_new_lock_tag(__func__, __LINE__)
/** kestal_free_lock_tag with the caller's name and line. */
#define kestal_free_lock(lock) kestal_free_lock_tag((lock), __func__, __LINE__)
/** kestal_lock_timeout_tag with the caller's name and line. */
#define kestal_lock_timeout(lock, timeout) kestal_lock_timeout_tag((lock), (timeout), __func__, __LINE__)
/** kestal_lock_timeout_tag without a limit, with the caller's name and line. */
#define kestal_lock(lock) kestal_lock_timeout_tag((lock), KESTAL_LOCK_NO_TIMEOUT, __func__, __LINE__)
/** kestal_try_lock_tag with the caller's name and line. */
#define kestal_try_lock(lock) kestal_try_lock_tag((lock), __func__, __LINE__)
/** kestal_unlock_tag with the caller's name and line. */
#define kestal_unlock(lock) kestal_unlock_tag((lock), __func__, __LINE__)
/** kestal_init_lock_condition_tag with the caller's name and line. */
#define kestal_init_lock_condition(condition) kestal_init_lock_condition_tag((condition), __func__, __LINE__)
/** kestal_uninit_lock_condition_tag with the caller's name and line. */
#define kestal_uninit_lock_condition(condition) kestal_uninit_lock_condition_tag((condition), __func__, __LINE__)
/** kestal_new_lock_condition_tag with the caller's name and line. */
#define kestal_new_lock_condition() kestal_new_lock_condition_tag(__func__, __LINE__)
/** kestal_free_lock_condition_tag with the caller's name and line. */
#define kestal_free_lock_condition(condition) kestal_free_lock_condition_tag((condition), __func__, __LINE__)
/** kestal_lock_condition_wait_timeout_tag with the caller's name and line. */
#define kestal_lock_condition_wait_timeout(condition, lock, timeout)                                                   \
    kestal_lock_condition_wait_timeout_tag((condition), (lock), (timeout), __func__, __LINE__)
/** kestal_lock_condition_wait_timeout_tag without a limit, with the caller's name and line. */
#define kestal_lock_condition_wait(condition, lock)                                                                    \
    kestal_lock_condition_wait_timeout_tag((condition), (lock), KESTAL_LOCK_NO_TIMEOUT, __func__, __LINE__)
/** kestal_lock_condition_wakeup_tag with the caller's name and line. */
#define kestal_lock_condition_wakeup(condition) kestal_lock_condition_wakeup_tag((condition), __func__, __LINE__)
/** kestal_lock_condition_wakeup_broadcast_tag with the caller's name and line. */
#define kestal_lock_condition_wakeup_broadcast(condition)                                                              \
    kestal_lock_condition_wakeup_broadcast_tag((condition), __func__, __LINE__)

/**
 * Makes a lock ready and returns it: free, not recursive, without messages, with the default time-out of 30 minutes.
 * Null reports an assertion and gives null.
 */
KESTAL_API kestal_lock_t *kestal_init_lock_tag(kestal_lock_t *lock, const char *name, uint64_t line);

/**
 * Ends the use of a lock: returns 0 once it has neither holder nor waiter, and waits for that as long as it takes,
 * with an error report on the error sink when the lock's default time-out has passed and every 4 seconds thereafter.
 * Null reports an assertion and gives -1.
 */
KESTAL_API int32_t kestal_uninit_lock_tag(kestal_lock_t *lock, const char *name, uint64_t line);

/** A new lock, made ready as by kestal_init_lock_tag, or null when memory is short. Ended by kestal_free_lock_tag. */
KESTAL_API kestal_lock_t *kestal_new_lock_tag(const char *name, uint64_t line);

/**
 * Ends the use of a lock as kestal_uninit_lock_tag does, and releases it if kestal_new_lock_tag made it. Returns 0;
 * null reports an assertion and gives -1.
 */
KESTAL_API int32_t kestal_free_lock_tag(kestal_lock_t *lock, const char *name, uint64_t line);

/**
 * Takes the lock, waiting at most `timeout` milliseconds behind those who came earlier: 0 tries only, all ones never
 * gives up (the lock's default time-out then only says when the first dead-lock warning is printed; it is repeated
 * every 4 seconds). The owner of a recursive lock gets in at once, past any waiter, and owes one unlock per lock.
 *
 * 0 when locked; -1 when the time was up, the lock is null, or a recursive hold finds no memory.
 */
KESTAL_API int32_t kestal_lock_timeout_tag(kestal_lock_t *lock, uint32_t timeout, const char *name, uint64_t line);

/** One attempt: 1 when locked, 0 when not. A free lock with waiters is not taken. */
KESTAL_API int32_t kestal_try_lock_tag(kestal_lock_t *lock, const char *name, uint64_t line);

/**
 * Gives up the most recent hold, whoever calls; with the last hold gone the lock goes to the first waiter.
 * Returns 0, or -1 when the lock had no holder or is null.
 */
KESTAL_API int32_t kestal_unlock_tag(kestal_lock_t *lock, const char *name, uint64_t line);

/** Makes a condition ready and returns it. Null reports an assertion and gives null. */
KESTAL_API kestal_lock_condition_t *kestal_init_lock_condition_tag(kestal_lock_condition_t *condition, const char *name,
                                                                   uint64_t line);

/**
 * Ends the use of a condition: wakes one waiter after the other until none is left. Returns 0, however long that
 * takes; null reports an assertion and gives -1.
 */
KESTAL_API int32_t kestal_uninit_lock_condition_tag(kestal_lock_condition_t *condition, const char *name,
                                                    uint64_t line);

/** A new condition, or null when memory is short. Ended by kestal_free_lock_condition_tag. */
KESTAL_API kestal_lock_condition_t *kestal_new_lock_condition_tag(const char *name, uint64_t line);

/** Ends the use of a condition that kestal_new_lock_condition_tag made, and releases it. Returns 0, or -1 for null. */
KESTAL_API int32_t kestal_free_lock_condition_tag(kestal_lock_condition_t *condition, const char *name, uint64_t line);

/**
 * Waits until woken, or for `timeout` milliseconds (all ones: without limit). `lock`, which may be null, is unlocked
 * when the caller stands in the line of waiters, and locked again before the call returns. It gives back one hold: a
 * recursive lock that is held more than once stays locked.
 *
 * 0 whether woken or out of time: the caller looks at its own condition again, under its lock. -1 when the lock could
 * not be taken again, or the condition is null. A wake-up that nobody waits for is not remembered.
 */
KESTAL_API int32_t kestal_lock_condition_wait_timeout_tag(kestal_lock_condition_t *condition, kestal_lock_t *lock,
                                                          uint32_t timeout, const char *name, uint64_t line);

/** Wakes the thread that has waited longest. 0 when one was woken, -1 when nobody waits or the condition is null. */
KESTAL_API int32_t kestal_lock_condition_wakeup_tag(kestal_lock_condition_t *condition, const char *name,
                                                    uint64_t line);

/** Wakes all waiters, in order. 0 when at least one was woken, else -1. */
KESTAL_API int32_t kestal_lock_condition_wakeup_broadcast_tag(kestal_lock_condition_t *condition, const char *name,
                                                              uint64_t line);

KESTAL_END_DECLS

#endif
