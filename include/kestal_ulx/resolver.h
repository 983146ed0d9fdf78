/**
 * @file
 * The resolver: a host string and a port become a list of socket addresses, by the system's own look-up, on the
 * caller's thread or through a cache whose look-ups run in background threads.
 *
 * A list belongs to whoever gets it and is released with kestal_close_resolver; it may be read by any number of threads.
 * A cache may be used by any thread, and by its handlers; a request for what was looked up before answers with the last
 * result at once while it is looked up again. The process-wide cache is shared and counted; private ones belong to
 * their opener.
 */
#ifndef KESTAL_ULX_RESOLVER_H
#define KESTAL_ULX_RESOLVER_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/* The calls with the call site filled in as the tag: the ones to use. */
/** kestal_get_fqdn_alloc_tag with the caller's name and line. */
#define kestal_get_fqdn_alloc() kestal_get_fqdn_alloc_tag(__func__, __LINE__)

/** How long an entry of the process-wide cache lives unused, in milliseconds. */
#define KESTAL_RESOLVER_CACHE_EXPIRY INT32_C(3600000)

/** One address of a host; the address and the text stand in the same block as the record. */
typedef struct kestal_resolver {
    struct kestal_resolver *m_next; /**< the host's next address; null: the last */
    int32_t m_family;               /**< AF_INET or AF_INET6 */
    uint32_t m_address_length;      /**< bytes of m_address */
    void *m_address;                /**< struct sockaddr_in or sockaddr_in6 */
    char *m_text;                   /**< the address as kestal_inet_stop writes it */
    uint32_t m_port;                /**< host order */
} kestal_resolver_t;

/** A cache of looked-up hosts. */
typedef struct kestal_resolver_cache kestal_resolver_cache_t;

/**
 * Told of a successful look-up, on the thread that made it and without the cache's lock: it may use the cache. `is_new` is
 * 1. The name is valid during the call.
 */
typedef void (*kestal_resolver_handler_t)(kestal_resolver_cache_t *cache, int32_t is_new, const char *name,
                                          uint32_t port, void *context);

/** kestal_open_resolver_ex on the caller's thread. */
KESTAL_API kestal_resolver_t *kestal_open_resolver(const char *host, uint32_t port);

/**
 * Looks a host up. `host` is a name or an address string (its port and prefix are not looked at); null or empty gives
 * the any-addresses to bind to. `port` is in host order; from 65536 on there is none (0).
 *
 * A negative `timeout_ms` looks up on the caller's thread, for as long as the system takes. Otherwise the look-up goes
 * through the process-wide cache, and is tried until there is a result or so many milliseconds have passed; address
 * strings need no look-up and are answered at once. Unless kestal_init_network or another user keeps that cache, it goes
 * with the call, which then lasts as long as the look-up under way. A list in the system's order, or null.
 */
KESTAL_API kestal_resolver_t *kestal_open_resolver_ex(const char *host, uint32_t port, int32_t timeout_ms);

/** Releases a list; null is fine. Returns null. */
KESTAL_API kestal_resolver_t *kestal_close_resolver(kestal_resolver_t *list);

/** A copy of a list; a record for which memory is short is left out. */
KESTAL_API kestal_resolver_t *kestal_duplicate_resolver(const kestal_resolver_t *list);

/** Reads the system's resolver configuration again. 0; -1 on failure and within 4 seconds of the last time it did. */
KESTAL_API int32_t kestal_reload_resolver(void);

/**
 * The host's full name ("box.example.net") as the system's look-up knows it, as a new text to be released with
 * kestal_free; null when it has none.
 */
KESTAL_API char *kestal_get_fqdn_alloc_tag(const char *name, uint64_t line);

/* --- the cache */

/** The process-wide cache with entries that live KESTAL_RESOLVER_CACHE_EXPIRY; one more user of it. Null on failure. */
KESTAL_API kestal_resolver_cache_t *kestal_open_resolver_cache(void);

/**
 * The process-wide cache (`shared` not 0), made with this expiry by its first user, or a new private one. Entries
 * unused for `expiry_ms` go with the next request; 0 and less keep them, and less than 0 also ends the search at the
 * first match. Null on failure.
 */
KESTAL_API kestal_resolver_cache_t *kestal_open_resolver_cache_ex(uint32_t shared, int32_t expiry_ms);

/**
 * One user less of the process-wide cache, which goes with the last; a private cache goes at once. Waits for look-ups and
 * handlers under way; no handler is called afterwards (a cache that its own handler closes goes when its handlers have
 * returned). Handlers of look-ups that never succeeded are not called. Returns null; null is fine.
 */
KESTAL_API kestal_resolver_cache_t *kestal_close_resolver_cache(kestal_resolver_cache_t *cache);

/**
 * Has (name, port) looked up in the background unless that is under way, and calls `handler` (may be null) once with
 * `context` after the next success. `name` may be null, as for kestal_open_resolver. 0; -1, and the handler is not kept,
 * when memory or a thread is lacking or the cache is null.
 */
KESTAL_API int32_t kestal_request_resolver_cache_with_handler(kestal_resolver_cache_t *cache, const char *name,
                                                              uint32_t port, kestal_resolver_handler_t handler,
                                                              void *context);

/** kestal_request_resolver_cache_with_handler without a handler. */
KESTAL_API int32_t kestal_request_resolver_cache(kestal_resolver_cache_t *cache, const char *name, uint32_t port);

/**
 * Requests (name, port) and returns a copy of the last result, waiting for the first one at most `timeout_ms` (negative:
 * no limit; 0: none), with failed look-ups repeated. The handler, which may be null, is kept as a request keeps it. A
 * null cache looks up on the caller's thread. A list, or null.
 */
KESTAL_API kestal_resolver_t *kestal_get_resolver_cache_with_handler(kestal_resolver_cache_t *cache, const char *name,
                                                                     uint32_t port, int32_t timeout_ms,
                                                                     kestal_resolver_handler_t handler, void *context);

/** kestal_get_resolver_cache_with_handler without a handler. */
KESTAL_API kestal_resolver_t *kestal_get_resolver_cache(kestal_resolver_cache_t *cache, const char *name, uint32_t port,
                                                        int32_t timeout_ms);

KESTAL_END_DECLS

#endif
