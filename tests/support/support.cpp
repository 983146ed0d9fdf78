#include "support.hpp"

#include "processor.hpp"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <unistd.h>

namespace {

using steady = std::chrono::steady_clock;
constexpr std::chrono::milliseconds a_while(50);

std::atomic<uint64_t> first_failure{0}; // which allocation; 0: none fails
std::atomic<uint64_t> failures{1};
std::atomic<uint64_t> lot{0}; // not 0: draws which of the failures happen
std::atomic<uint64_t> allocations{0};
std::atomic<steady::rep> memory_returns{0};
std::atomic<bool> failure_happened{false};

// About every other number, others for each lot.
bool is_drawn(uint64_t number)
{
    constexpr uint64_t factor = 0x9E3779B97F4A7C15;
    const uint64_t mixed = (number * factor) ^ (lot * factor >> 29);
    return (mixed * factor >> 63) != 0;
}

bool must_fail()
{
    const uint64_t first = first_failure;
    if (first == 0)
        return false;
    const uint64_t number = ++allocations;
    if (number < first || number - first >= failures)
        return false;
    if (number == first)
        memory_returns = (steady::now() + a_while).time_since_epoch().count();
    if (number != first && lot != 0 && !is_drawn(number))
        return false;
    failure_happened = true;
    return failures != kestal_test::for_a_while || steady::now().time_since_epoch().count() < memory_returns;
}

void *out_of_memory()
{
    errno = ENOMEM;
    return nullptr;
}

std::mutex reports_mutex;
std::vector<std::string> reports;

void keep_report(const char *, const char *, uint64_t, const char *message)
{
    const std::lock_guard guard(reports_mutex);
    reports.emplace_back(message);
}

std::mutex errors_mutex;
std::condition_variable errors_changed;
std::string errors;

int32_t keep_error(const char *text)
{
    const std::lock_guard guard(errors_mutex);
    errors += text == nullptr ? "" : text;
    errors_changed.notify_all();
    return 0;
}

int occurrences(const std::string &text, const std::string &part)
{
    int found = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        ++found;
    return found;
}

std::atomic<uint64_t> clock_ahead_msec{0};
std::atomic<bool> is_clock_held{false};
std::atomic<uint64_t> held_msec{0}; // what a held clock shows
std::atomic<uint64_t> step_msec{0}; // by which it goes on with every look

} // namespace

// The linker sends every allocation of the statically linked library, and its looks at the clock, here (--wrap).
extern "C" {
uint64_t __real_kestal_time_stamp_msec();
uint64_t __real_kestal_time_stamp_nsec();

uint64_t __wrap_kestal_time_stamp_msec()
{
    return is_clock_held ? held_msec += step_msec : __real_kestal_time_stamp_msec() + clock_ahead_msec;
}

uint64_t __wrap_kestal_time_stamp_nsec()
{
    constexpr uint64_t per_ms = 1000000;
    return is_clock_held ? kestal_time_stamp_msec() * per_ms
                         : __real_kestal_time_stamp_nsec() + clock_ahead_msec * per_ms;
}

void *__real_malloc(size_t size);
void *__real_realloc(void *block, size_t size);

void *__wrap_malloc(size_t size)
{
    return must_fail() ? out_of_memory() : __real_malloc(size);
}

void *__wrap_realloc(void *block, size_t size)
{
    return must_fail() ? out_of_memory() : __real_realloc(block, size);
}
}

