/**
 * @file
 * Intrusive linked lists: the links are fields of the caller's own records, found by their byte positions, so that one
 * record can be on several lists at once. Nothing here allocates or releases.
 *
 * A list is the caller's head pointer and, where appending must be quick, a tail pointer; both are null when it is
 * empty. Every call is given the addresses of both (the tail's may be null: then no tail is kept and the last element
 * is found by walking; give it always or never). The caller owns the elements and locks: one thread at a time per list.
 *
 *     struct job *first = NULL, *last = NULL;
 *     kestal_doubly_linked_list_append(&first, &last, job, KESTAL_LINKS(struct job, m_previous, m_next));
 *
 * A call with a null head address or a null element does nothing. Nor does a call on an element that can be seen not
 * to be on the list: a singly linked one that the walk does not meet, a doubly linked one without a predecessor that
 * is not the head.
 */
#ifndef KESTAL_ULX_LIST_H
#define KESTAL_ULX_LIST_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** The positions of the previous and the next link of a record: two arguments of the doubly linked family. */
#define KESTAL_LINKS(type, previous, next) offsetof(type, previous), offsetof(type, next)

/** The position of the next link of a record: one argument of the singly linked family and of the walkers. */
#define KESTAL_LINK(type, next) offsetof(type, next)

/* The calls with the call site filled in as the tag: the ones to use. What stands as "..." are the link positions
 * (KESTAL_LINKS, KESTAL_LINK or numbers) and what follows them. */
/** kestal_doubly_linked_list_prepend_tag with the caller's name and line. */
#define kestal_doubly_linked_list_prepend(head, tail, node, ...)                                                       \
    kestal_doubly_linked_list_prepend_tag((head), (tail), (node), __VA_ARGS__, __func__, __LINE__)
/** kestal_doubly_linked_list_append_tag with the caller's name and line. */
#define kestal_doubly_linked_list_append(head, tail, node, ...)                                                        \
    kestal_doubly_linked_list_append_tag((head), (tail), (node), __VA_ARGS__, __func__, __LINE__)
/** kestal_doubly_linked_list_delete_tag with the caller's name and line. */
#define kestal_doubly_linked_list_delete(head, tail, node, ...)                                                        \
    kestal_doubly_linked_list_delete_tag((head), (tail), (node), __VA_ARGS__, __func__, __LINE__)
/** kestal_doubly_linked_list_replace_tag with the caller's name and line. */
#define kestal_doubly_linked_list_replace(head, tail, old_node, new_node, ...)                                         \
    kestal_doubly_linked_list_replace_tag((head), (tail), (old_node), (new_node), __VA_ARGS__, __func__, __LINE__)
/** kestal_doubly_linked_list_insert_tag with the caller's name and line. */
#define kestal_doubly_linked_list_insert(head, tail, existing, new_node, ...)                                          \
    kestal_doubly_linked_list_insert_tag((head), (tail), (existing), (new_node), __VA_ARGS__, __func__, __LINE__)
/** kestal_doubly_linked_list_sort_insert_tag with the caller's name and line. */
#define kestal_doubly_linked_list_sort_insert(head, tail, node, ...)                                                   \
    kestal_doubly_linked_list_sort_insert_tag((head), (tail), (node), __VA_ARGS__, __func__, __LINE__)
/** kestal_doubly_linked_list_sort_tag with the caller's name and line. */
#define kestal_doubly_linked_list_sort(head, tail, ...)                                                                \
    kestal_doubly_linked_list_sort_tag((head), (tail), __VA_ARGS__, __func__, __LINE__)
/** kestal_singly_linked_list_prepend_tag with the caller's name and line. */
#define kestal_singly_linked_list_prepend(head, tail, node, next)                                                      \
    kestal_singly_linked_list_prepend_tag((head), (tail), (node), (next), __func__, __LINE__)
/** kestal_singly_linked_list_append_tag with the caller's name and line. */
#define kestal_singly_linked_list_append(head, tail, node, next)                                                       \
    kestal_singly_linked_list_append_tag((head), (tail), (node), (next), __func__, __LINE__)
