#include "descriptors.hpp"

#include <algorithm>
#include <csignal>
#include <deque>
#include <fcntl.h>
#include <random>
#include <semaphore>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using kestal_test::caught_errors;
using calls = std::vector<uint32_t>;

constexpr uint32_t reading = KESTAL_EVENT_READ, writing = KESTAL_EVENT_WRITE, persisting = KESTAL_EVENT_PERSIST;

void expect_told(const caught_errors &errors, std::initializer_list<const char *> parts)
{
    for (const char *part : parts)
        EXPECT_NE(errors.text().find(part), std::string::npos) << part << " in " << errors.text();
}

// A base of its own, with the blocks and descriptors back where they were at the end.
class event_base : public kestal_test::descriptors_counted {
protected:
    void SetUp() override
    {
        descriptors_counted::SetUp();
        base_ = kestal_new_event_base();
        ASSERT_NE(base_, nullptr);
    }
    void TearDown() override
    {
        kestal_free_event_base(base_);
        descriptors_counted::TearDown();
    }

    // Until nothing is left to do, without waiting; or until something was done.
    int32_t look() { return kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_NON_BLOCK); }
    int32_t serve() { return kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE); }

    kestal_event_base_t *base_ = nullptr;
};

using event = event_base;
using event_loop = event_base;
using event_service = event_base;
using event_buffer = event_base;

// An event with a body, that remembers what it was told.
struct told {
    explicit told(kestal_event_base_t *base, int32_t descriptor = -1, uint32_t flags = 0,
                  std::function<void(told &, uint32_t)> body = nullptr)
        : on(std::move(body)), handle(kestal_new_event(base, descriptor, flags, handler, this))
    {}
    ~told() { kestal_free_event(handle); }
    told(const told &) = delete;
    told &operator=(const told &) = delete;

    static void handler(kestal_event_t *, int32_t, uint32_t what, void *context)
    {
        told &self = *static_cast<told *>(context);
        self.what.push_back(what);
        if (self.on && (what & (KESTAL_EVENT_ASSIGNED | KESTAL_EVENT_UNASSIGNED)) == 0)
            self.on(self, what);
    }
    int32_t add(int32_t timeout_ms = -1) { return kestal_add_event(handle, timeout_ms); }
    // What came after the call of assign.
    calls come() const { return {what.begin() + 1, what.end()}; }

    calls what;
    std::function<void(told &, uint32_t)> on;
    kestal_event_t *handle;
};

struct pair_of_sockets {
    pair_of_sockets() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0); }
    ~pair_of_sockets() { std::for_each_n(ends, 2, kestal_close_socket); }
    pair_of_sockets(const pair_of_sockets &) = delete;
    pair_of_sockets &operator=(const pair_of_sockets &) = delete;

    void close_end(int end) { EXPECT_EQ(close(std::exchange(ends[end], -1)), 0); }
    void send() const { EXPECT_EQ(write(ends[1], "x", 1), 1); }
    void receive() { EXPECT_EQ(read(ends[0], &received, 1), 1); }

    int ends[2];
    char received;
};

// What is registered on enough descriptors to be waited for by a readiness list.
struct crowd {
    explicit crowd(kestal_event_base_t *base, size_t size = 300)
    {
        for (size_t i = 0; i < size; ++i) {
            pairs.emplace_back();
            members.emplace_back(base, pairs.back().ends[0], reading | persisting);
            EXPECT_EQ(members.back().add(), 0);
        }
    }
    std::deque<pair_of_sockets> pairs;
    std::deque<told> members;
};

