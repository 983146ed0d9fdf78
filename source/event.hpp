// What the parts of the event module share: the queues of a base, its lock and its wake-up.
#pragma once

#include <kestal_ulx/event.h>

#include "readiness.hpp"
#include "timer_heap.hpp"

#include <atomic>
#include <sys/un.h>

// What a base keeps beside its public fields. Under the base's lock, but for the count of contenders.
struct kestal_event_state {
    struct found_event {
        uint64_t order;
        kestal_event_t *event;
    };

    kestal::readiness watched;
    // With room for all that wait for a deadline or have found it come.
    kestal::timer_heap<kestal_event_t, &kestal_event_t::m_deadline, &kestal_event_t::m_timer_place> timers;
    kestal_event_t *attended; // events that every look takes in: signals, look-ups under way
    found_event *found;       // the events that this look takes in
    uint64_t found_count;
    uint64_t found_room; // as many as are registered, at least
    uint64_t now;        // ms, when the clock was looked at last
    uint64_t next_order;
    uint32_t lowest_level; // no level below it has active events
    uint32_t contenders;   // threads that want the lock while the loop has it
    uint32_t is_closing;
    uint32_t is_stopping; // the service is to end
    uint32_t looks_again; // the next wait ends at once: bytes were read that something attended may have sent
};

namespace kestal {

// Bits of kestal_event_t.m_state.
constexpr uint32_t event_connect_failed = 1; // does not try again until it is added anew
constexpr uint32_t event_found = 2;
constexpr uint32_t event_attended = 4;
constexpr uint32_t event_attached = 8; // is in the chain of its descriptor

// --- flags: changed under the base's lock, read without it

inline uint32_t flags_of(const kestal_event_t &event)
{
    return std::atomic_ref(const_cast<uint32_t &>(event.m_flags)).load(std::memory_order_relaxed);
}

inline bool has_flags(const kestal_event_t &event, uint32_t any)
{
    return (flags_of(event) & any) != 0;
}

inline void change_flags(kestal_event_t &event, uint32_t cleared, uint32_t set)
{
    std::atomic_ref(event.m_flags).store((flags_of(event) & ~cleared) | set, std::memory_order_relaxed);
}

// An event that waits for no descriptor: a timer or a signal.
inline bool is_plain(const kestal_event_t &event)
{
    constexpr uint32_t waits = KESTAL_EVENT_READ | KESTAL_EVENT_WRITE | KESTAL_EVENT_EXCEPTION | KESTAL_EVENT_CONNECT;
    return !has_flags(event, waits) && event.m_input_buffer == nullptr && event.m_output_buffer == nullptr;
}

inline bool is_unconnected(const kestal_event_t &event)
{
    return (flags_of(event) & (KESTAL_EVENT_CONNECT | KESTAL_EVENT_CONNECTED)) == KESTAL_EVENT_CONNECT;
}

// --- the base's lock, which a loop holds but for its handler calls

// Takes the lock, waking the loop if it waits with the lock held.
void lock_base(kestal_event_base_t &base);
void unlock_base(kestal_event_base_t &base);

class base_guard {
public:
    explicit base_guard(kestal_event_base_t &base) : base_(base) { lock_base(base_); }
    ~base_guard() { unlock_base(base_); }
    base_guard(const base_guard &) = delete;
    base_guard &operator=(const base_guard &) = delete;

private:
    kestal_event_base_t &base_;
};

// Wakes the loop with a byte. Takes no lock; may be called in signal context.
void wake_loop(kestal_event_base_t &base);

// Wakes the loop if it runs in another thread and no byte is under way.
void notify_loop(kestal_event_base_t &base);

bool is_on_loop_thread(const kestal_event_base_t &base);

// --- what follows is called with the lock held

// The conditions in which the event is interested now: KESTAL_SELECT_ bits.
uint32_t select_mask(const kestal_event_t &event);

// Has the base watch the event's descriptor as its mask says. False when memory is short.
bool watch_event(kestal_event_t &event);

// Whether the event may begin a time-out, of so many milliseconds. False when memory is short.
bool may_start_timer(kestal_event_t &event, int32_t timeout_ms);

// The time by the clock, noted in the base.
uint64_t look_at_clock(kestal_event_base_t &base);

// Begins the event's time-out anew, if it has one.
void start_timer(kestal_event_t &event);
void stop_timer(kestal_event_t &event);

void append_active(kestal_event_t &event);
void remove_active(kestal_event_t &event);

// Has every look take the event in, or not, as its flags and state want it.
void attend_event(kestal_event_t &event);

// Takes the event out of everything, without a word to the loop. False when its interest could not be withdrawn.
bool delete_event(kestal_event_t &event);

// Opens the base's resolver cache if need be.
bool open_resolver_cache(kestal_event_base_t &base);

// Whether a host is the path of a unix socket, which needs no look-up; its address then.
bool is_unix_path(const char *host, sockaddr_un &address);

// --- reports and traces

// Whether the event can be used: reports what it lacks.
bool is_usable(const kestal_event_t *event, const char *function, bool needs_base = true);

void report_base(const char *function, const char *text, const kestal_event_base_t *base);

bool is_tracing();

} // namespace kestal
