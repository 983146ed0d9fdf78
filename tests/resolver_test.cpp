#include "descriptors.hpp"
#include "namespaces.hpp"

#include <atomic>
#include <future>
#include <unistd.h>

using kestal_test::caught_errors;
using kestal_test::wait_until;
using kestal_test::with_hosts;

namespace {

class resolver : public kestal_test::descriptors_counted {};

// A list as "TEXT:PORT ...", released.
std::string taken(kestal_resolver_t *list)
{
    std::string text;
    for (const kestal_resolver_t *each = list; each != nullptr; each = each->m_next) {
        text += each->m_text + (":" + std::to_string(each->m_port)) + " ";
        EXPECT_EQ(each->m_address_length, kestal_sockaddr_size(each->m_address));
        EXPECT_EQ(each->m_family, kestal_sockaddr_domain(each->m_address));
        EXPECT_EQ(each->m_port, kestal_sockaddr_get_port(each->m_address));
    }
    EXPECT_EQ(kestal_close_resolver(list), nullptr);
    return text;
}

TEST_F(resolver, answers_numbers_without_a_look_up)
{
    for (const int32_t timeout : {-1, 0, 1000}) {
        for (const auto &[host, port, list] : {std::tuple("127.0.0.1", 80u, "127.0.0.1:80 "),
                                               {"[127.0.0.1]", 0u, "127.0.0.1:0 "},
                                               {"010.1.2.3/8", 65535u, "10.1.2.3:65535 "},
                                               {"1.2.3.4:9", 65536u, "1.2.3.4:0 "},
                                               {"::1", 80u, "::1:80 "},
                                               {"[::ffff:1.2.3.4]:9", 80u, "::ffff:1.2.3.4:80 "},
                                               {"fe80::1%lo", 1u, "fe80::1%1:1 "}})
            EXPECT_EQ(taken(kestal_open_resolver_ex(host, port, timeout)), list) << host;
        for (const char *host : {static_cast<const char *>(nullptr), ""}) {
            const std::string any = taken(kestal_open_resolver_ex(host, 80, timeout));
            EXPECT_NE(any.find("0.0.0.0:80 "), std::string::npos) << any;
            EXPECT_EQ(any.find(":::80 ") != std::string::npos, kestal_check_ipv6_support() == 0) << any;
            EXPECT_NE(taken(kestal_open_resolver_ex(host, 65536, timeout)).find("0.0.0.0:0 "), std::string::npos);
        }
    }
    kestal_resolver_t *list = kestal_open_resolver("1.2.3.4", 5);
    EXPECT_EQ(taken(kestal_duplicate_resolver(list)), "1.2.3.4:5 ");
    EXPECT_EQ(taken(list), "1.2.3.4:5 ");
    EXPECT_EQ(kestal_duplicate_resolver(nullptr), nullptr);
    EXPECT_EQ(kestal_test::with_each_allocation_failing([] { taken(kestal_open_resolver_ex("1.2.3.4", 5, 9)); }), 1u);
}

TEST_F(resolver, reads_its_configuration_again_now_and_then)
{
    kestal_test::advance_clock(4000);
    EXPECT_EQ(kestal_reload_resolver(), 0);
    EXPECT_EQ(kestal_reload_resolver(), -1);
    kestal_test::advance_clock(3500); // the refused call does not count
    EXPECT_EQ(kestal_reload_resolver(), -1);
    kestal_test::advance_clock(500);
    EXPECT_EQ(kestal_reload_resolver(), 0);
}

TEST_F(resolver, looks_names_up)
{
    with_hosts("127.0.0.1 localhost\n10.0.0.1 one\n10.0.0.2 two\n10.0.0.3 two\nfd00::2 two\n", [](const auto &) {
        kestal_test::run("ip addr add 10.9.9.9/8 dev lo; ip -6 addr add fd00::9/64 dev lo nodad");
        EXPECT_EQ(taken(kestal_open_resolver("one", 80)), "10.0.0.1:80 ");
        EXPECT_EQ(taken(kestal_open_resolver("one", 65536)), "10.0.0.1:0 ");
        EXPECT_EQ(taken(kestal_open_resolver_ex("one", 80, 60000)), "10.0.0.1:80 ");
        const std::string two = taken(kestal_open_resolver("two", 7));
        for (const char *part : {"10.0.0.2:7 ", "10.0.0.3:7 ", "fd00::2:7 "})
            EXPECT_NE(two.find(part), std::string::npos) << two;
        kestal_test::advance_clock(4000); // an unknown name costs one reading of the configuration
        EXPECT_EQ(kestal_open_resolver("nobody", 80), nullptr);
        EXPECT_EQ(kestal_reload_resolver(), -1);
        EXPECT_EQ(kestal_open_resolver("nobody", 80), nullptr);
        EXPECT_EQ(kestal_open_resolver_ex("nobody", 80, 150), nullptr);

        EXPECT_EQ(sethostname("box", 3), 0);
        EXPECT_EQ(kestal_get_fqdn_alloc(), nullptr);
        EXPECT_GE(kestal_test::with_each_allocation_failing([] {
                      taken(kestal_open_resolver_ex("one", 80, 1000));
                      kestal_check_free(kestal_get_fqdn_alloc());
                  }),
                  5u);
    });
}

// What handlers were told: "NAME:PORT:IS_NEW ".
struct told {
    std::mutex mutex;
    std::string text;
    std::atomic<int> calls{0};
    std::function<void(kestal_resolver_cache_t *)> action = [](kestal_resolver_cache_t *) {};

