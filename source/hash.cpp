#include <kestal_ulx/hash.h>

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/memory.h>

#include "list.hpp"

#include <string.h>

namespace
{

using kestal::doubly_linked_list;

// 2^64 / count, rounded up; 0 for a count of 1.
uint64_t reciprocal(uint64_t bucket_count)
{
    return UINT64_MAX / bucket_count + 1;
}

uint64_t bucket_of(const kestal_hash_t &table, uint32_t key)
{
    if (table.m_bucket_count > UINT32_MAX)
        return key;
#if defined(__SIZEOF_INT128__)
    // The remainder by two multiplications instead of a division: exact for 32-bit keys and counts (Lemire, Kaser,
    // Kurz: "Faster remainder by direct computation", 2019).
    __extension__ typedef unsigned __int128 wide;
    const uint64_t fraction = table.m_reciprocal * key;
    return static_cast<uint64_t>(wide{fraction} * table.m_bucket_count >> 64);
#else
    return key % static_cast<uint32_t>(table.m_bucket_count);
#endif
}

doubly_linked_list ordered_list(kestal_hash_t &table)
{
    return {&table.m_head, &table.m_tail, KESTAL_LINKS(kestal_hash_node_t, m_previous, m_next)};
}

doubly_linked_list bucket_list(kestal_hash_t &table, uint32_t key)
{
    return {&table.m_buckets[bucket_of(table, key)], nullptr,
            KESTAL_LINKS(kestal_hash_node_t, m_bucket_previous, m_bucket_next)};
}

// Never positive: sort insertion looks for a negative answer only.
int32_t compare_keys(const void *a, const void *b)
{
    const uint32_t first = static_cast<const kestal_hash_node_t *>(a)->m_key;
    const uint32_t second = static_cast<const kestal_hash_node_t *>(b)->m_key;
    return first < second ? -1 : 0;
}

kestal_hash_node_t *add_to_bucket(kestal_hash_t &table, kestal_hash_node_t *node)
{
    bucket_list(table, node->m_key).prepend(node);
    ++table.m_node_count;
    return node;
}

bool is_linked(const kestal_hash_t &table, const kestal_hash_node_t *node)
{
    return node->m_previous != nullptr || table.m_head == node;
}

} // namespace

kestal_hash_t *kestal_open_hash(uint64_t bucket_count, kestal_hash_data_destructor_t destructor)
{
    if (bucket_count == 0)
        bucket_count = 1;
    if (bucket_count > (SIZE_MAX - sizeof(kestal_hash_t)) / sizeof(kestal_hash_node_t *))
        return nullptr;
    const uint64_t size = sizeof(kestal_hash_t) + bucket_count * sizeof(kestal_hash_node_t *);
    kestal_hash_t *table = static_cast<kestal_hash_t *>(kestal_calloc(1, size));
    if (table == nullptr)
        return nullptr;
    table->m_bucket_count = bucket_count;
    table->m_data_destructor = destructor;
    table->m_buckets = reinterpret_cast<kestal_hash_node_t **>(table + 1);
    table->m_reciprocal = reciprocal(bucket_count);
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
    return static_cast<kestal_hash_node_t *>(kestal_calloc(1, sizeof(kestal_hash_node_t)));
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
    kestal_hash_node_t *node = table == nullptr ? nullptr : kestal_new_hash_node();
    if (node == nullptr)
        return nullptr;
    node->m_key = key;
    node->m_data = data;
    return node;
}

kestal_hash_node_t *kestal_add_hash_node_to_head(kestal_hash_t *table, kestal_hash_node_t *node)
{
    if (table == nullptr || node == nullptr)
        return nullptr;
    ordered_list(*table).prepend(node);
    return add_to_bucket(*table, node);
}

kestal_hash_node_t *kestal_add_hash_node_to_tail(kestal_hash_t *table, kestal_hash_node_t *node)
{
    if (table == nullptr || node == nullptr)
        return nullptr;
    ordered_list(*table).append(node);
    return add_to_bucket(*table, node);
}

kestal_hash_node_t *kestal_add_hash_node_sort_insert(kestal_hash_t *table, kestal_hash_node_t *node,
                                                     kestal_list_compare_t compare)
{
    if (table == nullptr || node == nullptr)
        return nullptr;
    ordered_list(*table).sort_insert(node, compare == nullptr ? compare_keys : compare);
    return add_to_bucket(*table, node);
}

kestal_hash_node_t *kestal_create_hash_node_to_head(kestal_hash_t *table, uint32_t key, void *data)
{
    return kestal_add_hash_node_to_head(table, kestal_create_hash_node(table, key, data));
}

kestal_hash_node_t *kestal_create_hash_node_to_tail(kestal_hash_t *table, uint32_t key, void *data)
{
    return kestal_add_hash_node_to_tail(table, kestal_create_hash_node(table, key, data));
}

kestal_hash_node_t *kestal_create_hash_node_sort_insert(kestal_hash_t *table, uint32_t key, void *data,
                                                        kestal_list_compare_t compare)
{
    return kestal_add_hash_node_sort_insert(table, kestal_create_hash_node(table, key, data), compare);
}

kestal_hash_node_t *kestal_sub_hash_node(kestal_hash_t *table, kestal_hash_node_t *node)
{
    if (table == nullptr || node == nullptr || !is_linked(*table, node))
        return nullptr;
    ordered_list(*table).remove(node);
    bucket_list(*table, node->m_key).remove(node);
    --table->m_node_count;
    return node;
}

int32_t kestal_del_hash_node(kestal_hash_t *table, kestal_hash_node_t *node)
{
    return kestal_free_hash_node(table, kestal_sub_hash_node(table, node));
}

kestal_hash_node_t *kestal_search_hash_node(const kestal_hash_t *table, const kestal_hash_node_t *start, uint32_t key)
{
    if (table == nullptr)
        return nullptr;
    kestal_hash_node_t *node = start != nullptr ? start->m_bucket_next : table->m_buckets[bucket_of(*table, key)];
    while (node != nullptr && node->m_key != key)
        node = node->m_bucket_next;
    return node;
}
