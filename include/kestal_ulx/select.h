/**
 * @file
 * Select set: the library's way of waiting on descriptors. A set holds for every descriptor the conditions of interest
 * (read, write, exception) and grows with the highest descriptor, without the 1024 of the C runtime's fd_set; one call
 * waits, and the results are asked for per descriptor afterwards. Beside it stands a wait on a single descriptor.
 *
 * The caller owns the set and closes it; the descriptors stay the caller's, and a closed one must be taken out before
 * the next wait (which fails with EBADF otherwise). A set has no lock: one thread at a time.
 */
#ifndef KESTAL_ULX_SELECT_H
#define KESTAL_ULX_SELECT_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

#define KESTAL_SELECT_READ UINT32_C(1)      /**< something to read, the end, or a connection to accept */
#define KESTAL_SELECT_WRITE UINT32_C(2)     /**< room to write */
#define KESTAL_SELECT_EXCEPTION UINT32_C(4) /**< out-of-band data */

/** A set of descriptors to wait on. */
typedef struct kestal_select kestal_select_t;

/** A new empty set, or null when memory is short. */
KESTAL_API kestal_select_t *kestal_open_select(void);

/** As kestal_open_select. `flags` is kept for later use: 0. */
KESTAL_API kestal_select_t *kestal_open_select_ex(uint32_t flags);

/** Releases the set. Returns null; a null set is ignored. */
KESTAL_API kestal_select_t *kestal_close_select(kestal_select_t *set);

/**
 * Makes the interest in a descriptor exactly `mask` (KESTAL_SELECT_ bits, 0 for none; other bits are ignored).
 * 0, or -1, with the set unchanged, for a null set, a negative descriptor or when memory is short.
 */
KESTAL_API int32_t kestal_set_select(kestal_select_t *set, int32_t descriptor, uint32_t mask);

/** Adds the bits of `mask` to the interest in a descriptor. Result as kestal_set_select. */
KESTAL_API int32_t kestal_add_select(kestal_select_t *set, int32_t descriptor, uint32_t mask);

/** Takes the bits of `mask` from the interest in a descriptor. Result as kestal_set_select. */
KESTAL_API int32_t kestal_del_select(kestal_select_t *set, int32_t descriptor, uint32_t mask);

/** Forgets every interest and every result; the memory is kept. 0, or -1 for null. */
KESTAL_API int32_t kestal_clear_select(kestal_select_t *set);

/** The interest in a descriptor, KESTAL_SELECT_ bits; 0 when there is none or the set is null. */
KESTAL_API uint32_t kestal_get_select_flags(const kestal_select_t *set, int32_t descriptor);

/** 1 when the last wait found the descriptor ready for any condition of `mask`, else 0. */
KESTAL_API int32_t kestal_is_select(const kestal_select_t *set, int32_t descriptor, uint32_t mask);

/**
 * Waits until a condition of interest holds on a descriptor, at most `timeout_ms` (negative: no limit; 0: only looks).
 * The number of conditions found ready, summed over the descriptors; 0 when the time is up; -1 on failure, errno
 * telling why (EINTR: a signal came), and then nothing counts as ready.
 */
KESTAL_API int32_t kestal_select_dispatch(kestal_select_t *set, int32_t timeout_ms);

/** The highest descriptor with any interest, or -1. */
KESTAL_API int32_t kestal_get_select_highest(const kestal_select_t *set);

/** The number of descriptors with interest in the one condition that `mask` names; 0 for a null set or another mask. */
KESTAL_API uint64_t kestal_get_select_count(const kestal_select_t *set, uint32_t mask);

/** The size in bytes of each of the six bit sets (three of interest, three of results); 0 for null. */
KESTAL_API uint64_t kestal_get_select_size(const kestal_select_t *set);

/**
 * Waits on one descriptor for the conditions of `mask`, at most `timeout_ms` (negative: no limit). The conditions that
 * hold, KESTAL_SELECT_ bits; 0 when the time is up; -1 on failure (errno tells), also for a negative descriptor with
 * one of the three bits. A mask without these bits (16, by custom) waits for the time alone; the descriptor may be -1.
 *
 * On descriptors of 1024 and above a wait for writing is a wait for reading and answers KESTAL_SELECT_READ, so a
 * connect or a send with a time-out is of little use there; use a select set.
 */
KESTAL_API int32_t kestal_single_select(int32_t descriptor, uint32_t mask, int32_t timeout_ms);

KESTAL_END_DECLS

#endif