namespace kestal_test {

failing_allocation::failing_allocation(uint64_t nth, uint64_t times, uint64_t drawn_by)
{
    failure_happened = false;
    allocations = 0;
    memory_returns = std::numeric_limits<steady::rep>::max();
    failures = times;
    lot = drawn_by;
    first_failure = nth;
}

failing_allocation::~failing_allocation()
{
    first_failure = 0;
}

bool failing_allocation::happened() const
{
    return failure_happened;
}

namespace {

struct row_of_failures {
    uint64_t times, lot = 0;
};

// script/torture lets more fail than each allocation alone: in its first round longer and longer rows, then every other one
// by lot, differently each round.
std::vector<row_of_failures> rows_of_failures()
{
    const char *torture = getenv("KESTAL_TORTURE");
    const uint64_t round = torture == nullptr ? 0 : strtoull(torture, nullptr, 10);
    if (round == 0)
        return {{1}};
    if (round == 1)
        return {{1}, {2}, {3}, {5}, {for_a_while}};
    return {{1}, {for_a_while, 2 * round}, {for_a_while, 2 * round + 1}};
}

// The scenario, with the `nth` allocation and those of the row after it failing: whether one did.
bool survives(const std::function<void()> &scenario, uint64_t nth, const row_of_failures &row)
{
    const uint64_t before = kestal_get_alloc_count();
    bool failed = false;
    {
        const failing_allocation failing(nth, row.times, row.lot);
        scenario();
        failed = failing.happened();
    }
    EXPECT_EQ(kestal_thread_pool_wait(60000), 0) << "threads left behind";
    EXPECT_EQ(kestal_get_alloc_count(), before) << "blocks left behind when allocation " << nth
                                                << " failed, with a row of " << row.times << ", lot " << row.lot;
    return failed;
}

} // namespace

uint64_t with_each_allocation_failing(const std::function<void()> &scenario, uint64_t most)
{
    uint64_t met = most;
    for (const row_of_failures &row : rows_of_failures()) {
        uint64_t nth = 1;
        while (nth <= most && survives(scenario, nth, row)) {
            if (testing::Test::HasFailure())
                return nth;
            ++nth;
        }
        EXPECT_LE(nth, most) << "the scenario never ran without a failing allocation";
        if (row.times == 1)
            met = nth - 1;
    }
    return met;
}

caught_assertions::caught_assertions()
{
    reports.clear();
    kestal_set_assert_handler(keep_report, &previous_);
}

caught_assertions::~caught_assertions()
{
    kestal_set_assert_handler(previous_, nullptr);
}

std::vector<std::string> caught_assertions::messages() const
{
    const std::lock_guard guard(reports_mutex);
    return reports;
}

std::set<std::string> caught_assertions::distinct() const
{
    const std::lock_guard guard(reports_mutex);
    return {reports.begin(), reports.end()};
}

std::string numbers_masked(std::string text, const std::string &before)
{
    for (size_t found = text.find(before); found != std::string::npos; found = text.find(before, found + 1)) {
        const size_t first = found + before.size();
        const size_t last = text.find_first_not_of("0123456789", first);
        if (last != first)
            text.replace(first, std::min(last, text.size()) - first, "N");
    }
    return text;
}

bool is_on_the_stack(std::string_view bytes)
{
#ifdef __SANITIZE_THREAD__
    return bytes.empty();
#endif
    constexpr size_t page = 4096, pages = 8;
    static char memory[page * pages]; // not on that stack
    size_t length = 0;
    const int descriptor = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    const auto here = reinterpret_cast<uintptr_t>(&descriptor);
    for (size_t i = 1; i <= pages; ++i)
        if (pread(descriptor, memory + sizeof memory - i * page, page, static_cast<off_t>(here - i * page)) > 0)
            length += page;
    close(descriptor);
    EXPECT_GT(length, 0u);
    return memmem(memory, sizeof memory, bytes.data(), bytes.size()) != nullptr;
}

std::string noise(size_t length)
{
    std::string bytes(length, '\0');
    uint32_t state = 1;
    for (char &byte : bytes)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
}

void on_every_path(const std::function<void()> &check)
{
    using namespace kestal::processor;
    for (const uint32_t features : {0u, every_feature & ~(avx2 | vpclmul), every_feature}) {
        SCOPED_TRACE(testing::Message() << "with the features " << std::hex << features);
        allow_only(features);
        check();
    }
}

std::string colours_named(std::string text)
{
    for (const auto &[sequence, name] : {std::pair("\033[1;31m", "<r:"),
                                         {"\033[1;32m", "<g:"},
                                         {"\033[1;33m", "<y:"},
                                         {"\033[1;34m", "<b:"},
                                         {"\033[1;37m", "<w:"},
                                         {"\033[0m", ">"}})
        for (size_t at = 0; (at = text.find(sequence, at)) != std::string::npos;)
            text.replace(at, strlen(sequence), name);
    return text;
}

caught_errors::caught_errors()
{
    errors.clear();
    kestal_set_error_puts_handler(keep_error, &previous_);
}

caught_errors::~caught_errors()
{
    kestal_set_error_puts_handler(previous_, nullptr);
}

std::string caught_errors::text() const
{
    const std::lock_guard guard(errors_mutex);
    return errors;
}

void caught_errors::wait_for(const std::string &part, int times) const
{
    std::unique_lock guard(errors_mutex);
    errors_changed.wait(guard, [&] { return occurrences(errors, part) >= times; });
}

caught_console::caught_console()
{
    kestal_set_puts_handler(keep_error, &previous_);
}

caught_console::~caught_console()
{
    kestal_set_puts_handler(previous_, nullptr);
}

std::string owned(char *text)
{
    return text == nullptr ? "<null>" : owned(text, strlen(text));
}

std::string owned(void *block, uint64_t length)
{
    const std::string bytes(static_cast<char *>(block), block == nullptr ? 0 : length);
    kestal_check_free(block);
    return bytes;
}

void advance_clock(uint64_t milliseconds)
{
    clock_ahead_msec += milliseconds;
}

int32_t as_time_passes(uint64_t step_ms, const std::function<int32_t()> &call)
{
    const uint64_t start = kestal_time_stamp_msec();
    held_msec = start + 1; // never back
    step_msec = step_ms;
    is_clock_held = true;
    const int32_t result = call();
    is_clock_held = false;
    advance_clock(held_msec - start);
    return result;
}

temporary_directory::temporary_directory()
{
    std::string name = (std::filesystem::temp_directory_path() / "kestal-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary directory");
    root_ = name;
}

temporary_directory::~temporary_directory()
{
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::string temporary_directory::file(const std::string &name, const std::string &content) const
{
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
}

} // namespace kestal_test
