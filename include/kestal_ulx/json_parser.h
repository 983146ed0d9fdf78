/**
 * @file
 * JSON values: typed, reference-counted records (object, array, string, integer, real, true, false, null) that an
 * application builds, edits, copies and compares. There is no text reader or writer here.
 *
 * A new value has one reference, the caller's; kestal_free_json drops it. Containers take a reference of their own to
 * what is stored in them, so the caller still releases its own; getters lend pointers and take none. true, false and
 * null are three shared constants: they are never counted and never freed. Values carry no lock: one thread at a time
 * uses a tree. Taking a reference reports an assertion ("too many reference count") up to a count of 65,536: install
 * an assertion handler (assertion.h) where standard error must stay clean. Copies, comparisons and releases descend
 * recursively: the depth of a tree is bounded by the stack.
 */
#ifndef KESTAL_ULX_JSON_PARSER_H
#define KESTAL_ULX_JSON_PARSER_H

#include <kestal_ulx/base.h>
#include <kestal_ulx/hash.h>

KESTAL_BEGIN_DECLS

/** The type codes. */
enum {
    KESTAL_JSON_UNDEFINED = 0x000,
    KESTAL_JSON_OBJECT = 0x100,
    KESTAL_JSON_ARRAY = 0x200,
    KESTAL_JSON_STRING = 0x300,
    KESTAL_JSON_INTEGER = 0x400,
    KESTAL_JSON_REAL = 0x500,
    KESTAL_JSON_TRUE = 0x600,
    KESTAL_JSON_FALSE = 0x700,
    KESTAL_JSON_NULL = 0x800
};

/** The two words that every value begins with. */
typedef struct kestal_json {
    uint32_t m_type;            /**< a type code */
    uint32_t m_reference_count; /**< 1 when new; 0 for ever in true, false and null */
} kestal_json_t;

/* --- any value */

/**
 * A new value of a type code, or null. Objects and arrays start empty, strings without data, numbers with 0; for true,
 * false and null the shared constant is returned. Any other code reports the assertion "unknown json type".
 */
KESTAL_API kestal_json_t *kestal_new_json(uint32_t type);

/** A new empty object, or null. */
KESTAL_API kestal_json_t *kestal_new_json_object(void);

/** A new empty array, or null. */
KESTAL_API kestal_json_t *kestal_new_json_array(void);

/** A new string with a copy of `size` bytes (zeros when `bytes` is null), or null. */
KESTAL_API kestal_json_t *kestal_new_json_string(const void *bytes, uint64_t size);

/** A new integer, or null. */
KESTAL_API kestal_json_t *kestal_new_json_integer(int64_t number);

/** A new real, or null. */
KESTAL_API kestal_json_t *kestal_new_json_real(double number);

/** The constant true. */
KESTAL_API kestal_json_t *kestal_new_json_true(void);

/** The constant false. */
KESTAL_API kestal_json_t *kestal_new_json_false(void);

/** The constant null. */
KESTAL_API kestal_json_t *kestal_new_json_null(void);

/** The type code; 0 for a null pointer. */
KESTAL_API uint32_t kestal_json_type(const kestal_json_t *value);

/**
 * Takes one more reference and returns the new count; 0 for a null pointer and for the constants, which are not
 * counted. Reports "too many reference count" while the count is not above 65,536, and counts all the same.
 */
KESTAL_API uint32_t kestal_json_reference_get(kestal_json_t *value);

/**
 * Drops one reference without destroying anything and returns the new count; 0 for a null pointer. A count that is 0
 * already stays and is reported as "reference count incorrect (double put ?)".
 */
KESTAL_API uint32_t kestal_json_reference_put(kestal_json_t *value);

/**
 * Drops one reference and destroys the value, with its references to others, when none is left. Always returns null,
 * so that the caller can store the result over its pointer. Null is ignored; a constant reports the double put.
 */
KESTAL_API kestal_json_t *kestal_free_json(kestal_json_t *value);

/**
 * A copy, or null when memory is short or the type is undefined. Members and elements are copied too when `deep` is
 * not 0, else shared. The constants are their own copies.
 */
KESTAL_API kestal_json_t *kestal_dup_json(const kestal_json_t *value, int32_t deep);

/**
 * Orders two values: 0 equal, negative when `a` sorts first, positive when `b` does. A null pointer sorts first, then
 * types by their codes, containers and strings by size and then by content (members in the order of `a`; strings
 * byte by byte), numbers by value; a NaN is equal to every real.
 */
KESTAL_API int32_t kestal_compare_json(const kestal_json_t *a, const kestal_json_t *b);

/* --- objects: members in the order of their first insertion; keys are bytes of an explicit length */

/** The hash table of an object, to walk over with hash.h and kestal_json_object_get_pair; null for another type. */
KESTAL_API kestal_hash_t *kestal_json_object_get_hash(const kestal_json_t *object);

/** The number of members; 0 for another type. */
KESTAL_API uint64_t kestal_json_object_get_count(const kestal_json_t *object);

/**
 * The value (lent) of the member that a node of an object's hash table holds. Its key and the key's length are stored
 * through `key` and `key_size` where these are not null; the key has no terminator. Null, null and 0 without a member.
 */
KESTAL_API kestal_json_t *kestal_json_object_get_pair(const kestal_hash_node_t *node, const void **key,
                                                      uint64_t *key_size);

