/**
 * @file
 * Fragment allocator: hands out unsigned 64-bit ids, the smallest free one first, and keeps the set of ids in use as
 * intervals, so that its memory depends on how scattered they are and not on how high. Single ids and ranges of
 * neighbouring ids mix freely.
 *
 * Giving back ids in the portions in which they were taken needs no memory and cannot fail; giving back the middle of
 * a range may need memory. The caller owns the allocator (a record of its own, or one from kestal_open_fragment) and
 * locks: one thread at a time.
 */
#ifndef KESTAL_ULX_FRAGMENT_H
#define KESTAL_ULX_FRAGMENT_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** No id: what a call that looks for one returns when there is none. Never handed out. */
#define KESTAL_FRAGMENT_NONE UINT64_MAX

/** Ids in use from m_first up to, not including, m_end. */
typedef struct kestal_fragment_interval {
    uint64_t m_first; /**< the lowest */
    uint64_t m_end;   /**< above the highest */
} kestal_fragment_interval_t;

/** An allocator. To be placed, not touched; private throughout. */
typedef struct kestal_fragment {
    uint64_t m_count;                        /**< ids in use */
    uint64_t m_extent;                       /**< the highest id ever used, plus 1 */
    uint64_t m_portions;                     /**< portions handed out and not given back */
    uint64_t m_interval_count;               /**< intervals of ids in use */
    uint64_t m_interval_capacity;            /**< intervals that there is room for, no less than m_portions */
    kestal_fragment_interval_t *m_intervals; /**< the highest first, never touching */
} kestal_fragment_t;

/** A new allocator with all ids free, or null when memory is short. */
KESTAL_API kestal_fragment_t *kestal_open_fragment(void);

/** Releases an allocator from kestal_open_fragment. Returns null; null is ignored. */
KESTAL_API kestal_fragment_t *kestal_close_fragment(kestal_fragment_t *fragment);

/** Prepares the caller's record, with all ids free, and returns it; null for null. Allocates nothing. */
KESTAL_API kestal_fragment_t *kestal_init_fragment(kestal_fragment_t *fragment);

/** Releases what the record holds; it may be used again at once, with all ids free. 0, or -1 for null. */
KESTAL_API int32_t kestal_uninit_fragment(kestal_fragment_t *fragment);

/** Takes the smallest free id and returns it; KESTAL_FRAGMENT_NONE when memory is short (or for null). */
KESTAL_API uint64_t kestal_fragment_alloc(kestal_fragment_t *fragment);

/**
 * Takes `count` neighbouring ids at the lowest place where they are free and returns the first;
 * KESTAL_FRAGMENT_NONE when there is no such place, memory is short, or `count` is 0.
 */
KESTAL_API uint64_t kestal_fragment_alloc_range(kestal_fragment_t *fragment, uint64_t count);

/**
 * Takes the `count` ids from `first` on. 0, or -1, with nothing taken, when one of them is in use or beyond the range
 * of ids, memory is short, or `count` is 0.
 */
KESTAL_API int32_t kestal_fragment_alloc_at(kestal_fragment_t *fragment, uint64_t first, uint64_t count);

/** Gives one id back. 0, or -1 as kestal_fragment_free_range. */
KESTAL_API int32_t kestal_fragment_free(kestal_fragment_t *fragment, uint64_t id);

/**
 * Gives back the `count` ids from `first` on. 0, or -1, with nothing changed, when one of them is not in use, `count`
 * is 0, or (only for the middle of a larger portion) memory is short.
 */
KESTAL_API int32_t kestal_fragment_free_range(kestal_fragment_t *fragment, uint64_t first, uint64_t count);

/** 1 when the id is in use, else 0. */
KESTAL_API int32_t kestal_fragment_is_used(const kestal_fragment_t *fragment, uint64_t id);

/** The smallest id in use that is not below `from`, for visiting all; KESTAL_FRAGMENT_NONE when there is none. */
KESTAL_API uint64_t kestal_fragment_next(const kestal_fragment_t *fragment, uint64_t from);

/** The number of ids in use. */
KESTAL_API uint64_t kestal_fragment_count(const kestal_fragment_t *fragment);

/** The highest extent ever used: the highest id ever taken plus 1, the size of a table that all ids so far fit in. */
KESTAL_API uint64_t kestal_fragment_extent(const kestal_fragment_t *fragment);

KESTAL_END_DECLS

#endif
