#include "support.hpp"

namespace {

constexpr uint32_t none = KESTAL_INVALID_ID;
int objects[4];

class instance : public kestal_test::counted {};

kestal_instance_slot_t deleted;
std::string deleted_type;

void note_deletion(const kestal_instance_slot_t *slot, int32_t)
{
    deleted = *slot;
    deleted_type = slot->m_mime_type;
}

TEST_F(instance, ids_lead_to_pointer_type_and_words)
{
    kestal_instance_t *registry = kestal_open_instance();
    ASSERT_EQ(kestal_instance_new_ex(registry, &objects[0], "a/zero", note_deletion), 0);
    ASSERT_EQ(kestal_instance_new_ex(registry, &objects[1], "", nullptr), 1);
    const char *mime_type = "old";
    EXPECT_EQ(kestal_instance_search(registry, 1, &mime_type), &objects[1]);
    EXPECT_EQ(mime_type, nullptr) << "an empty type is none";
    EXPECT_EQ(kestal_instance_set_context(registry, 0, 2, 22), 0);
    EXPECT_EQ(kestal_instance_set_context(registry, 0, 3, 33), -1);
    EXPECT_EQ(kestal_instance_set(registry, 0, &objects[3], "b/zero"), 0);
    EXPECT_EQ(kestal_instance_get_context(registry, 0, 2), 22u);
    EXPECT_EQ(kestal_instance_get_context(registry, 0, 3), 0u);

    EXPECT_EQ(kestal_instance_delete(registry, 0), -1);
    EXPECT_EQ(deleted.m_context[0], reinterpret_cast<uintptr_t>(&objects[3]));
    EXPECT_EQ(deleted.m_context[2], 22u);
    EXPECT_EQ(deleted_type, "b/zero");
    EXPECT_EQ(kestal_instance_new(registry), 0) << "the smallest free id comes first";
    EXPECT_EQ(kestal_instance_get_context(registry, 0, 2), 0u) << "with nothing of the former owner";
    kestal_instance_set_delete_handler(registry, 0, note_deletion);

    deleted_type.clear();
    for (kestal_instance_t *refusing : {registry, static_cast<kestal_instance_t *>(nullptr)})
        for (const int32_t id : {-1, 2, INT32_MIN, INT32_MAX}) {
            EXPECT_EQ(kestal_instance_search(refusing, id, nullptr), nullptr);
            EXPECT_EQ(kestal_instance_set(refusing, id, &objects[0], "x") & kestal_instance_delete(refusing, id) &
                          kestal_instance_set_context(refusing, id, 0, 1) &
                          kestal_instance_set_delete_handler(refusing, id, note_deletion),
                      -1);
        }
    EXPECT_EQ(kestal_instance_new(nullptr), -1);
    EXPECT_EQ(kestal_close_instance(registry), nullptr);
    EXPECT_EQ(deleted_type, "") << "the end of a registry calls no handlers";
}

TEST_F(instance, tables_grow_and_failing_allocations_change_nothing)
{
    const auto fill = [] {
        int32_t count = 0;
        kestal_instance_t *registry = kestal_open_instance();
        for (int i = 0; i < 50 && registry != nullptr; ++i) {
            const int32_t id = kestal_instance_new_ex(registry, &objects[i % 4], "a/b", nullptr);
            if (id < 0)
                continue;
            EXPECT_EQ(id, count++) << "a failure took an id";
            const bool set = kestal_instance_set(registry, id, &objects[id % 4], "c/d") == 0;
            EXPECT_STREQ(kestal_instance_get_mime_type(registry, id), set ? "c/d" : "a/b");
        }
        kestal_close_instance(registry);
        const uint32_t id = kestal_ginstance_new_ex(&objects[0], "a/b", nullptr);
        EXPECT_EQ(kestal_ginstance_alloc_count(nullptr), id == none ? 0u : 1u);
        kestal_ginstance_delete(id);
    };
    EXPECT_GT(kestal_test::with_each_allocation_failing(fill), 100u);
}

TEST_F(instance, the_global_registry_lives_while_it_holds_an_id)
{
    const uint64_t blocks = kestal_get_alloc_count();
    uint64_t extent = 9;
    EXPECT_EQ(kestal_ginstance_new(), 0u);
    EXPECT_EQ(kestal_ginstance_new(), 1u);
    EXPECT_EQ(kestal_ginstance_set(1, &objects[1], "c/d") | kestal_ginstance_set_context(1, 2, 5), 0);
    EXPECT_STREQ(kestal_ginstance_get_mime_type(1), "c/d");
    EXPECT_EQ(kestal_ginstance_get_context(1, 2), 5u);
    EXPECT_EQ(kestal_ginstance_delete(0), none);
    EXPECT_EQ(kestal_ginstance_alloc_count(&extent) * 10 + extent, 12u);
    kestal_ginstance_delete(1);
    EXPECT_EQ(kestal_get_alloc_count(), blocks) << "the registry is gone with its last id";
    EXPECT_EQ(kestal_ginstance_alloc_count(&extent) + extent, 0u);

    // A handler may use the registry, also when it deletes the last id.
    kestal_ginstance_new();
    kestal_ginstance_set_delete_handler(0, [](const kestal_instance_slot_t *, int32_t id) {
        EXPECT_EQ(kestal_ginstance_new_ex(&objects[2], "e/f", nullptr), static_cast<uint32_t>(id));
    });
    kestal_ginstance_delete(0);
    EXPECT_EQ(kestal_ginstance_search(0, nullptr), &objects[2]);
    kestal_ginstance_delete(0);
}

} // namespace
