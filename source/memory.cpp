#include <kestal_ulx/memory.h>

#include <atomic>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#endif

namespace {

// Threads count in counters of their own, as far as there are, and do not wait for each other's cache line. Any counter
// would do: the place of the caller's stack only spreads the threads.
struct alignas(64) counter {
    std::atomic<size_t> allocated{0};
    std::atomic<size_t> released{0};

    static counter &mine();
};

constexpr unsigned counter_bits = 4;
constinit counter counters[1u << counter_bits];

counter &counter::mine()
{
    const auto stack = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(__builtin_frame_address(0)));
    return counters[(stack >> 16) * 0x9E3779B97F4A7C15u >> (64 - counter_bits)];
}

bool is_single_threaded()
{
#if __has_include(<sys/single_threaded.h>)
    return __libc_single_threaded;
#else
    return false;
#endif
}

// A process that has never had a second thread needs neither a counter of its own nor a locked instruction.
[[gnu::always_inline]] inline void count(std::atomic<size_t> counter::*number)
{
    if (is_single_threaded()) {
        std::atomic<size_t> &only = counters[0].*number;
        only.store(only.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    } else {
        (counter::mine().*number).fetch_add(1, std::memory_order_release);
    }
}

// Reads what was released first: whatever releases it sees, it then sees the allocations before them too.
size_t live_blocks()
{
    size_t released = 0;
    for (const counter &each : counters)
        released += each.released.load(std::memory_order_acquire);
    size_t allocated = 0;
    for (const counter &each : counters)
        allocated += each.allocated.load(std::memory_order_relaxed);
    return allocated - released;
}

bool is_addressable(uint64_t size)
{
    return size <= SIZE_MAX;
}

[[gnu::noinline]] void report_null_free(const char *name, uint64_t line)
{
    if (strcmp(name, "operator delete") != 0)
        fprintf(stderr, "null pointer free ? (at \"%s\":%llu)\n", name, static_cast<unsigned long long>(line));
}

// The two ways that everything goes are part of each call: another one inside would cost as much as all they do.
[[gnu::always_inline]] inline void *allocate(uint64_t size)
{
    void *block = is_addressable(size) ? malloc(static_cast<size_t>(size)) : nullptr;
    if (block != nullptr)
        count(&counter::allocated);
    return block;
}

[[gnu::always_inline]] inline void release(void *block)
{
    count(&counter::released);
    free(block);
}

char *duplicate(const char *text, size_t length)
{
    char *copy = static_cast<char *>(allocate(uint64_t{length} + 1u));
    if (copy == nullptr)
        return nullptr;
    if (length > 0)
        memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

} // namespace

void *kestal_heap_tag(void *block, uint64_t size, const char *, uint64_t)
{
    if (block == nullptr)
        return allocate(size);
    if (size == 0) {
        release(block);
        return nullptr;
    }
    void *resized = is_addressable(size) ? realloc(block, static_cast<size_t>(size)) : nullptr;
    // Counts down although the old block lives on: callers rely on the count going with the returned pointer.
    if (resized == nullptr)
        count(&counter::released);
    return resized;
}

void *kestal_heap_notag(void *block, uint64_t size)
{
    return kestal_heap_tag(block, size, "<NOTAG>", 0);
}

void *kestal_alloc_tag(uint64_t size, const char *, uint64_t)
{
    return allocate(size);
}

void *kestal_realloc_tag(void *block, uint64_t size, const char *name, uint64_t line)
{
    return kestal_heap_tag(block, size, name, line);
}

void *kestal_calloc_tag(uint64_t count, uint64_t size, const char *name, uint64_t line)
{
    void *block = kestal_alloc_tag(count * size, name, line);
    if (block != nullptr)
        memset(block, 0, static_cast<size_t>(count * size));
    return block;
}

void *kestal_free_tag(void *block, const char *name, uint64_t line)
{
    if (block != nullptr)
        release(block);
    else
        report_null_free(name == nullptr ? "" : name, line);
    return nullptr;
}

void *kestal_check_free_tag(void *block, const char *, uint64_t)
{
    if (block != nullptr)
        release(block);
    return nullptr;
}

char *kestal_strdup_tag(const char *text, const char *, uint64_t)
{
    return duplicate(text, text == nullptr ? 0 : strlen(text));
}

char *kestal_strndup_tag(const char *text, uint64_t limit, const char *, uint64_t)
{
    const size_t bound = is_addressable(limit) ? static_cast<size_t>(limit) : SIZE_MAX;
    return duplicate(text, text == nullptr ? 0 : strnlen(text, bound));
}

char *kestal_realloc_strdup_tag(char *old, const char *text, const char *name, uint64_t line)
{
    char *copy = kestal_strdup_tag(text, name, line);
    kestal_check_free(old);
    return copy;
}

char *kestal_realloc_strndup_tag(char *old, const char *text, uint64_t limit, const char *name, uint64_t line)
{
    char *copy = kestal_strndup_tag(text, limit, name, line);
    kestal_check_free(old);
    return copy;
}

int32_t kestal_get_alloc_info(uint64_t *count, uint64_t *size, uint64_t *peak)
{
    if (count != nullptr)
        *count = kestal_get_alloc_count();
    if (size != nullptr)
        *size = 0;
    if (peak != nullptr)
        *peak = 0;
    return 0;
}

uint64_t kestal_get_alloc_count(void)
{
    return live_blocks();
}

uint64_t kestal_get_alloc_size(void)
{
    return 0;
}

uint64_t kestal_get_alloc_peak_size(void)
{
    return 0;
}

int32_t kestal_get_alloc_list(uint64_t, kestal_alloc_list_callback_t, void *)
{
    return 0;
}

uint64_t __kestal_malloc_usable_size(void *block)
{
    return malloc_usable_size(block);
}
