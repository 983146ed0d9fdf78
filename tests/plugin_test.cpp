#include "plugins/probe.h"
#include "support.hpp"

#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <thread>

using kestal_test::temporary_directory;
using kestal_test::with_each_allocation_failing;

namespace {

constexpr uint32_t none = KESTAL_INVALID_ID;
constexpr const char *plugins = KESTAL_TEST_PLUGINS;
const std::string probe_path = std::string(plugins) + "/probe.so";

uint32_t load(const char *path)
{
    return kestal_load_plugin_ex(path, plugins, nullptr, nullptr);
}

kestal_plugin_t *record(uint32_t id)
{
    return static_cast<kestal_plugin_t *>(kestal_ginstance_search(id, nullptr));
}

kestal_ctx0_v1_interface_t new_table(uint32_t version, uint32_t revision, uint64_t size)
{
    kestal_ctx0_v1_interface_t table{};
    table.m_base.m_version = version;
    table.m_base.m_size = static_cast<uint32_t>(size);
    table.m_base.m_revision = revision;
    return table;
}

// The uses of the newest plugin, as a thread may read them.
uint64_t newest_count()
{
    kestal_plugin_info_t *registry = kestal_get_plugin_info();
    kestal_reference_spin_lock(&registry->m_lock, KESTAL_SPIN_LOCK_SHARED);
    uint64_t count = 0;
    if (kestal_plugin_t *newest = registry->m_head) {
        kestal_reference_spin_lock(&newest->m_lock, KESTAL_SPIN_LOCK_SHARED);
        count = newest->m_used_count;
        kestal_reference_spin_unlock(&newest->m_lock);
    }
    kestal_reference_spin_unlock(&registry->m_lock);
    return count;
}

// Keeps the two probes in memory, so that they can be set before they are loaded and read after.
class plugin : public kestal_test::counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        probe_ = open("probe.so", 0);
        second_ = open("second_probe.so", 1);
    }

    void TearDown() override
    {
        EXPECT_EQ(kestal_get_plugin_info()->m_head, nullptr);
        EXPECT_EQ(kestal_ginstance_alloc_count(nullptr), 0u);
        for (void *library : libraries_)
            kestal_close_dynamic_library(library);
        counted::TearDown();
    }

    static probe_t *probe_;
    static probe_t *second_;
    static const int threads_ = 8;

    // What every thread of a race for the probe gets.
    std::vector<uint32_t> load_in_threads(int32_t (*on_initialize)())
    {
        probe_->m_on_initialize = on_initialize;
        std::vector<uint32_t> ids(threads_);
        std::vector<std::thread> threads;
        for (uint32_t &id : ids)
            threads.emplace_back([&id] { id = load("probe.so"); });
        for (std::thread &thread : threads)
            thread.join();
        return ids;
    }

private:
    probe_t *open(const char *name, int index)
    {
        libraries_[index] = kestal_open_dynamic_library(name, plugins, KESTAL_DYNAMIC_LIBRARY_NOW);
        auto *probe = static_cast<probe_t *>(kestal_import_dynamic_library(libraries_[index], "probe"));
        *probe = {};
        return probe;
    }

    void *libraries_[2] = {};
};

probe_t *plugin::probe_;
probe_t *plugin::second_;

TEST_F(plugin, is_initialised_once_and_counted)
{
    const kestal_ctx0_v1_interface_t table = new_table(1, 1, sizeof table);
    probe_->m_hint = "test/probe*";
    probe_->m_interface = &table.m_base;
    probe_->m_interface_size = sizeof table;

    const uint32_t id = load("probe.so");
    ASSERT_NE(id, none);
    EXPECT_EQ(kestal_load_plugin(probe_path.c_str(), nullptr, nullptr), id);
    EXPECT_EQ(load("probe.so"), id);
    EXPECT_EQ(probe_->m_initialized, 1);
    EXPECT_STREQ(kestal_plugin_get_name(id), "probe.so");
    EXPECT_STREQ(kestal_plugin_get_mime_type_hint(id), "test/probe*");
    EXPECT_EQ(kestal_plugin_get_interface(id), &table.m_base);
    EXPECT_STREQ(kestal_ginstance_get_mime_type(id), "application/ulx_base_plugin");
    EXPECT_EQ(std::memcmp(record(id)->m_magic, "WULP", 4), 0);
    EXPECT_EQ(record(id)->m_flags, KESTAL_PLUGIN_INITIALIZED | KESTAL_PLUGIN_INTERFACE_VALID);
    EXPECT_EQ(record(id)->m_used_count, 3u);

    const uint32_t other = load("second_probe.so");
    EXPECT_EQ(kestal_get_plugin_info()->m_head, record(other)) << "the newest comes first";
    EXPECT_EQ(record(other)->m_next, record(id));
    for (const int32_t unloaded : {0, 0, 1}) {
        EXPECT_EQ(kestal_unload_plugin(id), none);
        EXPECT_EQ(probe_->m_uninitialized, unloaded);
    }
    EXPECT_EQ(kestal_plugin_get_name(id), nullptr);
    EXPECT_EQ(load("probe.so"), id) << "the smallest free id comes first";
    EXPECT_EQ(kestal_unload_all_plugin(), 0);
    EXPECT_EQ(probe_->m_uninitialized, 2);
    EXPECT_EQ(second_->m_uninitialized, 1);
}

