#include <kestal_ulx/network_interface.h>

#include <kestal_ulx/address.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/text.h>

#include "socket_address.hpp"

#include <ifaddrs.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <stdio.h>
#include <string_view>

#include <algorithm>
#include <bit>
#include <utility>

namespace {

using kestal::socket_address;

constexpr uint32_t content_flags = KESTAL_NETWORK_UPDATE_INTERFACES | KESTAL_NETWORK_UPDATE_COUNTERS |
                                   KESTAL_NETWORK_UPDATE_IPV4 | KESTAL_NETWORK_UPDATE_IPV6;
constexpr uint32_t news = KESTAL_NETWORK_CHANGE_NEW | KESTAL_NETWORK_CHANGE_CHANGED;

// What a record's block holds behind the record.
struct address_block {
    kestal_network_address_t record;
    socket_address address;
    socket_address netmask;
    socket_address peer;
};

// The name of an entry's interface: an alias such as "eth0:1" stands for its interface.
struct interface_name {
    explicit interface_name(const ifaddrs &entry)
    {
        memcpy(text, entry.ifa_name, std::min(strcspn(entry.ifa_name, ":"), sizeof text - 1));
    }

    char text[IF_NAMESIZE] = {};
};

struct interface_block {
    kestal_network_interface_t record;
    interface_name name;
};

template <typename Record>
Record **end_of(Record **link)
{
    while (*link != nullptr)
        link = &(*link)->m_next;
    return link;
}

bool is_removed(uint32_t change)
{
    return (change & KESTAL_NETWORK_CHANGE_REMOVED) != 0;
}

kestal_network_interface_t *find_interface(kestal_network_interface_t *list, std::string_view name)
{
    while (list != nullptr && (is_removed(list->m_change) || name != list->m_name))
        list = list->m_next;
    return list;
}

void free_addresses(kestal_network_address_t *address)
{
    while (address != nullptr)
        kestal_free(std::exchange(address, address->m_next));
}

// --- gathering

// A list being made from the system's.
class collector {
public:
    collector(uint32_t flags, const char *pattern) : flags_(flags), pattern_(pattern) {}
    ~collector() { kestal_free_network_interface(list_); }
    collector(const collector &) = delete;
    collector &operator=(const collector &) = delete;

    kestal_network_interface_t *release() { return std::exchange(list_, nullptr); }

    bool collect()
    {
        ifaddrs *entries = nullptr;
        if (getifaddrs(&entries) != 0)
            return false;
        bool is_complete = true;
        for (const ifaddrs *entry = entries; entry != nullptr && is_complete; entry = entry->ifa_next)
            is_complete = !is_wanted(*entry) || add(*entry);
        freeifaddrs(entries);
        if (is_complete && (flags_ & KESTAL_NETWORK_UPDATE_COUNTERS) != 0)
            read_counters();
        return is_complete;
    }

private:
    static int32_t family_of(const ifaddrs &entry) { return kestal::family_of(entry.ifa_addr); }

    bool is_wanted(const ifaddrs &entry) const
    {
        const interface_name name(entry);
        if (pattern_ != nullptr && kestal_match_wildcard_list(pattern_, "|", name.text) == 0)
            return false;
        switch (family_of(entry)) {
        case AF_INET:
            return (flags_ & KESTAL_NETWORK_UPDATE_IPV4) != 0;
        case AF_INET6:
            return (flags_ & KESTAL_NETWORK_UPDATE_IPV6) != 0;
        default:
            return (flags_ & KESTAL_NETWORK_UPDATE_INTERFACES) != 0;
        }
    }

    kestal_network_interface_t *find_or_add(const ifaddrs &entry)
    {
        const interface_name name(entry);
        if (kestal_network_interface_t *found = find_interface(list_, name.text))
            return found;
        auto *block = static_cast<interface_block *>(kestal_calloc(1, sizeof(interface_block)));
        if (block == nullptr)
            return nullptr;
        kestal_network_interface_t &record = block->record;
        block->name = name;
        record.m_name = block->name.text;
        record.m_change = KESTAL_NETWORK_CHANGE_NEW;
        record.m_index = kestal_interface_name_to_index(record.m_name);
        record.m_system_flags = entry.ifa_flags;
        record.m_flags = KESTAL_NETWORK_INTERFACE_NAME | (record.m_index != 0 ? KESTAL_NETWORK_INTERFACE_INDEX : 0);
        return *end_of(&list_) = &record;
    }

    bool add(const ifaddrs &entry)
    {
        kestal_network_interface_t *interface = find_or_add(entry);
        if (interface == nullptr)
            return false;
        switch (family_of(entry)) {
        case AF_INET:
            interface->m_flags |= KESTAL_NETWORK_INTERFACE_IPV4;
            return add_address(*interface, entry);
        case AF_INET6:
            interface->m_flags |= KESTAL_NETWORK_INTERFACE_IPV6;
            return add_address(*interface, entry);
        case AF_PACKET:
            set_hardware_address(*interface, entry);
            return true;
        default:
            return true;
        }
    }

