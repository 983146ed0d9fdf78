/**
 * @file
 * Signals: several handlers on one POSIX signal, delivery counts per signal and per handler, and thin helpers to block,
 * unblock and exchange. The first handler of a signal installs the library's dispatcher; with the last one gone, the
 * action that was in force before is put back.
 *
 * Handlers run in signal context, in order of attachment: they may do what a signal handler may do, must not attach or
 * detach handlers, and must return (a jump out of one makes every later detachment wait for ever). Everything else may be
 * called from any thread. Handlers do not keep a crash from being one: after a fault of the program's own (SIGSEGV,
 * SIGBUS, SIGFPE, SIGILL) they run once, and then the prior action is met.
 */
#ifndef KESTAL_ULX_SIGNAL_H
#define KESTAL_ULX_SIGNAL_H

#include <kestal_ulx/base.h>

#include <signal.h>

KESTAL_BEGIN_DECLS

/** Called in signal context with the signal number and the argument given at attachment. */
typedef void (*kestal_signal_handler_t)(int32_t number, void *argument);

/** A handler as the C runtime knows it, SIG_DFL, SIG_IGN and SIG_ERR included. */
typedef void (*kestal_plain_signal_handler_t)(int number);

/** A handler attached to a signal. */
typedef struct kestal_signal_node kestal_signal_node_t;

#if defined(SA_RESTART) /* absent where the compiler is held to plain C: the node is opaque there */
/** One attached handler. Private, but for a look in the debugger. */
struct kestal_signal_node {
    kestal_signal_node_t *m_prev;
    kestal_signal_node_t *m_next;
    uint32_t m_number;
    uint32_t m_count;          /**< deliveries to this handler */
    struct sigaction m_action; /**< what was in force before this node was attached */
    kestal_signal_handler_t m_handler;
    void *m_argument;
};
#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(offsetof(kestal_signal_node_t, m_number) == 16, "layout of kestal_signal_node_t");
KESTAL_STATIC_ASSERT(offsetof(kestal_signal_node_t, m_handler) ==
                         offsetof(kestal_signal_node_t, m_action) + sizeof(struct sigaction),
                     "layout of kestal_signal_node_t");
#endif
#endif

/**
 * Attaches a handler to signal `number`, behind those that are there. `argument` is passed to it and stays the
 * caller's. Returns the node, to be ended by kestal_del_signal; null when the number is above 64, the handler is null,
 * the system refuses the signal (errno says why), or memory is short.
 */
KESTAL_API kestal_signal_node_t *kestal_add_signal(uint32_t number, kestal_signal_handler_t handler, void *argument);

/**
 * Detaches a handler and releases its node. When it was the signal's last, the prior action is put back, and the
 * signal's count starts again at 0. Once the call is back, the handler neither runs nor will run: the call waits for a
 * moment at which no thread is in any dispatched handler. Returns 0, or -1 for null.
 */
KESTAL_API int32_t kestal_del_signal(kestal_signal_node_t *node);

/** Detaches all handlers of a signal; their nodes are void afterwards. A number above 64 is ignored. */
KESTAL_API void kestal_restore_signal(uint32_t number);

/** Detaches all handlers of all signals; the last signal number becomes -1. */
KESTAL_API void kestal_restore_all_signal(void);

/** The number of the last signal that was dispatched, or -1. */
KESTAL_API int32_t kestal_get_last_signum(void);

/** The number of dispatched deliveries of a signal; 0 for a number above 64. */
KESTAL_API uint32_t kestal_get_signal_count(uint32_t number);

/** Sets a signal's count to 0 and returns what it was; -1 for a number outside 0 to 64. */
KESTAL_API int32_t kestal_reset_signal_count(int32_t number);

/** Sets all signals' counts to 0 and the last signal number to -1. Returns the sum of the counts. */
KESTAL_API uint32_t kestal_reset_all_signal_count(void);

/** The number of deliveries to one handler; -1 for null. */
KESTAL_API int32_t kestal_get_signal_node_count(kestal_signal_node_t *node);

/** Sets a handler's count to 0 and returns what it was; -1 for null. */
KESTAL_API int32_t kestal_reset_signal_node_count(kestal_signal_node_t *node);

/** Blocks a signal for the calling thread. 0, or -1 with errno set and reported on the error sink. */
KESTAL_API int32_t kestal_block_signal(uint32_t number);

/** Unblocks a signal for the calling thread. 0, or -1 with errno set and reported on the error sink. */
KESTAL_API int32_t kestal_unblock_signal(uint32_t number);

/**
 * Installs a plain handler with an empty mask and the sigaction flags given (SA_SIGINFO is left out). Returns the
 * handler that was in force, or SIG_ERR with errno set.
 */
KESTAL_API kestal_plain_signal_handler_t kestal_exchange_signal(uint32_t number, int32_t flags,
                                                                kestal_plain_signal_handler_t handler);

KESTAL_END_DECLS

#endif
