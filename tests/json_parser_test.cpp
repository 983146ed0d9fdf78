#include "support.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

using kestal_test::caught_assertions;
using kestal_test::failing_allocation;
using kestal_test::with_each_allocation_failing;

namespace {

class json : public kestal_test::counted {
protected:
    caught_assertions reports;
};

void set(kestal_json_t *object, const std::string &key, kestal_json_t *value)
{
    kestal_json_object_set_value(object, key.data(), key.size(), value);
    kestal_free_json(value);
}

kestal_json_t *get(const kestal_json_t *object, const std::string &key)
{
    return kestal_json_object_get_value(object, key.data(), key.size());
}

TEST_F(json, reports_name_the_function_and_go_on)
{
    static std::string reported;
    reported.clear();
    kestal_json_t *value = kestal_new_json_integer(5), *constant = kestal_new_json_true(),
                  *unknown = kestal_new_json_real(1), *a = kestal_new_json_object(), *b = kestal_new_json_object();
    set(a, "k", constant);
    const uint32_t key = kestal_json_object_get_hash(a)->m_head->m_key;
    kestal_create_hash_node_to_tail(kestal_json_object_get_hash(b), key, nullptr); // a node without a pair
    unknown->m_type = 0x123;
    const auto keep = [](const char *, const char *function, uint64_t, const char *message) {
        reported += std::string(function) + ": " + message + "\n";
    };
    kestal_set_assert_handler(keep, nullptr); // until the fixture's ends

    value->m_reference_count = 0x10000;
    EXPECT_EQ(kestal_json_reference_get(value), 0x10001u);
    EXPECT_EQ(kestal_json_reference_get(value), 0x10002u); // silent above the mark
    EXPECT_EQ(kestal_free_json(constant), nullptr);
    EXPECT_EQ(get(b, "k"), nullptr);
    EXPECT_EQ(kestal_compare_json(a, b), 1);
    EXPECT_EQ(kestal_json_object_set_value(b, "k", 1, constant), 0);
    EXPECT_EQ(kestal_free_json(unknown), nullptr);
    EXPECT_EQ(kestal_new_json(0), nullptr);
    EXPECT_EQ(reported, "kestal_json_reference_get: too many reference count\n"
                        "kestal_json_reference_put: reference count incorrect (double put ?)\n"
                        "kestal_json_object_get_value: hash vector is null\n"
                        "kestal_compare_json: hash vector is null\n"
                        "kestal_json_reference_get: too many reference count\n"
                        "kestal_json_object_set_value: hash vector is null\n"
                        "kestal_free_json: unknown json type\n"
                        "kestal_new_json: unknown json type\n");
    value->m_reference_count = 1;
    for (kestal_json_t *each : {a, b, value})
        kestal_free_json(each);
}

TEST_F(json, null_and_wrong_types_give_the_failure_value)
{
    kestal_json_t *object = kestal_new_json_object(), *array = kestal_new_json_array();
    for (kestal_json_t *other : {static_cast<kestal_json_t *>(nullptr), kestal_new_json_false()}) {
        uint64_t size = 7;
        EXPECT_EQ(kestal_json_string_get_value(other, &size), nullptr);
        EXPECT_EQ(size + kestal_json_object_get_count(other) + kestal_json_array_get_room_count(other), 0u);
        EXPECT_EQ(kestal_json_array_get_table(other), nullptr);
        for (const int32_t result :
             {kestal_json_object_set_value(other, "a", 1, array), kestal_json_object_delete_value(other, "a", 1),
              kestal_json_object_clear(other), kestal_json_array_append_value(other, object),
              kestal_json_array_delete_value(other, 0), kestal_json_array_clear(other),
              kestal_json_string_set_printf(other, "%d", 1), kestal_json_real_set_value(other, 1),
              kestal_json_object_set_value(object, "a", 1, object), kestal_json_array_append_value(array, array),
              kestal_json_object_set_value(object, nullptr, 0, array), kestal_json_array_set_value(array, 0, object)})
            EXPECT_EQ(result, -1);
        EXPECT_EQ(kestal_json_integer_get_value(other, -9), -9);
        EXPECT_EQ(kestal_json_real_get_value(other, -9.5), -9.5);
    }
    EXPECT_EQ(array->m_reference_count + object->m_reference_count, 2u);
    kestal_free_json(object);
    kestal_free_json(array);
}

TEST_F(json, arrays_grow_by_doubling_then_by_1025)
{
    kestal_json_t *array = kestal_new_json_array();
    std::set<uint64_t> rooms;
    while (kestal_json_array_get_count(array) < 3000) {
        kestal_json_array_append_value(array, kestal_new_json_null());
        rooms.insert(kestal_json_array_get_room_count(array));
    }
    EXPECT_EQ(rooms, (std::set<uint64_t>{8, 16, 32, 64, 128, 256, 512, 1024, 2049, 3074}));
    EXPECT_EQ(kestal_json_array_clear(array), 0);
    kestal_free_json(array);
}

TEST_F(json, strings_adopt_copy_and_terminate)
{
    kestal_json_t *string = kestal_new_json_string("hello", 5);
    const auto text = [string] { return kestal_json_string_get_value(string, nullptr); };
    const char *data = text();
    EXPECT_EQ(kestal_json_string_set_value(string, "hello", 5), 0);
    EXPECT_EQ(text(), data); // the same bytes do not reallocate
    EXPECT_EQ(kestal_json_string_set_value(string, data + 1, 4), 0);
    EXPECT_STREQ(text(), "ello");
    EXPECT_EQ(kestal_json_string_set_value(string, nullptr, 3), 0);
    EXPECT_EQ(std::memcmp(text(), "\0\0\0", 4), 0);

    char *block = kestal_strdup("adopted");
    for (const uint64_t size : {5u, 7u}) {
        EXPECT_EQ(kestal_json_string_set_value_allocated_ptr(string, block, size), 0);
        EXPECT_TRUE(text() == block && kestal_json_string_get_size(string) == size);
    }
    EXPECT_EQ(kestal_json_string_set_printf(string, "%d-%s", 42, "x"), 0);
    EXPECT_STREQ(text(), "42-x");
    const failing_allocation failing(1, 2);
    EXPECT_EQ(kestal_json_string_set_puts(string, "x-42"), -1);
    EXPECT_STREQ(text(), "42-x");
    EXPECT_EQ(kestal_json_string_set_printf(string, "%d", 1), 0);
    EXPECT_EQ(kestal_json_string_get_size(string), 0u);
    EXPECT_EQ(text(), nullptr);
    kestal_free_json(string);
}

TEST_F(json, numbers_convert_one_way)
{
    kestal_json_t *integer = kestal_new_json(KESTAL_JSON_INTEGER), *real = kestal_new_json(KESTAL_JSON_REAL);
    const std::pair<double, int64_t> cases[] = {
        {3.99, 3}, {1e300, INT64_MAX}, {-1e300, INT64_MIN}, {std::nan(""), 0}, {-3.99, -3}};
    for (const auto &[given, stored] : cases)
        for (kestal_json_t *number : {integer, real}) {
            EXPECT_EQ(kestal_json_real_set_value(number, given), 0);
            EXPECT_EQ(kestal_json_integer_get_value(number, 7), stored) << given;
        }
    EXPECT_EQ(kestal_json_real_get_value(integer, 0), -3.0);
    EXPECT_EQ(kestal_json_integer_set_value(real, 1) + kestal_json_integer_clear(real), -2);
    EXPECT_EQ(kestal_json_real_get_value(real, 0), -3.99);
    kestal_free_json(integer);
    kestal_free_json(real);
}

TEST_F(json, compares_and_copies)
{
    // { "list": [1, "two", 3.5, true], "name": "kestal", "inner": { "x": null } }
    kestal_json_t *a = kestal_new_json_object(), *elements = kestal_new_json_array(), *inner = kestal_new_json_object();
    for (kestal_json_t *element : {kestal_new_json_integer(1), kestal_new_json_string("two", 3),
                                   kestal_new_json_real(3.5), kestal_new_json_true()}) {
        kestal_json_array_append_value(elements, element);
        kestal_free_json(element);
    }
    set(inner, "x", kestal_new_json_null());
    set(a, "list", elements);
    set(a, "name", kestal_new_json_string("kestal", 6));
    set(a, "inner", inner);
    kestal_json_t *deep = kestal_dup_json(a, 1), *shallow = kestal_dup_json(a, 0), *list = get(deep, "list");
    EXPECT_TRUE(get(shallow, "list") == elements && list != elements);
    EXPECT_EQ(kestal_compare_json(a, deep) | kestal_compare_json(a, shallow), 0);
    kestal_json_integer_set_value(kestal_json_array_get_table(list)[0], 2);
    EXPECT_TRUE(kestal_compare_json(a, deep) < 0 && kestal_compare_json(deep, a) > 0);
    kestal_json_array_delete_value(list, 0);
    EXPECT_GT(kestal_compare_json(a, deep), 0);          // the shorter array first
    kestal_json_object_set_value(deep, "list", 4, list); // its only reference
    kestal_json_object_delete_value(deep, "list", 4);
    kestal_json_object_set_value(deep, "list", 4, elements);
    EXPECT_EQ(kestal_compare_json(a, deep), 0); // in any order of insertion
    kestal_json_object_delete_value(deep, "name", 4);
    set(deep, "nome", kestal_new_json_null());
    EXPECT_TRUE(kestal_compare_json(a, deep) > 0 && kestal_compare_json(deep, a) > 0); // a missing member comes first
    EXPECT_GT(kestal_compare_json(get(a, "name"), kestal_json_array_get_table(elements)[1]), 0); // shorter first
    EXPECT_LT(kestal_compare_json(nullptr, a), 0);
    EXPECT_GT(kestal_compare_json(kestal_new_json_null(), kestal_new_json_true()), 0);
    kestal_json_t *nan = kestal_new_json_real(std::nan("")), *one = kestal_new_json_real(1);
    EXPECT_EQ(kestal_compare_json(nan, one), 0);
    EXPECT_GE(with_each_allocation_failing([a] { kestal_free_json(kestal_dup_json(a, 1)); }), 10u);
    for (kestal_json_t *value : {a, deep, shallow, nan, one})
        kestal_free_json(value);
}

// Thousands of random edits of one object and one array, half of them without memory, against plain vectors; every
// value is one of a few shared integers or a constant, whose reference counts are known from the model after each step.
TEST_F(json, agrees_with_a_plain_model)
{
    using member = std::pair<std::string, kestal_json_t *>;
    std::mt19937 random(20260101);
    const auto below = [&](uint64_t n) { return random() % n; };
    kestal_json_t *object = kestal_new_json_object(), *array = kestal_new_json_array(), *null = kestal_new_json_null();
    std::vector<kestal_json_t *> pool{null}, elements;
    while (pool.size() < 7)
        pool.push_back(kestal_new_json_integer(1));
    std::vector<member> members;
    const uint64_t empty = kestal_get_alloc_count();

    for (int step = 0; step < 6000 && !HasFailure(); ++step) {
        kestal_json_t *value = pool[below(pool.size())];
        std::string key(below(20), '\0');
        key.insert(below(key.size() + 1), below(2) == 0 ? "bab" : "aca"); // of equal hashes
        const uint64_t at = below(elements.size() + 2), action = below(6);
        const auto named = std::ranges::find(members, key, &member::first);
        const auto place = elements.begin() + static_cast<std::ptrdiff_t>(std::min<uint64_t>(at, elements.size()));
        const bool possible = action < 2 || at < elements.size() + (action < 4 ? 1 : 0);
        const failing_allocation failing(below(2)); // 0: none fails
        int32_t result = 0;
        if (action == 0) {
            result = kestal_json_object_set_value(object, key.data(), key.size(), value);
            if (named != members.end())
                named->second = value;
            else if (result == 0)
                members.emplace_back(key, value);
        } else if (action == 1) {
            result = kestal_json_object_delete_value(object, key.data(), key.size());
            if (named != members.end())
                members.erase(named);
            EXPECT_EQ(get(object, key), nullptr);
        } else if (action < 4) {
            result = kestal_json_array_insert_value(array, at, value);
            if (result == 0)
                elements.insert(place, value);
        } else if (action == 4) {
            result = kestal_json_array_set_value(array, at, value);
            if (result == 0)
                *place = value;
        } else {
            result = kestal_json_array_delete_value(array, at);
            if (result == 0)
                elements.erase(place);
        }
        EXPECT_EQ(result, possible && !failing.happened() ? 0 : -1);

        std::vector<member> seen;
        for (auto *node = kestal_json_object_get_hash(object)->m_head; node != nullptr; node = node->m_next) {
            const void *bytes = nullptr;
            uint64_t size = 0;
            kestal_json_t *held = kestal_json_object_get_pair(node, &bytes, &size);
            seen.emplace_back(std::string(static_cast<const char *>(bytes), size), held);
            EXPECT_EQ(get(object, seen.back().first), held);
            EXPECT_EQ(node->m_key, kestal_update_adler32(1, bytes, size));
        }
        kestal_json_t **const table = kestal_json_array_get_table(array);
        EXPECT_EQ(seen, members);
        EXPECT_EQ(elements, std::vector<kestal_json_t *>(table, table + kestal_json_array_get_count(array)));
        EXPECT_EQ(kestal_get_alloc_count(), empty + members.size() + (table != nullptr));
        for (const kestal_json_t *each : pool) {
            const auto held = std::ranges::count(elements, each) + std::ranges::count(members, each, &member::second);
            EXPECT_EQ(each->m_reference_count, each == null ? 0 : 1u + static_cast<uint32_t>(held));
        }
    }
    pool.insert(pool.end(), {object, array});
    for (kestal_json_t *value : pool)
        kestal_free_json(value);
}

} // namespace