    static void set_hardware_address(kestal_network_interface_t &interface, const ifaddrs &entry)
    {
        sockaddr_ll link;
        memcpy(&link, entry.ifa_addr, sizeof link);
        if (link.sll_halen == 0 || link.sll_halen > sizeof interface.m_hardware_address)
            return;
        interface.m_flags |= KESTAL_NETWORK_INTERFACE_HARDWARE;
        interface.m_hardware_address_size = link.sll_halen;
        memcpy(interface.m_hardware_address, link.sll_addr, link.sll_halen);
    }

    static bool add_address(kestal_network_interface_t &interface, const ifaddrs &entry)
    {
        auto *block = static_cast<address_block *>(kestal_calloc(1, sizeof(address_block)));
        if (block == nullptr)
            return false;
        kestal_network_address_t &record = block->record;
        const uint32_t size = kestal_sockaddr_size(entry.ifa_addr);
        record.m_change = KESTAL_NETWORK_CHANGE_NEW;
        record.m_family = family_of(entry);
        record.m_scope = kestal_sockaddr_scope(entry.ifa_addr);
        record.m_address = memcpy(&block->address, entry.ifa_addr, size);
        record.m_netmask = &block->netmask;
        if (entry.ifa_netmask != nullptr)
            record.m_prefix_length = prefix_of(*entry.ifa_netmask, record.m_family);
        kestal_prefix_sockaddr(&block->address, record.m_prefix_length, &block->netmask, nullptr);
        // Broadcast address and other end share one field, and each is of the address's family.
        if (kestal::family_of(entry.ifa_dstaddr) == record.m_family)
            record.m_peer = memcpy(&block->peer, entry.ifa_dstaddr, size);
        *end_of(&interface.m_address_head) = &record;
        return true;
    }

    // The bits set in a netmask; the system leaves out its family where the mask is empty.
    static uint32_t prefix_of(const sockaddr &netmask, int32_t family)
    {
        const bool is_v4 = family == AF_INET;
        const auto *bytes = reinterpret_cast<const uint8_t *>(&netmask) +
                            (is_v4 ? offsetof(sockaddr_in, sin_addr) : offsetof(sockaddr_in6, sin6_addr));
        uint32_t bits = 0;
        for (size_t i = 0; i < (is_v4 ? sizeof(in_addr) : sizeof(in6_addr)); ++i)
            bits += static_cast<uint32_t>(std::popcount(bytes[i]));
        return bits;
    }

    // Lines "  eth0: BYTES PACKETS (6 more received) BYTES PACKETS ..." behind two of headings.
    void read_counters()
    {
        FILE *file = fopen("/proc/net/dev", "re");
        if (file == nullptr)
            return;
        char line[512];
        while (fgets(line, sizeof line, file) != nullptr) {
            char name[IF_NAMESIZE];
            unsigned long long values[4];
            if (sscanf(line, " %15[^: ]: %llu %llu %*u %*u %*u %*u %*u %*u %llu %llu", name, &values[0], &values[1],
                       &values[2], &values[3]) != 5)
                continue;
            kestal_network_interface_t *interface = find_interface(list_, name);
            if (interface == nullptr)
                continue;
            interface->m_flags |= KESTAL_NETWORK_INTERFACE_COUNTERS;
            interface->m_received_bytes = values[0];
            interface->m_received_packets = values[1];
            interface->m_sent_bytes = values[2];
            interface->m_sent_packets = values[3];
        }
        fclose(file);
    }

