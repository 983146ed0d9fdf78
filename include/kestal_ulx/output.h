/**
 * @file
 * The three sinks through which the library speaks to an application's user: standard output, standard error and the
 * system log, each with a formatting family above it (the grammar is that of format.h) and a handler that an
 * application may put in its place.
 *
 * A stream that is not a terminal receives texts without their escape sequences; whether it is one is looked up once.
 * The sinks may be called from any thread. Handlers are meant to be set at start-up, and a handler that calls the sink
 * it stands in for calls itself.
 */
#ifndef KESTAL_ULX_OUTPUT_H
#define KESTAL_ULX_OUTPUT_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Receives what is put on standard output or standard error; null asks for a flush. Its result is the sink's. */
typedef int32_t (*kestal_puts_handler_t)(const char *text);

/** Receives what is put on the system log, with the call-site tag. Its result is the sink's. */
typedef uint32_t (*kestal_log_puts_handler_t)(const char *text, const char *name, uint64_t line);

/**
 * Puts a text on standard output as it stands, without adding a line end; null flushes. Returns the handler's result,
 * else that of fputs (negative when the stream failed); 0 for a flush, and when memory for the copy without escape
 * sequences is short: then nothing is printed.
 */
KESTAL_API int32_t kestal_puts(const char *text);

/** kestal_puts on standard error. */
KESTAL_API int32_t kestal_error_puts(const char *text);

/**
 * Puts each line of a text (they end at CR or LF; empty ones are left out) on the system log, priority LOG_INFO,
 * facility LOG_USER, identity `name`, or "KESTAL" when that is null, without escape sequences, and followed by
 * " [name:line]" when `line` is not 0. Returns the length of the whole text, 0 for null.
 */
KESTAL_API uint32_t kestal_log_puts_tag(const char *text, const char *name, uint64_t line);

/** kestal_log_puts_tag without a tag: identity "KESTAL", nothing behind the lines. */
KESTAL_API uint32_t kestal_log_puts(const char *text);

/** A ready-made handler that silences a sink: prints nothing and returns 0. */
KESTAL_API int32_t kestal_quiet_puts(const char *text);

/**
 * Sets what kestal_puts hands every text to; null or kestal_puts itself restores the built-in output. The handler in
 * force before (at first kestal_puts) is stored to `previous` when that is not null. Returns 0.
 */
KESTAL_API int32_t kestal_set_puts_handler(kestal_puts_handler_t handler, kestal_puts_handler_t *previous);

/** kestal_set_puts_handler for kestal_error_puts. */
KESTAL_API int32_t kestal_set_error_puts_handler(kestal_puts_handler_t handler, kestal_puts_handler_t *previous);

/**
 * As kestal_set_puts_handler for kestal_log_puts_tag. The first previous handler is kestal_log_puts, cast to the
 * handler's type: a value to set again, not to call.
 */
KESTAL_API int32_t kestal_set_log_puts_handler(kestal_log_puts_handler_t handler, kestal_log_puts_handler_t *previous);

/**
 * Formats and puts on standard output. Returns as kestal_puts; when formatting failed (null format, no memory, more
 * than KESTAL_ALLOC_FORMAT_LIMIT characters) it prints nothing and returns 0.
 */
KESTAL_API int32_t kestal_vprintf(const char *format, va_list list);

/** kestal_vprintf with the arguments themselves. */
KESTAL_API int32_t kestal_printf(const char *format, ...);

/** kestal_vprintf on standard error. */
KESTAL_API int32_t kestal_error_vprintf(const char *format, va_list list);

/** kestal_error_vprintf with the arguments themselves. */
KESTAL_API int32_t kestal_error_printf(const char *format, ...);

/** kestal_vprintf on the system log, without a tag. Returns as kestal_log_puts. */
KESTAL_API uint32_t kestal_log_vprintf(const char *format, va_list list);

/** kestal_log_vprintf with the arguments themselves. */
KESTAL_API uint32_t kestal_log_printf(const char *format, ...);

/** kestal_perror_tag with the call site filled in. */
#define kestal_perror(message) kestal_perror_tag((message), __func__, __LINE__)

/**
 * Reports errno on the error sink, with a message (null reads "") and the call site (a null name reads "?"):
 * name:line [ERROR:errno=N] message ("text of the error"). errno is left as it was.
 */
KESTAL_API void kestal_perror_tag(const char *message, const char *name, uint64_t line);

/**
 * Takes the escape sequences out of a text, in place, and returns it; null gives null. A sequence is ESC, any number
 * of digits, "[" and ";", and the one character behind them.
 */
KESTAL_API char *kestal_strip_escape_sequence(char *text);

KESTAL_END_DECLS

#endif
