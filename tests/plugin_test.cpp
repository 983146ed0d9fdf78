#include "plugins/probe.hpp"

#include <cstring>

namespace {

constexpr uint32_t none = KESTAL_INVALID_ID;
constexpr const char *plugins = KESTAL_TEST_PLUGINS;
const std::string probe_path = std::string(plugins) + "/probe.so";

kestal_plugin_t *record(uint32_t id)
{
    return static_cast<kestal_plugin_t *>(kestal_ginstance_search(id, nullptr));
}

constexpr int crowd = 8;

class plugin : public kestal_test::counted {
protected:
    plugin()
    {
        probe_ = set_probe("probe.so", table_.m_base, "test/*");
        second_ = set_probe("second_probe.so", table_.m_base, nullptr);
    }
    void TearDown() override
    {
        EXPECT_EQ(kestal_get_plugin_info()->m_head, nullptr);
        EXPECT_EQ(kestal_ginstance_alloc_count(nullptr), 0u);
        counted::TearDown();
    }

    static inline probe_t *probe_, *second_;
    kestal_ctx0_v1_interface_t table_ = empty_table();
};

TEST_F(plugin, is_initialised_once_and_counted)
{
    const uint32_t stranger = kestal_ginstance_new_ex(this, "application/ulx_base_ctx", nullptr);
    const uint32_t id = load_probe("probe.so");
    ASSERT_EQ(id, stranger + 1);
    EXPECT_EQ(load_probe("probe.so"), id);
    EXPECT_EQ(kestal_load_plugin(probe_path.c_str(), nullptr, nullptr), id);
    EXPECT_EQ(probe_->m_initialized, 1);
    EXPECT_STREQ(kestal_plugin_get_name(id), "probe.so");
    EXPECT_STREQ(kestal_plugin_get_mime_type_hint(id), "test/*");
    EXPECT_STREQ(kestal_ginstance_get_mime_type(id), "application/ulx_base_plugin");

    const uint32_t other = load_probe("second_probe.so");
    EXPECT_EQ(kestal_get_plugin_info()->m_head, record(other)) << "the newest comes first";
    for (const int32_t unloaded : {0, 0, 1}) {
        EXPECT_EQ(kestal_unload_plugin(id), none);
        EXPECT_EQ(probe_->m_uninitialized, unloaded);
    }
    EXPECT_EQ(load_probe("probe.so"), id) << "the smallest free id comes first";
    EXPECT_EQ(kestal_unload_all_plugin(), 0);
    EXPECT_EQ(probe_->m_uninitialized, 2);
    EXPECT_EQ(second_->m_uninitialized, 1);
    EXPECT_EQ(kestal_unload_plugin(stranger), none);
    EXPECT_EQ(kestal_plugin_get_name(stranger), nullptr);
    EXPECT_EQ(kestal_plugin_get_mime_type_hint(none), nullptr);
    EXPECT_EQ(kestal_plugin_execute_main(none, 0, nullptr), 1);
    kestal_ginstance_delete(stranger);
}

TEST_F(plugin, that_does_not_load_leaves_nothing_and_says_why)
{
    const struct {
        const char *path, *initialize, *uninitialize;
        int32_t result;
        const char *error;
    } cases[] = {
        {"missing.so", nullptr, nullptr, 0, "missing.so"},
        {"bare.so", nullptr, nullptr, 0, "bare.so: initialize entry point not found"},
        {"bare.so", "bare_answer", nullptr, 0, "bare.so: uninitialize entry point not found"},
        {"probe.so", nullptr, nullptr, -1, "probe.so: initialize failed"},
        {"probe.so", nullptr, nullptr, 0, ""},
    };
    static int32_t result;
    probe_->m_on_initialize = [] { return result; };
    for (const auto &c : cases) {
        result = c.result;
        char error[200] = "old";
        const uint32_t id = kestal_load_plugin_ex2(c.path, plugins, c.initialize, c.uninitialize, error, sizeof error);
        EXPECT_EQ(id == none, c.error[0] != '\0') << c.path;
        EXPECT_EQ(std::strncmp(error, c.error, std::strlen(c.error)), 0) << error;
        EXPECT_EQ(record(id), kestal_get_plugin_info()->m_head);
        EXPECT_EQ(probe_->m_uninitialized, 0) << "what never was initialised is not uninitialised";
    }
    kestal_unload_plugin(0);
}

TEST_F(plugin, tables_are_judged_by_version_revision_and_size)
{
    constexpr uint64_t base = sizeof(kestal_ctx0_v0_interface_t), extended = sizeof(kestal_ctx0_v1_interface_t);
    const struct {
        uint32_t version, revision;
        uint64_t size;
        bool valid, given;
        int main_result;
    } cases[] = {
        {1, 0, base, true, true, 1},       {1, 0, base - 1, false, true, 1}, {1, 1, extended, true, true, 42},
        {1, 2, extended, false, true, 42}, {0, 0, extended, false, true, 1}, {1, 1, 15, false, false, 1},
    };
    table_.m_base.m_main = [](int argc, char **argv) { return argc + (argv == nullptr ? 40 : 0); };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.version << " " << c.revision << " " << c.size);
        table_.m_base.m_version = c.version;
        table_.m_base.m_revision = c.revision;
        probe_->m_interface_size = c.size;
        const uint32_t id = load_probe("probe.so");
        EXPECT_EQ((record(id)->m_flags & KESTAL_PLUGIN_INTERFACE_VALID) != 0, c.valid);
        EXPECT_EQ(kestal_plugin_get_interface(id) != nullptr, c.given);
        EXPECT_EQ(kestal_plugin_is_executable_main(id), c.main_result == 1 ? -1 : 0);
        EXPECT_EQ(kestal_plugin_execute_main(id, 2, nullptr), c.main_result);
        kestal_unload_plugin(id);
    }
    probe_->m_interface_size = extended;
    table_.m_base.m_size = base; // reported, and run all the same
    const kestal_test::caught_assertions caught;
    EXPECT_EQ(kestal_plugin_execute_main_by_plugin_name(probe_path.c_str(), 2, nullptr), 42);
    EXPECT_EQ(kestal_plugin_execute_main_by_plugin_name("missing.so", 2, nullptr), 1);
    EXPECT_EQ(caught.messages(),
              std::vector<std::string>{"s_interface_header->m_size >= sizeof(kestal_ctx0_v1_interface_t)"});
}

