#include "ssdp.hpp"

#include "multicast.hpp"

#include <net/if.h>
#include <sys/socket.h>

namespace {

using kestal::trace;

constexpr uint32_t update_flags = KESTAL_NETWORK_UPDATE_INTERFACES | KESTAL_NETWORK_UPDATE_IPV4 |
                                  KESTAL_NETWORK_UPDATE_IPV6 | KESTAL_NETWORK_UPDATE_MARK | KESTAL_NETWORK_UPDATE_DROP;

bool is_to_be_joined(const kestal_network_interface_t &interface)
{
    return (interface.m_change & (KESTAL_NETWORK_CHANGE_NEW | KESTAL_NETWORK_CHANGE_CHANGED)) != 0 &&
           (interface.m_flags & KESTAL_NETWORK_INTERFACE_INDEX) != 0 && kestal::has_address(interface, AF_UNSPEC);
}

void mark_seen(kestal_network_interface_t &interface)
{
    interface.m_change |= KESTAL_NETWORK_CHANGE_SEEN;
    for (kestal_network_address_t *address = interface.m_address_head; address != nullptr; address = address->m_next)
        address->m_change |= KESTAL_NETWORK_CHANGE_SEEN;
}

// The system keeps counting a membership on an interface that is gone, and allows a socket only so many.
void leave_gone_interfaces(kestal_ssdp_t &ssdp)
{
    char name[IF_NAMESIZE];
    for (const kestal_network_interface_t *each = ssdp.m_network_interface; each != nullptr; each = each->m_next)
        if (if_indextoname(each->m_index, name) == nullptr)
            kestal::join_ssdp_groups(ssdp, each->m_index, false);
}

void scan(kestal_ssdp_t &ssdp)
{
    trace(ssdp, "ssdp: [MESSAGE] \033[1;32mwake up network interface scan event.\033[0m\n");
    leave_gone_interfaces(ssdp);
    if (kestal_update_network_interface(&ssdp.m_network_interface, update_flags) != 0)
        return;
    for (kestal_network_interface_t *each = ssdp.m_network_interface; each != nullptr; each = each->m_next) {
        if (is_to_be_joined(*each))
            kestal::join_ssdp_groups(ssdp, each->m_index, true);
        mark_seen(*each);
    }
}

} // namespace

void kestal::handle_ssdp_scan(kestal_event_t *, int32_t, uint32_t what, void *context)
{
    kestal_ssdp_t &ssdp = *static_cast<kestal_ssdp_t *>(context);
    if ((what & KESTAL_EVENT_ASSIGNED) != 0)
        trace(ssdp, "ssdp: [MESSAGE] \033[1;34massign network interface scan event.\033[0m\n");
    if ((what & KESTAL_EVENT_TIMEOUT) != 0)
        scan(ssdp);
    if ((what & KESTAL_EVENT_UNASSIGNED) != 0) {
        ssdp.m_network_interface = kestal_free_network_interface(ssdp.m_network_interface);
        trace(ssdp, "ssdp: [MESSAGE] \033[1;34munassign network interface scan event.\033[0m\n");
    }
}
