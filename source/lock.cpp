#include <kestal_ulx/lock.h>

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>

#include "list.hpp"
#include "list_guard.hpp"
#include "timer.hpp"

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>
#include <utility>

namespace {

using kestal::list_guard;
using kestal::timer;

constexpr const char *prefix = "kestal_lock";
constexpr uint64_t default_timeout_ms = 1800000;
constexpr uint64_t condition_timeout_ms = 3600000;
constexpr uint64_t report_step_ms = 4000;
constexpr uint32_t slice_ms = 30000;
constexpr uint32_t pipeless_slice_ms = 10;
constexpr int attempts = 64;

constexpr uint32_t warning_bits = KESTAL_LOCK_WARNINGS | KESTAL_LOCK_MORE_WARNINGS;
constexpr uint32_t error_bits = warning_bits | KESTAL_LOCK_ERRORS;

struct call_site {
    const char *name;
    uint64_t line;
};

bool is_given(const kestal_lock_t *lock, const char *function, uint64_t line)
{
    if (lock == nullptr)
        kestal_assert_fail_tag("./source/lock", function, line, "s_this_lock != ((kestal_lock_t *)0)");
    return lock != nullptr;
}

bool is_given(const kestal_lock_condition_t *condition, const char *function, uint64_t line)
{
    if (condition == nullptr)
        kestal_assert_fail_tag("./source/lock", function, line, "s_lock_condition != ((kestal_lock_condition_t *)0)");
    return condition != nullptr;
}

// --- the pipe that wakes one waiter

enum class wake { byte, time_out, error, end };

class wake_pipe {
public:
    explicit wake_pipe(int32_t (&ends)[2]) : ends_(ends)
    {
        if (pipe2(ends_, O_CLOEXEC | O_NONBLOCK) != 0)
            ends_[0] = ends_[1] = -1;
    }
    ~wake_pipe()
    {
        if (is_open()) {
            close(ends_[0]);
            close(ends_[1]);
        }
    }
    wake_pipe(const wake_pipe &) = delete;
    wake_pipe &operator=(const wake_pipe &) = delete;

    bool is_open() const { return ends_[0] >= 0; }

    // Waits up to `milliseconds` for a byte. Without a pipe it waits a moment, and the waiter looks for itself.
    wake wait(uint32_t milliseconds) const
    {
        pollfd entry{ends_[0], POLLIN, 0};
        const int ready =
            poll(&entry, 1, static_cast<int>(is_open() ? milliseconds : std::min(milliseconds, pipeless_slice_ms)));
        if (ready <= 0)
            return ready == 0 ? wake::time_out : wake::error;
        if ((entry.revents & POLLIN) != 0)
            return wake::byte;
        return (entry.revents & POLLHUP) != 0 ? wake::end : wake::error;
    }

    // Takes the byte out, for one more wait.
    void clear() const
    {
        char byte = 0;
        [[maybe_unused]] const ssize_t got = read(ends_[0], &byte, 1);
    }

    // Writes the byte. Also true when the pipe is full of bytes, and for a waiter without a pipe.
    static bool wake_up(const int32_t (&ends)[2])
    {
        if (ends[1] < 0)
            return true;
        for (int i = 0; i < attempts; ++i) {
            if (i > 0)
                kestal_load_balance_short();
            if (write(ends[1], "", 1) == 1 || errno == EAGAIN)
                return true;
        }
        return false;
    }

private:
    int32_t (&ends_)[2];
};

// --- the lists of a lock, under its guard

using claim = kestal_lock_claim_t;

kestal::doubly_linked_list holders(kestal_lock_t &lock)
{
    return {&lock.m_holder, nullptr, KESTAL_LINKS(claim, m_prev, m_next)};
}

kestal::doubly_linked_list waiters(kestal_lock_t &lock)
{
    return {&lock.m_waiter_head, &lock.m_waiter_tail, KESTAL_LINKS(claim, m_prev, m_next)};
}

uint64_t count(const claim *first)
{
    uint64_t claims = 0;
    for (; first != nullptr; first = first->m_next)
        ++claims;
    return claims;
}

// What the guard word says of a lock whose guard is free. In the two simple states the list of holders is not kept up,
// so that one step on the word ends the only hold. Whoever takes the guard, or with it the lock, acquires; whoever gives
// either back releases: so each holder sees what the one before it did, whichever of the two ways either of them went.
// A newcomer finds `unheld` only when nobody waits: with a waiter in line the word is `queued`, held or not.
constexpr uint32_t unheld = 0; // neither holder nor waiter
constexpr uint32_t held = 2;   // the first hold and no waiter
constexpr uint32_t queued = 3; // as the lists say

// Holds the guard of a lock, and its lists as they are, for a scope.
class lock_lists {
public:
    explicit lock_lists(kestal_lock_t &lock) : lock_(lock)
    {
        const uint32_t before = kestal::take_guard(std::atomic_ref(lock_.m_guard));
        if (before != queued)
            lock_.m_holder = before == held ? &lock_.m_first_hold : nullptr;
    }
    ~lock_lists() { std::atomic_ref(lock_.m_guard).store(state(), std::memory_order_release); }
    lock_lists(const lock_lists &) = delete;
    lock_lists &operator=(const lock_lists &) = delete;

private:
    uint32_t state() const
    {
        if (lock_.m_waiter_head != nullptr)
            return queued;
        if (lock_.m_holder == nullptr)
            return unheld;
        return lock_.m_holder == &lock_.m_first_hold ? held : queued;
    }

