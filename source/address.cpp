#include <kestal_ulx/address.h>

#include <kestal_ulx/format.h>

#include "socket_address.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <net/if.h>
#include <string_view>

namespace {

using kestal::family_of;
using kestal::socket_address;

constexpr uint32_t largest_port = 65535;
constexpr unsigned group_count = 8; // 16-bit groups of an IPv6 address

static_assert(sizeof(sockaddr_in) == 16 && sizeof(sockaddr_in6) == 28 && sizeof(sockaddr_un) == 110);
static_assert(sizeof(sockaddr_un::sun_path) < KESTAL_ADDRESS_TEXT_SIZE);

// --- reading

int digit_of(char character)
{
    if (character >= '0' && character <= '9')
        return character - '0';
    const char lower = static_cast<char>(character | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : 16;
}

// Walks over a text. What reads a part gives false when the part does not stand there as it should.
class scanner {
public:
    explicit scanner(const char *text) : at_(text) {}

    char next() const { return *at_; }
    const char *rest() const { return at_; }
    bool is_at_end() const { return *at_ == '\0'; }

    bool skip(char character)
    {
        const bool is_there = *at_ == character;
        at_ += is_there;
        return is_there;
    }

    // The length of the run of digits here.
    unsigned count_digits(int base) const
    {
        unsigned count = 0;
        while (digit_of(at_[count]) < base)
            ++count;
        return count;
    }

    // A whole run of digits, of at most so many, with a value up to `limit`.
    bool read_number(int base, unsigned most_digits, uint32_t limit, uint32_t &value)
    {
        const unsigned count = count_digits(base);
        if (count == 0 || count > most_digits)
            return false;
        uint64_t number = 0;
        for (const char *end = at_ + count; at_ < end; ++at_)
            number = std::min(number * static_cast<unsigned>(base) + static_cast<unsigned>(digit_of(*at_)),
                              uint64_t{limit} + 1);
        value = static_cast<uint32_t>(number);
        return number <= limit;
    }

    // What stands before the first of these characters or the end.
    std::string_view read_until(const char *stops)
    {
        const std::string_view text(at_, strcspn(at_, stops));
        at_ += text.size();
        return text;
    }

private:
    const char *at_;
};

// Four numbers, each with a dot behind it; the last may do without.
bool read_dotted(scanner &text, uint8_t *bytes)
{
    for (unsigned i = 0; i < 4; ++i) {
        uint32_t number = 0;
        if (!text.read_number(10, 3, 255, number))
            return false;
        bytes[i] = static_cast<uint8_t>(number);
        text.skip('.');
    }
    return true;
}

// What may follow an address: prefix, closing bracket and port.
bool read_tail(scanner &text, bool is_bracketed, uint32_t longest_prefix, uint32_t default_port, in_port_t &port)
{
    uint32_t number = 0;
    if (text.skip('/') && !text.read_number(10, 2, longest_prefix, number))
        return false;
    if (is_bracketed)
        text.skip(']');
    number = default_port;
    if (text.skip(':') && !text.read_number(10, 5, largest_port, number))
        return false;
    port = kestal_be16_order(static_cast<uint16_t>(number));
    return text.is_at_end() && number <= largest_port;
}

bool read_v4(const char *string, uint32_t default_port, sockaddr_in &address)
{
    scanner text(string);
    address = {};
    address.sin_family = AF_INET;
    const bool is_bracketed = text.skip('[');
    return read_dotted(text, reinterpret_cast<uint8_t *>(&address.sin_addr)) &&
           read_tail(text, is_bracketed, 32, default_port, address.sin_port);
}

// The groups of an address: those before "::" stand at the front, those behind it at the back.
bool read_groups(scanner &text, in6_addr &address)
{
    std::array<uint8_t, 16> groups{};
    unsigned count = 0;
    unsigned front = group_count; // groups before "::"
    while (count < group_count) {
        if (text.skip(':') && text.skip(':')) {
            if (front != group_count)
                return false;
            front = count;
        }
        const unsigned digits = text.count_digits(16);
        if (text.rest()[digits] == '.') {
            if (count + 2 > group_count || !read_dotted(text, &groups[count * 2]))
                return false;
            if (front == group_count)
                front = count;
            count += 2;
            break;
        }
        if (digits == 0) {
            if (front == group_count)
                return false;
            break;
        }
        uint32_t group = 0;
        if (!text.read_number(16, 4, 0xFFFF, group))
            return false;
        groups[count * 2] = static_cast<uint8_t>(group >> 8);
        groups[count * 2 + 1] = static_cast<uint8_t>(group);
        ++count;
    }
    front = std::min(front, count);
    std::copy_n(groups.data(), front * 2, address.s6_addr);
    std::copy_n(&groups[front * 2], (count - front) * 2, address.s6_addr + sizeof address - (count - front) * 2);
    return true;
}

uint32_t index_of_interface(std::string_view name)
{
    char text[IF_NAMESIZE] = {};
    if (name.size() >= sizeof text)
        return 0;
    memcpy(text, name.data(), name.size());
    return kestal_interface_name_to_index(text);
}

bool read_scope(scanner &text, bool is_bracketed, uint32_t &scope)
{
    if (digit_of(text.next()) < 10)
        return text.read_number(10, 64, UINT32_MAX, scope);
    const std::string_view name = text.read_until(is_bracketed ? "/]" : "/");
    scope = index_of_interface(name);
    return !name.empty();
}

bool read_v6(const char *string, uint32_t default_port, sockaddr_in6 &address)
{
    scanner text(string);
    address = {};
    address.sin6_family = AF_INET6;
    const bool is_bracketed = text.skip('[');
    return read_groups(text, address.sin6_addr) &&
           (!text.skip('%') || read_scope(text, is_bracketed, address.sin6_scope_id)) &&
           read_tail(text, is_bracketed, 128, default_port, address.sin6_port);
}

bool read_local(const char *string, sockaddr_un &address)
{
    const std::string_view path(string + strspn(string, " "));
    if (!path.empty() && !path.starts_with("/") && !path.starts_with("./") && !path.starts_with("../") &&
        !path.starts_with("~/"))
        return false;
    address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
    return true;
}

bool read_address(int32_t family, const char *string, uint32_t default_port, socket_address &address)
{
    if (string == nullptr)
        return false;
    const bool is_any = family == AF_UNSPEC;
    return ((is_any || family == AF_INET) && read_v4(string, default_port, address.v4)) ||
           ((is_any || family == AF_INET6) && read_v6(string, default_port, address.v6)) ||
           ((is_any || family == AF_UNIX) && read_local(string, address.local));
}

// --- writing

// Gathers an address's text, which always fits.
class writer {
public:
    void put(char character) { text_[length_++] = character; }

    void put(const char *path, size_t size)
    {
        memcpy(text_ + length_, path, size);
        length_ += size;
    }

    template <typename... Value>
    void format(const char *format, Value... value)
    {
        length_ += static_cast<size_t>(kestal_snprintf(text_ + length_, sizeof text_ - length_, format, value...));
    }

    // Copies what fits.
    char *give(char *text, uint64_t text_size) const
    {
        const size_t length = static_cast<size_t>(std::min<uint64_t>(length_, text_size - 1));
        memcpy(text, text_, length);
        text[length] = '\0';
        return text;
    }

private:
    char text_[KESTAL_ADDRESS_TEXT_SIZE];
    size_t length_ = 0;
};

void write_v4(writer &out, const uint8_t *bytes)
{
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): only called where the family is that of the bytes
    out.format("%u.%u.%u.%u", unsigned{bytes[0]}, unsigned{bytes[1]}, unsigned{bytes[2]}, unsigned{bytes[3]});
}

struct run {
    unsigned begin = group_count;
    unsigned length = 0;
};

run longest_zero_run(const std::array<unsigned, group_count> &groups)
{
    run longest;
    for (unsigned begin = 0; begin < group_count; ++begin) {
        unsigned length = 0;
        while (begin + length < group_count && groups[begin + length] == 0)
            ++length;
        if (length > longest.length)
            longest = {begin, length};
        begin += length;
    }
    return longest;
}

void write_v6(writer &out, const uint8_t *bytes, uint32_t scope)
{
    std::array<unsigned, group_count> groups;
    for (unsigned i = 0; i < group_count; ++i)
        groups[i] = unsigned{bytes[i * 2]} << 8 | bytes[i * 2 + 1];
    const bool ends_dotted = kestal_in6addr_is_v4_mapped(bytes) != 0 || kestal_in6addr_is_v4_compatible(bytes) != 0;
    // A single zero group is shortened too: callers compare these texts.
    const run zeros = longest_zero_run(groups);
    for (unsigned i = 0; i < group_count; ++i) {
        if (ends_dotted && i > 5) {
            out.put(':');
            write_v4(out, bytes + 12);
            break;
        }
        if (i == zeros.begin) {
            i += zeros.length - 1;
            out.put(':');
            if (i + 1 == group_count)
                out.put(':');
            continue;
        }
        if (i > 0)
            out.put(':');
        out.format("%x", groups[i]);
    }
    if (scope != 0)
        out.format("%%%lu", uint64_t{scope});
}

// A path, of which an abstract name begins behind its first byte.
void write_local(writer &out, const char *path)
{
    constexpr size_t size = sizeof(sockaddr_un::sun_path);
    const size_t skipped = path[0] == '\0' ? 1 : 0;
    out.put(path + skipped, strnlen(path + skipped, size - skipped));
}

char *clear_text(char *text)
{
    text[0] = '\0';
    return nullptr;
}

// --- looking at addresses

struct raw_address {
    const uint8_t *bytes;
    unsigned size; // 4, 16, or 0 for none
};

raw_address raw_of(const void *address)
{
    const auto *bytes = static_cast<const uint8_t *>(address);
    switch (family_of(address)) {
    case AF_INET:
        return {bytes + offsetof(sockaddr_in, sin_addr), sizeof(in_addr)};
    case AF_INET6:
        return {bytes + offsetof(sockaddr_in6, sin6_addr), sizeof(in6_addr)};
    default:
        return {nullptr, 0};
    }
}

uint16_t raw_port_at(const void *address)
{
    static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
    uint16_t port = 0;
    memcpy(&port, static_cast<const uint8_t *>(address) + offsetof(sockaddr_in, sin_port), sizeof port);
    return port;
}

int32_t scope_of_v4(const uint8_t *bytes)
{
    uint32_t address = 0;
    memcpy(&address, bytes, sizeof address);
    address = kestal_be32_order(address);
    if (address == INADDR_ANY)
        return KESTAL_SCOPE_UNKNOWN;
    if (address >> 24 == 127)
        return KESTAL_SCOPE_HOST;
    if (address >> 16 == 0xA9FE) // 169.254
        return KESTAL_SCOPE_LINK;
    if (address >> 24 == 10 || address >> 20 == 0xAC1 || address >> 16 == 0xC0A8 || address == INADDR_BROADCAST)
        return KESTAL_SCOPE_SITE; // 10, 172.16, 192.168
    return address >> 28 == 0xE ? KESTAL_SCOPE_MULTICAST : KESTAL_SCOPE_GLOBAL;
}

int32_t scope_of_v6(const uint8_t *bytes)
{
    if (kestal_in6addr_is_unspecified(bytes) != 0)
        return KESTAL_SCOPE_UNKNOWN;
    if (kestal_in6addr_is_loopback(bytes) != 0)
        return KESTAL_SCOPE_HOST;
    if (kestal_in6addr_is_multicast(bytes) != 0)
        return KESTAL_SCOPE_MULTICAST;
    if (kestal_in6addr_is_link_local(bytes) != 0)
        return KESTAL_SCOPE_LINK;
    if (kestal_in6addr_is_site_local(bytes) != 0)
        return KESTAL_SCOPE_SITE;
    if (kestal_in6addr_is_v4_mapped(bytes) != 0)
        return KESTAL_SCOPE_V4_MAPPED;
    return kestal_in6addr_is_v4_compatible(bytes) != 0 ? KESTAL_SCOPE_V4_COMPATIBLE : KESTAL_SCOPE_GLOBAL;
}

// Whether a raw IPv6 address begins with the two bytes, as far as the mask goes.
int32_t begins_with(const void *raw_address, unsigned mask, unsigned value)
{
    const auto *bytes = static_cast<const uint8_t *>(raw_address);
    return bytes != nullptr && ((unsigned{bytes[0]} << 8 | bytes[1]) & mask) == value ? 1 : 0;
}

int32_t is_group_of_scope(const void *raw_address, unsigned scope)
{
    return begins_with(raw_address, 0xFF0F, 0xFF00 | scope);
}

bool is_zero(const uint8_t *bytes, unsigned size)
{
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

} // namespace

uint16_t kestal_be16_order(uint16_t value)
{
    return std::endian::native == std::endian::big ? value : __builtin_bswap16(value);
}

uint32_t kestal_be32_order(uint32_t value)
{
    return std::endian::native == std::endian::big ? value : __builtin_bswap32(value);
}

uint32_t kestal_interface_name_to_index(const char *name)
{
    return name == nullptr ? 0 : if_nametoindex(name);
}

int32_t kestal_inet_ptos(int32_t family, const char *address_string, uint32_t default_port, void *out_address,
                         uint64_t out_size)
{
    socket_address address{};
    const bool is_read = read_address(family, address_string, default_port, address);
    if (out_address == nullptr)
        return is_read ? 0 : -1;
    const uint32_t size = is_read ? kestal_sockaddr_size(&address) : 0;
    if (size == 0 || size > out_size) {
        memset(out_address, 0, static_cast<size_t>(out_size));
        return -1;
    }
    memcpy(out_address, &address, size);
    return 0;
}

int32_t kestal_inet_pton(int32_t family, const char *address_string, void *out_raw_address)
{
    socket_address address{};
    if (!read_address(family, address_string, 0, address))
        return -1;
    const raw_address raw = raw_of(&address);
    if (out_raw_address != nullptr && raw.size > 0)
        memcpy(out_raw_address, raw.bytes, raw.size);
    return 0;
}

char *kestal_inet_stopp(const void *address, char *text, uint64_t text_size, uint32_t *out_port)
{
    if (out_port != nullptr)
        *out_port = kestal_sockaddr_get_port(address);
    if (text == nullptr || text_size == 0)
        return nullptr;
    writer out;
    const raw_address raw = raw_of(address);
    uint32_t scope = 0;
    switch (address == nullptr ? -1 : family_of(address)) {
    case AF_INET:
        write_v4(out, raw.bytes);
        break;
    case AF_INET6:
        memcpy(&scope, static_cast<const char *>(address) + offsetof(sockaddr_in6, sin6_scope_id), sizeof scope);
        write_v6(out, raw.bytes, scope);
        break;
    case AF_UNIX:
        write_local(out, static_cast<const char *>(address) + offsetof(sockaddr_un, sun_path));
        break;
    case AF_UNSPEC:
        out.format("?UNSPEC");
        break;
    default:
        return clear_text(text);
    }
    return out.give(text, text_size);
}

char *kestal_inet_stop(const void *address, char *text, uint64_t text_size)
{
    return kestal_inet_stopp(address, text, text_size, nullptr);
}

char *kestal_inet_ntop(int32_t family, const void *raw_address, char *text, uint64_t text_size)
{
    if (text == nullptr || text_size == 0)
        return nullptr;
    static constexpr uint8_t any_address[sizeof(sockaddr_un::sun_path)] = {};
    const void *raw = raw_address != nullptr ? raw_address : any_address;
    writer out;
    switch (family) {
    case AF_INET:
        write_v4(out, static_cast<const uint8_t *>(raw));
        break;
    case AF_INET6:
        write_v6(out, static_cast<const uint8_t *>(raw), 0);
        break;
    case AF_UNIX:
        write_local(out, static_cast<const char *>(raw));
        break;
    default:
        return clear_text(text);
    }
    return out.give(text, text_size);
}

uint32_t kestal_sockaddr_size(const void *address)
{
    switch (family_of(address)) {
    case AF_INET:
        return sizeof(sockaddr_in);
    case AF_INET6:
        return sizeof(sockaddr_in6);
    case AF_UNIX:
        return sizeof(sockaddr_un);
    default:
        return 0;
    }
}

int32_t kestal_sockaddr_domain(const void *address)
{
    return kestal_sockaddr_size(address) == 0 ? AF_UNSPEC : family_of(address);
}

int32_t kestal_sockaddr_set_port(void *address, uint32_t port)
{
    if (address == nullptr)
        return -1;
    if (raw_of(address).size == 0)
        return 0;
    if (port > largest_port)
        return -1;
    const uint16_t raw_port = kestal_be16_order(static_cast<uint16_t>(port));
    memcpy(static_cast<uint8_t *>(address) + offsetof(sockaddr_in, sin_port), &raw_port, sizeof raw_port);
    return 0;
}

uint32_t kestal_sockaddr_get_port(const void *address)
{
    return raw_of(address).size == 0 ? 0 : kestal_be16_order(raw_port_at(address));
}

int32_t kestal_compare_sockaddr_address(const void *a, const void *b)
{
    if (a == nullptr && b == nullptr)
        return 0;
    const raw_address left = raw_of(a);
    const raw_address right = raw_of(b);
    return left.size != 0 && left.size == right.size && memcmp(left.bytes, right.bytes, left.size) == 0 ? 0 : -1;
}

int32_t kestal_prefix_sockaddr(const void *address, uint32_t prefix_length, void *out_mask, void *out_broadcast)
{
    const int32_t family = family_of(address);
    const raw_address raw = raw_of(address);
    socket_address mask{};
    socket_address broadcast{};
    auto *mask_bytes =
        static_cast<uint8_t *>(family == AF_INET ? static_cast<void *>(&mask.v4.sin_addr) : &mask.v6.sin6_addr);
    auto *broadcast_bytes = reinterpret_cast<uint8_t *>(&broadcast.v4.sin_addr);
    if (raw.size != 0)
        mask.any.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET)
        broadcast.v4.sin_family = AF_INET;
    for (unsigned i = 0; i < raw.size; ++i) {
        const unsigned bits = std::min(prefix_length, 8u);
        prefix_length -= bits;
        mask_bytes[i] = static_cast<uint8_t>(0xFF00u >> bits);
        if (family == AF_INET)
            broadcast_bytes[i] = static_cast<uint8_t>(raw.bytes[i] | ~mask_bytes[i]);
    }
    const size_t size = raw.size == 0 ? sizeof(sa_family_t) : kestal_sockaddr_size(address);
    if (out_mask != nullptr)
        memcpy(out_mask, &mask, size);
    if (out_broadcast != nullptr)
        memcpy(out_broadcast, &broadcast, size);
    return raw.size == 0 ? -1 : 0;
}

