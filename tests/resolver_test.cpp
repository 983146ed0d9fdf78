#include "descriptors.hpp"
#include "namespaces.hpp"

#include <atomic>
#include <unistd.h>

using kestal_test::wait_until;
using kestal_test::with_each_allocation_failing;
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

// A handler's context: counts its calls, after it has done what the test wants.
struct told {
    std::function<void(kestal_resolver_cache_t *, const std::string &)> action = [](auto *, const auto &) {};
    std::atomic<int> calls{0};

    static void handler(kestal_resolver_cache_t *cache, int32_t is_new, const char *name, uint32_t port, void *context)
    {
        auto *self = static_cast<told *>(context);
        self->action(cache, name + (":" + std::to_string(port)) + ":" + std::to_string(is_new));
        ++self->calls; // last: whoever waits for it may go
    }
};

TEST_F(resolver, answers_numbers_without_a_look_up)
{
    const std::string any = kestal_check_ipv6_support() == 0 ? "0.0.0.0:80 :::80 " : "0.0.0.0:80 ";
    for (const int32_t timeout : {-1, 0})
        for (const auto &[host, port, list] :
             {std::tuple<const char *, uint32_t, std::string>("[127.0.0.1]", 0, "127.0.0.1:0 "),
              {"010.1.2.3/8", 65535, "10.1.2.3:65535 "},
              {"1.2.3.4:9", 65536, "1.2.3.4:0 "},
              {"[::ffff:1.2.3.4]:9", 80, "::ffff:1.2.3.4:80 "},
              {"fe80::1%lo", 1, "fe80::1%1:1 "},
              {nullptr, 80, any},
              {"", 80, any}})
            EXPECT_EQ(taken(kestal_open_resolver_ex(host, port, timeout)), list);
    for (const auto &[advance, result] :
         {std::pair(4000u, 0), {100, -1}, {3900, 0}}) { // what is refused does not count
        kestal_test::advance_clock(advance);
        EXPECT_EQ(kestal_reload_resolver(), result) << advance;
    }
}

TEST_F(resolver, looks_names_up)
{
    with_hosts("10.0.0.1 one\n10.0.0.2 two\n10.0.0.3 two\nfd00::2 six\n", [](const auto &set_hosts) {
        kestal_test::run("ip addr add 10.9.9.9/8 dev lo; ip -6 addr add fd00::9/64 dev lo nodad");
        for (const auto &[name, port, timeout, list] : {std::tuple("one", 65536u, -1, "10.0.0.1:0 "),
                                                        {"two", 7, 60000, "10.0.0.2:7 10.0.0.3:7 "},
                                                        {"six", 7, -1, "fd00::2:7 "},
                                                        {"nobody", 80, 150, ""}})
            EXPECT_EQ(taken(kestal_open_resolver_ex(name, port, timeout)), list) << name;
        kestal_test::advance_clock(4000); // an unknown name costs one reading of the configuration
        EXPECT_EQ(kestal_open_resolver("nobody", 80), nullptr);
        EXPECT_EQ(kestal_reload_resolver(), -1);

        ASSERT_EQ(sethostname("box", 3), 0);
        EXPECT_EQ(kestal_get_fqdn_alloc(), nullptr);
        set_hosts("10.0.0.1 one\n10.0.0.5 box.example.net box\n");
        EXPECT_EQ(kestal_test::owned(kestal_get_fqdn_alloc()), "box.example.net");
        const kestal_test::caught_assertions reports;
        EXPECT_GE(with_each_allocation_failing([] {
                      taken(kestal_open_resolver_ex("one", 80, 1000));
                      kestal_check_free(kestal_get_fqdn_alloc());
                  }),
                  5u);
        EXPECT_EQ(reports.distinct(),
                  std::set<std::string>{"g_kestal_resolver_cache != ((kestal_resolver_cache_t *)0)"});
    });
}