    uint32_t flags_;
    const char *pattern_;
    kestal_network_interface_t *list_ = nullptr;
};

// --- comparing

// The marks of a record that is still there.
uint32_t marks_after(uint32_t before, bool has_changed)
{
    const uint32_t kept = (before & KESTAL_NETWORK_CHANGE_SEEN) != 0 ? before & ~news : before;
    return has_changed ? (kept & ~KESTAL_NETWORK_CHANGE_SEEN) | KESTAL_NETWORK_CHANGE_CHANGED : kept;
}

kestal_network_address_t *find_address(kestal_network_address_t *list, const kestal_network_address_t &wanted)
{
    while (list != nullptr &&
           (is_removed(list->m_change) || kestal_compare_sockaddr_address(list->m_address, wanted.m_address) != 0))
        list = list->m_next;
    return list;
}

bool is_same(const kestal_network_address_t &a, const kestal_network_address_t &b)
{
    const auto is_same_peer = [&] {
        return a.m_peer == nullptr || b.m_peer == nullptr ? a.m_peer == b.m_peer
                                                          : kestal_compare_sockaddr_address(a.m_peer, b.m_peer) == 0;
    };
    return a.m_prefix_length == b.m_prefix_length && is_same_peer();
}

// Takes a record out of its list.
template <typename Record>
Record *take(Record **link)
{
    Record *taken = *link;
    *link = taken->m_next;
    taken->m_next = nullptr;
    return taken;
}

// Marks the records of `fresh` against those of `old`, and moves what is gone over unless it is to be dropped: whether
// anything differs.
template <typename Record, typename Find, typename Compare>
bool mark(Record **fresh, Record **old, bool drops, Find find, Compare has_changed)
{
    bool differs = false;
    for (Record *each = *fresh; each != nullptr; each = each->m_next) {
        Record *before = find(*old, *each);
        each->m_change =
            before == nullptr ? KESTAL_NETWORK_CHANGE_NEW : marks_after(before->m_change, has_changed(*each, *before));
        differs |= before == nullptr || (each->m_change & KESTAL_NETWORK_CHANGE_CHANGED) != 0;
    }
    for (Record **link = old; *link != nullptr;) {
        if (is_removed((*link)->m_change) || find(*fresh, **link) != nullptr) {
            link = &(*link)->m_next;
            continue;
        }
        differs = true;
        if (drops) {
            link = &(*link)->m_next;
            continue;
        }
        Record *gone = take(link);
        gone->m_change =
            (marks_after(gone->m_change, false) & ~KESTAL_NETWORK_CHANGE_SEEN) | KESTAL_NETWORK_CHANGE_REMOVED;
        *end_of(fresh) = gone;
    }
    return differs;
}

bool mark_addresses(kestal_network_interface_t &fresh, kestal_network_interface_t &old, bool drops)
{
    return mark(&fresh.m_address_head, &old.m_address_head, drops, find_address,
                [](const kestal_network_address_t &a, const kestal_network_address_t &b) { return !is_same(a, b); });
}

void mark_interfaces(kestal_network_interface_t *&fresh, kestal_network_interface_t *&old, bool drops)
{
    constexpr uint32_t state = IFF_UP | IFF_RUNNING | IFF_MULTICAST | IFF_BROADCAST | IFF_POINTOPOINT;
    const auto find = [](kestal_network_interface_t *list, const kestal_network_interface_t &wanted) {
        return find_interface(list, wanted.m_name);
    };
    mark(&fresh, &old, drops, find, [=](kestal_network_interface_t &a, kestal_network_interface_t &b) {
        const bool addresses_differ = mark_addresses(a, b, drops);
        return addresses_differ || a.m_index != b.m_index || ((a.m_system_flags ^ b.m_system_flags) & state) != 0 ||
               a.m_hardware_address_size != b.m_hardware_address_size ||
               memcmp(a.m_hardware_address, b.m_hardware_address, sizeof a.m_hardware_address) != 0;
    });
}

} // namespace

kestal_network_interface_t *kestal_get_network_interface(void)
{
    return kestal_get_network_interface_ex(content_flags, nullptr);
}

kestal_network_interface_t *kestal_get_network_interface_ex(uint32_t flags, const char *pattern)
{
    collector list(flags, pattern);
    return list.collect() ? list.release() : nullptr;
}

kestal_network_interface_t *kestal_free_network_interface(kestal_network_interface_t *list)
{
    while (list != nullptr) {
        free_addresses(list->m_address_head);
        kestal_free(std::exchange(list, list->m_next));
    }
    return nullptr;
}

int32_t kestal_update_network_interface(kestal_network_interface_t **list, uint32_t flags)
{
    if (list == nullptr)
        return -1;
    collector fresh(flags, nullptr);
    if (!fresh.collect())
        return -1;
    kestal_network_interface_t *now = fresh.release();
    if ((flags & KESTAL_NETWORK_UPDATE_MARK) != 0)
        mark_interfaces(now, *list, (flags & KESTAL_NETWORK_UPDATE_DROP) != 0);
    kestal_free_network_interface(std::exchange(*list, now));
    return 0;
}

kestal_network_interface_t *kestal_search_network_interface(kestal_network_interface_t *list, const char *pattern)
{
    const char *cursor = pattern != nullptr ? pattern : KESTAL_NETWORK_INTERFACE_PATTERN;
    uint64_t length = 0;
    while (const char *word = kestal_get_word(&cursor, "|", 0, &length)) {
        char one[64] = {};
        memcpy(one, word, static_cast<size_t>(std::min<uint64_t>(length, sizeof one - 1)));
        for (kestal_network_interface_t *each = list; each != nullptr; each = each->m_next)
            if (!is_removed(each->m_change) && kestal_match_wildcard(one, each->m_name) != 0)
                return each;
    }
    return nullptr;
}
