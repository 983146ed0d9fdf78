/**
 * @file
 * Value lists: ordered lists of named byte values, such as options or header fields. Names may repeat or be absent.
 * A list remembers whether it was changed, so that its owner can tell whether to save: the owner clears
 * KESTAL_VALUE_MODIFIED in m_flags when it has. The list owns its entries; it has no lock: one thread at a time.
 *
 * The argument `exact` is non-zero to compare names exactly, 0 to ignore the case of ASCII letters. A null name means
 * an unnamed entry, and nothing else matches one. `names` is a text of alternative names separated by "|"; empty
 * alternatives are skipped. Names and data given to a call are copied; they may lie inside the list itself.
 *
 * Calls on a list that is null, or was not initialised or is destroyed, give -1 or null.
 */
#ifndef KESTAL_ULX_VALUE_H
#define KESTAL_ULX_VALUE_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/* Flags of a list. */
#define KESTAL_VALUE_MODIFIED UINT32_C(0x01)   /**< changed since the owner last cleared it */
#define KESTAL_VALUE_VALID UINT32_C(0x80)      /**< initialised */
#define KESTAL_VALUE_ALLOCATED UINT32_C(0x100) /**< from kestal_new_value */

/* Modes of setting; only the low two bits count. */
#define KESTAL_VALUE_APPEND UINT32_C(0)          /**< append, also a name that is there already */
#define KESTAL_VALUE_REPLACE_BY_NAME UINT32_C(1) /**< take the place of the first entry of the name, else append */
#define KESTAL_VALUE_REPLACE_BY_DATA UINT32_C(2) /**< take the place of the first entry of equal data, else append */
#define KESTAL_VALUE_ADD_IF_ABSENT UINT32_C(3)   /**< append unless an entry with name and data is there */

/** An entry of a value list. */
typedef struct kestal_value_node kestal_value_node_t;

/** One entry. To be read; its data bytes may be written. */
struct kestal_value_node {
    kestal_value_node_t *m_previous; /**< the entry before */
    kestal_value_node_t *m_next;     /**< the entry behind */
    char *m_name;                    /**< null for an unnamed entry */
    uint64_t m_size;                 /**< of the data; a zero byte that is not counted always follows it */
    void *m_data;                    /**< null when the size is 0 */
};

/** A list: the caller's record, or one from kestal_new_value. */
typedef struct kestal_value {
    uint32_t m_flags;            /**< KESTAL_VALUE_ bits of the list */
    kestal_value_node_t *m_head; /**< the first entry */
    kestal_value_node_t *m_tail; /**< the last entry */
} kestal_value_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(sizeof(kestal_value_t) == 24, "flags, head, tail");
KESTAL_STATIC_ASSERT(sizeof(kestal_value_node_t) == 40, "two links, name, size, data");
KESTAL_STATIC_ASSERT(offsetof(kestal_value_node_t, m_size) == 24, "the size stands before the data");
#endif

/** Prepares the caller's record and returns it: an empty list, valid and modified. Null for null. */
KESTAL_API kestal_value_t *kestal_init_value(kestal_value_t *list);

/** A new empty list, or null when memory is short. */
KESTAL_API kestal_value_t *kestal_new_value(void);

/** Removes all entries, ends the list's validity and releases it when it came from kestal_new_value. 0 or -1. */
KESTAL_API int32_t kestal_destroy_value(kestal_value_t *list);

/** kestal_destroy_value under its other name. */
KESTAL_API int32_t kestal_free_value(kestal_value_t *list);

/** Removes all entries without marking the list as modified. 0 or -1. */
KESTAL_API int32_t kestal_reset_value(kestal_value_t *list);

/**
 * Sets an entry of `size` bytes in one of the four modes (KESTAL_VALUE_APPEND to KESTAL_VALUE_ADD_IF_ABSENT). Null
 * `data` with a size stands for so many zero bytes. Replacing by name with data of the same size overwrites the bytes
 * where they are; what is there already in equal form leaves the list unmodified in the modes that look for it by
 * name. 0, or -1, with nothing changed, when memory is short.
 */
KESTAL_API int32_t kestal_set_value(kestal_value_t *list, uint32_t mode, uint32_t exact, const char *name,
                                    const void *data, uint64_t size);

/** kestal_set_value with a text, its terminator included; with no data for null. */
KESTAL_API int32_t kestal_set_value_string(kestal_value_t *list, uint32_t mode, uint32_t exact, const char *name,
                                           const char *string);

/** kestal_set_value_string with a decimal number. */
KESTAL_API int32_t kestal_set_value_int_string(kestal_value_t *list, uint32_t mode, uint32_t exact, const char *name,
                                               int32_t integer);

/** kestal_set_value for each of the alternatives. 0, or -1 when any failed or `names` is null. */
KESTAL_API int32_t kestal_multiple_set_value(kestal_value_t *list, uint32_t mode, uint32_t exact, const char *names,
                                             const void *data, uint64_t size);

/** kestal_set_value_string for each of the alternatives. Result as kestal_multiple_set_value. */
KESTAL_API int32_t kestal_multiple_set_value_string(kestal_value_t *list, uint32_t mode, uint32_t exact,
                                                    const char *names, const char *string);

/** kestal_set_value_int_string for each of the alternatives. Result as kestal_multiple_set_value. */
KESTAL_API int32_t kestal_multiple_set_value_int_string(kestal_value_t *list, uint32_t mode, uint32_t exact,
                                                        const char *names, int32_t integer);

