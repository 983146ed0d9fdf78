#include "support.hpp"

#include <csignal>
#include <memory>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// What the handlers saw: the signal number times 100 and the argument. In place, since handlers must not allocate.
int calls[16];
size_t call_count = 0;

void note(int32_t number, void *argument)
{
    calls[call_count++ % std::size(calls)] = number * 100 + *static_cast<int *>(argument);
}

int prior_calls = 0;

class signal : public kestal_test::counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        call_count = 0;
        prior_calls = 0;
        prior_ = [](int) { ++prior_calls; };
        before_ = kestal_exchange_signal(SIGUSR1, 0, prior_);
    }
    void TearDown() override
    {
        kestal_restore_all_signal();
        EXPECT_EQ(kestal_get_last_signum(), -1);
        EXPECT_EQ(kestal_exchange_signal(SIGUSR1, 0, before_), prior_) << "the prior action was not put back";
        counted::TearDown();
    }

    static std::vector<int> seen() { return {calls, calls + call_count}; }

    int one_ = 1, two_ = 2, three_ = 3;

private:
    kestal_plain_signal_handler_t prior_ = SIG_DFL, before_ = SIG_DFL;
};

TEST_F(signal, handlers_are_called_in_order_and_counted)
{
    kestal_signal_node_t *first = kestal_add_signal(SIGUSR1, note, &one_);
    kestal_signal_node_t *second = kestal_add_signal(SIGUSR1, note, &two_);
    raise(SIGUSR1);
    kestal_signal_node_t *third = kestal_add_signal(SIGUSR1, note, &three_);
    EXPECT_EQ(kestal_block_signal(SIGUSR1), 0);
    raise(SIGUSR1);
    EXPECT_EQ(seen(), (std::vector<int>{1001, 1002}));
    EXPECT_EQ(kestal_unblock_signal(SIGUSR1), 0);
    EXPECT_EQ(seen(), (std::vector<int>{1001, 1002, 1001, 1002, 1003}));
    EXPECT_EQ(kestal_get_signal_count(SIGUSR1), 2u);
    EXPECT_EQ(kestal_get_signal_node_count(first) + kestal_reset_signal_node_count(third), 3);
    EXPECT_EQ(kestal_get_signal_node_count(third), 0);
    EXPECT_EQ(kestal_get_last_signum(), SIGUSR1);

    EXPECT_EQ(kestal_del_signal(first) + kestal_del_signal(third), 0); // the dispatcher stays, the prior action is kept
    raise(SIGUSR1);
    EXPECT_EQ(seen().back() + prior_calls, 1002);
    EXPECT_EQ(kestal_del_signal(second), 0);
    EXPECT_EQ(kestal_get_signal_count(SIGUSR1), 0u);
    EXPECT_EQ(kestal_get_last_signum(), -1);
    raise(SIGUSR1);
    EXPECT_EQ(call_count, 6u);
    EXPECT_EQ(prior_calls, 1);
}

TEST_F(signal, a_crash_stays_one)
{
    const auto before = kestal_exchange_signal(SIGSEGV, 0, SIG_DFL);
    kestal_add_signal(SIGSEGV, note, &one_);
    void *page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        prctl(PR_SET_DUMPABLE, 0);
        raise(SIGSEGV);
        if (call_count == 1) // one that is sent is no crash
            *static_cast<volatile char *>(page) = 1;
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
    munmap(page, 1);
    kestal_restore_signal(SIGSEGV);
    kestal_exchange_signal(SIGSEGV, 0, before);
}

TEST_F(signal, restoring_detaches_everything_and_counts_are_reset_apart)
{
    const auto before = kestal_exchange_signal(SIGUSR2, 0, SIG_IGN);
    for (int *argument : {&one_, &two_})
        for (const uint32_t number : {uint32_t{SIGUSR1}, uint32_t{SIGUSR2}})
            EXPECT_NE(kestal_add_signal(number, note, argument), nullptr);
    for (const int number : {SIGUSR1, SIGUSR2, SIGUSR2})
        raise(number);
    EXPECT_EQ(kestal_reset_signal_count(SIGUSR1), 1);
    kestal_restore_signal(SIGUSR1); // not the last one delivered
    EXPECT_EQ(kestal_get_last_signum(), SIGUSR2);
    raise(SIGUSR1);
    EXPECT_EQ(prior_calls, 1);
    EXPECT_EQ(kestal_reset_all_signal_count(), 2u);
    EXPECT_EQ(kestal_get_last_signum(), -1);
    raise(SIGUSR2);
    EXPECT_EQ(kestal_get_signal_count(SIGUSR2), 1u);
    kestal_restore_all_signal();
    raise(SIGUSR2);
    EXPECT_EQ(call_count, 8u);
    EXPECT_EQ(kestal_exchange_signal(SIGUSR2, SA_RESTART | SA_SIGINFO, before), SIG_IGN);
}

TEST_F(signal, bad_arguments_are_refused)
{
    for (const uint32_t number : {65u, uint32_t{SIGKILL}, 0u})
        EXPECT_EQ(kestal_add_signal(number, note, &one_), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kestal_add_signal(SIGUSR1, nullptr, &one_), nullptr);
    EXPECT_EQ(kestal_get_signal_count(65), 0u);
    for (const int32_t result :
         {kestal_reset_signal_count(65), kestal_reset_signal_count(-1), kestal_del_signal(nullptr),
          kestal_get_signal_node_count(nullptr), kestal_reset_signal_node_count(nullptr)})
        EXPECT_EQ(result, -1);
    kestal_restore_signal(65);
    EXPECT_EQ(kestal_exchange_signal(SIGKILL, 0, SIG_IGN), SIG_ERR);
    const auto scenario = [this] { kestal_del_signal(kestal_add_signal(SIGUSR1, note, &one_)); };
    EXPECT_EQ(kestal_test::with_each_allocation_failing(scenario), 1u);
    const kestal_test::caught_errors errors;
    EXPECT_EQ(kestal_block_signal(1000) + kestal_unblock_signal(1000), -2);
    for (const char *part : {"kestal_block_signal:", "kestal_unblock_signal:", "sigaddset"})
        EXPECT_NE(errors.text().find(part), std::string::npos) << part;
}

TEST_F(signal, handlers_come_and_go_while_signals_arrive_everywhere)
{
    std::atomic<bool> stop{false};
    std::atomic<int> delivered{0};
    const auto count = [](int32_t, void *argument) { ++*static_cast<std::atomic<int> *>(argument); };
    kestal_add_signal(SIGUSR1, count, &delivered);
    std::vector<std::jthread> targets, changers;
    for (int t = 0; t < 4; ++t)
        targets.emplace_back([&] { kestal_test::wait_until([&] { return stop.load(); }); });
    for (int t = 0; t < 3; ++t)
        changers.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                const auto mine = std::make_unique<std::atomic<int>>(0); // gone the moment the handler is
                kestal_signal_node_t *node = kestal_add_signal(SIGUSR1, count, mine.get());
                raise(SIGUSR1);
                EXPECT_GE(*mine, 1);
                kestal_del_signal(node);
            }
        });
    for (size_t i = 0; i < 3000; ++i)
        pthread_kill(targets[i % 4].native_handle(), SIGUSR1);
    changers.clear();
    stop = true;
    targets.clear();
    EXPECT_GE(delivered, 900);
    EXPECT_EQ(kestal_get_signal_count(SIGUSR1), static_cast<uint32_t>(delivered.load()));
}

} // namespace
