#include "support.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <syslog.h>

using kestal_test::failing_allocation;
using texts = std::vector<std::string>;

namespace {

texts log_calls;
texts handled;

} // namespace

// In the place of the C runtime's system log.
extern "C" {
void openlog(const char *identity, int options, int facility)
{
    EXPECT_EQ(options, LOG_PID | LOG_CONS | LOG_NDELAY);
    EXPECT_EQ(facility, LOG_USER);
    log_calls.push_back(std::string("open ") + identity);
}

void syslog(int priority, const char *format, ...)
{
    EXPECT_EQ(priority, LOG_INFO);
    char line[256];
    va_list list;
    va_start(list, format);
    std::vsnprintf(line, sizeof line, format, list);
    va_end(list);
    log_calls.push_back(line);
}

void closelog(void)
{
    log_calls.push_back("close");
}
}

namespace {

class output : public kestal_test::counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        log_calls.clear();
        handled.clear();
    }
};

int32_t keep(const char *text)
{
    handled.push_back(text == nullptr ? "flush" : text);
    return 42;
}

uint32_t keep_log(const char *text, const char *name, uint64_t line)
{
    char entry[64];
    kestal_snprintf(entry, sizeof entry, "%s %s %lu", text, name, line);
    handled.push_back(entry);
    return 43;
}

TEST_F(output, streams_that_are_no_terminal_get_no_escapes)
{
    testing::internal::CaptureStdout();
    EXPECT_GE(kestal_puts("\033[1;31mred\033[0m\n"), 0);
    EXPECT_GE(kestal_printf("%s %.3d\033[0m|", "number", 5), 0);
    EXPECT_EQ(kestal_puts(nullptr), 0);
    EXPECT_EQ(kestal_printf(nullptr), 0);
    for (const uint64_t nth : {1u, 2u}) {
        const failing_allocation failing(nth);
        EXPECT_EQ(kestal_printf("lost %d", 1), 0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "red\nnumber   5|");

    testing::internal::CaptureStderr();
    EXPECT_GE(kestal_error_printf("\033[1;31m%lu\033[0m\n", uint64_t{5}), 0);
    EXPECT_EQ(kestal_error_puts(nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "5\n");
}

TEST_F(output, handlers_take_over_and_go_again)
{
    kestal_puts_handler_t previous = nullptr;
    EXPECT_EQ(kestal_set_puts_handler(keep, &previous), 0);
    EXPECT_EQ(previous, kestal_puts);
    EXPECT_EQ(kestal_puts(nullptr), 42);
    EXPECT_EQ(kestal_printf("\033[1m%d", 7), 42);

    kestal_set_puts_handler(kestal_quiet_puts, &previous);
    EXPECT_EQ(previous, keep);
    testing::internal::CaptureStdout();
    EXPECT_EQ(kestal_printf("silence"), 0);
    kestal_set_puts_handler(nullptr, nullptr);
    kestal_printf("null restores, ");
    kestal_set_puts_handler(kestal_puts, &previous);
    EXPECT_EQ(previous, nullptr);
    kestal_printf("so does its own function");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "null restores, so does its own function");

    EXPECT_EQ(kestal_set_error_puts_handler(keep, &previous), 0);
    EXPECT_EQ(previous, kestal_error_puts);
    EXPECT_EQ(kestal_error_printf("error"), 42);
    kestal_set_error_puts_handler(previous, nullptr);
    EXPECT_EQ(handled, (texts{"flush", "\033[1m7", "error"}));
}

TEST_F(output, log_handlers_take_the_tag_too)
{
    kestal_log_puts_handler_t first = nullptr;
    EXPECT_EQ(kestal_set_log_puts_handler(keep_log, &first), 0);
    EXPECT_EQ(reinterpret_cast<void *>(first), reinterpret_cast<void *>(kestal_log_puts));
    EXPECT_EQ(kestal_log_puts_tag("text", "name", 5), 43u);
    EXPECT_EQ(kestal_log_puts(nullptr), 43u);
    EXPECT_EQ(kestal_log_printf("%d", 1), 43u);
    for (const kestal_log_puts_handler_t own : {first, kestal_log_puts_handler_t{kestal_log_puts_tag}}) {
        kestal_set_log_puts_handler(own, nullptr);
        EXPECT_EQ(kestal_log_puts("own"), 3u);
    }
    EXPECT_EQ(handled, (texts{"text name 5", "(null) (null) 0", "1 (null) 0"}));
    EXPECT_EQ(log_calls, (texts{"open KESTAL", "own", "close", "open KESTAL", "own", "close"}));
}

TEST_F(output, the_log_gets_a_text_line_by_line)
{
    EXPECT_EQ(kestal_log_puts_tag("a\r\n\r\nb", "tool", 0), 6u);
    EXPECT_EQ(kestal_log_puts_tag("\n\033[1;31mred\033[0m 100%s\n", "tool", 12), 22u);
    EXPECT_EQ(log_calls, (texts{"open tool", "a", "b", "close", "open tool", "red 100%s [tool:12]", "close"}));
    log_calls.clear();
    EXPECT_EQ(kestal_log_puts_tag(nullptr, "tool", 0), 0u);
    EXPECT_EQ(kestal_log_puts_tag("x\r\n", nullptr, UINT64_MAX), 3u);
    {
        const failing_allocation failing(2);
        EXPECT_EQ(kestal_log_puts("a\nb\nc"), 5u);
    }
    EXPECT_EQ(log_calls,
              (texts{"open KESTAL", "x [:18446744073709551615]", "close", "open KESTAL", "a", "c", "close"}));
}

TEST_F(output, perror_reports_and_keeps_errno)
{
    kestal_set_error_puts_handler(keep, nullptr);
    errno = ENOENT;
    kestal_perror_tag("opening", "f", 7);
    EXPECT_EQ(errno, ENOENT);
    errno = 98765;
    kestal_perror_tag(nullptr, nullptr, 0);
    kestal_set_error_puts_handler(nullptr, nullptr);
    EXPECT_EQ(handled, (texts{"f:7 [ERROR:errno=\033[1;37m2\033[0m] \033[1;31mopening\033[0m "
                              "(\"\033[1;37mNo such file or directory\033[0m\")\n",
                              "?:0 [ERROR:errno=\033[1;37m98765\033[0m] \033[1;31m\033[0m "
                              "(\"\033[1;37mUnknown error 98765\033[0m\")\n"}));
}

TEST_F(output, escape_sequences_end_with_one_character)
{
    const std::pair<std::string, std::string> rows[] = {
        {"\033[1;31mred\033[0m", "red"}, {"\033[?25h", "25h"}, {"a\033", "a"},         {"a\033[1;", "a"},
        {"\033[1\033[2mb", "[2mb"},      {"\033cd", "d"},      {"[1;31m;", "[1;31m;"},
    };
    for (auto [text, stripped] : rows) {
        EXPECT_EQ(kestal_strip_escape_sequence(text.data()), text.data());
        EXPECT_EQ(text.c_str(), stripped);
    }
    EXPECT_EQ(kestal_strip_escape_sequence(nullptr), nullptr);
}

} // namespace
