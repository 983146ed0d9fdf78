#include "event.hpp"

#include <kestal_ulx/address.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/socket.h>
#include <kestal_ulx/time_stamp.h>

#include "guard.hpp"
#include "list.hpp"

#include <algorithm>
#include <errno.h>
#include <pthread.h>
#include <sys/socket.h>
#include <utility>

namespace {

using kestal::base_guard;
using kestal::change_flags;
using kestal::flags_of;
using kestal::has_flags;
using kestal::is_usable;

constexpr const char *assign_tag = "__kestal_assign_event_with_resolver";

// What a caller may give to assign.
constexpr uint32_t assigned_flags = 0x1F | KESTAL_EVENT_ALLOCATED | KESTAL_EVENT_RESOLVE | KESTAL_EVENT_CONNECT;
constexpr uint32_t pending_state = 0xF00F;
constexpr uint32_t pending_asked = 0xF02F;
constexpr uint32_t cache_expiry_ms = 3600000;
constexpr int32_t no_port = -1;

constexpr int send_tries = 128;
constexpr int short_waits_from = 64;
constexpr int long_waits_from = 95;

constinit std::atomic<uint32_t> debug_mode{0};

kestal::doubly_linked_list registered(kestal_event_base_t &base)
{
    return {&base.m_head, &base.m_tail, KESTAL_LINKS(kestal_event_t, m_prev, m_next)};
}

kestal::doubly_linked_list active(kestal_event_base_t &base, uint32_t level)
{
    return {&base.m_active[level].m_head, &base.m_active[level].m_tail,
            KESTAL_LINKS(kestal_event_t, m_active_prev, m_active_next)};
}

kestal::doubly_linked_list attended(kestal_event_base_t &base)
{
    return {&base.m_state->attended, nullptr, KESTAL_LINKS(kestal_event_t, m_attended_prev, m_attended_next)};
}

kestal::doubly_linked_list same_descriptor(kestal_event_t &event)
{
    return {&event.m_base->m_state->watched.first(event.m_descriptor), nullptr,
            KESTAL_LINKS(kestal_event_t, m_same_prev, m_same_next)};
}

void report_event(const char *function, const char *text, const kestal_event_t &event)
{
    kestal_error_printf("%s: [ERROR] %s (event=%p, descriptor=%d, flags=%08XH, handler=%p, context=%p)\n", function,
                        text, static_cast<const void *>(&event), event.m_descriptor, flags_of(event),
                        reinterpret_cast<void *>(event.m_handler), event.m_context);
}

void trace_event(const char *function, const char *text, const kestal_event_t *event)
{
    if (kestal::is_tracing())
        kestal_error_printf("%s: [MESSAGE] %s (event=%p)\n", function, text, static_cast<const void *>(event));
}

// --- registration

bool has_resolver(const kestal_event_t &event)
{
    return has_flags(event, KESTAL_EVENT_RESOLVE) && event.m_resolver_name != nullptr;
}

bool waits_for_addresses(const kestal_event_t &event)
{
    return has_resolver(event) && event.m_resolved == nullptr;
}

bool waits_to_connect(const kestal_event_t &event)
{
    return event.m_resolved != nullptr && kestal::is_unconnected(event) && !has_flags(event, KESTAL_EVENT_CONNECTING) &&
           (event.m_state & kestal::event_connect_failed) == 0;
}

bool is_signal_number(const kestal_event_t &event)
{
    return event.m_descriptor >= 0 && event.m_descriptor <= 64;
}

bool make_room_to_be_found(kestal_event_base_t &base)
{
    kestal_event_state &state = *base.m_state;
    if (base.m_event_count < state.found_room)
        return true;
    const uint64_t room = std::max(uint64_t{16}, state.found_room * 2);
    void *block = kestal_alloc(room * sizeof(kestal_event_state::found_event));
    if (block == nullptr)
        return false;
    kestal_check_free(state.found);
    state.found = static_cast<kestal_event_state::found_event *>(block);
    state.found_room = room;
    return true;
}

void wake_for_signal(int32_t, void *argument)
{
    kestal::wake_loop(*static_cast<kestal_event_base_t *>(argument));
}

void wake_for_addresses(kestal_resolver_cache_t *, int32_t, const char *, uint32_t, void *context)
{
    kestal::wake_loop(*static_cast<kestal_event_base_t *>(context));
}

bool watch_signal(kestal_event_t &event)
{
    if (event.m_signal_node == nullptr && is_signal_number(event))
        event.m_signal_node =
            kestal_add_signal(static_cast<uint32_t>(event.m_descriptor), wake_for_signal, event.m_base);
    return event.m_signal_node != nullptr;
}

bool begin_to_wait(kestal_event_t &event)
{
    if (!kestal::is_plain(event))
        return event.m_descriptor < 0 || kestal::watch_event(event);
    return !has_flags(event, KESTAL_EVENT_SIGNAL) || watch_signal(event);
}

bool register_event(kestal_event_t &event)
{
    kestal_event_base_t &base = *event.m_base;
    if (!make_room_to_be_found(base) || !begin_to_wait(event))
        return false;
    registered(base).append(&event);
    ++base.m_event_count;
    event.m_order = base.m_state->next_order++;
    event.m_state &= ~kestal::event_connect_failed;
    change_flags(event, 0, KESTAL_EVENT_REGISTERED);
    kestal::attend_event(event);
    return true;
}

void unregister_event(kestal_event_t &event)
{
    kestal_event_base_t &base = *event.m_base;
    registered(base).remove(&event);
    --base.m_event_count;
    change_flags(event, KESTAL_EVENT_REGISTERED, 0);
    kestal::attend_event(event);
}

bool request_addresses(kestal_event_t &event)
{
    sockaddr_un path;
    return !kestal::is_unix_path(event.m_resolver_name, path) && kestal::open_resolver_cache(*event.m_base) &&
           kestal_request_resolver_cache_with_handler(event.m_base->m_resolver_cache, event.m_resolver_name,
                                                      static_cast<uint32_t>(event.m_resolver_port), wake_for_addresses,
                                                      event.m_base) == 0;
}

// --- assignment

bool is_assigned(const kestal_event_t &event)
{
    return has_flags(event, KESTAL_EVENT_INITIALIZED) && event.m_self == &event;
}

int32_t as_port(int32_t port)
{
    return static_cast<uint32_t>(port) < 65536 ? port : no_port;
}

char *copy_of(const char *text)
{
    return text == nullptr ? nullptr : kestal_strdup_tag(text, assign_tag, __LINE__);
}

bool delete_and_notify(kestal_event_t &event)
{
    const base_guard guard(*event.m_base);
    const bool was_registered = has_flags(event, KESTAL_EVENT_REGISTERED);
    const bool is_done = kestal::delete_event(event);
    if (was_registered && is_done)
        kestal::notify_loop(*event.m_base);
    return is_done;
}

// Takes the event out of its base and releases what it holds.
void release_event(kestal_event_t &event)
{
    if (event.m_base != nullptr)
        delete_and_notify(event);
    kestal_check_free_tag(std::exchange(event.m_bind_address, nullptr), assign_tag, __LINE__);
    kestal_check_free_tag(std::exchange(event.m_resolver_name, nullptr), assign_tag, __LINE__);
    event.m_input_buffer = kestal_close_buffer(event.m_input_buffer);
    event.m_output_buffer = kestal_close_buffer(event.m_output_buffer);
    event.m_self = nullptr;
    change_flags(event, ~KESTAL_EVENT_ALLOCATED, 0);
}

uint32_t middle_priority(const kestal_event_base_t *base)
{
    return base == nullptr ? 0 : base->m_max_priority / 2;
}

} // namespace

