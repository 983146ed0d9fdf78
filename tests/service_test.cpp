#include "support.hpp"

#include <semaphore>

using kestal_test::caught_errors;
using kestal_test::wait_until;

namespace {

class service : public kestal_test::counted {
protected:
    void TearDown() override
    {
        EXPECT_EQ(kestal_thread_pool_wait(60000), 0);
        counted::TearDown();
    }
};

void run_until_break(kestal_service_t *self, void *)
{
    kestal_ack_service(self);
    while (kestal_break_service(self) == 0)
        std::this_thread::yield();
}

TEST_F(service, runs_between_its_two_handshakes)
{
    char name[] = "worker bee";
    int argument = 0;
    const auto body = [](kestal_service_t *self, void *given) {
        *static_cast<int *>(given) = 1;
        EXPECT_EQ(kestal_check_service(self), 0);
        run_until_break(self, nullptr);
        *static_cast<int *>(given) = 2;
    };
    kestal_service_t *opened = kestal_open_service_ex(name, body, &argument, 65536);
    ASSERT_NE(opened, nullptr);
    name[0] = 'W';
    EXPECT_STREQ(opened->m_name, "worker bee");
    EXPECT_EQ(argument, 1);
    EXPECT_EQ(kestal_check_service(opened), 1);
    EXPECT_EQ(kestal_break_service(opened), 0);
    EXPECT_EQ(kestal_close_service(opened), 0);
    EXPECT_EQ(argument, 2);
}

TEST_F(service, a_start_that_fails_gives_null)
{
    EXPECT_EQ(kestal_open_service_ex("none", nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(kestal_open_service_ex(
                  "silent", [](kestal_service_t *, void *) {}, nullptr, 0),
              nullptr);
    std::binary_semaphore go_on{0}; // the thread may still run when the opener is gone
    const auto failing = [](kestal_service_t *self, void *argument) {
        kestal_error_service(self);
        static_cast<std::binary_semaphore *>(argument)->acquire();
        EXPECT_EQ(kestal_check_service(self), -1);
    };
    EXPECT_EQ(kestal_open_service_ex("failing", failing, &go_on, 0), nullptr);
    go_on.release();
    EXPECT_EQ(kestal_thread_pool_wait(60000), 0);
    {
        const kestal_test::caught_assertions reports;
        EXPECT_EQ(kestal_open_service_ex("too large", run_until_break, nullptr, UINT64_MAX), nullptr);
        EXPECT_EQ(reports.messages(), std::vector<std::string>{"pthread_create failed !"});
    }
    EXPECT_GE(kestal_test::with_each_allocation_failing([] {
                  kestal_close_service(kestal_open_service_ex(nullptr, run_until_break, nullptr, 0));
                  EXPECT_EQ(kestal_thread_pool_wait(60000), 0);
              }),
              2u);
}

TEST_F(service, one_that_has_finished_was_started_and_closes_at_once)
{
    kestal_service_t *opened = kestal_open_service_ex(
        nullptr, [](kestal_service_t *self, void *) { kestal_ack_service(self); }, nullptr, 0);
    ASSERT_NE(opened, nullptr);
    EXPECT_STREQ(opened->m_name, "no service name");
    wait_until([&] { return kestal_check_service(opened) == 0; });
    kestal_service_register_close_notify_handler(
        opened,
        [](void *) {
            ADD_FAILURE();
            return 0;
        },
        nullptr);
    EXPECT_EQ(kestal_close_service(opened), 0);
}

TEST_F(service, a_close_with_a_limit_leaves_a_stubborn_one_behind)
{
    struct {
        std::binary_semaphore go_on{0};
        std::atomic<int> notified{0};
    } shared;
    const auto stubborn = [](kestal_service_t *self, void *argument) {
        kestal_ack_service(self);
        static_cast<decltype(shared) *>(argument)->go_on.acquire();
        EXPECT_EQ(kestal_break_service(self), 1); // its memory is there as long as it runs
    };
    for (const int32_t limit : {0, 20}) {
        kestal_service_t *opened = kestal_open_service_ex("stubborn", stubborn, &shared, 0);
        ASSERT_NE(opened, nullptr);
        const auto notify = [](void *argument) {
            ++static_cast<decltype(shared) *>(argument)->notified;
            return 0;
        };
        EXPECT_EQ(kestal_service_register_close_notify_handler(opened, notify, &shared), 0);
        EXPECT_EQ(kestal_close_service_ex(opened, limit), 0);
    }
    EXPECT_EQ(shared.notified, 2);
    shared.go_on.release(2);
    EXPECT_EQ(kestal_thread_pool_wait(60000), 0);
}

TEST_F(service, the_close_notify_handler_is_called_after_each_wait_until_it_is_content)
{
    struct {
        std::atomic<int> calls{0};
        std::atomic<bool> interrupted{false};
    } shared;
    using shared_t = decltype(shared);
    const caught_errors errors;
    const auto blocked = [](kestal_service_t *self, void *argument) {
        kestal_ack_service(self);
        wait_until([&] { return kestal_break_service(self) == 1; });
        kestal_test::advance_clock(60000);
        wait_until([&] {
            kestal_ack_service(self); // ends the closer's wait
            return static_cast<shared_t *>(argument)->interrupted.load();
        });
    };
    const auto notify = [](void *argument) -> int32_t {
        auto *seen = static_cast<shared_t *>(argument);
        if (++seen->calls < 3)
            return -1;
        seen->interrupted = true;
        return 0;
    };
    kestal_service_t *opened = kestal_open_service_ex("blocked", blocked, &shared, 0);
    ASSERT_NE(opened, nullptr);
    kestal_service_register_close_notify_handler(opened, notify, &shared);
    EXPECT_EQ(kestal_close_service(opened), 0);
    EXPECT_EQ(shared.calls, 3);

    const std::string frame = "-=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=-\n";
    const std::string text = kestal_test::numbers_masked(errors.text(), "60.");
    EXPECT_EQ(
        text.rfind("\n" + frame + "kestal_ulx: [WARNING] wait for stop service (name=\"blocked\", 60.N sec)\n" + frame,
                   0),
        0u);
}

TEST_F(service, a_slow_start_is_reported_and_waited_for)
{
    const caught_errors errors;
    const auto slow = [](kestal_service_t *self, void *reported) {
        kestal_test::advance_clock(60000);
        wait_until([&] {
            kestal_lock_condition_wakeup(&self->m_lock_condition);
            return !static_cast<const caught_errors *>(reported)->text().empty();
        });
        run_until_break(self, nullptr);
    };
    kestal_service_t *opened = kestal_open_service_ex("slow", slow, const_cast<caught_errors *>(&errors), 0);
    ASSERT_NE(opened, nullptr);
    EXPECT_NE(errors.text().find("kestal_ulx: [WARNING] wait for start service (name=\"slow\", 60.0"),
              std::string::npos);
    EXPECT_EQ(kestal_close_service(opened), 0);
}

TEST_F(service, carries_flags_and_data_for_its_users)
{
    kestal_service_t *opened = kestal_open_service_ex("flags", run_until_break, nullptr, 0);
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(kestal_get_lock_flags_service(opened), 0u);
    EXPECT_EQ(kestal_set_lock_flags_service(opened, 0xF0), 0xF0u);
    EXPECT_EQ(kestal_clear_lock_flags_service(opened, 0x30), 0xC0u);
    EXPECT_EQ(kestal_invert_lock_flags_service(opened, 0x41), 0x81u);
    EXPECT_EQ(kestal_lock_flags_service(opened), 0);
    EXPECT_EQ(kestal_try_lock_flags_service(opened), 0);
    *kestal_get_lock_flags_ptr_service(opened) = 9;
    EXPECT_EQ(kestal_get_lock_flags_service(opened), 9u); // also by who holds the flags lock
    EXPECT_EQ(kestal_unlock_flags_service(opened), 0);
    EXPECT_EQ(kestal_try_lock_flags_service(opened), 1);
    EXPECT_EQ(kestal_unlock_flags_service(opened), 0);
    EXPECT_EQ(kestal_get_user_data_service(opened), nullptr);
    EXPECT_EQ(kestal_set_user_data_service(opened, &opened), 0);
    EXPECT_EQ(kestal_get_user_data_service(opened), &opened);
    EXPECT_EQ(kestal_close_service_ex(opened, 60000), 0);

    for (auto *call : {kestal_close_service, kestal_check_service, kestal_break_service, kestal_try_lock_flags_service,
                       kestal_lock_flags_service, kestal_unlock_flags_service})
        EXPECT_EQ(call(nullptr), -1);
    kestal_ack_service(nullptr);
    kestal_error_service(nullptr);
    EXPECT_EQ(kestal_service_register_close_notify_handler(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(kestal_get_lock_flags_service(nullptr) + kestal_set_lock_flags_service(nullptr, 1), 0u);
    EXPECT_EQ(kestal_get_lock_flags_ptr_service(nullptr), nullptr);
    EXPECT_EQ(kestal_get_user_data_service(nullptr), nullptr);
    EXPECT_EQ(kestal_set_user_data_service(nullptr, nullptr), -1);
}

TEST_F(service, many_open_and_close_at_once)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                kestal_service_t *opened = kestal_open_service_ex("one of many", run_until_break, nullptr, 0);
                ASSERT_NE(opened, nullptr);
                EXPECT_EQ(kestal_close_service_ex(opened, t % 2 == 0 ? -1 : 0), 0);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
