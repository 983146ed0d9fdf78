#include "support.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <random>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using kestal_test::caught_errors;
using calls = std::vector<uint32_t>;

size_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// A base of its own, with the blocks and descriptors back where they were at the end.
class event_base : public kestal_test::counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        descriptors_ = open_descriptors();
        base_ = kestal_new_event_base();
        ASSERT_NE(base_, nullptr);
    }
    void TearDown() override
    {
        kestal_free_event_base(base_);
        EXPECT_EQ(open_descriptors(), descriptors_);
        counted::TearDown();
    }

    // Runs until nothing is left to do, without waiting.
    int32_t look() { return kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_NON_BLOCK); }

    kestal_event_base_t *base_ = nullptr;

private:
    size_t descriptors_ = 0;
};

using event = event_base;
using event_loop = event_base;
using event_connect = event_base;
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
    ~pair_of_sockets()
    {
        close_end(0);
        close_end(1);
    }
    pair_of_sockets(const pair_of_sockets &) = delete;
    pair_of_sockets &operator=(const pair_of_sockets &) = delete;

    void close_end(int end)
    {
        if (ends[end] >= 0)
            close(std::exchange(ends[end], -1));
    }
    void send() const { EXPECT_EQ(write(ends[1], "x", 1), 1); }
    void receive() const
    {
        char byte = 0;
        EXPECT_EQ(read(ends[0], &byte, 1), 1);
    }
    int ends[2];
};

// What is registered on enough descriptors to be waited for by a readiness list.
struct crowd {
    explicit crowd(kestal_event_base_t *base, size_t size = 300)
    {
        for (size_t i = 0; i < size; ++i) {
            pairs.emplace_back();
            members.emplace_back(base, pairs.back().ends[0], KESTAL_EVENT_READ | KESTAL_EVENT_PERSIST);
            EXPECT_EQ(members.back().add(), 0);
        }
    }
    std::deque<pair_of_sockets> pairs;
    std::deque<told> members;
};

TEST_F(event, ItsHandlerHearsOfAssignmentAndIsToldLastOfItsEnd)
{
    {
        told timer(base_);
        EXPECT_EQ(timer.what, calls{KESTAL_EVENT_ASSIGNED});
        EXPECT_EQ(timer.add(), 0);
        EXPECT_EQ(kestal_assign_event(base_, timer.handle, -1, 0, told::handler, &timer), -1) << "registered";
        EXPECT_EQ(kestal_unassign_event(timer.handle), 0);
        EXPECT_EQ(timer.what, (calls{KESTAL_EVENT_ASSIGNED, KESTAL_EVENT_UNASSIGNED}));
    }
    // A record of the caller's: from chance memory, and assigned twice without a leak.
    kestal_event_t record;
    memset(&record, 0xFF, sizeof(record));
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(kestal_set_event_with_resolver(&record, 3, 0xFEFF, nullptr, nullptr, "127.0.0.1", 7, "host", 70000),
                  0);
    EXPECT_EQ(record.m_flags, 0x189Fu);
    EXPECT_EQ(record.m_bind_port, 7);
    EXPECT_EQ(record.m_resolver_port, -1);
    const caught_errors errors;
    EXPECT_EQ(kestal_add_event(&record, 0), -1);
    EXPECT_NE(errors.text().find("kestal_add_event: [ERROR] event->m_base is null ! (event="), std::string::npos);
    EXPECT_EQ(kestal_event_set_base(&record, base_), 0);
    EXPECT_EQ(kestal_free_event(&record), nullptr);
}

TEST_F(event, EveryCallReportsWhatTheEventLacks)
{
    kestal_event_t blank{};
    const std::function<int64_t(kestal_event_t *)> operations[] = {
        [](kestal_event_t *at) { return kestal_add_event(at, 0); },
        [](kestal_event_t *at) { return kestal_del_event(at); },
        [](kestal_event_t *at) { return kestal_active_event(at, 1); },
        [](kestal_event_t *at) { return kestal_unassign_event(at); },
        [](kestal_event_t *at) { return kestal_event_set_priority(at, 0); },
        [this](kestal_event_t *at) { return kestal_event_set_base(at, base_); },
        [](kestal_event_t *at) { return int64_t{kestal_event_pending(at, 1, nullptr)} - 1; },
        [](kestal_event_t *at) { return kestal_event_enable_buffer(at, 3); },
        [](kestal_event_t *at) { return kestal_event_push_puts(at, 3, "x"); },
        [](kestal_event_t *at) { return kestal_event_pop_buffer(at, 1, nullptr, 1); },
    };
    for (const auto &operation : operations) {
        const caught_errors errors;
        EXPECT_EQ(operation(nullptr), -1);
        EXPECT_EQ(operation(&blank), -1);
        EXPECT_NE(errors.text().find(": [ERROR] event is null !\n"), std::string::npos);
        EXPECT_NE(errors.text().find(": [ERROR] event is not initialized ! (event="), std::string::npos);
        EXPECT_EQ(errors.text().find(')'), std::string::npos) << "the report has no closing parenthesis";
    }
}