// --- the base's lock

void kestal::lock_base(kestal_event_base_t &base)
{
    if (kestal_try_lock(base.m_lock) != 0)
        return;
    // First counted, then the byte: a loop that has not seen the one sees the other.
    const std::atomic_ref contenders(base.m_state->contenders);
    contenders.fetch_add(1);
    wake_loop(base);
    kestal_lock(base.m_lock);
    contenders.fetch_sub(1);
}

void kestal::unlock_base(kestal_event_base_t &base)
{
    kestal_unlock(base.m_lock);
}

void kestal::wake_loop(kestal_event_base_t &base)
{
    if (base.m_notify[1] < 0) {
        report_base(__func__, "invalid notify fd !", &base);
        return;
    }
    for (int tries = 1; tries <= send_tries; ++tries) {
        // Full of bytes that wake it is as good as one more.
        if (kestal_sys_send(base.m_notify[1], "", 1, MSG_DONTWAIT | MSG_NOSIGNAL) == 1 || errno == EAGAIN)
            return;
        if (tries > long_waits_from)
            kestal_load_balance();
        else if (tries > short_waits_from)
            kestal_load_balance_short();
    }
    report_base(__func__, "notify by fd failed !", &base);
}

void kestal::notify_loop(kestal_event_base_t &base)
{
    if (std::atomic_ref(base.m_running).load() == 0 || is_on_loop_thread(base))
        return;
    if (std::atomic_ref(base.m_notified).exchange(1) == 0)
        wake_loop(base);
}

