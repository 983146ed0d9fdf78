/**
 * @file
 * Events: one thread waits for descriptors, time-outs, signals and outgoing connections, and calls a handler for each
 * that comes up. An event base is the set of them; its loop runs in the caller's thread, or in a service of the base's
 * own (kestal_event_base_start_service).
 *
 * Who owns what: the caller owns bases and events, and closes every descriptor, also one that a connecting event has
 * opened. An event's record must stay until the event is unassigned or freed. An event that is not persistent is taken
 * out of the base before its handler runs, so that the handler may add it again, free it, or leave it.
 *
 * Order: what has come up in one look is served by priority, level 0 first, one level a look, and within a level in the
 * order in which the events were added. Watch each descriptor with one event: the interest in a descriptor is that of
 * the event that set it last, and goes with the first of its events that is deleted.
 *
 * Threads: handlers run on the loop's thread, without any lock, and may call anything here, also delete or free their
 * own event and others. Any other thread may add, activate, delete and ask for events and break or exit the loop: it
 * wakes the loop if need be. It must not free or unassign an event whose handler may be running. A base is freed when
 * no loop runs on it. After a fork only one of the two processes may go on with a base whose loop has run.
 *
 * A signal that interrupts the wait ends the loop with -1 and errno EINTR; its event is found by the next loop. So
 * whoever drives a loop with signal events calls it again:
 *
 *     int32_t result;
 *     do
 *         result = kestal_event_base_dispatch(base);
 *     while (result == -1 && errno == EINTR && kestal_event_base_get_exit(base) == 0);
 */
#ifndef KESTAL_ULX_EVENT_H
#define KESTAL_ULX_EVENT_H

#include <kestal_ulx/buffer.h>
#include <kestal_ulx/lock.h>
#include <kestal_ulx/resolver.h>
#include <kestal_ulx/select.h>
#include <kestal_ulx/service.h>
#include <kestal_ulx/signal.h>

KESTAL_BEGIN_DECLS

/* What an event waits for: given to assign. */
#define KESTAL_EVENT_READ 0x0001u      /**< there is something to read, or the end */
#define KESTAL_EVENT_WRITE 0x0002u     /**< there is room to write */
#define KESTAL_EVENT_EXCEPTION 0x0004u /**< the descriptor has an exceptional condition */
#define KESTAL_EVENT_SIGNAL 0x0008u    /**< the descriptor is a signal number, 0 to 64 */
#define KESTAL_EVENT_PERSIST 0x0010u   /**< stays in the base when its handler has run; its time-out begins anew */
#define KESTAL_EVENT_RESOLVE 0x0800u   /**< the resolver name is looked up in the background */
/** Makes an outgoing stream connection to the addresses that KESTAL_EVENT_RESOLVE finds. */
#define KESTAL_EVENT_CONNECT 0x1000u

/* Its state: kept by the module in the same word. */
#define KESTAL_EVENT_IN_TIMER_QUEUE 0x0020u /**< it has a deadline and is waiting for it */
#define KESTAL_EVENT_INITIALIZED 0x0080u    /**< it was assigned */
#define KESTAL_EVENT_ALLOCATED 0x0100u      /**< made by kestal_new_event, released by kestal_free_event */
#define KESTAL_EVENT_REGISTERED 0x0200u     /**< it was added to its base */
#define KESTAL_EVENT_ACTIVE 0x0400u         /**< its handler is to be called */
#define KESTAL_EVENT_CONNECTING 0x2000u     /**< also a result */
#define KESTAL_EVENT_CONNECTED 0x4000u      /**< also a result */

/* What a handler is told beside the conditions that are named as they are waited for (read, write, exception, signal). */
#define KESTAL_EVENT_TIMEOUT 0x0020u        /**< its time-out ran out */
#define KESTAL_EVENT_UNASSIGNED 0x0040u     /**< the last call that an event's handler receives */
#define KESTAL_EVENT_ASSIGNED 0x0080u       /**< the first one, made by assign itself */
#define KESTAL_EVENT_RESOLVED 0x0800u       /**< the addresses are there */
#define KESTAL_EVENT_CONNECT_FAILED 0x8000u /**< no address is left to try, or the connection was refused */

