#include "support.hpp"

#include <algorithm>
#include <pty.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

std::string handled;
std::vector<std::string> logged;

int32_t keep(const char *text)
{
    handled += text == nullptr ? "<flush>" : text;
    return 42;
}

} // namespace

// In the place of the C runtime's system log.
extern "C" void syslog(int priority, const char *, ...)
{
    logged.push_back(std::to_string(priority));
}

namespace {

class diagnostics : public kestal_test::counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        handled.clear();
        kestal_set_puts_handler(keep, nullptr);
    }
    void TearDown() override
    {
        kestal_set_puts_handler(nullptr, nullptr);
        counted::TearDown();
    }
};

TEST_F(diagnostics, dump_prints_runs_of_sixteen)
{
    const char data[] = "??ABCDEFGHIJKLMNOP\x1f~\x7f\xff";
    EXPECT_EQ(kestal_dump_ex(2, 2, data, 20, 0x1000), data);
    EXPECT_EQ(handled, "  00001000 41 42 43 44 45 46 47 48 | 49 4A 4B 4C 4D 4E 4F 50 [ABCDEFGHIJKLMNOP]\n"
                       "  00001010 1F 7E 7F FF" +
                           std::string(38, ' ') + " [.~..            ]\n<flush>");
    handled.clear();
    kestal_dump_ex(-1, 0, data, 1, 0x123456789A);
    EXPECT_EQ(handled, "123456789A 3F" + std::string(47, ' ') + " [?               ]\n<flush>");
    handled.clear();
    EXPECT_EQ(kestal_dump_ex(0, 0, nullptr, 5, 0), nullptr);
    EXPECT_EQ(handled, "");
}

// Runs on a terminal of 40 columns: a bar without prefix and suffix has 29 cells.
void draw_on_the_terminal()
{
    uint32_t columns = 0, rows = 0;
    EXPECT_EQ(kestal_get_terminal_size(1, &columns, &rows), 0);
    EXPECT_EQ(columns, 40u);
    EXPECT_EQ(rows, 10u);

    const std::string green = "\033[1;32m", white = "\033[1;37m", red = "\033[0;31m", reset = "\033[0m";
    const std::string done = reset + " [" + green, next = white + ">" + red, end = reset + "]";
    const std::string full = "\r" + white + "100%" + done + std::string(30, '=') + end + "  <flush>";
    const std::string wide(31, 'p');
    const struct {
        uint64_t done, total;
        const char *prefix, *bar_text, *suffix;
        std::string line;
    } rows_drawn[] = {
        {0, 100, nullptr, nullptr, nullptr,
         "\r " + white + "  0%" + done + next + std::string(28, ' ') + end + "  <flush>"},
        {50, 100, "file", nullptr, "1 KB/s",
         "\rfile" + white + " 50%" + done + "==========" + next + std::string(10, ' ') + end + "1 KB/s <flush>"},
        {UINT64_MAX / 2, UINT64_MAX, "file", "0123456789abcdef", "1 KB/s",
         "\rfile" + white + " 49%" + done + "0123456789" + next + "bcdef     " + end + "1 KB/s <flush>"},
        {7, 7, "", nullptr, nullptr, full},
        {8, 7, "", nullptr, nullptr, full},
        {0, 0, "", nullptr, nullptr, full},
        {1, 3, wide.c_str(), nullptr, "", "\r" + wide + white + " 33%" + reset + " <flush>"},
    };
    for (const auto &row : rows_drawn) {
        handled.clear();
        EXPECT_EQ(kestal_progress_bar(row.done, row.total, row.prefix, row.bar_text,
                                      row.suffix == nullptr ? nullptr : "%s", row.suffix),
                  42);
        EXPECT_EQ(handled, row.line);
    }
    kestal_set_puts_handler(nullptr, nullptr);
    kestal_printf("\033[1;31mred\033[0m");
    kestal_puts(nullptr);
}

TEST_F(diagnostics, the_bar_is_as_wide_as_the_terminal)
{
    const winsize size{10, 40, 0, 0};
    int master = -1;
    const pid_t child = forkpty(&master, nullptr, nullptr, &size);
    ASSERT_GE(child, 0);
    if (child == 0) {
        draw_on_the_terminal();
        _exit(HasFailure() ? 1 : 0);
    }
    std::string shown;
    char buffer[4096];
    for (ssize_t got; (got = read(master, buffer, sizeof buffer)) > 0;)
        shown.append(buffer, static_cast<size_t>(got));
    close(master);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << shown;
    EXPECT_NE(shown.find("\033[1;31mred\033[0m"), std::string::npos) << "a terminal gets the escape sequences";
}

TEST_F(diagnostics, the_bar_needs_its_line)
{
    {
        const kestal_test::failing_allocation failing(1);
        EXPECT_EQ(kestal_progress_bar(1, 2, "p", nullptr, "%d", 1), -1);
    }
    EXPECT_EQ(handled, "");
    EXPECT_GE(kestal_test::with_each_allocation_failing([] { kestal_progress_bar(1, 2, "p", nullptr, "%d", 1); }), 3u);
    EXPECT_EQ(kestal_get_terminal_size(-1, nullptr, nullptr), -1);
}

TEST_F(diagnostics, the_spinner_takes_a_step_each_tenth_of_a_second)
{
    const std::vector<std::string> table = {">  ", ">> ", ">>>", " >>", "  >", "  <", " <<", "<<<", "<< ", "<  "};
    std::vector<std::string> seen = {kestal_roll_string()};
    const uint64_t start = kestal_time_stamp_msec();
    while (seen.size() < 4) {
        const std::string now = kestal_roll_string();
        if (now != seen.back())
            seen.push_back(now);
        kestal_load_balance_short();
    }
    EXPECT_GE(kestal_time_stamp_msec() - start, 200u);
    const auto first = static_cast<size_t>(std::find(table.begin(), table.end(), seen[0]) - table.begin());
    for (size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ(seen[i], table[(first + i) % table.size()]);
}

TEST_F(diagnostics, backtraces_go_where_the_flags_say)
{
    testing::internal::CaptureStderr();
    kestal_dump_backtrace(KESTAL_BACKTRACE_STANDARD_ERROR | KESTAL_BACKTRACE_STANDARD_OUTPUT, 0);
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(errors, handled);
    EXPECT_TRUE(logged.empty());
    EXPECT_EQ(kestal_test::numbers_masked(errors, "returned ").rfind("backtrace() returned N addresses\n01 - ", 0), 0u);
    EXPECT_EQ(errors.find(" - ", errors.find("01 - ") + 5), errors.find("01 - ") + 5 + 16) << "16 digits";

    kestal_dump_backtrace(KESTAL_BACKTRACE_SYSTEM_LOG, UINT32_MAX);
    kestal_dump_backtrace(KESTAL_BACKTRACE_SYSTEM_LOG, LOG_ERR);
    EXPECT_EQ(logged.front(), std::to_string(LOG_DEBUG));
    EXPECT_EQ(logged.back(), std::to_string(LOG_ERR));
    EXPECT_EQ(errors, handled);
}

} // namespace
