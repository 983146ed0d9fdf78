// What everything stands on: short lock, calendar texts, assertion reports, allocation, exception tags and destroy stack.
#include "support.hpp"

#include "exception.hpp"

#include <cstdlib>
#include <cstring>

using kestal_test::caught_assertions;
using kestal_test::failing_allocation;
using kestal_test::on_threads;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using texts = std::vector<std::string>;

namespace {

class ground : public kestal_test::counted {};

TEST_F(ground, a_short_lock_excludes_threads)
{
    kestal_short_lock_t lock = 7;
    EXPECT_EQ(kestal_init_short_lock(&lock), &lock);
    EXPECT_EQ(kestal_try_short_lock(&lock), 1);
    EXPECT_EQ(kestal_try_short_lock(&lock), 0);
    uint64_t sum = 0;
    on_threads(5, [&](size_t thread) {
        if (thread == 0) // the holder
            kestal_short_unlock(&lock);
        for (int i = 0; i < 4000; ++i) {
            kestal_short_lock(&lock);
            ++sum;
            kestal_short_unlock(&lock);
        }
    });
    EXPECT_TRUE(sum == 20000 && lock == 0);
    EXPECT_EQ(kestal_uninit_short_lock(&lock), 0);

    const caught_assertions caught;
    EXPECT_TRUE(kestal_init_short_lock(nullptr) == nullptr && kestal_try_short_lock(nullptr) == 0);
    kestal_short_lock(nullptr);
    kestal_short_unlock(nullptr);
    EXPECT_EQ(caught.messages(), texts{"s_short_lock != ((kestal_short_lock_t *)0)"});
}

TEST_F(ground, calendar_texts)
{
    setenv("TZ", "UTC", 1);
    char buffer[32];
    EXPECT_STREQ(kestal_asctime(buffer, sizeof buffer, 0, 1000000000), "Sun Sep  9 01:46:40 2001");
    EXPECT_STREQ(kestal_asctime(buffer, sizeof buffer, 1, 1000000000), "2001-09-09 01:46:40");
    EXPECT_STREQ(kestal_asctime(buffer, 15, 2, 1000000000), "20010909014640");
    EXPECT_EQ(kestal_asctime(buffer, 14, 2, 0), nullptr);
    EXPECT_EQ(kestal_asctime(buffer, sizeof buffer, 3, 0), nullptr);
    EXPECT_GT(std::string(kestal_asctime(buffer, sizeof buffer, 2, -1)), "20200101000000");
}

TEST_F(ground, assertion_reports_go_to_standard_error_and_carry_on)
{
    const auto report = [](const std::string &file, const std::string &function, const std::string &rest) {
        return "kestal [<r:ASSERT>:<b:" + file + ">:<g:" + function + ">:<w:" + rest + "> N\n";
    };
    CaptureStderr();
    kestal_assert_fail_tag("file.c", "function", 7, "message");
    kestal_assert_fail_tag(nullptr, nullptr, UINT64_MAX, nullptr);
    kestal_assertf_fail_tag("file.c", "function", 7, "%s %.3d", "number", 5);
    kestal_assertf_fail_tag("file.c", "function", 7, "%70000d", 1);
    const std::string shown = kestal_test::colours_named(GetCapturedStderr());
    EXPECT_EQ(kestal_test::numbers_masked(shown, "> "),
              report("file.c", "function", "7>] <<r:message>") +
                  report("UNKNOWN", "UNKNOWN", "18446744073709551615>] <<r:NO_MESSAGE>") +
                  report("file.c", "function", "7>] <<r:number   5>") +
                  report("file.c", "function", "7>] <<r:%70000d>")); // too long to be formatted
}

TEST_F(ground, destroy_stack_undoes_from_the_top)
{
    static std::string seen;
    seen.clear();
    const kestal_destructor_t note = [](void *argument) -> void * {
        seen += argument == nullptr ? "-" : static_cast<const char *>(argument);
        return nullptr;
    };
    char first[] = "first", second[] = "second ";
    kestal_destroy_stack_t *top = kestal_add_destroy_stack(nullptr, note, first);
    top = kestal_add_destroy_stack(top, nullptr, kestal_alloc(8));
    top = kestal_add_destroy_stack(top, note, second);
    {
        const failing_allocation failing(1);
        EXPECT_EQ(kestal_add_destroy_stack(top, note, nullptr), top);
    }
    for (int call = 0; call < 2; ++call)
        EXPECT_EQ(kestal_call_destroy_stack(top), 0);
    EXPECT_EQ(seen, "second first--") << "what a destructor returns is its argument from then on";
    EXPECT_EQ(kestal_free_destroy_stack(top), 0);
}

constexpr auto live = kestal_get_alloc_count;

TEST_F(ground, counts_live_blocks)
{
    const uint64_t start = live();
    void *blocks[3] = {kestal_alloc(1), kestal_alloc(0), kestal_calloc(3, 5)};
    EXPECT_EQ(std::memcmp(blocks[2], "\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 15), 0);
    EXPECT_GE(__kestal_malloc_usable_size(blocks[2]), 15u);
    EXPECT_EQ(kestal_free(blocks[0]), nullptr);
    uint64_t count = 0, size = 1, peak = 1;
    EXPECT_EQ(kestal_get_alloc_info(&count, &size, &peak) + kestal_get_alloc_info(nullptr, nullptr, nullptr), 0);
    EXPECT_TRUE(count == start + 2 && size == 0 && peak == 0);
    EXPECT_EQ(kestal_realloc(kestal_realloc(blocks[1], 100), 0), nullptr);
    EXPECT_EQ(kestal_heap_notag(blocks[2], 0), nullptr);
    EXPECT_EQ(live(), start);

    char *block = static_cast<char *>(kestal_realloc(nullptr, 4));
    std::memcpy(block, "abc", 4);
    EXPECT_EQ(kestal_alloc(UINT64_MAX), nullptr);
    EXPECT_EQ(kestal_realloc(block, UINT64_MAX), nullptr);
    EXPECT_EQ(live(), start) << "a failing resize counts down";
    EXPECT_STREQ(block, "abc");
    std::free(kestal_alloc(1)); // counted down already, in the block's place
    kestal_free(block);
}

TEST_F(ground, null_frees_are_reported_unless_expected)
{
    CaptureStderr();
    for (const char *name : {"f", static_cast<const char *>(nullptr), "operator delete"})
        EXPECT_EQ(kestal_free_tag(nullptr, name, 7), nullptr);
    EXPECT_EQ(kestal_check_free(nullptr), nullptr);
    EXPECT_EQ(GetCapturedStderr(), "null pointer free ? (at \"f\":7)\nnull pointer free ? (at \"\":7)\n");
}

TEST_F(ground, texts_are_duplicated)
{
    char *text = kestal_realloc_strdup(kestal_strdup(nullptr), "hello");
    text = kestal_realloc_strdup(text, text + 1); // the source may lie inside the old block
    EXPECT_STREQ(text, "ello");
    for (const auto &[limit, copy] : {std::pair(uint64_t{3}, "abc"), {UINT64_MAX, "abcdef"}})
        EXPECT_STREQ(text = kestal_realloc_strndup(text, "abcdef", limit), copy);
    const failing_allocation failing(1);
    EXPECT_EQ(kestal_realloc_strdup(text, "lost"), nullptr); // the old block is gone all the same
}

std::string dumped(int32_t force)
{
    CaptureStderr();
    kestal_dump_exception_tag(force, "file.c", "function", 12);
    return kestal_test::numbers_masked(GetCapturedStderr(), " (-");
}

TEST_F(ground, a_dump_tells_sections_blocks_and_threads)
{
    const std::string head = "CONSOLE # dump exception at file.c:function:12 (section=";
    EXPECT_EQ(dumped(0), "");
    EXPECT_EQ(dumped(1), head + "0, heap size/count/peak=0/0/0, active/ready/threads/max=0/0/0/0).\n");

    kestal::register_thread_counters([](uint64_t *active, uint64_t *ready, uint64_t *max) -> uint64_t {
        *active = 1, *ready = 2, *max = 4;
        return 3;
    });
    void *block = kestal_alloc(1);
    kestal_exception_t *outer = kestal_add_exception_tag("a.c", "outer", 1);
    kestal_exception_t *inner = kestal_add_exception_tag("b.c", nullptr, 2);
    kestal_exception_t *last = kestal_add_exception_tag("c.c", "last", 3);
    EXPECT_EQ(kestal_del_exception_tag(inner), 0);
    const std::string whole = head + "2, heap size/count/peak=0/1/0, active/ready/threads/max=1/2/3/4) {\n"
                                     "CONSOLE #     c.c:last():3 (-N msec)\nCONSOLE #     a.c:outer():1 (-N msec)\n"
                                     "CONSOLE # }\n";
    EXPECT_EQ(dumped(0), whole);
    kestal_set_force_dump_exception(0);
    EXPECT_EQ(dumped(1), "");
    kestal_set_force_dump_exception(UINT32_MAX);
    kestal_del_exception_tag(last);
    kestal_del_exception_tag(outer);
    kestal_free(block);
    kestal::register_thread_counters(nullptr);
}

TEST_F(ground, misuse_and_excess_are_reported)
{
    const caught_assertions caught;
    EXPECT_EQ(kestal_del_exception_tag(nullptr), 0);
    {
        const failing_allocation failing(1);
        EXPECT_EQ(kestal_add_exception(), nullptr);
    }
    std::vector<kestal_exception_t *> records(4097);
    for (auto &record : records)
        record = kestal_add_exception();
    EXPECT_EQ(caught.messages(), (texts{"invalid argument", "not enough memory", "too many exception entry"}));
    for (kestal_exception_t *record : records)
        kestal_del_exception(record);
    EXPECT_EQ(dumped(0), "");
}

} // namespace