TEST_F(event, ItsHandlerHearsOfAssignmentAndIsToldLastOfItsEnd)
{
    told timer(base_);
    EXPECT_EQ(timer.add(), 0);
    const caught_errors errors;
    EXPECT_EQ(kestal_assign_event(base_, timer.handle, -1, 0, told::handler, &timer), -1) << "registered";
    EXPECT_EQ(kestal_unassign_event(timer.handle), 0);
    EXPECT_EQ(timer.what, (calls{KESTAL_EVENT_ASSIGNED, KESTAL_EVENT_UNASSIGNED}));
    // A record of the caller's: from chance memory, and assigned twice without a leak.
    kestal_event_t record;
    memset(&record, 0xFF, sizeof(record));
    for (const char *host : {"host", "other"})
        ASSERT_EQ(kestal_set_event_with_resolver(&record, 3, 0xFEFF, nullptr, nullptr, "127.0.0.1", 7, host, 70000), 0);
    EXPECT_EQ(record.m_flags, 0x189Fu);
    EXPECT_EQ(kestal_add_event(&record, 0), -1);
    expect_told(errors, {"event is registered !", "kestal_add_event: [ERROR] event->m_base is null ! (event="});
    EXPECT_EQ(kestal_event_set_base(&record, base_), 0);
    EXPECT_EQ(kestal_free_event(&record), nullptr);
}

TEST_F(event, EveryCallReportsWhatTheEventLacks)
{
    kestal_event_t blank{};
    const std::function<int64_t(kestal_event_t *)> operations[] = {
        kestal_del_event, kestal_unassign_event,
        [](kestal_event_t *at) { return int64_t{kestal_event_pending(at, 1, nullptr)} - 1; },
        [this](kestal_event_t *at) { return kestal_event_set_base(at, base_); },
        [](kestal_event_t *at) { return kestal_event_enable_buffer(at, 3); }};
    for (const auto &operation : operations) {
        const caught_errors errors;
        EXPECT_EQ(operation(nullptr), -1);
        EXPECT_EQ(operation(&blank), -1);
        expect_told(errors, {": [ERROR] event is null !\n", ": [ERROR] event is not initialized ! (event="});
        EXPECT_EQ(errors.text().find(')'), std::string::npos) << "the report has no closing parenthesis";
    }
}

TEST_F(event, TimersDueTogetherComeInTheOrderOfAdding)
{
    std::string order;
    std::deque<told> timers;
    for (const int32_t timeout : {500000, 400000, 300000, -1}) { // the last, without a descriptor, is due at once
        const char name = "abcd"[timers.size()];
        timers.emplace_back(base_, -1, 0, [&order, name](told &, uint32_t) { order += name; });
        ASSERT_EQ(timers.back().add(timeout), 0);
    }
    int32_t left = -1;
    EXPECT_EQ(kestal_event_pending(timers[0].handle, 0x20, &left), 0x20u);
    EXPECT_GT(left, 400000);
    timers[1].add(1000000); // again from now
    for (const char *expected : {"d", "dac", "dacb"}) {
        EXPECT_EQ(look(), 0);
        EXPECT_EQ(order, expected);
        kestal_test::advance_clock(600000);
    }
    EXPECT_EQ(timers[2].come(), calls{KESTAL_EVENT_TIMEOUT});
}

TEST_F(event, OneLevelIsServedALookAndDrainedWhole)
{
    ASSERT_EQ(kestal_event_base_init_priority(base_, 3), 0);
    std::string order;
    told low(base_, -1, persisting, [&](told &, uint32_t) { order += 'l'; });
    told late(base_, -1, 0, [&](told &, uint32_t) { order += 'n'; });
    told high(base_, -1, 0, [&](told &, uint32_t) { order += 'h', kestal_active_event(late.handle, 1); });
    EXPECT_EQ(kestal_event_set_priority(high.handle, 0) | kestal_event_set_priority(late.handle, 0), 0);
    EXPECT_EQ(kestal_active_event(low.handle, 1) | kestal_active_event(high.handle, 1), 0);
    const caught_errors errors;
    EXPECT_EQ(kestal_event_set_priority(low.handle, 0) & kestal_event_set_priority(late.handle, 3), -1);
    EXPECT_EQ(kestal_event_base_init_priority(base_, 2), -1) << "something is active";
    EXPECT_EQ(serve(), 0);
    EXPECT_EQ(order, "hnl");

    kestal_event_set_priority(low.handle, 2);
    ASSERT_EQ(kestal_event_base_init_priority(base_, 2), 0);
    EXPECT_EQ(kestal_active_event(low.handle, 4), 0);
    EXPECT_EQ(low.handle->m_priority, 1u);
    expect_told(errors,
                {"already active event !", "s_priority >= max_priority !", "m_priority >= s_base->m_max_priority !"});
}

