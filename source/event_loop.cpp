#include "event.hpp"
#include "event_connect.hpp"

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/global_break.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/select.h>
#include <kestal_ulx/short_lock.h>
#include <kestal_ulx/socket.h>
#include <kestal_ulx/time_stamp.h>

#include <algorithm>
#include <bit>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <utility>

namespace {

using kestal::base_guard;
using kestal::has_flags;
using kestal::report_base;

constexpr uint32_t most_levels = 65535;
constexpr uint32_t calls_of_assignment = KESTAL_EVENT_ASSIGNED | KESTAL_EVENT_UNASSIGNED;
constexpr int32_t signal_segment_fault = 11;
constexpr int32_t contended_wait_ms = 1;
constexpr int read_tries = 128;
constexpr int short_waits_from = 64;
constexpr int long_waits_from = 95;

constinit kestal_event_base_t *default_base = nullptr;

// A base with what it keeps.
struct whole_base {
    kestal_event_base_t base;
    kestal_event_state state;
};

std::atomic_ref<uint32_t> word(uint32_t &value)
{
    return std::atomic_ref(value);
}

void trace(const kestal_event_base_t &base, uint32_t flags, const char *text)
{
    if (kestal::is_tracing())
        kestal_error_printf("kestal_event_base_loop: [MESSAGE] %s (base=%p, flags=%08XH, event_count=%lu, "
                            "timer_event_count=%lu, active_event_count=%lu)\n",
                            text, static_cast<const void *>(&base), flags, base.m_event_count, base.m_timer_event_count,
                            base.m_active_event_count);
}

void trace_number(const kestal_event_base_t &base, uint32_t flags, const char *format, int32_t number)
{
    if (!kestal::is_tracing())
        return;
    char text[64];
    kestal_snprintf(text, sizeof(text), format, number);
    trace(base, flags, text);
}

// --- the wake-up

void empty_notify_pair(int32_t descriptor)
{
    char bytes[1024];
    for (int tries = 1; tries <= read_tries; ++tries) {
        if (kestal_sys_recv(descriptor, bytes, sizeof(bytes), MSG_DONTWAIT) >= 0 || errno == EAGAIN)
            return;
        if (tries > long_waits_from)
            kestal_load_balance();
        else if (tries > short_waits_from)
            kestal_load_balance_short();
    }
}

void handle_notification(kestal_event_t *, int32_t descriptor, uint32_t what, void *context)
{
    if ((what & calls_of_assignment) != 0)
        return;
    kestal_event_base_t &base = *static_cast<kestal_event_base_t *>(context);
    empty_notify_pair(descriptor);
    const base_guard guard(base);
    word(base.m_notified).exchange(0);
    // Some may have come after this look, for a signal or a look-up that it did not find yet.
    base.m_state->looks_again = base.m_state->attended != nullptr;
}

// A pair for the library alone: programs that the process starts do not inherit it.
bool open_own_pair(kestal_socket_pair_t &ends)
{
    if (kestal_socket_pair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, &ends) == 0)
        return true;
    if (kestal_socket_pipe(&ends) != 0) // what there is without unix sockets takes no flags
        return false;
    for (const int32_t descriptor : ends.m_socket) {
        kestal_set_non_block_socket(descriptor, 1);
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
    return true;
}

bool open_notify_pair(kestal_event_base_t &base)
{
    kestal_socket_pair_t ends;
    if (!open_own_pair(ends))
        return false;
    base.m_notify[0] = ends.m_socket[1];
    base.m_notify[1] = ends.m_socket[0];
    return true;
}

// What was wrong with the new base, or null.
const char *prepare(kestal_event_base_t &base)
{
    base.m_lock = kestal_new_lock();
    if (base.m_lock == nullptr)
        return "kestal_new_lock failed !";
    base.m_select = kestal_open_select();
    if (base.m_select == nullptr)
        return "kestal_open_select failed !";
    base.m_state->watched.open(base.m_select);
    if (kestal_event_base_init_priority(&base, 1) != 0)
        return "kestal_event_base_init_priority failed !";
    if (!open_notify_pair(base))
        return "kestal_socket_pipe for notify failed !";
    if (kestal_assign_event(&base, &base.m_notify_event, base.m_notify[0], KESTAL_EVENT_READ | KESTAL_EVENT_PERSIST,
                            handle_notification, &base) != 0)
        return "kestal_assign_event for notify failed !";
    if (kestal_add_event(&base.m_notify_event, -1) != 0)
        return "kestal_add_event for notify failed !";
    return nullptr;
}

void free_unassigned(kestal_event_t *event)
{
    if (has_flags(*event, KESTAL_EVENT_ALLOCATED))
        kestal_free_event(event);
    else
        kestal_unassign_event(event);
}

void unassign_all(kestal_event_base_t &base)
{
    base.m_state->is_closing = 1;
    while (base.m_head != nullptr)
        free_unassigned(base.m_head);
    for (uint32_t level = 0; level < base.m_max_priority; ++level)
        while (base.m_active[level].m_head != nullptr)
            free_unassigned(base.m_active[level].m_head);
}

void check_counts(const kestal_event_base_t &base)
{
    const auto check = [](uint64_t count, uint64_t line, const char *text) {
        if (count != 0)
            kestal_assert_fail_tag("./source/event", "kestal_free_event_base", line, text);
    };
    check(base.m_event_count, __LINE__, "s_base->m_event_count == ((size_t)0u)");
    check(base.m_timer_event_count, __LINE__, "s_base->m_timer_event_count == ((size_t)0u)");
    check(base.m_active_event_count, __LINE__, "s_base->m_active_event_count == ((size_t)0u)");
}

void close_notify_pair(kestal_event_base_t &base)
{
    for (int32_t &descriptor : base.m_notify)
        if (descriptor >= 0)
            kestal_close_socket(std::exchange(descriptor, -1));
}

// --- a look at what has come up

void take_in(kestal_event_t &event)
{
    if ((event.m_state & kestal::event_found) != 0 || !has_flags(event, KESTAL_EVENT_REGISTERED))
        return;
    event.m_state |= kestal::event_found;
    kestal_event_state &state = *event.m_base->m_state;
    state.found[state.found_count++] = {event.m_order, &event};
}

// Finds the events that something may have come up for, in the order in which they were added.
void find_events(kestal_event_base_t &base, uint64_t now, bool has_ready)
{
    kestal_event_state &state = *base.m_state;
    state.found_count = 0;
    if (has_ready)
        state.watched.each_ready([&state](int32_t descriptor, uint32_t conditions) {
            for (kestal_event_t *at = state.watched.first(descriptor); at != nullptr; at = at->m_same_next) {
                at->m_ready = conditions;
                take_in(*at);
            }
        });
    state.timers.take_due(now, take_in);
    base.m_timer_head = state.timers.first();
    for (kestal_event_t *at = state.attended; at != nullptr; at = at->m_attended_next)
        take_in(*at);
    const auto is_earlier = [](const kestal_event_state::found_event &a, const kestal_event_state::found_event &b) {
        return a.order < b.order;
    };
    if (!std::is_sorted(state.found, state.found + state.found_count, is_earlier))
        std::sort(state.found, state.found + state.found_count, is_earlier);
}

// Of the conditions found ready, those in which the event is interested, as far as the count of ready conditions goes:
// what several events wait for on one descriptor goes to those added first.
uint32_t take_ready(const kestal_event_t &event, uint32_t found, int32_t &left)
{
    found &= kestal::select_mask(event);
    while (kestal::number_of(found) > left)
        found &= ~std::bit_floor(found);
    left -= kestal::number_of(found);
    return found;
}

void examine(kestal_event_t &event, uint64_t now, int32_t &ready_left)
{
    event.m_state &= ~kestal::event_found;
    const uint32_t found = std::exchange(event.m_ready, 0);
    if (!has_flags(event, KESTAL_EVENT_ACTIVE))
        event.m_result = 0;
    if (has_flags(event, KESTAL_EVENT_RESOLVE) && event.m_resolver_name != nullptr && event.m_resolved == nullptr)
        kestal::resolve_event(event);

    if (kestal::is_plain(event)) {
        if (event.m_signal_node != nullptr && kestal_reset_signal_node_count(event.m_signal_node) > 0)
            event.m_result |= KESTAL_EVENT_SIGNAL;
    } else {
        const uint32_t ready = take_ready(event, found, ready_left);
        if (kestal::is_unconnected(event))
            kestal::connect_event(event, ready);
        else
            event.m_result |= ready;
    }
    if (event.m_result == 0) {
        if (event.m_timeout < 0 || now < event.m_deadline)
            return;
        event.m_result = KESTAL_EVENT_TIMEOUT;
    }
    if (!has_flags(event, KESTAL_EVENT_ACTIVE))
        kestal::append_active(event);
}

void look(kestal_event_base_t &base, int32_t ready)
{
    kestal_event_state &state = *base.m_state;
    state.looks_again = 0;
    const uint64_t now = base.m_timer_event_count == 0 ? 0 : kestal::look_at_clock(base);
    find_events(base, now, ready > 0);
    for (uint64_t i = 0; i < state.found_count; ++i)
        examine(*state.found[i].event, now, ready);
}

// --- the service of what is active

bool is_stopping(kestal_event_base_t &base)
{
    return word(base.m_state->is_stopping).load(std::memory_order_relaxed) != 0;
}

kestal_event_t *first_active(kestal_event_base_t &base, uint32_t level)
{
    return level < base.m_max_priority ? base.m_active[level].m_head : nullptr;
}

uint32_t lowest_active_level(kestal_event_base_t &base)
{
    uint32_t &level = base.m_state->lowest_level;
    while (level + 1 < base.m_max_priority && base.m_active[level].m_head == nullptr)
        ++level;
    return level;
}

// Takes an event that is served out of the queues that it is to leave.
void let_go(kestal_event_t &event)
{
    if (!has_flags(event, KESTAL_EVENT_PERSIST)) {
        kestal::delete_event(event);
        return;
    }
    kestal::remove_active(event);
    // One that was only activated has nothing to be due for.
    if (has_flags(event, KESTAL_EVENT_REGISTERED))
        kestal::start_timer(event);
    else
        kestal::stop_timer(event);
}

void serve_level(kestal_event_base_t &base)
{
    const uint32_t level = lowest_active_level(base);
    uint64_t most = UINT64_MAX;
    for (kestal_event_t *event = nullptr; most > 0 && (event = first_active(base, level)) != nullptr; --most) {
        const kestal_event_handler_t handler = event->m_handler;
        void *context = event->m_context;
        const int32_t descriptor = event->m_descriptor;
        const uint32_t result = event->m_result;
        let_go(*event);
        if (handler != nullptr) {
            kestal_unlock(base.m_lock);
            handler(event, descriptor, result, context); // the event may be gone now
            kestal_lock(base.m_lock);
        }
        if (word(base.m_break).load(std::memory_order_relaxed) != 0)
            return;
        // A service that is to stop serves what is active, but not for ever what handlers add to it.
        if (is_stopping(base))
            most = std::min(most, base.m_active_event_count + 1);
    }
}

// --- the loop

int32_t wait_time(kestal_event_base_t &base, uint32_t flags)
{
    if (base.m_active_event_count != 0 || base.m_state->looks_again != 0 || (flags & KESTAL_EVENT_LOOP_NON_BLOCK) != 0)
        return 0;
    int32_t wait = -1;
    if (base.m_timer_head != nullptr) {
        const uint64_t deadline = base.m_timer_head->m_deadline;
        const uint64_t now = deadline <= base.m_state->now ? deadline : kestal::look_at_clock(base);
        wait = deadline <= now ? 0 : static_cast<int32_t>(std::min<uint64_t>(deadline - now, INT32_MAX));
    }
    // Never shortens a wait without limit, which compares as less: kept.
    if (base.m_maximum_wait >= 0 && base.m_maximum_wait < wait)
        wait = base.m_maximum_wait;
    return wait;
}

bool has_contenders(kestal_event_base_t &base)
{
    return word(base.m_state->contenders).load() != 0;
}

// Lets a thread in that wants the lock before it is held through a wait.
void let_contenders_in(kestal_event_base_t &base)
{
    if (!has_contenders(base))
        return;
    kestal_unlock(base.m_lock);
    sched_yield();
    kestal_lock(base.m_lock);
}

// Waits, and makes active what has come up. False, with errno, when the wait failed.
bool wait_and_look(kestal_event_base_t &base, uint32_t flags, bool has_served)
{
    int32_t wait = wait_time(base, flags);
    trace_number(base, flags, "select dispatch waiting... %d msec", wait);
    if (has_contenders(base) && (wait < 0 || wait > contended_wait_ms))
        wait = contended_wait_ms;
    const int32_t ready = base.m_state->watched.wait(wait, has_served);
    const int error = ready < 0 ? errno : 0;
    trace_number(base, flags, "select dispatched %d", ready);
    if (ready >= 0) {
        look(base, ready);
        return true;
    }
    if (error != EINTR)
        report_base("kestal_event_base_loop", "kestal_select_dispatch failed !", &base);
    errno = error;
    return false;
}

bool must_break_globally(kestal_event_base_t &base, uint32_t flags)
{
    if ((flags & KESTAL_EVENT_LOOP_GLOBAL_BREAK) == 0 || kestal_get_global_break() == 0)
        return false;
    word(base.m_exit).store(1);
    return true;
}

// Goes round until there is a reason to end; returns it. Null when the wait failed.
const char *run(kestal_event_base_t &base, uint32_t flags)
{
    bool has_served = true; // or somebody else did before
    for (;;) {
        let_contenders_in(base);
        if (word(base.m_exit).load() != 0 || is_stopping(base))
            return "exit event base loop.";
        if (word(base.m_break).exchange(0) != 0)
            return "break event base loop.";
        if (base.m_event_count == 0 && base.m_active_event_count == 0)
            return "no event registered.";
        if (!wait_and_look(base, flags, has_served))
            return nullptr;
        has_served = base.m_active_event_count != 0;
        if (has_served) {
            serve_level(base);
            if ((flags & KESTAL_EVENT_LOOP_ONCE) != 0 && base.m_active_event_count == 0)
                return "break event base once loop.";
        } else if ((flags & KESTAL_EVENT_LOOP_NON_BLOCK) != 0) {
            return "break event base non-block loop.";
        }
        if (must_break_globally(base, flags))
            return "global-break event base loop.";
    }
}

// --- events of a base's own

struct once_event {
    kestal_event_t event;
    kestal_event_handler_t handler;
    void *context;
    bool *is_gone; // told by the call of unassign to the call that it happens in
};

// Passes every call on. The event goes with the first that is not of assignment, unless it persists.
void handle_once(kestal_event_t *event, int32_t descriptor, uint32_t what, void *context)
{
    auto *once = static_cast<once_event *>(context);
    if ((what & KESTAL_EVENT_UNASSIGNED) != 0) {
        if (once->handler != nullptr)
            once->handler(event, descriptor, what, once->context);
        if (once->is_gone != nullptr)
            *once->is_gone = true;
        kestal_free_tag(once, "kestal_event_base_once_with_resolver", __LINE__);
        return;
    }
    bool is_gone = false;
    bool *outer = std::exchange(once->is_gone, &is_gone);
    if (once->handler != nullptr)
        once->handler(event, descriptor, what, once->context);
    if (is_gone) {
        if (outer != nullptr)
            *outer = true;
        return;
    }
    once->is_gone = outer;
    if ((what & KESTAL_EVENT_ASSIGNED) == 0 && !has_flags(*event, KESTAL_EVENT_PERSIST))
        kestal_unassign_event(event);
}

void handle_exit(kestal_event_t *, int32_t, uint32_t what, void *context)
{
    if ((what & calls_of_assignment) == 0)
        word(static_cast<kestal_event_base_t *>(context)->m_exit).store(1);
}

} // namespace