bool kestal::is_on_loop_thread(const kestal_event_base_t &base)
{
    return std::atomic_ref(const_cast<uint64_t &>(base.m_thread_id)).load(std::memory_order_relaxed) ==
           static_cast<uint64_t>(pthread_self());
}

// --- interest

uint32_t kestal::select_mask(const kestal_event_t &event)
{
    const uint32_t flags = flags_of(event);
    if (is_unconnected(event))
        return (flags & KESTAL_EVENT_CONNECTING) != 0
                   ? KESTAL_SELECT_READ | KESTAL_SELECT_WRITE | KESTAL_SELECT_EXCEPTION
                   : 0;
    bool reads = (flags & KESTAL_EVENT_READ) != 0;
    bool writes = (flags & KESTAL_EVENT_WRITE) != 0;
    if (event.m_input_buffer != nullptr)
        reads = event.m_input_high_watermark == 0 ||
                kestal_get_buffer_size(event.m_input_buffer) < event.m_input_high_watermark;
    if (event.m_output_buffer != nullptr)
        writes = kestal_get_buffer_size(event.m_output_buffer) >= event.m_output_low_watermark;
    return (reads ? KESTAL_SELECT_READ : 0) | (writes ? KESTAL_SELECT_WRITE : 0) |
           ((flags & KESTAL_EVENT_EXCEPTION) != 0 ? KESTAL_SELECT_EXCEPTION : 0);
}

bool kestal::watch_event(kestal_event_t &event)
{
    readiness &watched = event.m_base->m_state->watched;
    if (!watched.make_room(event.m_descriptor) || !watched.set(event.m_descriptor, select_mask(event)))
        return false;
    if ((event.m_state & event_attached) == 0) {
        same_descriptor(event).prepend(&event);
        event.m_state |= event_attached;
    }
    return true;
}

// --- the timer queue

bool kestal::may_start_timer(kestal_event_t &event, int32_t timeout_ms)
{
    return timeout_ms < 0 || has_flags(event, KESTAL_EVENT_IN_TIMER_QUEUE) ||
           event.m_base->m_state->timers.make_room(event.m_base->m_timer_event_count + 1);
}

uint64_t kestal::look_at_clock(kestal_event_base_t &base)
{
    return base.m_state->now = kestal_time_stamp_msec();
}

void kestal::start_timer(kestal_event_t &event)
{
    if (event.m_timeout < 0) {
        stop_timer(event);
        return;
    }
    kestal_event_base_t &base = *event.m_base;
    // What is due at once is due at any time that has been.
    event.m_deadline =
        event.m_timeout == 0 ? base.m_state->now : look_at_clock(base) + static_cast<uint64_t>(event.m_timeout);
    base.m_state->timers.put(event);
    base.m_timer_head = base.m_state->timers.first();
    if (has_flags(event, KESTAL_EVENT_IN_TIMER_QUEUE))
        return;
    ++base.m_timer_event_count;
    change_flags(event, 0, KESTAL_EVENT_IN_TIMER_QUEUE);
}

void kestal::stop_timer(kestal_event_t &event)
{
    if (!has_flags(event, KESTAL_EVENT_IN_TIMER_QUEUE))
        return;
    kestal_event_base_t &base = *event.m_base;
    base.m_state->timers.remove(event);
    base.m_timer_head = base.m_state->timers.first();
    --base.m_timer_event_count;
    change_flags(event, KESTAL_EVENT_IN_TIMER_QUEUE, 0);
}

// --- the active queues

