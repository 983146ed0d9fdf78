/**
 * @file
 * SSDP listener: sockets on the SSDP port that are members of the SSDP groups on every usable network interface, also
 * on those that come later, and the discovery messages (M-SEARCH, NOTIFY and responses) that arrive there. A message is
 * parsed, handed to the application's handler if there is one, and with the option "verbose" traced on standard output;
 * nothing is ever sent.
 *
 * Who opens a listener closes it. kestal_ssdp_start runs in the calling thread until the listener is told to end; stop,
 * close and restart may be called from any other thread meanwhile, and wait until it has ended. Options belong to the
 * time between runs, one thread at a time.
 *
 * The options, texts all, and what they are at first:
 *
 *  - "verbose" (0): not 0 prints what happens, errors and warnings on the error sink.
 *  - "network_interface_scan_interval" (300000): milliseconds between looks for new interfaces; 0 and
 *    negative: only the one at the start.
 *  - "multicast_ipv4_port" (1900), "multicast_ipv6_port" (1900): a socket for each value.
 *  - "multicast_ipv4_address" ("239.255.255.250"), "multicast_ipv6_address" ("ff02::c", "ff05::c"): the groups.
 *  - "stop_signal_event" (not set): not 0 ends the run on SIGINT, SIGQUIT, SIGTERM and SIGSEGV (a crash stays one).
 *  - "stop_vt_event" (not set): not 0 ends it on the key ESC or q of the terminal.
 *
 * The ports and groups take several values: set further ones with KESTAL_VALUE_ADD_IF_ABSENT, others with
 * KESTAL_VALUE_REPLACE_BY_NAME.
 */
#ifndef KESTAL_ULX_SSDP_H
#define KESTAL_ULX_SSDP_H

#include <kestal_ulx/event.h>
#include <kestal_ulx/http_parser.h>
#include <kestal_ulx/network_interface.h>
#include <kestal_ulx/terminal_key.h>
#include <kestal_ulx/value.h>

#include <sys/socket.h>

KESTAL_BEGIN_DECLS

/* Families of a listening socket. */
#define KESTAL_SSDP_FAMILY_NONE UINT32_C(0) /**< no IP address */
#define KESTAL_SSDP_FAMILY_IPV4 UINT32_C(1) /**< IPv4 */
#define KESTAL_SSDP_FAMILY_IPV6 UINT32_C(2) /**< IPv6 */

/** A listener for SSDP messages. */
typedef struct kestal_ssdp kestal_ssdp_t;
/** One of its sockets. */
typedef struct kestal_ssdp_socket kestal_ssdp_socket_t;

/**
 * Receives each datagram that has arrived, on the run's thread: `message` is what was understood of it, to be looked up
 * with the calls of <kestal_ulx/http_parser.h> and void after the call (a datagram that is no message has no start
 * line), `sender` a socket address. It may call kestal_ssdp_stop.
 */
typedef void (*kestal_ssdp_handler_t)(kestal_ssdp_t *ssdp, kestal_http_parser_t *message, const void *sender,
                                      void *context);

/** A listening socket; to be read only. */
struct kestal_ssdp_socket {
    kestal_ssdp_socket_t *m_previous;       /**< opened before */
    kestal_ssdp_socket_t *m_next;           /**< opened after */
    kestal_ssdp_t *m_ssdp;                  /**< whose it is */
    uint32_t m_family;                      /**< KESTAL_SSDP_FAMILY_ value */
    struct sockaddr_storage m_bind_address; /**< what it is bound to */
    int32_t m_socket;                       /**< -1: none */
    kestal_event_t m_event;                 /**< waits for messages */
};

/** A listener; to be read only, on the thread that runs it. */
struct kestal_ssdp {
    kestal_value_t m_options;                        /**< as set by the option calls */
    kestal_event_base_t *m_event_base;               /**< from start to the end of the run */
    kestal_http_parser_t *m_http_parser;             /**< the last message */
    kestal_network_interface_t *m_network_interface; /**< as the last scan found them */
    kestal_event_t *m_network_interface_event;       /**< the scan */
    kestal_ssdp_socket_t *m_head;                    /**< the sockets */
    kestal_ssdp_socket_t *m_tail;                    /**< the last of them */
    kestal_ssdp_handler_t m_handler;                 /**< private: the application's, or null */
    void *m_handler_context;                         /**< private */
    kestal_terminal_key_t *m_keys;                   /**< private: the terminal, while its keys end the run */
    kestal_lock_t m_lock;                            /**< private: guards what follows */
    kestal_lock_condition_t m_ended;                 /**< private: a run has ended */
    uint64_t m_thread_id;                            /**< private: the thread of the run under way */
    uint32_t m_running;                              /**< private: there is one */
    uint32_t m_stopping;                             /**< private: it was asked to end */
};

