#include <kestal_ulx/signal.h>

#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/short_lock.h>

#include "guard.hpp"

#include <array>
#include <atomic>
#include <errno.h>
#include <utility>

namespace {

constexpr uint32_t last_number = 64;

using node = kestal_signal_node_t;

// What the library knows of one signal. The list is walked in signal context while threads change it, without a lock:
// every link is stored in one step, and a node that was taken off keeps its next link until nobody can be at it.
struct slot {
    std::atomic<uint32_t> count;
    node *head;
    node *tail;
};

constinit kestal_short_lock_t lock = 0; // among those who change the lists
constinit std::array<slot, last_number + 1> slots{};
constinit std::atomic<int32_t> last_delivered{-1};
constinit std::atomic<uint32_t> running_dispatchers{0};

std::atomic_ref<node *> link(node *&pointer)
{
    return std::atomic_ref(pointer);
}

// Installed for every signal that has handlers. Takes no lock: the thread it interrupts may hold any.
void dispatch(int number)
{
    const int saved_errno = errno;
    running_dispatchers.fetch_add(1);
    last_delivered.store(number, std::memory_order_relaxed);
    slot &delivered = slots[static_cast<uint32_t>(number)];
    delivered.count.fetch_add(1, std::memory_order_relaxed);
    for (node *at = link(delivered.head).load(); at != nullptr; at = link(at->m_next).load()) {
        std::atomic_ref(at->m_count).fetch_add(1, std::memory_order_relaxed);
        at->m_handler(number, at->m_argument);
    }
    running_dispatchers.fetch_sub(1);
    errno = saved_errno;
}

// As dispatch, for a signal that a failing instruction raises. One that a process has sent is over with the handlers;
// after a real fault the instruction is tried again, and meets the prior action: a crash stays one.
void dispatch_fault(int number, siginfo_t *info, void *)
{
    running_dispatchers.fetch_add(1);
    dispatch(number);
    const node *first = link(slots[static_cast<uint32_t>(number)].head).load();
    if (first != nullptr && info->si_code > 0)
        sigaction(number, &first->m_action, nullptr);
    running_dispatchers.fetch_sub(1);
}

bool is_fault(uint32_t number)
{
    return number == SIGSEGV || number == SIGBUS || number == SIGFPE || number == SIGILL;
}

// --- the lists, under the lock

void append(slot &signal, node *fresh)
{
    fresh->m_prev = signal.tail;
    link(signal.tail == nullptr ? signal.head : signal.tail->m_next).store(fresh);
    signal.tail = fresh;
}

void unlink(slot &signal, node *gone)
{
    node *next = gone->m_next;
    link(gone->m_prev == nullptr ? signal.head : gone->m_prev->m_next).store(next);
    (next == nullptr ? signal.tail : next->m_prev) = gone->m_prev;
}

// With its last handler gone, nothing is remembered of a signal.
void forget(uint32_t number)
{
    slots[number].count.store(0, std::memory_order_relaxed);
    auto delivered = static_cast<int32_t>(number);
    last_delivered.compare_exchange_strong(delivered, -1);
}

void install(uint32_t number, const struct sigaction &action)
{
    sigaction(static_cast<int>(number), &action, nullptr);
}

// Takes all nodes of a signal off and puts the prior action back. Returns the first of the chain, or null.
node *take_all(uint32_t number)
{
    const kestal::short_lock_guard guard(lock);
    slot &signal = slots[number];
    node *first = signal.head;
    if (first != nullptr)
        install(number, first->m_action);
    link(signal.head).store(nullptr);
    signal.tail = nullptr;
    forget(number);
    return first;
}

// --- without the lock

// A node that nobody finds any more may still have a dispatcher at it, which will go on from it.
void wait_for_dispatchers()
{
    while (running_dispatchers.load() != 0)
        kestal_load_balance_short();
}

int32_t report_failure(const char *call, const char *function, uint64_t line)
{
    kestal_perror_tag(call, function, line);
    return -1;
}

int32_t change_mask(int how, uint32_t number, const char *function)
{
    sigset_t set;
    if (sigemptyset(&set) != 0)
        return report_failure("sigemptyset", function, __LINE__);
    if (sigaddset(&set, static_cast<int>(number)) != 0)
        return report_failure("sigaddset", function, __LINE__);
    if (sigprocmask(how, &set, nullptr) != 0)
        return report_failure("sigprocmask", function, __LINE__);
    return 0;
}

} // namespace

