// The buffer queue beside libevent's evbuffer, std::deque and a GLib queue of blocks. Every side copies bytes in and
// out, except in the row that hands blocks over. The rows "through empty" begin and end each turn with an empty queue;
// in the others as many bytes stay queued as are pushed.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>
#include <event2/buffer.h>
#include <glib.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

namespace {

struct kestal_queue {
    kestal_buffer_t *buffer = kestal_open_buffer_ex(0);
    ~kestal_queue() { kestal_close_buffer(buffer); }
    void push(const char *data, size_t size) { kestal_push_buffer_ex(buffer, data, size, 0); }
    void pop(char *data, size_t size) { kestal_pop_buffer_ex(buffer, data, size, 0); }
    void release_line() { kestal_free(kestal_pop_buffer_line(buffer)); }
};

struct evbuffer_queue {
    evbuffer *buffer = evbuffer_new();
    ~evbuffer_queue() { evbuffer_free(buffer); }
    void push(const char *data, size_t size) { evbuffer_add(buffer, data, size); }
    void pop(char *data, size_t size) { evbuffer_remove(buffer, data, size); }
    void release_line() { free(evbuffer_readln(buffer, nullptr, EVBUFFER_EOL_ANY)); }
};

struct deque_queue {
    std::deque<char> bytes;
    void push(const char *data, size_t size) { bytes.insert(bytes.end(), data, data + size); }
    void pop(char *data, size_t size)
    {
        const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(size);
        std::copy(bytes.begin(), end, data);
        bytes.erase(bytes.begin(), end);
    }
};

// Its blocks come out as they went in.
struct gqueue_queue {
    GQueue *blocks = g_queue_new();
    ~gqueue_queue() { g_queue_free_full(blocks, g_free); }
    void push(const char *data, size_t size) { g_queue_push_tail(blocks, g_memdup2(data, size)); }
    void pop(char *data, size_t size)
    {
        void *block = g_queue_pop_head(blocks);
        std::memcpy(data, block, size);
        g_free(block);
    }
};

template <typename Queue>
void push_pop(benchmark::State &state, size_t size, bool through_empty)
{
    const std::vector<char> data(size, 'x');
    std::vector<char> out(size);
    Queue queue;
    if (!through_empty)
        queue.push(data.data(), size);
    for (auto _ : state) {
        queue.push(data.data(), size);
        queue.pop(out.data(), size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}

template <typename Queue>
void register_push_pop(const std::string &who)
{
    for (const auto &[name, size] : {std::pair("64 B", size_t{64}), {"1500 B", 1500}, {"64 KiB", 65536}})
        for (const bool through_empty : {false, true})
            benchmark::RegisterBenchmark(
                ("buffer push+pop " + std::string(name) + (through_empty ? " through empty:" : ":") + who).c_str(),
                [size = size, through_empty](benchmark::State &state) { push_pop<Queue>(state, size, through_empty); });
}

constexpr size_t batch = 4096;

void pop_byte_kestal(benchmark::State &state)
{
    const std::vector<char> data(batch, 'x');
    kestal_queue queue;
    while (state.KeepRunningBatch(batch)) {
        queue.push(data.data(), batch);
        for (size_t i = 0; i < batch; ++i)
            benchmark::DoNotOptimize(kestal_pop_buffer_uint8(queue.buffer));
    }
}
BENCHMARK(pop_byte_kestal)->Name("buffer pop a byte:kestal");

void pop_byte_deque(benchmark::State &state)
{
    const std::vector<char> data(batch, 'x');
    deque_queue queue;
    while (state.KeepRunningBatch(batch)) {
        queue.push(data.data(), batch);
        for (size_t i = 0; i < batch; ++i) {
            benchmark::DoNotOptimize(queue.bytes.front());
            queue.bytes.pop_front();
        }
    }
}
BENCHMARK(pop_byte_deque)->Name("buffer pop a byte:std::deque");

void pop_byte_evbuffer(benchmark::State &state)
{
    const std::vector<char> data(batch, 'x');
    evbuffer_queue queue;
    while (state.KeepRunningBatch(batch)) {
        queue.push(data.data(), batch);
        for (size_t i = 0; i < batch; ++i) {
            char byte = '\0';
            queue.pop(&byte, 1);
            benchmark::DoNotOptimize(byte);
        }
    }
}
BENCHMARK(pop_byte_evbuffer)->Name("buffer pop a byte:evbuffer");

// Lines of a request head, 16 to 80 bytes, pushed together.
template <typename Queue>
void pop_line(benchmark::State &state)
{
    std::string text;
    constexpr size_t lines = 64;
    for (size_t i = 0; i < lines; ++i)
        text += "Header-" + std::string(i % 13 + 3, 'n') + ": " + std::string(i * 7 % 50 + 2, 'v') + "\r\n";
    Queue queue;
    while (state.KeepRunningBatch(lines)) {
        queue.push(text.data(), text.size());
        for (size_t i = 0; i < lines; ++i)
            queue.release_line();
    }
}

void hand_over_kestal(benchmark::State &state)
{
    kestal_queue queue;
    void *block = kestal_alloc(65536);
    for (auto _ : state) {
        kestal_push_buffer_ex(queue.buffer, block, 65536, KESTAL_BUFFER_ADOPT);
        block = kestal_alloc_pop_buffer_ex(queue.buffer, 65536, 1);
        benchmark::ClobberMemory();
    }
    kestal_free(block);
}
BENCHMARK(hand_over_kestal)->Name("buffer hand over a block:kestal");

void hand_over_gqueue(benchmark::State &state)
{
    gqueue_queue queue;
    void *block = g_malloc(65536);
    for (auto _ : state) {
        g_queue_push_tail(queue.blocks, block);
        block = g_queue_pop_head(queue.blocks);
        benchmark::ClobberMemory();
    }
    g_free(block);
}
BENCHMARK(hand_over_gqueue)->Name("buffer hand over a block:GQueue");

const bool registered = [] {
    register_push_pop<kestal_queue>("kestal");
    register_push_pop<deque_queue>("std::deque");
    register_push_pop<evbuffer_queue>("evbuffer");
    register_push_pop<gqueue_queue>("GQueue");
    benchmark::RegisterBenchmark("buffer pop a line:kestal", pop_line<kestal_queue>);
    benchmark::RegisterBenchmark("buffer pop a line:evbuffer", pop_line<evbuffer_queue>);
    return true;
}();

} // namespace
