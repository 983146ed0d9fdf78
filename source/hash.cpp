#include <kestal_ulx/hash.h>

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/memory.h>

#include "hash.hpp"
#include "list.hpp"

#include <algorithm>

namespace {

using kestal::bucket_guard;
using kestal::bucket_of;
using kestal::doubly_linked_list;
using kestal::guard_of;
using kestal::trace_of;

doubly_linked_list ordered_list(kestal_hash_t &table)
{
    return {&table.m_head, &table.m_tail, KESTAL_LINKS(kestal_hash_node_t, m_previous, m_next)};
}

doubly_linked_list bucket_list(kestal_hash_t &table, uint64_t bucket)
{
    return {&table.m_buckets[bucket], nullptr, KESTAL_LINKS(kestal_hash_node_t, m_bucket_previous, m_bucket_next)};
}

// Never positive: sort insertion looks for a negative answer only.
int32_t compare_keys(const void *a, const void *b)
{
    const uint32_t first = static_cast<const kestal_hash_node_t *>(a)->m_key;
    const uint32_t second = static_cast<const kestal_hash_node_t *>(b)->m_key;
    return first < second ? -1 : 0;
}

kestal_hash_node_t *new_node(uint32_t key, void *data)
{
    void *block = kestal_alloc_tag(sizeof(kestal_hash_node_t), "kestal_new_hash_node", __LINE__);
    kestal_hash_node_t *node = static_cast<kestal_hash_node_t *>(block);
    if (node != nullptr)
        *node = {.m_previous = nullptr,
                 .m_next = nullptr,
                 .m_bucket_previous = nullptr,
                 .m_bucket_next = nullptr,
                 .m_key = key,
                 .m_data = data};
    return node;
}

// Links a node: `link` puts it on the ordered list, wherever it belongs there; in its bucket it comes first.
template <typename Link>
kestal_hash_node_t *add(kestal_hash_t *table, kestal_hash_node_t *node, Link link)
{
    if (table == nullptr || node == nullptr)
        return nullptr;
    link(ordered_list(*table));
    const uint64_t bucket = bucket_of(*table, node->m_key);
    bucket_guard &guard = guard_of(*table, bucket);
    if (table->m_buckets[bucket] != nullptr)
        guard.older_traces |= trace_of(guard.newest_key);
    guard.newest_key = node->m_key;
    bucket_list(*table, bucket).prepend(node);
    ++table->m_node_count;
    return node;
}

kestal_hash_node_t *add_to_head(kestal_hash_t *table, kestal_hash_node_t *node)
{
    return add(table, node, [node](const doubly_linked_list &list) { list.prepend(node); });
}

kestal_hash_node_t *add_to_tail(kestal_hash_t *table, kestal_hash_node_t *node)
{
    return add(table, node, [node](const doubly_linked_list &list) { list.append(node); });
}

kestal_hash_node_t *add_in_order(kestal_hash_t *table, kestal_hash_node_t *node, kestal_list_compare_t compare)
{
    return add(table, node, [=](const doubly_linked_list &list) {
        list.sort_insert(node, compare == nullptr ? compare_keys : compare);
    });
}

void remove_from_bucket(kestal_hash_t &table, kestal_hash_node_t *node)
{
    const uint64_t bucket = bucket_of(table, node->m_key);
    bucket_list(table, bucket).remove(node);
    bucket_guard &guard = guard_of(table, bucket);
    const kestal_hash_node_t *newest = table.m_buckets[bucket];
    if (newest != nullptr)
        guard.newest_key = newest->m_key;
    if (newest == nullptr || newest->m_bucket_next == nullptr)
        guard.older_traces = 0;
}

bool is_linked(const kestal_hash_t &table, const kestal_hash_node_t *node)
{
    return node->m_previous != nullptr || table.m_head == node;
}

} // namespace

