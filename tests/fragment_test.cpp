#include "support.hpp"

#include <random>
#include <set>

using kestal_test::counted;
using kestal_test::failing_allocation;

namespace {

constexpr uint64_t none = KESTAL_FRAGMENT_NONE;

class fragment : public counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        EXPECT_EQ(kestal_init_fragment(&ids_), &ids_);
    }
    void TearDown() override
    {
        EXPECT_EQ(kestal_uninit_fragment(&ids_), 0);
        counted::TearDown();
    }
    kestal_fragment_t ids_;
};

TEST_F(fragment, ranges_take_the_lowest_gap_that_holds_them)
{
    EXPECT_EQ(kestal_fragment_alloc_at(&ids_, 3, 2), 0);
    EXPECT_EQ(kestal_fragment_alloc_at(&ids_, 10, 1), 0);
    for (const auto &[count, first] : {std::pair<uint64_t, uint64_t>(4, 5), {4, 11}, {3, 0}, {1, 9}})
        EXPECT_EQ(kestal_fragment_alloc_range(&ids_, count), first);
    EXPECT_EQ(kestal_fragment_free_range(&ids_, 0, 15), 0);
    EXPECT_EQ(kestal_fragment_count(&ids_), 0u);
    EXPECT_EQ(kestal_fragment_extent(&ids_), 15u); // the highest ever
}

TEST_F(fragment, the_ends_of_the_range_of_ids)
{
    EXPECT_EQ(kestal_fragment_alloc_at(&ids_, none - 1, 2), -1);
    EXPECT_EQ(kestal_fragment_alloc_at(&ids_, none - 1, 1), 0);
    EXPECT_EQ(kestal_fragment_alloc_range(&ids_, none), none);
    EXPECT_EQ(kestal_fragment_alloc_range(&ids_, none - 1), 0u);
    EXPECT_EQ(kestal_fragment_alloc(&ids_), none);
    EXPECT_EQ(kestal_fragment_count(&ids_), none);
    EXPECT_EQ(kestal_fragment_extent(&ids_), none);
    EXPECT_EQ(kestal_fragment_is_used(&ids_, none), 0);
    EXPECT_EQ(kestal_fragment_is_used(&ids_, none - 1), 1);
    EXPECT_EQ(kestal_fragment_free_range(&ids_, 1, none) + kestal_fragment_free_range(&ids_, 0, 0), -2);
    EXPECT_EQ(kestal_fragment_free(nullptr, 0) + kestal_uninit_fragment(nullptr), -2);
    EXPECT_EQ(kestal_fragment_alloc(nullptr), none);
    EXPECT_EQ(kestal_fragment_next(nullptr, 0), none);
}

TEST_F(fragment, random_operations_match_a_model)
{
    std::mt19937 random(11);
    std::set<uint64_t> model;
    for (int step = 0; step < 20000; ++step) {
        const uint64_t first = random() % 300, count = 1 + random() % 4;
        const auto begin = model.lower_bound(first), end = model.lower_bound(first + count);
        const auto used = static_cast<uint64_t>(std::distance(begin, end)), action = uint64_t{random() % 4};
        if (action == 0) {
            uint64_t smallest = 0;
            while (!model.insert(smallest).second)
                ++smallest;
            ASSERT_EQ(kestal_fragment_alloc(&ids_), smallest);
        } else if (action == 1) {
            ASSERT_EQ(kestal_fragment_alloc_at(&ids_, first, count), used == 0 ? 0 : -1);
            for (uint64_t id = first; used == 0 && id < first + count; ++id)
                model.insert(id);
        } else {
            ASSERT_EQ(kestal_fragment_free_range(&ids_, first, count), used == count ? 0 : -1);
            if (used == count)
                model.erase(begin, end);
        }
        ASSERT_EQ(kestal_fragment_count(&ids_), model.size());
        const auto next = model.lower_bound(first);
        ASSERT_EQ(kestal_fragment_next(&ids_, first), next == model.end() ? none : *next);
    }
}

TEST_F(fragment, short_memory)
{
    for (int i = 0; i < 1000; ++i)
        kestal_fragment_alloc_range(&ids_, 3);
    {
        const failing_allocation failing(1); // whole portions go back without memory
        for (uint64_t id = 0; id < 3000; id += 6)
            EXPECT_EQ(kestal_fragment_free_range(&ids_, id, 3), 0);
        EXPECT_FALSE(failing.happened());
    }
    const auto scenario = [] {
        kestal_fragment_t *ids = kestal_open_fragment();
        const bool taken = kestal_fragment_alloc_range(ids, 100) == 0;
        for (uint64_t id = 2; taken && id < 50; id += 2) {
            const bool freed = kestal_fragment_free(ids, id) == 0;
            EXPECT_NE(kestal_fragment_is_used(ids, id) == 1, freed);
        }
        EXPECT_EQ(kestal_close_fragment(ids), nullptr);
    };
    EXPECT_GT(kestal_test::with_each_allocation_failing(scenario), 2u);
}

} // namespace