TEST_F(event, TimersDueTogetherComeInTheOrderOfAdding)
{
    std::vector<int> order;
    std::deque<told> timers;
    for (int i = 0; i < 5; ++i) {
        timers.emplace_back(base_, -1, 0, [&order, i](told &, uint32_t) { order.push_back(i); });
        ASSERT_EQ(timers.back().add(i == 4 ? -1 : 500 - 100 * i), 0);
    }
    EXPECT_EQ(timers[4].handle->m_timeout, 0) << "without descriptor and time-out: due at once";
    EXPECT_EQ(base_->m_timer_event_count, 5u);
    int32_t left = -1;
    EXPECT_EQ(kestal_event_pending(timers[0].handle, 0x20, &left), 0x20u);
    EXPECT_GT(left, 400);
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(order, std::vector{4});
    timers[1].add(1000); // again from now
    kestal_test::advance_clock(600);
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(order, (std::vector{4, 0, 2, 3}));
    EXPECT_EQ(timers[2].come(), calls{KESTAL_EVENT_TIMEOUT});
    kestal_test::advance_clock(600);
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(order.back(), 1);
    EXPECT_EQ(base_->m_timer_event_count, 0u);
}

TEST_F(event, TheEarliestOfManyTimersIsTheFirst)
{
    std::mt19937 random(7);
    std::deque<told> timers;
    const auto earliest = [&timers] {
        uint64_t deadline = UINT64_MAX;
        for (const told &timer : timers)
            if (kestal_event_pending(timer.handle, 0x20, nullptr) != 0)
                deadline = std::min(deadline, timer.handle->m_deadline);
        return deadline;
    };
    for (int i = 0; i < 300; ++i)
        timers.emplace_back(base_, -1, KESTAL_EVENT_PERSIST);
    for (int i = 0; i < 2000; ++i) {
        told &timer = timers[random() % timers.size()];
        if (random() % 3 == 0)
            kestal_del_event(timer.handle);
        else
            timer.add(static_cast<int32_t>(1 + random() % 1000));
        if (random() % 16 == 0) {
            kestal_test::advance_clock(random() % 50);
            look();
        }
        ASSERT_EQ(base_->m_timer_head == nullptr ? UINT64_MAX : base_->m_timer_head->m_deadline, earliest());
    }
}

TEST_F(event, DescriptorsAreWatchedAsTheirFlagsSay)
{
    pair_of_sockets pair;
    told reader(base_, pair.ends[0], KESTAL_EVENT_READ | KESTAL_EVENT_WRITE | KESTAL_EVENT_PERSIST);
    ASSERT_EQ(reader.add(1000), 0);
    EXPECT_EQ(kestal_event_pending(reader.handle, 0xFFFF, nullptr), 0x23u);
    EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE), 0);
    pair.send();
    EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE), 0);
    EXPECT_EQ(reader.come(), (calls{2, 3}));
    kestal_del_event(reader.handle);
    EXPECT_EQ(kestal_get_select_flags(base_->m_select, pair.ends[0]), 0u);

    // Not persistent: out of the base before its handler runs, which may add it again.
    told again(base_, pair.ends[0], KESTAL_EVENT_READ, [](told &self, uint32_t) {
        EXPECT_EQ(kestal_event_pending(self.handle, 0xFFFF, nullptr), 0u);
        if (self.what.size() < 4)
            self.add();
    });
    again.add();
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(again.come(), (calls{1, 1, 1}));
}