/** kestal_singly_linked_list_delete_tag with the caller's name and line. */
#define kestal_singly_linked_list_delete(head, tail, node, next)                                                       \
    kestal_singly_linked_list_delete_tag((head), (tail), (node), (next), __func__, __LINE__)
/** kestal_singly_linked_list_replace_tag with the caller's name and line. */
#define kestal_singly_linked_list_replace(head, tail, old_node, new_node, next)                                        \
    kestal_singly_linked_list_replace_tag((head), (tail), (old_node), (new_node), (next), __func__, __LINE__)
/** kestal_singly_linked_list_insert_tag with the caller's name and line. */
#define kestal_singly_linked_list_insert(head, tail, existing, new_node, next)                                         \
    kestal_singly_linked_list_insert_tag((head), (tail), (existing), (new_node), (next), __func__, __LINE__)
/** kestal_singly_linked_list_sort_insert_tag with the caller's name and line. */
#define kestal_singly_linked_list_sort_insert(head, tail, node, next, compare)                                         \
    kestal_singly_linked_list_sort_insert_tag((head), (tail), (node), (next), (compare), __func__, __LINE__)
/** kestal_singly_linked_list_sort_tag with the caller's name and line. */
#define kestal_singly_linked_list_sort(head, tail, next, compare)                                                      \
    kestal_singly_linked_list_sort_tag((head), (tail), (next), (compare), __func__, __LINE__)
/** kestal_linked_list_get_tail_tag with the caller's name and line. */
#define kestal_linked_list_get_tail(head, tail, next)                                                                  \
    kestal_linked_list_get_tail_tag((head), (tail), (next), __func__, __LINE__)
/** kestal_linked_list_index_tag with the caller's name and line. */
#define kestal_linked_list_index(head, node, next)                                                                     \
    kestal_linked_list_index_tag((head), (node), (next), __func__, __LINE__)
/** kestal_linked_list_count_tag with the caller's name and line. */
#define kestal_linked_list_count(head, next) kestal_linked_list_count_tag((head), (next), __func__, __LINE__)
/** kestal_linked_list_search_tag with the caller's name and line. */
#define kestal_linked_list_search(head, key, next, match)                                                              \
    kestal_linked_list_search_tag((head), (key), (next), (match), __func__, __LINE__)

/** Orders two elements: negative when `a` sorts before `b`, positive when after, 0 when they are equal. */
typedef int32_t (*kestal_list_compare_t)(const void *a, const void *b);

/** Tells whether an element is the one looked for: 0 when it matches `key`. */
typedef int32_t (*kestal_list_match_t)(const void *element, const void *key);

/* In every call `head` is the address of the head pointer, `tail` the address of the tail pointer or null, `previous`
 * and `next` are the byte positions of the links in an element, and the tag (name, line) is accepted and ignored. */

/** Puts `node` before the first element. */
KESTAL_API void kestal_doubly_linked_list_prepend_tag(void *head, void *tail, void *node, uint64_t previous,
                                                      uint64_t next, const char *name, uint64_t line);

/** Puts `node` after the last element: at once with a tail, else after a walk. */
KESTAL_API void kestal_doubly_linked_list_append_tag(void *head, void *tail, void *node, uint64_t previous,
                                                     uint64_t next, const char *name, uint64_t line);

/** Unlinks `node` and makes its two links null. */
KESTAL_API void kestal_doubly_linked_list_delete_tag(void *head, void *tail, void *node, uint64_t previous,
                                                     uint64_t next, const char *name, uint64_t line);

/** Puts `new_node` in the place of `old_node`, whose links become null. */
KESTAL_API void kestal_doubly_linked_list_replace_tag(void *head, void *tail, void *old_node, void *new_node,
                                                      uint64_t previous, uint64_t next, const char *name,
                                                      uint64_t line);

/** Puts `new_node` directly before `existing`. */
KESTAL_API void kestal_doubly_linked_list_insert_tag(void *head, void *tail, void *existing, void *new_node,
                                                     uint64_t previous, uint64_t next, const char *name, uint64_t line);

