// The sinks, and the diagnostics that speak through them.
#include "support.hpp"

#include <cerrno>
#include <cstdarg>
#include <pty.h>
#include <syslog.h>
#include <unistd.h>

using kestal_test::failing_allocation;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

std::string trace; // what handlers and the log were given

std::string traced()
{
    return std::exchange(trace, "");
}

} // namespace

// In the place of the C runtime's system log.
extern "C" {
void openlog(const char *identity, int options, int facility)
{
    EXPECT_TRUE(options == (LOG_PID | LOG_CONS | LOG_NDELAY) && facility == LOG_USER);
    trace += std::string("open ") + identity + ",";
}

void syslog(int priority, const char *format, ...)
{
    char line[256];
    va_list list;
    va_start(list, format);
    std::vsnprintf(line, sizeof line, format, list);
    va_end(list);
    trace += std::to_string(priority) + ":" + line + ",";
}

void closelog(void)
{
    trace += "close\n";
}
}

namespace {

class output : public kestal_test::counted {};

int32_t keep(const char *text)
{
    trace += text == nullptr ? "<flush>" : text;
    return 42;
}

uint32_t keep_log(const char *text, const char *name, uint64_t line)
{
    char entry[64];
    kestal_snprintf(entry, sizeof entry, "%s %s %lu,", text, name, line);
    trace += entry;
    return 43;
}

TEST_F(output, the_bar_is_as_wide_as_the_terminal)
{
    const std::string wide(31, 'p'), full = "<w:100%> [<g:" + std::string(30, '=') + ">] ";
    const struct {
        uint64_t done, total;
        const char *prefix, *bar_text, *suffix;
        std::string line; // of 40 columns
    } cases[] = {
        {50, 100, "file", nullptr, "1 KB/s", "file<w: 50%> [<g:==========<w:>\033[0;31m          >]1 KB/s"},
        {UINT64_MAX / 2, UINT64_MAX, "file", "0123456789abcdef", "1 KB/s",
         "file<w: 49%> [<g:0123456789<w:>\033[0;31mbcdef     >]1 KB/s"},
        {8, 7, "", nullptr, nullptr, full},
        {0, 0, "", nullptr, nullptr, full},
        {1, 3, wide.c_str(), nullptr, "", wide + "<w: 33%>"},
    };
    const winsize size{10, 40, 0, 0};
    int master = -1, terminal = -1;
    ASSERT_EQ(openpty(&master, &terminal, nullptr, nullptr, &size), 0);
    const int standard_output = dup(STDOUT_FILENO);
    kestal_set_puts_handler(keep, nullptr);
    std::vector<std::string> drawn;
    dup2(terminal, STDOUT_FILENO);
    for (const auto &[part, total, prefix, bar_text, suffix, line] : cases) {
        kestal_progress_bar(part, total, prefix, bar_text, suffix == nullptr ? nullptr : "%s", suffix);
        drawn.push_back(kestal_test::colours_named(traced()));
    }
    dup2(standard_output, STDOUT_FILENO);
    for (size_t i = 0; i < drawn.size(); ++i)
        EXPECT_EQ(drawn[i], "\r" + cases[i].line + " <flush>");
    EXPECT_GE(kestal_test::with_each_allocation_failing([] { kestal_progress_bar(1, 2, nullptr, "", "%d", 1); }), 2u);
    traced();
    kestal_set_puts_handler(kestal_puts, nullptr);

    uint32_t columns = 0, rows = 0;
    EXPECT_EQ(kestal_get_terminal_size(terminal, &columns, &rows), 0);
    EXPECT_TRUE(columns == 40 && rows == 10);
    for (const int descriptor : {standard_output, terminal, master})
        close(descriptor);
    EXPECT_EQ(kestal_get_terminal_size(-1, nullptr, nullptr), -1);
}

TEST_F(output, streams_that_are_no_terminal_get_no_escapes)
{
    CaptureStdout();
    EXPECT_GE(kestal_puts("\033[1;31mred\033[0m\n"), 0);
    EXPECT_GE(kestal_printf("%s %.3d\033[0m|", "number", 5), 0);
    EXPECT_EQ(kestal_printf(nullptr), 0);
    for (const uint64_t nth : {1u, 2u}) {
        const failing_allocation failing(nth);
        EXPECT_EQ(kestal_printf("lost %d", 1), 0);
    }
    EXPECT_EQ(GetCapturedStdout(), "red\nnumber   5|");
    CaptureStderr();
    EXPECT_GE(kestal_error_printf("\033[1;31m%lu\033[0m\n", uint64_t{5}), 0);
    EXPECT_EQ(GetCapturedStderr(), "5\n");

    std::string text = "\033[1;31mred\033[0m|\033[?25h|\033[1\033[2mb|\033cd|[1;31m;|\033[1;";
    EXPECT_STREQ(kestal_strip_escape_sequence(text.data()), "red|25h|[2mb|d|[1;31m;|");
    EXPECT_EQ(kestal_strip_escape_sequence(nullptr), nullptr);
}

TEST_F(output, handlers_take_over_and_go_again)
{
    kestal_puts_handler_t previous = nullptr;
    EXPECT_EQ(kestal_set_puts_handler(keep, &previous), 0);
    EXPECT_EQ(previous, kestal_puts);
    EXPECT_EQ(kestal_puts(nullptr), 42);
    EXPECT_EQ(kestal_printf("\033[1m%d", 7), 42);
    EXPECT_EQ(traced(), "<flush>\033[1m7");
    kestal_set_puts_handler(kestal_quiet_puts, nullptr);
    CaptureStdout();
    EXPECT_EQ(kestal_printf("silence"), 0);
    kestal_set_puts_handler(nullptr, nullptr);
    kestal_printf("restored");
    EXPECT_EQ(GetCapturedStdout(), "restored");

    EXPECT_EQ(kestal_set_error_puts_handler(keep, &previous), 0);
    EXPECT_EQ(previous, kestal_error_puts);
    errno = ENOENT;
    kestal_perror_tag(nullptr, nullptr, 7);
    EXPECT_EQ(errno, ENOENT);
    kestal_set_error_puts_handler(previous, nullptr);
    EXPECT_EQ(kestal_test::colours_named(traced()),
              "?:7 [ERROR:errno=<w:2>] <r:> (\"<w:No such file or directory>\")\n");

    kestal_log_puts_handler_t first = nullptr;
    EXPECT_EQ(kestal_set_log_puts_handler(keep_log, &first), 0);
    EXPECT_EQ(kestal_log_puts_tag("text", "name", 5), 43u);
    EXPECT_EQ(kestal_log_puts(nullptr), 43u);
    EXPECT_EQ(kestal_log_printf("%d", 1), 43u);
    EXPECT_EQ(traced(), "text name 5,(null) (null) 0,1 (null) 0,");
    kestal_set_log_puts_handler(first, nullptr);
    EXPECT_EQ(kestal_log_puts("own"), 3u);
    EXPECT_EQ(traced(), "open KESTAL,6:own,close\n");
}

TEST_F(output, the_log_gets_a_text_line_by_line)
{
    EXPECT_EQ(kestal_log_puts_tag("a\r\n\r\nb", "tool", 0), 6u);
    EXPECT_EQ(kestal_log_puts_tag("\n\033[1;31mred\033[0m 100%s\n", nullptr, 12), 22u);
    EXPECT_EQ(kestal_log_puts_tag(nullptr, "tool", 0), 0u);
    const failing_allocation failing(2);
    EXPECT_EQ(kestal_log_puts("a\nb\nc"), 5u);
    EXPECT_EQ(traced(), "open tool,6:a,6:b,close\nopen KESTAL,6:red 100%s [:12],close\nopen KESTAL,6:a,6:c,close\n");
}

TEST_F(output, dump_prints_runs_of_sixteen)
{
    kestal_set_puts_handler(keep, nullptr);
    const char data[] = "??ABCDEFGHIJKLMNOP\x1f~\x7f\xff";
    EXPECT_EQ(kestal_dump_ex(2, 2, data, 20, 0x1000), data);
    EXPECT_EQ(kestal_dump_ex(-1, 0, data, 1, 0x123456789A), data);
    EXPECT_EQ(kestal_dump_ex(0, 0, nullptr, 5, 0), nullptr);
    kestal_set_puts_handler(kestal_puts, nullptr);
    EXPECT_EQ(traced(), "  00001000 41 42 43 44 45 46 47 48 | 49 4A 4B 4C 4D 4E 4F 50 [ABCDEFGHIJKLMNOP]\n"
                        "  00001010 1F 7E 7F FF" +
                            std::string(38, ' ') + " [.~..            ]\n<flush>123456789A 3F" + std::string(47, ' ') +
                            " [?               ]\n<flush>");
}

TEST_F(output, backtraces_go_where_the_flags_say)
{
    kestal_set_puts_handler(keep, nullptr);
    CaptureStderr();
    kestal_dump_backtrace(KESTAL_BACKTRACE_STANDARD_ERROR | KESTAL_BACKTRACE_STANDARD_OUTPUT, 0);
    kestal_set_puts_handler(kestal_puts, nullptr);
    const std::string lines = GetCapturedStderr();
    EXPECT_EQ(lines, traced());
    EXPECT_EQ(kestal_test::numbers_masked(lines, "returned ").rfind("backtrace() returned N addresses\n01 - ", 0), 0u);
    EXPECT_EQ(lines.find(" - ", lines.find("01 - ") + 5), lines.find("01 - ") + 5 + 16) << "16 digits";
    kestal_dump_backtrace(KESTAL_BACKTRACE_SYSTEM_LOG, LOG_ERR);
    EXPECT_EQ(traced().rfind("3:backtrace() ", 0), 0u);
}

} // namespace