TEST_F(event, OneLevelIsServedALookAndDrainedWhole)
{
    ASSERT_EQ(kestal_event_base_init_priority(base_, 3), 0);
    std::string order;
    told low(base_, -1, KESTAL_EVENT_PERSIST, [&](told &, uint32_t) { order += 'l'; });
    told late(base_, -1, 0, [&](told &, uint32_t) { order += 'n'; });
    told high(base_, -1, 0, [&](told &self, uint32_t) {
        order += 'h';
        kestal_active_event(late.handle, 1);
        if (order.size() < 3)
            kestal_active_event(self.handle, 1);
    });
    EXPECT_EQ(low.handle->m_priority, 1u);
    for (told *first : {&high, &late})
        EXPECT_EQ(kestal_event_set_priority(first->handle, 0), 0);
    kestal_active_event(low.handle, 1);
    kestal_active_event(low.handle, 2);
    kestal_active_event(high.handle, 1);
    {
        const caught_errors errors;
        EXPECT_EQ(kestal_event_set_priority(low.handle, 0), -1);
        EXPECT_EQ(kestal_event_set_priority(late.handle, 3), -1);
        EXPECT_EQ(kestal_event_base_init_priority(base_, 2), -1) << "something is active";
        EXPECT_NE(errors.text().find("already active event !"), std::string::npos);
        EXPECT_NE(errors.text().find("s_priority >= max_priority !"), std::string::npos);
    }
    EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE), 0);
    EXPECT_EQ(order, "hnhnl");
    EXPECT_EQ(low.come(), calls{3});
    for (const uint32_t levels : {0u, 65536u})
        EXPECT_EQ(kestal_event_base_init_priority(base_, levels), -1);

    kestal_event_set_priority(low.handle, 2);
    ASSERT_EQ(kestal_event_base_init_priority(base_, 2), 0);
    const caught_errors errors;
    EXPECT_EQ(kestal_active_event(low.handle, 4), 0);
    EXPECT_NE(errors.text().find("s_event->m_priority >= s_base->m_max_priority !"), std::string::npos);
    EXPECT_EQ(low.handle->m_priority, 1u);
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(order, "hnhnll");
}

TEST_F(event, BreakStopsAfterTheHandlerAndExitAfterTheLook)
{
    std::string order;
    std::deque<told> timers;
    for (const char name : {'a', 'b', 'c'})
        timers.emplace_back(base_, -1, 0, [&, name](told &, uint32_t) {
            order += name;
            if (name == 'a')
                kestal_event_base_break_loop(base_);
            else if (name == 'b')
                kestal_event_base_exit_loop(base_, -1);
        });
    for (told &timer : timers)
        timer.add(0);
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    EXPECT_EQ(order, "a");
    EXPECT_EQ(base_->m_active_event_count, 2u);
    EXPECT_EQ(kestal_event_base_get_exit(base_), 0u);
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    EXPECT_EQ(order, "abc");
    EXPECT_EQ(kestal_event_base_get_exit(base_), 1u);
}

TEST_F(event, HandlersMayFreeTheirOwnEventAndOthers)
{
    for (const uint32_t persist : {0u, KESTAL_EVENT_PERSIST}) {
        std::deque<told> timers;
        int calls_made = 0;
        for (int i = 0; i < 4; ++i)
            timers.emplace_back(base_, -1, persist, [&](told &self, uint32_t) {
                ++calls_made;
                self.handle = kestal_free_event(self.handle);
                for (told &other : timers)
                    if (&other != &timers.back())
                        other.handle = kestal_free_event(other.handle);
            });
        for (told &timer : timers)
            timer.add(0);
        EXPECT_EQ(look(), 0);
        EXPECT_EQ(calls_made, 2) << "the first freed all but the last";
        EXPECT_EQ(base_->m_event_count, 1u);
    }
}

TEST_F(event, SignalsComeUpAndEndTheLoopTheyInterrupt)
{
    told watcher(base_, SIGUSR1, KESTAL_EVENT_SIGNAL | KESTAL_EVENT_PERSIST);
    told wrong(base_, 65, KESTAL_EVENT_SIGNAL);
    ASSERT_EQ(watcher.add(), 0);
    EXPECT_EQ(wrong.add(), -1);
    told sender(base_, -1, 0, [](told &, uint32_t) { raise(SIGUSR1); });
    sender.add();
    EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_NON_BLOCK), 0);
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(watcher.come(), calls{KESTAL_EVENT_SIGNAL});

    // One that interrupts the wait ends the loop; the next one finds its event.
    std::thread killer([main = pthread_self()] { pthread_kill(main, SIGUSR1); });
    int32_t result = 0;
    do
        result = kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE);
    while (watcher.what.size() < 3 && (result == 0 || errno == EINTR));
    killer.join();
    EXPECT_EQ(watcher.come(), (calls{KESTAL_EVENT_SIGNAL, KESTAL_EVENT_SIGNAL}));
}

TEST_F(event, OnceGoesWithItsCallAndPersistsUntilUnassigned)
{
    static calls heard;
    static int rounds;
    heard.clear();
    rounds = 0;
    const auto note = [](kestal_event_t *at, int32_t, uint32_t what, void *) {
        heard.push_back(what);
        if (what == KESTAL_EVENT_TIMEOUT && (at->m_flags & KESTAL_EVENT_PERSIST) != 0 && ++rounds == 2)
            kestal_unassign_event(at);
    };
    const auto ends_itself = [](kestal_event_t *at, int32_t, uint32_t what, void *) {
        heard.push_back(what);
        if (what == KESTAL_EVENT_TIMEOUT)
            kestal_free_event(at);
    };
    EXPECT_EQ(kestal_event_base_once(base_, -1, KESTAL_EVENT_ALLOCATED, note, nullptr, 0), 0);
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(heard, (calls{0x80, 0x20, 0x40}));
    EXPECT_EQ(kestal_event_base_once(base_, -1, 0, ends_itself, nullptr, 0), 0);
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(heard, (calls{0x80, 0x20, 0x40, 0x80, 0x20, 0x40}));
    heard.clear();
    EXPECT_EQ(kestal_event_base_once(base_, -1, KESTAL_EVENT_PERSIST, note, nullptr, 0), 0);
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(heard, (calls{0x80, 0x20, 0x20, 0x40}));
    EXPECT_EQ(kestal_event_base_once(base_, -1, 0, nullptr, nullptr, 1000), 0) << "released with the base";
}

