// Jobs handed to the pool beside GLib's pool, and jobs with a thread each beside detached POSIX threads. A pass is
// 100,000 jobs that only say they are done.
#include <kestal_ulx.h>

#include <atomic>
#include <benchmark/benchmark.h>
#include <glib.h>
#include <pthread.h>
#include <semaphore>
#include <string>

namespace {

constexpr int jobs = 100000;

// Lets so many jobs be under way at a time, and tells when all are done.
class flight {
public:
    explicit flight(int places) : places_(places), places_free_(places) {}

    void start() { places_free_.acquire(); }
    void done() { places_free_.release(); }
    void drain()
    {
        for (int i = 0; i < places_; ++i)
            places_free_.acquire();
    }

private:
    int places_;
    std::counting_semaphore<> places_free_;
};

void land(void *argument)
{
    static_cast<flight *>(argument)->done();
}

template <typename Start>
void run(benchmark::State &state, int places, Start start)
{
    for (auto _ : state) {
        flight current(places);
        for (int i = 0; i < jobs; ++i) {
            current.start();
            start(&current);
        }
        current.drain();
    }
    state.SetItemsProcessed(state.iterations() * jobs);
}

void on_kestal_pool(benchmark::State &state, int places)
{
    // A job that lasts keeps the idle workers.
    flight keeper(1);
    keeper.start();
    kestal_set_thread_pool(4, 8);
    kestal_detached_thread([](void *argument) { static_cast<flight *>(argument)->drain(); }, &keeper);
    run(state, places, [](flight *current) { kestal_detached_thread(land, current); });
    keeper.done();
    kestal_thread_pool_wait(-1);
    kestal_set_thread_pool(0, 0);
}

void on_glib_pool(benchmark::State &state, int places)
{
    GThreadPool *pool = g_thread_pool_new([](gpointer current, gpointer) { land(current); }, nullptr, 4, TRUE, nullptr);
    run(state, places, [pool](flight *current) { g_thread_pool_push(pool, current, nullptr); });
    g_thread_pool_free(pool, FALSE, TRUE);
}

void *land_on_thread(void *argument)
{
    land(argument);
    return nullptr;
}

void on_detached_threads(benchmark::State &state, int places)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    run(state, places, [&](flight *current) {
        pthread_t thread{};
        while (pthread_create(&thread, &attributes, land_on_thread, current) != 0)
            sched_yield();
    });
    pthread_attr_destroy(&attributes);
}

void on_kestal_threads(benchmark::State &state, int places)
{
    run(state, places, [](flight *current) { kestal_detached_thread(land, current); });
    kestal_thread_pool_wait(-1);
}

void add(const char *name, void (*body)(benchmark::State &, int), int places)
{
    benchmark::RegisterBenchmark(name, [=](benchmark::State &state) { body(state, places); })
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

const bool added = [] {
    add("100,000 jobs, 4 in flight:kestal", on_kestal_pool, 4);
    add("100,000 jobs, 4 in flight:glib", on_glib_pool, 4);
    add("100,000 jobs, all queued:kestal", on_kestal_pool, jobs);
    add("100,000 jobs, all queued:glib", on_glib_pool, jobs);
    add("100,000 jobs, a thread each:kestal", on_kestal_threads, 4);
    add("100,000 jobs, a thread each:pthread", on_detached_threads, 4);
    return true;
}();

} // namespace