kestal_signal_node_t *kestal_add_signal(uint32_t number, kestal_signal_handler_t handler, void *argument)
{
    if (number > last_number || handler == nullptr)
        return nullptr;
    auto *fresh = static_cast<node *>(kestal_calloc_tag(1, sizeof(node), "kestal_add_signal", __LINE__));
    if (fresh == nullptr)
        return nullptr;
    fresh->m_number = number;
    fresh->m_handler = handler;
    fresh->m_argument = argument;

    struct sigaction action {};
    action.sa_handler = dispatch;
    action.sa_flags = SA_RESTART;
    if (is_fault(number)) {
        action.sa_sigaction = dispatch_fault;
        action.sa_flags |= SA_SIGINFO;
    }
    sigfillset(&action.sa_mask);
    bool installed = false;
    {
        const kestal::short_lock_guard guard(lock);
        installed = sigaction(static_cast<int>(number), &action, &fresh->m_action) == 0;
        if (installed)
            append(slots[number], fresh);
    }
    if (installed)
        return fresh;
    kestal_free(fresh);
    return nullptr;
}

int32_t kestal_del_signal(kestal_signal_node_t *gone)
{
    if (gone == nullptr)
        return -1;
    const uint32_t number = gone->m_number;
    {
        const kestal::short_lock_guard guard(lock);
        const bool is_first = gone->m_prev == nullptr;
        if (is_first && gone->m_next != nullptr)
            gone->m_next->m_action = gone->m_action; // the first node keeps the prior action
        if (is_first && gone->m_next == nullptr) {
            install(number, gone->m_action);
            forget(number);
        }
        unlink(slots[number], gone);
    }
    wait_for_dispatchers();
    kestal_free(gone);
    return 0;
}

void kestal_restore_signal(uint32_t number)
{
    if (number > last_number)
        return;
    node *first = take_all(number);
    wait_for_dispatchers();
    while (first != nullptr)
        kestal_free(std::exchange(first, first->m_next));
}

void kestal_restore_all_signal(void)
{
    for (uint32_t number = 0; number <= last_number; ++number)
        kestal_restore_signal(number);
    last_delivered.store(-1);
}

int32_t kestal_get_last_signum(void)
{
    return last_delivered.load(std::memory_order_relaxed);
}

uint32_t kestal_get_signal_count(uint32_t number)
{
    return number > last_number ? 0 : slots[number].count.load(std::memory_order_relaxed);
}

int32_t kestal_reset_signal_count(int32_t number)
{
    if (number < 0 || number > static_cast<int32_t>(last_number))
        return -1;
    return static_cast<int32_t>(slots[static_cast<uint32_t>(number)].count.exchange(0, std::memory_order_relaxed));
}

uint32_t kestal_reset_all_signal_count(void)
{
    uint32_t sum = 0;
    for (slot &signal : slots)
        sum += signal.count.exchange(0, std::memory_order_relaxed);
    last_delivered.store(-1);
    return sum;
}

int32_t kestal_get_signal_node_count(kestal_signal_node_t *attached)
{
    if (attached == nullptr)
        return -1;
    return static_cast<int32_t>(std::atomic_ref(attached->m_count).load(std::memory_order_relaxed));
}

int32_t kestal_reset_signal_node_count(kestal_signal_node_t *attached)
{
    if (attached == nullptr)
        return -1;
    return static_cast<int32_t>(std::atomic_ref(attached->m_count).exchange(0, std::memory_order_relaxed));
}

int32_t kestal_block_signal(uint32_t number)
{
    return change_mask(SIG_BLOCK, number, __func__);
}

int32_t kestal_unblock_signal(uint32_t number)
{
    return change_mask(SIG_UNBLOCK, number, __func__);
}

kestal_plain_signal_handler_t kestal_exchange_signal(uint32_t number, int32_t flags,
                                                     kestal_plain_signal_handler_t handler)
{
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = handler;
    action.sa_flags = flags & ~SA_SIGINFO;
    if (sigemptyset(&action.sa_mask) != 0) {
        report_failure("sigemptyset", __func__, __LINE__);
        return SIG_ERR;
    }
    return sigaction(static_cast<int>(number), &action, &previous) == 0 ? previous.sa_handler : SIG_ERR;
}
