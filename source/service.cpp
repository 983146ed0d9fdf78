#include <kestal_ulx/service.h>

#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/thread.h>

#include "framed_warning.hpp"
#include "guard.hpp"
#include "lock_guard.hpp"
#include "timer.hpp"

#include <atomic>
#include <string.h>
#include <utility>

namespace {

constexpr uint32_t handshake_ms = 60000;
constexpr uint64_t stop_report_step_ms = 4000;

kestal_service_t *new_service(const char *name)
{
    const char *text = name != nullptr ? name : "no service name";
    const size_t text_size = strlen(text) + 1;
    void *block = kestal_calloc_tag(1, sizeof(kestal_service_t) + text_size, "kestal_open_service_ex", __LINE__);
    if (block == nullptr)
        return nullptr;
    auto *service = static_cast<kestal_service_t *>(block);
    kestal_init_lock(&service->m_lock);
    kestal_init_lock_condition(&service->m_lock_condition);
    kestal_init_short_lock(&service->m_flags_lock);
    service->m_name = static_cast<char *>(memcpy(service + 1, text, text_size));
    service->m_command = KESTAL_SERVICE_COMMAND_RUN;
    service->m_status = KESTAL_SERVICE_STATUS_STARTING;
    service->m_users = 1;
    return service;
}

// Called by each user with the service lock held: gives the lock back, and the last user releases the service.
void leave(kestal_service_t *service)
{
    const bool last = --service->m_users == 0;
    kestal_unlock(&service->m_lock);
    if (!last)
        return;
    kestal_uninit_short_lock(&service->m_flags_lock);
    kestal_uninit_lock_condition(&service->m_lock_condition);
    kestal_uninit_lock(&service->m_lock);
    kestal_free_tag(service, "kestal_close_service_ex", __LINE__);
}

void run_service(void *argument)
{
    auto *service = static_cast<kestal_service_t *>(argument);
    {
        const kestal::lock_guard guard(service->m_lock);
        service->m_command = KESTAL_SERVICE_COMMAND_STARTED;
        kestal_lock_condition_wakeup(&service->m_lock_condition);
    }
    service->m_function(service, service->m_argument);

    kestal_lock(&service->m_lock);
    if (service->m_status != KESTAL_SERVICE_STATUS_ERROR)
        service->m_status = KESTAL_SERVICE_STATUS_FINISHED;
    kestal_lock_condition_wakeup(&service->m_lock_condition);
    leave(service);
}

// Starts the service thread; called with the service lock held.
bool start(kestal_service_t &service, uint64_t stack_size)
{
    ++service.m_users;
    if (kestal_detached_thread_ex_tag(run_service, &service, stack_size, service.m_name, __LINE__) == 0)
        return true;
    --service.m_users;
    return false;
}

// Waits, with the service lock held, until the service runs. False when it never will.
bool wait_for_start(kestal_service_t &service)
{
    kestal::timer due(handshake_ms);
    while (service.m_command != KESTAL_SERVICE_COMMAND_STARTED || service.m_status == KESTAL_SERVICE_STATUS_STARTING) {
        kestal_lock_condition_wait_timeout(&service.m_lock_condition, &service.m_lock, due.remaining(handshake_ms));
        if (!due.expired())
            continue;
        const uint64_t elapsed = due.elapsed();
        kestal_error_printf(KESTAL_FRAMED("kestal_ulx: [WARNING] wait for start service (name=\"%s\", %lu.%03lu sec)"),
                            service.m_name, elapsed / 1000, elapsed % 1000);
        due.push(handshake_ms);
    }
    return service.m_status == KESTAL_SERVICE_STATUS_RUNNING ||
           (service.m_status == KESTAL_SERVICE_STATUS_FINISHED && service.m_acknowledged != 0);
}

// Calls the close-notify handler, with the service lock given back meanwhile.
void notify_close(kestal_service_t &service)
{
    const auto handler = std::exchange(service.m_close_notify_handler, nullptr);
    if (handler == nullptr)
        return;
    void *argument = service.m_close_notify_argument;
    kestal_unlock(&service.m_lock);
    const bool again = handler(argument) == -1;
    kestal_lock(&service.m_lock);
    if (again && service.m_close_notify_handler == nullptr) {
        service.m_close_notify_handler = handler;
        service.m_close_notify_argument = argument;
    }
}

void set_status(kestal_service_t *service, uint32_t status)
{
    if (service == nullptr)
        return;
    const kestal::lock_guard guard(service->m_lock);
    service->m_status = status;
    service->m_acknowledged |= status == KESTAL_SERVICE_STATUS_RUNNING;
    kestal_lock_condition_wakeup(&service->m_lock_condition);
}

// Changes the lock flags under their lock: keeps the bits of `mask`, then inverts those of `inverted`.
uint32_t change_flags(kestal_service_t *service, uint32_t mask, uint32_t inverted)
{
    if (service == nullptr)
        return 0;
    const kestal::short_lock_guard guard(service->m_flags_lock);
    const std::atomic_ref flags(service->m_lock_flags);
    const uint32_t changed = (flags.load(std::memory_order_relaxed) & mask) ^ inverted;
    flags.store(changed, std::memory_order_relaxed);
    return changed;
}

} // namespace

