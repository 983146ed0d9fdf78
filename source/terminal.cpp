#include <kestal_ulx/terminal.h>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr uint32_t usual_columns = 80;
constexpr int standard_streams[] = {STDOUT_FILENO, STDERR_FILENO, STDIN_FILENO};

} // namespace

int32_t kestal_get_terminal_size(int32_t descriptor, uint32_t *columns, uint32_t *rows)
{
    winsize size{};
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return -1;
    if (columns != nullptr)
        *columns = size.ws_col;
    if (rows != nullptr)
        *rows = size.ws_row;
    return 0;
}

uint32_t kestal_get_terminal_columns(void)
{
    uint32_t columns = usual_columns;
    for (const int descriptor : standard_streams)
        if (kestal_get_terminal_size(descriptor, &columns, nullptr) == 0)
            break;
    return columns;
}
