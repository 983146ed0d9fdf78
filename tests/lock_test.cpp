#include "support.hpp"

#include <csignal>
#include <fcntl.h>
#include <semaphore>
#include <sys/resource.h>
#include <unistd.h>

using kestal_test::caught_errors;
using kestal_test::wait_until;

namespace {

constexpr uint32_t forever = KESTAL_LOCK_NO_TIMEOUT;
const std::string error = "kestal_lock: [ERROR] \033[1;31m", warning = "kestal_lock: [WARNING] \033[1;31m",
                  by_init = ", initialized by \"init:1\")\n";

class lock : public kestal_test::counted {
protected:
    kestal_lock_t lock_ = KESTAL_LOCK_INITIALIZER("init", 1);
    kestal_lock_condition_t condition_ = {0, nullptr, nullptr, "init", 1};

    // Counts a list under its guard, whose word is left as it was.
    template <typename Record>
    static uint64_t length(kestal_short_lock_t &guard, Record *&head)
    {
        uint32_t before = 1;
        wait_until([&] { return (before = kestal_atomic_exchange(&guard, 1)) != 1; });
        const uint64_t count = kestal_linked_list_count(&head, KESTAL_LINK(Record, m_next));
        kestal_atomic_exchange(&guard, before);
        return count;
    }
    uint64_t waiters() { return length(lock_.m_guard, lock_.m_waiter_head); }
    uint64_t sleepers() { return length(condition_.m_guard, condition_.m_waiter_head); }

    int32_t take(uint32_t timeout = forever) { return kestal_lock_timeout_tag(&lock_, timeout, "taker", 2); }
    void give(int times = 1)
    {
        for (int i = 0; i < times; ++i)
            EXPECT_EQ(kestal_unlock_tag(&lock_, "giver", 3), 0);
    }
    int32_t sleep(uint32_t timeout = forever)
    {
        return kestal_lock_condition_wait_timeout(&condition_, &lock_, timeout);
    }

