/**
 * @file
 * Sockets opened by host and port: every address that the host stands for is tried in order until one works. Listening
 * and connecting stream sockets, datagram sockets with a multicast group, and datagrams sent without a socket at hand;
 * beside them the counted start-up of the network, which keeps the process-wide resolver cache alive.
 *
 * `family` is an AF_ value; 0 takes any. A host is a name, an address string (<kestal_ulx/address.h>) or a unix path that
 * begins with "/", "./", "../" or "~/" (the port is then not looked at); null or empty means any local address, of
 * AF_UNIX a name that the system makes up. Ports are in host order. The descriptor belongs to the caller, and programs
 * that the process starts inherit it; -1 is a failure with the cause of the last attempt in errno. Any thread may call
 * anything. Host names are looked up through the process-wide resolver cache for at most 60 seconds, those to listen on
 * at once.
 */
#ifndef KESTAL_ULX_SOCKET_OPENER_H
#define KESTAL_ULX_SOCKET_OPENER_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** A hop limit that leaves the system's own in force. */
#define KESTAL_HOPS_DEFAULT INT32_C(256)

/** One more user of the network: the first opens the process-wide resolver cache. 0, or -1. */
KESTAL_API int32_t kestal_init_network(void);

/** One user less: with the last the cache is given back. 0, or -1 when there was none. */
KESTAL_API int32_t kestal_uninit_network(void);

/** 1 while the network has users, else 0. */
KESTAL_API int32_t kestal_is_init_network(void);

/**
 * A stream socket that listens, with SO_REUSEADDR and a backlog of 128. A named family of AF_INET6 listens to IPv6 only;
 * with family 0 the system decides whether an IPv6 socket serves IPv4 too.
 */
KESTAL_API int32_t kestal_open_listen_socket_ex(int32_t family, const char *address_string, int32_t port);

/** kestal_open_listen_socket_ex of any family. */
KESTAL_API int32_t kestal_open_listen_socket(const char *address_string, int32_t port);

/**
 * A stream socket connected to host and port (1..65535), from the local address and port given (null and 0: any). Each
 * attempt has `timeout_ms` (negative: no limit).
 */
KESTAL_API int32_t kestal_open_connect_socket_ex(int32_t family, const char *bind_address_string, int32_t bind_port,
                                                 const char *host, int32_t port, int32_t timeout_ms);

/** kestal_open_connect_socket_ex of any family, from any local address. */
KESTAL_API int32_t kestal_open_connect_socket(const char *host, int32_t port, int32_t timeout_ms);

/**
 * A datagram socket bound to a local address and port (-1: any), with SO_REUSEADDR; of IPv6 it takes IPv6 only. A group
 * (an address string; null or empty: none) is joined on all interfaces, and settles the family when that is 0; an address
 * that is no multicast group, or of another family than `family`, is a failure, a failing join is not.
 */
KESTAL_API int32_t kestal_open_udp_socket_ex(int32_t family, const char *bind_address_string, int32_t port,
                                             const char *multicast_group_string);

/** kestal_open_udp_socket_ex of any family, without a group. */
KESTAL_API int32_t kestal_open_udp_socket(const char *bind_address_string, int32_t port);

/**
 * Sends one datagram to every address of a host, each from a socket of its own that is bound as given and joins the
 * group it sends to. A scope in an IPv6 group's text ("ff15::7%eth0") names the interface to send by. `hops` limits its
 * way; from KESTAL_HOPS_DEFAULT on the system's own limit holds. The result of the last send, as of kestal_sendto; -1
 * when there was none.
 */
KESTAL_API int32_t kestal_send_udp_packet_ex(int32_t family, const char *bind_address_string, int32_t bind_port,
                                             const char *host, int32_t port, int32_t hops, const void *data,
                                             uint64_t size, int32_t timeout_ms);

/** kestal_send_udp_packet_ex of any family, from any local address, with the system's hop limit. */
KESTAL_API int32_t kestal_send_udp_packet(const char *host, int32_t port, const void *data, uint64_t size,
                                          int32_t timeout_ms);

KESTAL_END_DECLS

#endif