/* How a loop runs. */
#define KESTAL_EVENT_LOOP_ONCE 0x0001u         /**< until something was served and nothing is left active */
#define KESTAL_EVENT_LOOP_NON_BLOCK 0x0002u    /**< never waits: until nothing is active */
#define KESTAL_EVENT_LOOP_GLOBAL_BREAK 0x8000u /**< also ends when kestal_get_global_break says so */

/** Events and the loop that serves them. */
typedef struct kestal_event_base kestal_event_base_t;
/** One thing to wait for. */
typedef struct kestal_event kestal_event_t;

/**
 * Called on the loop's thread with the event's descriptor (the signal number for a signal event, -1 for none), the
 * KESTAL_EVENT_ bits of what came up, and the context given to assign.
 */
typedef void (*kestal_event_handler_t)(kestal_event_t *event, int32_t descriptor, uint32_t what, void *context);

/** An event; to be read only, and changed through the calls below. */
struct kestal_event {
    kestal_event_base_t *m_base;         /**< null: none */
    uint32_t m_priority;                 /**< the level, 0 is served first */
    int32_t m_timeout;                   /**< ms; negative: none */
    uint64_t m_deadline;                 /**< ms of kestal_time_stamp_msec */
    uint32_t m_flags;                    /**< the KESTAL_EVENT_ bits of what it waits for and of its state */
    uint32_t m_result;                   /**< what the handler is told */
    int32_t m_descriptor;                /**< or a signal number; -1: none */
    kestal_event_handler_t m_handler;    /**< called for each result */
    void *m_context;                     /**< passed to the handler */
    char *m_bind_address;                /**< connecting: the local address; null: any */
    int32_t m_bind_port;                 /**< -1: none */
    char *m_resolver_name;               /**< the host to look up */
    int32_t m_resolver_port;             /**< -1: none */
    kestal_resolver_t *m_resolved;       /**< its addresses, once found */
    kestal_buffer_t *m_input_buffer;     /**< what was read; null: no input buffer */
    uint64_t m_input_high_watermark;     /**< bytes; 0: no limit */
    kestal_buffer_t *m_output_buffer;    /**< what is to be written; null: no output buffer */
    uint64_t m_output_low_watermark;     /**< bytes */
    kestal_signal_node_t *m_signal_node; /**< a signal event's place among the signal's handlers */
    kestal_event_t *m_prev;              /**< in the list of the registered */
    kestal_event_t *m_next;              /**< in the list of the registered */
    uint64_t m_timer_place;              /**< private: in the queue of deadlines */
    kestal_event_t *m_active_prev;       /**< in the queue of its level */
    kestal_event_t *m_active_next;       /**< in the queue of its level */
    uint64_t m_order;                    /**< private: place in the list of the registered */
    uint32_t m_ready;                    /**< private: conditions of this look */
    uint32_t m_state;                    /**< private: bits of the module */
    kestal_event_t *m_same_next;         /**< private: others on the same descriptor */
    kestal_event_t *m_same_prev;         /**< private */
    kestal_event_t *m_attended_prev;     /**< private: those that every look takes in */
    kestal_event_t *m_attended_next;     /**< private */
    kestal_event_t *m_self;              /**< private: tells an assigned record from chance */
};

/** One operation of the service that runs a base's loop: 0, or -1 when it fails. */
typedef int32_t (*kestal_event_base_service_operation_t)(kestal_event_base_t *base);