TEST_F(resolver, caches_and_refreshes)
{
    with_hosts("10.0.0.1 one\n", [](const auto &set_hosts) {
        kestal_resolver_cache_t *cache = kestal_open_resolver_cache_ex(0, 0);
        const auto now = [cache] { return taken(kestal_get_resolver_cache(cache, "one", 80, 0)); };
        EXPECT_EQ(now(), "");
        wait_until([&] { return now() == "10.0.0.1:80 "; });
        // A get answers with the last result at once and has it looked up again meanwhile.
        set_hosts("10.0.0.7 one\n");
        EXPECT_NE(now(), "");
        wait_until([&] { return now() == "10.0.0.7:80 "; });

        EXPECT_EQ(taken(kestal_get_resolver_cache(cache, nullptr, 2, 60000)).rfind("0.0.0.0:2 ", 0), 0u);
        // Handlers hear of the next success only, once each and in order.
        std::string all;
        told first, second;
        first.action = [&](auto *, const std::string &what) { all += "first " + what; };
        second.action = [&](auto *, const std::string &what) { all += " second " + what; };
        EXPECT_EQ(kestal_request_resolver_cache_with_handler(cache, "late", 9, told::handler, &first), 0);
        EXPECT_EQ(kestal_get_resolver_cache_with_handler(cache, "late", 9, 250, told::handler, &second), nullptr);
        EXPECT_EQ(all, "");
        set_hosts("10.0.0.9 late\n");
        EXPECT_EQ(taken(kestal_get_resolver_cache(cache, "late", 9, 60000)), "10.0.0.9:9 ");
        wait_until([&] { return second.calls == 1; });
        EXPECT_EQ(kestal_request_resolver_cache_with_handler(cache, "never", 9, told::handler, &first), 0);
        EXPECT_EQ(kestal_close_resolver_cache(cache), nullptr);
        EXPECT_EQ(all, "first late:9:1 second late:9:1");
    });
    EXPECT_EQ(taken(kestal_get_resolver_cache(nullptr, "127.0.0.1", 1, 0)), "127.0.0.1:1 ");
    EXPECT_EQ(kestal_request_resolver_cache(nullptr, "127.0.0.1", 1), -1);
}

TEST_F(resolver, forgets_what_nobody_asked_for)
{
    for (const auto &[expiry, advance, remains] : {std::tuple(1000000, 500000u, true),
                                                   {1000000, 1000000u, false},
                                                   {0, 1000000000u, true},
                                                   {-1, 1000000000u, true}}) {
        kestal_resolver_cache_t *cache = kestal_open_resolver_cache_ex(0, expiry);
        for (const char *name : {"127.0.0.1", "127.0.0.2", "127.0.0.2"}) { // the last sweeps the first, never itself
            kestal_test::advance_clock(name == std::string("127.0.0.2") ? advance / 2 : 0);
            EXPECT_NE(taken(kestal_get_resolver_cache(cache, name, 1, -1)), "");
            EXPECT_EQ(kestal_thread_pool_wait(-1), 0) << "until the thread of the look-up has gone";
        }
        EXPECT_EQ(taken(kestal_get_resolver_cache(cache, "127.0.0.1", 1, 0)) != "", remains) << expiry;
        kestal_close_resolver_cache(cache);
    }
}

TEST_F(resolver, serves_many_threads)
{
    kestal_resolver_cache_t *cache = kestal_open_resolver_cache_ex(0, 1); // sweeps all the time
    told told;
    told.action = [](kestal_resolver_cache_t *own, const std::string &) { // may use the cache, also for its own name
        taken(kestal_get_resolver_cache(own, "127.0.0.1", 1, -1));
    };
    kestal_test::on_threads(6, [&](size_t thread) {
        for (uint32_t i = 0; i < 60; ++i) {
            const std::string name = "127.0.0." + std::to_string(i % 4);
            EXPECT_EQ(
                taken(kestal_get_resolver_cache_with_handler(cache, name.c_str(), i % 3, -1, told::handler, &told)),
                name + ":" + std::to_string(i % 3) + " ");
            kestal_test::advance_clock(thread == 0 ? 1 : 0);
        }
    });
    kestal_close_resolver_cache(cache); // handlers of refreshes under way are called or freed
    EXPECT_GT(told.calls, 0);
}

TEST_F(resolver, goes_also_when_its_own_handler_closes_it_without_memory)
{
    const kestal_test::caught_assertions reports;
    EXPECT_GE(with_each_allocation_failing([] {
                  for (const uint32_t shared : {0u, 1u}) {
                      told last, never;
                      last.action = [&](auto *own, const auto &) {
                          kestal_request_resolver_cache_with_handler(own, "127.0.0.1", 1, told::handler, &never);
                          kestal_close_resolver_cache(own);
                      };
                      kestal_resolver_cache_t *cache = kestal_open_resolver_cache_ex(shared, 0);
                      taken(kestal_get_resolver_cache(cache, "127.0.0.1", 1, 0));
                      const int32_t result =
                          kestal_request_resolver_cache_with_handler(cache, "127.0.0.1", 1, told::handler, &last);
                      EXPECT_EQ(kestal_thread_pool_wait(-1), 0);
                      EXPECT_LE(last.calls, result == 0 ? 1 : 0);
                      EXPECT_EQ(never.calls, 0);
                      if (last.calls == 0)
                          kestal_close_resolver_cache(cache);
                  }
              }),
              12u);
}

} // namespace
