/**
 * @file
 * Files by descriptor: modes written as fopen writes them, opening, reading and writing with a time-out, and whole
 * transfers that survive short counts and signals; and the directories that lead to them.
 *
 * A descriptor belongs to whoever opened it and is closed with kestal_close_file; it does not outlive an exec. Offsets
 * and sizes are 64-bit on every machine. A failure leaves the cause in errno. The calls keep no state of their own:
 * threads may use different descriptors freely, and one descriptor as far as the system allows.
 */
#ifndef KESTAL_ULX_FILE_H
#define KESTAL_ULX_FILE_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** File flag: reading. */
#define KESTAL_FILE_READ 0x0001u
/** File flag: writing. */
#define KESTAL_FILE_WRITE 0x0002u
/** File flag: a missing file is made. */
#define KESTAL_FILE_CREATE 0x0004u
/** File flag: what the file holds is dropped. */
#define KESTAL_FILE_TRUNCATE 0x0008u
/** File flag: every write goes to the end. */
#define KESTAL_FILE_APPEND 0x0010u
/** File flag: together with create, a file that is already there is an error. */
#define KESTAL_FILE_EXCLUSIVE 0x0020u
/** File flag: opening and transfers never wait; kestal_read_file and its like still wait for their time-outs. */
#define KESTAL_FILE_NONBLOCK 0x0040u
/** File kind: an image, byte for byte ("b"). Files are always read and written so; transports that tell kinds apart ask. */
#define KESTAL_FILE_IMAGE 0x0100u
/** File kind: named as text ("t"). */
#define KESTAL_FILE_TEXT 0x0200u

/** The permissions of a new file when nothing else is said, less the process's mask: read and write for everybody. */
#define KESTAL_FILE_PERMISSION 0666u

/**
 * Reads a mode as fopen takes it: "r" (read), "w" (write, create, truncate) or "a" (write, create, append), followed in
 * any order by "+" (read and write), "b" (image), "t" (text), "x" (exclusive), "n" (non-blocking)
 * and "e" (close on exec: always so). Octal digits at the end are the permissions of a new file: "wb0644" (default
 * KESTAL_FILE_PERMISSION). Letter case matters.
 *
 * Stores the KESTAL_FILE flags and the permissions; either pointer may be null. Returns 0; -1 for a null or malformed
 * mode (a letter twice, "b" with "t", permissions above 07777), and then nothing is stored and errno is EINVAL.
 */
KESTAL_API int32_t kestal_parse_file_mode(const char *mode, uint32_t *flags, uint32_t *permission);

/**
 * Opens a file by KESTAL_FILE flags, of which reading, writing or both are needed; `permission` serves a file that is
 * made. Returns the descriptor, or -1 (EINVAL for a null path or without reading and writing).
 */
KESTAL_API int32_t kestal_open_file(const char *path, uint32_t flags, uint32_t permission);

/** Closes a descriptor. Returns 0; -1 when it was none, or when what was written could not be stored. */
KESTAL_API int32_t kestal_close_file(int32_t descriptor);

/**
 * One read of at most `size` bytes, for which the descriptor is waited for `timeout` ms (negative: without limit, 0: not
 * at all). Returns the number of bytes; 0 at the end of the file; -1 on failure, with errno ETIMEDOUT when the time ran
 * out. A signal does not end the wait.
 */
KESTAL_API int64_t kestal_read_file(int32_t descriptor, void *data, uint64_t size, int32_t timeout);

/** One write of at most `size` bytes; waits and fails as kestal_read_file. Returns the number of bytes written. */
KESTAL_API int64_t kestal_write_file(int32_t descriptor, const void *data, uint64_t size, int32_t timeout);

/**
 * Reads until `size` bytes or the end of the file have come, waiting for each piece as kestal_read_file does. Returns
 * the number of bytes; -1 when nothing came before a failure. A failure after the first piece gives the bytes read so
 * far, fewer than `size`, and leaves the cause in errno, which is 0 when the end of the file was the reason.
 */
KESTAL_API int64_t kestal_read_file_all(int32_t descriptor, void *data, uint64_t size, int32_t timeout);

/** Writes all `size` bytes, waiting for each piece. Returns 0, or -1 when any byte could not be written. */
KESTAL_API int32_t kestal_write_file_all(int32_t descriptor, const void *data, uint64_t size, int32_t timeout);

/** Moves the place of the next transfer; `whence` as for lseek: 0 start, 1 here, 2 end. Returns the new place, or -1. */
KESTAL_API int64_t kestal_seek_file(int32_t descriptor, int64_t offset, int32_t whence);

/** The size of a file in bytes, or of a block device; -1 for what has no size (a pipe, a socket, a terminal). */
KESTAL_API int64_t kestal_get_file_size(int32_t descriptor);

/**
 * Waits until what was written is safe on its device. What cannot be synchronised (a pipe, a terminal, a read-only device)
 * holds nothing back either. Returns 0, or -1.
 */
KESTAL_API int32_t kestal_sync_file(int32_t descriptor);

/** Sets the permissions of an open file, whatever the process's mask says. Returns 0, or -1. */
KESTAL_API int32_t kestal_set_file_permission(int32_t descriptor, uint32_t permission);

/**
 * Makes the directories that a path goes through, up to its last "/", as far as they are missing, with `permission` less
 * the process's mask. Returns 0, also for a path without a directory; -1 for a null path, when one cannot be made (those
 * before it stay) or is no directory, and when memory is short.
 */
KESTAL_API int32_t kestal_make_parent_directories(const char *path, uint32_t permission);

KESTAL_END_DECLS

#endif
