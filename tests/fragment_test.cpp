#include "support.hpp"

#include <random>
#include <set>

using kestal_test::failing_allocation;

namespace {

constexpr uint64_t none = KESTAL_FRAGMENT_NONE;

class fragment : public kestal_test::counted {};

TEST_F(fragment, the_ends_of_the_range_of_ids)
{
    kestal_fragment_t *ids = kestal_open_fragment();
    EXPECT_EQ(kestal_fragment_alloc_at(ids, none - 1, 2), -1);
    EXPECT_EQ(kestal_fragment_alloc_at(ids, none - 1, 1), 0);
    EXPECT_EQ(kestal_fragment_alloc_range(ids, none), none);
    EXPECT_EQ(kestal_fragment_alloc_range(ids, none - 1), 0u);
    EXPECT_EQ(kestal_fragment_alloc(ids), none);
    EXPECT_EQ(kestal_fragment_count(ids), none);
    EXPECT_EQ(kestal_fragment_is_used(ids, none - 1) - kestal_fragment_is_used(ids, none), 1);
    EXPECT_EQ(kestal_fragment_free_range(ids, 1, none) + kestal_fragment_free_range(ids, 0, 0), -2);
    EXPECT_EQ(kestal_fragment_free(nullptr, 0) + kestal_uninit_fragment(nullptr), -2);
    EXPECT_EQ(kestal_fragment_alloc(nullptr), kestal_fragment_next(nullptr, 0));
    EXPECT_EQ(kestal_close_fragment(ids), nullptr);
}

TEST_F(fragment, random_operations_match_a_model)
{
    kestal_fragment_t *ids = kestal_open_fragment();
    std::mt19937 random(11);
    std::set<uint64_t> model;
    uint64_t extent = 0; // the highest end ever
    for (int step = 0; step < 20000 && !HasFailure(); ++step) {
        uint64_t first = random() % 300;
        const uint64_t count = 1 + random() % 4, action = random() % 4;
        const auto used = std::distance(model.lower_bound(first), model.lower_bound(first + count));
        const failing_allocation failing(random() % 2); // 0: none fails
        bool taken = false;
        if (action == 0) {
            first = 0;
            for (auto id = model.begin(); id != model.end() && *id - first < count; ++id)
                first = *id + 1;
            const uint64_t given = kestal_fragment_alloc_range(ids, count);
            taken = given != none;
            EXPECT_EQ(given, failing.happened() ? none : first);
        } else if (action == 1) {
            taken = kestal_fragment_alloc_at(ids, first, count) == 0;
            EXPECT_EQ(taken, used == 0 && !failing.happened());
        } else if (kestal_fragment_free_range(ids, first, count) == 0) {
            EXPECT_EQ(static_cast<uint64_t>(used), count);
            model.erase(model.lower_bound(first), model.lower_bound(first + count));
        } else {
            EXPECT_TRUE(static_cast<uint64_t>(used) < count || failing.happened());
        }
        for (uint64_t id = first; taken && id < first + count; ++id)
            model.insert(id);
        extent = std::max(extent, taken ? first + count : 0);
        EXPECT_EQ(kestal_fragment_count(ids), model.size());
        EXPECT_EQ(kestal_fragment_extent(ids), extent);
        const auto next = model.lower_bound(first);
        EXPECT_EQ(kestal_fragment_next(ids, first), next == model.end() ? none : *next);
    }
    EXPECT_EQ(kestal_close_fragment(ids), nullptr);
}

TEST_F(fragment, whole_portions_go_back_without_memory_and_parts_may_not)
{
    kestal_fragment_t *ids = kestal_open_fragment();
    for (int i = 0; i < 1000; ++i)
        kestal_fragment_alloc_range(ids, 3);
    kestal_fragment_t one_portion;
    kestal_fragment_alloc_range(kestal_init_fragment(&one_portion), 100);
    const failing_allocation failing(1);
    for (uint64_t id = 0; id < 3000; id += 6)
        EXPECT_EQ(kestal_fragment_free_range(ids, id, 3), 0);
    EXPECT_FALSE(failing.happened());
    for (uint64_t id = 2; id < 50; id += 2) {
        const bool freed = kestal_fragment_free(&one_portion, id) == 0;
        EXPECT_NE(kestal_fragment_is_used(&one_portion, id) == 1, freed);
    }
    EXPECT_TRUE(failing.happened());
    EXPECT_EQ(kestal_uninit_fragment(&one_portion), 0);
    EXPECT_EQ(kestal_close_fragment(ids), nullptr);
}

} // namespace
