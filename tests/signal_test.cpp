#include "support.hpp"

#include <csignal>
#include <memory>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
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
        kestal_exchange_signal(SIGUSR1, 0, prior_);
    }
    void TearDown() override
    {
        kestal_restore_all_signal();
        EXPECT_EQ(kestal_get_last_signum(), -1);
        EXPECT_EQ(kestal_exchange_signal(SIGUSR1, 0, SIG_IGN), prior_) << "the prior action was not put back";
        counted::TearDown();
    }

    static std::vector<int> seen() { return {calls, calls + call_count}; }

    int one_ = 1, two_ = 2, three_ = 3;
    const kestal_plain_signal_handler_t prior_ = [](int) { ++prior_calls; };
};

TEST_F(signal, handlers_are_called_in_order_and_counted)
{
    kestal_signal_node_t *first = kestal_add_signal(SIGUSR1, note, &one_);
    EXPECT_NE(kestal_add_signal(SIGUSR1, note, &two_), nullptr);
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
    EXPECT_EQ(kestal_reset_signal_count(SIGUSR1), 2);

    EXPECT_EQ(kestal_del_signal(first) + kestal_del_signal(third), 0); // the dispatcher stays, the prior action is kept
    raise(SIGUSR1);
    EXPECT_EQ(seen().back() + prior_calls, 1002);
    EXPECT_EQ(kestal_reset_all_signal_count(), 1u);
    kestal_restore_signal(SIGUSR1); // with a handler attached
    raise(SIGUSR1);
    EXPECT_EQ(call_count, 6u);
    EXPECT_EQ(prior_calls, 1);
}

TEST_F(signal, a_crash_stays_one)
{
    const auto crash = [this] {
        prctl(PR_SET_DUMPABLE, 0);
        kestal_exchange_signal(SIGSEGV, 0, SIG_DFL); // a sanitizer has its own
        kestal_add_signal(SIGSEGV, note, &one_);
        raise(SIGSEGV);
        if (call_count == 1) // one that is sent is no crash
            *static_cast<volatile char *>(mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
    };
    EXPECT_EXIT(crash(), testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(signal, bad_arguments_are_refused)
{
    for (const uint32_t number : {65u, uint32_t{SIGKILL}})
        EXPECT_EQ(kestal_add_signal(number, note, &one_), nullptr);
    EXPECT_EQ(kestal_add_signal(SIGUSR1, nullptr, &one_), nullptr);
    EXPECT_EQ(kestal_get_signal_count(65), 0u);
    EXPECT_EQ(kestal_reset_signal_count(65) + kestal_del_signal(nullptr), -2);
    EXPECT_EQ(kestal_get_signal_node_count(nullptr) + kestal_reset_signal_node_count(nullptr), -2);
    EXPECT_EQ(kestal_exchange_signal(SIGKILL, 0, SIG_IGN), SIG_ERR);
    const auto scenario = [this] { kestal_del_signal(kestal_add_signal(SIGUSR1, note, &one_)); };
    EXPECT_EQ(kestal_test::with_each_allocation_failing(scenario), 1u);
    const kestal_test::caught_errors errors;
    EXPECT_EQ(kestal_unblock_signal(1000), -1);
    EXPECT_NE(errors.text().find("kestal_unblock_signal:"), std::string::npos) << errors.text();
}

TEST_F(signal, handlers_come_and_go_while_signals_arrive_everywhere)
{
    std::atomic<int> delivered{0};
    const auto count = [](int32_t, void *argument) { ++*static_cast<std::atomic<int> *>(argument); };
    kestal_add_signal(SIGUSR1, count, &delivered);
    std::vector<std::jthread> changers;
    for (int t = 0; t < 4; ++t)
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
        pthread_kill(changers[i % 4].native_handle(), SIGUSR1);
    changers.clear();
    EXPECT_GE(delivered, 1200);
    EXPECT_EQ(kestal_get_signal_count(SIGUSR1), static_cast<uint32_t>(delivered.load()));
}

} // namespace
