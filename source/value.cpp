#include <kestal_ulx/value.h>

#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>

#include "list.hpp"

#include <algorithm>
#include <string.h>
#include <string_view>

namespace {

// A name without a text is null: the name of an unnamed entry.
std::string_view name_of(const char *name)
{
    return name == nullptr ? std::string_view() : std::string_view(name);
}

char lower_case(char letter)
{
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter;
}

bool is_name_ignoring_case(const char *have, std::string_view name)
{
    for (const char letter : name)
        if (lower_case(*have++) != lower_case(letter))
            return false;
    return *have == '\0';
}

bool is_exact_name(const char *have, std::string_view name)
{
    return strncmp(have, name.data(), name.size()) == 0 && have[name.size()] == '\0';
}

bool is_name(const char *have, std::string_view name, bool exact)
{
    if (have == nullptr || name.data() == nullptr)
        return have == name.data();
    return exact ? is_exact_name(have, name) : is_name_ignoring_case(have, name);
}

// Calls visit(name) for each alternative until it gives true; whether it did.
template <typename Visit>
bool any_alternative(const char *names, Visit visit)
{
    while (names != nullptr && *names != '\0') {
        const size_t length = strcspn(names, "|");
        if (length > 0 && visit(std::string_view(names, length)))
            return true;
        names += length + (names[length] == '|' ? 1 : 0);
    }
    return false;
}

// What a search looks for: functions that tell whether a node is it.

auto with_name(uint32_t exact, std::string_view name)
{
    // Most names differ in the first character already; that of an empty name is its terminator.
    const bool has_first = exact != 0 && name.data() != nullptr;
    const char first = has_first ? *name.data() : '\0';
    return [=](const kestal_value_node_t &node) {
        if (has_first && node.m_name != nullptr && *node.m_name != first)
            return false;
        return is_name(node.m_name, name, exact != 0);
    };
}

auto with_name(uint32_t exact, const char *name)
{
    return with_name(exact, name_of(name));
}

auto with_alternative(uint32_t exact, const char *names)
{
    return [=](const kestal_value_node_t &node) {
        return any_alternative(names, [&](std::string_view name) { return is_name(node.m_name, name, exact != 0); });
    };
}

auto with_data(const void *data, uint64_t size)
{
    return [=](const kestal_value_node_t &node) {
        return node.m_size == size && kestal_compare_data(node.m_data, size, data, size) == 0;
    };
}

// A text without its terminator.
auto with_text(const char *text)
{
    return with_data(text, name_of(text).size());
}

template <typename First, typename Second>
auto both(First first, Second second)
{
    return [=](const kestal_value_node_t &node) { return first(node) && second(node); };
}

template <typename Wanted>
kestal_value_node_t *search(const kestal_value_node_t *start, Wanted is_wanted)
{
    const kestal_value_node_t *node = start;
    while (node != nullptr && !is_wanted(*node))
        node = node->m_next;
    return const_cast<kestal_value_node_t *>(node);
}

bool is_valid(const kestal_value_t *list)
{
    return list != nullptr && (list->m_flags & KESTAL_VALUE_VALID) != 0;
}

template <typename Wanted>
kestal_value_node_t *search_list(const kestal_value_t *list, Wanted is_wanted)
{
    return is_valid(list) ? search(list->m_head, is_wanted) : nullptr;
}

kestal::doubly_linked_list nodes_of(kestal_value_t &list)
{
    return {&list.m_head, &list.m_tail, KESTAL_LINKS(kestal_value_node_t, m_previous, m_next)};
}

// Nodes that a call takes off a list, released when it ends: what the call was given may lie inside them.
class discarded_nodes {
public:
    discarded_nodes() = default;
    ~discarded_nodes() { kestal_free_value_node(nodes_.m_head); }
    discarded_nodes(const discarded_nodes &) = delete;
    discarded_nodes &operator=(const discarded_nodes &) = delete;