TEST_F(plugin, without_a_path_is_the_built_in_one)
{
    const uint32_t id = kestal_load_plugin(nullptr, "ignored", "ignored");
    ASSERT_NE(id, none);
    EXPECT_EQ(kestal_load_plugin("", nullptr, nullptr), id);
    EXPECT_EQ(record(id)->m_flags, KESTAL_PLUGIN_INITIALIZED | KESTAL_PLUGIN_BUILTIN | KESTAL_PLUGIN_INTERFACE_VALID);
    EXPECT_EQ(record(id)->m_library, nullptr);
    EXPECT_STREQ(kestal_plugin_get_name(id), "");
    EXPECT_EQ(kestal_plugin_execute_main(id, 0, nullptr), 1);
    kestal_unload_plugin(id);
    EXPECT_EQ(record(id)->m_used_count, 1u);
    kestal_unload_plugin(id);
}

TEST_F(plugin, is_the_same_by_handle_or_base_name)
{
    const temporary_directory directory;
    const std::string copy = directory.path("probe.so"), alias = directory.path("alias.so");
    const std::string other = directory.path("other.so");
    std::filesystem::copy(probe_path, copy);
    std::filesystem::create_symlink(probe_path, alias);
    std::filesystem::copy(probe_path, other);
    const uint32_t id = load("probe.so");
    EXPECT_EQ(load(copy.c_str()), id);
    EXPECT_EQ(load(alias.c_str()), id);
    EXPECT_EQ(probe_->m_initialized, 1);

    const uint32_t other_id = load(other.c_str());
    EXPECT_NE(other_id, none);
    EXPECT_NE(other_id, id);
    kestal_unload_plugin(other_id);
    for (const std::string &path : {copy, other})
        EXPECT_EQ(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr) << path << " is still in memory";
    kestal_unload_all_plugin();
}

TEST_F(plugin, that_does_not_load_leaves_nothing)
{
    const temporary_directory directory;
    const std::string broken = directory.file("broken.so", "no library\n");
    const struct {
        const char *path, *initialize, *uninitialize;
        int32_t result;
        const char *error;
    } cases[] = {
        {"missing.so", nullptr, nullptr, 0, "missing.so"},
        {broken.c_str(), nullptr, nullptr, 0, "broken.so"},
        {"bare.so", nullptr, nullptr, 0, "bare.so: initialize entry point not found"},
        {"bare.so", "bare_answer", nullptr, 0, "bare.so: uninitialize entry point not found"},
        {"probe.so", "no_such_name", nullptr, 0, "probe.so: initialize entry point not found"},
        {"probe.so", nullptr, nullptr, -1, "probe.so: initialize failed"},
        {"probe.so", "other_initialize", nullptr, 7, "probe.so: initialize failed"},
    };
    static int32_t result;
    probe_->m_on_initialize = [] { return result; };
    for (const auto &c : cases) {
        result = c.result;
        char error[200] = "";
        EXPECT_EQ(kestal_load_plugin_ex2(c.path, plugins, c.initialize, c.uninitialize, error, sizeof error), none);
        EXPECT_NE(std::strstr(error, c.error), nullptr) << error;
        EXPECT_EQ(kestal_get_plugin_info()->m_head, nullptr) << c.path;
    }
    EXPECT_EQ(probe_->m_initialized, 2);
    EXPECT_EQ(probe_->m_uninitialized, 0) << "what never was initialised is not uninitialised";

    result = 0;
    char error[8] = "old";
    const uint32_t id = kestal_load_plugin_ex2("probe.so", plugins, "other_initialize", nullptr, error, sizeof error);
    EXPECT_STREQ(error, "");
    EXPECT_STREQ(kestal_plugin_get_mime_type_hint(id), "other/*");
    kestal_unload_plugin(id);
}

