/**
 * @file
 * Services: named background jobs with a start and a stop handshake. kestal_open_service_ex returns once the service
 * function has acknowledged that it runs; kestal_close_service_ex asks it to break and waits until it has returned.
 *
 *     static void work(kestal_service_t *service, void *argument)
 *     {
 *         kestal_ack_service(service);                 // or kestal_error_service(service) and return
 *         while (kestal_break_service(service) == 0)
 *             do_one_round(argument);
 *     }
 *
 * The opener owns the service and closes it once; the service function must not close its own service. The memory goes
 * when both the closer and the service thread are done with it. The other calls may be made by any thread meanwhile.
 */
#ifndef KESTAL_ULX_SERVICE_H
#define KESTAL_ULX_SERVICE_H

#include <kestal_ulx/lock.h>

KESTAL_BEGIN_DECLS

/* Values of kestal_service_t.m_command ... */
#define KESTAL_SERVICE_COMMAND_STARTED 2u /**< the thread is there */
#define KESTAL_SERVICE_COMMAND_RUN 5u     /**< from the start */
#define KESTAL_SERVICE_COMMAND_BREAK 6u   /**< asked to end */
/* ... and of m_status. */
#define KESTAL_SERVICE_STATUS_ERROR 1u    /**< failed before it was acknowledged */
#define KESTAL_SERVICE_STATUS_STARTING 4u /**< not acknowledged yet */
#define KESTAL_SERVICE_STATUS_RUNNING 5u  /**< acknowledged */
#define KESTAL_SERVICE_STATUS_FINISHED 6u /**< the thread is through */

/** A named thread in the background, and the handle on it. */
typedef struct kestal_service kestal_service_t;

/** The body of a service, on a thread of its own. */
typedef void (*kestal_service_function_t)(kestal_service_t *service, void *argument);

/** Called by the closer, in its thread, to get a blocked service moving. -1: call again after the next wait. */
typedef int32_t (*kestal_service_close_notify_handler_t)(void *argument);

/** A service. To be read and changed through the calls below only. */
struct kestal_service {
    kestal_lock_t m_lock;                     /**< guards command, status and the close-notify handler */
    kestal_lock_condition_t m_lock_condition; /**< goes with m_lock: a change of command or status */
    kestal_short_lock_t m_flags_lock;         /**< guards the lock flags and the user data */
    uint32_t m_lock_flags;                    /**< the application's bits */
    const char *m_name;                       /**< in the reports; the service's own copy */
    uint32_t m_command;                       /**< KESTAL_SERVICE_COMMAND_ value */
    uint32_t m_status;                        /**< KESTAL_SERVICE_STATUS_ value */
    void *m_argument;                         /**< passed to the function */
    kestal_service_function_t m_function;     /**< the body */
    kestal_service_close_notify_handler_t m_close_notify_handler; /**< null: none */
    void *m_close_notify_argument;                                /**< passed to it */
    void *m_user_data;                                            /**< the application's */
    uint32_t m_acknowledged;                                      /**< private: kestal_ack_service was called */
    uint32_t m_users; /**< private: closer and thread; the last to leave releases the memory */
};

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(offsetof(kestal_service_t, m_lock_flags) ==
                         sizeof(kestal_lock_t) + sizeof(kestal_lock_condition_t) + 4,
                     "layout of kestal_service_t");
KESTAL_STATIC_ASSERT(offsetof(kestal_service_t, m_user_data) == offsetof(kestal_service_t, m_name) + 48,
                     "layout of kestal_service_t");
#endif

/**
 * Starts function(service, argument) as a background job and waits until it has acknowledged. `name`, which is copied,
 * may be null; `stack_size` is in bytes, 0 for the default. There is no start time-out; a start that takes long is
 * reported on the error sink every 60 seconds.
 *
 * Null when `function` is null, memory is short, no thread could be made, or the function reported an error or returned
 * without acknowledging.
 */
KESTAL_API kestal_service_t *kestal_open_service_ex(const char *name, kestal_service_function_t function,
                                                    void *argument, uint64_t stack_size);

/**
 * Asks the service to break and waits until its function has returned, at most `timeout` milliseconds (negative: as
 * long as it takes, reported on the error sink after 60 seconds and then every 4). The handle is void afterwards in any
 * case; a service that is still running keeps its memory until its function returns. A service that has reported an
 * error is not waited for. Returns 0, or -1 for null.
 */
KESTAL_API int32_t kestal_close_service_ex(kestal_service_t *service, int32_t timeout);

/** kestal_close_service_ex without a time-out. */
KESTAL_API int32_t kestal_close_service(kestal_service_t *service);

/** Called by the service function: it is up and running. Null is ignored. */
KESTAL_API void kestal_ack_service(kestal_service_t *service);

/** Called by the service function: it cannot run (or go on) and will return. Null is ignored. */
KESTAL_API void kestal_error_service(kestal_service_t *service);

/** 1 while the service runs, -1 after an error or for null, 0 otherwise. */
KESTAL_API int32_t kestal_check_service(kestal_service_t *service);

/** Asked by the service function: 1 when it is to return, 0 when not, -1 for null. */
KESTAL_API int32_t kestal_break_service(kestal_service_t *service);

/**
 * Registers what the closer calls, with `argument`, after each of its waits: once the close's own time-out has passed,
 * or without one after 60 seconds and then every 4, and whenever the service's status changes meanwhile. It is dropped
 * when called, unless it returns -1. A null handler takes the registration back. Returns 0, or -1 for a null service.
 */
KESTAL_API int32_t kestal_service_register_close_notify_handler(kestal_service_t *service,
                                                                kestal_service_close_notify_handler_t handler,
                                                                void *argument);

/** One attempt at the flags lock: 1 taken, 0 not, -1 for a null service. */
KESTAL_API int32_t kestal_try_lock_flags_service(kestal_service_t *service);

/** Takes the flags lock, a short lock: for a few instructions of work. 0, or -1 for a null service. */
KESTAL_API int32_t kestal_lock_flags_service(kestal_service_t *service);

/** Frees the flags lock. 0, or -1 for a null service. */
KESTAL_API int32_t kestal_unlock_flags_service(kestal_service_t *service);

/** The lock flags, 32 bits for the service's users, 0 at the start; 0 for a null service. */
KESTAL_API uint32_t kestal_get_lock_flags_service(kestal_service_t *service);

/** Sets the given bits of the flags under the flags lock. The new flags; 0 for a null service. */
KESTAL_API uint32_t kestal_set_lock_flags_service(kestal_service_t *service, uint32_t bits);

/** Clears the given bits, likewise. */
KESTAL_API uint32_t kestal_clear_lock_flags_service(kestal_service_t *service, uint32_t bits);

/** Inverts the given bits, likewise. */
KESTAL_API uint32_t kestal_invert_lock_flags_service(kestal_service_t *service, uint32_t bits);

/** The address of the flags, for changes under kestal_lock_flags_service; null for a null service. */
KESTAL_API uint32_t *kestal_get_lock_flags_ptr_service(kestal_service_t *service);

/** The user data, null at the start; null for a null service. */
KESTAL_API void *kestal_get_user_data_service(kestal_service_t *service);

/** Stores the user data, which stays the caller's. 0, or -1 for a null service. */
KESTAL_API int32_t kestal_set_user_data_service(kestal_service_t *service, void *user_data);

KESTAL_END_DECLS

#endif
