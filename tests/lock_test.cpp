#include "support.hpp"

#include <csignal>
#include <deque>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using kestal_test::caught_assertions;
using kestal_test::caught_errors;
using kestal_test::wait_until;

namespace {

using text_list = std::vector<std::string>;
using clock = std::chrono::steady_clock;

// The length of a list of waiters, looked at under its guard, whose word is left as it was.
template <typename Record>
uint64_t length(kestal_short_lock_t &guard, Record *&head)
{
    uint32_t before = 1;
    wait_until([&] { return (before = kestal_atomic_exchange(&guard, 1)) != 1; });
    const uint64_t count = kestal_linked_list_count(&head, KESTAL_LINK(Record, m_next));
    kestal_atomic_exchange(&guard, before);
    return count;
}

class lock : public kestal_test::counted {
protected:
    kestal_lock_t lock_ = KESTAL_LOCK_INITIALIZER("init", 1);
    kestal_lock_condition_t condition_{};

    uint64_t waiters() { return length(lock_.m_guard, lock_.m_waiter_head); }
    uint64_t sleepers() { return length(condition_.m_guard, condition_.m_waiter_head); }
    int32_t take(uint32_t timeout = KESTAL_LOCK_NO_TIMEOUT)
    {
        return kestal_lock_timeout_tag(&lock_, timeout, "taker", 2);
    }

    // A thread that asks for the held lock, stands in line when its constructor is done, and then does something.
    class waiter {
    public:
        explicit waiter(
            lock &test, uint32_t timeout = KESTAL_LOCK_NO_TIMEOUT, std::function<void()> then = [] {})
        {
            const uint64_t place = test.waiters() + 1;
            thread_ = std::thread([this, &test, timeout, then] {
                result_ = kestal_lock_timeout_tag(&test.lock_, timeout, "waiter", 3);
                then();
            });
            wait_until([&] { return test.waiters() == place; });
        }
        pthread_t handle() { return thread_.native_handle(); }
        int32_t join()
        {
            thread_.join();
            return result_;
        }

