/**
 * @file
 * Multicast membership of a socket: of a group on one interface or on all of them, of a group's packets from one
 * sender only (RFC 3376, RFC 3810), and the blocking of a sender.
 *
 * Groups and senders are socket addresses (<kestal_ulx/address.h>), IPv4 or IPv6, whose ports do not matter. An
 * interface is told by its name, by its index when the name is null or empty, or left to the system when the index is 0
 * too. Nothing is kept here: the membership is the socket's and ends with it. On an interface that is gone it still
 * counts (a socket may have 20 of IPv4) until it is left by the index that the interface had. Any thread may call
 * anything. The result is 0 or -1; a socket that already is what is asked for is a failure (EADDRINUSE, EADDRNOTAVAIL).
 */
#ifndef KESTAL_ULX_MULTICAST_H
#define KESTAL_ULX_MULTICAST_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Joins (`join` not 0) or leaves a group on one interface. */
KESTAL_API int32_t kestal_multicast_join(int32_t sock, const void *group, const char *interface_name,
                                         uint32_t interface_index, int32_t join);

/**
 * Joins or leaves a group on every interface that has an address of the group's family: 0 when it worked on one. When
 * the interfaces cannot be listed the system chooses one.
 */
KESTAL_API int32_t kestal_multicast_join_all(int32_t sock, const void *group, int32_t join);

/**
 * Joins or leaves an IPv4 group on the interface that has the given address; both are raw addresses. Without an
 * interface address, on all interfaces.
 */
KESTAL_API int32_t kestal_inet_multicast_join(int32_t sock, const void *raw_group, const void *raw_interface,
                                              int32_t join);

/** Joins or leaves an IPv6 group, a raw address, on the interface of that index (0: the system chooses). */
KESTAL_API int32_t kestal_inet6_multicast_join(int32_t sock, const void *raw_group, uint32_t interface_index,
                                               int32_t join);

/** Joins or leaves a group for the packets of one sender, on one interface. */
KESTAL_API int32_t kestal_multicast_join_source_group(int32_t sock, const void *group, const void *source,
                                                      const char *interface_name, uint32_t interface_index,
                                                      int32_t join);

/** kestal_multicast_join_source_group on every interface, as kestal_multicast_join_all. */
KESTAL_API int32_t kestal_multicast_join_source_group_all(int32_t sock, const void *group, const void *source,
                                                          int32_t join);

/** Blocks (`block` not 0) or admits again a sender to a group that was joined on that interface. */
KESTAL_API int32_t kestal_multicast_block_source_group(int32_t sock, const void *group, const void *source,
                                                       const char *interface_name, uint32_t interface_index,
                                                       int32_t block);

/** kestal_multicast_block_source_group on every interface. */
KESTAL_API int32_t kestal_multicast_block_source_all(int32_t sock, const void *group, const void *source,
                                                     int32_t block);

KESTAL_END_DECLS

#endif