TEST_F(plugin, tables_are_judged_by_version_revision_and_size)
{
    const struct {
        uint32_t version, revision;
        uint64_t size;
        bool valid, given;
    } cases[] = {
        {1, 0, 144, true, true},  {1, 0, 143, false, true}, {1, 1, 216, true, true}, {1, 1, 215, false, true},
        {1, 2, 216, false, true}, {0, 0, 216, false, true}, {1, 0, 16, false, true}, {1, 0, 15, false, false},
    };
    for (const auto &c : cases) {
        const kestal_ctx0_v1_interface_t table = new_table(c.version, c.revision, c.size);
        probe_->m_interface = &table.m_base;
        probe_->m_interface_size = c.size;
        const uint32_t id = load("probe.so");
        ASSERT_NE(id, none);
        EXPECT_EQ((record(id)->m_flags & KESTAL_PLUGIN_INTERFACE_VALID) != 0, c.valid) << c.size;
        EXPECT_EQ(kestal_plugin_get_interface(id) != nullptr, c.given) << c.size;
        EXPECT_EQ(kestal_plugin_get_main_entry(id), nullptr);
        kestal_unload_plugin(id);
    }
    probe_->m_interface = nullptr;
    const uint32_t id = load("probe.so");
    EXPECT_EQ(kestal_plugin_get_interface(id), nullptr);
    EXPECT_EQ(kestal_plugin_get_mime_type_hint(id), nullptr);
    kestal_unload_plugin(id);
}

TEST_F(plugin, with_a_main_entry_is_a_program)
{
    kestal_ctx0_v1_interface_t table = new_table(1, 1, sizeof table);
    table.m_base.m_main = [](int argc, char **argv) { return argc + std::atoi(argv[0]); };
    probe_->m_interface = &table.m_base;
    probe_->m_interface_size = sizeof table;
    char number[] = "40";
    char *arguments[] = {number, nullptr};

    const uint32_t id = load("probe.so");
    EXPECT_EQ(kestal_plugin_is_executable_main(id), 0);
    EXPECT_EQ(kestal_plugin_execute_main(id, 2, arguments), 42);
    table.m_base.m_size = sizeof(kestal_ctx0_v0_interface_t);
    {
        const kestal_test::caught_assertions caught;
        EXPECT_EQ(kestal_plugin_execute_main(id, 2, arguments), 42) << "reported, and run all the same";
        EXPECT_EQ(caught.messages(),
                  std::vector<std::string>{"s_interface_header->m_size >= sizeof(kestal_ctx0_v1_interface_t)"});
    }
    table.m_base.m_revision = 0;
    EXPECT_EQ(kestal_plugin_is_executable_main(id), -1);
    EXPECT_EQ(kestal_plugin_execute_main(id, 2, arguments), 1);
    kestal_unload_plugin(id);

    table.m_base.m_revision = 1;
    table.m_base.m_size = sizeof table;
    EXPECT_EQ(kestal_plugin_execute_main_by_plugin_name(probe_path.c_str(), 2, arguments), 42);
    EXPECT_EQ(kestal_plugin_execute_main_by_plugin_name("missing.so", 2, arguments), 1);
    EXPECT_EQ(probe_->m_uninitialized, 2);
}

TEST_F(plugin, ids_of_others_are_refused)
{
    const uint32_t stranger = kestal_ginstance_new_ex(this, "application/ulx_base_ctx", nullptr);
    for (const uint32_t id : {stranger, stranger + 1, none}) {
        EXPECT_EQ(kestal_unload_plugin(id), none);
        EXPECT_EQ(kestal_plugin_get_name(id), nullptr);
        EXPECT_EQ(kestal_plugin_get_mime_type_hint(id), nullptr);
        EXPECT_EQ(kestal_plugin_get_interface(id), nullptr);
        EXPECT_EQ(kestal_plugin_is_executable_main(id), -1);
        EXPECT_EQ(kestal_plugin_execute_main(id, 0, nullptr), 1);
    }
    EXPECT_EQ(kestal_ginstance_search(stranger, nullptr), this);
    kestal_ginstance_delete(stranger);
}

