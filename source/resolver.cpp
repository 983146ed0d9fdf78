#include <kestal_ulx/resolver.h>

#include <kestal_ulx/address.h>
#include <kestal_ulx/assertion.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/service.h>
#include <kestal_ulx/socket.h>
#include <kestal_ulx/time_stamp.h>

#include "guard.hpp"
#include "list.hpp"
#include "lock_guard.hpp"
#include "socket_address.hpp"

#include <netdb.h>
#include <resolv.h>
#include <sched.h>

#include <algorithm>

namespace {

using kestal::doubly_linked_list;
using kestal::lock_guard;
using kestal::owned_block;
using kestal::short_lock_guard;
using kestal::socket_address;

struct handler_record {
    handler_record *m_previous;
    handler_record *m_next;
    kestal_resolver_handler_t m_handler;
    void *m_context;
};

enum class state : int32_t { resolving = -1, failed = 0, succeeded = 1 };

struct entry {
    entry *m_previous;
    entry *m_next;
    kestal_resolver_cache_t *m_cache;
    uint64_t m_last_use; // milliseconds
    const char *m_name;  // stands behind the record; may be null
    uint32_t m_port;
    kestal_resolver_t *m_list;
    handler_record *m_handler_head;
    handler_record *m_handler_tail;
    state m_status;
    bool m_runs;  // its thread is there: to look up, or still calling handlers
    bool m_again; // that thread is to look up once more when it is done
    kestal_service_t *m_service;
};

} // namespace

struct kestal_resolver_cache {
    kestal_lock_t m_lock; // guards all the rest
    int32_t m_expiry;     // milliseconds
    bool m_is_closing;    // no more requests
    entry *m_entry_head;
    entry *m_entry_tail;
};

namespace {

constexpr uint32_t port_limit = 65536;
constexpr uint64_t reload_interval_ms = 4000;
constexpr int quick_tries = 8; // of a get, before it begins to sleep

constinit kestal_short_lock_t reload_lock = 0;
constinit uint64_t reload_time = 0;
constinit bool has_reloaded = false;

// The process-wide cache.
constinit kestal_lock_t g_lock = KESTAL_LOCK_INITIALIZER("kestal_resolver_cache", __LINE__);
constinit kestal_resolver_cache_t *g_kestal_resolver_cache = nullptr;
constinit size_t g_kestal_resolver_cache_use_count = 0;

// The cache whose look-up the current thread makes; null from when a handler of it has closed it.
thread_local constinit kestal_resolver_cache_t *own_cache = nullptr;

// --- looking up

// One question to the system, and its answer.
class look_up {
public:
    look_up(const char *host, const char *service, const addrinfo &hints)
    {
        if (getaddrinfo(host, service, &hints, &first_) != 0)
            first_ = nullptr;
    }
    ~look_up()
    {
        if (first_ != nullptr)
            freeaddrinfo(first_);
    }
    look_up(const look_up &) = delete;
    look_up &operator=(const look_up &) = delete;