    void add(kestal_value_node_t *node) { nodes_of(nodes_).append(node); }

private:
    kestal_value_t nodes_{};
};

template <typename Wanted>
int32_t remove_all(kestal_value_t *list, Wanted is_wanted)
{
    if (!is_valid(list))
        return -1;
    discarded_nodes discarded;
    for (kestal_value_node_t *node = search(list->m_head, is_wanted), *next; node != nullptr; node = next) {
        next = search(node->m_next, is_wanted);
        nodes_of(*list).remove(node);
        discarded.add(node);
        list->m_flags |= KESTAL_VALUE_MODIFIED;
    }
    return 0;
}

void store(void *block, const void *data, uint64_t size)
{
    if (data != nullptr)
        memmove(block, data, static_cast<size_t>(size));
    else
        memset(block, 0, static_cast<size_t>(size));
}

// A block of the bytes and one zero byte more, so that a text without its terminator can be read as a string, also
// when it overwrites one that had it.
void *copy_data(const void *data, uint64_t size)
{
    if (size == UINT64_MAX)
        return nullptr;
    char *block = static_cast<char *>(kestal_alloc_tag(size + 1, "kestal_new_value_node", __LINE__));
    if (block == nullptr)
        return nullptr;
    store(block, data, size);
    block[size] = '\0';
    return block;
}

kestal_value_node_t *new_node(std::string_view name, const void *data, uint64_t size)
{
    const uint64_t name_size = name.data() == nullptr ? 0 : name.size() + 1;
    void *block = kestal_alloc_tag(sizeof(kestal_value_node_t) + name_size, "kestal_new_value_node", __LINE__);
    kestal_value_node_t *node = static_cast<kestal_value_node_t *>(block);
    if (node == nullptr)
        return nullptr;
    *node = {};
    if (name_size > 0) {
        node->m_name = reinterpret_cast<char *>(node + 1);
        memcpy(node->m_name, name.data(), name.size());
        node->m_name[name.size()] = '\0';
    }
    node->m_size = size;
    node->m_data = size == 0 ? nullptr : copy_data(data, size);
    return size == 0 || node->m_data != nullptr ? node : kestal_free_value_node(node);
}

int32_t overwrite(kestal_value_t &list, kestal_value_node_t &node, const void *data)
{
    if (kestal_compare_data(node.m_data, node.m_size, data, node.m_size) == 0)
        return 0;
    store(node.m_data, data, node.m_size);
    list.m_flags |= KESTAL_VALUE_MODIFIED;
    return 0;
}

bool lies_in(const void *given, const void *block, uint64_t size)
{
    const auto at = reinterpret_cast<uintptr_t>(given), begin = reinterpret_cast<uintptr_t>(block);
    return given != nullptr && at >= begin && at - begin <= size;
}

// Whether what a call was given is part of a node whose name has this length.
bool is_part(const void *given, const kestal_value_node_t &node, uint64_t name_length)
{
    return lies_in(given, node.m_data, node.m_size) || lies_in(given, node.m_name, name_length);
}

// Other data under the same name, in this spelling.
int32_t renew(kestal_value_t &list, kestal_value_node_t &node, std::string_view name, const void *data, uint64_t size)
{
    void *block = size == 0 ? nullptr : copy_data(data, size);
    if (size != 0 && block == nullptr)
        return -1;
    if (name.data() != nullptr)
        memcpy(node.m_name, name.data(), name.size());
    kestal_check_free(node.m_data);
    node.m_data = block;
    node.m_size = size;
    list.m_flags |= KESTAL_VALUE_MODIFIED;
    return 0;
}

int32_t set(kestal_value_t &list, uint32_t mode, uint32_t exact, std::string_view name, const void *data, uint64_t size,
            discarded_nodes &discarded)
{
    kestal_value_node_t *old_node = nullptr;
    switch (mode & 3) {
    case KESTAL_VALUE_REPLACE_BY_NAME:
        old_node = search(list.m_head, with_name(exact, name));
        if (old_node != nullptr && old_node->m_size == size)
            return overwrite(list, *old_node, data);
        if (old_node != nullptr && !is_part(data, *old_node, name.size()) &&
            !is_part(name.data(), *old_node, name.size()))
            return renew(list, *old_node, name, data, size);
        break;
    case KESTAL_VALUE_REPLACE_BY_DATA:
        old_node = search(list.m_head, with_data(data, size));
        break;
    case KESTAL_VALUE_ADD_IF_ABSENT:
        if (search(list.m_head, both(with_name(exact, name), with_data(data, size))) != nullptr)
            return 0;
        break;
    }
    kestal_value_node_t *node = new_node(name, data, size);
    if (node == nullptr)
        return -1;
    if (old_node == nullptr) {
        nodes_of(list).append(node);
    } else {
        nodes_of(list).replace(old_node, node);
        discarded.add(old_node);
    }
    list.m_flags |= KESTAL_VALUE_MODIFIED;
    return 0;
}

uint64_t string_size(const char *string)
{
    return string == nullptr ? 0 : strlen(string) + 1;
}

// A 32-bit integer as text.
struct integer_text {
    explicit integer_text(int32_t integer) { kestal_snprintf(text, sizeof text, "%d", integer); }
    char text[sizeof "-2147483648"];
};

} // namespace