    kestal_lock_t &lock_;
};

bool is_free(const kestal_lock_t &lock)
{
    return lock.m_holder == nullptr && lock.m_waiter_head == nullptr;
}

bool is_owner(const kestal_lock_t &lock, uint64_t thread_id)
{
    return thread_id != 0 && lock.m_holder != nullptr && lock.m_holder->m_thread_id == thread_id;
}

// Fills the first hold in. Its links stay null but while a recursive one stands before it.
void fill_first_hold(kestal_lock_t &lock, uint64_t thread_id, call_site caller)
{
    lock.m_first_hold.m_thread_id = thread_id;
    lock.m_first_hold.m_name = caller.name;
    lock.m_first_hold.m_line = caller.line;
}

void take_first_hold(kestal_lock_t &lock, uint64_t thread_id, call_site caller)
{
    fill_first_hold(lock, thread_id, caller);
    lock.m_holder = &lock.m_first_hold;
}

// Takes a lock that has neither holder nor waiter, without a look at its lists.
bool try_take_unheld(kestal_lock_t &lock, uint64_t thread_id, call_site caller)
{
    const std::atomic_ref guard(lock.m_guard);
    uint32_t expected = unheld;
    if (!guard.compare_exchange_strong(expected, kestal::guard_taken, std::memory_order_acquire,
                                       std::memory_order_relaxed))
        return false;
    fill_first_hold(lock, thread_id, caller);
    guard.store(held, std::memory_order_release);
    return true;
}

// Gives back the only hold of a lock that nobody waits for.
bool try_drop_only_hold(kestal_lock_t &lock)
{
    uint32_t expected = held;
    return std::atomic_ref(lock.m_guard)
        .compare_exchange_strong(expected, unheld, std::memory_order_release, std::memory_order_relaxed);
}

// --- what messages say of a lock: copied under the guard, printed without it

struct standing {
    uint32_t flags;
    uint64_t recursive_count;
    uint64_t wait_count;
    call_site first_claim; // the most recent holder, else the first waiter
    call_site initialiser;
};

standing look(const kestal_lock_t &lock)
{
    const claim *first = lock.m_holder != nullptr ? lock.m_holder : lock.m_waiter_head;
    return {lock.m_flags,
            count(lock.m_holder),
            count(lock.m_waiter_head),
            first != nullptr ? call_site{first->m_name, first->m_line} : call_site{},
            {lock.m_name, lock.m_line}};
}

// Prints one line per claim of a list. Each is looked up anew, since the list may change while a line is printed.
void print_claims(kestal_lock_t &lock, claim *kestal_lock_t::*list, const char *relation)
{
    for (uint64_t index = 0;; ++index) {
        claim seen{};
        {
            const lock_lists guard(lock);
            const claim *at = lock.*list;
            for (uint64_t i = 0; i < index && at != nullptr; ++i)
                at = at->m_next;
            if (at == nullptr)
                return;
            seen = *at;
        }
        kestal_error_printf("  - %s by \"%s:%lu\" (thread_id=%llu, initialized by \"%s:%lu\")\n", relation, seen.m_name,
                            seen.m_line, seen.m_thread_id, lock.m_name, lock.m_line);
    }
}

void report_claim_failure(const kestal_lock_t &lock, const char *what, call_site caller)
{
    if ((lock.m_flags & error_bits) != 0)
        kestal_error_printf("%s: [ERROR] \033[1;31m%s failed !\033[0m (caller=\"%s:%lu\", initialized by \"%s:%lu\")\n",
                            prefix, what, caller.name, caller.line, lock.m_name, lock.m_line);
}

void warn_of_read(const kestal_lock_t &lock, const char *what, call_site caller)
{
    if ((lock.m_flags & warning_bits) != 0)
        kestal_error_printf("%s: [WARNING] \033[1;31mlock pending !\033[0m (%s, caller=\"%s:%lu\", "
                            "initialized by \"%s:%lu\")\n",
                            prefix, what, caller.name, caller.line, lock.m_name, lock.m_line);
}

void warn_of_dead_lock(kestal_lock_t &lock, const standing &seen, uint64_t duration, call_site caller)
{
    kestal_error_printf("%s: [WARNING] \033[1;31mdead-lock !\033[0m (duration=%llu, caller=\"%s:%lu\", "
                        "recursive_count=%ld, wait_count=%ld, initialized by \"%s:%lu\")\n",
                        prefix, duration, caller.name, caller.line, seen.recursive_count, seen.wait_count,
                        seen.initialiser.name, seen.initialiser.line);
    print_claims(lock, &kestal_lock_t::m_holder, "locked");
}

void warn_of_pending(const standing &seen, call_site caller)
{
    if ((seen.flags & warning_bits) != 0)
        kestal_error_printf(
            "%s: [WARNING] pending lock wait... (%s by \"%s:%lu\", recursive_count=%ld, wait_count=%ld, "
            "caller=\"%s:%lu\", initialized by \"%s:%lu\")\n",
            prefix, seen.recursive_count > 0 ? "locked" : "wait", seen.first_claim.name, seen.first_claim.line,
            seen.recursive_count, seen.wait_count, caller.name, caller.line, seen.initialiser.name,
            seen.initialiser.line);
}

void report_pending(kestal_lock_t &lock, const standing &seen, call_site caller)
{
    kestal_error_printf("%s: [ERROR] \033[1;31mpending lock wait !\033[0m (recursive_count=%ld, wait_count=%ld, "
                        "caller=\"%s:%lu\", initialized by \"%s:%lu\")\n",
                        prefix, seen.recursive_count, seen.wait_count, caller.name, caller.line, seen.initialiser.name,
                        seen.initialiser.line);
    print_claims(lock, &kestal_lock_t::m_holder, "locked");
    print_claims(lock, &kestal_lock_t::m_waiter_head, "wait");
}

void report_no_owner(const standing &seen, call_site caller)
{
    if ((seen.flags & error_bits) != 0)
        kestal_error_printf("%s: [ERROR] \033[1;31munlock failed !\033[0m (no-owner, recursive_count=%ld, "
                            "wait_count=%ld, caller=\"%s:%lu\", initialized by \"%s:%lu\")\n",
                            prefix, seen.recursive_count, seen.wait_count, caller.name, caller.line,
                            seen.initialiser.name, seen.initialiser.line);
}

void report_failed_wakeup(const standing &seen, call_site caller)
{
    if ((seen.flags & error_bits) != 0)
        kestal_error_printf("%s: [ERROR] \033[1;31m__kestal_wakeup_lock_claim failed by unlock !\033[0m "
                            "(caller=\"%s:%lu\", wakeup_claim=\"%s:%lu\", recursive_count=%ld, wait_count=%ld, "
                            "initialized by \"%s:%lu\")\n",
                            prefix, caller.name, caller.line, seen.first_claim.name, seen.first_claim.line,
                            seen.recursive_count, seen.wait_count, seen.initialiser.name, seen.initialiser.line);
}

// --- taking a lock

claim *new_claim()
{
    for (int i = 0; i < attempts; ++i) {
        if (i > 0)
            kestal_load_balance();
        if (void *block = kestal_alloc_tag(sizeof(claim), "__kestal_new_lock_claim", __LINE__))
            return static_cast<claim *>(block);
    }
    return nullptr;
}

uint64_t deadline_of(const kestal_lock_t &lock)
{
    return lock.m_default_timeout == KESTAL_LOCK_NO_TIMEOUT ? default_timeout_ms : lock.m_default_timeout;
}

enum class entry { entered, owned, busy };

// Lets the caller in if the lock is free, or, with memory for one more hold, if the caller owns it already.
entry try_enter(kestal_lock_t &lock, uint64_t thread_id, call_site caller, claim *&spare)
{
    const lock_lists guard(lock);
    if (is_free(lock)) {
        take_first_hold(lock, thread_id, caller);
        return entry::entered;
    }
    if (!is_owner(lock, thread_id))
        return entry::busy;
    if (spare == nullptr)
        return entry::owned;
    *spare = {nullptr, nullptr, thread_id, {-1, -1}, caller.name, caller.line};
    holders(lock).prepend(std::exchange(spare, nullptr));
    return entry::entered;
}

// One more hold for the owner; `owned` when there is no memory for it.
entry enter_again(kestal_lock_t &lock, uint64_t thread_id, call_site caller)
{
    claim *spare = new_claim();
    if (spare == nullptr)
        return entry::owned;
    const entry result = try_enter(lock, thread_id, caller, spare);
    kestal_check_free_tag(spare, "__kestal_free_lock_claim", __LINE__);
    return result;
}

// Takes the lock if the waiter is first in line and nobody holds it.
bool try_take_turn(kestal_lock_t &lock, claim &self)
{
    if (lock.m_holder != nullptr || lock.m_waiter_head != &self)
        return false;
    waiters(lock).remove(&self);
    take_first_hold(lock, self.m_thread_id, {self.m_name, self.m_line});
    return true;
}

int32_t wait_in_line(kestal_lock_t &lock, uint64_t thread_id, uint32_t timeout, call_site caller)
{
    claim self{nullptr, nullptr, thread_id, {-1, -1}, caller.name, caller.line};
    const wake_pipe pipe(self.m_pipe);
    if (!pipe.is_open())
        report_claim_failure(lock, "pipe for claim", caller);
    {
        const lock_lists guard(lock);
        if (is_free(lock)) {
            take_first_hold(lock, thread_id, caller);
            return 0;
        }
        waiters(lock).append(&self);
    }

    const bool endless = timeout == KESTAL_LOCK_NO_TIMEOUT;
    timer due(endless ? deadline_of(lock) : timeout);
    for (;;) {
        const wake outcome = pipe.wait(due.remaining(slice_ms));
        bool late = false;
        standing seen{};
        {
            // Held from the look at the clock to the leaving of the line: no wake-up goes to a waiter that has left.
            const lock_lists guard(lock);
            if (try_take_turn(lock, self))
                return 0;
            late = due.expired();
            if (late && !endless) {
                waiters(lock).remove(&self);
                return -1;
            }
            if (late)
                seen = look(lock);
        }
        if (late) {
            warn_of_dead_lock(lock, seen, due.elapsed(), caller);
            due.push(report_step_ms);
        }
        if (outcome == wake::byte)
            pipe.clear();
        if (outcome == wake::error || outcome == wake::end) {
            warn_of_read(lock, outcome == wake::end ? "broken pipe" : "interrupted or error", caller);
            kestal_load_balance_short();
        }
    }
}

// Takes a lock that somebody holds or waits for. (Kept out of line: what comes before it needs no registers.)
[[gnu::noinline]] int32_t take_listed(kestal_lock_t &lock, uint64_t thread_id, uint32_t timeout, call_site caller)
{
    claim *none = nullptr;
    entry result = try_enter(lock, thread_id, caller, none);
    if (result == entry::owned)
        result = enter_again(lock, thread_id, caller);
    if (result == entry::entered)
        return 0;
    if (result == entry::owned) {
        report_claim_failure(lock, "__kestal_new_lock_claim", caller);
        return -1;
    }
    if (timeout == 0)
        return -1;
    // Most holds are over at once: one turn for the holder costs less than a place in the line.
    sched_yield();
    return try_take_unheld(lock, thread_id, caller) ? 0 : wait_in_line(lock, thread_id, timeout, caller);
}

int32_t take(kestal_lock_t &lock, uint64_t thread_id, uint32_t timeout, call_site caller)
{
    return try_take_unheld(lock, thread_id, caller) ? 0 : take_listed(lock, thread_id, timeout, caller);
}

[[gnu::noinline]] int32_t take_recursive(kestal_lock_t &lock, uint32_t timeout, call_site caller)
{
    return take(lock, static_cast<uint64_t>(pthread_self()), timeout, caller);
}

// --- giving a lock back

// Drops the most recent hold, and with the last one gone wakes the first waiter.
[[gnu::noinline]] int32_t drop_listed(kestal_lock_t &lock, call_site caller)
{
    claim *const first_hold = &lock.m_first_hold;
    claim *hold = nullptr;
    bool woken = true;
    standing seen{};
    {
        // With the guard given back the lock may be gone: what is said afterwards is what was seen here.
        const lock_lists guard(lock);
        hold = lock.m_holder;
        if (hold != nullptr)
            holders(lock).remove(hold);
        if (hold != nullptr && lock.m_holder == nullptr && lock.m_waiter_head != nullptr)
            woken = wake_pipe::wake_up(lock.m_waiter_head->m_pipe);
        if (hold == nullptr || !woken)
            seen = look(lock);
    }
    if (hold == nullptr) {
        report_no_owner(seen, caller);
        return -1;
    }
    if (hold != first_hold)
        kestal_free_tag(hold, "__kestal_free_lock_claim", __LINE__);
    if (!woken)
        report_failed_wakeup(seen, caller);
    return 0;
}

// --- the waiters of a condition, under its guard

using waiter = kestal_lock_condition_waiter_t;

kestal::doubly_linked_list waiters(kestal_lock_condition_t &condition)
{
    return {&condition.m_waiter_head, &condition.m_waiter_tail, KESTAL_LINKS(waiter, m_prev, m_next)};
}

bool wake_waiter(waiter &sleeper)
{
    if (sleeper.m_signalled != 0)
        return true;
    sleeper.m_signalled = 1;
    return wake_pipe::wake_up(sleeper.m_pipe);
}

// Wakes the first waiter that has not been woken yet; one that is still leaving the line counts when there is no other.
bool wake_first(kestal_lock_condition_t &condition)
{
    waiter *first = condition.m_waiter_head;
    for (waiter *at = first; at != nullptr; at = at->m_next)
        if (at->m_signalled == 0)
            return wake_waiter(*at);
    return first != nullptr;
}

void sleep_until_signalled(kestal_lock_condition_t &condition, const waiter &self, const wake_pipe &pipe,
                           uint32_t timeout)
{
    const bool endless = timeout == KESTAL_LOCK_NO_TIMEOUT;
    timer due(endless ? condition_timeout_ms : timeout);
    for (;;) {
        const wake outcome = pipe.wait(due.remaining(slice_ms));
        if (outcome == wake::byte)
            return;
        {
            const list_guard guard(condition.m_guard);
            if (self.m_signalled != 0)
                return;
        }
        if (endless)
            due.push(condition_timeout_ms);
        else if (due.expired())
            return;
        if (outcome == wake::error)
            kestal_load_balance();
        else if (outcome == wake::end)
            kestal_load_balance_short();
    }
}

// The lock that a wait gave up, taken again.
int32_t lock_again(kestal_lock_t *lock, call_site caller)
{
    if (lock == nullptr)
        return 0;
    for (int i = 0; i < attempts; ++i)
        if (kestal_lock_timeout_tag(lock, KESTAL_LOCK_NO_TIMEOUT, caller.name, caller.line) == 0)
            return 0;
    return -1;
}

} // namespace