    const addrinfo *first() const { return first_; }

private:
    addrinfo *first_ = nullptr;
};

enum class asking_again { always, reloaded };

// Asks, and once more after a failure: whenever, or only if the system's configuration could be read again.
template <typename Use>
void ask(const char *host, const char *service, const addrinfo &hints, asking_again when, Use use)
{
    if (const look_up answer(host, service, hints); answer.first() != nullptr)
        return use(answer.first());
    if (kestal_reload_resolver() != 0 && when == asking_again::reloaded)
        return;
    if (const look_up answer(host, service, hints); answer.first() != nullptr)
        use(answer.first());
}

// A host that is an address or nothing needs no look-up.
bool is_numeric(const char *host)
{
    return host == nullptr || host[0] == '\0' || kestal_inet_pton(AF_INET, host, nullptr) == 0 ||
           kestal_inet_pton(AF_INET6, host, nullptr) == 0;
}

kestal_resolver_t *new_record(const void *address, const char *tag)
{
    const uint32_t size = kestal_sockaddr_size(address);
    char text[KESTAL_ADDRESS_TEXT_SIZE];
    uint32_t port = 0;
    kestal_inet_stopp(address, text, sizeof text, &port);
    const size_t text_size = strlen(text) + 1;
    char *block = static_cast<char *>(kestal_alloc_tag(sizeof(kestal_resolver_t) + size + text_size, tag, __LINE__));
    if (block == nullptr)
        return nullptr;
    char *behind = block + sizeof(kestal_resolver_t);
    auto *record = reinterpret_cast<kestal_resolver_t *>(block);
    *record = {.m_next = nullptr,
               .m_family = kestal_sockaddr_domain(address),
               .m_address_length = size,
               .m_address = memcpy(behind, address, size),
               .m_text = static_cast<char *>(memcpy(behind + size, text, text_size)),
               .m_port = port};
    return record;
}

kestal_resolver_t *records_of(const addrinfo *answer)
{
    kestal_resolver_t *list = nullptr;
    kestal_resolver_t **end = &list;
    for (; answer != nullptr; answer = answer->ai_next) {
        if (answer->ai_family != AF_INET && answer->ai_family != AF_INET6)
            continue;
        *end = new_record(answer->ai_addr, "__kestal_open_resolver_internal");
        if (*end != nullptr)
            end = &(*end)->m_next;
    }
    return list;
}

kestal_resolver_t *resolve(const char *host, uint32_t port)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_RAW;
    // An address is handed on as the system writes it: brackets, prefix and port are this library's.
    socket_address numeric;
    char text[KESTAL_ADDRESS_TEXT_SIZE];
    if (host != nullptr && host[0] == '\0')
        host = nullptr;
    if (host == nullptr)
        hints.ai_flags = AI_PASSIVE;
    else if (kestal_inet_ptos(AF_INET, host, 0, &numeric, sizeof numeric) == 0 ||
             kestal_inet_ptos(AF_INET6, host, 0, &numeric, sizeof numeric) == 0) {
        hints.ai_flags = AI_NUMERICHOST;
        host = kestal_inet_stop(&numeric, text, sizeof text);
    }
    char service[16];
    const bool has_service = port < port_limit || host == nullptr; // the system wants a host or a service
    if (has_service) {
        kestal_snprintf(service, sizeof service, "%u", port < port_limit ? port : 0);
        hints.ai_socktype = SOCK_DGRAM;
        hints.ai_protocol = kestal_get_protocol_by_name("udp");
    }
    kestal_resolver_t *list = nullptr;
    ask(host, has_service ? service : nullptr, hints, asking_again::reloaded,
        [&list](const addrinfo *answer) { list = records_of(answer); });
    return list;
}

// --- entries

doubly_linked_list entries_of(kestal_resolver_cache_t &cache)
{
    return {&cache.m_entry_head, &cache.m_entry_tail, offsetof(entry, m_previous), offsetof(entry, m_next)};
}

doubly_linked_list handlers_of(entry &of)
{
    return {&of.m_handler_head, &of.m_handler_tail, offsetof(handler_record, m_previous),
            offsetof(handler_record, m_next)};
}

bool is_for(const entry &candidate, const char *name, uint32_t port)
{
    if (candidate.m_port != port)
        return false;
    if (name == nullptr || candidate.m_name == nullptr)
        return name == candidate.m_name;
    return strcmp(candidate.m_name, name) == 0;
}

// Releases entries that are on no list any more, without the cache's lock: their threads may want it. All threads are
// waited for but that of the service `own`, in which this is called.
void free_entries(entry *head, const kestal_service_t *own = nullptr)
{
    while (entry *each = head) {
        head = each->m_next;
        if (each->m_service != nullptr)
            kestal_close_service_ex(each->m_service, each->m_service == own ? 0 : -1);
        while (handler_record *handler = each->m_handler_head) {
            each->m_handler_head = handler->m_next;
            kestal_free_tag(handler, "kestal_free_resolver_handler_queue", __LINE__);
        }
        kestal_close_resolver(each->m_list);
        kestal_free_tag(each, "kestal_free_resolver_cache_queue", __LINE__);
    }
}