kestal_event_base_t *kestal_new_event_base(void)
{
    auto *whole = static_cast<whole_base *>(kestal_calloc(1, sizeof(whole_base)));
    if (whole == nullptr)
        return nullptr;
    kestal_event_base_t &base = whole->base;
    base.m_state = &whole->state;
    base.m_thread_id = static_cast<uint64_t>(pthread_self());
    base.m_maximum_wait = -1;
    kestal::look_at_clock(base);
    base.m_notify[0] = base.m_notify[1] = -1;
    base.m_check_service = kestal_event_base_check_service;
    base.m_start_service = kestal_event_base_start_service;
    base.m_stop_service = kestal_event_base_stop_service;
    const char *failure = prepare(base);
    if (failure == nullptr)
        return &base;
    report_base(__func__, failure, &base);
    return kestal_free_event_base(&base);
}

kestal_event_base_t *kestal_free_event_base(kestal_event_base_t *base)
{
    if (base == nullptr)
        return nullptr;
    if (base->m_service != nullptr)
        kestal_event_base_stop_service(base);
    unassign_all(*base);
    check_counts(*base);
    kestal_close_resolver_cache(base->m_resolver_cache);
    base->m_state->watched.close();
    base->m_state->timers.close();
    kestal_close_select(base->m_select);
    close_notify_pair(*base);
    kestal_check_free(base->m_state->found);
    kestal_check_free(base->m_active);
    if (base->m_lock != nullptr)
        kestal_free_lock(base->m_lock);
    kestal_free(base);
    return nullptr;
}

