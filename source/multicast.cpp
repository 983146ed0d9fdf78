#include <kestal_ulx/multicast.h>

#include <kestal_ulx/address.h>
#include <kestal_ulx/socket.h>

#include "caller_text.hpp"
#include "multicast.hpp"
#include "socket_address.hpp"

#include <errno.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <utility>

namespace {

using kestal::family_of;

int32_t level_of(int32_t family)
{
    return kestal_get_protocol_by_name(family == AF_INET6 ? "ipv6" : "ip");
}

// One interface as the calls name it: a name, or else an index, or nothing.
struct chosen_interface {
    const char *name;
    uint32_t index;

    bool has_name() const { return !kestal::is_empty(name); }
    bool is_any() const { return !has_name() && index == 0; }
    uint32_t known_index() const { return index == 0 && has_name() ? kestal_interface_name_to_index(name) : index; }
    bool is(const kestal_network_interface_t &interface) const
    {
        return has_name() && index == 0 ? strcmp(name, interface.m_name) == 0 : index == interface.m_index;
    }
};

bool set(int32_t sock, int32_t level, int32_t option, const auto &request)
{
    return kestal_setsockopt(sock, level, option, &request, sizeof request) == 0;
}

bool is_group(const void *group)
{
    return kestal_is_multicast(group) != 0;
}

// --- IPv4

bool set_v4_membership(int32_t sock, in_addr group, in_addr interface, bool join)
{
    const ip_mreq request = {.imr_multiaddr = group, .imr_interface = interface};
    return set(sock, level_of(AF_INET), join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, request);
}

in_addr v4_of(const void *address)
{
    sockaddr_in copy;
    memcpy(&copy, address, sizeof copy);
    return copy.sin_addr;
}

// The interface's first IPv4 address, or 0.0.0.0.
in_addr first_address_of(int32_t sock, const chosen_interface &interface)
{
    ifreq request = {};
    in_addr address = {};
    if (interface.index != 0 && if_indextoname(interface.index, request.ifr_name) == nullptr)
        return address;
    if (interface.index == 0 && strlen(interface.name) >= sizeof request.ifr_name)
        return address;
    if (interface.index == 0)
        strcpy(request.ifr_name, interface.name);
    if (ioctl(sock, SIOCGIFADDR, &request) == 0 && request.ifr_addr.sa_family == AF_INET)
        address = v4_of(&request.ifr_addr);
    return address;
}

// Sets the membership with each IPv4 address of the interface.
bool set_v4_by_addresses(int32_t sock, in_addr group, const chosen_interface &interface, bool join)
{
    bool has_succeeded = false;
    kestal_network_interface_t *list = kestal_get_network_interface_ex(KESTAL_NETWORK_UPDATE_IPV4, nullptr);
    for (const kestal_network_interface_t *each = list; each != nullptr; each = each->m_next) {
        if (!interface.is(*each))
            continue;
        for (const kestal_network_address_t *at = each->m_address_head; at != nullptr; at = at->m_next)
            has_succeeded |=
                v4_of(at->m_address).s_addr != INADDR_ANY && set_v4_membership(sock, group, v4_of(at->m_address), join);
    }
    kestal_free_network_interface(list);
    return has_succeeded;
}

bool set_v4(int32_t sock, in_addr group, const chosen_interface &interface, bool join)
{
    if (interface.is_any())
        return set_v4_membership(sock, group, in_addr{INADDR_ANY}, join);
    const in_addr address = first_address_of(sock, interface);
    return (address.s_addr != INADDR_ANY && set_v4_membership(sock, group, address, join)) ||
           set_v4_by_addresses(sock, group, interface, join);
}

// --- IPv6, and both

bool set_v6(int32_t sock, const in6_addr &group, uint32_t interface_index, bool join)
{
    const ipv6_mreq request = {.ipv6mr_multiaddr = group, .ipv6mr_interface = interface_index};
    return set(sock, level_of(AF_INET6), join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, request);
}

void copy_address(sockaddr_storage &to, const void *from)
{
    memcpy(&to, from, kestal_sockaddr_size(from));
}

bool set_any_family(int32_t sock, const void *group, uint32_t interface_index, bool join)
{
    group_req request = {};
    request.gr_interface = interface_index;
    copy_address(request.gr_group, group);
    return set(sock, level_of(family_of(group)), join ? MCAST_JOIN_GROUP : MCAST_LEAVE_GROUP, request);
}

bool set_membership(int32_t sock, const void *group, const chosen_interface &interface, bool join)
{
    sockaddr_in6 v6;
    if (family_of(group) == AF_INET6) {
        memcpy(&v6, group, sizeof v6);
        if (set_v6(sock, v6.sin6_addr, interface.known_index(), join))
            return true;
    } else if (set_v4(sock, v4_of(group), interface, join)) {
        return true;
    }
    return set_any_family(sock, group, interface.known_index(), join);
}

// What is asked for a sender; the option tells which of joining, leaving, blocking and admitting.
bool set_source(int32_t sock, const void *group, const void *source, const chosen_interface &interface, int32_t option)
{
    group_source_req request = {};
    request.gsr_interface = interface.known_index();
    copy_address(request.gsr_group, group);
    copy_address(request.gsr_source, source);
    if (set(sock, level_of(family_of(group)), option, request))
        return true;
    // On an interface that is gone the system knows no senders, but counts the membership: it is left whole.
    return option == MCAST_LEAVE_SOURCE_GROUP && errno == ENODEV && request.gsr_interface != 0 &&
           set_any_family(sock, group, request.gsr_interface, false);
}

int32_t set_source_checked(int32_t sock, const void *group, const void *source, const chosen_interface &interface,
                           int32_t option)
{
    if (!is_group(group) || family_of(source) != family_of(group)) {
        errno = EINVAL;
        return -1;
    }
    return set_source(sock, group, source, interface, option) ? 0 : -1;
}

// --- every interface

kestal_network_interface_t *list_interfaces(const void *group)
{
    return kestal_get_network_interface_ex(
        family_of(group) == AF_INET6 ? KESTAL_NETWORK_UPDATE_IPV6 : KESTAL_NETWORK_UPDATE_IPV4, nullptr);
}

// Applies `apply` to every interface of the list with an address of the group's family, or, when they could not be
// listed, to none in particular: 0 when it worked on one.
template <typename Apply>
int32_t apply_to(const kestal_network_interface_t *list, const void *group, Apply apply)
{
    if (list == nullptr)
        return apply(nullptr, 0u);
    int32_t result = -1;
    errno = EADDRNOTAVAIL;
    for (const kestal_network_interface_t *each = list; each != nullptr; each = each->m_next)
        if (kestal::has_address(*each, family_of(group)) && apply(each->m_name, each->m_index) == 0)
            result = 0;
    return result;
}

template <typename Apply>
int32_t apply_to_all(const void *group, Apply apply)
{
    kestal_network_interface_t *list = list_interfaces(group);
    const int32_t result = apply_to(list, group, apply);
    const int error = errno;
    kestal_free_network_interface(list);
    errno = error;
    return result;
}

// What sets the membership on an interface.
auto membership(int32_t sock, const void *group, int32_t join)
{
    return [=](const char *name, uint32_t index) { return kestal_multicast_join(sock, group, name, index, join); };
}

} // namespace