kestal_value_t *kestal_init_value(kestal_value_t *list)
{
    if (list != nullptr)
        *list = {.m_flags = KESTAL_VALUE_VALID | KESTAL_VALUE_MODIFIED, .m_head = nullptr, .m_tail = nullptr};
    return list;
}

kestal_value_t *kestal_new_value(void)
{
    kestal_value_t *list = kestal_init_value(static_cast<kestal_value_t *>(kestal_alloc(sizeof(kestal_value_t))));
    if (list != nullptr)
        list->m_flags |= KESTAL_VALUE_ALLOCATED;
    return list;
}

int32_t kestal_destroy_value(kestal_value_t *list)
{
    if (kestal_reset_value(list) != 0)
        return -1;
    list->m_flags &= ~KESTAL_VALUE_VALID;
    if ((list->m_flags & KESTAL_VALUE_ALLOCATED) != 0)
        kestal_free(list);
    return 0;
}

int32_t kestal_free_value(kestal_value_t *list)
{
    return kestal_destroy_value(list);
}

int32_t kestal_reset_value(kestal_value_t *list)
{
    if (!is_valid(list))
        return -1;
    kestal_free_value_node(list->m_head);
    list->m_head = nullptr;
    list->m_tail = nullptr;
    return 0;
}

int32_t kestal_set_value(kestal_value_t *list, uint32_t mode, uint32_t exact, const char *name, const void *data,
                         uint64_t size)
{
    if (!is_valid(list))
        return -1;
    discarded_nodes discarded;
    return set(*list, mode, exact, name_of(name), data, size, discarded);
}

int32_t kestal_set_value_string(kestal_value_t *list, uint32_t mode, uint32_t exact, const char *name,
                                const char *string)
{
    return kestal_set_value(list, mode, exact, name, string, string_size(string));
}

int32_t kestal_set_value_int_string(kestal_value_t *list, uint32_t mode, uint32_t exact, const char *name,
                                    int32_t integer)
{
    return kestal_set_value_string(list, mode, exact, name, integer_text(integer).text);
}

int32_t kestal_multiple_set_value(kestal_value_t *list, uint32_t mode, uint32_t exact, const char *names,
                                  const void *data, uint64_t size)
{
    if (!is_valid(list) || names == nullptr)
        return -1;
    discarded_nodes discarded;
    int32_t result = 0;
    any_alternative(names, [&](std::string_view name) {
        if (set(*list, mode, exact, name, data, size, discarded) != 0)
            result = -1;
        return false;
    });
    return result;
}

int32_t kestal_multiple_set_value_string(kestal_value_t *list, uint32_t mode, uint32_t exact, const char *names,
                                         const char *string)
{
    return kestal_multiple_set_value(list, mode, exact, names, string, string_size(string));
}

int32_t kestal_multiple_set_value_int_string(kestal_value_t *list, uint32_t mode, uint32_t exact, const char *names,
                                             int32_t integer)
{
    return kestal_multiple_set_value_string(list, mode, exact, names, integer_text(integer).text);
}

kestal_value_node_t *kestal_get_value_node_by_name(const kestal_value_t *list, uint32_t exact, const char *name)
{
    return search_list(list, with_name(exact, name));
}

kestal_value_node_t *kestal_get_value_node_by_data(const kestal_value_t *list, const void *data, uint64_t size)
{
    return search_list(list, with_data(data, size));
}

kestal_value_node_t *kestal_get_value_node_by_string(const kestal_value_t *list, const char *string)
{
    return search_list(list, with_text(string));
}

kestal_value_node_t *kestal_get_value_node(const kestal_value_t *list, uint32_t exact, const char *name,
                                           const void *data, uint64_t size)
{
    return search_list(list, both(with_name(exact, name), with_data(data, size)));
}