TEST_F(event, HandlersMayFreeTheirOwnEventAndOthers)
{
    for (const uint32_t persist : {0u, persisting}) {
        std::deque<told> timers;
        int calls_made = 0;
        for (int i = 0; i < 4; ++i) {
            timers.emplace_back(base_, -1, persist, [&](told &self, uint32_t) {
                ++calls_made;
                self.handle = kestal_free_event(self.handle);
                for (auto other = timers.begin(); other + 1 != timers.end(); ++other)
                    other->handle = kestal_free_event(other->handle);
            });
            timers.back().add(0);
        }
        EXPECT_EQ(look(), 0);
        EXPECT_EQ(calls_made, 2) << "the first freed all but the last";
        EXPECT_EQ(base_->m_event_count, 1u);
    }
}

TEST_F(event, SignalsComeUpAndEndTheLoopTheyInterrupt)
{
    told wrong(base_, 65, KESTAL_EVENT_SIGNAL);
    EXPECT_EQ(wrong.add(), -1);
    told watcher(base_, SIGUSR1, KESTAL_EVENT_SIGNAL | persisting, [](told &self, uint32_t) {
        if (self.what.size() > 2)
            kestal_event_base_break_loop(self.handle->m_base);
    });
    ASSERT_EQ(watcher.add(), 0);
    // The second comes after the look that finds the first, and before the byte that it wakes the loop with is read.
    told sender(base_, -1, 0, [](told &, uint32_t) { raise(SIGUSR1); });
    kestal_active_event(sender.handle, 1);
    raise(SIGUSR1);
    kestal_event_base_exit_loop(base_, 20000);
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    EXPECT_EQ(watcher.come(), (calls{KESTAL_EVENT_SIGNAL, KESTAL_EVENT_SIGNAL}));
    EXPECT_EQ(kestal_event_base_get_exit(base_), 0u) << "it waited";

    // One that interrupts the wait ends the loop; the next one finds its event.
    std::thread killer([main = pthread_self()] { pthread_kill(main, SIGUSR1); });
    int32_t result = 0;
    do
        result = serve();
    while (watcher.what.size() < 4 && (result == 0 || errno == EINTR));
    killer.join();
    EXPECT_EQ(watcher.what.size(), 4u);
}

TEST_F(event, OnceGoesWithItsCallAndPersistsUntilUnassigned)
{
    static calls heard;
    const auto note = [](kestal_event_t *at, int32_t, uint32_t what, void *frees) {
        heard.push_back(what);
        if (what == KESTAL_EVENT_TIMEOUT && frees != nullptr)
            kestal_free_event(at);
        else if (std::count(heard.begin(), heard.end(), KESTAL_EVENT_TIMEOUT) == 2 && what == KESTAL_EVENT_TIMEOUT)
            kestal_unassign_event(at);
    };
    for (const auto &[flags, frees, expected] :
         {std::tuple<uint32_t, void *, calls>(0x100, nullptr, {0x80, 0x20, 0x40}),
          {0, base_, {0x80, 0x20, 0x40}},
          {persisting, nullptr, {0x80, 0x20, 0x20, 0x40}}}) {
        heard.clear();
        EXPECT_EQ(kestal_event_base_once(base_, -1, flags, note, frees, 0), 0);
        EXPECT_EQ(look(), 0);
        EXPECT_EQ(heard, expected);
    }
    EXPECT_EQ(kestal_event_base_once(base_, -1, 0, nullptr, nullptr, 1000), 0) << "released with the base";
}