/**
 * Stores a value under a key, with a reference of the object's own. An existing key keeps its place and loses its old
 * value. Returns 0, or -1 (nothing changed) when `object` is no object, a pointer is null, the value is the object
 * itself, or memory is short.
 */
KESTAL_API int32_t kestal_json_object_set_value(kestal_json_t *object, const void *key, uint64_t key_size,
                                                kestal_json_t *value);

/** The value (lent) under a key, or null. */
KESTAL_API kestal_json_t *kestal_json_object_get_value(const kestal_json_t *object, const void *key, uint64_t key_size);

/** Removes a key and its value. 0 also when the key is absent; -1 for another type or a null key. */
KESTAL_API int32_t kestal_json_object_delete_value(kestal_json_t *object, const void *key, uint64_t key_size);

/** Removes all members. 0, or -1 for another type. */
KESTAL_API int32_t kestal_json_object_clear(kestal_json_t *object);

/* --- arrays */

/** The table of the elements (lent; valid until the array changes); null for another type or before the first one. */
KESTAL_API kestal_json_t **kestal_json_array_get_table(const kestal_json_t *array);

/** The number of elements there is room for; 0 for another type. */
KESTAL_API uint64_t kestal_json_array_get_room_count(const kestal_json_t *array);

/** The number of elements; 0 for another type. */
KESTAL_API uint64_t kestal_json_array_get_count(const kestal_json_t *array);

/**
 * Puts a value in the place of the element at `index`. Returns 0, or -1 (nothing changed) when `array` is no array,
 * the value is null or the array itself, or the index is not below the count.
 */
KESTAL_API int32_t kestal_json_array_set_value(kestal_json_t *array, uint64_t index, kestal_json_t *value);

/** Adds a value at the end. Results as kestal_json_array_set_value, and -1 when memory is short. */
KESTAL_API int32_t kestal_json_array_append_value(kestal_json_t *array, kestal_json_t *value);

/** Puts a value before the element at `index`, which may be the count. Results as kestal_json_array_append_value. */
KESTAL_API int32_t kestal_json_array_insert_value(kestal_json_t *array, uint64_t index, kestal_json_t *value);

/** Removes the element at `index`. 0, or -1 for another type or an index not below the count. */
KESTAL_API int32_t kestal_json_array_delete_value(kestal_json_t *array, uint64_t index);

/** Removes all elements, from the last to the first, and keeps the room. 0, or -1 for another type. */
KESTAL_API int32_t kestal_json_array_clear(kestal_json_t *array);

/* --- strings: bytes of an explicit length */

/** The bytes (lent), null for another type or an empty string; their number goes to `size` unless it is null. */
KESTAL_API const char *kestal_json_string_get_value(const kestal_json_t *string, uint64_t *size);

/** The number of bytes; 0 for another type. */
KESTAL_API uint64_t kestal_json_string_get_size(const kestal_json_t *string);

/**
 * Sets a copy of `size` bytes, zeros when `bytes` is null, with a terminator behind them that is not counted. The
 * same content leaves the string's memory untouched; the bytes may lie inside the string's own. Returns 0, or -1
 * (nothing changed) for another type or when memory is short.
 */
KESTAL_API int32_t kestal_json_string_set_value(kestal_json_t *string, const void *bytes, uint64_t size);

/** Sets a text without its terminator; a null text is empty. Results as kestal_json_string_set_value. */
KESTAL_API int32_t kestal_json_string_set_puts(kestal_json_t *string, const char *text);

/** Sets a formatted text (format.h). A text that cannot be formatted empties the string. 0, or -1 for another type. */
KESTAL_API int32_t kestal_json_string_set_printf(kestal_json_t *string, const char *format, ...);

/** kestal_json_string_set_printf with an argument list. */
KESTAL_API int32_t kestal_json_string_set_vprintf(kestal_json_t *string, const char *format, va_list arguments);

/**
 * Adopts a block of the tagged allocator as the string's bytes, without a copy and without adding a terminator; the
 * old ones are released unless they are the same block. 0, or -1 (the block stays the caller's) for another type.
 */
KESTAL_API int32_t kestal_json_string_set_value_allocated_ptr(kestal_json_t *string, void *block, uint64_t size);

/** Empties the string. 0, or -1 for another type. */
KESTAL_API int32_t kestal_json_string_clear(kestal_json_t *string);

/* --- numbers */

/**
 * The value of an integer, or of a real cut to an integer (out of range: the nearest limit; NaN: 0); `otherwise` for
 * any other type.
 */
KESTAL_API int64_t kestal_json_integer_get_value(const kestal_json_t *number, int64_t otherwise);

/** The value of a real or of an integer; `otherwise` for any other type. */
KESTAL_API double kestal_json_real_get_value(const kestal_json_t *number, double otherwise);

/** Sets an integer. 0, or -1 for any other type, reals too. */
KESTAL_API int32_t kestal_json_integer_set_value(kestal_json_t *number, int64_t value);

/** Sets a real, or an integer to the value cut to an integer. 0, or -1 for any other type. */
KESTAL_API int32_t kestal_json_real_set_value(kestal_json_t *number, double value);

/** Sets an integer to 0. 0, or -1 for any other type. */
KESTAL_API int32_t kestal_json_integer_clear(kestal_json_t *number);

/** Sets a real or an integer to 0. 0, or -1 for any other type. */
KESTAL_API int32_t kestal_json_real_clear(kestal_json_t *number);

KESTAL_END_DECLS

#endif
