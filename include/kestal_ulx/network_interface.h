/**
 * @file
 * The network interfaces of this machine, each with its name, index, state and addresses: listed, searched by name
 * pattern, and listed again with marks on what has changed. From the system's interface list and /proc/net.
 *
 * A list belongs to the caller and is released with kestal_free_network_interface; its records are read freely and
 * changed by nobody but kestal_update_network_interface and, for the mark KESTAL_NETWORK_CHANGE_SEEN, the caller. A list
 * has no lock.
 *
 *     kestal_network_interface_t *list = NULL;
 *     while (kestal_update_network_interface(&list, KESTAL_NETWORK_UPDATE_ALL) == 0) {
 *         for (kestal_network_interface_t *each = list; each != NULL; each = each->m_next) {
 *             if ((each->m_change & (KESTAL_NETWORK_CHANGE_NEW | KESTAL_NETWORK_CHANGE_CHANGED)) != 0)
 *                 begin_to_use(each);
 *             each->m_change |= KESTAL_NETWORK_CHANGE_SEEN;
 *         }
 *         wait_a_while();
 *     }
 */
#ifndef KESTAL_ULX_NETWORK_INTERFACE_H
#define KESTAL_ULX_NETWORK_INTERFACE_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** The pattern that stands for a null one: what a device calls its wired, then its wireless interfaces, then any. */
#define KESTAL_NETWORK_INTERFACE_PATTERN "bond*|eth*|en*|wlan*|ra*|*"

/* Bits of kestal_network_interface_t.m_flags. */
#define KESTAL_NETWORK_INTERFACE_NAME 0x01u     /**< m_name is valid */
#define KESTAL_NETWORK_INTERFACE_HARDWARE 0x02u /**< m_hardware_address is valid */
#define KESTAL_NETWORK_INTERFACE_INDEX 0x04u    /**< m_index is valid */
#define KESTAL_NETWORK_INTERFACE_IPV4 0x10u     /**< has an IPv4 address */
#define KESTAL_NETWORK_INTERFACE_IPV6 0x20u     /**< has an IPv6 address */
#define KESTAL_NETWORK_INTERFACE_COUNTERS 0x40u /**< the counters are valid */

/* Bits of m_change, of an interface and of an address. */
#define KESTAL_NETWORK_CHANGE_NEW 0x01u     /**< was not in the list before */
#define KESTAL_NETWORK_CHANGE_REMOVED 0x02u /**< is no longer there; leaves the list with the next update */
#define KESTAL_NETWORK_CHANGE_CHANGED 0x04u /**< its index, state, hardware address or addresses have changed */
#define KESTAL_NETWORK_CHANGE_SEEN 0x80u    /**< set by the caller who has acted: the next update clears the marks */

/* What kestal_update_network_interface and kestal_get_network_interface_ex do. */
#define KESTAL_NETWORK_UPDATE_INTERFACES 0x0001u /**< also list interfaces without addresses */
#define KESTAL_NETWORK_UPDATE_COUNTERS 0x0002u   /**< read the traffic counters of /proc/net/dev */
#define KESTAL_NETWORK_UPDATE_IPV4 0x0004u       /**< list the IPv4 addresses */
#define KESTAL_NETWORK_UPDATE_IPV6 0x0008u       /**< list the IPv6 addresses */
#define KESTAL_NETWORK_UPDATE_MARK 0x4000u       /**< mark changes against the list so far */
#define KESTAL_NETWORK_UPDATE_DROP 0x8000u       /**< what is no longer there leaves the list at once */
#define KESTAL_NETWORK_UPDATE_ALL 0xC00Fu        /**< all of them */

/** One address of an interface. */
typedef struct kestal_network_address {
    struct kestal_network_address *m_next; /**< the next address of the interface */
    uint32_t m_change;                     /**< KESTAL_NETWORK_CHANGE_ bits */
    int32_t m_family;                      /**< AF_INET or AF_INET6 */
    int32_t m_scope;                       /**< KESTAL_SCOPE_ value */
    uint32_t m_prefix_length;              /**< bits */
    void *m_address;                       /**< struct sockaddr_in or sockaddr_in6, port 0 */
    void *m_netmask;                       /**< the same of the prefix */
    void *m_peer; /**< broadcast address, or the other end of a point-to-point link; null when none */
} kestal_network_address_t;

/** One interface. */
typedef struct kestal_network_interface {
    struct kestal_network_interface *m_next;  /**< the next interface */
    uint32_t m_change;                        /**< KESTAL_NETWORK_CHANGE_ bits */
    uint32_t m_flags;                         /**< KESTAL_NETWORK_INTERFACE_ bits */
    uint32_t m_index;                         /**< the system's, from 1 */
    uint32_t m_system_flags;                  /**< IFF_UP, IFF_LOOPBACK, IFF_MULTICAST ... of the system */
    const char *m_name;                       /**< "eth0" */
    uint8_t m_hardware_address[8];            /**< the first bytes count */
    uint32_t m_hardware_address_size;         /**< bytes of it, 6 for Ethernet */
    uint64_t m_received_bytes;                /**< as the system counts, all four: since the interface is there */
    uint64_t m_received_packets;              /**< packets received */
    uint64_t m_sent_bytes;                    /**< bytes sent */
    uint64_t m_sent_packets;                  /**< packets sent */
    kestal_network_address_t *m_address_head; /**< in the system's order */
} kestal_network_interface_t;

/** All interfaces with all their addresses and counters, in the system's order. Null when there is none or on failure. */
KESTAL_API kestal_network_interface_t *kestal_get_network_interface(void);

/**
 * The interfaces whose name matches a pattern (as kestal_match_wildcard_list has it, but with letter case ignored; null
 * for every one), with what the bits 0x000F of `flags` name. Every record is marked new. Null when there is none or on
 * failure.
 */
KESTAL_API kestal_network_interface_t *kestal_get_network_interface_ex(uint32_t flags, const char *pattern);

/** Releases a list; null is fine. Returns null. */
KESTAL_API kestal_network_interface_t *kestal_free_network_interface(kestal_network_interface_t *list);

/**
 * Lists again: `*list`, a list or null, is replaced by a new one, so that records of the old one are void. With
 * KESTAL_NETWORK_UPDATE_MARK what was not there before is marked new, what differs changed (an interface also when its
 * addresses differ), and what is gone stays for one update, marked removed, unless KESTAL_NETWORK_UPDATE_DROP is given.
 * Marks stay over updates until the caller has set KESTAL_NETWORK_CHANGE_SEEN, so none is missed; records that did not
 * change keep that bit. Traffic is no change.
 *
 * 0, or -1 with the list as it was.
 */
KESTAL_API int32_t kestal_update_network_interface(kestal_network_interface_t **list, uint32_t flags);

/**
 * The first interface of a list that matches the first pattern that any matches: with patterns "eth*|*" an "eth1" that
 * stands behind "lo" comes first. Null for KESTAL_NETWORK_INTERFACE_PATTERN. Null when none matches.
 */
KESTAL_API kestal_network_interface_t *kestal_search_network_interface(kestal_network_interface_t *list,
                                                                       const char *pattern);

KESTAL_END_DECLS

#endif