kestal_lock_t *kestal_init_lock_tag(kestal_lock_t *lock, const char *name, uint64_t line)
{
    if (!is_given(lock, __func__, __LINE__))
        return nullptr;
    *lock = KESTAL_LOCK_INITIALIZER(name, line);
    return lock;
}

int32_t kestal_uninit_lock_tag(kestal_lock_t *lock, const char *name, uint64_t line)
{
    if (!is_given(lock, __func__, __LINE__))
        return -1;
    const call_site caller{name, line};
    timer due(deadline_of(*lock));
    for (;;) {
        standing seen{};
        {
            const lock_lists guard(*lock);
            if (is_free(*lock))
                return 0;
            if (lock->m_holder == nullptr)
                wake_pipe::wake_up(lock->m_waiter_head->m_pipe);
            seen = look(*lock);
        }
        warn_of_pending(seen, caller);
        if (due.expired()) {
            report_pending(*lock, seen, caller);
            due.push(report_step_ms);
        }
        kestal_load_balance();
    }
}

kestal_lock_t *kestal_new_lock_tag(const char *name, uint64_t line)
{
    auto *lock = static_cast<kestal_lock_t *>(kestal_alloc_tag(sizeof(kestal_lock_t), name, line));
    if (lock == nullptr)
        return nullptr;
    kestal_init_lock_tag(lock, name, line);
    lock->m_flags |= KESTAL_LOCK_ALLOCATED;
    return lock;
}