TEST_F(event_loop, EndsInEachOfItsWays)
{
    const caught_errors errors;
    EXPECT_EQ(kestal_event_base_loop(nullptr, 0), -1);
    int32_t again = 0;
    told nested(base_, -1, 0, [&](told &, uint32_t) { again = kestal_event_base_dispatch(base_); });
    nested.add();
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(again, -1);
    kestal_event_base_exit_loop(base_, 1);
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    kestal_event_base_break_loop(base_); // lost: no loop runs
    told global(base_, -1, 0, [](told &, uint32_t) { kestal_set_global_break(); });
    global.add(1);
    EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_GLOBAL_BREAK), 0);
    EXPECT_EQ(kestal_event_base_get_exit(base_), 1u);
    kestal_clear_global_break();

    EXPECT_EQ(kestal_event_debug_mode(5), 1u);
    kestal_unassign_event(&base_->m_notify_event);
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    EXPECT_EQ(kestal_event_debug_mode(0), 0u);
    expect_told(errors,
                {"s_base is null !", "reentrant invocation ! only one loop !", "[MESSAGE] no event registered. (base=",
                 ", flags=00000000H, event_count=0, timer_event_count=0, active_event_count=0)\n"});
}

TEST_F(event_loop, OneOfManyDescriptorsComesUpAsOneOfFew)
{
    crowd all(base_);
    std::vector<size_t> order;
    for (size_t i = 0; i < all.members.size(); ++i)
        all.members[i].on = [&, i](told &, uint32_t) {
            order.push_back(i);
            all.pairs[i].receive();
        };
    const int file = open("/proc/self/exe", O_RDONLY); // which only select can watch
    told reader(base_, file, reading);
    for (const int32_t added : {0, reader.add()}) {
        order.clear();
        for (const size_t i : {250u, 3u, 299u, 42u})
            all.pairs[i].send();
        EXPECT_EQ(serve() | added, 0);
        EXPECT_EQ(order, (std::vector<size_t>{3, 42, 250, 299})) << "in the order of adding";
    }
    EXPECT_EQ(reader.come(), calls{1});
    close(file);
}

TEST_F(event_loop, EventsOnOneDescriptorShareWhatIsReady)
{
    for (const size_t others : {0u, 300u}) {
        const crowd all(base_, others);
        pair_of_sockets pair;
        pair.send();
        told first(base_, pair.ends[0], reading | persisting);
        told second(base_, pair.ends[0], reading | writing | persisting);
        first.add();
        second.add();
        serve();
        EXPECT_EQ(first.come(), calls{1}) << "one of the two conditions that are ready";
        EXPECT_EQ(second.come(), calls{1}) << "and the other";
        kestal_del_event(first.handle);
        EXPECT_EQ(look(), 0);
        EXPECT_EQ(second.what.size(), 2u) << "the interest went with the first that was deleted";
    }
}

TEST_F(event_loop, AClosedDescriptorEndsItAlsoAmongMany)
{
    for (const size_t size : {1u, 300u}) {
        crowd all(base_, size);
        look();
        all.pairs.back().close_end(0);
        const caught_errors errors;
        EXPECT_EQ(kestal_event_base_dispatch(base_), -1) << "although nothing else happens";
        EXPECT_EQ(errno, EBADF);
        expect_told(errors, {"kestal_select_dispatch failed !"});
        EXPECT_EQ(look(), -1) << "as long as it is watched";
        kestal_del_event(all.members.back().handle);
        EXPECT_EQ(look(), 0);
    }
}

