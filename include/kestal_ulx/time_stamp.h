/**
 * @file
 * Time stamps: the millisecond clock behind every time-out of the library, and the calendar text of its reports.
 * Every function may be called from any thread.
 */
#ifndef KESTAL_ULX_TIME_STAMP_H
#define KESTAL_ULX_TIME_STAMP_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Milliseconds since an arbitrary start; never goes back (the system's monotonic clock). */
KESTAL_API uint64_t kestal_time_stamp_msec(void);

/** Nanoseconds of the same clock. */
KESTAL_API uint64_t kestal_time_stamp_nsec(void);

/**
 * Writes local time as text, in English whatever the locale, and returns `buffer`; null when `buffer` is null, `size`
 * is 0, the style is unknown or the text does not fit (the buffer then holds an empty text).
 *
 * `when` counts seconds since 1970-01-01 00:00:00 UTC; a negative value means now. The styles:
 *   0  "Sat Nov 21 08:42:00 2026" (24 characters)
 *   1  "2026-11-21 08:42:00"      (19 characters)
 *   2  "20261121084200"           (14 characters)
 */
KESTAL_API char *kestal_asctime(char *buffer, uint64_t size, int32_t style, int64_t when);

KESTAL_END_DECLS

#endif