int32_t kestal_free_lock_tag(kestal_lock_t *lock, const char *name, uint64_t line)
{
    if (kestal_uninit_lock_tag(lock, name, line) != 0)
        return -1;
    if ((lock->m_flags & KESTAL_LOCK_ALLOCATED) != 0)
        kestal_free_tag(lock, name, line);
    return 0;
}

int32_t kestal_lock_timeout_tag(kestal_lock_t *lock, uint32_t timeout, const char *name, uint64_t line)
{
    if (lock == nullptr)
        return -1;
    if ((lock->m_flags & KESTAL_LOCK_RECURSIVE) != 0)
        return take_recursive(*lock, timeout, {name, line});
    return take(*lock, 0, timeout, {name, line});
}

int32_t kestal_try_lock_tag(kestal_lock_t *lock, const char *name, uint64_t line)
{
    return kestal_lock_timeout_tag(lock, 0, name, line) == 0 ? 1 : 0;
}

int32_t kestal_unlock_tag(kestal_lock_t *lock, const char *name, uint64_t line)
{
    if (lock == nullptr)
        return -1;
    return try_drop_only_hold(*lock) ? 0 : drop_listed(*lock, {name, line});
}

kestal_lock_condition_t *kestal_init_lock_condition_tag(kestal_lock_condition_t *condition, const char *name,
                                                        uint64_t line)
{
    if (!is_given(condition, __func__, __LINE__))
        return nullptr;
    *condition = {0, nullptr, nullptr, name, line};
    return condition;
}

