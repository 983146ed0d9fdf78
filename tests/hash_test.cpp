#include "support.hpp"

#include <random>
#include <unordered_map>

using kestal_test::counted;
using kestal_test::with_each_allocation_failing;

namespace
{

class hash : public counted
{
};

std::vector<uint32_t> keys_in_order(const kestal_hash_t *table)
{
    std::vector<uint32_t> keys;
    const kestal_hash_node_t *before = nullptr;
    for (const kestal_hash_node_t *node = table->m_head; node != nullptr; node = node->m_next) {
        EXPECT_EQ(node->m_previous, before);
        keys.push_back(node->m_key);
        before = node;
    }
    EXPECT_EQ(table->m_tail, before);
    EXPECT_EQ(kestal_get_hash_node_count(table), keys.size());
    return keys;
}

TEST_F(hash, the_index_is_the_key_modulo_the_bucket_count)
{
    const uint32_t keys[] = {0, 1, 2, 99, 100, 65535, 65536, 0x7fffffff, 0x80000000, 0xfffffffe, 0xffffffff};
    for (const uint64_t count : {0u, 1u, 2u, 3u, 7u, 32u, 1000u, 65537u, 1000003u}) {
        kestal_hash_t *table = kestal_open_hash(count, nullptr);
        ASSERT_EQ(table->m_bucket_count, count == 0 ? 1 : count);
        std::mt19937 random(1);
        for (int i = 0; i < 2000; ++i) {
            const uint32_t key = i < 11 ? keys[i] : static_cast<uint32_t>(random());
            ASSERT_EQ(kestal_hash_index(table, key), key % table->m_bucket_count) << key << " in " << count;
        }
        EXPECT_EQ(kestal_close_hash(table), nullptr);
    }
    EXPECT_EQ(kestal_hash_index(nullptr, 5), 0u);
    EXPECT_EQ(kestal_open_hash(UINT64_MAX / 8, nullptr), nullptr);
}

TEST_F(hash, nodes_stand_in_the_order_asked_for)
{
    kestal_hash_t *table = kestal_open_hash(4, nullptr);
    kestal_create_hash_node_to_tail(table, 20, nullptr);
    kestal_create_hash_node_to_head(table, 10, nullptr);
    kestal_create_hash_node_to_tail(table, 30, nullptr);
    EXPECT_EQ(keys_in_order(table), (std::vector<uint32_t>{10, 20, 30}));
    char marker;
    kestal_hash_node_t *equal = kestal_create_hash_node_sort_insert(table, 20, &marker, nullptr);
    kestal_create_hash_node_sort_insert(table, 0xffffffff, nullptr, nullptr); // keys are unsigned
    kestal_create_hash_node_sort_insert(table, 5, nullptr, nullptr);
    EXPECT_EQ(keys_in_order(table), (std::vector<uint32_t>{5, 10, 20, 20, 30, 0xffffffff}));
    EXPECT_EQ(equal->m_previous->m_key, 20u);
    EXPECT_EQ(equal->m_previous->m_data, nullptr);
    kestal_create_hash_node_sort_insert(table, 25, nullptr, [](const void *, const void *) { return -1; });
    EXPECT_EQ(keys_in_order(table).front(), 25u);
    EXPECT_EQ(kestal_clear_hash(table), table);
    EXPECT_EQ(keys_in_order(table), std::vector<uint32_t>{});
    kestal_close_hash(table);
}

TEST_F(hash, equal_keys_are_found_newest_first)
{
    kestal_hash_t *table = kestal_open_hash(1, nullptr);
    kestal_hash_node_t *oldest = kestal_create_hash_node_to_tail(table, 7, nullptr);
    kestal_hash_node_t *middle = kestal_create_hash_node_to_head(table, 7, nullptr);
    kestal_create_hash_node_to_tail(table, 8, nullptr);
    kestal_hash_node_t *newest = kestal_create_hash_node_to_tail(table, 7, nullptr);
    EXPECT_EQ(kestal_search_hash_node(table, nullptr, 7), newest);
    EXPECT_EQ(kestal_search_hash_node(table, newest, 7), middle);
    EXPECT_EQ(kestal_search_hash_node(table, middle, 7), oldest);
    EXPECT_EQ(kestal_search_hash_node(table, oldest, 7), nullptr);
    EXPECT_EQ(kestal_search_hash_node(table, nullptr, 9), nullptr);
    EXPECT_EQ(kestal_del_hash_node(table, middle), 0);
    EXPECT_EQ(kestal_search_hash_node(table, newest, 7), oldest);
    kestal_close_hash(table);
}

int destroyed = 0;

void *destroy(void *data)
{
    destroyed += *static_cast<int *>(data);
    return nullptr;
}

TEST_F(hash, data_goes_with_its_node)
{
    int one = 1, ten = 10, hundred = 100;
    destroyed = 0;
    kestal_hash_t *table = kestal_open_hash(3, destroy);
    kestal_hash_node_t *first = kestal_create_hash_node_to_tail(table, 1, &one);
    kestal_create_hash_node_to_tail(table, 2, &ten);
    kestal_create_hash_node_to_tail(table, 3, &hundred);
    EXPECT_EQ(kestal_sub_hash_node(table, first), first);
    EXPECT_EQ(kestal_search_hash_node(table, nullptr, 1), nullptr);
    EXPECT_EQ(kestal_sub_hash_node(table, first), nullptr); // out of the table already
    EXPECT_EQ(kestal_del_hash_node(table, first), -1);
    EXPECT_EQ(kestal_get_hash_node_count(table), 2u);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(kestal_free_hash_node(table, first), 0);
    EXPECT_EQ(destroyed, 1);
    kestal_close_hash(table);
    EXPECT_EQ(destroyed, 111);
}

TEST_F(hash, a_wrong_count_is_reported)
{
    kestal_hash_t *table = kestal_open_hash(3, nullptr);
    ++table->m_node_count;
    const kestal_test::caught_assertions reports;
    EXPECT_EQ(kestal_clear_hash(table), table);
    EXPECT_EQ(reports.messages(), std::vector<std::string>{"s_hash->m_node_count == ((size_t)0u)"});
    kestal_close_hash(table);
}

TEST_F(hash, nulls_are_failures)
{
    kestal_hash_t *table = kestal_open_hash(3, nullptr);
    kestal_hash_node_t *node = kestal_new_hash_node();
    EXPECT_EQ(kestal_close_hash(nullptr), nullptr);
    EXPECT_EQ(kestal_clear_hash(nullptr), nullptr);
    EXPECT_EQ(kestal_get_hash_node_count(nullptr), 0u);
    EXPECT_EQ(kestal_create_hash_node(nullptr, 1, nullptr), nullptr);
    EXPECT_EQ(kestal_add_hash_node_to_head(nullptr, node), nullptr);
    EXPECT_EQ(kestal_add_hash_node_to_tail(table, nullptr), nullptr);
    EXPECT_EQ(kestal_add_hash_node_sort_insert(table, nullptr, nullptr), nullptr);
    EXPECT_EQ(kestal_sub_hash_node(table, nullptr), nullptr);
    EXPECT_EQ(kestal_search_hash_node(nullptr, nullptr, 1), nullptr);
    EXPECT_EQ(kestal_free_hash_node(table, nullptr), -1);
    EXPECT_EQ(kestal_free_hash_node(table, node), 0);
    kestal_close_hash(table);
}

TEST_F(hash, many_keys_match_a_model)
{
    kestal_hash_t *table = kestal_open_hash(97, nullptr);
    std::unordered_multimap<uint32_t, kestal_hash_node_t *> model;
    std::mt19937 random(3);
    for (int step = 0; step < 20000; ++step) {
        const uint32_t key = static_cast<uint32_t>(random() % 500);
        if (random() % 2 == 0) {
            model.emplace(key, kestal_create_hash_node_to_tail(table, key, nullptr));
        } else if (const auto found = model.find(key); found != model.end()) {
            EXPECT_EQ(kestal_del_hash_node(table, found->second), 0);
            model.erase(found);
        }
        size_t nodes = 0;
        for (auto *node = kestal_search_hash_node(table, nullptr, key); node != nullptr;
             node = kestal_search_hash_node(table, node, key))
            ++nodes;
        ASSERT_EQ(nodes, model.count(key));
    }
    EXPECT_EQ(keys_in_order(table).size(), model.size());
    kestal_close_hash(table);
}

TEST_F(hash, failing_allocations)
{
    EXPECT_EQ(with_each_allocation_failing([] {
                  kestal_hash_t *table = kestal_open_hash(8, nullptr);
                  kestal_create_hash_node_to_head(table, 1, nullptr);
                  kestal_create_hash_node_to_tail(table, 1, nullptr);
                  kestal_create_hash_node_sort_insert(table, 1, nullptr, nullptr);
                  kestal_close_hash(table);
              }),
              4u);
}

} // namespace