void *kestal_get_value_by_name(const kestal_value_t *list, uint32_t exact, const char *name, uint64_t *size)
{
    const kestal_value_node_t *node = kestal_get_value_node_by_name(list, exact, name);
    if (size != nullptr)
        *size = node == nullptr ? 0 : node->m_size;
    return node == nullptr ? nullptr : node->m_data;
}

const char *kestal_get_value_string_ex(const kestal_value_t *list, uint32_t exact, const char *name,
                                       const char *default_string)
{
    if (!is_valid(list))
        return nullptr;
    uint64_t size = 0;
    const void *data = kestal_get_value_by_name(list, exact, name, &size);
    if (data == nullptr || memrchr(data, '\0', static_cast<size_t>(size)) == nullptr)
        return default_string;
    return static_cast<const char *>(data);
}

const char *kestal_get_value_string(const kestal_value_t *list, uint32_t exact, const char *name)
{
    return kestal_get_value_string_ex(list, exact, name, nullptr);
}

int32_t kestal_remove_value_by_name(kestal_value_t *list, uint32_t exact, const char *name)
{
    return remove_all(list, with_name(exact, name));
}

int32_t kestal_remove_value_by_data(kestal_value_t *list, const void *data, uint64_t size)
{
    return remove_all(list, with_data(data, size));
}

int32_t kestal_remove_value_by_string(kestal_value_t *list, const char *string)
{
    return remove_all(list, with_text(string));
}

int32_t kestal_remove_value(kestal_value_t *list, uint32_t exact, const char *name, const void *data, uint64_t size)
{
    return remove_all(list, both(with_name(exact, name), with_data(data, size)));
}

int32_t kestal_multiple_remove_value_by_name(kestal_value_t *list, uint32_t exact, const char *names)
{
    return remove_all(list, with_alternative(exact, names));
}

int32_t kestal_multiple_remove_value(kestal_value_t *list, uint32_t exact, const char *names, const void *data,
                                     uint64_t size)
{
    return remove_all(list, both(with_alternative(exact, names), with_data(data, size)));
}

kestal_value_node_t *kestal_search_value_node_by_name(const kestal_value_node_t *start, uint32_t exact,
                                                      const char *name)
{
    return search(start, with_name(exact, name));
}

kestal_value_node_t *kestal_search_value_node_by_data(const kestal_value_node_t *start, const void *data, uint64_t size)
{
    return search(start, with_data(data, size));
}

kestal_value_node_t *kestal_search_value_node_by_string(const kestal_value_node_t *start, const char *string)
{
    return search(start, with_text(string));
}

kestal_value_node_t *kestal_search_value_node(const kestal_value_node_t *start, uint32_t exact, const char *name,
                                              const void *data, uint64_t size)
{
    return search(start, both(with_name(exact, name), with_data(data, size)));
}

kestal_value_node_t *kestal_multiple_search_value_node_by_name(const kestal_value_node_t *start, uint32_t exact,
                                                               const char *names)
{
    return search(start, with_alternative(exact, names));
}

kestal_value_node_t *kestal_multiple_search_value_node(const kestal_value_node_t *start, uint32_t exact,
                                                       const char *names, const void *data, uint64_t size)
{
    return search(start, both(with_alternative(exact, names), with_data(data, size)));
}

kestal_value_node_t *kestal_new_value_node(const char *name, const void *data, uint64_t size)
{
    return new_node(name_of(name), data, size);
}

kestal_value_node_t *kestal_free_value_node(kestal_value_node_t *node)
{
    while (node != nullptr && node->m_previous != nullptr)
        node = node->m_previous;
    while (node != nullptr) {
        kestal_value_node_t *next = node->m_next;
        kestal_check_free(node->m_data);
        kestal_free(node);
        node = next;
    }
    return nullptr;
}

int32_t kestal_compare_data(const void *a, uint64_t a_size, const void *b, uint64_t b_size)
{
    if (a_size != b_size)
        return -1;
    if (a == b || a_size == 0)
        return 0;
    if (a != nullptr && b != nullptr)
        return memcmp(a, b, static_cast<size_t>(a_size)) == 0 ? 0 : -1;
    const char *bytes = static_cast<const char *>(a != nullptr ? a : b);
    return std::all_of(bytes, bytes + a_size, [](char byte) { return byte == 0; }) ? 0 : -1;
}
