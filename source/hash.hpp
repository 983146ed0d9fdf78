// The search of a hash table as inline code: the exported call wraps it, and modules whose look-ups are short have it in
// their own code.
#pragma once

#include <kestal_ulx/hash.h>

namespace kestal {

// Behind the buckets stands one of these for each: it ends most look-ups without touching a node.
struct bucket_guard {
    uint32_t newest_key;   // of the bucket's first node, when there is one
    uint32_t older_traces; // of all nodes behind the first, and perhaps of some that have gone
};

// One bit of 32, from bits of the key that do not settle its bucket.
inline uint32_t trace_of(uint32_t key)
{
    return uint32_t{1} << (key * UINT32_C(0x9E3779B1) >> 27);
}

inline bucket_guard &guard_of(const kestal_hash_t &table, uint64_t bucket)
{
    return reinterpret_cast<bucket_guard *>(table.m_buckets + table.m_bucket_count)[bucket];
}

// Key modulo bucket count. Two multiplications stand for the division, exact for 32-bit keys and a modulus of at most
// 2^32 (Lemire, Kaser, Kurz: "Faster remainder by direct computation", 2019).
inline uint64_t bucket_of(const kestal_hash_t &table, uint32_t key)
{
#if defined(__SIZEOF_INT128__)
    __extension__ typedef unsigned __int128 wide;
    const uint64_t fraction = table.m_reciprocal * key;
    return static_cast<uint64_t>(wide{fraction} * table.m_modulus >> 64);
#else
    return key % table.m_modulus;
#endif
}

// The newest node with the key, or the next older one from `start`.
inline kestal_hash_node_t *search(const kestal_hash_t &table, const kestal_hash_node_t *start, uint32_t key)
{
    if (start == nullptr) {
        const uint64_t bucket = bucket_of(table, key);
        const bucket_guard guard = guard_of(table, bucket);
        kestal_hash_node_t *newest = table.m_buckets[bucket];
        if (guard.newest_key == key)
            return newest;
        if ((guard.older_traces & trace_of(key)) == 0)
            return nullptr;
        start = newest;
    }
    kestal_hash_node_t *node = start->m_bucket_next;
    while (node != nullptr && node->m_key != key)
        node = node->m_bucket_next;
    return node;
}

} // namespace kestal