TEST_F(event_loop, EndsInEachOfItsWays)
{
    EXPECT_EQ(look(), 0);
    {
        const caught_errors errors;
        EXPECT_EQ(kestal_event_base_loop(nullptr, 0), -1);
        told again(base_, -1, 0, [](told &self, uint32_t) {
            self.what.push_back(kestal_event_base_dispatch(self.handle->m_base) == -1);
        });
        again.add();
        look();
        EXPECT_EQ(again.come(), (calls{KESTAL_EVENT_TIMEOUT, 1}));
        EXPECT_NE(errors.text().find("s_base is null !"), std::string::npos);
        EXPECT_NE(errors.text().find("reentrant invocation ! only one loop !"), std::string::npos);
    }
    kestal_event_base_exit_loop(base_, 1);
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    kestal_event_base_break_loop(base_); // lost: no loop runs
    told global(base_, -1, 0, [](told &, uint32_t) { kestal_set_global_break(); });
    global.add(1);
    EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_GLOBAL_BREAK), 0);
    EXPECT_EQ(kestal_event_base_get_exit(base_), 1u);
    kestal_clear_global_break();

    const caught_errors errors;
    EXPECT_EQ(kestal_event_debug_mode(5), 1u);
    kestal_unassign_event(&base_->m_notify_event);
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    EXPECT_EQ(kestal_event_debug_mode(0), 0u);
    EXPECT_NE(errors.text().find("[MESSAGE] no event registered. (base="), std::string::npos);
    EXPECT_NE(errors.text().find(", flags=00000000H, event_count=0, timer_event_count=0, active_event_count=0)\n"),
              std::string::npos);
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
    for (const size_t i : {250u, 3u, 299u, 42u})
        all.pairs[i].send();
    EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE), 0);
    EXPECT_EQ(order, (std::vector<size_t>{3, 42, 250, 299})) << "in the order of adding";
    all.pairs[7].close_end(1); // readable for good
    all.members[7].on = nullptr;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE), 0);
    EXPECT_EQ(all.members[7].come(), (calls{1, 1}));
}

TEST_F(event_loop, EventsOnOneDescriptorShareWhatIsReady)
{
    for (const bool many : {false, true}) {
        std::deque<crowd> others;
        if (many)
            others.emplace_back(base_);
        pair_of_sockets pair;
        pair.send();
        told first(base_, pair.ends[0], KESTAL_EVENT_READ | KESTAL_EVENT_PERSIST);
        told second(base_, pair.ends[0], KESTAL_EVENT_READ | KESTAL_EVENT_WRITE | KESTAL_EVENT_PERSIST);
        first.add();
        second.add();
        kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE);
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
        EXPECT_NE(errors.text().find("kestal_select_dispatch failed !"), std::string::npos);
        EXPECT_EQ(look(), -1) << "as long as it is watched";
        kestal_del_event(all.members.back().handle);
        EXPECT_EQ(look(), 0);
    }
}

TEST_F(event_loop, WhatTookOverANumberIsWatched)
{
    crowd all(base_);
    look();
    pair_of_sockets other;
    // Behind the event's back; and with the old file kept alive, and readable, under another number.
    const int old = dup(all.pairs[9].ends[0]);
    all.pairs[9].send();
    ASSERT_EQ(dup2(other.ends[0], all.pairs[9].ends[0]), all.pairs[9].ends[0]);
    size_t before = 0;
    while (before != all.members[9].what.size()) { // the old file is reported until it is found to be another
        before = all.members[9].what.size();
        kestal_event_base_exit_loop(base_, 10);
        EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    }
    other.send();
    EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE), 0);
    EXPECT_EQ(all.members[9].what.size(), before + 1);
    all.pairs[9].receive();

    // Deleted, closed, opened and added, in one handler or with a look between: the same interest, another file.
    for (const bool look_between : {false, true}) {
        const size_t heard = all.members[9].what.size();
        pair_of_sockets third;
        kestal_del_event(all.members[9].handle);
        ASSERT_EQ(dup2(third.ends[0], all.pairs[9].ends[0]), all.pairs[9].ends[0]);
        if (look_between)
            look();
        EXPECT_EQ(all.members[9].add(), 0);
        third.send();
        EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE), 0);
        EXPECT_EQ(all.members[9].what.size(), heard + 1);
        all.pairs[9].receive();
    }
    close(old);
}