void kestal::append_active(kestal_event_t &event)
{
    kestal_event_base_t &base = *event.m_base;
    if (event.m_priority >= base.m_max_priority) {
        kestal_error_printf(
            "%s: [WARNING] s_event->m_priority >= s_base->m_max_priority ! (insert_flags=%08XH, base=%p, "
            "event=%p, priority=%u, descriptor=%d, flags=%08XH, handler=%p, context=%p)\n",
            __func__, KESTAL_EVENT_ACTIVE, static_cast<void *>(&base), static_cast<void *>(&event), event.m_priority,
            event.m_descriptor, flags_of(event), reinterpret_cast<void *>(event.m_handler), event.m_context);
        event.m_priority = middle_priority(&base);
    }
    active(base, event.m_priority).append(&event);
    ++base.m_active_event_count;
    change_flags(event, 0, KESTAL_EVENT_ACTIVE);
    base.m_state->lowest_level = std::min(base.m_state->lowest_level, event.m_priority);
}

void kestal::remove_active(kestal_event_t &event)
{
    if (!has_flags(event, KESTAL_EVENT_ACTIVE))
        return;
    active(*event.m_base, event.m_priority).remove(&event);
    --event.m_base->m_active_event_count;
    change_flags(event, KESTAL_EVENT_ACTIVE, 0);
}

void kestal::attend_event(kestal_event_t &event)
{
    const bool wants = has_flags(event, KESTAL_EVENT_REGISTERED) &&
                       (event.m_signal_node != nullptr || waits_for_addresses(event) || waits_to_connect(event));
    if (wants == ((event.m_state & event_attended) != 0))
        return;
    if (wants)
        attended(*event.m_base).prepend(&event);
    else
        attended(*event.m_base).remove(&event);
    event.m_state ^= event_attended;
}

bool kestal::delete_event(kestal_event_t &event)
{
    kestal_event_base_t &base = *event.m_base;
    bool is_done = true;
    stop_timer(event);
    remove_active(event);
    if (has_flags(event, KESTAL_EVENT_REGISTERED))
        unregister_event(event);
    if ((event.m_state & event_attached) != 0) {
        is_done = is_plain(event) || base.m_state->watched.set(event.m_descriptor, 0);
        if (!is_done)
            report_event(__func__, "kestal_set_select failed !", event);
        same_descriptor(event).remove(&event);
        event.m_state &= ~event_attached;
    }
    if (event.m_signal_node != nullptr)
        kestal_del_signal(std::exchange(event.m_signal_node, nullptr));
    if (event.m_resolved != nullptr)
        event.m_resolved = kestal_close_resolver(event.m_resolved);
    return is_done;
}

bool kestal::open_resolver_cache(kestal_event_base_t &base)
{
    if (base.m_resolver_cache == nullptr)
        base.m_resolver_cache = kestal_open_resolver_cache_ex(0, cache_expiry_ms);
    return base.m_resolver_cache != nullptr;
}

bool kestal::is_unix_path(const char *host, sockaddr_un &address)
{
    return *host != '\0' && kestal_inet_ptos(AF_UNIX, host, 0, &address, sizeof(address)) == 0 &&
           address.sun_path[0] != '\0';
}

// --- reports

bool kestal::is_usable(const kestal_event_t *event, const char *function, bool needs_base)
{
    if (event == nullptr) {
        kestal_error_printf("%s: [ERROR] event is null !\n", function);
        return false;
    }
    if (!has_flags(*event, KESTAL_EVENT_INITIALIZED)) {
        // Without the closing parenthesis: kept, what reads the reports knows it so.
        kestal_error_printf("%s: [ERROR] event is not initialized ! (event=%p\n", function,
                            static_cast<const void *>(event));
        return false;
    }
    if (needs_base && event->m_base == nullptr) {
        kestal_error_printf("%s: [ERROR] event->m_base is null ! (event=%p)\n", function,
                            static_cast<const void *>(event));
        return false;
    }
    return true;
}

void kestal::report_base(const char *function, const char *text, const kestal_event_base_t *base)
{
    kestal_error_printf("%s: [ERROR] %s (base=%p)\n", function, text, static_cast<const void *>(base));
}

bool kestal::is_tracing()
{
    return debug_mode.load(std::memory_order_relaxed) != 0;
}

uint32_t kestal_event_debug_mode(uint32_t on)
{
    debug_mode.store(on != 0 ? 1 : 0, std::memory_order_relaxed);
    return on != 0 ? 1 : 0;
}

// --- the exported calls

int32_t kestal_assign_event(kestal_event_base_t *base, kestal_event_t *event, int32_t descriptor, uint32_t flags,
                            kestal_event_handler_t handler, void *context)
{
    return kestal_assign_event_with_resolver(base, event, descriptor, flags, handler, context, nullptr, no_port,
                                             nullptr, no_port);
}

