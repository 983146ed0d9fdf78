/**
 * @file
 * Sockets: a thin, uniform layer over the operating system's calls for IPv4, IPv6 and unix sockets. Plain wrappers,
 * connect, accept, send and receive with time-outs, options, probes, pairs, and the names of services and protocols.
 *
 * Everything works on plain descriptors (-1: none), so that these calls and system calls mix freely; whoever opens a
 * descriptor closes it. As with the system's own calls, programs that the process starts inherit the descriptors opened
 * here unless fcntl(2) sets FD_CLOEXEC; what the library opens for itself they never inherit. Families and types are the
 * system's AF_ and SOCK_ values, socket addresses those of <kestal_ulx/address.h>. There is no lock per socket: threads
 * that share a descriptor coordinate themselves. A failure leaves errno as the system call set it; an elapsed time-out
 * sets ETIMEDOUT. Byte counts are at most 2,147,483,647 a call.
 *
 * Time-outs wait with kestal_single_select, so on descriptors of 1024 and above a connect or a send with a finite
 * time-out waits for readability: there, use a select set or an event base.
 */
#ifndef KESTAL_ULX_SOCKET_H
#define KESTAL_ULX_SOCKET_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** No socket. */
#define KESTAL_INVALID_SOCKET INT32_C(-1)

/** The result of a receive whose time-out ran out. */
#define KESTAL_RECEIVE_TIMEOUT INT32_C(-2)

/* The calls with the call site filled in as the tag: the ones to use. */
/** kestal_get_hostname_alloc_tag with the caller's name and line. */
#define kestal_get_hostname_alloc() kestal_get_hostname_alloc_tag(__func__, __LINE__)

/** Two connected descriptors: the connecting end, then the accepted (or bound) one. Both -1 after a failure. */
typedef struct kestal_socket_ends {
    int32_t m_socket[2]; /**< the two descriptors */
} kestal_socket_pair_t;

/* --- names */

/**
 * The number of a protocol by its name, from the system's database; the usual ones ("ip", "icmp", "tcp", "udp", "ipv6",
 * "ipv6-icmp") are known without one. -1 when unknown or null.
 */
KESTAL_API int32_t kestal_get_protocol_by_name(const char *name);

/** The name of a protocol. Null when unknown; valid until this thread's next call of this function. */
KESTAL_API const char *kestal_get_name_by_protocol(int32_t number);

/** The port (host order) of a service such as "http"; null `protocol` means "tcp". 0 when unknown, -1 for a null name. */
KESTAL_API int32_t kestal_get_service_by_name(const char *name, const char *protocol);

/**
 * The name of the service on a port; null `protocol` means "tcp". Null when unknown or the port is negative; valid
 * until this thread's next call of this function.
 */
KESTAL_API const char *kestal_get_name_by_service(int32_t port, const char *protocol);

/** The host's name as a new text, to be released with kestal_free; null on failure. */
KESTAL_API char *kestal_get_hostname_alloc_tag(const char *name, uint64_t line);

/* --- the system's calls as they are */

/** socket(2), of whose type the low 16 bits count: SOCK_CLOEXEC is dropped. A descriptor, or -1. */
KESTAL_API int32_t kestal_open_socket(int32_t domain, int32_t type, int32_t protocol);

/** getsockname(2). */
KESTAL_API int32_t kestal_getsockname(int32_t sock, void *address, uint32_t *address_length);

/** getpeername(2). */
KESTAL_API int32_t kestal_getpeername(int32_t sock, void *address, uint32_t *address_length);

/** getsockopt(2). */
KESTAL_API int32_t kestal_getsockopt(int32_t sock, int32_t level, int32_t option, void *value, uint32_t *value_length);

/** setsockopt(2). */
KESTAL_API int32_t kestal_setsockopt(int32_t sock, int32_t level, int32_t option, const void *value,
                                     uint32_t value_length);

/** bind(2). */
KESTAL_API int32_t kestal_bind(int32_t sock, const void *address, uint32_t address_length);

/** listen(2). */
KESTAL_API int32_t kestal_listen(int32_t sock, int32_t backlog);