TEST_F(event_loop, AHangUpNobodyWaitsForIsNoNews)
{
    crowd all(base_);
    pair_of_sockets pair;
    told urgent(base_, pair.ends[0], KESTAL_EVENT_EXCEPTION | KESTAL_EVENT_PERSIST);
    urgent.add();
    pair.close_end(1);
    const std::clock_t before = std::clock();
    kestal_event_base_exit_loop(base_, 400);
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5) << "it waited";
    EXPECT_TRUE(urgent.come().empty());
}

TEST_F(event_loop, AFileIsReadyLikeWithSelect)
{
    const kestal_test::temporary_directory directory;
    const int file = open(directory.file("f", "content").c_str(), O_RDONLY);
    crowd all(base_);
    look();
    told reader(base_, file, KESTAL_EVENT_READ);
    reader.add();
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(reader.come(), calls{1});
    all.pairs[5].send();
    EXPECT_EQ(kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE), 0);
    EXPECT_EQ(all.members[5].come(), calls{1});
    close(file);
}

// A listener, on the loopback unless told otherwise.
struct listener {
    explicit listener(const char *address = "127.0.0.1") : descriptor(kestal_open_listen_socket(address, 0))
    {
        sockaddr_in6 own{};
        uint32_t length = sizeof(own);
        EXPECT_EQ(kestal_getsockname(descriptor, &own, &length), 0);
        port = ntohs(own.sin6_port); // where that of IPv4 is
    }
    ~listener() { close(descriptor); }
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;

    int descriptor;
    int32_t port;
};

// What a connecting event is told in all, until its connection is there or has failed; its socket is closed.
uint32_t told_of_connection(kestal_event_base_t *base, const char *bind_address, const char *host, int32_t port,
                            int32_t descriptor = -1)
{
    uint32_t all = 0;
    told client(base, -1, 0, [&](told &self, uint32_t what) {
        all |= what;
        EXPECT_EQ(kestal_event_pending(self.handle, KESTAL_EVENT_CONNECT, nullptr), KESTAL_EVENT_CONNECT);
        if ((what & (KESTAL_EVENT_CONNECTED | KESTAL_EVENT_CONNECT_FAILED | KESTAL_EVENT_TIMEOUT)) != 0)
            kestal_event_base_exit_loop(base, 0);
    });
    kestal_assign_event_with_resolver(base, client.handle, descriptor,
                                      KESTAL_EVENT_CONNECT | KESTAL_EVENT_RESOLVE | KESTAL_EVENT_PERSIST |
                                          KESTAL_EVENT_READ,
                                      told::handler, &client, bind_address, 0, host, port);
    EXPECT_EQ(client.add(std::string(host) == "no host\n" ? 300 : 20000), 0);
    EXPECT_EQ(kestal_event_base_dispatch(base), 0);
    kestal_del_event(client.handle);
    if (client.handle->m_descriptor >= 0)
        close(client.handle->m_descriptor);
    return all;
}

TEST_F(event_connect, TellsHowItWent)
{
    constexpr uint32_t resolved = KESTAL_EVENT_RESOLVED, connected = KESTAL_EVENT_CONNECTED;
    constexpr uint32_t failed = KESTAL_EVENT_CONNECT_FAILED, connecting = KESTAL_EVENT_CONNECTING;
    const listener open_one(kestal_check_ipv6_support() == 0 ? "::" : "127.0.0.1"); // "localhost" may be ::1 first
    const int32_t closed_port = listener().port;
    for (int i = 0; i < 2; ++i) { // the second time with what the first has found
        for (const char *host : {"127.0.0.1", "localhost"})
            EXPECT_EQ(told_of_connection(base_, nullptr, host, open_one.port) & ~connecting, resolved | connected)
                << host;
        EXPECT_EQ(told_of_connection(base_, "127.0.0.1", "127.0.0.1", closed_port) & ~connecting, resolved | failed);
    }
    EXPECT_EQ(told_of_connection(base_, "127.0.0.7", "127.0.0.1", open_one.port) & ~connecting, resolved | connected);
    EXPECT_EQ(told_of_connection(base_, "::1", "127.0.0.1", open_one.port), resolved | failed) << "no such family";
    EXPECT_EQ(told_of_connection(base_, "192.0.2.1", "127.0.0.1", open_one.port), resolved | failed) << "not local";
    EXPECT_EQ(told_of_connection(base_, nullptr, "255.255.255.255", 80), resolved | failed) << "unreachable";
    const kestal_test::temporary_directory directory;
    const std::string path = directory.path("socket");
    EXPECT_EQ(told_of_connection(base_, nullptr, path.c_str(), 0), resolved | failed) << "nobody listens";
    const int unix_server = kestal_open_listen_socket(path.c_str(), 0);
    EXPECT_EQ(told_of_connection(base_, nullptr, path.c_str(), 0), resolved | connected);
    close(unix_server);
    const int own = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    ASSERT_EQ(bind(own, reinterpret_cast<sockaddr *>(&any), sizeof(any)), 0);
    EXPECT_EQ(told_of_connection(base_, nullptr, "127.0.0.1", open_one.port, own) & ~connecting, resolved | connected);
    EXPECT_EQ(told_of_connection(base_, nullptr, "no host\n", 80), KESTAL_EVENT_TIMEOUT) << "of a failure nothing";
}