int32_t kestal_sockaddr_scope(const void *address)
{
    const raw_address raw = raw_of(address);
    switch (raw.size) {
    case sizeof(in_addr):
        return scope_of_v4(raw.bytes);
    case sizeof(in6_addr):
        return scope_of_v6(raw.bytes);
    default:
        return KESTAL_SCOPE_UNKNOWN;
    }
}

const char *kestal_sockaddr_scope_name(int32_t scope)
{
    switch (scope) {
    case KESTAL_SCOPE_HOST:
        return "Host";
    case KESTAL_SCOPE_LINK:
        return "Link";
    case KESTAL_SCOPE_SITE:
        return "Site";
    case KESTAL_SCOPE_GLOBAL:
        return "Global";
    case KESTAL_SCOPE_V4_MAPPED:
        return "Mapped";
    case KESTAL_SCOPE_V4_COMPATIBLE:
        return "Compat";
    case KESTAL_SCOPE_MULTICAST:
        return "Multicast";
    default:
        return "Unknown";
    }
}

int32_t kestal_is_multicast(const void *address)
{
    const raw_address raw = raw_of(address);
    return raw.size == sizeof(in_addr) ? kestal_inet_is_multicast(raw.bytes) : kestal_inet6_is_multicast(raw.bytes);
}