TEST_F(event_loop, WhatTookOverANumberIsWatched)
{
    crowd all(base_);
    told &taken = all.members[9];
    const int number = all.pairs[9].ends[0];
    look();
    // Behind the event's back, the old file kept alive, and readable, under another number; or the event deleted and
    // added anew, with a look between or in one handler: the same interest, another file.
    const int old = dup(number);
    all.pairs[9].send();
    for (const auto &[is_deleted, is_looked_at] : {std::pair(false, true), {true, true}, {true, false}}) {
        const pair_of_sockets other;
        if (is_deleted)
            kestal_del_event(taken.handle);
        ASSERT_EQ(dup2(other.ends[0], number), number);
        size_t heard = is_looked_at ? 0 : taken.what.size();
        while (heard != taken.what.size()) { // the old file is reported until it is found to be another
            heard = taken.what.size();
            kestal_event_base_exit_loop(base_, 10);
            EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
        }
        EXPECT_EQ(taken.add(), 0);
        other.send();
        EXPECT_EQ(serve(), 0);
        EXPECT_EQ(taken.what.size(), heard + 1);
        all.pairs[9].receive();
    }
    close(old);
}

TEST_F(event_loop, AHangUpIsNewsForWhoeverWaitsForIt)
{
    crowd all(base_);
    all.pairs[7].close_end(1); // readable for good
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(serve(), 0);
    EXPECT_EQ(all.members[7].come(), (calls{1, 1}));
    kestal_del_event(all.members[7].handle);
    pair_of_sockets pair;
    told urgent(base_, pair.ends[0], KESTAL_EVENT_EXCEPTION | persisting);
    urgent.add();
    pair.close_end(1);
    kestal_event_base_exit_loop(base_, 400);
    const caught_errors turns;
    kestal_event_debug_mode(1);
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    kestal_event_debug_mode(0);
    EXPECT_LT(turns.text().size(), 20000u) << "some two hundred bytes a turn: it did not wait";
    EXPECT_TRUE(urgent.come().empty());
}

TEST_F(event_service, RunsTheLoopUntilStopped)
{
    EXPECT_EQ(kestal_event_base_stop_service(base_), -1);
    const caught_errors errors;
    for (const bool ends_by_itself : {true, false}) { // nothing of either is left for the next start
        ASSERT_EQ(base_->m_start_service(base_), 0);
        EXPECT_EQ(base_->m_check_service(base_), 1);
        EXPECT_EQ(kestal_event_base_start_service(base_), -1);
        std::binary_semaphore is_done{0};
        told work(base_, -1, 0, [&](told &, uint32_t) {
            EXPECT_EQ(kestal_event_base_stop_service(base_), -1) << "not on its own thread";
            is_done.release();
        });
        work.add();
        is_done.acquire();
        if (ends_by_itself) {
            kestal_event_base_exit_loop(base_, 0);
            kestal_test::wait_until([&] { return kestal_event_base_check_service(base_) == 0; });
        }
        EXPECT_EQ(base_->m_stop_service(base_), 0);
    }
    expect_told(errors, {"already started service !"});
    ASSERT_EQ(kestal_event_base_start_service(base_), 0); // freed with the base
}

