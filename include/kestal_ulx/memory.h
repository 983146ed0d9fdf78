/**
 * @file
 * Tagged allocation: every block that the library hands out or takes back goes through kestal_heap_tag, which wraps
 * the C runtime's allocator and counts the live blocks. A request carries a call-site tag (a name and a line); the
 * tag reaches the entry point and is not stored.
 *
 * A block obtained here is released here, by any thread. Allocation failure gives null and is not reported.
 */
#ifndef KESTAL_ULX_MEMORY_H
#define KESTAL_ULX_MEMORY_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/* The calls with the call site filled in as the tag: the ones to use. */
/** kestal_alloc_tag with the caller's name and line. */
#define kestal_alloc(size) kestal_alloc_tag((size), __func__, __LINE__)
/** kestal_calloc_tag with the caller's name and line. */
#define kestal_calloc(count, size) kestal_calloc_tag((count), (size), __func__, __LINE__)
/** kestal_realloc_tag with the caller's name and line. */
#define kestal_realloc(block, size) kestal_realloc_tag((block), (size), __func__, __LINE__)
/** kestal_free_tag with the caller's name and line. */
#define kestal_free(block) kestal_free_tag((block), __func__, __LINE__)
/** kestal_check_free_tag with the caller's name and line. */
#define kestal_check_free(block) kestal_check_free_tag((block), __func__, __LINE__)
/** kestal_strdup_tag with the caller's name and line. */
#define kestal_strdup(text) kestal_strdup_tag((text), __func__, __LINE__)
/** kestal_strndup_tag with the caller's name and line. */
#define kestal_strndup(text, limit) kestal_strndup_tag((text), (limit), __func__, __LINE__)
/** kestal_realloc_strdup_tag with the caller's name and line. */
#define kestal_realloc_strdup(old, text) kestal_realloc_strdup_tag((old), (text), __func__, __LINE__)
/** kestal_realloc_strndup_tag with the caller's name and line. */
#define kestal_realloc_strndup(old, text, limit) kestal_realloc_strndup_tag((old), (text), (limit), __func__, __LINE__)

/**
 * The one entry: allocates `size` bytes when `block` is null, releases `block` when `size` is 0 (giving null), and
 * resizes it otherwise. A size of 0 without a block is a request like any other; a block the runtime returns counts.
 *
 * A resize that fails gives null, leaves the old block valid, and lowers the live-block count all the same: the old
 * block is no longer counted. Where counts must stay exact, allocate, copy and release instead.
 */
KESTAL_API void *kestal_heap_tag(void *block, uint64_t size, const char *name, uint64_t line);

/** kestal_heap_tag under the tag "<NOTAG>", 0. */
KESTAL_API void *kestal_heap_notag(void *block, uint64_t size);

/** A new block of `size` bytes with undefined content, or null. */
KESTAL_API void *kestal_alloc_tag(uint64_t size, const char *name, uint64_t line);

/** kestal_heap_tag under its usual name: resizes, allocates (null block) or releases (size 0). */
KESTAL_API void *kestal_realloc_tag(void *block, uint64_t size, const char *name, uint64_t line);

/** A new block of count x size zero bytes, or null. The product is not checked for overflow: the caller bounds it. */
KESTAL_API void *kestal_calloc_tag(uint64_t count, uint64_t size, const char *name, uint64_t line);

/**
 * Releases a block and returns null. A null block is reported on standard error as "null pointer free ?" with the
 * tag, unless the tag name is "operator delete".
 */
KESTAL_API void *kestal_free_tag(void *block, const char *name, uint64_t line);

/** kestal_free_tag for a block that may well be null: null is no error here. Returns null. */
KESTAL_API void *kestal_check_free_tag(void *block, const char *name, uint64_t line);

/** A new copy of a text, or null when memory is short. A null text is copied as an empty one. */
KESTAL_API char *kestal_strdup_tag(const char *text, const char *name, uint64_t line);

/** As kestal_strdup_tag, of at most `limit` bytes of the text. */
KESTAL_API char *kestal_strndup_tag(const char *text, uint64_t limit, const char *name, uint64_t line);

/**
 * A new copy of `text` in the place of `old`: duplicates first (the text may lie inside the old block), then releases
 * `old`, which may be null. The old block is released also when the copy could not be made and null is returned.
 */
KESTAL_API char *kestal_realloc_strdup_tag(char *old, const char *text, const char *name, uint64_t line);

/** As kestal_realloc_strdup_tag, of at most `limit` bytes of the text. */
KESTAL_API char *kestal_realloc_strndup_tag(char *old, const char *text, uint64_t limit, const char *name,
                                            uint64_t line);

/**
 * The counters: the number of live blocks, and the heap's size and peak, which are not tracked and read 0. Each
 * pointer may be null. Returns 0.
 */
KESTAL_API int32_t kestal_get_alloc_info(uint64_t *count, uint64_t *size, uint64_t *peak);

/** The number of live blocks. */
KESTAL_API uint64_t kestal_get_alloc_count(void);

/** 0: the heap's size is not tracked. */
KESTAL_API uint64_t kestal_get_alloc_size(void);

/** 0: the heap's peak size is not tracked. */
KESTAL_API uint64_t kestal_get_alloc_peak_size(void);

/** One entry of the list of live blocks, and the context given by the caller. */
typedef void (*kestal_alloc_list_callback_t)(const void *entry, void *context);

/** Would call back for up to `limit` live blocks; no list of them is kept, so it calls nothing. Returns 0. */
KESTAL_API int32_t kestal_get_alloc_list(uint64_t limit, kestal_alloc_list_callback_t callback, void *context);

/** The number of bytes that a block really holds: the C runtime's malloc_usable_size. 0 for null. */
KESTAL_API uint64_t __kestal_malloc_usable_size(void *block);

KESTAL_END_DECLS

#endif
