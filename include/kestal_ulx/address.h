/**
 * @file
 * Address strings and socket addresses: one textual form for IPv4, IPv6 and unix addresses, read into the operating
 * system's own structures and printed from them, and what can be told from an address alone (scope, kind, prefix).
 *
 * A socket address is passed as a plain pointer to a struct sockaddr_in, sockaddr_in6 or sockaddr_un; its family field
 * tells which. Families are the system's AF_ values (AF_UNIX 1, AF_INET 2, AF_INET6 10). A raw address is the 4 or 16
 * bytes of an IPv4 or IPv6 address in network order. Ports are in host order at the interface. Nothing here looks up
 * host names, keeps state or allocates: any thread may call anything.
 *
 *     192.168.0.1:8080   [10.0.0.1]:80   10.1.2.3/24   fe80::1%eth0   [fe80::1%2]:1900   ::ffff:1.2.3.4   /tmp/ctl.sock
 */
#ifndef KESTAL_ULX_ADDRESS_H
#define KESTAL_ULX_ADDRESS_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/* What kestal_sockaddr_scope tells. */
#define KESTAL_SCOPE_UNKNOWN (-1)         /**< unspecified, or no IP address */
#define KESTAL_SCOPE_HOST 1               /**< loopback */
#define KESTAL_SCOPE_LINK 2               /**< this link only */
#define KESTAL_SCOPE_SITE 5               /**< private */
#define KESTAL_SCOPE_GLOBAL 14            /**< anywhere */
#define KESTAL_SCOPE_V4_MAPPED 0xFF01     /**< 0:0:0:0:0:ffff:a.b.c.d */
#define KESTAL_SCOPE_V4_COMPATIBLE 0xFF02 /**< 0:0:0:0:0:0:a.b.c.d */
#define KESTAL_SCOPE_MULTICAST 0xFF03     /**< a group */

/** Room for any address text of this library with its NUL: a unix path is the longest. */
#define KESTAL_ADDRESS_TEXT_SIZE 128

/** A 16-bit number between host and network (big-endian) order; the same call converts both ways. */
KESTAL_API uint16_t kestal_be16_order(uint16_t value);

/** A 32-bit number between host and network (big-endian) order. */
KESTAL_API uint32_t kestal_be32_order(uint32_t value);

/** The index of the network interface of that name; 0 for an unknown, empty or null name. */
KESTAL_API uint32_t kestal_interface_name_to_index(const char *name);

/* --- text to address */

/**
 * Reads an address string of the given family into a socket address of `out_size` bytes. Family 0 tries IPv4, then
 * IPv6, then unix. `out_address` may be null: then the text is only checked. 0, or -1 with the whole output zeroed (so
 * its family is 0); an output too small for the family's structure is a failure too.
 *
 * IPv4: "[", four numbers of 1 to 3 digits up to 255 each, with a "." behind each that may be left out behind the
 * last, "/" and a prefix of 1 or 2 digits below 33, "]", ":" and a port up to 65535; all but the numbers may be left out.
 * IPv6 (RFC 4291): the same frame around groups of hexadecimal digits with one "::" and perhaps an IPv4 address at
 * the end; "%" and a scope (a decimal id, or an interface name: an unknown one gives id 0) before the prefix, which is
 * below 129 and has at most 2 digits, so /128 is refused. Without brackets an interface name ends at "/" or the end only
 * and takes a port into itself. Unix: blanks, then nothing or a path that begins with "/", "./", "../" or "~/", of which
 * at most 107 bytes are taken; the output must have room for a struct sockaddr_un.
 *
 * A prefix is checked and forgotten. Without a port in the text `default_port` (host order) is stored; one above 65535
 * is a failure. The whole text must be used up.
 */
KESTAL_API int32_t kestal_inet_ptos(int32_t family, const char *address_string, uint32_t default_port,
                                    void *out_address, uint64_t out_size);

/**
 * kestal_inet_ptos of which only the raw address, 4 or 16 bytes, is stored (nothing for a unix path). The output may be
 * null. 0, or -1 with the output as it was.
 */
KESTAL_API int32_t kestal_inet_pton(int32_t family, const char *address_string, void *out_raw_address);

/* --- address to text */

/**
 * Writes a socket address as text, without its port, which goes to `out_port` (host order; 0 for a unix address; may be
 * null). Returns `text`; a text that does not fit is cut. Null, and the text empty, for a null address or an
 * unknown family; null also without a text buffer, but the port is stored all the same. Family 0 reads "?UNSPEC".
 *
 * IPv6: the longest run of zero groups, the first of equal ones, is written as "::", also a run of one; IPv4-mapped
 * and -compatible addresses end in dotted form; a scope id other than 0 follows as "%" and its number. An abstract unix
 * name is written from its second byte.
 */
KESTAL_API char *kestal_inet_stopp(const void *address, char *text, uint64_t text_size, uint32_t *out_port);

/** kestal_inet_stopp without the port. */
KESTAL_API char *kestal_inet_stop(const void *address, char *text, uint64_t text_size);

/**
 * Writes a raw address as text: 4 or 16 bytes, or for the unix family the path (an abstract name from its second
 * byte). A null IPv4 address reads "0.0.0.0", a null IPv6 address "::". Returns `text`; null, with the text empty,
 * for another family.
 */