// Threads that do all they may while the loop runs.
TEST_F(event_service, OtherThreadsAddActivateDeleteAndBreakMeanwhile)
{
    ASSERT_EQ(kestal_event_base_init_priority(base_, 4), 0);
    static std::atomic<uint64_t> heard; // what still waits is told when the base goes
    heard = 0;
    ASSERT_EQ(kestal_event_base_start_service(base_), 0);
    kestal_test::on_threads(3, [&](size_t thread) {
        std::mt19937 random(static_cast<unsigned>(thread));
        const std::deque<pair_of_sockets> pairs(12);
        const auto count = [](kestal_event_t *, int32_t, uint32_t, void *context) {
            ++*static_cast<std::atomic<uint64_t> *>(context);
        };
        std::vector<kestal_event_t *> mine;
        for (uint32_t i = 0; i < 24; ++i) {
            const uint32_t flags = (i < 12 ? reading | writing : 0) | (i % 2 == 0 ? persisting : 0);
            mine.push_back(kestal_new_event(base_, i < 12 ? pairs[i].ends[0] : -1, flags, count, &heard));
            EXPECT_EQ(kestal_event_set_priority(mine.back(), i % 4), 0);
        }
        for (int i = 0; i < 3000; ++i) {
            kestal_event_t *at = mine[random() % mine.size()];
            const auto timeout = static_cast<int32_t>(random() % 3);
            const std::function<int32_t()> operations[] = {
                [&] { return kestal_add_event(at, timeout); },
                [&] { return kestal_del_event(at); },
                [&] { return kestal_active_event(at, 1); },
                [&] { return kestal_event_pending(at, 0xFFFF, nullptr) > 0xFFFF ? -1 : 0; },
                [&] { return i % 16 == 0 ? kestal_event_base_break_loop(base_) : 0; },
                [&] { return kestal_event_base_once(base_, -1, 0, count, &heard, timeout); },
            };
            EXPECT_EQ(operations[random() % std::size(operations)](), 0);
        }
        std::for_each(mine.begin(), mine.end(), kestal_del_event);
        // No handler of theirs runs once something added later has been heard.
        std::atomic<uint64_t> marked{0};
        EXPECT_EQ(kestal_event_base_once(base_, -1, 0, count, &marked, 0), 0);
        kestal_test::wait_until([&] { return marked >= 3; });
        std::for_each(mine.begin(), mine.end(), kestal_free_event);
    });
    EXPECT_EQ(kestal_event_base_stop_service(base_), 0);
    EXPECT_GT(heard, 0u);
}

TEST_F(event_service, AThreadDoesNotStarveBesideABusyLoop)
{
    told busy(base_, -1, persisting, [](told &self, uint32_t) { kestal_active_event(self.handle, 1); });
    kestal_active_event(busy.handle, 1);
    ASSERT_EQ(kestal_event_base_start_service(base_), 0);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(kestal_event_base_check_service(base_), 1);
    EXPECT_EQ(kestal_event_base_stop_service(base_), 0);
}

TEST_F(event, EveryFailedAllocationIsSurvived)
{
    const caught_errors errors;
    const std::deque<pair_of_sockets> pairs(20);
    EXPECT_GT(kestal_test::with_each_allocation_failing([&] {
                  kestal_event_base_t *base = kestal_new_event_base();
                  kestal_event_base_init_priority(base, 9);
                  kestal_event_t *often = kestal_new_event(base, -1, 0, nullptr, nullptr);
                  const bool is_added = kestal_add_event(often, 1000) == 0;
                  EXPECT_EQ(base != nullptr && base->m_event_count == 2, is_added);
                  for (const pair_of_sockets &pair : pairs) {
                      if (kestal_active_event(often, 1) != 0 && is_added) { // no room for its time-out
                          EXPECT_EQ(kestal_event_pending(often, 0xFFFF, nullptr), 0u);
                      }
                      kestal_del_event(often);
                      kestal_event_t *at = kestal_new_event_with_resolver(base, pair.ends[0], reading | persisting,
                                                                          nullptr, nullptr, "::1", 0, "localhost", 1);
                      const int32_t pushed = kestal_event_push_printf(at, 3, "%d", 7);
                      EXPECT_TRUE(pushed < 0 || static_cast<uint64_t>(pushed) == kestal_event_get_buffer_size(at, 3));
                      if (kestal_add_event(at, 1000) != 0)
                          kestal_free_event(at);
                  }
                  kestal_free_event(often);
                  kestal_event_base_once(base, SIGUSR2, KESTAL_EVENT_SIGNAL, nullptr, nullptr, -1);
                  // Where nothing at all could be added, a loop would wait for others to add.
                  if (kestal_event_base_once(base, -1, 0, nullptr, nullptr, 0) == 0)
                      kestal_event_base_loop(base, KESTAL_EVENT_LOOP_ONCE);
                  kestal_event_base_start_service(base);
                  kestal_free_event_base(base);
              }),
              20u);
}