int32_t kestal_uninit_lock_condition_tag(kestal_lock_condition_t *condition, const char *name, uint64_t line)
{
    if (!is_given(condition, __func__, __LINE__))
        return -1;
    timer due(condition_timeout_ms);
    for (;;) {
        {
            const list_guard guard(condition->m_guard);
            if (condition->m_waiter_head == nullptr)
                return 0;
            wake_first(*condition);
        }
        if (due.expired()) {
            kestal_error_printf(
                "kestal_lock_condition: [ERROR] \033[1;31mpending too long time lock condition !\033[0m "
                "(%llu msec, caller=\"%s:%lu\")\n",
                due.elapsed(), name, line);
            due.push(report_step_ms);
        }
        kestal_load_balance();
    }
}

kestal_lock_condition_t *kestal_new_lock_condition_tag(const char *name, uint64_t line)
{
    void *block = kestal_alloc_tag(sizeof(kestal_lock_condition_t), name, line);
    if (block == nullptr)
        return nullptr;
    return kestal_init_lock_condition_tag(static_cast<kestal_lock_condition_t *>(block), name, line);
}

int32_t kestal_free_lock_condition_tag(kestal_lock_condition_t *condition, const char *name, uint64_t line)
{
    if (kestal_uninit_lock_condition_tag(condition, name, line) != 0)
        return -1;
    kestal_free_tag(condition, name, line);
    return 0;
}