// What a request leaves to be done without the cache's lock: made before the lock is taken, it goes after it is freed.
struct leftovers {
    leftovers() = default;
    ~leftovers()
    {
        free_entries(expired);
        // Its function has done with the cache and is about to return.
        if (service != nullptr)
            kestal_close_service(service);
    }
    leftovers(const leftovers &) = delete;
    leftovers &operator=(const leftovers &) = delete;

    entry *expired = nullptr;
    kestal_service_t *service = nullptr;
};

entry *add_entry(kestal_resolver_cache_t &cache, const char *name, uint32_t port)
{
    const size_t name_size = name == nullptr ? 0 : strlen(name) + 1;
    auto *fresh = static_cast<entry *>(
        kestal_calloc_tag(1, sizeof(entry) + name_size, "kestal_new_resolver_cache_queue", __LINE__));
    if (fresh == nullptr)
        return nullptr;
    if (name != nullptr)
        fresh->m_name = static_cast<char *>(memcpy(fresh + 1, name, name_size));
    fresh->m_cache = &cache;
    fresh->m_port = port;
    fresh->m_last_use = kestal_time_stamp_msec();
    fresh->m_status = state::resolving;
    entries_of(cache).prepend(fresh);
    return fresh;
}

// The entry of (name, port), or null. Takes what has expired off the cache on its way.
entry *find_entry(kestal_resolver_cache_t &cache, const char *name, uint32_t port, leftovers &left)
{
    const uint64_t now = kestal_time_stamp_msec();
    const uint64_t expiry = cache.m_expiry > 0 ? static_cast<uint64_t>(cache.m_expiry) : UINT64_MAX;
    entry *found = nullptr;
    for (entry *each = cache.m_entry_head, *next = nullptr; each != nullptr; each = next) {
        next = each->m_next;
        if (is_for(*each, name, port)) {
            if (found != nullptr)
                continue;
            found = each;
            each->m_last_use = now;
            if (cache.m_expiry < 0)
                break;
        } else if (!each->m_runs && now - each->m_last_use >= expiry) {
            entries_of(cache).remove(each);
            each->m_next = std::exchange(left.expired, each);
        }
    }
    return found;
}

handler_record *add_handler(entry &to, kestal_resolver_handler_t handler, void *context)
{
    auto *record = static_cast<handler_record *>(
        kestal_calloc_tag(1, sizeof(handler_record), "kestal_new_resolver_handler_queue", __LINE__));
    if (record == nullptr)
        return nullptr;
    record->m_handler = handler;
    record->m_context = context;
    handlers_of(to).append(record);
    return record;
}

// --- the thread of an entry

// Stores a result; on success gives the handlers to call.
handler_record *store(entry &of, kestal_resolver_t *list)
{
    const lock_guard guard(of.m_cache->m_lock);
    of.m_status = list == nullptr ? state::failed : state::succeeded;
    if (list == nullptr)
        return nullptr;
    kestal_close_resolver(std::exchange(of.m_list, list));
    of.m_last_use = kestal_time_stamp_msec();
    of.m_handler_tail = nullptr;
    return std::exchange(of.m_handler_head, nullptr);
}

bool goes_on(entry &of)
{
    const lock_guard guard(of.m_cache->m_lock);
    of.m_runs = std::exchange(of.m_again, false);
    return of.m_runs;
}

