/**
 * @file
 * Assertion reports with a formatted message (the grammar is that of format.h); otherwise as kestal_assert_fail_tag.
 */
#ifndef KESTAL_ULX_ASSERTION_FORMAT_H
#define KESTAL_ULX_ASSERTION_FORMAT_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/* The calls with the call site filled in. */
/** kestal_vassert_fail_tag with the caller's file, name and line. */
#define kestal_vassert_fail(format, list) kestal_vassert_fail_tag(__FILE__, __func__, __LINE__, (format), (list))
/** kestal_assertf_fail_tag with the caller's file, name and line. */
#define kestal_assertf_fail(...) kestal_assertf_fail_tag(__FILE__, __func__, __LINE__, __VA_ARGS__)

/** Reports a formatted message; the format itself when it cannot be formatted (no memory, text too long). */
KESTAL_API void kestal_vassert_fail_tag(const char *file, const char *function, uint64_t line, const char *format,
                                        va_list list);

/** kestal_vassert_fail_tag with the arguments themselves. */
KESTAL_API void kestal_assertf_fail_tag(const char *file, const char *function, uint64_t line, const char *format, ...);

KESTAL_END_DECLS

#endif