int32_t kestal_event_base_init_priority(kestal_event_base_t *base, uint32_t levels)
{
    if (base == nullptr || levels == 0 || levels > most_levels)
        return -1;
    auto *queues = static_cast<kestal_event_base::kestal_event_queue *>(kestal_calloc(levels, sizeof(*base->m_active)));
    if (queues == nullptr)
        return -1;
    const base_guard guard(*base);
    const bool is_free = base->m_active_event_count == 0;
    if (is_free) {
        std::swap(base->m_active, queues);
        base->m_max_priority = levels;
        base->m_state->lowest_level = levels - 1;
    }
    kestal_check_free(queues);
    return is_free ? 0 : -1;
}

int32_t kestal_event_base_loop(kestal_event_base_t *base, uint32_t flags)
{
    if (base == nullptr) {
        kestal_error_printf("%s: [ERROR] s_base is null !\n", __func__);
        return -1;
    }
    const base_guard guard(*base);
    if (base->m_running != 0) {
        report_base(__func__, "reentrant invocation ! only one loop !", base);
        return -1;
    }
    std::atomic_ref(base->m_thread_id).store(static_cast<uint64_t>(pthread_self()), std::memory_order_relaxed);
    word(base->m_exit).store(0);
    word(base->m_break).store(0);
    word(base->m_running).store(1);
    const char *reason = run(*base, flags);
    const int error = errno;
    must_break_globally(*base, flags);
    if (reason != nullptr)
        trace(*base, flags, reason);
    word(base->m_running).store(0);
    errno = error;
    return reason == nullptr ? -1 : 0;
}

