#include "support.hpp"

#include <map>
#include <random>

using kestal_test::counted;

namespace {

class hash : public counted {};

// The keys from head to tail. Checks every link.
std::vector<uint32_t> keys_in_order(const kestal_hash_t *table)
{
    std::vector<uint32_t> keys;
    const kestal_hash_node_t *before = nullptr;
    for (const kestal_hash_node_t *node = table->m_head; node != nullptr; before = node, node = node->m_next) {
        EXPECT_EQ(node->m_previous, before);
        keys.push_back(node->m_key);
    }
    EXPECT_EQ(table->m_tail, before);
    EXPECT_EQ(kestal_get_hash_node_count(table), keys.size());
    return keys;
}

TEST_F(hash, the_index_is_the_key_modulo_the_bucket_count)
{
    std::mt19937 random(1);
    for (const uint64_t count : {0u, 2u, 3u, 1000u, 65537u, 1000003u}) {
        kestal_hash_t *table = kestal_open_hash(count, nullptr);
        for (const uint32_t edge : {0u, 65536u, 0x80000000u, static_cast<uint32_t>(random())})
            for (uint32_t key = edge - 200; key != edge + 200; ++key)
                ASSERT_EQ(kestal_hash_index(table, key), key % std::max<uint64_t>(count, 1)) << key << " in " << count;
        EXPECT_EQ(kestal_close_hash(table), nullptr);
    }
    EXPECT_EQ(kestal_open_hash(UINT64_MAX / 8, nullptr), nullptr);
}

TEST_F(hash, nodes_stand_in_the_order_asked_for_and_take_their_data_along)
{
    static std::vector<const void *> destroyed;
    destroyed.clear();
    int one, two;
    kestal_hash_t *table = kestal_open_hash(4, [](void *data) -> void * { return destroyed.push_back(data), nullptr; });
    kestal_create_hash_node_to_tail(table, 20, &two);
    kestal_hash_node_t *first = kestal_create_hash_node_to_head(table, 10, &one);
    kestal_create_hash_node_to_tail(table, 30, nullptr);
    const kestal_hash_node_t *equal = kestal_create_hash_node_sort_insert(table, 20, nullptr, nullptr);
    kestal_create_hash_node_sort_insert(table, 0xffffffff, nullptr, nullptr); // keys are unsigned
    kestal_create_hash_node_sort_insert(table, 25, nullptr, [](const void *, const void *) { return -1; });
    EXPECT_EQ(keys_in_order(table), (std::vector<uint32_t>{25, 10, 20, 20, 30, 0xffffffff}));
    EXPECT_EQ(equal->m_next->m_key, 30u);

    EXPECT_EQ(kestal_sub_hash_node(table, first), first);
    EXPECT_EQ(kestal_del_hash_node(table, first), -1); // out of the table already
    EXPECT_EQ(kestal_free_hash_node(table, first), 0);
    EXPECT_TRUE(keys_in_order(kestal_clear_hash(table)).empty());
    EXPECT_EQ(destroyed, (std::vector<const void *>{&one, nullptr, &two, nullptr, nullptr, nullptr}));
    kestal_close_hash(table);
}

TEST_F(hash, look_ups_match_a_model)
{
    kestal_hash_t *table = kestal_open_hash(97, nullptr);
    std::map<uint32_t, std::vector<kestal_hash_node_t *>> model; // the newest last
    std::mt19937 random(3);
    for (int step = 0; step < 20000; ++step) {
        const uint32_t key = static_cast<uint32_t>(random() % 500);
        auto &nodes = model[key];
        if (random() % 2 == 0) {
            const auto create = random() % 2 == 0 ? kestal_create_hash_node_to_tail : kestal_create_hash_node_to_head;
            const kestal_test::failing_allocation failing(random() % 8 == 0 ? 1 : 0); // 0: none fails
            kestal_hash_node_t *node = create(table, key, nullptr);
            ASSERT_EQ(node == nullptr, failing.happened());
            if (node != nullptr)
                nodes.push_back(node);
        } else if (!nodes.empty()) {
            const auto leaving = nodes.begin() + static_cast<long>(random() % nodes.size());
            EXPECT_EQ(kestal_del_hash_node(table, *leaving), 0);
            nodes.erase(leaving);
        }
        kestal_hash_node_t *found = nullptr;
        for (auto node = nodes.rbegin(); node != nodes.rend(); ++node)
            ASSERT_EQ(found = kestal_search_hash_node(table, found, key), *node);
        ASSERT_EQ(kestal_search_hash_node(table, found, key), nullptr);
    }
    keys_in_order(table);
    kestal_close_hash(table);
}

TEST_F(hash, nulls_and_wrong_counts)
{
    kestal_hash_t *table = kestal_open_hash(3, nullptr);
    EXPECT_EQ(kestal_clear_hash(kestal_close_hash(nullptr)), nullptr);
    EXPECT_EQ(kestal_create_hash_node_to_head(nullptr, 1, nullptr), kestal_add_hash_node_to_tail(table, nullptr));
    EXPECT_EQ(kestal_search_hash_node(nullptr, nullptr, 1), nullptr);
    EXPECT_EQ(kestal_free_hash_node(table, kestal_new_hash_node()) + kestal_free_hash_node(table, nullptr), -1);
    const kestal_test::caught_assertions reports;
    ++table->m_node_count;
    kestal_close_hash(table);
    EXPECT_EQ(reports.messages(), std::vector<std::string>{"s_hash->m_node_count == ((size_t)0u)"});
}

} // namespace
