/**
 * @file
 * Keys of a terminal, one by one as they are pressed: the terminal in raw key mode (no line editing, no echo; the keys
 * that send signals go on to do so), and key codes read from it. A key code is the bytes that one key sends: a
 * character, the bytes of one UTF-8 character, or a whole escape sequence such as that of an arrow key.
 *
 * Whoever opens the keys closes them, which gives the terminal its old settings back. One thread at a time. A program
 * ended by a signal that it does not handle leaves the terminal raw: handle them.
 */
#ifndef KESTAL_ULX_TERMINAL_KEY_H
#define KESTAL_ULX_TERMINAL_KEY_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Room for any key code, with a terminator. Longer sequences are cut. */
#define KESTAL_TERMINAL_KEY_SIZE 32

/** A terminal in raw key mode. */
typedef struct kestal_terminal_key kestal_terminal_key_t;

/**
 * Opens a terminal by its path (null: the program's own, "/dev/tty") and puts it in raw key mode. Null, with errno,
 * when it cannot be opened or is no terminal (ENOTTY), when the program is in its background (EAGAIN: it would be
 * stopped), or when memory is short.
 */
KESTAL_API kestal_terminal_key_t *kestal_open_terminal_key(const char *path);

/** Restores the terminal's settings and closes it. Returns null; null is fine. */
KESTAL_API kestal_terminal_key_t *kestal_close_terminal_key(kestal_terminal_key_t *keys);

/** The descriptor to wait on for reading; it stays the module's. -1 for null. */
KESTAL_API int32_t kestal_get_terminal_key_descriptor(const kestal_terminal_key_t *keys);

/**
 * Reads one key code into `code` of `size` bytes (KESTAL_TERMINAL_KEY_SIZE takes them all), a zero byte behind it, and
 * waits for it `timeout_ms` (negative: without limit). An ESC that nothing follows for 50 ms is the ESC key.
 *
 * Returns the number of its bytes; 0 when the time is up; -1 when the terminal is gone or fails, and for null. Keys
 * that were read ahead are no longer seen on the descriptor: read with time-out 0 until it gives 0.
 */
KESTAL_API int32_t kestal_read_terminal_key(kestal_terminal_key_t *keys, char *code, uint64_t size, int32_t timeout_ms);

KESTAL_END_DECLS

#endif