kestal_hash_t *kestal_open_hash(uint64_t bucket_count, kestal_hash_data_destructor_t destructor)
{
    constexpr uint64_t bucket_size = sizeof(kestal_hash_node_t *) + sizeof(bucket_guard);
    bucket_count = std::max<uint64_t>(bucket_count, 1);
    if (bucket_count > (SIZE_MAX - sizeof(kestal_hash_t)) / bucket_size)
        return nullptr;
    void *block = kestal_calloc(1, sizeof(kestal_hash_t) + bucket_count * bucket_size);
    kestal_hash_t *table = static_cast<kestal_hash_t *>(block);
    if (table == nullptr)
        return nullptr;
    table->m_bucket_count = bucket_count;
    table->m_data_destructor = destructor;
    table->m_buckets = reinterpret_cast<kestal_hash_node_t **>(table + 1);
    // More buckets than keys can tell apart change no remainder.
    table->m_modulus = std::min(bucket_count, uint64_t{1} << 32);
    table->m_reciprocal = UINT64_MAX / table->m_modulus + 1;
    return table;
}

kestal_hash_t *kestal_close_hash(kestal_hash_t *table)
{
    if (table == nullptr)
        return nullptr;
    kestal_clear_hash(table);
    kestal_free(table);
    return nullptr;
}

kestal_hash_t *kestal_clear_hash(kestal_hash_t *table)
{
    if (table == nullptr)
        return nullptr;
    while (table->m_head != nullptr)
        kestal_del_hash_node(table, table->m_head);
    if (table->m_node_count != 0)
        kestal_assert_fail_tag("./source/hash", __func__, 349, "s_hash->m_node_count == ((size_t)0u)");
    return table;
}

uint64_t kestal_get_hash_node_count(const kestal_hash_t *table)
{
    return table == nullptr ? 0 : table->m_node_count;
}

uint64_t kestal_hash_index(const kestal_hash_t *table, uint32_t key)
{
    return table == nullptr ? 0 : bucket_of(*table, key);
}

kestal_hash_node_t *kestal_new_hash_node(void)
{
    return new_node(0, nullptr);
}

int32_t kestal_free_hash_node(kestal_hash_t *table, kestal_hash_node_t *node)
{
    if (table == nullptr || node == nullptr)
        return -1;
    while (node != nullptr) {
        kestal_hash_node_t *next = node->m_next;
        if (table->m_data_destructor != nullptr)
            node->m_data = table->m_data_destructor(node->m_data);
        kestal_free(node);
        node = next;
    }
    return 0;
}

kestal_hash_node_t *kestal_create_hash_node(kestal_hash_t *table, uint32_t key, void *data)
{
    return table == nullptr ? nullptr : new_node(key, data);
}

kestal_hash_node_t *kestal_add_hash_node_to_head(kestal_hash_t *table, kestal_hash_node_t *node)
{
    return add_to_head(table, node);
}

kestal_hash_node_t *kestal_add_hash_node_to_tail(kestal_hash_t *table, kestal_hash_node_t *node)
{
    return add_to_tail(table, node);
}

kestal_hash_node_t *kestal_add_hash_node_sort_insert(kestal_hash_t *table, kestal_hash_node_t *node,
                                                     kestal_list_compare_t compare)
{
    return add_in_order(table, node, compare);
}

kestal_hash_node_t *kestal_create_hash_node_to_head(kestal_hash_t *table, uint32_t key, void *data)
{
    return table == nullptr ? nullptr : add_to_head(table, new_node(key, data));
}

kestal_hash_node_t *kestal_create_hash_node_to_tail(kestal_hash_t *table, uint32_t key, void *data)
{
    return table == nullptr ? nullptr : add_to_tail(table, new_node(key, data));
}

kestal_hash_node_t *kestal_create_hash_node_sort_insert(kestal_hash_t *table, uint32_t key, void *data,
                                                        kestal_list_compare_t compare)
{
    return table == nullptr ? nullptr : add_in_order(table, new_node(key, data), compare);
}

kestal_hash_node_t *kestal_sub_hash_node(kestal_hash_t *table, kestal_hash_node_t *node)
{
    if (table == nullptr || node == nullptr || !is_linked(*table, node))
        return nullptr;
    ordered_list(*table).remove(node);
    remove_from_bucket(*table, node);
    --table->m_node_count;
    return node;
}

int32_t kestal_del_hash_node(kestal_hash_t *table, kestal_hash_node_t *node)
{
    return kestal_free_hash_node(table, kestal_sub_hash_node(table, node));
}

// So short that it is felt whether it begins with a cache line.
[[gnu::aligned(64)]] kestal_hash_node_t *kestal_search_hash_node(const kestal_hash_t *table,
                                                                 const kestal_hash_node_t *start, uint32_t key)
{
    return table == nullptr ? nullptr : kestal::search(*table, start, key);
}