int32_t kestal_assign_event_with_resolver(kestal_event_base_t *base, kestal_event_t *event, int32_t descriptor,
                                          uint32_t flags, kestal_event_handler_t handler, void *context,
                                          const char *bind_address, int32_t bind_port, const char *resolver_name,
                                          int32_t resolver_port)
{
    if (event == nullptr) {
        kestal_error_printf("%s: [ERROR] event is null !\n", __func__);
        return -1;
    }
    const bool was_assigned = is_assigned(*event);
    if (was_assigned && has_flags(*event, KESTAL_EVENT_REGISTERED)) {
        report_event(__func__, "event is registered !", *event);
        return -1;
    }
    kestal::owned_block<char> address(copy_of(bind_address), assign_tag);
    kestal::owned_block<char> name(copy_of(resolver_name), assign_tag);
    if ((bind_address != nullptr && !address) || (resolver_name != nullptr && !name))
        return -1;
    if (was_assigned) {
        flags |= flags_of(*event) & KESTAL_EVENT_ALLOCATED;
        release_event(*event);
    }
    *event = {};
    event->m_base = base;
    event->m_priority = middle_priority(base);
    event->m_timeout = -1;
    event->m_descriptor = descriptor;
    event->m_handler = handler;
    event->m_context = context;
    event->m_bind_address = address.release();
    event->m_bind_port = as_port(bind_port);
    event->m_resolver_name = name.release();
    event->m_resolver_port = as_port(resolver_port);
    event->m_output_low_watermark = 1;
    event->m_self = event;
    change_flags(*event, 0, (flags & assigned_flags) | KESTAL_EVENT_INITIALIZED);
    if (handler != nullptr)
        handler(event, descriptor, KESTAL_EVENT_ASSIGNED, context);
    return 0;
}

int32_t kestal_set_event(kestal_event_t *event, int32_t descriptor, uint32_t flags, kestal_event_handler_t handler,
                         void *context)
{
    return kestal_assign_event(nullptr, event, descriptor, flags, handler, context);
}

int32_t kestal_set_event_with_resolver(kestal_event_t *event, int32_t descriptor, uint32_t flags,
                                       kestal_event_handler_t handler, void *context, const char *bind_address,
                                       int32_t bind_port, const char *resolver_name, int32_t resolver_port)
{
    return kestal_assign_event_with_resolver(nullptr, event, descriptor, flags, handler, context, bind_address,
                                             bind_port, resolver_name, resolver_port);
}

kestal_event_t *kestal_new_event(kestal_event_base_t *base, int32_t descriptor, uint32_t flags,
                                 kestal_event_handler_t handler, void *context)
{
    return kestal_new_event_with_resolver(base, descriptor, flags, handler, context, nullptr, no_port, nullptr,
                                          no_port);
}

kestal_event_t *kestal_new_event_with_resolver(kestal_event_base_t *base, int32_t descriptor, uint32_t flags,
                                               kestal_event_handler_t handler, void *context, const char *bind_address,
                                               int32_t bind_port, const char *resolver_name, int32_t resolver_port)
{
    auto *event = static_cast<kestal_event_t *>(kestal_calloc(1, sizeof(kestal_event_t)));
    if (event == nullptr)
        return nullptr;
    if (kestal_assign_event_with_resolver(base, event, descriptor, flags | KESTAL_EVENT_ALLOCATED, handler, context,
                                          bind_address, bind_port, resolver_name, resolver_port) == 0)
        return event;
    kestal_free(event);
    return nullptr;
}

kestal_event_t *kestal_free_event(kestal_event_t *event)
{
    if (event == nullptr)
        return nullptr;
    // The last call of its handler may release a record that this module did not make.
    const bool is_ours = has_flags(*event, KESTAL_EVENT_ALLOCATED);
    if (!is_ours || has_flags(*event, KESTAL_EVENT_INITIALIZED))
        kestal_unassign_event(event);
    if (!is_ours)
        return nullptr;
    trace_event(__func__, "free event.", event);
    kestal_free(event);
    return nullptr;
}

int32_t kestal_unassign_event(kestal_event_t *event)
{
    if (!is_usable(event, __func__, false))
        return -1;
    release_event(*event);
    trace_event(__func__, "unassign event.", event);
    if (event->m_handler != nullptr)
        event->m_handler(event, event->m_descriptor, KESTAL_EVENT_UNASSIGNED, event->m_context);
    return 0;
}