int32_t kestal_inet_is_multicast(const void *raw_address)
{
    return raw_address != nullptr && *static_cast<const uint8_t *>(raw_address) >> 4 == 0xE ? 1 : 0;
}

int32_t kestal_inet6_is_multicast(const void *raw_address)
{
    return kestal_in6addr_is_multicast(raw_address);
}

int32_t kestal_in6addr_compare(const void *a, const void *b)
{
    return a != nullptr && b != nullptr && memcmp(a, b, sizeof(in6_addr)) == 0 ? 1 : 0;
}

int32_t kestal_in6addr_copy(void *to, const void *from)
{
    if (to == nullptr || from == nullptr)
        return 0;
    memmove(to, from, sizeof(in6_addr));
    return 1;
}

int32_t kestal_in6addr_is_link_local(const void *raw_address)
{
    return begins_with(raw_address, 0xFFC0, 0xFE80);
}

int32_t kestal_in6addr_is_loopback(const void *raw_address)
{
    return kestal_in6addr_compare(raw_address, &in6addr_loopback);
}

int32_t kestal_in6addr_is_unspecified(const void *raw_address)
{
    return kestal_in6addr_compare(raw_address, &in6addr_any);
}

int32_t kestal_in6addr_is_multicast(const void *raw_address)
{
    return begins_with(raw_address, 0xFF00, 0xFF00);
}