int32_t kestal_lock_condition_wait_timeout_tag(kestal_lock_condition_t *condition, kestal_lock_t *lock,
                                               uint32_t timeout, const char *name, uint64_t line)
{
    if (condition == nullptr)
        return -1;
    waiter self{nullptr, nullptr, 0, {-1, -1}, name, line};
    {
        const wake_pipe pipe(self.m_pipe);
        {
            const list_guard guard(condition->m_guard);
            waiters(*condition).append(&self);
        }
        if (lock != nullptr)
            kestal_unlock_tag(lock, name, line);
        sleep_until_signalled(*condition, self, pipe, timeout);
        const list_guard guard(condition->m_guard);
        waiters(*condition).remove(&self);
    }
    return lock_again(lock, {name, line});
}

int32_t kestal_lock_condition_wakeup_tag(kestal_lock_condition_t *condition, const char *, uint64_t)
{
    if (condition == nullptr)
        return -1;
    const list_guard guard(condition->m_guard);
    return wake_first(*condition) ? 0 : -1;
}

int32_t kestal_lock_condition_wakeup_broadcast_tag(kestal_lock_condition_t *condition, const char *, uint64_t)
{
    if (condition == nullptr)
        return -1;
    int32_t result = -1;
    const list_guard guard(condition->m_guard);
    for (waiter *at = condition->m_waiter_head; at != nullptr; at = at->m_next)
        if (wake_waiter(*at))
            result = 0;
    return result;
}