/** An event base; to be read only, but for the maximum wait. */
struct kestal_event_base {
    kestal_lock_t *m_lock;         /**< held by the loop but for handler calls */
    uint64_t m_thread_id;          /**< the thread that made the base, then that of the last loop */
    uint32_t m_running;            /**< 1 while a loop runs */
    uint32_t m_exit;               /**< asked to end after the look under way */
    uint32_t m_break;              /**< asked to end after the handler under way */
    int32_t m_maximum_wait;        /**< ms that shorten a wait which has an end; -1: none. Yours to set */
    kestal_select_t *m_select;     /**< the interest in every descriptor */
    uint64_t m_event_count;        /**< registered */
    kestal_event_t *m_head;        /**< the registered, in the order of adding */
    kestal_event_t *m_tail;        /**< the last of them */
    uint64_t m_timer_event_count;  /**< those with a deadline */
    kestal_event_t *m_timer_head;  /**< the first to be due */
    uint32_t m_max_priority;       /**< number of levels */
    uint64_t m_active_event_count; /**< in all queues together */
    /** One level of priority: its active events, the first to be served first. */
    struct kestal_event_queue {
        kestal_event_t *m_head;                            /**< the next to be served */
        kestal_event_t *m_tail;                            /**< the one activated last */
    } * m_active;                                          /**< a queue per level */
    uint32_t m_notified;                                   /**< a wake-up byte is under way */
    int32_t m_notify[2];                                   /**< read end, write end */
    kestal_event_t m_notify_event;                         /**< watches the read end */
    kestal_resolver_cache_t *m_resolver_cache;             /**< for the events that resolve; null: none yet */
    kestal_event_base_service_operation_t m_check_service; /**< 1 while the service runs; null: there is none */
    kestal_event_base_service_operation_t m_start_service; /**< starts it */
    kestal_event_base_service_operation_t m_stop_service;  /**< stops it */
    kestal_service_t *m_service;                           /**< runs the loop; null: none */
    struct kestal_event_state *m_state;                    /**< private: what the loop keeps */
};

/* --- bases */

/** A new base with one level of priority; null, with a report, when memory or descriptors are short. */
KESTAL_API kestal_event_base_t *kestal_new_event_base(void);

/**
 * Stops the base's service, unassigns every event that is registered or active (and releases those that kestal_new_event
 * made) and releases the base. Events that are only assigned to it must be unassigned or freed before. Not for its own
 * handlers. Returns null; null is fine.
 */
KESTAL_API kestal_event_base_t *kestal_free_event_base(kestal_event_base_t *base);

/**
 * Sets the number of levels of priority, 1 to 65535: level 0 is served first. Events keep their level; one beyond the
 * last is served in the middle, with a warning. 0; -1, changing nothing, when an event is active, for another number or
 * null, or when memory is short.
 */
KESTAL_API int32_t kestal_event_base_init_priority(kestal_event_base_t *base, uint32_t levels);

/**
 * Runs the loop in the calling thread until it is asked to end, or as the KESTAL_EVENT_LOOP_ flags say. It goes on when
 * no event is left, for other threads may add some: the base's own wake-up event always is. A break asked for while no
 * loop ran is forgotten; an exit is not.
 *
 * 0; -1 when a loop runs on the base already, when the base is null, and when the wait failed: errno is EBADF for a
 * descriptor that was closed while it was watched, EINTR for a signal. All events stay as they were.
 */
KESTAL_API int32_t kestal_event_base_loop(kestal_event_base_t *base, uint32_t flags);

/** kestal_event_base_loop without flags. */
KESTAL_API int32_t kestal_event_base_dispatch(kestal_event_base_t *base);

/**
 * Has the loop end after the handler under way; what is active stays active. 0, or -1 for null. (A signal that is to end
 * the loop is watched by an event: kestal_event_default_handler_exit.)
 */
KESTAL_API int32_t kestal_event_base_break_loop(kestal_event_base_t *base);

/** Has the loop end `timeout_ms` from now (negative: now), after what is active then. 0; -1 for null or without memory. */
KESTAL_API int32_t kestal_event_base_exit_loop(kestal_event_base_t *base, int32_t timeout_ms);

/** 1 when the loop was asked to exit, or its end came that way, else 0. */
KESTAL_API uint32_t kestal_event_base_get_exit(kestal_event_base_t *base);

/**
 * Adds an event of the base's own making, which goes when its handler has run (with KESTAL_EVENT_PERSIST when the handler
 * unassigns it). The handler is called with KESTAL_EVENT_ASSIGNED, with what came up, and with KESTAL_EVENT_UNASSIGNED.
 * The time-out is that of kestal_add_event. 0, or -1.
 */
KESTAL_API int32_t kestal_event_base_once(kestal_event_base_t *base, int32_t descriptor, uint32_t flags,
                                          kestal_event_handler_t handler, void *context, int32_t timeout_ms);

/** kestal_event_base_once with the addresses of kestal_assign_event_with_resolver. */
KESTAL_API int32_t kestal_event_base_once_with_resolver(kestal_event_base_t *base, int32_t descriptor, uint32_t flags,
                                                        kestal_event_handler_t handler, void *context,
                                                        int32_t timeout_ms, const char *bind_address, int32_t bind_port,
                                                        const char *resolver_name, int32_t resolver_port);

