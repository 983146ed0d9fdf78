#include "event.hpp"

#include <kestal_ulx/output.h>
#include <kestal_ulx/short_lock.h>

#include <utility>

namespace {

using kestal::base_guard;
using kestal::report_base;

void __kestal_event_base_dispatch_service(kestal_service_t *service, void *argument)
{
    auto *base = static_cast<kestal_event_base_t *>(argument);
    kestal_ack_service(service);
    do {
        if (kestal_event_base_dispatch(base) == -1)
            kestal_load_balance_short();
    } while (kestal_break_service(service) == 0 && kestal_event_base_get_exit(base) == 0);
}

// Has the loop exit. A word of its own, since a loop that is just beginning clears the exit flag.
int32_t ask_loop_to_stop(void *argument)
{
    auto *base = static_cast<kestal_event_base_t *>(argument);
    std::atomic_ref(base->m_state->is_stopping).store(1);
    std::atomic_ref(base->m_exit).store(1);
    kestal::notify_loop(*base);
    return 0;
}

} // namespace

int32_t kestal_event_base_check_service(kestal_event_base_t *base)
{
    if (base == nullptr)
        return -1;
    const base_guard guard(*base);
    return base->m_service == nullptr ? 0 : kestal_check_service(base->m_service);
}

int32_t kestal_event_base_start_service(kestal_event_base_t *base)
{
    if (base == nullptr)
        return -1;
    // The service acknowledges before it wants the lock.
    const base_guard guard(*base);
    if (base->m_service != nullptr) {
        report_base(__func__, "already started service !", base);
        return -1;
    }
    base->m_service =
        kestal_open_service_ex("event_base_dispatch service", __kestal_event_base_dispatch_service, base, 0);
    if (base->m_service == nullptr) {
        report_base(__func__, "kestal_open_service failed ! !", base);
        return -1;
    }
    kestal_service_register_close_notify_handler(base->m_service, ask_loop_to_stop, base);
    return 0;
}

int32_t kestal_event_base_stop_service(kestal_event_base_t *base)
{
    if (base == nullptr)
        return -1;
    kestal_service_t *service = nullptr;
    {
        const base_guard guard(*base);
        const bool is_own_thread = base->m_running != 0 && kestal::is_on_loop_thread(*base);
        if (!is_own_thread)
            service = std::exchange(base->m_service, nullptr);
    }
    if (service == nullptr)
        return -1;
    ask_loop_to_stop(base);
    kestal_close_service(service);
    std::atomic_ref(base->m_state->is_stopping).store(0);
    return 0;
}