/**
 * Puts `node` before the first element that it compares less than (compare(node, element) negative), else at the end:
 * after its equals. A null comparator puts it at the end.
 */
KESTAL_API void kestal_doubly_linked_list_sort_insert_tag(void *head, void *tail, void *node, uint64_t previous,
                                                          uint64_t next, kestal_list_compare_t compare,
                                                          const char *name, uint64_t line);

/**
 * Sorts the list by relinking: a merge sort of the ascending runs that are there. Equal elements keep their order. A
 * list in order takes n - 1 comparisons and stays as it is, any other in the order of n log n. `compare` is asked with
 * the element that stands earlier first, and only a positive answer counts; it must not look at the list, whose links
 * are being changed. It has to order all elements; one that contradicts itself leaves the list whole, in some order. A
 * null one leaves it as it is.
 */
KESTAL_API void kestal_doubly_linked_list_sort_tag(void *head, void *tail, uint64_t previous, uint64_t next,
                                                   kestal_list_compare_t compare, const char *name, uint64_t line);

/** Puts `node` before the first element. */
KESTAL_API void kestal_singly_linked_list_prepend_tag(void *head, void *tail, void *node, uint64_t next,
                                                      const char *name, uint64_t line);

/** Puts `node` after the last element: at once with a tail, else after a walk. */
KESTAL_API void kestal_singly_linked_list_append_tag(void *head, void *tail, void *node, uint64_t next,
                                                     const char *name, uint64_t line);

/** Unlinks `node`, found by a walk from the head, and makes its link null; leaves one not on the list alone. */
KESTAL_API void kestal_singly_linked_list_delete_tag(void *head, void *tail, void *node, uint64_t next,
                                                     const char *name, uint64_t line);

/**
 * Puts `new_node` in the place of `old_node`, found by a walk, whose link becomes null. An `old_node` not on the list
 * is left alone; `new_node` has taken over its link even so.
 */
KESTAL_API void kestal_singly_linked_list_replace_tag(void *head, void *tail, void *old_node, void *new_node,
                                                      uint64_t next, const char *name, uint64_t line);

/**
 * Puts `new_node` directly before `existing`, found by a walk. When that is not on the list nothing is linked;
 * `new_node` points to it even so.
 */
KESTAL_API void kestal_singly_linked_list_insert_tag(void *head, void *tail, void *existing, void *new_node,
                                                     uint64_t next, const char *name, uint64_t line);

/** Puts `node` before the first element that it compares less than, else at the end. */
KESTAL_API void kestal_singly_linked_list_sort_insert_tag(void *head, void *tail, void *node, uint64_t next,
                                                          kestal_list_compare_t compare, const char *name,
                                                          uint64_t line);

/** Sorts as kestal_doubly_linked_list_sort_tag. */
KESTAL_API void kestal_singly_linked_list_sort_tag(void *head, void *tail, uint64_t next, kestal_list_compare_t compare,
                                                   const char *name, uint64_t line);

/** The last element of a list of either kind: what `tail` holds, or found by walking; null when the list is empty. */
KESTAL_API void *kestal_linked_list_get_tail_tag(void *head, void *tail, uint64_t next, const char *name,
                                                 uint64_t line);

/** The position of `node`, counted from 0; -1 when it is not on the list. */
KESTAL_API int64_t kestal_linked_list_index_tag(void *head, const void *node, uint64_t next, const char *name,
                                                uint64_t line);

/** The number of elements. */
KESTAL_API uint64_t kestal_linked_list_count_tag(void *head, uint64_t next, const char *name, uint64_t line);

/**
 * The first element that is `key` itself or for which `match` (may be null: then only the address counts) gives 0;
 * null when there is none.
 */
KESTAL_API void *kestal_linked_list_search_tag(void *head, const void *key, uint64_t next, kestal_list_match_t match,
                                               const char *name, uint64_t line);

KESTAL_END_DECLS

#endif
