#include <kestal_ulx/thread.h>

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/lock.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>

#include "exception.hpp"
#include "list.hpp"
#include "lock_guard.hpp"
#include "timer.hpp"

#include <algorithm>
#include <pthread.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char *source = "./source/thread";
constexpr uint64_t smallest_default_stack = 16384;
constexpr uint64_t report_after_ms = 59999;
constexpr uint64_t report_interval_ms = 1000;

struct kestal_thread_pool;

// A thread of the library. It holds its job lock whenever it is not running a job, and only waiting for one lets
// another thread have it: a job is never stored where nobody would see it.
struct kestal_thread_worker_t {
    kestal_thread_worker_t *m_prev; // on the pool's ready list
    kestal_thread_worker_t *m_next;
    kestal_lock_t m_start_lock;
    kestal_lock_condition_t m_start_condition;
    kestal_lock_t m_job_lock;
    kestal_lock_condition_t m_job_condition;
    kestal_thread_pool *m_pool; // null: runs one job and ends
    uint32_t m_serial;
    const char *m_job_name;
    uint64_t m_job_line;
    uint64_t m_stack_size;
    kestal_thread_function_t m_function; // null tells the worker to end
    void *m_argument;
    bool m_started;
    bool m_called; // a job, or the word to end, was stored
};

using worker = kestal_thread_worker_t;

// Its lock is never taken by a thread that waits for a worker's job lock while holding it, only the other way round.
struct kestal_thread_pool {
    kestal_lock_t m_lock = KESTAL_LOCK_INITIALIZER("kestal_thread_pool", 0);
    uint64_t m_ready_target = 0;
    uint64_t m_ready_limit = 0;
    uint32_t m_serial = 0;
    worker *m_ready_head = nullptr;
    worker *m_ready_tail = nullptr;
    uint64_t m_active = 0;
    uint64_t m_ready = 0;
    uint64_t m_threads = 0;
    uint64_t m_max = 0;
};

constinit kestal_thread_pool pool;

kestal::doubly_linked_list ready_list()
{
    return {&pool.m_ready_head, &pool.m_ready_tail, KESTAL_LINKS(worker, m_prev, m_next)};
}

// --- one worker

worker *new_worker(kestal_thread_pool *owner, uint64_t stack_size)
{
    auto *fresh = static_cast<worker *>(kestal_calloc_tag(1, sizeof(worker), "kestal_new_thread_worker", __LINE__));
    if (fresh == nullptr)
        return nullptr;
    kestal_init_lock(&fresh->m_start_lock);
    kestal_init_lock_condition(&fresh->m_start_condition);
    kestal_init_lock(&fresh->m_job_lock);
    kestal_init_lock_condition(&fresh->m_job_condition);
    fresh->m_pool = owner;
    fresh->m_serial = pool.m_serial++;
    fresh->m_stack_size = stack_size;
    return fresh;
}

void free_worker(worker *ended)
{
    if (ended->m_prev != nullptr || ended->m_next != nullptr)
        kestal_assert_fail_tag(source, __func__, __LINE__,
                               "(s_worker->m_prev == ((kestal_thread_worker_t *)0)) && "
                               "(s_worker->m_next == ((kestal_thread_worker_t *)0))");
    kestal_uninit_lock_condition(&ended->m_job_condition);
    kestal_uninit_lock(&ended->m_job_lock);
    kestal_uninit_lock_condition(&ended->m_start_condition);
    kestal_uninit_lock(&ended->m_start_lock);
    kestal_free_tag(ended, "kestal_free_thread_worker", __LINE__);
}

// Stores a job, or with a null function the word to end, and wakes the worker, which must be off the ready list.
void call_worker(worker &idle, kestal_thread_function_t function, void *argument, const char *name, uint64_t line)
{
    const kestal::lock_guard guard(idle.m_job_lock);
    idle.m_job_name = name;
    idle.m_job_line = line;
    idle.m_function = function;
    idle.m_argument = argument;
    idle.m_called = true;
    kestal_lock_condition_wakeup(&idle.m_job_condition);
}

struct job {
    kestal_thread_function_t function;
    void *argument;
};

// Called with the job lock held.
job wait_for_job(worker &self)
{
    while (!self.m_called)
        kestal_lock_condition_wait(&self.m_job_condition, &self.m_job_lock);
    const job given{self.m_function, self.m_argument};
    self.m_function = nullptr;
    self.m_argument = nullptr;
    self.m_called = false;
    return given;
}

// --- the thread

void dismiss(worker *first)
{
    while (first != nullptr) {
        worker *next = first->m_next;
        first->m_prev = first->m_next = nullptr;
        call_worker(*first, nullptr, nullptr, __func__, __LINE__);
        first = next;
    }
}

