#include "support.hpp"

#include <csignal>
#include <semaphore>
#include <unistd.h>

using kestal_test::caught_errors;
using kestal_test::wait_until;

namespace {

struct now {
    uint64_t active = 0, ready = 0, max = 0, threads = kestal_get_thread_count(&active, &ready, &max);
};

// A job that tells its thread and then waits to be let go.
struct job {
    std::binary_semaphore begun{0}, go_on{0};
    std::atomic<bool> done = false; // the last that the thread sees of it: then it may go
    uint64_t thread_id = 0;

    explicit job(uint64_t stack_size = 0)
    {
        EXPECT_EQ(kestal_detached_thread_ex(run, this, stack_size), 0);
        begun.acquire();
    }
    void finish()
    {
        go_on.release();
        wait_until([this] { return done.load(); });
    }
    static void run(void *argument)
    {
        auto *self = static_cast<job *>(argument);
        self->thread_id = kestal_get_thread_id();
        self->begun.release();
        self->go_on.acquire();
        self->done = true;
    }
};

// Lets a job end and waits until its worker is idle.
void finish_and_stay(job &ending)
{
    const uint64_t ready = now().ready;
    ending.finish();
    wait_until([&] { return now().ready == ready + 1; });
}

class thread : public kestal_test::counted {
protected:
    void TearDown() override
    {
        counted::TearDown(); // waits for the threads
        EXPECT_EQ(kestal_get_thread_count(nullptr, nullptr, nullptr) + now().active + now().ready, 0u);
        kestal_set_thread_pool(0, 0);
    }
};

TEST_F(thread, target_and_limit_say_how_many_workers_stay_idle_while_a_job_runs)
{
    kestal_set_thread_pool(2, 0);
    {
        job first;
        EXPECT_EQ(now().threads, 2u);
        EXPECT_EQ(now().ready, 1u);
        job second; // takes the idle one; two jobs need no spare
        EXPECT_EQ(now().threads, 2u);
        first.finish();
        second.finish();
        EXPECT_EQ(kestal_thread_pool_wait(60000), 0); // with no job left the idle ones go
    }
    kestal_set_thread_pool(0, 1);
    job keeper, first, second;
    finish_and_stay(first);
    second.finish();
    EXPECT_EQ(kestal_thread_pool_wait_ex(2, 60000, 0), 0);
    EXPECT_EQ(now().ready, 1u);
    keeper.finish();
}

TEST_F(thread, idle_workers_are_reused_by_stack_size_last_in_first_out)
{
    kestal_set_thread_pool(0, 8);
    job keeper, first, second, large(1 << 20);
    for (job *ending : {&first, &large, &second})
        finish_and_stay(*ending);
    EXPECT_EQ(now().threads, 4u);
    job third;
    EXPECT_EQ(third.thread_id, second.thread_id);
    job fourth;
    EXPECT_EQ(fourth.thread_id, first.thread_id);
    job small(1), again(1 << 20); // the least size that the system allows
    EXPECT_EQ(again.thread_id, large.thread_id);
    EXPECT_EQ(now().threads, 5u); // no idle one had the small stack
    EXPECT_EQ(now().ready, 0u);
    for (job *ending : {&third, &fourth, &small, &again, &keeper})
        ending->finish();
}

TEST_F(thread, jobs_that_cannot_be_started_are_refused)
{
    kestal_set_thread_pool(2, 0);
    const auto scenario = [] {
        std::binary_semaphore done{0};
        const auto run = [](void *argument) { static_cast<std::binary_semaphore *>(argument)->release(); };
        if (kestal_detached_thread(run, &done) == 0)
            done.acquire();
        EXPECT_EQ(kestal_thread_pool_wait(60000), 0);
    };
    EXPECT_EQ(kestal_test::with_each_allocation_failing(scenario), 2u); // the worker, and a spare that is done without
    kestal_set_thread_pool(0, 0);
    const kestal_test::caught_assertions reports;
    EXPECT_EQ(kestal_detached_thread_ex([](void *) { ADD_FAILURE(); }, nullptr, UINT64_MAX), -1);
    EXPECT_EQ(reports.messages(), std::vector<std::string>{"pthread_create failed !"});
    EXPECT_EQ(kestal_detached_thread(nullptr, nullptr), -1);
}

TEST_F(thread, waiting_reports_when_asked_and_dumps_show_the_threads)
{
    const caught_errors errors;
    job running;
    testing::internal::CaptureStderr();
    kestal_dump_exception_tag(1, "f", "g", 1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("active/ready/threads/max=1/0/1/"), std::string::npos);

    EXPECT_EQ(kestal_thread_pool_wait(0) + kestal_thread_pool_wait_ex(0, 20, 1), -2);
    EXPECT_EQ(kestal_test::numbers_masked(errors.text(), "(timeout="),
              "kestal_thread_pool_wait_ex: [debug] thread-pool wait timeout ! (timeout=N/20 msec, threads=1/0)\n");

    std::jthread waiting([] { EXPECT_EQ(kestal_thread_pool_wait_ex(0, -1, 1), 0); });
    const std::string line = "kestal_thread_pool_wait_ex: [DEBUG] thread-pool waiting... (timeout=";
    while (errors.text().find(line) == std::string::npos)
        kestal_test::advance_clock(1000);
    errors.wait_for(line, 3); // from the first minute on, a line in every pass
    running.finish();
}

TEST_F(thread, many_threads_start_many_jobs)
{
    kestal_exchange_signal(SIGUSR1, 0, [](int) {});
    std::atomic<int> done{0};
    kestal_test::on_threads(6, [&](size_t number) {
        for (uint64_t i = 0; i < 100; ++i) {
            if (i % 25 == 0)
                kestal_set_thread_pool(number, i / 25);
            const auto run = [](void *argument) { ++*static_cast<std::atomic<int> *>(argument); };
            EXPECT_EQ(kestal_detached_thread_ex(run, &done, i % 2 == 0 ? 1 << 19 : 1 << 18), 0);
            kill(getpid(), SIGUSR1); // idle workers are woken by what is no call
        }
    });
    EXPECT_EQ(kestal_thread_pool_wait(60000), 0);
    EXPECT_EQ(done, 600);
}

} // namespace
