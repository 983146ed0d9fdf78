/**
 * @file
 * Small helpers over texts: words between separators, trimming, wildcard patterns, the base name of a path, and
 * numbers written for people.
 *
 * Nothing here keeps state: any thread may call anything, as long as nobody changes the text meanwhile. Calls that
 * walk a text give pointers into it and allocate nothing; a new text belongs to the caller, who releases it with
 * kestal_free. Letter case and white space are those of ASCII, whatever the locale.
 */
#ifndef KESTAL_ULX_TEXT_H
#define KESTAL_ULX_TEXT_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/* The calls with the call site filled in as the tag: the ones to use. */
/** kestal_alloc_word_tag with the caller's name and line. */
#define kestal_alloc_word(cursor, separators, flags)                                                                   \
    kestal_alloc_word_tag((cursor), (separators), (flags), __func__, __LINE__)
/** kestal_alloc_basename_tag with the caller's name and line. */
#define kestal_alloc_basename(path) kestal_alloc_basename_tag((path), __func__, __LINE__)
/** kestal_comma_string_alloc_tag with the caller's name and line. */
#define kestal_comma_string_alloc(value) kestal_comma_string_alloc_tag((value), __func__, __LINE__)

/** Word flag: quotes group, '"' or "'": separators between them belong to the word. */
#define KESTAL_WORD_QUOTES 0x01u
/** Word flag: a "\" takes the next character, separator or quote included, into the word. */
#define KESTAL_WORD_ESCAPES 0x02u
/** Word flag: nothing between two separators, or before the first or after the last, is an empty word. */
#define KESTAL_WORD_EMPTY 0x04u

/** One word of a list. The words of a list and their texts are one chain, released with kestal_free_word_list. */
typedef struct kestal_word {
    struct kestal_word *m_next; /**< the next word, or null */
    char *m_text;               /**< the word, which stands in the same block as this record */
} kestal_word_t;

/**
 * The next word of a text. Any character of `separators` (null: white space) parts two words. `cursor` points at the
 * caller's place in the text and moves to the end of the word. With KESTAL_WORD_EMPTY it moves over the separator there,
 * and becomes null behind the last word; without it, separators are skipped before each word.
 *
 * Returns the word's first byte inside the text and its length in bytes in `length`; quotes and "\" stand in it as
 * they were written. Null, and length 0, when there is no further word; also when a pointer other than `separators` is
 * null. A quote that is never closed reaches to the end of the text.
 */
KESTAL_API const char *kestal_get_word(const char **cursor, const char *separators, uint32_t flags, uint64_t *length);

/**
 * As kestal_get_word, as a new text, in which grouping quotes and escaping "\" are left out when the flags ask for
 * them. Null when there is no further word, or when memory is short: then `cursor` has not moved.
 */
KESTAL_API char *kestal_alloc_word_tag(const char **cursor, const char *separators, uint32_t flags, const char *name,
                                       uint64_t line);

/**
 * All words of a text, each as kestal_alloc_word_tag gives it. Null when there is none (or the text is null), and when
 * memory is short.
 */
KESTAL_API kestal_word_t *kestal_new_word_list(const char *text, const char *separators, uint32_t flags);

/** Releases a whole list of words; null is fine. Returns null. */
KESTAL_API kestal_word_t *kestal_free_word_list(kestal_word_t *head);

/** The first character of the text that is no white space (blank, \\t, \\n, \\v, \\f, \\r). Null gives null. */
KESTAL_API const char *kestal_skip_space(const char *text);

/**
 * Removes white space at both ends of a text, in place: the text moves to the front of its memory. Returns the text;
 * null gives null.
 */
KESTAL_API char *kestal_trim_string(char *text);

/**
 * Compares two texts without regard to letter case: negative, 0 or positive, as `left` comes before, equals or follows
 * `right`. Null counts as empty.
 */
KESTAL_API int32_t kestal_compare_ignore_case(const char *left, const char *right);

/**
 * Whether a wildcard pattern matches the whole text: "*" stands for any run of bytes, also an empty one, "?" for exactly
 * one byte, and "\" takes the next byte as it is. Letter case does not matter; null counts as empty. Returns 1 or 0.
 */
KESTAL_API int32_t kestal_match_wildcard(const char *pattern, const char *text);

/**
 * kestal_match_wildcard, in which letter case matters when `match_case` is other than 0.
 */
KESTAL_API int32_t kestal_match_wildcard_ex(const char *pattern, const char *text, uint32_t match_case);

/**
 * Whether any pattern of a list matches the whole text, letter case ignored. Any character of `separators` (null: "|")
 * parts two patterns, unless a "\" stands before it; empty patterns are skipped. Returns 1 or 0.
 */
KESTAL_API int32_t kestal_match_wildcard_list(const char *patterns, const char *separators, const char *text);

/**
 * The last part of a path as a new text: "c" for "/a/b/c" and for "/a/b/c/", "/" for a path of slashes only, "" for a
 * null or empty path. Null when memory is short.
 */
KESTAL_API char *kestal_alloc_basename_tag(const char *path, const char *name, uint64_t line);

/** A number in decimal digits with a comma before every three ("1,234,567") as a new text. Null when memory is short. */
KESTAL_API char *kestal_comma_string_alloc_tag(uint64_t value, const char *name, uint64_t line);

KESTAL_END_DECLS

#endif