/** close(2). */
KESTAL_API int32_t kestal_close_socket(int32_t sock);

/** shutdown(2): `how` 1 ends sending, 2 both directions, anything else receiving. */
KESTAL_API int32_t kestal_shutdown_socket(int32_t sock, int32_t how);

/**
 * Ends both directions, waits at most `timeout_ms` (negative: no limit) for the socket to become readable, and closes.
 * Linux calls a socket readable as soon as its receiving is shut down, so there the wait is short: to hear the peer out,
 * end sending with kestal_shutdown_socket and receive to the end first. The result of the close; -1 with errno EINVAL for
 * the invalid socket.
 */
KESTAL_API int32_t kestal_close_socket_ex(int32_t sock, int32_t timeout_ms);

/* --- what the system supports: 0 when it does, -1 when not */

/** Opens and closes one socket of this kind. Unix sockets take protocol 0 whatever is asked. */
KESTAL_API int32_t kestal_check_socket_support(int32_t domain, int32_t type, int32_t protocol);

/** kestal_check_socket_support: asks the system anew at every call. */
KESTAL_API int32_t kestal_check_inet_support(int32_t domain, int32_t type, int32_t protocol);

/** IPv4. Support is found once and remembered; the lack of it is looked at again with every call. */
KESTAL_API int32_t kestal_check_ipv4_support(void);

/** IPv6, likewise. */
KESTAL_API int32_t kestal_check_ipv6_support(void);

/** Unix sockets, likewise. */
KESTAL_API int32_t kestal_check_unix_domain_socket_support(void);

/* --- with time-outs: milliseconds, negative for no limit */

/**
 * Connects. With a time-out the socket is made non-blocking for the attempt and is blocking afterwards, whatever it was;
 * 0 succeeds only where the connection comes at once. 0, or -1.
 */
KESTAL_API int32_t kestal_connect(int32_t sock, const void *address, uint32_t address_length, int32_t timeout_ms);

/** Accepts a connection. The address, and its length in and out, may be null. A descriptor; -1 also on time-out. */
KESTAL_API int32_t kestal_accept(int32_t sock, void *address, uint32_t *address_length, int32_t timeout_ms);

/** recv(2); a descriptor that is no socket (a pipe, a terminal) is read instead. The number of bytes, or -1. */
KESTAL_API int32_t kestal_sys_recv(int32_t sock, void *buffer, uint64_t size, int32_t flags);

/**
 * send(2); a descriptor that is no socket is written instead, without SIGPIPE when `flags` say MSG_NOSIGNAL. The number
 * of bytes, or -1.
 */
KESTAL_API int32_t kestal_sys_send(int32_t sock, const void *data, uint64_t size, int32_t flags);

/** recvfrom(2), with kestal_sys_recv's way with other descriptors: there the address length becomes 0. */
KESTAL_API int32_t kestal_sys_recvfrom(int32_t sock, void *buffer, uint64_t size, int32_t flags, void *address,
                                       uint32_t *address_length);

/** sendto(2), with kestal_sys_send's way with other descriptors. */
KESTAL_API int32_t kestal_sys_sendto(int32_t sock, const void *data, uint64_t size, int32_t flags, const void *address,
                                     uint32_t address_length);

/** Receives what there is. The number of bytes, 0 at the end of a stream, -1 on failure, -2 on time-out. */
KESTAL_API int32_t kestal_recv(int32_t sock, void *buffer, uint64_t size, int32_t timeout_ms);

/** kestal_recv that also tells the sender; the address, and its length in and out, may be null. */
KESTAL_API int32_t kestal_recvfrom(int32_t sock, void *buffer, uint64_t size, void *address, uint32_t *address_length,
                                   int32_t timeout_ms);

/** Sends, never raising SIGPIPE. The number of bytes, -1 on failure, and 0 on time-out: nothing sent yet. */
KESTAL_API int32_t kestal_send(int32_t sock, const void *data, uint64_t size, int32_t timeout_ms);

/** kestal_send to an address. */
KESTAL_API int32_t kestal_sendto(int32_t sock, const void *data, uint64_t size, const void *address,
                                 uint32_t address_length, int32_t timeout_ms);

