#include "support.hpp"

#include <thread>

using kestal_test::with_each_allocation_failing;

namespace {

constexpr uint32_t none = KESTAL_INVALID_ID;

class instance : public kestal_test::counted {};

int objects[4];

struct deletion {
    uintptr_t words[3];
    std::string mime_type;
    int32_t id;
};
std::vector<deletion> deletions;

void note_deletion(const kestal_instance_slot_t *slot, int32_t id)
{
    const char *mime_type = slot->m_mime_type == nullptr ? "(null)" : slot->m_mime_type;
    deletions.push_back({{slot->m_context[0], slot->m_context[1], slot->m_context[2]}, mime_type, id});
}

TEST_F(instance, ids_lead_to_pointer_type_and_words)
{
    kestal_instance_t *registry = kestal_open_instance();
    ASSERT_EQ(kestal_instance_new_ex(registry, &objects[0], "a/zero", nullptr), 0);
    ASSERT_EQ(kestal_instance_new_ex(registry, &objects[1], "", nullptr), 1);
    ASSERT_EQ(kestal_instance_new(registry), 2);

    const char *mime_type = "old";
    EXPECT_EQ(kestal_instance_search(registry, 0, &mime_type), &objects[0]);
    EXPECT_STREQ(mime_type, "a/zero");
    EXPECT_EQ(kestal_instance_search(registry, 1, nullptr), &objects[1]);
    EXPECT_EQ(kestal_instance_get_mime_type(registry, 1), nullptr) << "an empty type is none";
    EXPECT_EQ(kestal_instance_search(registry, 2, &mime_type), nullptr);
    EXPECT_EQ(mime_type, nullptr);

    EXPECT_EQ(kestal_instance_set_context(registry, 0, 1, 11), 0);
    EXPECT_EQ(kestal_instance_set_context(registry, 0, 2, 22), 0);
    EXPECT_EQ(kestal_instance_set_context(registry, 0, 3, 33), -1);
    EXPECT_EQ(kestal_instance_set(registry, 0, &objects[3], "b/zero"), 0);
    EXPECT_EQ(kestal_instance_get_context(registry, 0, 0), reinterpret_cast<uintptr_t>(&objects[3]));
    EXPECT_EQ(kestal_instance_get_context(registry, 0, 2), 22u);
    EXPECT_EQ(kestal_instance_get_context(registry, 0, 3), 0u);
    EXPECT_STREQ(kestal_instance_get_mime_type(registry, 0), "b/zero");

    deletions.clear();
    EXPECT_EQ(kestal_instance_set_delete_handler(registry, 0, note_deletion), 0);
    EXPECT_EQ(kestal_instance_delete(registry, 0), -1);
    ASSERT_EQ(deletions.size(), 1u);
    EXPECT_EQ(deletions[0].words[0], reinterpret_cast<uintptr_t>(&objects[3]));
    EXPECT_EQ(deletions[0].words[1], 11u);
    EXPECT_EQ(deletions[0].mime_type, "b/zero");
    EXPECT_EQ(kestal_instance_search(registry, 0, nullptr), nullptr);
    EXPECT_EQ(kestal_instance_new(registry), 0) << "the smallest free id comes first";
    EXPECT_EQ(kestal_instance_get_context(registry, 0, 1), 0u) << "with nothing of the former owner";
    EXPECT_EQ(kestal_close_instance(registry), nullptr);
}

TEST_F(instance, unknown_ids_and_null_registries_are_refused)
{
    kestal_instance_t memory;
    ASSERT_EQ(kestal_init_instance(&memory), &memory);
    kestal_instance_new_ex(&memory, &objects[0], "a/b", note_deletion);
    deletions.clear();
    for (kestal_instance_t *registry : {&memory, static_cast<kestal_instance_t *>(nullptr)})
        for (const int32_t id : {-1, 1, 2, 1000000, INT32_MIN, INT32_MAX}) {
            const char *mime_type = "old";
            EXPECT_EQ(kestal_instance_search(registry, id, &mime_type), nullptr);
            EXPECT_EQ(mime_type, nullptr);
            EXPECT_EQ(kestal_instance_get_context(registry, id, 0), 0u);
            EXPECT_EQ(kestal_instance_set(registry, id, &objects[0], "x"), -1);
            EXPECT_EQ(kestal_instance_set_context(registry, id, 0, 1), -1);
            EXPECT_EQ(kestal_instance_set_delete_handler(registry, id, note_deletion), -1);
            EXPECT_EQ(kestal_instance_delete(registry, id), -1);
        }
    EXPECT_EQ(kestal_instance_new(nullptr), -1);
    EXPECT_EQ(kestal_init_instance(nullptr), nullptr);
    EXPECT_EQ(kestal_close_instance(nullptr), nullptr);
    EXPECT_EQ(kestal_uninit_instance(&memory), 0);
    EXPECT_TRUE(deletions.empty()) << "the end of a registry calls no handlers";
}

TEST_F(instance, tables_grow_and_failing_allocations_change_nothing)
{
    EXPECT_GT(with_each_allocation_failing([] {
                  kestal_instance_t *registry = kestal_open_instance();
                  if (registry == nullptr)
                      return;
                  uintptr_t count = 0;
                  for (uintptr_t i = 0; i < 100; ++i) {
                      const int32_t id = kestal_instance_new_ex(registry, reinterpret_cast<void *>(i), "a/b", nullptr);
                      if (id < 0)
                          continue;
                      EXPECT_EQ(static_cast<uintptr_t>(id), count++) << "a failure took an id";
                      EXPECT_EQ(kestal_instance_set_context(registry, id, 1, i), 0);
                      if (kestal_instance_set(registry, id, &objects[0], "c/d") == 0)
                          kestal_instance_set(registry, id, reinterpret_cast<void *>(i), "");
                  }
                  EXPECT_GE(count, 98u);
                  for (int32_t id = 0; id < static_cast<int32_t>(count); ++id)
                      EXPECT_EQ(reinterpret_cast<uintptr_t>(kestal_instance_search(registry, id, nullptr)),
                                kestal_instance_get_context(registry, id, 1));
                  kestal_close_instance(registry);
              }),
              100u);
    EXPECT_GT(with_each_allocation_failing([] {
                  const uint32_t id = kestal_ginstance_new_ex(&objects[0], "a/b", nullptr);
                  EXPECT_EQ(kestal_ginstance_alloc_count(nullptr), id == none ? 0u : 1u);
                  if (id != none)
                      kestal_ginstance_delete(id);
              }),
              3u);
}

TEST_F(instance, the_global_registry_lives_while_it_holds_an_id)
{
    const uint64_t blocks = kestal_get_alloc_count();
    uint64_t extent = 9;
    EXPECT_EQ(kestal_ginstance_alloc_count(&extent), 0u);
    EXPECT_EQ(extent, 0u);
    EXPECT_EQ(kestal_ginstance_search(0, nullptr), nullptr);

    EXPECT_EQ(kestal_ginstance_new_ex(&objects[0], "a/b", nullptr), 0u);
    EXPECT_EQ(kestal_ginstance_new(), 1u);
    EXPECT_EQ(kestal_ginstance_set(1, &objects[1], "c/d"), 0);
    EXPECT_STREQ(kestal_ginstance_get_mime_type(1), "c/d");
    EXPECT_EQ(kestal_ginstance_set_context(1, 2, 5), 0);
    EXPECT_EQ(kestal_ginstance_get_context(1, 2), 5u);
    EXPECT_EQ(kestal_ginstance_search(none, nullptr), nullptr);
    EXPECT_EQ(kestal_ginstance_delete(0), none);
    EXPECT_EQ(kestal_ginstance_alloc_count(&extent), 1u);
    EXPECT_EQ(extent, 2u);
    EXPECT_EQ(kestal_ginstance_delete(1), none);
    EXPECT_EQ(kestal_get_alloc_count(), blocks) << "the registry is gone with its last id";
    EXPECT_EQ(kestal_ginstance_delete(1), none);

    // A handler may use the registry, also when it deletes the last id.
    EXPECT_EQ(kestal_ginstance_new(), 0u);
    kestal_ginstance_set_delete_handler(0, [](const kestal_instance_slot_t *, int32_t id) {
        EXPECT_EQ(kestal_ginstance_new_ex(&objects[2], "e/f", nullptr), static_cast<uint32_t>(id));
    });
    kestal_ginstance_delete(0);
    EXPECT_EQ(kestal_ginstance_search(0, nullptr), &objects[2]);
    kestal_ginstance_delete(0);
}

TEST_F(instance, threads_share_the_global_registry_while_it_comes_and_goes)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 300; ++i) {
                const uint32_t id = kestal_ginstance_new_ex(&objects[t], "a/b", nullptr);
                EXPECT_EQ(kestal_ginstance_search(id, nullptr), &objects[t]);
                kestal_ginstance_delete(id);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(kestal_ginstance_alloc_count(nullptr), 0u);
}

} // namespace