int32_t kestal_in6addr_is_site_local(const void *raw_address)
{
    return begins_with(raw_address, 0xFFC0, 0xFEC0);
}

int32_t kestal_in6addr_is_v4_mapped(const void *raw_address)
{
    const auto *bytes = static_cast<const uint8_t *>(raw_address);
    return bytes != nullptr && is_zero(bytes, 10) && bytes[10] == 0xFF && bytes[11] == 0xFF ? 1 : 0;
}

int32_t kestal_in6addr_is_v4_compatible(const void *raw_address)
{
    const auto *bytes = static_cast<const uint8_t *>(raw_address);
    return bytes != nullptr && is_zero(bytes, 12) && (!is_zero(bytes + 12, 3) || bytes[15] > 1) ? 1 : 0;
}

int32_t kestal_in6addr_multicast_scope(const void *raw_address)
{
    return raw_address == nullptr ? 0 : static_cast<const uint8_t *>(raw_address)[1] & 0x0F;
}

int32_t kestal_in6addr_is_multicast_node_local(const void *raw_address)
{
    return is_group_of_scope(raw_address, 1);
}

int32_t kestal_in6addr_is_multicast_interface_local(const void *raw_address)
{
    return kestal_in6addr_is_multicast_node_local(raw_address);
}

int32_t kestal_in6addr_is_multicast_link_local(const void *raw_address)
{
    return is_group_of_scope(raw_address, 2);
}