TEST_F(event_connect, GoesOnToTheNextAddressWhenOneCannotBegin)
{
    const listener server;
    told client(base_, -1, KESTAL_EVENT_CONNECT | KESTAL_EVENT_RESOLVE | KESTAL_EVENT_PERSIST | KESTAL_EVENT_READ);
    // An address that no route leads to, and one of another family than the local one, before the good one.
    kestal_resolver_t *list = nullptr;
    for (const char *host : {"127.0.0.1", "255.255.255.255", "::1"}) {
        kestal_resolver_t *one = kestal_open_resolver(host, static_cast<uint32_t>(server.port));
        ASSERT_NE(one, nullptr);
        one->m_next = list;
        list = one;
    }
    client.handle->m_resolved = list;
    client.handle->m_bind_address = kestal_strdup_tag("127.0.0.1", "test", 1);
    client.on = [this](told &, uint32_t what) {
        if (what != KESTAL_EVENT_CONNECTING)
            kestal_event_base_break_loop(base_);
    };
    client.add(20000);
    kestal_event_base_once(base_, -1, 0, nullptr, nullptr, 0); // a look, which a look-up would have asked for
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    EXPECT_EQ(client.what.back(), KESTAL_EVENT_CONNECTED);
    const int accepted = accept(server.descriptor, nullptr, nullptr);
    EXPECT_EQ(write(accepted, "x", 1), 1);
    EXPECT_EQ(kestal_event_base_dispatch(base_), 0);
    EXPECT_EQ(client.what.back(), KESTAL_EVENT_READ) << "an event like any other now";
    close(accepted);
    close(client.handle->m_descriptor);
    kestal_del_event(client.handle);
}

TEST_F(event_service, RunsTheLoopUntilStopped)
{
    EXPECT_EQ(kestal_event_base_check_service(base_), 0);
    EXPECT_EQ(kestal_event_base_stop_service(base_), -1);
    std::atomic<int> rounds{0};
    for (int i = 1; i <= 2; ++i) {
        ASSERT_EQ(base_->m_start_service(base_), 0);
        EXPECT_EQ(base_->m_check_service(base_), 1);
        const caught_errors errors;
        EXPECT_EQ(kestal_event_base_start_service(base_), -1);
        EXPECT_NE(errors.text().find("already started service !"), std::string::npos);
        told work(base_, -1, 0, [&](told &self, uint32_t) {
            EXPECT_EQ(kestal_event_base_stop_service(self.handle->m_base), -1) << "not on its own thread";
            ++rounds;
        });
        work.add();
        kestal_test::wait_until([&] { return rounds == i; });
        // Ended by itself or by the stop: nothing of either is left for the next start.
        if (i == 1) {
            kestal_event_base_exit_loop(base_, 0);
            kestal_test::wait_until([&] { return kestal_event_base_check_service(base_) == 0; });
        }
        EXPECT_EQ(base_->m_stop_service(base_), 0);
        EXPECT_EQ(base_->m_event_count, 1u);
    }
    ASSERT_EQ(kestal_event_base_start_service(base_), 0); // freed with the base
}