    private:
        int32_t result_ = 7;
        std::thread thread_;
    };
};

TEST_F(lock, is_handed_on_first_come_first_served)
{
    std::vector<int> order;
    std::deque<waiter> line;
    ASSERT_EQ(take(), 0);
    for (int i = 0; i < 8; ++i)
        line.emplace_back(*this, i % 2 == 0 ? KESTAL_LOCK_NO_TIMEOUT : 60000, [&, i] {
            order.push_back(i);
            EXPECT_EQ(kestal_unlock(&lock_), 0);
        });
    EXPECT_EQ(kestal_unlock(&lock_), 0);
    for (waiter &each : line)
        EXPECT_EQ(each.join(), 0);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(take(0), 0);
    EXPECT_EQ(kestal_unlock(&lock_), 0);
    EXPECT_EQ(kestal_unlock(&lock_), -1);
}

TEST_F(lock, newcomers_do_not_pass_a_waiter_that_cannot_be_woken)
{
    const caught_errors errors;
    lock_.m_flags |= KESTAL_LOCK_WARNINGS;
    ASSERT_EQ(take(), 0);
    waiter first(*this, 300, [this] { kestal_unlock(&lock_); });
    const int unwritable = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int kept = dup(lock_.m_waiter_head->m_pipe[1]);
    dup2(unwritable, lock_.m_waiter_head->m_pipe[1]);
    EXPECT_EQ(kestal_unlock_tag(&lock_, "unlocker", 4), 0);
    EXPECT_EQ(kestal_try_lock(&lock_), 0); // free, but somebody waits
    EXPECT_EQ(kestal_uninit_lock_tag(&lock_, "ender", 5), 0);
    EXPECT_EQ(first.join(), 0); // found the lock free when its time was up
    EXPECT_EQ(errors.text().rfind("kestal_lock: [ERROR] \033[1;31m__kestal_wakeup_lock_claim failed by unlock !\033[0m "
                                  "(caller=\"unlocker:4\", wakeup_claim=\"waiter:3\", recursive_count=0, "
                                  "wait_count=1, initialized by \"init:1\")\n"
                                  "kestal_lock: [WARNING] pending lock wait... (wait by \"waiter:3\", "
                                  "recursive_count=0, wait_count=1, caller=\"ender:5\", initialized by \"init:1\")\n",
                                  0),
              0u);
    close(kept);
    close(unwritable);
}

TEST_F(lock, recursion_is_for_the_owner_of_a_recursive_lock)
{
    ASSERT_EQ(take(), 0);
    const auto start = clock::now();
    EXPECT_EQ(take(50), -1); // not recursive: even the holder waits
    EXPECT_GE(clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(kestal_unlock(&lock_), 0);

    lock_.m_flags |= KESTAL_LOCK_RECURSIVE;
    EXPECT_EQ(take(), 0);
    waiter other(*this);
    EXPECT_EQ(take(), 0);
    EXPECT_EQ(kestal_try_lock(&lock_), 1); // past the waiter
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(waiters(), 1u);
        EXPECT_EQ(kestal_unlock(&lock_), 0);
    }
    EXPECT_EQ(other.join(), 0);
    EXPECT_EQ(kestal_try_lock(&lock_), 0); // another thread's now; anybody may unlock it
    EXPECT_EQ(kestal_unlock(&lock_), 0);
}

TEST_F(lock, messages_follow_the_flags)
{
    const struct {
        uint32_t flags;
        bool warnings, errors;
    } cases[] = {{0, false, false}, {0x10, true, true}, {0x20, true, true}, {0x40, false, true}};
    for (const auto &[flags, warns, reports] : cases) {
        SCOPED_TRACE(flags);
        const caught_errors errors;
        lock_.m_flags = 0x180 | flags;
        EXPECT_EQ(kestal_unlock_tag(&lock_, "unlocker", 4), -1);
        std::string expected;
        if (reports)
            expected += "kestal_lock: [ERROR] \033[1;31munlock failed !\033[0m (no-owner, recursive_count=0, "
                        "wait_count=0, caller=\"unlocker:4\", initialized by \"init:1\")\n";
        EXPECT_EQ(errors.text(), expected);

        ASSERT_EQ(take(), 0);
        if (!warns) {
            const kestal_test::failing_allocation failing(1, 64);
            EXPECT_EQ(take(), -1);
        }
        if (reports && !warns)
            expected += "kestal_lock: [ERROR] \033[1;31m__kestal_new_lock_claim failed !\033[0m (caller=\"taker:2\", "
                        "initialized by \"init:1\")\n";
        EXPECT_EQ(errors.text(), expected);

        std::thread opener([&] {
            wait_until([&] { return !warns || errors.text().size() > expected.size(); });
            kestal_unlock(&lock_);
        });
        EXPECT_EQ(kestal_uninit_lock_tag(&lock_, "ender", 5), 0);
        opener.join();
        if (warns)
            expected += "kestal_lock: [WARNING] pending lock wait... (locked by \"taker:2\", recursive_count=1, "
                        "wait_count=0, caller=\"ender:5\", initialized by \"init:1\")\n";
        EXPECT_EQ(errors.text().substr(0, expected.size()), expected);
        EXPECT_EQ(errors.text().empty(), flags == 0);
    }
}

TEST_F(lock, endless_waits_warn_of_a_dead_lock_and_go_on)
{
    const caught_errors errors;
    const std::string id = std::to_string(kestal_get_thread_id());
    lock_.m_flags |= KESTAL_LOCK_RECURSIVE;
    lock_.m_default_timeout = 1;
    ASSERT_EQ(take(), 0);
    ASSERT_EQ(kestal_lock_timeout_tag(&lock_, 0, "again", 6), 0);
    waiter other(*this);
    errors.wait_for("taker:2");
    const std::string text = errors.text();
    EXPECT_EQ(text.rfind("kestal_lock: [WARNING] \033[1;31mdead-lock !\033[0m (duration=", 0), 0u);
    EXPECT_NE(text.find(", caller=\"waiter:3\", recursive_count=2, wait_count=1, initialized by \"init:1\")\n"
                        "  - locked by \"again:6\" (thread_id=" +
                        id +
                        ", initialized by \"init:1\")\n"
                        "  - locked by \"taker:2\" (thread_id=" +
                        id + ", initialized by \"init:1\")\n"),
              std::string::npos);
    EXPECT_EQ(kestal_unlock(&lock_), 0);
    EXPECT_EQ(kestal_unlock(&lock_), 0);
    EXPECT_EQ(other.join(), 0);

    // The end of a lock that is in use says who uses it, and waits on.
    std::thread ender([&] { EXPECT_EQ(kestal_uninit_lock_tag(&lock_, "ender", 5), 0); });
    errors.wait_for("kestal_lock: [ERROR] \033[1;31mpending lock wait !\033[0m (recursive_count=1, wait_count=0, "
                    "caller=\"ender:5\", initialized by \"init:1\")\n  - locked by \"waiter:3\" (thread_id=");
    waiter last(*this, 60000);
    kestal_test::advance_clock(4000);
    errors.wait_for("  - wait by \"waiter:3\" (thread_id=");
    EXPECT_EQ(kestal_unlock(&lock_), 0);
    EXPECT_EQ(last.join(), 0);
    EXPECT_EQ(kestal_unlock(&lock_), 0);
    ender.join();
}

TEST_F(lock, waiters_outlive_signals_and_broken_pipes)
{
    struct sigaction action {
    }, previous{};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &previous);
    const caught_errors errors;
    lock_.m_flags |= KESTAL_LOCK_WARNINGS;
    ASSERT_EQ(take(), 0);
    waiter interrupted(*this), second(*this);
    while (errors.text().empty())
        pthread_kill(interrupted.handle(), SIGUSR1);
    EXPECT_EQ(errors.text().rfind("kestal_lock: [WARNING] \033[1;31mlock pending !\033[0m (interrupted or error, "
                                  "caller=\"waiter:3\", initialized by \"init:1\")\n",
                                  0),
              0u);
    uint32_t before = 1;
    wait_until([&] { return (before = kestal_atomic_exchange(&lock_.m_guard, 1)) != 1; });
    close(std::exchange(lock_.m_waiter_tail->m_pipe[1], -1));
    kestal_atomic_exchange(&lock_.m_guard, before);
    errors.wait_for("lock pending !\033[0m (broken pipe, caller=\"waiter:3\", initialized by \"init:1\")\n");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(kestal_unlock(&lock_), 0);
        EXPECT_EQ((i == 0 ? interrupted : second).join(), 0);
    }
    EXPECT_EQ(kestal_unlock(&lock_), 0);
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST_F(lock, without_descriptors_waiters_look_for_themselves)
{
    const caught_errors errors;
    lock_.m_flags |= KESTAL_LOCK_ERRORS;
    std::atomic<int> stage{0};
    std::thread waiting([&] {
        stage = 1;
        wait_until([&] { return stage == 2; });
        EXPECT_EQ(take(), 0);
        EXPECT_EQ(kestal_lock_condition_wait(&condition_, &lock_), 0);
        EXPECT_EQ(kestal_unlock(&lock_), 0);
        stage = 3;
        wait_until([&] { return stage == 4; });
    });
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(kestal_lock(&lock_), 0);
    wait_until([&] { return stage == 1; });
    setrlimit(RLIMIT_NOFILE, &none);
    stage = 2;
    wait_until([&] { return waiters() == 1; });
    EXPECT_EQ(kestal_unlock(&lock_), 0);
    wait_until([&] { return sleepers() == 1; });
    EXPECT_EQ(kestal_lock_condition_wakeup(&condition_), 0);
    wait_until([&] { return stage == 3; });
    setrlimit(RLIMIT_NOFILE, &limit);
    stage = 4;
    waiting.join();
    EXPECT_EQ(errors.text(), "kestal_lock: [ERROR] \033[1;31mpipe for claim failed !\033[0m (caller=\"taker:2\", "
                             "initialized by \"init:1\")\n");
}

