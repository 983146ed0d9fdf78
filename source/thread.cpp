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
#include <atomic>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char *source = "./source/thread";
constexpr uint64_t smallest_default_stack = 16384;
constexpr uint64_t report_after_ms = 59999;
constexpr uint64_t report_interval_ms = 1000;

struct job {
    kestal_thread_function_t function; // null tells the worker to end
    void *argument;
    const char *name;
    uint64_t line;
};

// A thread of the library. On the ready list it is the pool's; whoever takes it off may store a job and call it. The
// semaphore keeps the call for a worker that is only about to wait.
struct worker {
    worker *m_prev; // on the ready list
    worker *m_next;
    sem_t m_call;
    bool m_pooled; // otherwise it runs one job and ends
    uint32_t m_serial;
    job m_job;
    uint64_t m_stack_size;
};

struct thread_pool {
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

constinit thread_pool pool;

kestal::doubly_linked_list ready_list()
{
    return {&pool.m_ready_head, &pool.m_ready_tail, KESTAL_LINKS(worker, m_prev, m_next)};
}

// --- one worker

worker *new_worker(bool pooled, uint64_t stack_size, const job &first)
{
    auto *fresh = static_cast<worker *>(kestal_calloc_tag(1, sizeof(worker), "kestal_new_thread_worker", __LINE__));
    if (fresh == nullptr)
        return nullptr;
    sem_init(&fresh->m_call, 0, 0);
    fresh->m_pooled = pooled;
    fresh->m_serial = std::atomic_ref(pool.m_serial).fetch_add(1, std::memory_order_relaxed);
    fresh->m_job = first;
    fresh->m_stack_size = stack_size;
    return fresh;
}

void free_worker(worker *ended)
{
    if (ended->m_prev != nullptr || ended->m_next != nullptr)
        kestal_assert_fail_tag(source, __func__, __LINE__,
                               "(s_worker->m_prev == ((kestal_thread_worker_t *)0)) && "
                               "(s_worker->m_next == ((kestal_thread_worker_t *)0))");
    sem_destroy(&ended->m_call);
    kestal_free_tag(ended, "kestal_free_thread_worker", __LINE__);
}

// Gives a worker that is off the ready list its next job. It may be gone when the call is back.
void call_worker(worker &idle, const job &next)
{
    idle.m_job = next;
    sem_post(&idle.m_call);
}

void wait_for_call(worker &self)
{
    while (sem_wait(&self.m_call) != 0)
        ; // a signal came
}

// --- the thread

void dismiss(worker *first)
{
    while (first != nullptr) {
        worker *next = std::exchange(first->m_next, nullptr);
        first->m_prev = nullptr;
        call_worker(*first, {nullptr, nullptr, __func__, __LINE__});
        first = next;
    }
}

// Counts a job as done, and out its thread if that has no worker any more (null). True when the worker went to the
// ready list. Idle workers are kept only while some job runs: with the last one done all are sent home.
bool finish_job(worker *self)
{
    worker *dismissed = nullptr;
    bool stays = false;
    {
        const kestal::lock_guard guard(pool.m_lock);
        const bool full = pool.m_ready_limit != 0 && pool.m_ready >= pool.m_ready_limit;
        if (self == nullptr)
            --pool.m_threads;
        if (--pool.m_active == 0) {
            dismissed = std::exchange(pool.m_ready_head, nullptr);
            pool.m_ready_tail = nullptr;
            pool.m_ready = 0;
        } else if (self != nullptr && !full) {
            ready_list().prepend(self);
            ++pool.m_ready;
            stays = true;
        }
    }
    dismiss(dismissed);
    return stays;
}

// The life of a thread from its first job on.
void *run_worker(void *argument)
{
    auto *self = static_cast<worker *>(argument);
    while (self->m_job.function != nullptr) {
        const job given = std::exchange(self->m_job, {});
        if (!self->m_pooled)
            free_worker(std::exchange(self, nullptr));
        given.function(given.argument);
        const bool stays = finish_job(self);
        if (self == nullptr)
            return nullptr;
        if (stays)
            wait_for_call(*self);
    }
    free_worker(self);
    const kestal::lock_guard guard(pool.m_lock);
    --pool.m_threads;
    return nullptr;
}

void *run_spare_worker(void *argument)
{
    wait_for_call(*static_cast<worker *>(argument));
    return run_worker(argument);
}

// --- starting a thread

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

bool start_thread(void *(*body)(void *), worker &fresh)
{
    thread_attributes attributes;
    attributes.set_stack_size(fresh.m_stack_size);
    if (!attributes.set_detached()) {
        kestal_assert_fail_tag(source, __func__, __LINE__, "pthread_attr_setdetachstate failed !");
        return false;
    }
    pthread_t thread{};
    if (pthread_create(&thread, attributes.get(), body, &fresh) != 0) {
        kestal_assert_fail_tag(source, __func__, __LINE__, "pthread_create failed !");
        return false;
    }
    return true;
}

bool start_worker(bool pooled, uint64_t stack_size, const job &first)
{
    worker *fresh = new_worker(pooled, stack_size, first);
    if (fresh == nullptr)
        return false;
    if (start_thread(run_worker, *fresh))
        return true;
    free_worker(fresh);
    return false;
}

// --- under the pool lock

// A thread is counted before it starts, so that whoever has started a job finds it counted.
void count_thread()
{
    pool.m_max = std::max(pool.m_max, ++pool.m_threads);
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

void add_spare_worker(uint64_t stack_size)
{
    worker *spare = new_worker(true, stack_size, {});
    if (spare == nullptr)
        return;
    if (!start_thread(run_spare_worker, *spare)) {
        free_worker(spare);
        return;
    }
    count_thread();
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
    const job given{function, argument, name, line};
    bool pooled = false;
    worker *idle = nullptr;
    {
        const kestal::lock_guard guard(pool.m_lock, name, line);
        if (pool.m_max == 0)
            kestal::register_thread_counters(kestal_get_thread_count);
        pooled = pool.m_ready_target != 0 || pool.m_ready_limit != 0;
        if (pooled)
            idle = take_ready_worker(stack_size);
        if (idle == nullptr)
            count_thread();
        ++pool.m_active;
        if (pool.m_ready_target > pool.m_active + pool.m_ready)
            add_spare_worker(stack_size);
    }
    if (idle != nullptr)
        call_worker(*idle, given);
    else if (!start_worker(pooled, stack_size, given)) {
        finish_job(nullptr);
        return -1;
    }
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