int32_t kestal_event_set_base(kestal_event_t *event, kestal_event_base_t *base)
{
    if (!is_usable(event, __func__, false))
        return -1;
    if (base == nullptr || has_flags(*event, KESTAL_EVENT_REGISTERED | KESTAL_EVENT_ACTIVE)) {
        report_event(__func__, base == nullptr ? "s_base is null !" : "event is in use !", *event);
        return -1;
    }
    event->m_base = base;
    event->m_priority = middle_priority(base);
    return 0;
}

int32_t kestal_event_set_priority(kestal_event_t *event, uint32_t priority)
{
    if (!is_usable(event, __func__))
        return -1;
    const base_guard guard(*event->m_base);
    if (has_flags(*event, KESTAL_EVENT_ACTIVE)) {
        report_event(__func__, "already active event !", *event);
        return -1;
    }
    if (priority >= event->m_base->m_max_priority) {
        report_event(__func__, "s_priority >= max_priority !", *event);
        return -1;
    }
    event->m_priority = priority;
    return 0;
}

int32_t kestal_add_event(kestal_event_t *event, int32_t timeout_ms)
{
    if (!is_usable(event, __func__))
        return -1;
    kestal_event_base_t &base = *event->m_base;
    const base_guard guard(base);
    if (base.m_state->is_closing != 0)
        return -1;
    const bool is_new = !has_flags(*event, KESTAL_EVENT_REGISTERED | KESTAL_EVENT_ACTIVE);
    const int32_t timeout = event->m_descriptor >= 0 || timeout_ms >= 0 ? timeout_ms : 0;
    if (!kestal::may_start_timer(*event, timeout) || (is_new && !register_event(*event)))
        return -1;
    event->m_timeout = timeout;
    kestal::start_timer(*event);
    if (!is_new)
        return 0;
    if (!waits_for_addresses(*event) || request_addresses(*event))
        kestal::notify_loop(base);
    else
        kestal::wake_loop(base);
    return 0;
}

int32_t kestal_del_event(kestal_event_t *event)
{
    if (!is_usable(event, __func__))
        return -1;
    return delete_and_notify(*event) ? 0 : -1;
}

int32_t kestal_active_event(kestal_event_t *event, uint32_t what)
{
    if (!is_usable(event, __func__))
        return -1;
    kestal_event_base_t &base = *event->m_base;
    const base_guard guard(base);
    if (has_flags(*event, KESTAL_EVENT_ACTIVE)) {
        event->m_result |= what;
        return 0;
    }
    if (base.m_state->is_closing != 0 || !kestal::may_start_timer(*event, event->m_timeout))
        return -1;
    event->m_result = what;
    kestal::append_active(*event);
    kestal::start_timer(*event);
    kestal::notify_loop(base);
    return 0;
}

uint32_t kestal_event_pending(kestal_event_t *event, uint32_t flags, int32_t *timeout_ms)
{
    if (timeout_ms != nullptr)
        *timeout_ms = 0;
    if (!is_usable(event, __func__))
        return 0;
    uint32_t state = 0;
    int32_t left = 0;
    {
        const base_guard guard(*event->m_base);
        const uint32_t held = flags_of(*event);
        if ((held & KESTAL_EVENT_REGISTERED) != 0)
            state = (held & pending_state) | (event->m_input_buffer != nullptr ? KESTAL_EVENT_READ : 0) |
                    (event->m_output_buffer != nullptr ? KESTAL_EVENT_WRITE : 0);
        state |= held & KESTAL_EVENT_IN_TIMER_QUEUE;
        if ((held & KESTAL_EVENT_ACTIVE) != 0)
            state |= event->m_result;
        const uint64_t now = kestal_time_stamp_msec();
        if ((held & flags & KESTAL_EVENT_IN_TIMER_QUEUE) != 0 && event->m_deadline > now)
            left = static_cast<int32_t>(event->m_deadline - now);
    }
    if (timeout_ms != nullptr)
        *timeout_ms = left;
    state &= flags & pending_asked;
    if (kestal::is_tracing())
        kestal_error_printf("%s: [MESSAGE] event pending. (result=%08XH, event=%p, flags=%08xh, "
                            "timeout_msec_ptr=%p[%d])\n",
                            __func__, state, static_cast<void *>(event), flags, static_cast<void *>(timeout_ms), left);
    return state;
}