/* --- the service that runs a base's loop */

/** 1 while the service runs, -1 after an error or for null, 0 otherwise. */
KESTAL_API int32_t kestal_event_base_check_service(kestal_event_base_t *base);

/**
 * Starts a service that runs the loop, again and again, until it is stopped or the loop was asked to exit. 0; -1 when
 * there is one already (also one that has ended and was not stopped), when it cannot start, or for null.
 */
KESTAL_API int32_t kestal_event_base_start_service(kestal_event_base_t *base);

/** Ends the service and waits until it has ended. 0; -1 when there is none, on its own thread, or for null. */
KESTAL_API int32_t kestal_event_base_stop_service(kestal_event_base_t *base);

/* --- the process-wide base: not to be made or released by two threads at a time */

/** Makes the process-wide base if there is none. Returns it, or null. */
KESTAL_API kestal_event_base_t *kestal_init_event_base(void);

/** Releases the process-wide base. Returns null. */
KESTAL_API kestal_event_base_t *kestal_uninit_event_base(void);

/** kestal_event_base_loop on the process-wide base; so the calls that follow. */
KESTAL_API int32_t kestal_event_loop(uint32_t flags);

/** kestal_event_base_dispatch. */
KESTAL_API int32_t kestal_event_dispatch(void);

/** kestal_event_base_break_loop. */
KESTAL_API int32_t kestal_event_break_loop(void);

/** kestal_event_base_exit_loop. */
KESTAL_API int32_t kestal_event_exit_loop(int32_t timeout_ms);

/** kestal_event_base_once. */
KESTAL_API int32_t kestal_event_once(int32_t descriptor, uint32_t flags, kestal_event_handler_t handler, void *context,
                                     int32_t timeout_ms);

/** kestal_event_base_once_with_resolver. */
KESTAL_API int32_t kestal_event_once_with_resolver(int32_t descriptor, uint32_t flags, kestal_event_handler_t handler,
                                                   void *context, int32_t timeout_ms, const char *bind_address,
                                                   int32_t bind_port, const char *resolver_name, int32_t resolver_port);

/** kestal_event_base_init_priority. */
KESTAL_API int32_t kestal_event_init_priority(uint32_t levels);

/* --- ready-made */

/**
 * A handler that ends the loop, as kestal_event_base_exit_loop does; for signal 11 it reports a segment fault and ends
 * the process with status 0. The calls of assign and unassign are ignored.
 */
KESTAL_API void kestal_event_default_handler_exit(kestal_event_t *event, int32_t descriptor, uint32_t what,
                                                  void *context);

/** Switches the module's tracing on the error sink on (not 0) or off. Returns 1 for on, 0 for off. */
KESTAL_API uint32_t kestal_event_debug_mode(uint32_t on);

/* --- events. Those that follow report a null event, one that is not assigned and one without a base on the error sink,
 * and return -1. */

/**
 * Makes a record ready: `descriptor` (-1: none), what to wait for (KESTAL_EVENT_ bits), `handler` (may be null) and its
 * context, in the base's middle priority. The handler is called once at once, with KESTAL_EVENT_ASSIGNED. The record need
 * not be cleared before; one that is assigned already is unassigned without a word to its handler, but keeps
 * KESTAL_EVENT_ALLOCATED. 0; -1, changing nothing, for a null event, one that is registered, or when memory is short.
 */
KESTAL_API int32_t kestal_assign_event(kestal_event_base_t *base, kestal_event_t *event, int32_t descriptor,
                                       uint32_t flags, kestal_event_handler_t handler, void *context);

/**
 * kestal_assign_event with a name to look up and addresses: for KESTAL_EVENT_RESOLVE the host `resolver_name` with
 * `resolver_port`, or the path of a unix socket; for KESTAL_EVENT_CONNECT also the local address to connect from. Texts
 * are copied and may be null; a port outside 0 to 65535 is none.
 *
 * With both flags the event connects to the first address that lets it begin, with a socket of its own unless it was
 * given one, and the handler is told KESTAL_EVENT_RESOLVED, then KESTAL_EVENT_CONNECTING, KESTAL_EVENT_CONNECTED or
 * KESTAL_EVENT_CONNECT_FAILED as they come, several at a time where they come together: to hear more than the first, use
 * KESTAL_EVENT_PERSIST. A connection that fails after it has begun does not go on to the next address. Once connected,
 * the event is one like any other on its descriptor. The socket is the handler's to close, also after a failure,
 * and programs that the process starts inherit it.
 */
