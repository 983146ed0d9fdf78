#include "ssdp.hpp"

#include "lock_guard.hpp"

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/short_lock.h>

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <utility>

namespace {

using kestal::trace;
using kestal::trace_error;

struct first_value {
    uint32_t mode;
    const char *name;
    const char *value;
};

constexpr first_value first_values[] = {
    {KESTAL_VALUE_REPLACE_BY_NAME, "verbose", "0"},
    {KESTAL_VALUE_REPLACE_BY_NAME, "network_interface_scan_interval", "300000"},
    {KESTAL_VALUE_ADD_IF_ABSENT, "multicast_ipv4_port", "1900"},
    {KESTAL_VALUE_ADD_IF_ABSENT, "multicast_ipv6_port", "1900"},
    {KESTAL_VALUE_ADD_IF_ABSENT, "multicast_ipv4_address", "239.255.255.250"},
    {KESTAL_VALUE_ADD_IF_ABSENT, "multicast_ipv6_address", "ff02::c"},
    {KESTAL_VALUE_ADD_IF_ABSENT, "multicast_ipv6_address", "ff05::c"},
};

constexpr int32_t scan_interval_ms = 300000;
constexpr int ending_signals[] = {SIGINT, SIGQUIT, SIGSEGV, SIGTERM};

bool is_set(kestal_ssdp_t &ssdp, const char *option)
{
    return kestal_ssdp_get_option_int(&ssdp, 0, option, 0) != 0;
}

bool is_own_thread(const kestal_ssdp_t &ssdp)
{
    return ssdp.m_running != 0 && ssdp.m_thread_id == static_cast<uint64_t>(pthread_self());
}

// --- what a run stands on. The lock guards the event base's coming and going, and the state of the run.

void tear_down(kestal_ssdp_t &ssdp)
{
    kestal::close_ssdp_sockets(ssdp);
    ssdp.m_network_interface_event = kestal_free_event(ssdp.m_network_interface_event);
    if (ssdp.m_network_interface != nullptr)
        kestal_assert_fail_tag("./source/ssdp.c", "kestal_ssdp_stop", __LINE__,
                               "s_ssdp->m_network_interface == ((kestal_network_interface_t *)0)");
    kestal_destroy_http_parser(std::exchange(ssdp.m_http_parser, nullptr));
    ssdp.m_event_base = kestal_free_event_base(ssdp.m_event_base);
}

bool add_scan_event(kestal_ssdp_t &ssdp)
{
    ssdp.m_network_interface_event =
        kestal_new_event(ssdp.m_event_base, -1, KESTAL_EVENT_PERSIST, kestal::handle_ssdp_scan, &ssdp);
    if (ssdp.m_network_interface_event == nullptr) {
        trace_error(ssdp, "ssdp: [ERROR] \033[1;31mnew network interface scan event failed !\033[0m\n");
        return false;
    }
    const int32_t interval = kestal_ssdp_get_option_int(&ssdp, 0, "network_interface_scan_interval", scan_interval_ms);
    if (kestal_add_event(ssdp.m_network_interface_event, interval > 0 ? interval : -1) != 0) {
        trace_error(ssdp, "ssdp: [ERROR] \033[1;31madd network interface scan event failed !\033[0m\n");
        return false;
    }
    // The first scan comes with the loop.
    return kestal_active_event(ssdp.m_network_interface_event, KESTAL_EVENT_TIMEOUT) == 0;
}

bool make_event_base(kestal_ssdp_t &ssdp)
{
    const kestal::lock_guard guard(ssdp.m_lock);
    ssdp.m_event_base = kestal_new_event_base();
    if (ssdp.m_event_base == nullptr)
        trace_error(ssdp, "ssdp: [ERROR] \033[1;31mnew event_base failed !\033[0m\n");
    return ssdp.m_event_base != nullptr;
}

bool prepare(kestal_ssdp_t &ssdp)
{
    if (!make_event_base(ssdp))
        return false;
    ssdp.m_http_parser = kestal_new_http_parser();
    if (ssdp.m_http_parser == nullptr || !add_scan_event(ssdp))
        return false;
    kestal::open_ssdp_sockets(ssdp);
    if (ssdp.m_head == nullptr) {
        trace_error(ssdp, "ssdp: [ERROR] \033[1;31mregister event failed !\033[0m\n");
        return false;
    }
    if (is_set(ssdp, "stop_signal_event"))
        for (const int number : ending_signals)
            kestal_event_base_once(ssdp.m_event_base, number, KESTAL_EVENT_SIGNAL, kestal_event_default_handler_exit,
                                   ssdp.m_event_base, -1);
    if (is_set(ssdp, "stop_vt_event"))
        kestal::open_ssdp_keys(ssdp);
    return true;
}

// --- runs

bool is_running_here(kestal_ssdp_t &ssdp)
{
    const kestal::lock_guard guard(ssdp.m_lock);
    return is_own_thread(ssdp);
}

bool is_stopping(kestal_ssdp_t &ssdp)
{
    const kestal::lock_guard guard(ssdp.m_lock);
    return ssdp.m_stopping != 0;
}

int32_t run(kestal_ssdp_t &ssdp)
{
    // Who asks to stop before there is an event base is heard here, who asks later by the loop.
    if (is_stopping(ssdp))
        return 0;
    int32_t result = 0;
    do
        result = kestal_event_base_dispatch(ssdp.m_event_base);
    while (result == -1 && errno == EINTR && kestal_event_base_get_exit(ssdp.m_event_base) == 0);
    if (result != 0)
        trace_error(ssdp, "ssdp: [ERROR] \033[1;31mstart event service failed !\033[0m\n");
    return result;
}

void ask_to_end(kestal_ssdp_t &ssdp)
{
    ssdp.m_stopping = 1;
    while (ssdp.m_event_base != nullptr && kestal_event_base_exit_loop(ssdp.m_event_base, 0) != 0)
        kestal_load_balance_short();
}

void end_run_of_other_thread(kestal_ssdp_t &ssdp)
{
    while (ssdp.m_running != 0) {
        ask_to_end(ssdp);
        kestal_lock_condition_wait(&ssdp.m_ended, &ssdp.m_lock);
    }
}

bool begin_run(kestal_ssdp_t &ssdp)
{
    const kestal::lock_guard guard(ssdp.m_lock);
    if (is_own_thread(ssdp))
        return false;
    end_run_of_other_thread(ssdp);
    tear_down(ssdp);
    ssdp.m_running = 1;
    ssdp.m_stopping = 0;
    ssdp.m_thread_id = static_cast<uint64_t>(pthread_self());
    return true;
}

void end_run(kestal_ssdp_t &ssdp, int32_t result)
{
    const kestal::lock_guard guard(ssdp.m_lock);
    if (result != 0 || ssdp.m_stopping != 0)
        tear_down(ssdp);
    ssdp.m_running = 0;
    kestal_lock_condition_wakeup_broadcast(&ssdp.m_ended);
}

} // namespace