// Releases a cache; `own` is the service of its look-ups in which that happens, or null.
void destroy(kestal_resolver_cache_t *cache, const kestal_service_t *own)
{
    entry *entries = nullptr;
    {
        const lock_guard guard(cache->m_lock);
        entries = std::exchange(cache->m_entry_head, nullptr);
        cache->m_entry_tail = nullptr;
        cache->m_is_closing = true;
        for (entry *each = entries; each != nullptr; each = each->m_next)
            each->m_again = false;
    }
    free_entries(entries, own);
    kestal_uninit_lock(&cache->m_lock);
    kestal_free_tag(cache, "kestal_close_resolver_cache", __LINE__);
}

void kestal_resolver_cache_service_handler(kestal_service_t *service, void *argument)
{
    auto &of = *static_cast<entry *>(argument);
    kestal_ack_service(service);
    own_cache = of.m_cache;
    do {
        handler_record *handler = store(of, resolve(of.m_name, of.m_port));
        while (handler_record *each = handler) {
            handler = each->m_next;
            each->m_handler(of.m_cache, 1, of.m_name, of.m_port, each->m_context);
            kestal_free_tag(each, "kestal_free_resolver_handler_queue", __LINE__);
        }
    } while (own_cache != nullptr && goes_on(of));
    if (std::exchange(own_cache, nullptr) == nullptr)
        destroy(of.m_cache, service);
}

// Has the entry looked up, unless that is under way. False when there is no thread for it.
bool start(entry &of, leftovers &left)
{
    if (of.m_runs) {
        // A thread that still calls handlers looks up once more afterwards: there is one thread to an entry at most.
        of.m_again |= of.m_status != state::resolving;
        of.m_status = state::resolving;
        return true;
    }
    left.service = std::exchange(of.m_service, nullptr);
    of.m_status = state::resolving;
    of.m_runs = true;
    of.m_service = kestal_open_service_ex("resolver_cache", kestal_resolver_cache_service_handler, &of, 0);
    if (of.m_service != nullptr)
        return true;
    of.m_status = state::failed;
    of.m_runs = false;
    return false;
}

// --- requests

struct request {
    const char *name;
    uint32_t port;
    kestal_resolver_handler_t handler;
    void *context;
};

// Makes a request with the lock held: its entry, or null.
entry *make(kestal_resolver_cache_t &cache, const request &wanted, leftovers &left)
{
    if (cache.m_is_closing)
        return nullptr;
    entry *found = find_entry(cache, wanted.name, wanted.port, left);
    if (found == nullptr)
        found = add_entry(cache, wanted.name, wanted.port);
    if (found == nullptr)
        return nullptr;
    handler_record *handler = wanted.handler == nullptr ? nullptr : add_handler(*found, wanted.handler, wanted.context);
    if (wanted.handler != nullptr && handler == nullptr)
        return nullptr;
    if (start(*found, left))
        return found;
    if (handler != nullptr) {
        handlers_of(*found).remove(handler);
        kestal_free_tag(handler, "kestal_free_resolver_handler_queue", __LINE__);
    }
    return nullptr;
}

struct outcome {
    bool is_accepted;
    bool has_failed; // the request, or the last look-up
    bool is_closing;
    kestal_resolver_t *list;
};

// Makes a request and looks at what there is, under one holding of the lock.
outcome make_and_look(kestal_resolver_cache_t &cache, const request &wanted)
{
    leftovers left;
    const lock_guard guard(cache.m_lock);
    const entry *found = make(cache, wanted, left);
    return {.is_accepted = found != nullptr,
            .has_failed = found == nullptr,
            .is_closing = cache.m_is_closing,
            .list = found == nullptr ? nullptr : kestal_duplicate_resolver(found->m_list)};
}

// Looks again at what was requested before, without asking for a further look-up.
outcome look_again(kestal_resolver_cache_t &cache, const request &wanted)
{
    const lock_guard guard(cache.m_lock);
    for (entry *each = cache.m_entry_head; each != nullptr; each = each->m_next)
        if (is_for(*each, wanted.name, wanted.port)) {
            each->m_last_use = kestal_time_stamp_msec();
            return {.is_accepted = true,
                    .has_failed = each->m_status == state::failed,
                    .is_closing = false,
                    .list = kestal_duplicate_resolver(each->m_list)};
        }
    return {.is_accepted = true, .has_failed = true, .is_closing = cache.m_is_closing, .list = nullptr};
}