/**
 * Receives until `size` bytes have come or the stream ends; the time-out is for each receive. The number of bytes; -1 as
 * soon as a receive fails, and what came before is lost. Every time-out adds its -2 to the count: one before the first
 * byte ends the call with -2, a later one takes 2 off, receiving goes on, and later bytes overwrite the last two.
 */
KESTAL_API int32_t kestal_recv_fill(int32_t sock, void *buffer, uint64_t size, int32_t timeout_ms);

/** kestal_recv_fill that also tells the last sender. */
KESTAL_API int32_t kestal_recvfrom_fill(int32_t sock, void *buffer, uint64_t size, void *address,
                                        uint32_t *address_length, int32_t timeout_ms);

/** Formats a text and sends it with one kestal_send, whose result it returns; -1 when formatting failed. */
KESTAL_API int32_t kestal_send_message(int32_t sock, int32_t timeout_ms, const char *format, ...);

/** kestal_send_message with an argument list. */
KESTAL_API int32_t kestal_send_vmessage(int32_t sock, int32_t timeout_ms, const char *format, va_list list);

/** kestal_send_message to an address. */
KESTAL_API int32_t kestal_sendto_message(int32_t sock, int32_t timeout_ms, const void *address, uint32_t address_length,
                                         const char *format, ...);

/** kestal_sendto_message with an argument list. */
KESTAL_API int32_t kestal_sendto_vmessage(int32_t sock, int32_t timeout_ms, const void *address,
                                          uint32_t address_length, const char *format, va_list list);

/* --- options: 0, or -1, at once for the invalid socket; a switch is on for anything but 0 */

/** The size of the send buffer in bytes (SO_SNDBUF). */
KESTAL_API int32_t kestal_set_tx_socket_buffer_size(int32_t sock, int32_t bytes);

/** The size of the receive buffer in bytes (SO_RCVBUF). */
KESTAL_API int32_t kestal_set_rx_socket_buffer_size(int32_t sock, int32_t bytes);

/** Lets the local address be used again at once (SO_REUSEADDR). */
KESTAL_API int32_t kestal_set_reuse_address_socket(int32_t sock, int32_t on);

/** Allows sending to broadcast addresses (SO_BROADCAST). */
KESTAL_API int32_t kestal_set_broadcast_socket(int32_t sock, int32_t on);

/** Makes close wait so many seconds for unsent data (SO_LINGER); 0 seconds reset the connection. */
KESTAL_API int32_t kestal_set_linger_socket(int32_t sock, int32_t on, int32_t seconds);

/** Path MTU discovery of IPv4: always (never fragment) or never (IP_MTU_DISCOVER). */
KESTAL_API int32_t kestal_set_pmtud_socket(int32_t sock, int32_t on);

/** On: small pieces are sent at once (TCP_NODELAY). */
KESTAL_API int32_t kestal_set_naggle_socket(int32_t sock, int32_t on);

/** Non-blocking mode; the descriptor's other flags stay. */
KESTAL_API int32_t kestal_set_non_block_socket(int32_t sock, int32_t on);

/**
 * Sets the hop limit (TTL), of multicast packets when `multicast` is not 0, for the socket's own family: -1 as `hops`
 * tells the limit in force instead. 0 or that limit; -1 for values outside -1..255. Without effect on unix sockets: 0.
 */
KESTAL_API int32_t kestal_hops_socket(int32_t sock, int32_t hops, int32_t multicast);

/* --- pairs */

/**
 * Two sockets connected to each other over the domain's loopback, for unix by the system's own pair. `protocol` is that
 * of "tcp" for SOCK_STREAM and of "udp" for SOCK_DGRAM; of a datagram pair only the first end is connected. The caller
 * closes both. 0, or -1 with both ends -1.
 */
KESTAL_API int32_t kestal_socket_pair(int32_t domain, int32_t type, int32_t protocol, kestal_socket_pair_t *out_pair);

/** A stream pair of the first domain that gives one (unix, IPv4, IPv6), else a pipe, whose first end writes. */
KESTAL_API int32_t kestal_socket_pipe(kestal_socket_pair_t *out_pair);

KESTAL_END_DECLS

#endif