/** A new listener with the options' first values, or null when memory is short. */
KESTAL_API kestal_ssdp_t *kestal_open_ssdp(void);

/**
 * Stops a listener as kestal_ssdp_stop does and releases it. 0, also for null. From the run's own thread it only asks
 * the run to end and returns -1: the listener is there still.
 */
KESTAL_API int32_t kestal_close_ssdp(kestal_ssdp_t *ssdp);

/** Sets the handler of messages (null: none), between runs. 0, or -1 for null. */
KESTAL_API int32_t kestal_ssdp_set_handler(kestal_ssdp_t *ssdp, kestal_ssdp_handler_t handler, void *context);

/* --- runs */

/**
 * Opens the sockets, joins the groups and serves, until told to end. A socket that cannot be opened does not stop the
 * others. Ends a run of another thread first.
 *
 * 0 when the run was told to end; -1, with nothing left open, when no socket could be opened, memory was short or the
 * event loop failed; -1 also for null and on the thread of a run. After a run that a signal or key has ended the sockets
 * stay until stop, close or the next start.
 */
KESTAL_API int32_t kestal_ssdp_start(kestal_ssdp_t *ssdp);

/**
 * Has the run end and closes all that start opened. From another thread it waits until that is done; from the run's own
 * thread (a handler) it only asks, and start does the rest before it returns. 0, or -1 for null.
 */
KESTAL_API int32_t kestal_ssdp_stop(kestal_ssdp_t *ssdp);

/** Stop, then start with the options as they are now, in the calling thread. Returns as start; -1 when stop failed. */
KESTAL_API int32_t kestal_ssdp_restart(kestal_ssdp_t *ssdp);

/** kestal_event_base_check_service of the listener's event base. -1 for null and when there is no base. */
KESTAL_API int32_t kestal_ssdp_check_service(kestal_ssdp_t *ssdp);

/* --- options: `mode` and `exact` are those of <kestal_ulx/value.h>; the results too, and -1 for null */

/** Sets an option, in one of the modes KESTAL_VALUE_APPEND to KESTAL_VALUE_ADD_IF_ABSENT. */
KESTAL_API int32_t kestal_ssdp_set_option(kestal_ssdp_t *ssdp, uint32_t mode, uint32_t exact, const char *name,
                                          const void *data, uint64_t size);

/** kestal_ssdp_set_option with a text, its terminator not included; null is empty. */
KESTAL_API int32_t kestal_ssdp_set_option_string(kestal_ssdp_t *ssdp, uint32_t mode, uint32_t exact, const char *name,
                                                 const char *string);

/** kestal_ssdp_set_option_string with a decimal number. */
KESTAL_API int32_t kestal_ssdp_set_option_int(kestal_ssdp_t *ssdp, uint32_t mode, uint32_t exact, const char *name,
                                              int32_t integer);

/** Removes every option with the name and equal data. */
KESTAL_API int32_t kestal_ssdp_remove_option(kestal_ssdp_t *ssdp, uint32_t exact, const char *name, const void *data,
                                             uint64_t size);

/** Removes every option with the name. */
KESTAL_API int32_t kestal_ssdp_remove_option_by_name(kestal_ssdp_t *ssdp, uint32_t exact, const char *name);

/** kestal_ssdp_remove_option with a text as kestal_ssdp_set_option_string takes it. */
KESTAL_API int32_t kestal_ssdp_remove_option_by_string(kestal_ssdp_t *ssdp, uint32_t exact, const char *name,
                                                       const char *string);

/** kestal_ssdp_remove_option_by_string with a decimal number. */
KESTAL_API int32_t kestal_ssdp_remove_option_by_int(kestal_ssdp_t *ssdp, uint32_t exact, const char *name,
                                                    int32_t integer);

/** The first option of the name, or null. Go on with kestal_search_value_node_by_name. */
KESTAL_API kestal_value_node_t *kestal_ssdp_get_option_node(kestal_ssdp_t *ssdp, uint32_t exact, const char *name);

/** The first option's data, its size stored to `size` (may be null), or null and 0. A zero byte follows the data. */
KESTAL_API void *kestal_ssdp_get_option(kestal_ssdp_t *ssdp, uint32_t exact, const char *name, uint64_t *size);

/** The first option as a text; null when it is missing or empty. */
KESTAL_API const char *kestal_ssdp_get_option_string(kestal_ssdp_t *ssdp, uint32_t exact, const char *name);

/** The first option as a decimal number (0 when it is none), or `default_integer` when it is missing. */
KESTAL_API int32_t kestal_ssdp_get_option_int(kestal_ssdp_t *ssdp, uint32_t exact, const char *name,
                                              int32_t default_integer);

KESTAL_END_DECLS

#endif
