#include <kestal_ulx/diagnostics.h>

#include "guard.hpp"

#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/terminal.h>
#include <kestal_ulx/time_stamp.h>

#include <algorithm>
#if __has_include(<execinfo.h>)
#include <execinfo.h>
#define KESTAL_HAS_BACKTRACE 1
#else
#define KESTAL_HAS_BACKTRACE 0
#endif
#include <stdlib.h>
#include <string.h>
#include <string_view>
#include <syslog.h>

namespace {

using owned_text = kestal::owned_block<char>;

constexpr size_t run_length = 16;
constexpr int most_frames = 16;
constexpr uint64_t room_for_colours = 128;
constexpr uint64_t spinner_step = 100; // milliseconds
constexpr const char *spinner[] = {">  ", ">> ", ">>>", " >>", "  >", "  <", " <<", "<<<", "<< ", "<  "};

void dump_run(int32_t indent, const uint8_t *bytes, size_t count, uint64_t address)
{
    char numbers[run_length * 3 + 3];
    char characters[run_length + 1];
    uint64_t length = 0;
    for (size_t i = 0; i < run_length; ++i) {
        const char *separator = i == run_length / 2 ? " | " : " ";
        const uint64_t room = sizeof numbers - length;
        if (i < count)
            length += kestal_snprintf(numbers + length, room, "%s%02X", separator, uint32_t{bytes[i]});
        else
            length += kestal_snprintf(numbers + length, room, "%*s", static_cast<int32_t>(strlen(separator)) + 2, "");
        characters[i] = ' ';
        if (i < count)
            characters[i] = bytes[i] >= 0x20 && bytes[i] <= 0x7E ? static_cast<char>(bytes[i]) : '.';
    }
    characters[run_length] = '\0';
    kestal_printf("%*s%08llX%s [%s]\n", std::max(indent, 0), "", address, numbers, characters);
}

// part x scale / whole, for a part no greater than the whole, without overflow.
uint64_t ratio(uint64_t part, uint64_t whole, uint64_t scale)
{
    if (part == whole)
        return scale;
    for (; whole > UINT64_MAX / scale; whole >>= 1)
        part >>= 1;
    return part * scale / whole;
}

uint64_t bar_width(uint64_t columns, const char *prefix, const char *suffix)
{
    const uint64_t before = prefix == nullptr ? 1 : strlen(prefix);
    const uint64_t behind = suffix == nullptr ? 8 : 7 + strlen(suffix);
    const uint64_t used = before + behind + 2;
    return columns > used ? columns - used : 0;
}

char *append(char *end, std::string_view text)
{
    memcpy(end, text.data(), text.size());
    return end + text.size();
}

char *append_cells(char *end, uint64_t from, uint64_t to, std::string_view text, char filler)
{
    for (uint64_t cell = from; cell < to; ++cell)
        *end++ = cell < text.size() ? text[static_cast<size_t>(cell)] : filler;
    return end;
}

void draw_bar(char *end, uint64_t width, uint64_t filled, std::string_view text)
{
    end = append(end, "\033[1;32m");
    end = append_cells(end, 0, filled, text, '=');
    if (filled < width) {
        end = append(end, "\033[1;37m>\033[0;31m");
        end = append_cells(end, filled + 1, width, text, ' ');
    }
    end = append(end, "\033[0m");
    *end = '\0';
}

// The same words to every destination; symbols may be long.
void put_backtrace_line(int32_t flags, int priority, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const owned_text line(kestal_alloc_vsprintf(format, list), __func__);
    va_end(list);
    if (!line)
        return;
    if (flags & KESTAL_BACKTRACE_STANDARD_ERROR)
        kestal_error_printf("%s\n", line.get());
    if (flags & KESTAL_BACKTRACE_STANDARD_OUTPUT)
        kestal_printf("%s\n", line.get());
    if (flags & KESTAL_BACKTRACE_SYSTEM_LOG)
        syslog(priority, "%s", line.get());
}

} // namespace

const void *kestal_dump_ex(int32_t indent, uint64_t offset, const void *data, uint64_t length, uint64_t base)
{
    if (data == nullptr)
        return nullptr;
    const uint8_t *bytes = static_cast<const uint8_t *>(data) + offset;
    for (uint64_t position = 0; position < length; position += run_length) {
        const auto count = static_cast<size_t>(std::min<uint64_t>(length - position, run_length));
        dump_run(indent, bytes + position, count, base + position);
    }
    kestal_puts(nullptr);
    return data;
}

int32_t kestal_progress_bar(uint64_t done, uint64_t total, const char *prefix, const char *bar_text, const char *format,
                            ...)
{
    va_list list;
    va_start(list, format);
    const int32_t result = kestal_vprogress_bar(done, total, prefix, bar_text, format, list);
    va_end(list);
    return result;
}

int32_t kestal_vprogress_bar(uint64_t done, uint64_t total, const char *prefix, const char *bar_text,
                             const char *format, va_list list)
{
    const uint64_t columns = kestal_get_terminal_columns();
    const owned_text bar(kestal_alloc(columns + room_for_colours), __func__);
    if (!bar)
        return -1;
    const owned_text suffix(kestal_alloc_vsprintf(format, list), __func__);

    done = std::min(done, total);
    const uint64_t width = bar_width(columns, prefix, suffix.get());
    const auto percentage = static_cast<int32_t>(ratio(done, total, 100));
    const char *before = prefix == nullptr ? " " : prefix;
    const char *behind = suffix ? suffix.get() : " ";
    int32_t result = 0;
    if (width > 0) {
        draw_bar(bar.get(), width, ratio(done, total, width), bar_text == nullptr ? "" : bar_text);
        result = kestal_printf("\r%s\033[1;37m%3d%%\033[0m [%s]%s ", before, percentage, bar.get(), behind);
    } else {
        result = kestal_printf("\r%s\033[1;37m%3d%%\033[0m%s ", before, percentage, behind);
    }
    kestal_puts(nullptr);
    return result;
}

const char *kestal_roll_string(void)
{
    static constinit kestal_short_lock_t lock = 0;
    static constinit uint64_t last_step = 0;
    static constinit size_t steps = 0;

    const kestal::short_lock_guard guard(lock);
    const uint64_t now = kestal_time_stamp_msec();
    if (now - last_step >= spinner_step) {
        last_step = now;
        ++steps;
    }
    return spinner[steps % (sizeof spinner / sizeof spinner[0])];
}

void kestal_dump_backtrace(int32_t flags, uint32_t priority)
{
    const int log_priority = priority == UINT32_MAX ? LOG_DEBUG : static_cast<int>(priority);
#if KESTAL_HAS_BACKTRACE
    void *addresses[most_frames];
    const int count = backtrace(addresses, most_frames);
    char **symbols = backtrace_symbols(addresses, count);

    put_backtrace_line(flags, log_priority, "backtrace() returned %d addresses", count);
    for (int i = 0; i < count; ++i)
        put_backtrace_line(flags, log_priority, "%02d - %p - %s", i + 1, addresses[i],
                           symbols == nullptr ? "<unknown symbol>" : symbols[i]);
    free(symbols);
#else
    put_backtrace_line(flags, log_priority, "backtrace() is not known to this C library");
#endif
}