    static void handler(kestal_resolver_cache_t *cache, int32_t is_new, const char *name, uint32_t port, void *context)
    {
        auto *self = static_cast<told *>(context);
        self->action(cache);
        {
            const std::lock_guard guard(self->mutex);
            self->text +=
                (name == nullptr ? "-" : name) + (":" + std::to_string(port)) + ":" + std::to_string(is_new) + " ";
        }
        ++self->calls; // last: whoever waits for it may go
    }
};

TEST_F(resolver, caches_and_refreshes)
{
    with_hosts("10.0.0.1 one\n", [](const auto &set_hosts) {
        kestal_resolver_cache_t *cache = kestal_open_resolver_cache_ex(0, 0);
        const auto now = [cache](const char *name) { return taken(kestal_get_resolver_cache(cache, name, 80, 0)); };
        told told;
        EXPECT_EQ(now("one"), "");
        wait_until([&] { return now("one") == "10.0.0.1:80 "; });
        // A get answers with the last result at once and has it looked up again meanwhile.
        set_hosts("10.0.0.7 one\n");
        EXPECT_NE(now("one"), "");
        wait_until([&] { return now("one") == "10.0.0.7:80 "; });
        EXPECT_EQ(taken(kestal_get_resolver_cache(cache, "127.0.0.1", 1, -1)), "127.0.0.1:1 ");
        EXPECT_NE(taken(kestal_get_resolver_cache(cache, nullptr, 2, 60000)).find("0.0.0.0:2 "), std::string::npos);

        // Handlers hear of the next success only, once each and in order.
        EXPECT_EQ(kestal_request_resolver_cache_with_handler(cache, "late", 9, told::handler, &told), 0);
        EXPECT_EQ(kestal_get_resolver_cache_with_handler(cache, "late", 9, 250, told::handler, &told), nullptr);
        EXPECT_EQ(told.calls, 0);
        set_hosts("10.0.0.9 late\n");
        EXPECT_EQ(taken(kestal_get_resolver_cache(cache, "late", 9, 60000)), "10.0.0.9:9 ");
        wait_until([&] { return told.calls == 2; });
        EXPECT_EQ(told.text, "late:9:1 late:9:1 ");
        EXPECT_EQ(kestal_request_resolver_cache(cache, "never", 9), 0);
        EXPECT_EQ(kestal_request_resolver_cache_with_handler(cache, "never", 9, told::handler, &told), 0);
        EXPECT_EQ(kestal_close_resolver_cache(cache), nullptr);
        EXPECT_EQ(told.calls, 2);
    });
    EXPECT_EQ(taken(kestal_get_resolver_cache(nullptr, "127.0.0.1", 1, 0)), "127.0.0.1:1 ");
    EXPECT_EQ(kestal_request_resolver_cache(nullptr, "127.0.0.1", 1), -1);
    EXPECT_EQ(kestal_close_resolver_cache(nullptr), nullptr);
}

// A cache in which the numeric name has a result; its look-up is over.
void fill(kestal_resolver_cache_t *cache, const char *name)
{
    told told;
    kestal_resolver_t *list = kestal_get_resolver_cache_with_handler(cache, name, 1, -1, told::handler, &told);
    EXPECT_NE(list, nullptr);
    kestal_close_resolver(list);
    wait_until([&] { return told.calls == 1; });
    EXPECT_EQ(kestal_thread_pool_wait(-1), 0); // the thread of the look-up has gone too
}

TEST_F(resolver, forgets_what_nobody_asked_for)
{
    for (const auto &[expiry, advance, remains] : {std::tuple(1000000, 500000u, true),
                                                   {1000000, 1000000u, false},
                                                   {0, 1000000000u, true},
                                                   {-1, 1000000000u, true}}) {
        kestal_resolver_cache_t *cache = kestal_open_resolver_cache_ex(0, expiry);
        fill(cache, "127.0.0.1");
        fill(cache, "127.0.0.2");
        kestal_test::advance_clock(advance);
        fill(cache, "127.0.0.2"); // sweeps the other, and never itself
        kestal_resolver_t *list = kestal_get_resolver_cache(cache, "127.0.0.1", 1, 0);
        EXPECT_EQ(list != nullptr, remains) << expiry;
        kestal_close_resolver(list);
        kestal_close_resolver_cache(cache);
    }
}

TEST_F(resolver, lets_handlers_use_the_cache)
{
    kestal_resolver_cache_t *cache = kestal_open_resolver_cache_ex(0, 1);
    told told;
    told.action = [&told](kestal_resolver_cache_t *own) {
        EXPECT_NE(taken(kestal_get_resolver_cache(own, "127.0.0.1", 1, -1)), ""); // its own name
        EXPECT_NE(taken(kestal_get_resolver_cache(own, "127.0.0.2", 1, -1)), "");
        if (told.calls < 20) {
            EXPECT_EQ(kestal_request_resolver_cache_with_handler(own, "127.0.0.1", 1, told::handler, &told), 0);
        }
    };
    EXPECT_EQ(kestal_request_resolver_cache_with_handler(cache, "127.0.0.1", 1, told::handler, &told), 0);
    wait_until([&] { return told.calls > 20; });
    kestal_close_resolver_cache(cache);
    // The last use of the shared one may end in its own handler.
    const uint64_t blocks = kestal_get_alloc_count();
    cache = kestal_open_resolver_cache();
    EXPECT_EQ(kestal_open_resolver_cache(), cache);
    std::promise<void> entered;
    std::promise<void> released;
    struct told last;
    last.action = [&](kestal_resolver_cache_t *own) {
        entered.set_value();
        released.get_future().wait();
        EXPECT_EQ(kestal_close_resolver_cache(own), nullptr);
    };
    EXPECT_EQ(kestal_request_resolver_cache_with_handler(cache, "127.0.0.1", 1, told::handler, &last), 0);
    entered.get_future().wait();
    kestal_close_resolver_cache(cache);
    released.set_value();
    wait_until([&] { return last.calls == 1; });
    wait_until([=] { return kestal_get_alloc_count() == blocks; });
}

TEST_F(resolver, serves_many_threads)
{
    kestal_resolver_cache_t *cache = kestal_open_resolver_cache_ex(0, 1); // sweeps all the time
    std::vector<std::thread> threads;
    told told;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&, t] {
            for (uint32_t i = 0; i < 60; ++i) {
                const std::string name = "127.0.0." + std::to_string(i % 4);
                EXPECT_EQ(
                    taken(kestal_get_resolver_cache_with_handler(cache, name.c_str(), i % 3, -1, told::handler, &told)),
                    name + ":" + std::to_string(i % 3) + " ");
                if (t == 0)
                    kestal_test::advance_clock(1);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    kestal_close_resolver_cache(cache); // handlers of refreshes under way are called or freed
    EXPECT_GT(told.calls, 0);
}

TEST_F(resolver, survives_failing_allocations)
{
    kestal_test::with_each_allocation_failing([] {
        told told;
        kestal_resolver_cache_t *cache = kestal_open_resolver_cache_ex(0, 0);
        const int32_t result = kestal_request_resolver_cache_with_handler(cache, "127.0.0.1", 1, told::handler, &told);
        taken(kestal_get_resolver_cache(cache, "127.0.0.1", 1, 0));
        kestal_close_resolver_cache(cache);
        EXPECT_LE(told.calls, result == 0 ? 1 : 0);
    });
}

} // namespace
