/**
 * @file
 * Diagnostics for the console: hexadecimal dumps, a progress bar, a spinner and backtraces. All of them speak through
 * the sinks of output.h and may be called from any thread; nothing is kept of what they are given.
 */
#ifndef KESTAL_ULX_DIAGNOSTICS_H
#define KESTAL_ULX_DIAGNOSTICS_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Where kestal_dump_backtrace writes. */
enum {
    KESTAL_BACKTRACE_STANDARD_ERROR = 0x1,
    KESTAL_BACKTRACE_STANDARD_OUTPUT = 0x2,
    KESTAL_BACKTRACE_SYSTEM_LOG = 0x4
};

/**
 * Prints `length` bytes from data + offset on standard output, 16 a line, each line with `indent` blanks, the address,
 * the bytes in hexadecimal and as characters. `base` is the address shown for the first byte. Returns `data`; null
 * data prints nothing.
 */
KESTAL_API const void *kestal_dump_ex(int32_t indent, uint64_t offset, const void *data, uint64_t length,
                                      uint64_t base);

/**
 * Draws one line over the terminal's current one: prefix, percentage, bar and suffix, as wide as the terminal. `done`
 * above `total` counts as `total`, and a total of 0 as complete. The bar shows the characters of `bar_text` where it
 * has any, else "=" and blanks. `format` and its arguments give the suffix. Prefix, bar text and format may be null.
 * Returns the result of the sink, or -1 when memory is short.
 */
KESTAL_API int32_t kestal_progress_bar(uint64_t done, uint64_t total, const char *prefix, const char *bar_text,
                                       const char *format, ...);

/** kestal_progress_bar with an argument list; the list is not read when `format` is null. */
KESTAL_API int32_t kestal_vprogress_bar(uint64_t done, uint64_t total, const char *prefix, const char *bar_text,
                                        const char *format, va_list list);

/** One of ten static texts of three characters: a spinner that runs right and back, a step each 100 ms. */
KESTAL_API const char *kestal_roll_string(void);

/**
 * Writes up to 16 return addresses with their symbols to the destinations in `flags` (KESTAL_BACKTRACE_...), the
 * system log with `priority` (all ones: LOG_DEBUG). Over a C library without backtraces (musl) one line says so.
 */
KESTAL_API void kestal_dump_backtrace(int32_t flags, uint32_t priority);

KESTAL_END_DECLS

#endif