/** The first entry with the name, or null. */
KESTAL_API kestal_value_node_t *kestal_get_value_node_by_name(const kestal_value_t *list, uint32_t exact,
                                                              const char *name);

/** The first entry with equal data (kestal_compare_data), or null. */
KESTAL_API kestal_value_node_t *kestal_get_value_node_by_data(const kestal_value_t *list, const void *data,
                                                              uint64_t size);

/**
 * The first entry whose data is the text without its terminator, or null. Entries set by kestal_set_value_string hold
 * their terminator and are therefore never found this way: look for them by data with the terminator in the size.
 */
KESTAL_API kestal_value_node_t *kestal_get_value_node_by_string(const kestal_value_t *list, const char *string);

/** The first entry with the name and equal data, or null. */
KESTAL_API kestal_value_node_t *kestal_get_value_node(const kestal_value_t *list, uint32_t exact, const char *name,
                                                      const void *data, uint64_t size);

/**
 * The data of the first entry with the name, its size stored to `size` (may be null); null and size 0 when there is
 * none. The bytes stay the list's.
 */
KESTAL_API void *kestal_get_value_by_name(const kestal_value_t *list, uint32_t exact, const char *name, uint64_t *size);

/**
 * The data of the first entry with the name as a text, which it is when one of its bytes is zero; otherwise, and when
 * there is no entry, `default_string` (may be null). The text stays the list's. Null for an invalid list.
 */
KESTAL_API const char *kestal_get_value_string_ex(const kestal_value_t *list, uint32_t exact, const char *name,
                                                  const char *default_string);

/** kestal_get_value_string_ex with null as the default. */
KESTAL_API const char *kestal_get_value_string(const kestal_value_t *list, uint32_t exact, const char *name);

/** Removes every entry with the name. 0 (also when there was none) or -1. */
KESTAL_API int32_t kestal_remove_value_by_name(kestal_value_t *list, uint32_t exact, const char *name);

/** Removes every entry with equal data. 0 or -1. */
KESTAL_API int32_t kestal_remove_value_by_data(kestal_value_t *list, const void *data, uint64_t size);

/** Removes every entry whose data is the text without its terminator (see kestal_get_value_node_by_string). 0 or -1. */
KESTAL_API int32_t kestal_remove_value_by_string(kestal_value_t *list, const char *string);

/** Removes every entry with the name and equal data. 0 or -1. */
KESTAL_API int32_t kestal_remove_value(kestal_value_t *list, uint32_t exact, const char *name, const void *data,
                                       uint64_t size);

/** Removes every entry with one of the names; null names match nothing. 0 or -1. */
KESTAL_API int32_t kestal_multiple_remove_value_by_name(kestal_value_t *list, uint32_t exact, const char *names);

/** Removes every entry with one of the names and equal data; null names match nothing. 0 or -1. */
KESTAL_API int32_t kestal_multiple_remove_value(kestal_value_t *list, uint32_t exact, const char *names,
                                                const void *data, uint64_t size);

/* The searches look from a node on, itself included: pass the m_next of the last result to go on. Null finds null. */

/** The first node from `start` on with the name, or null. */
KESTAL_API kestal_value_node_t *kestal_search_value_node_by_name(const kestal_value_node_t *start, uint32_t exact,
                                                                 const char *name);

/** The first node from `start` on with equal data, or null. */
KESTAL_API kestal_value_node_t *kestal_search_value_node_by_data(const kestal_value_node_t *start, const void *data,
                                                                 uint64_t size);

/** The first node from `start` on whose data is the text without its terminator, or null. */
KESTAL_API kestal_value_node_t *kestal_search_value_node_by_string(const kestal_value_node_t *start,
                                                                   const char *string);

/** The first node from `start` on with the name and equal data, or null. */
KESTAL_API kestal_value_node_t *kestal_search_value_node(const kestal_value_node_t *start, uint32_t exact,
                                                         const char *name, const void *data, uint64_t size);

/** The first node from `start` on with one of the names, or null; null names match nothing. */
KESTAL_API kestal_value_node_t *kestal_multiple_search_value_node_by_name(const kestal_value_node_t *start,
                                                                          uint32_t exact, const char *names);

/** The first node from `start` on with one of the names and equal data, or null; null names match nothing. */
KESTAL_API kestal_value_node_t *kestal_multiple_search_value_node(const kestal_value_node_t *start, uint32_t exact,
                                                                  const char *names, const void *data, uint64_t size);

/** A new node in no list, with copies of name (or null) and data (null: `size` zero bytes), or null. */
KESTAL_API kestal_value_node_t *kestal_new_value_node(const char *name, const void *data, uint64_t size);

/**
 * Releases the whole chain that the node is linked into, from its first node to its last; a node that was unlinked is
 * released alone. Returns null; null is ignored.
 */
KESTAL_API kestal_value_node_t *kestal_free_value_node(kestal_value_node_t *node);

/**
 * Compares two byte blocks: 0 when they are equal, else -1. Sizes must agree; a null pointer stands for so many zero
 * bytes.
 */
KESTAL_API int32_t kestal_compare_data(const void *a, uint64_t a_size, const void *b, uint64_t b_size);

KESTAL_END_DECLS

#endif