int32_t kestal_event_base_dispatch(kestal_event_base_t *base)
{
    return kestal_event_base_loop(base, 0);
}

int32_t kestal_event_base_break_loop(kestal_event_base_t *base)
{
    if (base == nullptr)
        return -1;
    word(base->m_break).store(1);
    kestal::notify_loop(*base);
    return 0;
}

int32_t kestal_event_base_exit_loop(kestal_event_base_t *base, int32_t timeout_ms)
{
    return kestal_event_base_once(base, -1, 0, handle_exit, base, timeout_ms);
}

uint32_t kestal_event_base_get_exit(kestal_event_base_t *base)
{
    return base == nullptr ? 0 : word(base->m_exit).load();
}

int32_t kestal_event_base_once(kestal_event_base_t *base, int32_t descriptor, uint32_t flags,
                               kestal_event_handler_t handler, void *context, int32_t timeout_ms)
{
    return kestal_event_base_once_with_resolver(base, descriptor, flags, handler, context, timeout_ms, nullptr, -1,
                                                nullptr, -1);
}

int32_t kestal_event_base_once_with_resolver(kestal_event_base_t *base, int32_t descriptor, uint32_t flags,
                                             kestal_event_handler_t handler, void *context, int32_t timeout_ms,
                                             const char *bind_address, int32_t bind_port, const char *resolver_name,
                                             int32_t resolver_port)
{
    if (base == nullptr)
        return -1;
    auto *once = static_cast<once_event *>(kestal_calloc(1, sizeof(once_event)));
    if (once == nullptr)
        return -1;
    once->handler = handler;
    once->context = context;
    // The record is released by the call of unassign, not as one of kestal_new_event.
    if (kestal_assign_event_with_resolver(base, &once->event, descriptor, flags & ~KESTAL_EVENT_ALLOCATED, handle_once,
                                          once, bind_address, bind_port, resolver_name, resolver_port) != 0) {
        kestal_free(once);
        return -1;
    }
    if (kestal_add_event(&once->event, timeout_ms) == 0)
        return 0;
    kestal_unassign_event(&once->event);
    return -1;
}