bool kestal::has_address(const kestal_network_interface_t &interface, int32_t family)
{
    for (const kestal_network_address_t *at = interface.m_address_head; at != nullptr; at = at->m_next)
        if ((family == AF_UNSPEC || at->m_family == family) && at->m_scope != KESTAL_SCOPE_UNKNOWN)
            return true;
    return false;
}

void kestal::join_again(int32_t sock, const void *group, kestal_network_interface_t *&joined)
{
    kestal_network_interface_t *now = list_interfaces(group);
    if (now == nullptr && joined != nullptr)
        return; // memory is short, or no interface left: as good as it was
    apply_to(joined, group, membership(sock, group, 0));
    apply_to(now, group, membership(sock, group, 1));
    kestal_free_network_interface(std::exchange(joined, now));
}

int32_t kestal_multicast_join(int32_t sock, const void *group, const char *interface_name, uint32_t interface_index,
                              int32_t join)
{
    if (!is_group(group)) {
        errno = EINVAL;
        return -1;
    }
    return set_membership(sock, group, {interface_name, interface_index}, join != 0) ? 0 : -1;
}

int32_t kestal_multicast_join_all(int32_t sock, const void *group, int32_t join)
{
    return apply_to_all(group, membership(sock, group, join));
}

int32_t kestal_inet_multicast_join(int32_t sock, const void *raw_group, const void *raw_interface, int32_t join)
{
    if (raw_group == nullptr) {
        errno = EINVAL;
        return -1;
    }
    sockaddr_in group = {};
    group.sin_family = AF_INET;
    memcpy(&group.sin_addr, raw_group, sizeof group.sin_addr);
    if (raw_interface == nullptr)
        return kestal_multicast_join_all(sock, &group, join);
    in_addr interface;
    memcpy(&interface, raw_interface, sizeof interface);
    return set_v4_membership(sock, group.sin_addr, interface, join != 0) ? 0 : -1;
}

int32_t kestal_inet6_multicast_join(int32_t sock, const void *raw_group, uint32_t interface_index, int32_t join)
{
    if (raw_group == nullptr) {
        errno = EINVAL;
        return -1;
    }
    in6_addr group;
    memcpy(&group, raw_group, sizeof group);
    return set_v6(sock, group, interface_index, join != 0) ? 0 : -1;
}

int32_t kestal_multicast_join_source_group(int32_t sock, const void *group, const void *source,
                                           const char *interface_name, uint32_t interface_index, int32_t join)
{
    return set_source_checked(sock, group, source, {interface_name, interface_index},
                              join != 0 ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP);
}

int32_t kestal_multicast_join_source_group_all(int32_t sock, const void *group, const void *source, int32_t join)
{
    return apply_to_all(group, [=](const char *name, uint32_t index) {
        return kestal_multicast_join_source_group(sock, group, source, name, index, join);
    });
}

int32_t kestal_multicast_block_source_group(int32_t sock, const void *group, const void *source,
                                            const char *interface_name, uint32_t interface_index, int32_t block)
{
    return set_source_checked(sock, group, source, {interface_name, interface_index},
                              block != 0 ? MCAST_BLOCK_SOURCE : MCAST_UNBLOCK_SOURCE);
}

int32_t kestal_multicast_block_source_all(int32_t sock, const void *group, const void *source, int32_t block)
{
    return apply_to_all(group, [=](const char *name, uint32_t index) {
        return kestal_multicast_block_source_group(sock, group, source, name, index, block);
    });
}