TEST_F(event, TheProcessWideBaseServesTheCallsWithoutOne)
{
    EXPECT_EQ(kestal_event_once(-1, 0, nullptr, nullptr, 0), -1);
    kestal_event_base_t *base = kestal_init_event_base();
    EXPECT_EQ(kestal_init_event_base(), base);
    EXPECT_EQ(kestal_event_once(-1, 0, kestal_event_default_handler_exit, nullptr, 0), 0);
    EXPECT_EQ(kestal_event_dispatch(), 0) << "ended by the ready-made handler";
    kestal_event_t fault{};
    EXPECT_EXIT(kestal_event_default_handler_exit(&fault, SIGSEGV, KESTAL_EVENT_SIGNAL, nullptr),
                testing::ExitedWithCode(0),
                "^./source/event: kestal_event_default_handler_exit - .SIGNAL. segment fault.\n$");
    EXPECT_EQ(kestal_event_init_priority(2) | kestal_event_exit_loop(0) | kestal_event_loop(0), 0);
    EXPECT_EQ(kestal_event_break_loop(), 0);
    EXPECT_EQ(kestal_uninit_event_base(), nullptr);
}

constexpr uint32_t input = KESTAL_EVENT_BUFFER_INPUT, output = KESTAL_EVENT_BUFFER_OUTPUT, both = input | output;

TEST_F(event_buffer, WatermarksHoldBackTheWaiting)
{
    const pair_of_sockets pair;
    const told held(base_, pair.ends[0], reading | writing | persisting);
    kestal_event_t *at = held.handle;
    char taken[8];
    const struct {
        std::function<int32_t()> step;
        int32_t result;
        uint32_t interest;
    } steps[] = {
        {[&] { return kestal_event_set_buffer_watermark(at, both, 5, 100); }, 0, 0}, // not registered
        {[&] { return kestal_add_event(at, -1); }, 0, reading | writing},            // without buffers the flags count
        {[&] { return kestal_event_enable_buffer(at, both); }, 0, reading},
        {[&] { return kestal_event_push_buffer(at, input, std::string(100, 'x').data(), 100); }, 100, 0},
        {[&] { return kestal_event_pop_buffer(at, both, taken, 1); }, 1, reading},
        {[&] { return kestal_event_push_printf(at, output, "%04d", 7); }, 4, reading},
        {[&] { return kestal_event_push_puts(at, output, "!"); }, 1, reading | writing},
        {[&] { return kestal_event_peek_buffer(at, output, taken, 8, 3); }, 2, reading | writing},
        {[&] { return kestal_event_pop_buffer(at, output, nullptr, 8); }, 5, reading},
        {[&] { return kestal_event_set_buffer_watermark(at, output, 0, 9); }, 0, reading | writing}, // 0: always
    };
    for (const auto &[step, result, interest] : steps) {
        EXPECT_EQ(step(), result) << "step " << &step - &steps[0].step;
        EXPECT_EQ(kestal_get_select_flags(base_->m_select, pair.ends[0]), interest) << "after " << result;
    }
    EXPECT_EQ(std::string(taken, 2), "7!");
}

TEST_F(event_buffer, ATimerWaitsForItsDescriptorAsLongAsItHasABuffer)
{
    const pair_of_sockets pair;
    told held(base_, pair.ends[0], persisting);
    ASSERT_EQ(held.add(), 0);
    pair.send();
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(kestal_event_pop_buffer(held.handle, input, nullptr, 1), -1) << "no buffer";
    EXPECT_EQ(kestal_event_enable_buffer(held.handle, input), 0);
    EXPECT_EQ(serve(), 0);
    EXPECT_EQ(held.come(), calls{KESTAL_EVENT_READ});
}

} // namespace