// In both races initialize returns only when every thread has joined, so that all but one must wait.
TEST_F(plugin, is_initialised_by_one_of_many_loaders)
{
    const std::vector<uint32_t> ids = load_in_threads([] {
        while (newest_count() < threads_)
            kestal_load_balance_short();
        return 0;
    });
    EXPECT_EQ(ids, std::vector<uint32_t>(threads_, 0u));
    EXPECT_EQ(probe_->m_initialized, 1);
    for (const uint32_t id : ids) {
        EXPECT_EQ(probe_->m_uninitialized, 0);
        kestal_unload_plugin(id);
    }
    EXPECT_EQ(probe_->m_uninitialized, 1);
}

TEST_F(plugin, that_fails_to_initialise_fails_for_all_who_wait)
{
    const std::vector<uint32_t> ids = load_in_threads([] {
        while (newest_count() < threads_)
            kestal_load_balance_short();
        return -1;
    });
    EXPECT_EQ(ids, std::vector<uint32_t>(threads_, none));
    EXPECT_EQ(probe_->m_initialized, 1);
    EXPECT_EQ(probe_->m_uninitialized, 0);
}

TEST_F(plugin, entry_points_may_load_and_unload_others_but_not_their_own)
{
    const kestal_test::caught_assertions caught;
    static uint32_t preloaded;
    probe_->m_on_initialize = [] {
        preloaded = load("second_probe.so");
        return load("probe.so") == none ? 0 : -1;
    };
    probe_->m_on_uninitialize = [] {
        EXPECT_EQ(load("probe.so"), none);
        preloaded = kestal_unload_plugin(preloaded);
    };
    const uint32_t id = load("probe.so");
    EXPECT_EQ(record(id)->m_used_count, 1u);
    EXPECT_EQ(kestal_get_plugin_info()->m_head, record(preloaded));
    kestal_unload_plugin(id);
    EXPECT_EQ(kestal_get_plugin_info()->m_head, nullptr);

    // All at once: the plugin and the one that it loaded end once each, whichever comes first.
    EXPECT_NE(load("probe.so"), none);
    kestal_unload_all_plugin();
    EXPECT_NE(load("second_probe.so"), none);
    EXPECT_NE(load("probe.so"), none);
    kestal_unload_all_plugin();
    EXPECT_EQ(probe_->m_uninitialized, 3);
    EXPECT_EQ(second_->m_uninitialized, 3);

    // Unloaded by its own initialize: the load fails, and what did initialise is uninitialised.
    probe_->m_on_uninitialize = nullptr;
    probe_->m_on_initialize = kestal_unload_all_plugin;
    EXPECT_EQ(load("probe.so"), none);
    EXPECT_EQ(probe_->m_uninitialized, 4);
    EXPECT_TRUE(caught.messages().empty());
}

TEST_F(plugin, is_loaded_anew_only_when_it_has_left)
{
    static uint32_t anew;
    static std::thread loader;
    probe_->m_on_uninitialize = [] {
        probe_->m_on_uninitialize = nullptr;
        const uint64_t blocks = kestal_get_alloc_count();
        loader = std::thread([] { anew = load("probe.so"); });
        while (kestal_get_alloc_count() == blocks) // until the loader has a record of its own
            std::this_thread::yield();
        kestal_load_balance();
        EXPECT_EQ(probe_->m_initialized, 1);
    };
    kestal_unload_plugin(load("probe.so"));
    loader.join();
    EXPECT_EQ(probe_->m_initialized, 2);
    kestal_unload_plugin(anew);
}

TEST_F(plugin, comes_and_goes_in_many_threads)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < threads_; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                const uint32_t id = load((i + t) % 3 == 0 ? "second_probe.so" : "probe.so");
                EXPECT_EQ(record(id)->m_id, id);
                kestal_unload_plugin(id);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(probe_->m_initialized, probe_->m_uninitialized);
    EXPECT_EQ(second_->m_initialized, second_->m_uninitialized);
}

TEST_F(plugin, failing_allocations_leave_nothing)
{
    EXPECT_GT(with_each_allocation_failing([] {
                  const uint32_t first = load("probe.so");
                  const uint32_t again = load("probe.so");
                  EXPECT_TRUE(first == again || first == none || again == none);
                  kestal_unload_plugin(first);
                  kestal_unload_plugin(again);
                  EXPECT_EQ(kestal_get_plugin_info()->m_head, nullptr);
              }),
              6u);
    EXPECT_EQ(probe_->m_initialized, probe_->m_uninitialized);
}

} // namespace
