#include "support.hpp"

#include <semaphore>

using kestal_test::caught_errors;
using kestal_test::numbers_masked;
using kestal_test::wait_until;

namespace {

using body = std::function<void(kestal_service_t *)>;
using notice = std::function<int32_t()>;

class service : public kestal_test::counted {
protected:
    static kestal_service_t *open(const char *name, const body &run, uint64_t stack_size = 0)
    {
        const auto call = [](kestal_service_t *self, void *given) { (*static_cast<const body *>(given))(self); };
        return kestal_open_service_ex(name, call, const_cast<body *>(&run), stack_size);
    }
    static void notify(kestal_service_t *opened, const notice &tell)
    {
        const auto call = [](void *given) { return (*static_cast<const notice *>(given))(); };
        EXPECT_EQ(kestal_service_register_close_notify_handler(opened, call, const_cast<notice *>(&tell)), 0);
    }
};

const body until_break = [](kestal_service_t *self) {
    kestal_ack_service(self);
    while (kestal_break_service(self) == 0)
        std::this_thread::yield();
};

TEST_F(service, runs_between_its_two_handshakes)
{
    int stage = 0;
    const body run = [&](kestal_service_t *self) {
        stage = 1;
        EXPECT_EQ(kestal_check_service(self), 0);
        until_break(self);
        stage = 2;
    };
    std::string name = "worker bee";
    kestal_service_t *opened = open(name.c_str(), run);
    name[0] = 'W';
    EXPECT_STREQ(opened->m_name, "worker bee");
    EXPECT_EQ(stage, 1);
    EXPECT_EQ(kestal_check_service(opened), 1);
    EXPECT_EQ(kestal_close_service(opened), 0);
    EXPECT_EQ(stage, 2);

    const body brief = kestal_ack_service; // one that has finished was started all the same
    opened = open(nullptr, brief);
    EXPECT_STREQ(opened->m_name, "no service name");
    wait_until([&] { return kestal_check_service(opened) == 0; });
    const notice unwanted = [] { return ADD_FAILURE(), 0; };
    notify(opened, unwanted);
    EXPECT_EQ(kestal_close_service(opened), 0); // at once
}

TEST_F(service, a_start_that_fails_gives_null)
{
    EXPECT_EQ(kestal_open_service_ex("none", nullptr, nullptr, 0), nullptr);
    const body silent = [](kestal_service_t *) {};
    EXPECT_EQ(open("silent", silent), nullptr);

    std::binary_semaphore go_on{0};
    const body failing = [&](kestal_service_t *self) {
        kestal_error_service(self);
        go_on.acquire(); // the opener is gone by now
        EXPECT_EQ(kestal_check_service(self), -1);
    };
    EXPECT_EQ(open("failing", failing), nullptr);
    go_on.release();
    EXPECT_EQ(kestal_thread_pool_wait(60000), 0);

    const kestal_test::caught_assertions reports;
    EXPECT_EQ(open("too large", until_break, UINT64_MAX), nullptr);
    EXPECT_EQ(reports.messages(), std::vector<std::string>{"pthread_create failed !"});
    EXPECT_EQ(kestal_test::with_each_allocation_failing([] { kestal_close_service(open(nullptr, until_break)); }), 2u);
}

TEST_F(service, a_close_with_a_limit_leaves_a_stubborn_one_behind)
{
    int notified = 0;
    std::binary_semaphore go_on{0};
    const notice count = [&] { return ++notified, 0; };
    const body stubborn = [&](kestal_service_t *self) {
        kestal_ack_service(self);
        go_on.acquire();
        EXPECT_EQ(kestal_break_service(self), 1); // its memory is there as long as it runs
    };
    kestal_service_t *opened = open("stubborn", stubborn);
    notify(opened, count);
    EXPECT_EQ(kestal_close_service_ex(opened, 20), 0);
    EXPECT_EQ(notified, 1);
    go_on.release();
    EXPECT_EQ(kestal_thread_pool_wait(60000), 0);
}

TEST_F(service, slow_starts_and_stops_are_reported_and_the_closer_notifies_until_it_is_heard)
{
    const caught_errors errors;
    std::atomic<int> calls{0};
    const notice third_time = [&] { return ++calls < 3 ? -1 : 0; };
    // Makes a minute go by, and ends the other side's waits until something has come of it.
    const auto keep_waiting = [](kestal_service_t *self, const std::function<bool()> &enough) {
        kestal_test::advance_clock(60000);
        wait_until([&] { return kestal_lock_condition_wakeup(&self->m_lock_condition), enough(); });
    };
    const body slow = [&](kestal_service_t *self) {
        keep_waiting(self, [&] { return !errors.text().empty(); });
        until_break(self);
        keep_waiting(self, [&] { return calls == 3; });
    };
    kestal_service_t *opened = open("slow", slow);
    notify(opened, third_time);
    EXPECT_EQ(kestal_close_service(opened), 0);
    EXPECT_EQ(calls, 3);
    const std::string frame = "\n-=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=-\n";
    const std::string text = numbers_masked(numbers_masked(errors.text(), "\", "), "N.");
    for (const std::string event : {"start", "stop"})
        EXPECT_NE(
            text.find(frame + "kestal_ulx: [WARNING] wait for " + event + " service (name=\"slow\", N.N sec)" + frame),
            std::string::npos)
            << text;
}

TEST_F(service, carries_flags_and_data_for_its_users_and_null_is_refused)
{
    kestal_service_t *opened = open("flags", until_break);
    EXPECT_EQ(kestal_set_lock_flags_service(opened, 0xF0), 0xF0u);
    EXPECT_EQ(kestal_clear_lock_flags_service(opened, 0x30), 0xC0u);
    EXPECT_EQ(kestal_invert_lock_flags_service(opened, 0x41), 0x81u);
    EXPECT_EQ(kestal_lock_flags_service(opened) | kestal_try_lock_flags_service(opened), 0);
    *kestal_get_lock_flags_ptr_service(opened) = 9;
    EXPECT_EQ(kestal_get_lock_flags_service(opened), 9u); // also by who holds the flags lock
    EXPECT_EQ(kestal_unlock_flags_service(opened), 0);
    EXPECT_EQ(kestal_set_user_data_service(opened, &opened), 0);
    EXPECT_EQ(kestal_get_user_data_service(opened), &opened);
    EXPECT_EQ(kestal_close_service_ex(opened, 60000), 0);
    for (auto *call : {kestal_close_service, kestal_check_service, kestal_break_service, kestal_lock_flags_service,
                       kestal_try_lock_flags_service, kestal_unlock_flags_service})
        EXPECT_EQ(call(nullptr), -1);
    kestal_ack_service(nullptr);
    EXPECT_EQ(kestal_set_user_data_service(nullptr, nullptr), -1);
    EXPECT_EQ(kestal_get_lock_flags_ptr_service(nullptr), kestal_get_user_data_service(nullptr));
    EXPECT_EQ(kestal_get_lock_flags_service(nullptr) + kestal_set_lock_flags_service(nullptr, 1), 0u);
}

} // namespace