TEST_F(plugin, is_initialised_by_one_of_many_loaders_while_the_others_wait)
{
    static int32_t result;
    probe_->m_on_initialize = [] { // ends only when every thread has come
        kestal_plugin_info_t *registry = kestal_get_plugin_info();
        for (uint64_t count = 0; count < crowd; kestal_load_balance_short()) {
            kestal_reference_spin_lock(&registry->m_lock, KESTAL_SPIN_LOCK_SHARED);
            count = registry->m_head->m_used_count;
            kestal_reference_spin_unlock(&registry->m_lock);
        }
        return result;
    };
    for (const int32_t expected : {0, -1}) {
        result = expected;
        kestal_test::on_threads(crowd, [](size_t) { EXPECT_EQ(load_probe("probe.so"), result == 0 ? 0u : none); });
        EXPECT_EQ(probe_->m_uninitialized, 0);
        for (int i = 0; i < crowd && result == 0; ++i)
            kestal_unload_plugin(0);
        EXPECT_EQ(std::exchange(probe_->m_initialized, 0), 1);
        EXPECT_EQ(std::exchange(probe_->m_uninitialized, 0), result == 0 ? 1 : 0);
    }
}

TEST_F(plugin, entry_points_may_load_and_unload_others_but_not_their_own)
{
    static uint32_t preloaded;
    probe_->m_on_initialize = [] {
        preloaded = load_probe("second_probe.so");
        return load_probe("probe.so") == none ? 0 : -1;
    };
    probe_->m_on_uninitialize = [] {
        EXPECT_EQ(load_probe("probe.so"), none);
        preloaded = kestal_unload_plugin(preloaded);
    };
    kestal_unload_plugin(load_probe("probe.so"));
    EXPECT_EQ(second_->m_uninitialized, 1);
    // All at once: the plugin and the one that it loaded end once each, whichever comes first.
    EXPECT_NE(load_probe("probe.so"), none);
    kestal_unload_all_plugin();
    EXPECT_TRUE(probe_->m_uninitialized == 2 && second_->m_uninitialized == 2);

    // Unloaded by its own initialize: the load fails, and what did initialise is uninitialised.
    probe_->m_on_uninitialize = nullptr;
    probe_->m_on_initialize = kestal_unload_all_plugin;
    EXPECT_EQ(load_probe("probe.so"), none);
    EXPECT_EQ(probe_->m_uninitialized, 3);
}

TEST_F(plugin, comes_and_goes_in_many_threads_and_without_memory)
{
    probe_->m_on_initialize = [] { return probe_->m_initialized % 3 == 0 ? -1 : 0; };
    kestal_test::on_threads(crowd, [](size_t t) {
        for (size_t i = 0; i < 50; ++i)
            if (t == 0)
                kestal_unload_all_plugin();
            else
                kestal_unload_plugin(load_probe((i + t) % 3 == 0 ? "second_probe.so" : "probe.so"));
    });
    kestal_unload_all_plugin();
    EXPECT_EQ(probe_->m_initialized - probe_->m_initialized / 3, probe_->m_uninitialized);
    EXPECT_EQ(second_->m_initialized, second_->m_uninitialized);
    probe_ = set_probe("probe.so", table_.m_base, nullptr);
    EXPECT_GT(kestal_test::with_each_allocation_failing([] {
                  kestal_unload_plugin(load_probe("probe.so"));
                  EXPECT_EQ(kestal_get_plugin_info()->m_head, nullptr);
              }),
              3u);
    EXPECT_EQ(probe_->m_initialized, probe_->m_uninitialized);
}

} // namespace