int32_t kestal_in6addr_is_multicast_site_local(const void *raw_address)
{
    return is_group_of_scope(raw_address, 5);
}

int32_t kestal_in6addr_is_multicast_org_local(const void *raw_address)
{
    return is_group_of_scope(raw_address, 8);
}

int32_t kestal_in6addr_is_multicast_global(const void *raw_address)
{
    return is_group_of_scope(raw_address, 14);
}

int32_t kestal_in6addr_is_scope_link_local(const void *raw_address)
{
    return kestal_in6addr_is_link_local(raw_address) | kestal_in6addr_is_multicast_link_local(raw_address);
}

int32_t kestal_in6addr_is_scope_embeddable(const void *raw_address)
{
    return kestal_in6addr_is_scope_link_local(raw_address) | kestal_in6addr_is_multicast_node_local(raw_address);
}

uint16_t kestal_rfc1071_checksum(const void *data, uint64_t size)
{
    // The sum of larger words with their carries folds to the sum of the 16-bit words.
    const auto *at = static_cast<const uint8_t *>(data);
    uint64_t sum = 0;
    const auto add = [&sum](uint64_t word) {
        sum += word;
        sum += sum < word;
    };
    if (at == nullptr)
        size = 0;
    for (; size >= sizeof(uint64_t); size -= sizeof(uint64_t), at += sizeof(uint64_t)) {
        uint64_t word;
        memcpy(&word, at, sizeof word);
        add(word);
    }
    for (; size >= sizeof(uint16_t); size -= sizeof(uint16_t), at += sizeof(uint16_t)) {
        uint16_t word;
        memcpy(&word, at, sizeof word);
        add(word);
    }
    if (size > 0)
        add(*at);
    sum = (sum >> 32) + (sum & 0xFFFFFFFF);
    sum = (sum >> 32) + (sum & 0xFFFFFFFF);
    sum = (sum >> 16) + (sum & 0xFFFF);
    sum = (sum >> 16) + (sum & 0xFFFF);
    return static_cast<uint16_t>(~sum);
}
