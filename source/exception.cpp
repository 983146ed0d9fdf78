#include <kestal_ulx/exception.h>

#include "caller_text.hpp"
#include "exception.hpp"
#include "guard.hpp"

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/time_stamp.h>

#include <atomic>
#include <stdio.h>
#include <stdlib.h>

namespace {

using kestal::or_empty;

constexpr char source_path[] = "./source/exception";
constexpr char prompt[] = "CONSOLE #";
constexpr uint64_t record_limit = 4096;
constexpr uint64_t dumped_blocks = 128;

struct counters {
    uint64_t heap_size, heap_count, heap_peak;
    uint64_t threads, active, ready, max;
};

constinit kestal_short_lock_t registry_lock = 0;
constinit kestal_exception_t *newest = nullptr;
constinit uint64_t record_count = 0;
constinit std::atomic<uint32_t> dump_enabled{UINT32_MAX};
constinit std::atomic<kestal::thread_counters> read_threads{nullptr};

counters read_counters()
{
    counters now{};
    kestal_get_alloc_info(&now.heap_count, &now.heap_size, &now.heap_peak);
    if (const kestal::thread_counters read = read_threads.load(std::memory_order_acquire))
        now.threads = read(&now.active, &now.ready, &now.max);
    return now;
}

unsigned long long wide(uint64_t value)
{
    return value;
}

// The caller holds the registry. Returns false when the walk met a record that points to itself.
bool dump_records()
{
    const uint64_t now = kestal_time_stamp_msec();
    for (const kestal_exception_t *record = newest; record != nullptr; record = record->m_older) {
        fprintf(stderr, "%s     %s:%s():%llu (-%llu msec)\n", prompt, or_empty(record->m_file),
                or_empty(record->m_function), wide(record->m_line), wide(now - record->m_entry_time));
        if (record->m_older == record)
            return false;
    }
    return true;
}

// The caller holds the registry.
bool dump(const counters &now, const char *file, const char *function, uint64_t line)
{
    fprintf(stderr,
            "%s dump exception at %s:%s:%llu (section=%llu, heap size/count/peak=%llu/%llu/%llu, "
            "active/ready/threads/max=%llu/%llu/%llu/%llu)%s\n",
            prompt, or_empty(file), or_empty(function), wide(line), wide(record_count), wide(now.heap_size),
            wide(now.heap_count), wide(now.heap_peak), wide(now.active), wide(now.ready), wide(now.threads),
            wide(now.max), newest != nullptr ? " {" : ".");
    if (newest == nullptr)
        return true;
    const bool whole = dump_records();
    fprintf(stderr, "%s }\n", prompt);
    return whole;
}

} // namespace

void kestal::register_thread_counters(thread_counters counters)
{
    read_threads.store(counters, std::memory_order_release);
}

kestal_exception_t *kestal_add_exception_tag(const char *file, const char *function, uint64_t line)
{
    // From the C runtime, so that the records do not show among the blocks that a dump counts.
    auto *record = static_cast<kestal_exception_t *>(malloc(sizeof(kestal_exception_t)));
    if (record == nullptr) {
        kestal_assert_fail_tag(source_path, __func__, 85, "not enough memory");
        return nullptr;
    }
    *record = {nullptr, nullptr, 0, file, function, line};
    uint64_t count = 0;
    {
        const kestal::short_lock_guard guard(registry_lock);
        record->m_entry_time = kestal_time_stamp_msec();
        record->m_older = newest;
        if (newest != nullptr)
            newest->m_newer = record;
        newest = record;
        count = ++record_count;
    }
    if (count > record_limit)
        kestal_assert_fail_tag(source_path, __func__, __LINE__, "too many exception entry");
    return record;
}

int32_t kestal_del_exception_tag(kestal_exception_t *record)
{
    if (record == nullptr) {
        kestal_assert_fail_tag(source_path, __func__, __LINE__, "invalid argument");
        return 0;
    }
    {
        const kestal::short_lock_guard guard(registry_lock);
        (record->m_newer != nullptr ? record->m_newer->m_older : newest) = record->m_older;
        if (record->m_older != nullptr)
            record->m_older->m_newer = record->m_newer;
        --record_count;
    }
    free(record);
    return 0;
}

void kestal_dump_exception_tag(int32_t force, const char *file, const char *function, uint64_t line)
{
    const counters now = read_counters();
    bool whole = true;
    {
        // Held while printing, though short locks should not be: the records must not go away meanwhile.
        const kestal::short_lock_guard guard(registry_lock);
        if (dump_enabled.load(std::memory_order_relaxed) == 0)
            return;
        if (force == 0 && newest == nullptr && now.heap_count == 0 && now.threads == 0 && now.heap_size == 0)
            return;
        whole = dump(now, file, function, line);
        kestal_get_alloc_list(dumped_blocks, nullptr, const_cast<char *>(prompt));
    }
    if (!whole)
        kestal_assert_fail_tag(source_path, __func__, __LINE__, "broken exception node");
}

void kestal_set_force_dump_exception(uint32_t value)
{
    dump_enabled.store(value, std::memory_order_relaxed);
}
