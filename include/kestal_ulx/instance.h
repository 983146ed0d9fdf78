/**
 * @file
 * Instance registries: small integer ids for objects, mapped back to a pointer that is tagged with a MIME type. A new
 * id is always the smallest one free. The registry never touches the object; it owns its copy of the MIME type.
 *
 * Beside registries of one's own (kestal_instance_...) there is one for the whole process (kestal_ginstance_...),
 * from which the ids of stream contexts and plugins come; it exists while it holds an id.
 *
 * Any thread may call. Every call holds the registry's lock for its own duration only: a pointer or text that a call
 * returns stays valid as long as nobody deletes the id or sets it anew. Delete handlers run without any lock held.
 */
#ifndef KESTAL_ULX_INSTANCE_H
#define KESTAL_ULX_INSTANCE_H

#include <kestal_ulx/base.h>
#include <kestal_ulx/fragment.h>
#include <kestal_ulx/spin_lock.h>

KESTAL_BEGIN_DECLS

/** No context and no plugin: all ones. */
#define KESTAL_INVALID_ID UINT32_C(0xFFFFFFFF)

/** The number of context words of an id. */
#define KESTAL_INSTANCE_CONTEXT_WORDS 3

struct kestal_instance_slot;

/** Called when an id is deleted, with a copy of what it held and the id, which is free by then. */
typedef void (*kestal_instance_delete_handler_t)(const struct kestal_instance_slot *slot, int32_t id);

/** What one id holds. */
typedef struct kestal_instance_slot {
    uintptr_t m_context[KESTAL_INSTANCE_CONTEXT_WORDS]; /**< word 0 is the object, words 1 and 2 are the owner's */
    char *m_mime_type;                                  /**< null when none was given, or an empty one */
    kestal_instance_delete_handler_t m_delete_handler;  /**< null for none */
} kestal_instance_slot_t;

/** A registry. */
typedef struct kestal_instance {
    kestal_spin_lock_t *m_lock;      /**< exclusive for changes, shared for look-ups */
    uint64_t m_capacity;             /**< number of slots in the table */
    kestal_instance_slot_t *m_slots; /**< indexed by id; null until the first id */
    kestal_fragment_t m_ids;         /**< the ids in use */
} kestal_instance_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(sizeof(kestal_instance_slot_t) == 40, "slot");
KESTAL_STATIC_ASSERT(offsetof(kestal_instance_t, m_ids) == 24, "instance registry");
#endif

/* --- registries of one's own; ids are 0 and up, and negative ones are refused */

/** A new empty registry, or null when memory is short. */
KESTAL_API kestal_instance_t *kestal_open_instance(void);

/** Ends a registry of kestal_open_instance: uninitialises and releases it. Null is ignored. Returns null. */
KESTAL_API kestal_instance_t *kestal_close_instance(kestal_instance_t *registry);

/** Makes an empty registry of the caller's memory. Returns it, or null when memory is short (or null was given). */
KESTAL_API kestal_instance_t *kestal_init_instance(kestal_instance_t *memory);

/** Releases what a registry holds; ids still in use go without a call of their delete handlers. Returns 0, or -1 for
 * null. */
KESTAL_API int32_t kestal_uninit_instance(kestal_instance_t *registry);

/** kestal_instance_new_ex without pointer, type and handler. */
KESTAL_API int32_t kestal_instance_new(kestal_instance_t *registry);

/**
 * Takes the smallest free id for `pointer` under a copy of `mime_type`; each argument but the registry may be null.
 * Returns the id, or -1 when memory is short or no id is left.
 */
KESTAL_API int32_t kestal_instance_new_ex(kestal_instance_t *registry, const void *pointer, const char *mime_type,
                                          kestal_instance_delete_handler_t delete_handler);

/** Frees an id and then calls its delete handler. Always returns -1, to be stored over the id. */
KESTAL_API int32_t kestal_instance_delete(kestal_instance_t *registry, int32_t id);

/** Replaces the pointer (context word 0) and the MIME type of an id. Returns 0, or -1 with nothing changed. */
KESTAL_API int32_t kestal_instance_set(kestal_instance_t *registry, int32_t id, const void *pointer,
                                       const char *mime_type);

/** The pointer of an id, or null. Its MIME type, or null, is stored to `mime_type` when that is not null. */
KESTAL_API void *kestal_instance_search(kestal_instance_t *registry, int32_t id, const char **mime_type);

/** Context word `index` (0 to 2) of an id; 0 for an unknown id or another index. */
KESTAL_API uintptr_t kestal_instance_get_context(kestal_instance_t *registry, int32_t id, uint32_t index);

/** Sets context word `index` (0 to 2) of an id. Returns 0, or -1 for an unknown id or another index. */
KESTAL_API int32_t kestal_instance_set_context(kestal_instance_t *registry, int32_t id, uint32_t index,
                                               uintptr_t value);

/** The MIME type of an id, or null. */
KESTAL_API const char *kestal_instance_get_mime_type(kestal_instance_t *registry, int32_t id);

/** Replaces the delete handler of an id; null removes it. Returns 0, or -1 for an unknown id. */
KESTAL_API int32_t kestal_instance_set_delete_handler(kestal_instance_t *registry, int32_t id,
                                                      kestal_instance_delete_handler_t delete_handler);

/* --- the registry of the whole process; ids are those of contexts and plugins, KESTAL_INVALID_ID is none */

/** kestal_ginstance_new_ex without pointer, type and handler. */
KESTAL_API uint32_t kestal_ginstance_new(void);

/** As kestal_instance_new_ex. Returns the id, or KESTAL_INVALID_ID. */
KESTAL_API uint32_t kestal_ginstance_new_ex(const void *pointer, const char *mime_type,
                                            kestal_instance_delete_handler_t delete_handler);

/** As kestal_instance_delete. Always returns KESTAL_INVALID_ID, to be stored over the id. */
KESTAL_API uint32_t kestal_ginstance_delete(uint32_t id);

/** As kestal_instance_set. */
KESTAL_API int32_t kestal_ginstance_set(uint32_t id, const void *pointer, const char *mime_type);

/** As kestal_instance_search. */
KESTAL_API void *kestal_ginstance_search(uint32_t id, const char **mime_type);

/** As kestal_instance_get_context. */
KESTAL_API uintptr_t kestal_ginstance_get_context(uint32_t id, uint32_t index);

/** As kestal_instance_set_context. */
KESTAL_API int32_t kestal_ginstance_set_context(uint32_t id, uint32_t index, uintptr_t value);

/** As kestal_instance_get_mime_type. */
KESTAL_API const char *kestal_ginstance_get_mime_type(uint32_t id);

/** As kestal_instance_set_delete_handler. */
KESTAL_API int32_t kestal_ginstance_set_delete_handler(uint32_t id, kestal_instance_delete_handler_t delete_handler);

/**
 * The number of ids in use. The highest extent that they ever reached (the highest id + 1) is stored to `extent` when
 * that is not null. Both are 0 while the process has no id, and the extent starts anew after that.
 */
KESTAL_API uint64_t kestal_ginstance_alloc_count(uint64_t *extent);

KESTAL_END_DECLS

#endif