// Threads that do all they may while the loop runs.
TEST_F(event_service, OtherThreadsAddActivateDeleteAndBreakMeanwhile)
{
    ASSERT_EQ(kestal_event_base_init_priority(base_, 4), 0);
    static std::atomic<uint64_t> heard; // what still waits is told when the base goes
    heard = 0;
    ASSERT_EQ(kestal_event_base_start_service(base_), 0);
    kestal_test::on_threads(3, [this](size_t thread) {
        std::mt19937 random(static_cast<unsigned>(thread));
        const std::deque<pair_of_sockets> pairs(12);
        std::vector<kestal_event_t *> mine;
        const auto count = [](kestal_event_t *, int32_t, uint32_t, void *context) {
            ++*static_cast<std::atomic<uint64_t> *>(context);
        };
        for (uint32_t i = 0; i < 24; ++i) {
            const uint32_t waits = i % 2 == 0 ? KESTAL_EVENT_READ | KESTAL_EVENT_WRITE : 0;
            mine.push_back(kestal_new_event(base_, waits != 0 ? pairs[i / 2].ends[0] : -1,
                                            waits | (random() % 2 == 0 ? KESTAL_EVENT_PERSIST : 0), count, &heard));
            EXPECT_EQ(kestal_event_set_priority(mine.back(), i % 4), 0);
        }
        for (int i = 0; i < 3000; ++i) {
            kestal_event_t *at = mine[random() % mine.size()];
            const auto timeout = static_cast<int32_t>(random() % 3);
            const std::function<int32_t()> operations[] = {
                [&] { return kestal_add_event(at, timeout); },
                [&] { return kestal_add_event(at, timeout); },
                [&] { return kestal_del_event(at); },
                [&] { return kestal_active_event(at, 1); },
                [&] { return kestal_event_pending(at, 0xFFFF, nullptr) > 0xFFFF ? -1 : 0; },
                [&] { return i % 16 == 0 ? kestal_event_base_break_loop(base_) : 0; },
                [&] { return kestal_event_base_once(base_, -1, 0, count, &heard, timeout); },
            };
            EXPECT_EQ(operations[random() % std::size(operations)](), 0);
        }
        for (kestal_event_t *at : mine)
            kestal_del_event(at);
        // No handler of theirs runs once something added later has been heard.
        std::atomic<uint64_t> marked{0};
        EXPECT_EQ(kestal_event_base_once(base_, -1, 0, count, &marked, 0), 0);
        kestal_test::wait_until([&] { return marked >= 3; });
        for (kestal_event_t *at : mine)
            kestal_free_event(at);
    });
    EXPECT_EQ(kestal_event_base_stop_service(base_), 0);
    EXPECT_GT(heard, 0u);
}

TEST_F(event_service, AThreadDoesNotStarveBesideABusyLoop)
{
    told busy(base_, -1, KESTAL_EVENT_PERSIST, [](told &self, uint32_t) { kestal_active_event(self.handle, 1); });
    kestal_active_event(busy.handle, 1);
    ASSERT_EQ(kestal_event_base_start_service(base_), 0);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(kestal_event_base_check_service(base_), 1);
    EXPECT_EQ(kestal_event_base_stop_service(base_), 0);
}

TEST_F(event, EveryFailedAllocationIsSurvived)
{
    const caught_errors errors;
    EXPECT_GT(kestal_test::with_each_allocation_failing([] {
                  kestal_event_base_t *base = kestal_new_event_base();
                  kestal_event_base_init_priority(base, 9);
                  const auto nothing = [](kestal_event_t *, int32_t, uint32_t, void *) {};
                  std::deque<pair_of_sockets> pairs(20);
                  std::vector<kestal_event_t *> events;
                  for (const pair_of_sockets &pair : pairs) {
                      events.push_back(kestal_new_event_with_resolver(base, pair.ends[0], KESTAL_EVENT_READ, nothing,
                                                                      nullptr, "::1", 0, "localhost", 1));
                      if (base == nullptr || events.back() == nullptr)
                          continue;
                      kestal_add_event(events.back(), 1000);
                      kestal_event_push_printf(events.back(), 3, "%d", 7);
                  }
                  kestal_event_base_once(base, SIGUSR2, KESTAL_EVENT_SIGNAL, nothing, nullptr, -1);
                  kestal_event_base_once(base, -1, 0, nothing, nullptr, 0);
                  if (base != nullptr) {
                      kestal_event_base_loop(base, KESTAL_EVENT_LOOP_NON_BLOCK);
                      kestal_event_base_start_service(base);
                      kestal_event_base_stop_service(base);
                  }
                  for (kestal_event_t *at : events)
                      kestal_free_event(at);
                  kestal_free_event_base(base);
              }),
              20u);
}

TEST_F(event, TheProcessWideBaseServesTheCallsWithoutOne)
{
    EXPECT_EQ(kestal_event_once(-1, 0, nullptr, nullptr, 0), -1);
    kestal_event_base_t *base = kestal_init_event_base();
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(kestal_init_event_base(), base);
    EXPECT_EQ(kestal_event_init_priority(2), 0);
    EXPECT_EQ(kestal_event_once(-1, 0, kestal_event_default_handler_exit, nullptr, 0), 0);
    EXPECT_EQ(kestal_event_dispatch(), 0) << "ended by the ready-made handler";
    kestal_event_t fault{};
    EXPECT_EXIT(kestal_event_default_handler_exit(&fault, SIGSEGV, KESTAL_EVENT_SIGNAL, nullptr),
                testing::ExitedWithCode(0),
                "^./source/event: kestal_event_default_handler_exit - .SIGNAL. segment fault.\n$");
    EXPECT_EQ(kestal_event_exit_loop(0), 0);
    EXPECT_EQ(kestal_event_loop(0), 0);
    EXPECT_EQ(kestal_event_break_loop(), 0);
    EXPECT_EQ(kestal_uninit_event_base(), nullptr);
}