// Counts a job as done. True when the worker (null for one that has freed itself) went back to the ready list, its job
// lock held. Idle workers are kept only while some job runs: with the last one done all are sent home.
bool finish_job(worker *self)
{
    if (self != nullptr)
        kestal_lock(&self->m_job_lock);
    worker *dismissed = nullptr;
    bool stays = false;
    {
        const kestal::lock_guard guard(pool.m_lock);
        const bool full = pool.m_ready_limit != 0 && pool.m_ready >= pool.m_ready_limit;
        if (--pool.m_active == 0) {
            dismissed = pool.m_ready_head;
            pool.m_ready_head = pool.m_ready_tail = nullptr;
            pool.m_ready = 0;
        } else if (self != nullptr && !full) {
            ready_list().prepend(self);
            ++pool.m_ready;
            stays = true;
        }
    }
    dismiss(dismissed);
    if (self != nullptr && !stays)
        kestal_unlock(&self->m_job_lock);
    return stays;
}

void report_start(worker &self)
{
    const kestal::lock_guard guard(self.m_start_lock);
    kestal_lock(&self.m_job_lock);
    self.m_started = true;
    kestal_lock_condition_wakeup(&self.m_start_condition);
}

void *run_worker(void *argument)
{
    auto *self = static_cast<worker *>(argument);
    report_start(*self);
    for (;;) {
        const job given = wait_for_job(*self);
        kestal_unlock(&self->m_job_lock);
        if (given.function == nullptr)
            break;
        if (self->m_pool == nullptr)
            free_worker(std::exchange(self, nullptr));
        given.function(given.argument);
        if (!finish_job(self))
            break;
    }
    if (self != nullptr)
        free_worker(self);
    const kestal::lock_guard guard(pool.m_lock);
    --pool.m_threads;
    return nullptr;
}

// --- starting a thread, under the pool lock

class thread_attributes {
public:
    thread_attributes() { pthread_attr_init(&attributes_); }
    ~thread_attributes() { pthread_attr_destroy(&attributes_); }
    thread_attributes(const thread_attributes &) = delete;
    thread_attributes &operator=(const thread_attributes &) = delete;

    const pthread_attr_t *get() const { return &attributes_; }
    bool set_detached() { return pthread_attr_setdetachstate(&attributes_, PTHREAD_CREATE_DETACHED) == 0; }

    // 0: the default. A size below the system's least is raised to it.
    void set_stack_size(uint64_t wanted)
    {
        size_t standard = 0;
        pthread_attr_getstacksize(&attributes_, &standard);
        const auto least = static_cast<uint64_t>(std::max(sysconf(_SC_THREAD_STACK_MIN), 0L));
        const uint64_t size =
            wanted == 0 ? std::max<uint64_t>(standard, smallest_default_stack) : std::max(wanted, least);
        if (size != standard)
            pthread_attr_setstacksize(&attributes_, static_cast<size_t>(std::min<uint64_t>(size, SIZE_MAX)));
    }

private:
    pthread_attr_t attributes_;
};

// Starts the worker's thread and waits until it holds its job lock.
bool start_worker(worker &fresh)
{
    thread_attributes attributes;
    attributes.set_stack_size(fresh.m_stack_size);
    if (!attributes.set_detached()) {
        kestal_assert_fail_tag(source, __func__, __LINE__, "pthread_attr_setdetachstate failed !");
        return false;
    }
    const kestal::lock_guard guard(fresh.m_start_lock);
    pthread_t thread{};
    if (pthread_create(&thread, attributes.get(), run_worker, &fresh) != 0) {
        kestal_assert_fail_tag(source, __func__, __LINE__, "pthread_create failed !");
        return false;
    }
    while (!fresh.m_started)
        if (kestal_lock_condition_wait(&fresh.m_start_condition, &fresh.m_start_lock) != 0)
            kestal_assert_fail_tag(source, __func__, __LINE__, "kestal_lock_condition_wait failed");
    return true;
}

worker *make_worker(kestal_thread_pool *owner, uint64_t stack_size)
{
    worker *fresh = new_worker(owner, stack_size);
    if (fresh == nullptr)
        return nullptr;
    if (!start_worker(*fresh)) {
        free_worker(fresh);
        return nullptr;
    }
    // Counted here and not by the new thread, so that whoever has started a job finds its thread counted.
    pool.m_max = std::max(pool.m_max, ++pool.m_threads);
    return fresh;
}

worker *take_ready_worker(uint64_t stack_size)
{
    worker *idle = pool.m_ready_head;
    while (idle != nullptr && idle->m_stack_size != stack_size)
        idle = idle->m_next;
    if (idle == nullptr)
        return nullptr;
    ready_list().remove(idle);
    --pool.m_ready;
    return idle;
}