TEST_F(lock, null_is_reported_or_refused)
{
    const caught_assertions reports;
    EXPECT_EQ(kestal_init_lock(nullptr), nullptr);
    EXPECT_EQ(kestal_uninit_lock(nullptr), -1);
    EXPECT_EQ(kestal_free_lock(nullptr), -1);
    EXPECT_EQ(kestal_init_lock_condition(nullptr), nullptr);
    EXPECT_EQ(kestal_uninit_lock_condition(nullptr), -1);
    EXPECT_EQ(kestal_free_lock_condition(nullptr), -1);
    text_list expected(3, "s_this_lock != ((kestal_lock_t *)0)");
    expected.insert(expected.end(), 3, "s_lock_condition != ((kestal_lock_condition_t *)0)");
    EXPECT_EQ(reports.messages(), expected);
    EXPECT_EQ(kestal_lock(nullptr), -1);
    EXPECT_EQ(kestal_try_lock(nullptr), 0);
    EXPECT_EQ(kestal_unlock(nullptr), -1);
    EXPECT_EQ(kestal_lock_condition_wait(nullptr, nullptr), -1);
    EXPECT_EQ(kestal_lock_condition_wakeup(nullptr), -1);
    EXPECT_EQ(kestal_lock_condition_wakeup_broadcast(nullptr), -1);
}