// Yields the longer the more often it had to, and long after a failure: the next look-up would fail as well.
void yield_before(int tries, bool has_failed)
{
    if (has_failed)
        kestal_load_balance_long();
    else if (tries < quick_tries)
        sched_yield();
    else
        kestal_load_balance_short();
}

// A list, waited for. Not even tried twice when the first request is refused and the caller wants to know that.
kestal_resolver_t *get(kestal_resolver_cache_t &cache, request wanted, int32_t timeout_ms, bool *is_accepted)
{
    const uint64_t begin = kestal_time_stamp_msec();
    outcome result = make_and_look(cache, wanted);
    if (is_accepted != nullptr)
        *is_accepted = result.is_accepted;
    if (is_accepted != nullptr && !result.is_accepted)
        return nullptr;
    for (int tries = 0; result.list == nullptr && !result.is_closing; ++tries) {
        if (timeout_ms >= 0 && kestal_time_stamp_msec() - begin >= static_cast<uint64_t>(timeout_ms))
            return nullptr;
        // A handler that was accepted once waits for a success already.
        if (result.is_accepted)
            wanted.handler = nullptr;
        yield_before(tries, result.has_failed);
        result = result.has_failed ? make_and_look(cache, wanted) : look_again(cache, wanted);
    }
    return result.list;
}

// --- caches

kestal_resolver_cache_t *new_cache(int32_t expiry_ms)
{
    auto *cache = static_cast<kestal_resolver_cache_t *>(
        kestal_calloc_tag(1, sizeof(kestal_resolver_cache_t), "kestal_open_resolver_cache_ex", __LINE__));
    if (cache == nullptr)
        return nullptr;
    kestal_init_lock(&cache->m_lock);
    cache->m_expiry = expiry_ms;
    return cache;
}

void check_shared(bool holds, uint64_t line, const char *message)
{
    if (!holds)
        kestal_assert_fail_tag("./source/resolver.c", "kestal_open_resolver_cache_ex", line, message);
}

kestal_resolver_cache_t *open_shared(int32_t expiry_ms)
{
    const lock_guard guard(g_lock);
    if (g_kestal_resolver_cache == nullptr) {
        check_shared(g_kestal_resolver_cache_use_count == 0, __LINE__,
                     "g_kestal_resolver_cache_use_count == (size_t)0u");
        g_kestal_resolver_cache = new_cache(expiry_ms);
        check_shared(g_kestal_resolver_cache != nullptr, __LINE__,
                     "g_kestal_resolver_cache != ((kestal_resolver_cache_t *)0)");
        g_kestal_resolver_cache_use_count = 0;
    }
    if (g_kestal_resolver_cache != nullptr)
        ++g_kestal_resolver_cache_use_count;
    return g_kestal_resolver_cache;
}

// Whether the cache is to go: a private one, or the shared one with its last user.
bool give_back(const kestal_resolver_cache_t *cache)
{
    const lock_guard guard(g_lock);
    if (cache != g_kestal_resolver_cache)
        return true;
    if (--g_kestal_resolver_cache_use_count > 0)
        return false;
    g_kestal_resolver_cache = nullptr;
    return true;
}

} // namespace

kestal_resolver_t *kestal_open_resolver(const char *host, uint32_t port)
{
    return kestal_open_resolver_ex(host, port, -1);
}

kestal_resolver_t *kestal_open_resolver_ex(const char *host, uint32_t port, int32_t timeout_ms)
{
    if (timeout_ms < 0 || is_numeric(host))
        return resolve(host, port);
    kestal_resolver_cache_t *cache = kestal_open_resolver_cache();
    if (cache == nullptr)
        return resolve(host, port);
    bool is_accepted = false;
    kestal_resolver_t *list = get(*cache, {host, port, nullptr, nullptr}, timeout_ms, &is_accepted);
    kestal_close_resolver_cache(cache);
    return is_accepted ? list : resolve(host, port);
}