constexpr uint32_t input = KESTAL_EVENT_BUFFER_INPUT, output = KESTAL_EVENT_BUFFER_OUTPUT, both = input | output;

TEST_F(event_buffer, WatermarksHoldBackTheWaiting)
{
    const pair_of_sockets pair;
    const told held(base_, pair.ends[0], KESTAL_EVENT_READ | KESTAL_EVENT_WRITE | KESTAL_EVENT_PERSIST);
    const auto interest = [&] { return kestal_get_select_flags(base_->m_select, pair.ends[0]); };
    kestal_event_t *at = held.handle;
    EXPECT_EQ(kestal_event_set_buffer_watermark(at, both, 5, 100), 0);
    EXPECT_EQ(interest(), 0u) << "not registered";
    ASSERT_EQ(kestal_add_event(at, -1), 0);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ | KESTAL_SELECT_WRITE) << "without buffers the flags count";
    EXPECT_EQ(kestal_event_enable_buffer(at, both), 0);
    EXPECT_EQ(kestal_event_pending(at, both, nullptr), both);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ);

    EXPECT_EQ(kestal_event_push_buffer(at, input, std::string(100, 'x').data(), 99), 99);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ);
    EXPECT_EQ(kestal_event_push_puts(at, input, "y"), 1);
    EXPECT_EQ(interest(), 0u);
    char taken[8];
    EXPECT_EQ(kestal_event_pop_buffer(at, both, taken, 1), 1);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ);

    EXPECT_EQ(kestal_event_push_printf(at, output, "%04d", 7), 4);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ);
    EXPECT_EQ(kestal_event_push_puts(at, output, "!"), 1);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ | KESTAL_SELECT_WRITE);
    EXPECT_EQ(kestal_event_peek_buffer(at, output, taken, 8, 3), 2);
    EXPECT_EQ(std::string(taken, 2), "7!");
    EXPECT_EQ(kestal_event_pop_buffer(at, output, nullptr, 8), 5);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ);
    EXPECT_EQ(kestal_event_set_buffer_watermark(at, output, 0, 9), 0);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ | KESTAL_SELECT_WRITE) << "a low watermark of 0 always watches";
    EXPECT_EQ(at->m_input_high_watermark, 100u);
    EXPECT_EQ(kestal_event_disable_buffer(at, output), 0);
    EXPECT_EQ(kestal_event_get_buffer_size(at, both), 99u);
}

TEST_F(event_buffer, DirectionsSayWhichBuffersAreMeant)
{
    const told held(base_);
    kestal_event_t *at = held.handle;
    char taken[8];
    EXPECT_EQ(kestal_event_get_buffer_size(at, both), 0u);
    EXPECT_EQ(kestal_event_pop_buffer(at, input, taken, 1), -1) << "no buffer";
    EXPECT_EQ(kestal_event_push_puts(at, both, "abc"), 6);
    EXPECT_EQ(kestal_event_get_buffer_size(at, both), 6u);
    EXPECT_EQ(kestal_event_get_buffer_size(at, output), 3u);
    EXPECT_EQ(kestal_event_push_printf(at, both, "%s", ""), 0);
    EXPECT_EQ(kestal_event_push_buffer(at, 0, "x", 1), 0);
    EXPECT_EQ(kestal_event_pop_buffer(at, 0, taken, 1), -1);
    EXPECT_EQ(kestal_event_peek_buffer(at, 0, taken, 1, 0), -1);
    EXPECT_EQ(kestal_event_peek_buffer(at, input, taken, 8, 1), 2);
    kestal_event_disable_buffer(at, both);
    EXPECT_GT(kestal_test::with_each_allocation_failing([at] {
                  const int32_t pushed = kestal_event_push_printf(at, both, "%d", 12345);
                  EXPECT_TRUE(pushed == -1 || static_cast<uint64_t>(pushed) == kestal_event_get_buffer_size(at, both));
                  kestal_event_disable_buffer(at, both);
              }),
              4u);
}

TEST_F(event_buffer, ATimerWithABufferWaitsForItsDescriptor)
{
    const pair_of_sockets pair;
    told timer(base_, pair.ends[0], KESTAL_EVENT_PERSIST);
    ASSERT_EQ(timer.add(), 0);
    pair.send();
    look();
    EXPECT_EQ(kestal_event_enable_buffer(timer.handle, input), 0);
    kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE);
    EXPECT_EQ(timer.come(), calls{KESTAL_EVENT_READ});
}

} // namespace
