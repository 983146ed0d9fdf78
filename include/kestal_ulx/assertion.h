/**
 * @file
 * Assertion reports: a failed consistency check prints one line on standard error and the caller carries on; a report
 * never ends the process. Reports go to standard error directly, not through the replaceable output sinks; an
 * application that wants its console clean installs a handler that receives them instead.
 */
#ifndef KESTAL_ULX_ASSERTION_H
#define KESTAL_ULX_ASSERTION_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Receives one report: source file, function, line and message. The texts are valid during the call only. */
typedef void (*kestal_assert_handler_t)(const char *file, const char *function, uint64_t line, const char *message);

/** kestal_assert_fail_tag with the call site filled in. */
#define kestal_assert_fail(message) kestal_assert_fail_tag(__FILE__, __func__, __LINE__, (message))

/**
 * Reports a failed check: "kestal [ASSERT:file:function:line] <message> time" in colours, with the local time as 14
 * digits. A null file or function reads "UNKNOWN", a null message "NO_MESSAGE".
 */
KESTAL_API void kestal_assert_fail_tag(const char *file, const char *function, uint64_t line, const char *message);

/**
 * Sends all later reports to `handler` instead of standard error; null, the start value, restores standard error.
 * The handler that was in force is stored to `previous` when it is not null. Returns 0. Meant for start-up: reports
 * that other threads make during the call go to either.
 */
KESTAL_API int32_t kestal_set_assert_handler(kestal_assert_handler_t handler, kestal_assert_handler_t *previous);

KESTAL_END_DECLS

#endif