KESTAL_API char *kestal_inet_ntop(int32_t family, const void *raw_address, char *text, uint64_t text_size);

/* --- socket addresses */

/** The size of the address's structure by its family (16, 28 or 110), 0 for any other family or null. */
KESTAL_API uint32_t kestal_sockaddr_size(const void *address);

/** The address's family if it is IPv4, IPv6 or unix, else 0. */
KESTAL_API int32_t kestal_sockaddr_domain(const void *address);

/** Stores a port (host order). 0; -1 for null or a port above 65535. Without effect on families that have no port. */
KESTAL_API int32_t kestal_sockaddr_set_port(void *address, uint32_t port);

/** The port (host order); 0 for null and for families that have none. */
KESTAL_API uint32_t kestal_sockaddr_get_port(const void *address);

/**
 * 0 when both are null or both are IPv4 or both IPv6 with the same raw address, whatever their ports and scopes;
 * -1 otherwise.
 */
KESTAL_API int32_t kestal_compare_sockaddr_address(const void *a, const void *b);

/**
 * The netmask of a prefix of `prefix_length` bits (at most 32 or 128) in the address's family as a socket address, and
 * for IPv4 the broadcast address of the network; for IPv6 the second output is zeroed. Either output may be null; each
 * has room for the family's structure. 0; -1, with the families of the outputs set to 0, for any other family or null.
 */
KESTAL_API int32_t kestal_prefix_sockaddr(const void *address, uint32_t prefix_length, void *out_mask,
                                          void *out_broadcast);

/** How far the address reaches: a KESTAL_SCOPE_ value. */
KESTAL_API int32_t kestal_sockaddr_scope(const void *address);

/** "Host", "Link", "Site", "Global", "Mapped", "Compat", "Multicast", or "Unknown" for a KESTAL_SCOPE_ value. */
KESTAL_API const char *kestal_sockaddr_scope_name(int32_t scope);

/** 1 for an IPv4 address in 224.0.0.0/4 or an IPv6 address in ff00::/8, else 0. */
KESTAL_API int32_t kestal_is_multicast(const void *address);

/** 1 for a raw IPv4 address in 224.0.0.0/4, else 0, also for null. */
KESTAL_API int32_t kestal_inet_is_multicast(const void *raw_address);

/** 1 for a raw IPv6 address in ff00::/8, else 0, also for null. */
KESTAL_API int32_t kestal_inet6_is_multicast(const void *raw_address);

/* --- raw IPv6 addresses (RFC 4291): 1 or 0; null is nothing of all this */

/** 1 when two addresses are the same. */
KESTAL_API int32_t kestal_in6addr_compare(const void *a, const void *b);

/** Copies an address. 1, or 0 when either pointer is null. */
KESTAL_API int32_t kestal_in6addr_copy(void *to, const void *from);

/** fe80::/10. */
KESTAL_API int32_t kestal_in6addr_is_link_local(const void *raw_address);

/** ::1. */
KESTAL_API int32_t kestal_in6addr_is_loopback(const void *raw_address);

/** "::". */
KESTAL_API int32_t kestal_in6addr_is_unspecified(const void *raw_address);

/** ff00::/8. */
KESTAL_API int32_t kestal_in6addr_is_multicast(const void *raw_address);

/** fec0::/10. */
KESTAL_API int32_t kestal_in6addr_is_site_local(const void *raw_address);

/** 0:0:0:0:0:ffff:0:0/96. */
KESTAL_API int32_t kestal_in6addr_is_v4_mapped(const void *raw_address);

/** ::/96 but for "::" and "::1". */
KESTAL_API int32_t kestal_in6addr_is_v4_compatible(const void *raw_address);

/** The scope of a group: the low 4 bits of the address's second byte. */
KESTAL_API int32_t kestal_in6addr_multicast_scope(const void *raw_address);

/** A group of scope 1. */
KESTAL_API int32_t kestal_in6addr_is_multicast_node_local(const void *raw_address);

/** kestal_in6addr_is_multicast_node_local by its newer name. */
KESTAL_API int32_t kestal_in6addr_is_multicast_interface_local(const void *raw_address);

/** A group of scope 2. */
KESTAL_API int32_t kestal_in6addr_is_multicast_link_local(const void *raw_address);

/** A group of scope 5. */
KESTAL_API int32_t kestal_in6addr_is_multicast_site_local(const void *raw_address);

/** A group of scope 8. */
KESTAL_API int32_t kestal_in6addr_is_multicast_org_local(const void *raw_address);

/** A group of scope 14. */
KESTAL_API int32_t kestal_in6addr_is_multicast_global(const void *raw_address);

/** fe80::/10 or a group of scope 2. */
KESTAL_API int32_t kestal_in6addr_is_scope_link_local(const void *raw_address);

/** fe80::/10 or a group of scope 1 or 2: an address that means something together with an interface only. */
KESTAL_API int32_t kestal_in6addr_is_scope_embeddable(const void *raw_address);

/* --- checksum */

/**
 * The Internet checksum (RFC 1071): the complement of the one's-complement sum of the bytes taken as 16-bit words in
 * host order; an odd last byte is added as it is. 0xFFFF for no data.
 */
KESTAL_API uint16_t kestal_rfc1071_checksum(const void *data, uint64_t size);

KESTAL_END_DECLS

#endif
