// The small modules that everything stands on: short lock, time stamps, assertion reports, destroy stack, break flag.
#include "support.hpp"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <thread>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class ground : public kestal_test::counted {};

TEST_F(ground, a_short_lock_is_taken_once)
{
    kestal_short_lock_t lock = 7;
    EXPECT_EQ(kestal_init_short_lock(&lock), &lock);
    EXPECT_EQ(lock, 0u);
    EXPECT_EQ(kestal_try_short_lock(&lock), 1);
    EXPECT_EQ(kestal_try_short_lock(&lock), 0);
    EXPECT_EQ(kestal_atomic_exchange(&lock, 5), 1u);

    std::atomic<bool> taken{false};
    std::thread waiter([&] {
        kestal_short_lock(&lock);
        taken = true;
        kestal_short_unlock(&lock);
    });
    kestal_load_balance();
    EXPECT_FALSE(taken);
    kestal_short_unlock(&lock);
    waiter.join();
    EXPECT_TRUE(taken);
    EXPECT_EQ(lock, 0u);
    EXPECT_EQ(kestal_uninit_short_lock(&lock), 0);

    const kestal_test::caught_assertions caught;
    EXPECT_EQ(kestal_init_short_lock(nullptr), nullptr);
    EXPECT_EQ(kestal_try_short_lock(nullptr), 0);
    kestal_short_lock(nullptr);
    kestal_short_unlock(nullptr);
    EXPECT_EQ(caught.messages(), std::vector<std::string>{"s_short_lock != ((kestal_short_lock_t *)0)"});
}

TEST_F(ground, a_short_lock_excludes_threads)
{
    kestal_short_lock_t lock = 0;
    uint64_t sum = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                kestal_short_lock(&lock);
                ++sum;
                kestal_short_unlock(&lock);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(sum, 20000u);
}

TEST_F(ground, sleeps_are_whole_milliseconds)
{
    const uint64_t start = kestal_time_stamp_nsec();
    EXPECT_EQ(kestal_sleep_wait(0, 999), 0);
    EXPECT_EQ(kestal_sleep_wait(0, 20000), 0);
    EXPECT_EQ(kestal_load_balance_short(), 0);
    EXPECT_GE(kestal_time_stamp_nsec() - start, 21000000u);
    EXPECT_GE(kestal_time_stamp_msec(), start / 1000000 + 21);
}

TEST_F(ground, calendar_texts)
{
    setenv("TZ", "UTC", 1);
    tzset();
    char buffer[32];
    EXPECT_STREQ(kestal_asctime(buffer, sizeof buffer, 0, 1000000000), "Sun Sep  9 01:46:40 2001");
    EXPECT_STREQ(kestal_asctime(buffer, sizeof buffer, 1, 1000000000), "2001-09-09 01:46:40");
    EXPECT_STREQ(kestal_asctime(buffer, 15, 2, 1000000000), "20010909014640");
    EXPECT_EQ(kestal_asctime(buffer, 14, 2, 0), nullptr);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(kestal_asctime(buffer, sizeof buffer, 3, 0), nullptr);
    EXPECT_EQ(kestal_asctime(nullptr, 0, 0, 0), nullptr);
    EXPECT_GT(std::string(kestal_asctime(buffer, sizeof buffer, 2, -1)), "20200101000000");
}

TEST_F(ground, assertion_reports_go_to_standard_error_and_carry_on)
{
    CaptureStderr();
    kestal_assert_fail_tag("file.c", "function", 7, "message");
    kestal_assert_fail_tag(nullptr, nullptr, UINT64_MAX, nullptr);
    kestal_assertf_fail_tag("file.c", "function", 7, "%s %.3d", "number", 5);
    kestal_assertf_fail_tag("file.c", "function", 7, "%70000d", 1); // too long to be formatted
    kestal_assertf_fail_tag("file.c", "function", 7, nullptr);
    const std::string got = kestal_test::numbers_masked(GetCapturedStderr(), "> ");
    const auto report = [](const std::string &file, const char *function, const char *line, const char *message) {
        return "kestal [\033[1;31mASSERT\033[0m:\033[1;34m" + file + "\033[0m:\033[1;32m" + function +
               "\033[0m:\033[1;37m" + line + "\033[0m] <\033[1;31m" + message + "\033[0m> N\n";
    };
    EXPECT_EQ(got, report("file.c", "function", "7", "message") +
                       report("UNKNOWN", "UNKNOWN", "18446744073709551615", "NO_MESSAGE") +
                       report("file.c", "function", "7", "number   5") + report("file.c", "function", "7", "%70000d") +
                       report("file.c", "function", "7", "NO_MESSAGE"));
}

TEST_F(ground, destroy_stack_undoes_from_the_top)
{
    static std::vector<intptr_t> seen;
    const kestal_destructor_t count_up = [](void *argument) -> void * {
        seen.push_back(reinterpret_cast<intptr_t>(argument));
        return static_cast<char *>(argument) + 10;
    };
    kestal_destroy_stack_t *top = nullptr;
    top = kestal_add_destroy_stack(top, count_up, reinterpret_cast<void *>(1));
    top = kestal_add_destroy_stack(top, nullptr, kestal_alloc(8));
    top = kestal_add_destroy_stack(top, count_up, reinterpret_cast<void *>(2));
    {
        const kestal_test::failing_allocation failing(1);
        EXPECT_EQ(kestal_add_destroy_stack(top, count_up, nullptr), top);
    }
    EXPECT_EQ(kestal_call_destroy_stack(top), 0);
    EXPECT_EQ(top->m_next->m_argument, nullptr);
    EXPECT_EQ(kestal_call_destroy_stack(top), 0);
    EXPECT_EQ(seen, (std::vector<intptr_t>{2, 1, 12, 11}));
    EXPECT_EQ(kestal_free_destroy_stack(top), 0);
    EXPECT_EQ(kestal_call_destroy_stack(nullptr), 0);
    EXPECT_EQ(kestal_free_destroy_stack(nullptr), 0);
}

TEST_F(ground, global_break_is_one_flag)
{
    EXPECT_EQ(kestal_get_global_break(), 0u);
    EXPECT_EQ(kestal_set_global_break(), 0);
    EXPECT_EQ(kestal_get_global_break(), 1u);
    EXPECT_EQ(kestal_clear_global_break(), 0);
    EXPECT_EQ(kestal_get_global_break(), 0u);
    EXPECT_STREQ(kestal_get_ulx_version_string(), KESTAL_ULX_VERSION_STRING);
}

} // namespace