kestal_ssdp_t *kestal_open_ssdp(void)
{
    auto *ssdp = static_cast<kestal_ssdp_t *>(kestal_calloc(1, sizeof(kestal_ssdp_t)));
    if (ssdp == nullptr)
        return nullptr;
    kestal_init_value(&ssdp->m_options);
    kestal_init_lock(&ssdp->m_lock);
    kestal_init_lock_condition(&ssdp->m_ended);
    bool is_whole = true;
    for (const first_value &first : first_values)
        is_whole = kestal_ssdp_set_option_string(ssdp, first.mode, 0, first.name, first.value) == 0 && is_whole;
    if (is_whole)
        return ssdp;
    kestal_close_ssdp(ssdp);
    return nullptr;
}

int32_t kestal_close_ssdp(kestal_ssdp_t *ssdp)
{
    if (ssdp == nullptr)
        return 0;
    trace(*ssdp, "ssdp: [MESSAGE] \033[1;33mclosing ssdp.\033[0m\n");
    kestal_ssdp_stop(ssdp);
    if (is_running_here(*ssdp))
        return -1;
    const bool was_verbose = kestal::is_verbose(*ssdp);
    kestal_destroy_value(&ssdp->m_options);
    kestal_uninit_lock_condition(&ssdp->m_ended);
    kestal_uninit_lock(&ssdp->m_lock);
    kestal_free(ssdp);
    if (was_verbose)
        kestal_printf("ssdp: [MESSAGE] \033[1;33mclosed ssdp.\033[0m\n");
    return 0;
}

int32_t kestal_ssdp_set_handler(kestal_ssdp_t *ssdp, kestal_ssdp_handler_t handler, void *context)
{
    if (ssdp == nullptr)
        return -1;
    ssdp->m_handler = handler;
    ssdp->m_handler_context = context;
    return 0;
}

int32_t kestal_ssdp_start(kestal_ssdp_t *ssdp)
{
    if (ssdp == nullptr)
        return -1;
    trace(*ssdp, "ssdp: [MESSAGE] \033[1;33mstarting event service.\033[0m\n");
    if (!begin_run(*ssdp))
        return -1;
    const int32_t result = prepare(*ssdp) ? run(*ssdp) : -1;
    end_run(*ssdp, result);
    return result;
}

int32_t kestal_ssdp_stop(kestal_ssdp_t *ssdp)
{
    if (ssdp == nullptr)
        return -1;
    trace(*ssdp, "ssdp: [MESSAGE] \033[1;33mstopping event service.\033[0m\n");
    {
        const kestal::lock_guard guard(ssdp->m_lock);
        if (is_own_thread(*ssdp)) {
            ask_to_end(*ssdp);
        } else {
            end_run_of_other_thread(*ssdp);
            tear_down(*ssdp);
        }
    }
    trace(*ssdp, "ssdp: [MESSAGE] \033[1;33mstopped event service.\033[0m\n");
    return 0;
}

int32_t kestal_ssdp_restart(kestal_ssdp_t *ssdp)
{
    return kestal_ssdp_stop(ssdp) == 0 ? kestal_ssdp_start(ssdp) : -1;
}

int32_t kestal_ssdp_check_service(kestal_ssdp_t *ssdp)
{
    if (ssdp == nullptr)
        return -1;
    const kestal::lock_guard guard(ssdp->m_lock);
    return ssdp->m_event_base == nullptr ? -1 : kestal_event_base_check_service(ssdp->m_event_base);
}