KESTAL_API int32_t kestal_assign_event_with_resolver(kestal_event_base_t *base, kestal_event_t *event,
                                                     int32_t descriptor, uint32_t flags, kestal_event_handler_t handler,
                                                     void *context, const char *bind_address, int32_t bind_port,
                                                     const char *resolver_name, int32_t resolver_port);

/** kestal_assign_event without a base: kestal_event_set_base gives it one. */
KESTAL_API int32_t kestal_set_event(kestal_event_t *event, int32_t descriptor, uint32_t flags,
                                    kestal_event_handler_t handler, void *context);

/** kestal_assign_event_with_resolver without a base. */
KESTAL_API int32_t kestal_set_event_with_resolver(kestal_event_t *event, int32_t descriptor, uint32_t flags,
                                                  kestal_event_handler_t handler, void *context,
                                                  const char *bind_address, int32_t bind_port,
                                                  const char *resolver_name, int32_t resolver_port);

/** kestal_assign_event on a new record, to be released with kestal_free_event; null on failure. */
KESTAL_API kestal_event_t *kestal_new_event(kestal_event_base_t *base, int32_t descriptor, uint32_t flags,
                                            kestal_event_handler_t handler, void *context);

/** kestal_assign_event_with_resolver on a new record. */
KESTAL_API kestal_event_t *kestal_new_event_with_resolver(kestal_event_base_t *base, int32_t descriptor, uint32_t flags,
                                                          kestal_event_handler_t handler, void *context,
                                                          const char *bind_address, int32_t bind_port,
                                                          const char *resolver_name, int32_t resolver_port);

/** Unassigns the event, and releases the record if kestal_new_event made it. Returns null; null is fine. */
KESTAL_API kestal_event_t *kestal_free_event(kestal_event_t *event);

/**
 * Deletes the event, releases what it holds (names, addresses, buffers) and calls its handler with
 * KESTAL_EVENT_UNASSIGNED. The record may then be assigned anew. An event without a base is unassigned without a report.
 */
KESTAL_API int32_t kestal_unassign_event(kestal_event_t *event);

/** Gives an event to a base, in its middle priority. -1 also while it is registered or active, and for a null base. */
KESTAL_API int32_t kestal_event_set_base(kestal_event_t *event, kestal_event_base_t *base);

/** Sets the level at which the event is served. -1 also while it is active, and for a level that the base has not. */
KESTAL_API int32_t kestal_event_set_priority(kestal_event_t *event, uint32_t priority);

/**
 * Registers the event, so that it waits, for at most `timeout_ms` (negative: no limit): then it comes up with
 * KESTAL_EVENT_TIMEOUT. An event without a descriptor and without a time-out is due at once. One that is registered
 * already begins its time-out anew. -1, leaving it as it was, also when memory is short, when the signal is refused, and
 * while its base is being released.
 */
KESTAL_API int32_t kestal_add_event(kestal_event_t *event, int32_t timeout_ms);

/** Takes the event out of the base and its queues; it stays assigned. An event that is in none is left as it is. */
KESTAL_API int32_t kestal_del_event(kestal_event_t *event);

/**
 * Has the handler called with `what`, registered or not; of an event that is active already `what` is added. A time-out
 * that it was added with begins anew. -1, leaving it as it was, also when memory for its place among those that wait for
 * a deadline is short, and while its base is being released.
 */
KESTAL_API int32_t kestal_active_event(kestal_event_t *event, uint32_t what);

/**
 * Which of the KESTAL_EVENT_ bits of `flags` the event waits for, is in the state of (timer queue, connecting, ...) or,
 * while it is active, will be told. With KESTAL_EVENT_TIMEOUT among them, the milliseconds left go to `timeout_ms`, which
 * is 0 otherwise and may be null. 0 where others return -1.
 */
KESTAL_API uint32_t kestal_event_pending(kestal_event_t *event, uint32_t flags, int32_t *timeout_ms);

KESTAL_END_DECLS

#endif