worker *find_worker(uint64_t stack_size)
{
    if (pool.m_ready_target == 0 && pool.m_ready_limit == 0)
        return make_worker(nullptr, stack_size);
    worker *idle = take_ready_worker(stack_size);
    return idle != nullptr ? idle : make_worker(&pool, stack_size);
}

void add_spare_worker(uint64_t stack_size)
{
    if (pool.m_ready_target <= pool.m_active + pool.m_ready)
        return;
    worker *spare = make_worker(&pool, stack_size);
    if (spare == nullptr)
        return;
    ready_list().prepend(spare);
    ++pool.m_ready;
}

// --- waiting for the threads to end

// Reads the number of threads; false when the pool lock is not to be had at once.
bool try_read_threads(uint64_t &threads)
{
    if (kestal_try_lock(&pool.m_lock) == 0)
        return false;
    threads = pool.m_threads;
    kestal_unlock(&pool.m_lock);
    return true;
}

struct pool_wait {
    uint64_t count;
    int32_t timeout;
    bool known; // the threads were read at least once
    uint64_t threads;
};

void report_wait(const pool_wait &wait, const char *format_known, const char *format_unknown, uint64_t elapsed)
{
    constexpr const char *prefix = "kestal_thread_pool_wait_ex";
    if (wait.known)
        kestal_error_printf(format_known, prefix, elapsed, wait.timeout, wait.threads, wait.count);
    else
        kestal_error_printf(format_unknown, prefix, elapsed, wait.timeout, "<CAN NOT ACQUIRED LOCK>", wait.count);
}

} // namespace

int32_t kestal_detached_thread_ex_tag(kestal_thread_function_t function, void *argument, uint64_t stack_size,
                                      const char *name, uint64_t line)
{
    if (function == nullptr)
        return -1;
    worker *chosen = nullptr;
    {
        const kestal::lock_guard guard(pool.m_lock, name, line);
        if (pool.m_serial == 0)
            kestal::register_thread_counters(kestal_get_thread_count);
        chosen = find_worker(stack_size);
        if (chosen == nullptr)
            return -1;
        ++pool.m_active;
        add_spare_worker(stack_size);
    }
    call_worker(*chosen, function, argument, name, line);
    return 0;
}

int32_t kestal_set_thread_pool(uint64_t ready_target, uint64_t ready_limit)
{
    const kestal::lock_guard guard(pool.m_lock);
    pool.m_ready_target = ready_target;
    pool.m_ready_limit = ready_limit;
    return 0;
}

uint64_t kestal_get_thread_count(uint64_t *active, uint64_t *ready, uint64_t *max)
{
    const kestal::lock_guard guard(pool.m_lock);
    if (active != nullptr)
        *active = pool.m_active;
    if (ready != nullptr)
        *ready = pool.m_ready;
    if (max != nullptr)
        *max = pool.m_max;
    return pool.m_threads;
}

int32_t kestal_thread_pool_wait_ex(uint64_t count, int32_t timeout, int32_t verbose)
{
    pool_wait wait{count, timeout, false, 0};
    const kestal::timer due(timeout < 0 ? 0 : static_cast<uint64_t>(timeout));
    uint64_t last_line = 0;
    for (;;) {
        if (try_read_threads(wait.threads)) {
            wait.known = true;
            if (wait.threads <= count)
                return 0;
        }
        if (timeout >= 0 && due.expired()) {
            if (verbose != 0)
                report_wait(wait, "%s: [debug] thread-pool wait timeout ! (timeout=%llu/%d msec, threads=%lu/%lu)\n",
                            "%s: [debug] thread-pool wait timeout ! (timeout=%llu/%d msec, threads=%s/%lu)\n",
                            due.elapsed());
            return -1;
        }
        // Unsigned, and the wrong way round: after the first minute every pass prints a line, and is relied on to.
        const uint64_t now = kestal_time_stamp_msec();
        if (verbose != 0 && due.elapsed() > report_after_ms && last_line - now >= report_interval_ms) {
            report_wait(wait, "%s: [DEBUG] thread-pool waiting... (timeout=%llu/%d msec, threads=%lu/%lu)\n",
                        "%s: [DEBUG] thread-pool waiting... (timeout=%llu/%d msec, threads=%s/%lu)\n", due.elapsed());
            last_line = now;
        }
        kestal_load_balance();
    }
}

int32_t kestal_thread_pool_wait(int32_t timeout)
{
    return kestal_thread_pool_wait_ex(0, timeout, 0);
}

uint64_t kestal_get_thread_id(void)
{
    return static_cast<uint64_t>(pthread_self());
}