kestal_event_base_t *kestal_init_event_base(void)
{
    if (default_base == nullptr)
        default_base = kestal_new_event_base();
    return default_base;
}

kestal_event_base_t *kestal_uninit_event_base(void)
{
    default_base = kestal_free_event_base(default_base);
    return default_base;
}

int32_t kestal_event_loop(uint32_t flags)
{
    return kestal_event_base_loop(default_base, flags);
}

int32_t kestal_event_dispatch(void)
{
    return kestal_event_base_dispatch(default_base);
}

int32_t kestal_event_break_loop(void)
{
    return kestal_event_base_break_loop(default_base);
}

int32_t kestal_event_exit_loop(int32_t timeout_ms)
{
    return kestal_event_base_exit_loop(default_base, timeout_ms);
}

int32_t kestal_event_once(int32_t descriptor, uint32_t flags, kestal_event_handler_t handler, void *context,
                          int32_t timeout_ms)
{
    return kestal_event_base_once(default_base, descriptor, flags, handler, context, timeout_ms);
}

int32_t kestal_event_once_with_resolver(int32_t descriptor, uint32_t flags, kestal_event_handler_t handler,
                                        void *context, int32_t timeout_ms, const char *bind_address, int32_t bind_port,
                                        const char *resolver_name, int32_t resolver_port)
{
    return kestal_event_base_once_with_resolver(default_base, descriptor, flags, handler, context, timeout_ms,
                                                bind_address, bind_port, resolver_name, resolver_port);
}

int32_t kestal_event_init_priority(uint32_t levels)
{
    return kestal_event_base_init_priority(default_base, levels);
}

void kestal_event_default_handler_exit(kestal_event_t *event, int32_t descriptor, uint32_t what, void *)
{
    if (event == nullptr || (what & calls_of_assignment) != 0)
        return;
    if ((what & KESTAL_EVENT_SIGNAL) != 0 && descriptor == signal_segment_fault) {
        kestal_error_printf("%s: %s - [SIGNAL] segment fault.\n", "./source/event", __func__);
        exit(0);
    }
    kestal_event_base_exit_loop(event->m_base, 0);
}
