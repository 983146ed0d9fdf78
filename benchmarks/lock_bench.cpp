// Locks and spin locks beside those of POSIX and GLib. A second thread lives all the while: the C runtime leaves the
// atomic steps out of its mutex in a program without one.
#include <kestal_ulx.h>

#include <atomic>
#include <benchmark/benchmark.h>
#include <glib.h>
#include <pthread.h>
#include <string>
#include <thread>

namespace {

class second_thread {
public:
    ~second_thread()
    {
        stop_ = true;
        stop_.notify_one();
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_{[this] { stop_.wait(false); }};
};

// One pass: take the lock, touch what it guards, give it back.
template <typename Lock, typename Unlock>
void add(const std::string &name, Lock lock, Unlock unlock)
{
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        const second_thread second;
        uint64_t guarded = 0;
        for (auto _ : state) {
            lock();
            benchmark::DoNotOptimize(++guarded);
            unlock();
        }
    });
}

// The same by four threads at once.
template <typename Lock, typename Unlock>
void add_contended(const std::string &name, Lock lock, Unlock unlock)
{
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State &state) {
                                     static uint64_t guarded;
                                     for (auto _ : state) {
                                         lock();
                                         benchmark::DoNotOptimize(++guarded);
                                         unlock();
                                     }
                                 })
        ->Threads(4)
        ->UseRealTime();
}

kestal_lock_t plain = KESTAL_LOCK_INITIALIZER("lock_bench", 1);
kestal_lock_t recursive = KESTAL_LOCK_INITIALIZER("lock_bench", 2);
kestal_spin_lock_t spin;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t recursive_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
pthread_rwlock_t rwlock = PTHREAD_RWLOCK_INITIALIZER;
GMutex g_mutex;
GRecMutex g_recursive;
GRWLock g_rwlock;

void add_pairs()
{
    const auto lock = [] { kestal_lock(&plain); };
    const auto unlock = [] { kestal_unlock(&plain); };
    const auto posix_lock = [] { pthread_mutex_lock(&mutex); };
    const auto posix_unlock = [] { pthread_mutex_unlock(&mutex); };
    const auto glib_lock = [] { g_mutex_lock(&g_mutex); };
    const auto glib_unlock = [] { g_mutex_unlock(&g_mutex); };
    add("lock and unlock:kestal", lock, unlock);
    add("lock and unlock:pthread", posix_lock, posix_unlock);
    add("lock and unlock:glib", glib_lock, glib_unlock);
    add_contended("lock and unlock, 4 threads:kestal", lock, unlock);
    add_contended("lock and unlock, 4 threads:pthread", posix_lock, posix_unlock);
    add_contended("lock and unlock, 4 threads:glib", glib_lock, glib_unlock);

    recursive.m_flags |= KESTAL_LOCK_RECURSIVE;
    add(
        "recursive lock, first hold:kestal", [] { kestal_lock(&recursive); }, [] { kestal_unlock(&recursive); });
    add(
        "recursive lock, first hold:pthread", [] { pthread_mutex_lock(&recursive_mutex); },
        [] { pthread_mutex_unlock(&recursive_mutex); });
    add(
        "recursive lock, first hold:glib", [] { g_rec_mutex_lock(&g_recursive); },
        [] { g_rec_mutex_unlock(&g_recursive); });

    add(
        "spin lock exclusive:kestal", [] { kestal_spin_lock(&spin); }, [] { kestal_spin_unlock(&spin); });
    add(
        "spin lock exclusive:pthread", [] { pthread_rwlock_wrlock(&rwlock); }, [] { pthread_rwlock_unlock(&rwlock); });
    add(
        "spin lock exclusive:glib", [] { g_rw_lock_writer_lock(&g_rwlock); },
        [] { g_rw_lock_writer_unlock(&g_rwlock); });
    add(
        "spin lock shared:kestal", [] { kestal_reference_spin_lock(&spin, KESTAL_SPIN_LOCK_SHARED); },
        [] { kestal_reference_spin_unlock(&spin); });
    add(
        "spin lock shared:pthread", [] { pthread_rwlock_rdlock(&rwlock); }, [] { pthread_rwlock_unlock(&rwlock); });
    add(
        "spin lock shared:glib", [] { g_rw_lock_reader_lock(&g_rwlock); }, [] { g_rw_lock_reader_unlock(&g_rwlock); });
}

// A token goes to a second thread and back: two wake-ups a pass.
template <typename Lock, typename Unlock, typename Wait, typename Wake>
void add_hand_over(const std::string &name, Lock lock, Unlock unlock, Wait wait, Wake wake)
{
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        enum { here, there, over } token = here;
        const auto pass = [&](auto from, auto to) {
            lock();
            while (token != from && token != over)
                wait();
            const bool more = token != over;
            if (more)
                token = to;
            wake();
            unlock();
            return more;
        };
        std::thread second([&] {
            while (pass(there, here))
                ;
        });
        for (auto _ : state) {
            pass(here, there);
            lock();
            while (token != here)
                wait();
            unlock();
        }
        pass(here, over);
        second.join();
    })->UseRealTime();
}

kestal_lock_condition_t changed;
pthread_cond_t posix_changed = PTHREAD_COND_INITIALIZER;
GCond g_changed;

void add_hand_overs()
{
    add_hand_over(
        "condition, there and back:kestal", [] { kestal_lock(&plain); }, [] { kestal_unlock(&plain); },
        [] { kestal_lock_condition_wait(&changed, &plain); }, [] { kestal_lock_condition_wakeup_broadcast(&changed); });
    add_hand_over(
        "condition, there and back:pthread", [] { pthread_mutex_lock(&mutex); }, [] { pthread_mutex_unlock(&mutex); },
        [] { pthread_cond_wait(&posix_changed, &mutex); }, [] { pthread_cond_broadcast(&posix_changed); });
    add_hand_over(
        "condition, there and back:glib", [] { g_mutex_lock(&g_mutex); }, [] { g_mutex_unlock(&g_mutex); },
        [] { g_cond_wait(&g_changed, &g_mutex); }, [] { g_cond_broadcast(&g_changed); });
}

const bool added = [] {
    add_pairs();
    add_hand_overs();
    return true;
}();

} // namespace
