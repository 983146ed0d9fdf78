/**
 * @file
 * Hash table of unsigned 32-bit keys: the key is the caller's own hash value, the table only reduces it modulo its
 * bucket count, which never changes. Every node is on one ordered list of the whole table (from m_head by m_next: the
 * way to visit all) and on the list of its bucket, where the newest node comes first. Keys may repeat.
 *
 * The table owns its nodes, and their data when it has a data destructor. It has no lock: one thread at a time.
 */
#ifndef KESTAL_ULX_HASH_H
#define KESTAL_ULX_HASH_H

#include <kestal_ulx/list.h>

KESTAL_BEGIN_DECLS

/** Releases what a node's data points to and returns the value to store back, usually null. */
typedef void *(*kestal_hash_data_destructor_t)(void *data);

/** An entry of a hash table. */
typedef struct kestal_hash_node kestal_hash_node_t;

/** One entry. The key must not change while the node is in a table. */
struct kestal_hash_node {
    kestal_hash_node_t *m_previous;        /**< on the table's ordered list */
    kestal_hash_node_t *m_next;            /**< the entry behind */
    kestal_hash_node_t *m_bucket_previous; /**< on the list of its bucket */
    kestal_hash_node_t *m_bucket_next;     /**< the entry behind */
    uint32_t m_key;                        /**< what it is found by */
    void *m_data;                          /**< the table's when it has a data destructor, else the caller's */
};

/** A table, in one block with its buckets. To be read, not written. */
typedef struct kestal_hash {
    uint64_t m_bucket_count;                         /**< at least 1 */
    kestal_hash_data_destructor_t m_data_destructor; /**< null: data is the caller's */
    kestal_hash_node_t *m_head;                      /**< the ordered list of all nodes */
    kestal_hash_node_t *m_tail;                      /**< the last of it */
    kestal_hash_node_t **m_buckets;                  /**< the heads of the bucket lists */
    uint64_t m_node_count;                           /**< nodes in the table */
    uint64_t m_modulus;                              /**< private, as what follows */
    uint64_t m_reciprocal;                           /**< private */
} kestal_hash_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(sizeof(kestal_hash_node_t) == 48, "four links, the key, the data");
KESTAL_STATIC_ASSERT(offsetof(kestal_hash_node_t, m_key) == 32, "the key follows the links");
KESTAL_STATIC_ASSERT(offsetof(kestal_hash_node_t, m_data) == 40, "the data comes last");
#endif

/**
 * A new table of `bucket_count` buckets (0 is taken as 1; about as many as nodes are expected keeps look-ups short; a
 * bucket takes a pointer and 8 bytes), or null when memory is short. `destructor` may be null: then the data stays the caller's.
 */
KESTAL_API kestal_hash_t *kestal_open_hash(uint64_t bucket_count, kestal_hash_data_destructor_t destructor);

/** Deletes every node and releases the table. Returns null; a null table is ignored. */
KESTAL_API kestal_hash_t *kestal_close_hash(kestal_hash_t *table);

/** Deletes every node. Returns the table. */
KESTAL_API kestal_hash_t *kestal_clear_hash(kestal_hash_t *table);

/** The number of nodes in the table; 0 for null. */
KESTAL_API uint64_t kestal_get_hash_node_count(const kestal_hash_t *table);

/** The bucket of a key: key modulo bucket count; 0 for a null table. */
KESTAL_API uint64_t kestal_hash_index(const kestal_hash_t *table, uint32_t key);

/** A new zeroed node in no table, or null when memory is short. */
KESTAL_API kestal_hash_node_t *kestal_new_hash_node(void);

/**
 * Releases the node and every node after it on the ordered list, each with its data through the table's destructor:
 * unlink a node first (kestal_sub_hash_node), or use kestal_del_hash_node. 0, or -1 when either is null.
 */
KESTAL_API int32_t kestal_free_hash_node(kestal_hash_t *table, kestal_hash_node_t *node);

/**
 * A new node with key and data, not yet in the table. Null, with the data left to the caller, when the table is null
 * or memory is short.
 */
KESTAL_API kestal_hash_node_t *kestal_create_hash_node(kestal_hash_t *table, uint32_t key, void *data);

/** Puts a node first on the ordered list. Returns the node, or null when either is null. */
KESTAL_API kestal_hash_node_t *kestal_add_hash_node_to_head(kestal_hash_t *table, kestal_hash_node_t *node);

/** Puts a node last on the ordered list. Returns the node, or null when either is null. */
KESTAL_API kestal_hash_node_t *kestal_add_hash_node_to_tail(kestal_hash_t *table, kestal_hash_node_t *node);

/**
 * Puts a node on the ordered list in order, after its equals. `compare` is given two nodes; null orders by key.
 * Returns the node, or null when either is null.
 */
KESTAL_API kestal_hash_node_t *kestal_add_hash_node_sort_insert(kestal_hash_t *table, kestal_hash_node_t *node,
                                                                kestal_list_compare_t compare);

/** kestal_create_hash_node, then kestal_add_hash_node_to_head. Null, with the data left to the caller, on failure. */
KESTAL_API kestal_hash_node_t *kestal_create_hash_node_to_head(kestal_hash_t *table, uint32_t key, void *data);

/** kestal_create_hash_node, then kestal_add_hash_node_to_tail. Null, with the data left to the caller, on failure. */
KESTAL_API kestal_hash_node_t *kestal_create_hash_node_to_tail(kestal_hash_t *table, uint32_t key, void *data);

/** kestal_create_hash_node, then kestal_add_hash_node_sort_insert. Null, with the data left to the caller, on failure. */
KESTAL_API kestal_hash_node_t *kestal_create_hash_node_sort_insert(kestal_hash_t *table, uint32_t key, void *data,
                                                                   kestal_list_compare_t compare);

/** Takes a node out of the table; it is the caller's then. Returns it, or null when it (or the table) is null or it is
 * not in the table. */
KESTAL_API kestal_hash_node_t *kestal_sub_hash_node(kestal_hash_t *table, kestal_hash_node_t *node);

/** Takes a node out of the table and releases it. 0, or -1 where kestal_sub_hash_node gives null. */
KESTAL_API int32_t kestal_del_hash_node(kestal_hash_t *table, kestal_hash_node_t *node);

/**
 * The newest node with the key, or, from `start` (a node with this key, found before), the next older one; null when
 * there is none.
 */
KESTAL_API kestal_hash_node_t *kestal_search_hash_node(const kestal_hash_t *table, const kestal_hash_node_t *start,
                                                       uint32_t key);

KESTAL_END_DECLS

#endif
