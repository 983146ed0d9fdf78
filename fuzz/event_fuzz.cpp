// Bytes as operations on one base, between which and in whose handlers everything is compared with a small model that
// walks all its events. With most of them added, enough descriptors are watched for the kernel's list to wait.
#include "fuzz.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t event_count = 12;
constexpr uint32_t level_count = 3;
constexpr int32_t far_away_ms = 100000000;
constexpr size_t most_calls = 64;

using call = std::pair<size_t, uint32_t>; // the event, and what it was told

// Of the events, some are timers, and some persist.
constexpr bool reads(size_t i)
{
    return i % 4 != 0;
}
constexpr bool persists(size_t i)
{
    return i % 3 == 0;
}

// What a handler does: chosen by the input beforehand, so that model and library do the same.
struct deed {
    int kind = 0; // nothing, or one of those below
    size_t target = 0;
};

template <typename Side>
void act(Side &side, const deed &does)
{
    if (does.kind == 1)
        side.remove(does.target);
    else if (does.kind == 2)
        side.add(does.target, 0);
    else if (does.kind == 3)
        side.activate(does.target, KESTAL_EVENT_WRITE);
    if (does.kind == 4 || side.calls.size() >= most_calls)
        side.break_loop();
}

struct model_event {
    bool readable = false, is_registered = false, is_active = false, is_timed = false;
    int32_t timeout = -1;
    uint32_t priority = level_count / 2, result = 0;
    deed does;
};

// The base as it is described: lists, walked whole.
class model {
public:
    std::array<model_event, event_count> events;
    std::vector<call> calls;

    void add(size_t i, int32_t timeout)
    {
        model_event &at = events[i];
        at.timeout = reads(i) || timeout >= 0 ? timeout : 0;
        if (!at.is_registered && !at.is_active) {
            at.is_registered = true;
            order_.push_back(i);
        }
        at.is_timed = at.timeout >= 0;
    }
    void remove(size_t i)
    {
        events[i].is_registered = events[i].is_active = events[i].is_timed = false;
        std::erase(order_, i);
        for (std::deque<size_t> &level : active_)
            std::erase(level, i);
    }
    void activate(size_t i, uint32_t what)
    {
        model_event &at = events[i];
        at.result = what | (at.is_active ? at.result : 0);
        if (at.is_active)
            return;
        append(i);
        at.is_timed = at.timeout >= 0;
    }
    bool set_priority(size_t i, uint32_t priority)
    {
        if (events[i].is_active || priority >= level_count)
            return false;
        events[i].priority = priority;
        return true;
    }
    uint32_t pending(size_t i) const
    {
        const model_event &at = events[i];
        return (at.is_registered && reads(i) ? KESTAL_EVENT_READ : 0) | (at.is_timed ? KESTAL_EVENT_TIMEOUT : 0) |
               (at.is_active ? at.result : 0);
    }
    void set_readable(size_t i, bool readable) { events[i].readable = readable; }
    void break_loop() { must_break_ = true; }
    void loop()
    {
        const auto has_active = [](const auto &level) { return !level.empty(); };
        auto level = active_.end();
        must_break_ = false;
        do {
            look();
            level = std::find_if(active_.begin(), active_.end(), has_active);
            if (level != active_.end())
                serve(*level);
        } while (!must_break_ && std::any_of(active_.begin(), active_.end(), has_active));
    }

private:
    void append(size_t i)
    {
        events[i].is_active = true;
        active_[events[i].priority].push_back(i);
    }
    void look()
    {
        for (const size_t i : order_) {
            model_event &at = events[i];
            if (!at.is_active)
                at.result = 0;
            if (reads(i) && at.readable)
                at.result |= KESTAL_EVENT_READ;
            if (at.result == 0 && at.timeout == 0)
                at.result = KESTAL_EVENT_TIMEOUT;
            if (at.result != 0 && !at.is_active)
                append(i);
        }
    }
    void serve(std::deque<size_t> &level)
    {
        while (!level.empty() && !must_break_) {
            const size_t i = level.front();
            model_event &at = events[i];
            calls.emplace_back(i, at.result);
            if (persists(i)) {
                level.pop_front();
                at.is_active = false;
                at.is_timed = at.is_registered && at.timeout >= 0;
            } else {
                remove(i);
            }
            act(*this, at.does);
        }
    }
    std::vector<size_t> order_;
    std::array<std::deque<size_t>, level_count> active_;
    bool must_break_ = false;
};