kestal_resolver_t *kestal_close_resolver(kestal_resolver_t *list)
{
    while (list != nullptr)
        kestal_free(std::exchange(list, list->m_next));
    return nullptr;
}

kestal_resolver_t *kestal_duplicate_resolver(const kestal_resolver_t *list)
{
    kestal_resolver_t *copy = nullptr;
    kestal_resolver_t **end = &copy;
    for (; list != nullptr; list = list->m_next) {
        *end = new_record(list->m_address, __func__);
        if (*end != nullptr)
            end = &(*end)->m_next;
    }
    return copy;
}

int32_t kestal_reload_resolver(void)
{
    {
        const short_lock_guard guard(reload_lock);
        const uint64_t now = kestal_time_stamp_msec();
        if (has_reloaded && now - reload_time < reload_interval_ms)
            return -1;
        has_reloaded = true;
        reload_time = now;
    }
    return res_init() == 0 ? 0 : -1;
}

char *kestal_get_fqdn_alloc_tag(const char *name, uint64_t line)
{
    const owned_block<char> host(kestal_get_hostname_alloc_tag(name, line), name);
    if (!host)
        return nullptr;
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    char *fqdn = nullptr;
    ask(host.get(), "http", hints, asking_again::always, [&](const addrinfo *answer) {
        while (answer != nullptr && (answer->ai_canonname == nullptr || answer->ai_canonname[0] == '\0'))
            answer = answer->ai_next;
        if (answer != nullptr)
            fqdn = kestal_strdup_tag(answer->ai_canonname, name, line);
    });
    return fqdn;
}

kestal_resolver_cache_t *kestal_open_resolver_cache(void)
{
    return kestal_open_resolver_cache_ex(1, KESTAL_RESOLVER_CACHE_EXPIRY);
}

kestal_resolver_cache_t *kestal_open_resolver_cache_ex(uint32_t shared, int32_t expiry_ms)
{
    return shared != 0 ? open_shared(expiry_ms) : new_cache(expiry_ms);
}

kestal_resolver_cache_t *kestal_close_resolver_cache(kestal_resolver_cache_t *cache)
{
    if (cache == nullptr || !give_back(cache))
        return nullptr;
    if (cache == own_cache)
        own_cache = nullptr; // its look-up, in a handler of which this is, does it when it is done
    else
        destroy(cache, nullptr);
    return nullptr;
}

int32_t kestal_request_resolver_cache_with_handler(kestal_resolver_cache_t *cache, const char *name, uint32_t port,
                                                   kestal_resolver_handler_t handler, void *context)
{
    if (cache == nullptr)
        return -1;
    leftovers left;
    const lock_guard guard(cache->m_lock);
    return make(*cache, {name, port, handler, context}, left) != nullptr ? 0 : -1;
}

int32_t kestal_request_resolver_cache(kestal_resolver_cache_t *cache, const char *name, uint32_t port)
{
    return kestal_request_resolver_cache_with_handler(cache, name, port, nullptr, nullptr);
}

kestal_resolver_t *kestal_get_resolver_cache_with_handler(kestal_resolver_cache_t *cache, const char *name,
                                                          uint32_t port, int32_t timeout_ms,
                                                          kestal_resolver_handler_t handler, void *context)
{
    if (cache == nullptr)
        return resolve(name, port);
    return get(*cache, {name, port, handler, context}, timeout_ms, nullptr);
}

kestal_resolver_t *kestal_get_resolver_cache(kestal_resolver_cache_t *cache, const char *name, uint32_t port,
                                             int32_t timeout_ms)
{
    return kestal_get_resolver_cache_with_handler(cache, name, port, timeout_ms, nullptr, nullptr);
}