kestal_service_t *kestal_open_service_ex(const char *name, kestal_service_function_t function, void *argument,
                                         uint64_t stack_size)
{
    if (function == nullptr)
        return nullptr;
    kestal_service_t *service = new_service(name);
    if (service == nullptr)
        return nullptr;
    service->m_function = function;
    service->m_argument = argument;

    kestal_lock(&service->m_lock);
    if (!start(*service, stack_size) || !wait_for_start(*service)) {
        leave(service);
        return nullptr;
    }
    kestal_unlock(&service->m_lock);
    return service;
}

int32_t kestal_close_service_ex(kestal_service_t *service, int32_t timeout)
{
    if (service == nullptr)
        return -1;
    kestal::timer due(timeout < 0 ? handshake_ms : static_cast<uint64_t>(timeout));
    kestal_lock(&service->m_lock);
    while (service->m_status == KESTAL_SERVICE_STATUS_RUNNING) {
        service->m_command = KESTAL_SERVICE_COMMAND_BREAK;
        const uint32_t wait = due.remaining(INT32_MAX);
        if (kestal_lock_condition_wait_timeout(&service->m_lock_condition, &service->m_lock, wait) != 0)
            kestal_load_balance_short();
        notify_close(*service);
        if (!due.expired())
            continue;
        if (timeout >= 0)
            break;
        const uint64_t elapsed = due.elapsed();
        kestal_error_printf(KESTAL_FRAMED("kestal_ulx: [WARNING] wait for stop service (name=\"%s\", %lu.%03lu sec)"),
                            service->m_name, elapsed / 1000, elapsed % 1000);
        due.push(stop_report_step_ms);
    }
    leave(service);
    return 0;
}

int32_t kestal_close_service(kestal_service_t *service)
{
    return kestal_close_service_ex(service, -1);
}

void kestal_ack_service(kestal_service_t *service)
{
    set_status(service, KESTAL_SERVICE_STATUS_RUNNING);
}

void kestal_error_service(kestal_service_t *service)
{
    set_status(service, KESTAL_SERVICE_STATUS_ERROR);
}

int32_t kestal_check_service(kestal_service_t *service)
{
    if (service == nullptr)
        return -1;
    const kestal::lock_guard guard(service->m_lock);
    if (service->m_status == KESTAL_SERVICE_STATUS_RUNNING)
        return 1;
    return service->m_status == KESTAL_SERVICE_STATUS_ERROR ? -1 : 0;
}

int32_t kestal_break_service(kestal_service_t *service)
{
    if (service == nullptr)
        return -1;
    const kestal::lock_guard guard(service->m_lock);
    return service->m_command == KESTAL_SERVICE_COMMAND_BREAK ? 1 : 0;
}

int32_t kestal_service_register_close_notify_handler(kestal_service_t *service,
                                                     kestal_service_close_notify_handler_t handler, void *argument)
{
    if (service == nullptr)
        return -1;
    const kestal::lock_guard guard(service->m_lock);
    service->m_close_notify_handler = handler;
    service->m_close_notify_argument = argument;
    return 0;
}

int32_t kestal_try_lock_flags_service(kestal_service_t *service)
{
    return service == nullptr ? -1 : kestal_try_short_lock(&service->m_flags_lock);
}

int32_t kestal_lock_flags_service(kestal_service_t *service)
{
    if (service == nullptr)
        return -1;
    kestal_short_lock(&service->m_flags_lock);
    return 0;
}

int32_t kestal_unlock_flags_service(kestal_service_t *service)
{
    if (service == nullptr)
        return -1;
    kestal_short_unlock(&service->m_flags_lock);
    return 0;
}

uint32_t kestal_get_lock_flags_service(kestal_service_t *service)
{
    // Without the flags lock, which the caller may hold.
    return service == nullptr ? 0 : std::atomic_ref(service->m_lock_flags).load(std::memory_order_relaxed);
}

uint32_t kestal_set_lock_flags_service(kestal_service_t *service, uint32_t bits)
{
    return change_flags(service, ~bits, bits);
}

uint32_t kestal_clear_lock_flags_service(kestal_service_t *service, uint32_t bits)
{
    return change_flags(service, ~bits, 0);
}

uint32_t kestal_invert_lock_flags_service(kestal_service_t *service, uint32_t bits)
{
    return change_flags(service, UINT32_MAX, bits);
}

uint32_t *kestal_get_lock_flags_ptr_service(kestal_service_t *service)
{
    return service == nullptr ? nullptr : &service->m_lock_flags;
}

void *kestal_get_user_data_service(kestal_service_t *service)
{
    if (service == nullptr)
        return nullptr;
    const kestal::short_lock_guard guard(service->m_flags_lock);
    return service->m_user_data;
}

int32_t kestal_set_user_data_service(kestal_service_t *service, void *user_data)
{
    if (service == nullptr)
        return -1;
    const kestal::short_lock_guard guard(service->m_flags_lock);
    service->m_user_data = user_data;
    return 0;
}