TEST_F(lock, memory_may_run_out)
{
    const auto scenario = [] {
        kestal_lock_t *made = kestal_new_lock_tag("maker", 8);
        kestal_lock_condition_t *condition = kestal_new_lock_condition();
        if (made != nullptr) {
            EXPECT_STREQ(made->m_name, "maker");
            made->m_flags |= KESTAL_LOCK_RECURSIVE;
            EXPECT_EQ(kestal_lock(made), 0);
            EXPECT_EQ(kestal_lock(made), 0); // memory for the hold is asked for again until there is some
            EXPECT_EQ(kestal_unlock(made), 0);
            EXPECT_EQ(kestal_unlock(made), 0);
            EXPECT_EQ(kestal_free_lock(made), 0);
        }
        if (condition != nullptr) {
            EXPECT_EQ(kestal_free_lock_condition(condition), 0);
        }
    };
    EXPECT_GE(kestal_test::with_each_allocation_failing(scenario), 3u);
    EXPECT_EQ(kestal_free_lock(&lock_), 0); // not allocated: only ended
}

TEST_F(lock, many_threads_take_turns)
{
    constexpr int rounds = 1000;
    int count = 0;
    std::atomic<int> given_up{0};
    lock_.m_flags |= KESTAL_LOCK_RECURSIVE;
    std::vector<std::thread> threads;
    for (int t = 0; t < 12; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) {
                if (take(t % 3 == 0 ? 1 : KESTAL_LOCK_NO_TIMEOUT) != 0) {
                    ++given_up;
                    continue;
                }
                EXPECT_EQ(kestal_try_lock(&lock_), 1);
                ++count;
                EXPECT_EQ(kestal_unlock(&lock_), 0);
                EXPECT_EQ(kestal_unlock(&lock_), 0);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(count + given_up, 12 * rounds);
    EXPECT_GE(count, 8 * rounds);
    EXPECT_EQ(kestal_uninit_lock(&lock_), 0);
}

// --- the condition

TEST_F(lock, a_condition_wakes_in_order)
{
    EXPECT_EQ(kestal_lock_condition_wakeup(&condition_), -1); // nobody there, and not remembered
    EXPECT_EQ(kestal_lock_condition_wakeup_broadcast(&condition_), -1);
    std::vector<int> order;
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([&, i] {
            EXPECT_EQ(take(), 0);
            EXPECT_EQ(kestal_lock_condition_wait(&condition_, &lock_), 0);
            order.push_back(i);
            EXPECT_EQ(kestal_unlock(&lock_), 0);
        });
        wait_until([&] { return sleepers() == static_cast<uint64_t>(i) + 1; });
    }
    EXPECT_EQ(kestal_lock_condition_wakeup(&condition_), 0);
    threads[0].join();
    ASSERT_EQ(take(), 0);
    EXPECT_EQ(kestal_lock_condition_wakeup(&condition_), 0); // two wake-ups at once reach two waiters
    EXPECT_EQ(kestal_lock_condition_wakeup(&condition_), 0);
    EXPECT_EQ(kestal_unlock(&lock_), 0);
    threads[1].join();
    threads[2].join();
    EXPECT_EQ(sleepers(), 3u);
    EXPECT_EQ(kestal_lock_condition_wakeup_broadcast(&condition_), 0);
    for (int i = 3; i < 6; ++i)
        threads[static_cast<size_t>(i)].join();
    ASSERT_EQ(order.size(), 6u);
    EXPECT_EQ(order[0], 0);
    EXPECT_EQ(order[1] + order[2], 3);
}

