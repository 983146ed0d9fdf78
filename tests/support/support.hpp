// What the tests share: live-block checks, allocations that fail on demand, and reports caught instead of printed.
#pragma once

#include <kestal_ulx.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kestal_test {

// A test whose live-block count must end where it began, once its threads are gone.
class counted : public testing::Test {
protected:
    void TearDown() override
    {
        EXPECT_EQ(kestal_thread_pool_wait(60000), 0) << "threads left behind";
        EXPECT_EQ(kestal_get_alloc_count(), blocks_) << "live blocks left behind";
    }

private:
    const uint64_t blocks_ = kestal_get_alloc_count();
};

// For so many failures: all for some fifty milliseconds, so that what waits for memory goes on in the end.
constexpr uint64_t for_a_while = UINT64_MAX;

// While it lives, the `nth` allocation (from 1) that the library makes on any thread fails, and those after it until
// `times` have; with a lot other than 0 about every other of those.
class failing_allocation {
public:
    explicit failing_allocation(uint64_t nth, uint64_t times = 1, uint64_t lot = 0);
    ~failing_allocation();
    failing_allocation(const failing_allocation &) = delete;
    failing_allocation &operator=(const failing_allocation &) = delete;

    bool happened() const;
};

// Runs the scenario with the 1st, 2nd, 3rd ... allocation failing, until one run meets no failure. After each run, once
// its threads are gone, the live-block count must be where it was. Returns the number of failures met, so that a test
// can ask for at least one. With KESTAL_TORTURE in the environment, the number of a round, all of it again with others of the
// allocations behind failing as well.
uint64_t with_each_allocation_failing(const std::function<void()> &scenario, uint64_t most = 10000);

// While it lives, assertion reports are kept here instead of being printed.
class caught_assertions {
public:
    caught_assertions();
    ~caught_assertions();
    caught_assertions(const caught_assertions &) = delete;
    caught_assertions &operator=(const caught_assertions &) = delete;

    std::vector<std::string> messages() const;
    std::set<std::string> distinct() const; // however often each came

private:
    kestal_assert_handler_t previous_ = nullptr;
};

// The text with an N for each number that follows `before`: for what differs from run to run.
std::string numbers_masked(std::string text, const std::string &before);

// The text with "<r:", "<g:", "<y:", "<b:" or "<w:" for the escape sequences that begin bold red, green, yellow, blue or white,
// and ">" for those that end it.
std::string colours_named(std::string text);

// While it lives, what is put on the error sink is kept here instead of being printed.
class caught_errors {
public:
    caught_errors();
    ~caught_errors();
    caught_errors(const caught_errors &) = delete;
    caught_errors &operator=(const caught_errors &) = delete;

    std::string text() const;
    // Waits until `part` has been put on the sink `times` times.
    void wait_for(const std::string &part, int times = 1) const;

private:
    kestal_puts_handler_t previous_ = nullptr;
};

// As caught_errors, of standard output's sink too: all texts in the order in which they were put.
class caught_console : public caught_errors {
public:
    caught_console();
    ~caught_console();

private:
    kestal_puts_handler_t previous_ = nullptr;
};

// What a block of the library holds, which is released: a text, or so many bytes of it; "<null>" for a null text.
std::string owned(char *text);
std::string owned(void *block, uint64_t length);

// From now on the library's clock is ahead by so much more: time-outs come without the wait.
void advance_clock(uint64_t milliseconds);

// The call's result, while the library's clock goes on by a step whenever it is looked at, and not otherwise: however long
// a thread stands still, the same time passes.
int32_t as_time_passes(uint64_t step_ms, const std::function<int32_t()> &call);

// Runs body(0), body(1) ... on threads of their own and waits for all of them.
template <typename Body>
void on_threads(size_t count, Body body)
{
    std::vector<std::thread> threads;
    for (size_t i = 0; i < count; ++i)
        threads.emplace_back(body, i);
    for (std::thread &thread : threads)
        thread.join();
}

// Waits for what no event tells of.
template <typename Condition>
void wait_until(Condition condition)
{
    while (!condition())
        std::this_thread::yield();
}

// Whether these bytes stand in the stack that the calls before have left. Never where a sanitizer itself leaves copies.
bool is_on_the_stack(std::string_view bytes);

// So many bytes that look random, the same each time.
std::string noise(size_t length);

// Runs a check on the portable code, on the narrower of the processor's instructions, and on all that it has.
void on_every_path(const std::function<void()> &check);

// A directory of the test's own, removed with all in it.
class temporary_directory {
public:
    temporary_directory();
    ~temporary_directory();
    temporary_directory(const temporary_directory &) = delete;
    temporary_directory &operator=(const temporary_directory &) = delete;

    std::string path(const std::string &name) const { return root_ + "/" + name; }
    // Writes a file of this content and returns its path.
    std::string file(const std::string &name, const std::string &content) const;

private:
    std::string root_;
};

} // namespace kestal_test
