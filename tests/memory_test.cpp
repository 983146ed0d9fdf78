#include "support.hpp"

#include <cstring>
#include <thread>

using kestal_test::counted;
using kestal_test::failing_allocation;

namespace {

class memory : public counted {};

uint64_t live()
{
    return kestal_get_alloc_count();
}

TEST_F(memory, counts_live_blocks)
{
    const uint64_t start = live();
    void *blocks[3] = {kestal_alloc(1), kestal_alloc(0), kestal_calloc(3, 5)};
    EXPECT_EQ(live(), start + 3);
    EXPECT_EQ(std::memcmp(blocks[2], "\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 15), 0);
    EXPECT_GE(__kestal_malloc_usable_size(blocks[2]), 15u);
    EXPECT_EQ(kestal_free(blocks[0]), nullptr);

    uint64_t count = 0, size = 1, peak = 1;
    EXPECT_EQ(kestal_get_alloc_info(&count, &size, &peak), 0);
    EXPECT_EQ(count, start + 2);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(peak, 0u);
    EXPECT_EQ(kestal_get_alloc_info(nullptr, nullptr, nullptr), 0);

    blocks[1] = kestal_realloc(blocks[1], 100);
    EXPECT_EQ(live(), start + 2);
    EXPECT_EQ(kestal_realloc(blocks[1], 0), nullptr);
    EXPECT_EQ(kestal_heap_notag(blocks[2], 0), nullptr);
    EXPECT_EQ(live(), start);
    blocks[0] = kestal_realloc(nullptr, 8);
    EXPECT_EQ(live(), start + 1);
    kestal_free(blocks[0]);
}

TEST_F(memory, failures_give_null_and_a_failing_resize_counts_down)
{
    const uint64_t start = live();
    EXPECT_EQ(kestal_alloc(UINT64_MAX), nullptr);
    char *block = static_cast<char *>(kestal_alloc(4));
    std::memcpy(block, "abc", 4);
    EXPECT_EQ(kestal_realloc(block, UINT64_MAX), nullptr);
    EXPECT_EQ(live(), start);
    EXPECT_STREQ(block, "abc");
    char *again = static_cast<char *>(kestal_alloc(1));
    kestal_free(block);
    EXPECT_EQ(live(), start);
    std::free(again); // counted down already, in the block's place

    const failing_allocation failing(1);
    EXPECT_EQ(kestal_strdup("x"), nullptr);
    EXPECT_TRUE(failing.happened());
}

TEST_F(memory, null_frees_are_reported_unless_expected)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(kestal_free_tag(nullptr, "f", 7), nullptr);
    EXPECT_EQ(kestal_free_tag(nullptr, nullptr, 8), nullptr);
    EXPECT_EQ(kestal_free_tag(nullptr, "operator delete", 0), nullptr);
    EXPECT_EQ(kestal_check_free(nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "null pointer free ? (at \"f\":7)\nnull pointer free ? (at \"\":8)\n");
}

TEST_F(memory, texts_are_duplicated)
{
    char *text = kestal_strdup(nullptr);
    EXPECT_STREQ(text, "");
    text = kestal_realloc_strdup(text, "hello");
    EXPECT_STREQ(text, "hello");
    text = kestal_realloc_strdup(text, text + 1); // the source may lie inside the old block
    EXPECT_STREQ(text, "ello");
    text = kestal_realloc_strndup(text, "abcdef", 3);
    EXPECT_STREQ(text, "abc");
    text = kestal_realloc_strndup(text, "abcdef", UINT64_MAX);
    EXPECT_STREQ(text, "abcdef");

    const failing_allocation failing(1);
    EXPECT_EQ(kestal_realloc_strdup(text, "lost"), nullptr); // the old block is gone all the same
}

TEST_F(memory, counts_stay_exact_across_threads)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 20000; ++i)
                kestal_free(kestal_alloc(16));
        });
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