    // A thread that asks for the held lock and stands in line when this returns; gets it and does something.
    std::jthread queue_up(std::function<void()> then, uint32_t timeout = forever)
    {
        const uint64_t place = waiters() + 1;
        std::jthread thread([this, timeout, then] {
            EXPECT_EQ(kestal_lock_timeout_tag(&lock_, timeout, "waiter", 4), 0);
            then();
        });
        wait_until([&] { return waiters() == place; });
        return thread;
    }
};

TEST_F(lock, is_handed_on_first_come_first_served)
{
    std::vector<int> order;
    std::vector<std::jthread> line;
    ASSERT_EQ(take(), 0);
    for (int i = 0; i < 8; ++i) {
        const auto note = [&, i] { order.push_back(i), give(); };
        line.push_back(queue_up(note, i % 2 == 0 ? forever : 60000));
    }
    give();
    line.clear();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(take(0), 0);
    give();
    EXPECT_EQ(kestal_unlock(&lock_), -1);
}

TEST_F(lock, recursion_is_for_the_owner_of_a_recursive_lock)
{
    lock_.m_flags |= KESTAL_LOCK_RECURSIVE;
    ASSERT_EQ(take(), 0);
    std::jthread other = queue_up([] {});
    EXPECT_EQ(take(), 0);
    EXPECT_EQ(kestal_try_lock(&lock_), 1); // past the waiter
    give(2);
    EXPECT_EQ(waiters(), 1u);
    give();
    other.join();
    EXPECT_EQ(kestal_try_lock(&lock_), 0); // another thread's now; anybody may unlock it
    give();
}

TEST_F(lock, messages_follow_the_flags)
{
    const std::string unlock =
        error + "unlock failed !\033[0m (no-owner, recursive_count=0, wait_count=0, caller=\"giver:3\"" + by_init;
    const std::string memory = error + "__kestal_new_lock_claim failed !\033[0m (caller=\"taker:2\"" + by_init;
    const std::string pending = "kestal_lock: [WARNING] pending lock wait... (locked by \"taker:2\", "
                                "recursive_count=1, wait_count=0, caller=\"ender:5\"" +
                                by_init;
    const std::pair<uint32_t, std::string> cases[] = {
        {0, ""}, {0x10, unlock + pending}, {0x20, unlock + pending}, {0x40, unlock + memory}};
    for (const auto &[flags, expected] : cases) {
        const caught_errors errors;
        const bool warns = (flags & 0x30) != 0;
        lock_.m_flags = 0x180 | flags;
        EXPECT_EQ(kestal_unlock_tag(&lock_, "giver", 3), -1);
        ASSERT_EQ(take(), 0);
        if (!warns) {
            const kestal_test::failing_allocation failing(1, 64);
            EXPECT_EQ(take(), -1);
        }
        std::jthread opener([&] {
            wait_until([&] { return !warns || errors.text().size() >= expected.size(); });
            give();
        });
        EXPECT_EQ(kestal_uninit_lock_tag(&lock_, "ender", 5), 0);
        EXPECT_TRUE(errors.text().starts_with(expected)) << flags << ": " << errors.text();
        EXPECT_TRUE(warns || errors.text().size() == expected.size());
    }
}

TEST_F(lock, endless_waits_warn_of_a_dead_lock_and_go_on)
{
    const caught_errors errors;
    const std::string held = " (thread_id=" + std::to_string(kestal_get_thread_id()) + by_init;
    lock_.m_flags |= KESTAL_LOCK_RECURSIVE;
    lock_.m_default_timeout = 1;
    ASSERT_EQ(take(), 0);
    ASSERT_EQ(kestal_lock_timeout_tag(&lock_, 0, "again", 6), 0);
    std::jthread other = queue_up([] {});
    errors.wait_for("taker:2");
    EXPECT_EQ(kestal_test::numbers_masked(errors.text(), "duration="),
              warning + "dead-lock !\033[0m (duration=N, caller=\"waiter:4\", recursive_count=2, wait_count=1" +
                  by_init + "  - locked by \"again:6\"" + held + "  - locked by \"taker:2\"" + held);
    give(2);
    other.join();

    // The end of a lock that is in use says who uses it, and waits on.
    std::jthread ender([&] { EXPECT_EQ(kestal_uninit_lock_tag(&lock_, "ender", 5), 0); });
    errors.wait_for(error + "pending lock wait !\033[0m (recursive_count=1, wait_count=0, caller=\"ender:5\"" +
                    by_init + "  - locked by \"waiter:4\" (thread_id=");
    std::jthread last = queue_up([this] { give(); }, 60000);
    kestal_test::advance_clock(4000);
    errors.wait_for("  - wait by \"waiter:4\" (thread_id=");
    give();
}

TEST_F(lock, waiters_outlive_signals_and_broken_pipes_and_are_not_passed)
{
    const auto previous = kestal_exchange_signal(SIGUSR1, 0, [](int) {});
    const caught_errors errors;
    lock_.m_flags |= KESTAL_LOCK_WARNINGS;
    ASSERT_EQ(take(), 0);
    std::jthread interrupted = queue_up([] {}), second = queue_up([] {});
    while (errors.text().empty())
        pthread_kill(interrupted.native_handle(), SIGUSR1);
    errors.wait_for(warning + "lock pending !\033[0m (interrupted or error, caller=\"waiter:4\"" + by_init);
    close(std::exchange(lock_.m_waiter_tail->m_pipe[1], -1));
    errors.wait_for("lock pending !\033[0m (broken pipe, caller=\"waiter:4\"" + by_init);
    give();
    interrupted.join();
    give();
    second.join();

    std::jthread deaf = queue_up([this] { give(); }, 300); // it finds the lock free when its time is up
    const int kept = dup(lock_.m_waiter_head->m_pipe[1]), unwritable = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(unwritable, lock_.m_waiter_head->m_pipe[1]);
    give();
    EXPECT_EQ(kestal_try_lock(&lock_), 0); // free, but somebody waits
    EXPECT_EQ(kestal_uninit_lock_tag(&lock_, "ender", 5), 0);
    errors.wait_for(error +
                    "__kestal_wakeup_lock_claim failed by unlock !\033[0m (caller=\"giver:3\", "
                    "wakeup_claim=\"waiter:4\", recursive_count=0, wait_count=1" +
                    by_init +
                    "kestal_lock: [WARNING] pending lock wait... (wait by \"waiter:4\", recursive_count=0, "
                    "wait_count=1, caller=\"ender:5\"" +
                    by_init);
    close(kept);
    close(unwritable);
    kestal_exchange_signal(SIGUSR1, 0, previous);
}

TEST_F(lock, without_descriptors_waiters_look_for_themselves)
{
    const caught_errors errors;
    lock_.m_flags |= KESTAL_LOCK_ERRORS;
    std::binary_semaphore begin{0}, done{0}, end{0};
    std::jthread waiting([&] {
        begin.acquire();
        EXPECT_EQ(take() + sleep(), 0);
        give();
        done.release();
        end.acquire();
    });
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(take(), 0);
    setrlimit(RLIMIT_NOFILE, &none); // until it is lifted nothing else may want a descriptor, sanitizers included
    begin.release();
    wait_until([&] { return waiters() == 1; });
    give();
    wait_until([&] { return sleepers() == 1; });
    EXPECT_EQ(kestal_lock_condition_wakeup(&condition_), 0);
    done.acquire();
    setrlimit(RLIMIT_NOFILE, &limit);
    end.release();
    EXPECT_EQ(errors.text(), error + "pipe for claim failed !\033[0m (caller=\"taker:2\"" + by_init);
}

TEST_F(lock, null_is_reported_or_refused_and_memory_may_run_out)
{
    const kestal_test::caught_assertions reports;
    const std::string of_lock = "s_this_lock != ((kestal_lock_t *)0)";
    const std::string of_condition = "s_lock_condition != ((kestal_lock_condition_t *)0)";
    EXPECT_EQ(kestal_init_lock(nullptr), nullptr);
    EXPECT_EQ(kestal_init_lock_condition(nullptr), nullptr);
    EXPECT_EQ(kestal_uninit_lock(nullptr) + kestal_free_lock(nullptr), -2);
    EXPECT_EQ(kestal_uninit_lock_condition(nullptr) + kestal_free_lock_condition(nullptr), -2);
    EXPECT_EQ(reports.messages(), (std::vector{of_lock, of_condition, of_lock, of_lock, of_condition, of_condition}));
    EXPECT_EQ(kestal_try_lock(nullptr), 0);
    EXPECT_EQ(kestal_lock(nullptr) + kestal_unlock(nullptr) + kestal_lock_condition_wait(nullptr, nullptr), -3);
    EXPECT_EQ(kestal_lock_condition_wakeup(nullptr) + kestal_lock_condition_wakeup_broadcast(nullptr), -2);

    const auto scenario = [] {
        if (kestal_lock_t *made = kestal_new_lock_tag("maker", 8)) {
            EXPECT_STREQ(made->m_name, "maker");
            made->m_flags |= KESTAL_LOCK_RECURSIVE;
            EXPECT_EQ(kestal_lock(made) + kestal_lock(made), 0); // the second hold asks for memory until there is some
            EXPECT_EQ(kestal_unlock(made) + kestal_unlock(made), 0);
            EXPECT_EQ(kestal_free_lock(made), 0);
        }
        if (kestal_lock_condition_t *made = kestal_new_lock_condition())
            kestal_free_lock_condition(made);
    };
    EXPECT_EQ(kestal_test::with_each_allocation_failing(scenario), 3u);
    EXPECT_EQ(kestal_free_lock(&lock_), 0); // not allocated: only ended
}

TEST_F(lock, many_threads_take_turns)
{
    constexpr size_t count = 8, rounds = 300;
    size_t turn = 0;
    lock_.m_flags |= KESTAL_LOCK_RECURSIVE;
    kestal_test::on_threads(count, [&](size_t thread) {
        for (size_t i = 0; i < rounds; ++i) {
            for (size_t tries = thread % 3; tries > 0; --tries)
                if (take(1) == 0)
                    give();
            EXPECT_EQ(take(), 0);
            while (turn % count != thread)
                EXPECT_EQ(sleep(thread % 2 == 0 ? 1 : forever), 0);
            EXPECT_EQ(kestal_try_lock(&lock_), 1);
            ++turn;
            kestal_lock_condition_wakeup_broadcast(&condition_);
            give(2);
        }
    });
    EXPECT_EQ(turn, count * rounds);
    EXPECT_EQ(kestal_uninit_lock_condition(&condition_) + kestal_uninit_lock(&lock_), 0);
}

TEST_F(lock, a_condition_wakes_in_order)
{
    EXPECT_EQ(kestal_lock_condition_wakeup(&condition_), -1); // nobody there, and not remembered
    EXPECT_EQ(kestal_lock_condition_wakeup_broadcast(&condition_), -1);
    std::vector<std::jthread> threads;
    while (threads.size() < 6) {
        threads.emplace_back([&] {
            EXPECT_EQ(take() + sleep(), 0);
            give();
        });
        wait_until([&] { return sleepers() == threads.size(); });
    }
    EXPECT_EQ(kestal_lock_condition_wakeup(&condition_), 0);
    threads[0].join();
    ASSERT_EQ(take(), 0);
    for (int i = 0; i < 2; ++i) // two wake-ups at once reach two waiters
        EXPECT_EQ(kestal_lock_condition_wakeup(&condition_), 0);
    give();
    threads[1].join();
    threads[2].join();
    EXPECT_EQ(sleepers(), 3u);
    EXPECT_EQ(kestal_lock_condition_wakeup_broadcast(&condition_), 0);
    threads.clear();
    std::jthread late([&] { EXPECT_EQ(kestal_lock_condition_wait(&condition_, nullptr), 0); });
    wait_until([&] { return sleepers() == 1; });
    EXPECT_EQ(kestal_uninit_lock_condition(&condition_), 0); // sends off who still waits
}

TEST_F(lock, waits_that_run_out_are_never_early)
{
    for (const uint32_t timeout : {0u, 1u, 50u}) {
        ASSERT_EQ(take(), 0);
        const uint64_t start = kestal_time_stamp_nsec();
        EXPECT_EQ(take(timeout), -1); // not recursive: even the holder waits
        EXPECT_EQ(sleep(timeout), 0); // and has the lock again
        EXPECT_GE(kestal_time_stamp_nsec() - start, 2000000u * timeout);
        give();
    }
}

} // namespace