TEST_F(lock, a_wait_that_runs_out_returns_0_with_the_lock_held)
{
    ASSERT_EQ(take(), 0);
    const auto start = clock::now();
    EXPECT_EQ(kestal_lock_condition_wait_timeout(&condition_, &lock_, 100), 0);
    EXPECT_GE(clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_EQ(kestal_try_lock(&lock_), 0);
    EXPECT_EQ(kestal_unlock(&lock_), 0);
    EXPECT_EQ(kestal_lock_condition_wait_timeout(&condition_, nullptr, 0), 0);
    EXPECT_EQ(kestal_try_lock(&lock_), 1);
    EXPECT_EQ(kestal_unlock(&lock_), 0);
}

TEST_F(lock, the_end_of_a_condition_sends_its_waiters_off)
{
    kestal_init_lock_condition_tag(&condition_, "init", 1);
    EXPECT_STREQ(condition_.m_name, "init");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] { EXPECT_EQ(kestal_lock_condition_wait(&condition_, nullptr), 0); });
    wait_until([&] { return sleepers() == 4; });
    EXPECT_EQ(kestal_uninit_lock_condition(&condition_), 0);
    for (std::thread &thread : threads)
        thread.join();
}

TEST_F(lock, a_queue_passes_everything_through)
{
    constexpr int each = 500, pairs = 6;
    std::deque<int> queue;
    kestal_lock_condition_t filled{}, emptied{};
    std::atomic<int64_t> sum{0};
    std::vector<std::thread> threads;
    const auto pass = [&](kestal_lock_condition_t &awaited, kestal_lock_condition_t &told, auto ready, auto work) {
        for (int i = 1; i <= each; ++i) {
            EXPECT_EQ(take(), 0);
            while (!ready())
                EXPECT_EQ(kestal_lock_condition_wait(&awaited, &lock_), 0);
            work(i);
            kestal_lock_condition_wakeup(&told);
            EXPECT_EQ(kestal_unlock(&lock_), 0);
        }
    };
    for (int p = 0; p < pairs; ++p) {
        threads.emplace_back(
            pass, std::ref(emptied), std::ref(filled), [&] { return queue.size() < 4; },
            [&](int i) { queue.push_back(i); });
        threads.emplace_back(
            pass, std::ref(filled), std::ref(emptied), [&] { return !queue.empty(); },
            [&](int) {
                sum += queue.front();
                queue.pop_front();
            });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(sum, int64_t{pairs} * each * (each + 1) / 2);
}

} // namespace
