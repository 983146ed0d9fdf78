#include "support.hpp"

#include <csignal>
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

    // Takes a guard; gives the word to be put back.
    static uint32_t taken(kestal_short_lock_t &guard)
    {
        uint32_t before = 1;
        wait_until([&] { return (before = kestal_atomic_exchange(&guard, 1)) != 1; });
        return before;
    }
    template <typename Record>
    static uint64_t length(kestal_short_lock_t &guard, Record *&head)
    {
        const uint32_t before = taken(guard);
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
    std::jthread queue_up(std::function<void()> then)
    {
        const uint64_t place = waiters() + 1;
        std::jthread thread([this, then] {
            EXPECT_EQ(kestal_lock_timeout_tag(&lock_, forever, "waiter", 4), 0);
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
    for (int i = 0; i < 8; ++i)
        line.push_back(queue_up([&, i] { order.push_back(i), give(); }));
    give();
    line.clear();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(kestal_unlock(&lock_), -1);
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
    const std::string text = kestal_test::numbers_masked(errors.text(), "duration="); // it may have come again
    EXPECT_TRUE(text.starts_with(
        warning + "dead-lock !\033[0m (duration=N, caller=\"waiter:4\", recursive_count=2, wait_count=1" + by_init +
        "  - locked by \"again:6\"" + held + "  - locked by \"taker:2\"" + held))
        << text;
    give(2);
    other.join();

    // The end of a lock that is in use says who uses it, and waits on.
    std::jthread ender([&] { EXPECT_EQ(kestal_uninit_lock_tag(&lock_, "ender", 5), 0); });
    errors.wait_for(error + "pending lock wait !\033[0m (recursive_count=1, wait_count=0, caller=\"ender:5\"" +
                    by_init + "  - locked by \"waiter:4\" (thread_id=");
    give();
}

TEST_F(lock, waiters_outlive_signals_and_broken_pipes_and_are_not_passed)
{
    static std::atomic<bool> held_up, stands_still;
    held_up = stands_still = false;
    kestal_exchange_signal(SIGUSR1, 0, [](int) {
        while (held_up)
            stands_still = true;
    });
    const caught_errors errors;
    lock_.m_flags |= KESTAL_LOCK_WARNINGS;
    ASSERT_EQ(take(), 0);
    std::jthread interrupted = queue_up([] {}), second = queue_up([] {});
    while (errors.text().empty())
        pthread_kill(interrupted.native_handle(), SIGUSR1);
    errors.wait_for(warning + "lock pending !\033[0m (interrupted or error, caller=\"waiter:4\"" + by_init);
    close(std::exchange(lock_.m_waiter_tail->m_pipe[1], -1));
    errors.wait_for("lock pending !\033[0m (broken pipe, caller=\"waiter:4\"" + by_init);
    const uint32_t word = taken(lock_.m_guard); // so that the waiter is held up without it
    held_up = true;
    pthread_kill(interrupted.native_handle(), SIGUSR1);
    wait_until([] { return stands_still.load(); });
    kestal_atomic_exchange(&lock_.m_guard, word);
    give();
    EXPECT_EQ(kestal_try_lock(&lock_), 0); // free, but somebody waits
    held_up = false;
    interrupted.join();
    give();
    second.join();
}

TEST_F(lock, null_is_reported_or_refused_and_memory_may_run_out)
{
    const kestal_test::caught_assertions reports;
    EXPECT_EQ(kestal_free_lock(kestal_init_lock(nullptr)), -1);
    EXPECT_EQ(kestal_free_lock_condition(kestal_init_lock_condition(nullptr)), -1);
    const std::set<std::string> expected = {"s_this_lock != ((kestal_lock_t *)0)",
                                            "s_lock_condition != ((kestal_lock_condition_t *)0)"};
    EXPECT_EQ(reports.distinct(), expected);
    EXPECT_EQ(kestal_lock(nullptr) + kestal_unlock(nullptr) + kestal_lock_condition_wait(nullptr, nullptr), -3);
    EXPECT_EQ(kestal_lock_condition_wakeup(nullptr) + kestal_lock_condition_wakeup_broadcast(nullptr), -2);

    const auto scenario = [] {
        if (kestal_lock_t *made = kestal_new_lock()) {
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
    std::vector<std::jthread> threads;
    while (threads.size() < 6) {
        threads.emplace_back([&] {
            EXPECT_EQ(take() + sleep(), 0);
            give();
        });
        wait_until([&] { return sleepers() == threads.size(); });
    }
    ASSERT_EQ(take(), 0);
    for (int i = 0; i < 3; ++i) // three wake-ups at once reach three waiters
        EXPECT_EQ(kestal_lock_condition_wakeup(&condition_), 0);
    give();
    for (const size_t first : {0u, 1u, 2u})
        threads[first].join();
    EXPECT_EQ(sleepers(), 3u);
    EXPECT_EQ(kestal_lock_condition_wakeup_broadcast(&condition_), 0);
    threads.clear();
    std::jthread late([&] { EXPECT_EQ(kestal_lock_condition_wait(&condition_, nullptr), 0); });
    wait_until([&] { return sleepers() == 1; });
    EXPECT_EQ(kestal_uninit_lock_condition(&condition_), 0); // sends off who still waits
}

TEST_F(lock, waits_that_run_out_are_never_early)
{
    ASSERT_EQ(take(), 0);
    const uint64_t start = kestal_time_stamp_nsec();
    EXPECT_EQ(take(50), -1); // not recursive: even the holder waits
    EXPECT_EQ(sleep(50), 0); // and has the lock again
    EXPECT_GE(kestal_time_stamp_nsec() - start, 100000000u);
    give();
}

} // namespace