// The library's side.
class real {
public:
    explicit real(const model &other) : other_(other), base_(kestal_new_event_base())
    {
        require(kestal_event_base_init_priority(base_, level_count) == 0);
        for (size_t i = 0; i < event_count; ++i) {
            const uint32_t flags = (reads(i) ? KESTAL_EVENT_READ : 0) | (persists(i) ? KESTAL_EVENT_PERSIST : 0);
            require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_[i].data()) == 0);
            require(kestal_assign_event(base_, &events_[i], reads(i) ? ends_[i][0] : -1, flags, handle, this) == 0);
        }
    }
    ~real()
    {
        for (size_t i = 0; i < event_count; i += 2)
            kestal_unassign_event(&events_[i]);
        kestal_free_event_base(base_); // with what is in it
        for (const auto &pair : ends_)
            std::for_each(pair.begin(), pair.end(), close);
    }
    void set_readable(size_t i, bool readable)
    {
        char byte = 0;
        require((readable ? write(ends_[i][1], "x", 1) : read(ends_[i][0], &byte, 1)) == 1);
    }
    void loop()
    {
        int32_t result = 0;
        do // the fuzzer's own timer may interrupt a wait
            result = kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE | KESTAL_EVENT_LOOP_NON_BLOCK);
        while (result != 0 && errno == EINTR);
        require(result == 0);
    }
    void add(size_t i, int32_t timeout) { require(kestal_add_event(&events_[i], timeout) == 0); }
    void remove(size_t i) { require(kestal_del_event(&events_[i]) == 0); }
    void activate(size_t i, uint32_t what) { require(kestal_active_event(&events_[i], what) == 0); }
    bool set_priority(size_t i, uint32_t priority) { return kestal_event_set_priority(&events_[i], priority) == 0; }
    void break_loop() { require(kestal_event_base_break_loop(base_) == 0); }
    void check_timers() const
    {
        if (base_->m_active_event_count != 0)
            return; // some that have come are not told yet
        uint64_t earliest = UINT64_MAX;
        for (const kestal_event_t &event : events_)
            if ((event.m_flags & KESTAL_EVENT_IN_TIMER_QUEUE) != 0)
                earliest = std::min(earliest, event.m_deadline);
        require((base_->m_timer_head == nullptr ? UINT64_MAX : base_->m_timer_head->m_deadline) == earliest);
    }
    uint32_t pending(size_t i) { return kestal_event_pending(&events_[i], 0xFFFF, nullptr); }

    std::vector<call> calls;

private:
    static void handle(kestal_event_t *event, int32_t, uint32_t what, void *context)
    {
        if ((what & (KESTAL_EVENT_ASSIGNED | KESTAL_EVENT_UNASSIGNED)) != 0)
            return;
        real &self = *static_cast<real *>(context);
        const auto i = static_cast<size_t>(event - self.events_.data());
        self.calls.emplace_back(i, what);
        act(self, self.other_.events[i].does);
    }

    const model &other_;
    kestal_event_base_t *base_;
    std::array<kestal_event_t, event_count> events_{};
    std::array<std::array<int, 2>, event_count> ends_{};
};

void operate(model &expected, real &actual, const uint8_t *input)
{
    const size_t i = input[1] % event_count;
    const uint32_t value = input[2];
    const auto both = [&](auto operation) { require(operation(expected) == operation(actual)); };
    const int32_t timeouts[] = {-1, 0, far_away_ms + static_cast<int32_t>(value)};
    const bool readable = !expected.events[i].readable;
    switch (input[0] % 7) {
    case 0:
        return both([=](auto &side) { return side.add(i, timeouts[value % 3]), 0; });
    case 1:
        return both([=](auto &side) { return side.remove(i), 0; });
    case 2:
        return both([=](auto &side) { return side.activate(i, value & 7u), 0; });
    case 3:
        return both([=](auto &side) { return side.set_priority(i, value % (level_count + 1)); });
    case 4:
        return both([=](auto &side) { return side.set_readable(i, readable), 0; });
    case 5:
        expected.events[i].does = {static_cast<int>(value % 5), value / 5 % event_count};
        return;
    default:
        return both([](auto &side) { return side.calls.clear(), side.loop(), side.calls; });
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint64_t blocks = kestal_get_alloc_count();
    kestal_set_error_puts_handler(kestal_quiet_puts, nullptr);
    {
        model expected;
        real actual(expected);
        for (; size >= 3; size -= 3, data += 3) {
            operate(expected, actual, data);
            actual.check_timers();
            for (size_t i = 0; i < event_count; ++i)
                require(actual.pending(i) == expected.pending(i));
        }
    }
    require(kestal_get_alloc_count() == blocks);
    return 0;
}
