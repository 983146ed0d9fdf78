// Tagged allocation beside the plain allocator that it wraps, in one thread and in four at once.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char text[] = "a text of some length";

template <typename Once>
void add(const char *name, int threads, Once once)
{
    benchmark::RegisterBenchmark(name, [once](benchmark::State &state) {
        for (auto _ : state)
            once();
    })->Threads(threads);
}

template <typename Block>
Block *used(Block *block)
{
    benchmark::DoNotOptimize(block);
    return block;
}

const bool rows_added = [] {
    add("alloc and free 64 B:kestal", 1, [] { kestal_free(used(kestal_alloc(64))); });
    add("alloc and free 64 B:malloc", 1, [] { free(used(malloc(64))); });
    add("alloc and free 4 KiB:kestal", 1, [] { kestal_free(used(kestal_alloc(4096))); });
    add("alloc and free 4 KiB:malloc", 1, [] { free(used(malloc(4096))); });
    add("strdup and free:kestal", 1, [] { kestal_free(used(kestal_strdup(text))); });
    add("strdup and free:malloc", 1, [] { free(used(strdup(text))); });
    add("alloc and free 64 B in 4 threads:kestal", 4, [] { kestal_free(used(kestal_alloc(64))); });
    add("alloc and free 64 B in 4 threads:malloc", 4, [] { free(used(malloc(64))); });
    return true;
}();

} // namespace
