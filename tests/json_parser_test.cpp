#include "support.hpp"

#include <cmath>
#include <cstring>
#include <map>
#include <random>

using kestal_test::caught_assertions;
using kestal_test::failing_allocation;
using kestal_test::with_each_allocation_failing;

namespace {

class json : public kestal_test::counted {
protected:
    caught_assertions reports;
};

int32_t set(kestal_json_t *object, const std::string &key, kestal_json_t *value)
{
    const int32_t result = kestal_json_object_set_value(object, key.data(), key.size(), value);
    kestal_free_json(value);
    return result;
}

kestal_json_t *get(const kestal_json_t *object, const std::string &key)
{
    return kestal_json_object_get_value(object, key.data(), key.size());
}

int32_t append(kestal_json_t *array, kestal_json_t *value)
{
    const int32_t result = kestal_json_array_append_value(array, value);
    kestal_free_json(value);
    return result;
}

// { "list": [1, "two", 3.5, true], "name": "kestal", "inner": { "x": null } }
kestal_json_t *sample()
{
    kestal_json_t *list = kestal_new_json_array();
    append(list, kestal_new_json_integer(1));
    append(list, kestal_new_json_string("two", 3));
    append(list, kestal_new_json_real(3.5));
    append(list, kestal_new_json_true());
    kestal_json_t *inner = kestal_new_json_object();
    set(inner, "x", kestal_new_json_null());
    kestal_json_t *object = kestal_new_json_object();
    set(object, "list", list);
    set(object, "name", kestal_new_json_string("kestal", 6));
    set(object, "inner", inner);
    return object;
}

TEST_F(json, reports_name_the_function_and_go_on)
{
    static std::vector<std::string> sites;
    sites.clear();
    kestal_json_t *value = kestal_new_json_integer(5), *constant = kestal_new_json_true(),
                  *unknown = kestal_new_json_real(1);
    kestal_json_t *a = kestal_new_json_object(), *b = kestal_new_json_object();
    set(a, "k", kestal_new_json_integer(1));
    const uint32_t key = kestal_json_object_get_hash(a)->m_head->m_key;
    kestal_create_hash_node_to_tail(kestal_json_object_get_hash(b), key, nullptr); // a node without a pair
    unknown->m_type = 0x123;
    kestal_set_assert_handler(
        [](const char *file, const char *function, uint64_t, const char *message) {
            sites.push_back(std::string(function) + ": " + message);
            EXPECT_STREQ(file, "./source/json_parser");
        },
        nullptr); // until the fixture's ends

    EXPECT_EQ(kestal_json_reference_get(value), 2u);
    value->m_reference_count = 0x10000;
    EXPECT_EQ(kestal_json_reference_get(value), 0x10001u);
    EXPECT_EQ(kestal_json_reference_get(value), 0x10002u); // silent above the mark
    value->m_reference_count = 2;
    EXPECT_EQ(kestal_json_reference_put(value), 1u);
    EXPECT_EQ(kestal_free_json(value), nullptr);
    EXPECT_EQ(kestal_json_reference_get(constant), 0u);
    EXPECT_EQ(kestal_free_json(constant), nullptr);
    EXPECT_EQ(constant, kestal_new_json(KESTAL_JSON_TRUE));
    EXPECT_EQ(get(b, "k"), nullptr);
    EXPECT_EQ(kestal_compare_json(a, b), 1);
    EXPECT_EQ(kestal_json_object_set_value(b, "k", 1, constant), 0);
    EXPECT_EQ(kestal_json_object_delete_value(b, "k", 1), 0);
    EXPECT_EQ(kestal_free_json(unknown), nullptr);
    EXPECT_EQ(kestal_new_json(0), nullptr);
    const std::string many = "kestal_json_reference_get: too many reference count",
                      twice = "kestal_json_reference_put: reference count incorrect (double put ?)";
    const std::vector<std::string> expected{many,
                                            many,
                                            many,
                                            twice,
                                            "kestal_json_object_get_value: hash vector is null",
                                            "kestal_compare_json: hash vector is null",
                                            many,
                                            "kestal_json_object_set_value: hash vector is null",
                                            twice,
                                            "kestal_free_json: unknown json type",
                                            "kestal_new_json: unknown json type"};
    EXPECT_EQ(sites, expected);
    kestal_free_json(a);
    kestal_free_json(b);
}

TEST_F(json, null_and_wrong_types_give_the_failure_value)
{
    kestal_json_t *object = kestal_new_json_object(), *array = kestal_new_json_array();
    for (kestal_json_t *other : {static_cast<kestal_json_t *>(nullptr), kestal_new_json_false()}) {
        uint64_t size = 7;
        const void *key = "";
        EXPECT_EQ(kestal_json_object_get_pair(nullptr, &key, &size), nullptr);
        EXPECT_TRUE(key == nullptr && size == 0);
        size = 7;
        EXPECT_EQ(kestal_json_string_get_value(other, &size), nullptr);
        EXPECT_EQ(size + kestal_json_object_get_count(other) + kestal_json_array_get_room_count(other), 0u);
        EXPECT_EQ(kestal_json_object_get_hash(other), nullptr);
        EXPECT_EQ(kestal_json_array_get_table(other), nullptr);
        for (const int32_t result :
             {kestal_json_object_set_value(other, "a", 1, array), kestal_json_object_delete_value(other, "a", 1),
              kestal_json_object_clear(other), kestal_json_array_append_value(other, object),
              kestal_json_array_delete_value(other, 0), kestal_json_array_clear(other),
              kestal_json_string_set_puts(other, "x"), kestal_json_string_set_printf(other, "%d", 1),
              kestal_json_string_set_value_allocated_ptr(other, nullptr, 0), kestal_json_real_set_value(other, 1)})
            EXPECT_EQ(result, -1);
        EXPECT_EQ(kestal_json_integer_get_value(other, -9), -9);
        EXPECT_EQ(kestal_json_real_get_value(other, -9.5), -9.5);
    }
    for (const int32_t result :
         {kestal_json_object_set_value(object, "a", 1, object), kestal_json_object_set_value(object, nullptr, 0, array),
          kestal_json_array_append_value(array, array), kestal_json_array_insert_value(array, 1, object),
          kestal_json_array_set_value(array, 0, object)})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(array->m_reference_count + object->m_reference_count, 2u);
    kestal_free_json(object);
    kestal_free_json(array);
}

TEST_F(json, members_keep_their_place_and_keys_are_bytes)
{
    kestal_json_t *object = kestal_new_json_object();
    // The hash is the key's Adler-32 at every length.
    for (std::string key; key.size() < 40; key += static_cast<char>(0xFF - key.size())) {
        set(object, key, kestal_new_json_null());
        EXPECT_EQ(kestal_json_object_get_hash(object)->m_tail->m_key, kestal_update_adler32(1, key.data(), key.size()));
        EXPECT_EQ(get(object, key), kestal_new_json_null());
    }
    EXPECT_EQ(kestal_json_object_clear(object), 0);

    for (const std::string &key : {std::string("a"), std::string("a\0", 2), std::string(), std::string("b")})
        EXPECT_EQ(set(object, key, kestal_new_json_integer(static_cast<int64_t>(key.size()))), 0);
    EXPECT_EQ(set(object, "a", kestal_new_json_integer(100)), 0);
    EXPECT_EQ(kestal_json_object_set_value(object, "b", 1, get(object, "b")), 0); // survives being set over itself
    std::vector<std::pair<std::string, int64_t>> seen;
    for (kestal_hash_node_t *node = kestal_json_object_get_hash(object)->m_head; node != nullptr; node = node->m_next) {
        const void *key = nullptr;
        uint64_t size = 0;
        kestal_json_t *value = kestal_json_object_get_pair(node, &key, &size);
        seen.emplace_back(std::string(static_cast<const char *>(key), size), kestal_json_integer_get_value(value, -1));
    }
    EXPECT_EQ(seen, (decltype(seen){{"a", 100}, {std::string("a\0", 2), 2}, {"", 0}, {"b", 1}}));
    kestal_free_json(object);
}

TEST_F(json, arrays_grow_by_doubling_then_by_1025)
{
    kestal_json_t *array = kestal_new_json_array();
    std::map<uint64_t, uint64_t> room_at;
    for (int64_t i = 0; i < 3000; ++i) {
        append(array, kestal_new_json_integer(i));
        room_at.emplace(kestal_json_array_get_room_count(array), static_cast<uint64_t>(i) + 1);
    }
    const std::map<uint64_t, uint64_t> expected{{8, 1},     {16, 9},    {32, 17},    {64, 33},     {128, 65},
                                                {256, 129}, {512, 257}, {1024, 513}, {2049, 1025}, {3074, 2050}};
    EXPECT_EQ(room_at, expected);
    EXPECT_EQ(kestal_json_array_clear(array), 0);
    EXPECT_EQ(kestal_json_array_get_room_count(array), 3074u);
    kestal_free_json(array);
}

TEST_F(json, strings_adopt_copy_and_terminate)
{
    kestal_json_t *string = kestal_new_json_string("hello", 5);
    const char *data = kestal_json_string_get_value(string, nullptr);
    EXPECT_EQ(kestal_json_string_set_value(string, "hello", 5), 0);
    EXPECT_EQ(kestal_json_string_get_value(string, nullptr), data); // the same bytes do not reallocate
    EXPECT_EQ(kestal_json_string_set_value(string, data + 1, 4), 0);
    EXPECT_STREQ(kestal_json_string_get_value(string, nullptr), "ello");
    EXPECT_EQ(kestal_json_string_set_value(string, nullptr, 3), 0);
    EXPECT_EQ(std::memcmp(kestal_json_string_get_value(string, nullptr), "\0\0\0", 4), 0);
    data = kestal_json_string_get_value(string, nullptr);
    EXPECT_EQ(kestal_json_string_set_value(string, nullptr, 3), 0);
    EXPECT_EQ(kestal_json_string_get_value(string, nullptr), data);

    char *block = kestal_strdup("adopted");
    EXPECT_EQ(kestal_json_string_set_value_allocated_ptr(string, block, 5), 0);
    EXPECT_EQ(kestal_json_string_get_value(string, nullptr), block);
    EXPECT_EQ(kestal_json_string_set_value_allocated_ptr(string, block, 7), 0);
    EXPECT_EQ(kestal_json_string_get_size(string), 7u);
    EXPECT_EQ(kestal_json_string_set_printf(string, "%d-%s", 42, "x"), 0);
    EXPECT_STREQ(kestal_json_string_get_value(string, nullptr), "42-x");
    {
        const failing_allocation failing(1);
        EXPECT_EQ(kestal_json_string_set_printf(string, "%d", 1), 0);
    }
    EXPECT_EQ(kestal_json_string_get_size(string), 0u);
    EXPECT_EQ(kestal_json_string_get_value(string, nullptr), nullptr);
    kestal_free_json(string);
}

TEST_F(json, numbers_convert_one_way)
{
    kestal_json_t *integer = kestal_new_json(KESTAL_JSON_INTEGER), *real = kestal_new_json(KESTAL_JSON_REAL);
    EXPECT_EQ(kestal_json_integer_set_value(integer, 7), 0);
    EXPECT_EQ(kestal_json_real_set_value(real, -2.9), 0);
    EXPECT_EQ(kestal_json_integer_get_value(real, 0), -2);
    EXPECT_EQ(kestal_json_real_get_value(integer, 0), 7.0);
    EXPECT_EQ(kestal_json_integer_set_value(real, 1), -1);
    EXPECT_EQ(kestal_json_integer_clear(real), -1);
    EXPECT_EQ(kestal_json_real_get_value(real, 0), -2.9);
    EXPECT_EQ(kestal_json_real_clear(real), 0);
    EXPECT_EQ(kestal_json_integer_get_value(real, 1), 0);
    const std::pair<double, int64_t> cases[] = {
        {3.99, 3}, {-3.99, -3}, {1e300, INT64_MAX}, {-1e300, INT64_MIN}, {std::nan(""), 0}};
    for (const auto &[given, stored] : cases) {
        EXPECT_EQ(kestal_json_real_set_value(integer, given), 0);
        EXPECT_EQ(kestal_json_integer_get_value(integer, 0), stored) << given;
    }
    kestal_free_json(integer);
    kestal_free_json(real);
}

TEST_F(json, compares_and_copies)
{
    kestal_json_t *a = sample(), *deep = kestal_dup_json(a, 1), *shallow = kestal_dup_json(a, 0),
                  *list = get(deep, "list");
    EXPECT_EQ(get(shallow, "list"), get(a, "list"));
    EXPECT_NE(list, get(a, "list"));
    EXPECT_EQ(kestal_compare_json(a, deep), 0);
    EXPECT_EQ(kestal_compare_json(a, shallow), 0);
    kestal_json_integer_set_value(kestal_json_array_get_table(list)[0], 2);
    EXPECT_TRUE(kestal_compare_json(a, deep) < 0 && kestal_compare_json(deep, a) > 0);
    kestal_json_array_delete_value(list, 0);
    EXPECT_GT(kestal_compare_json(a, deep), 0); // the shorter array first
    kestal_json_object_delete_value(deep, "list", 4);
    kestal_json_object_set_value(deep, "list", 4, get(a, "list"));
    EXPECT_EQ(kestal_compare_json(a, deep), 0); // in any order of insertion
    kestal_json_object_delete_value(deep, "name", 4);
    set(deep, "nome", kestal_new_json_null());
    EXPECT_TRUE(kestal_compare_json(a, deep) > 0 && kestal_compare_json(deep, a) > 0); // a missing member comes first
    EXPECT_GT(kestal_compare_json(get(a, "name"), kestal_json_array_get_table(get(a, "list"))[1]), 0); // shorter first
    EXPECT_LT(kestal_compare_json(nullptr, a), 0);
    EXPECT_GT(kestal_compare_json(kestal_new_json_null(), kestal_new_json_true()), 0);
    kestal_json_t *nan = kestal_new_json_real(std::nan("")), *one = kestal_new_json_real(1);
    EXPECT_EQ(kestal_compare_json(nan, one), 0);
    for (kestal_json_t *value : {a, deep, shallow, nan, one})
        kestal_free_json(value);
}

TEST_F(json, failing_allocations_leave_everything_as_it_was)
{
    kestal_json_t *kept = sample(), *value = kestal_new_json_integer(1), *full = kestal_new_json_array();
    for (int i = 0; i < 8; ++i)
        append(full, kestal_new_json_integer(i));
    kestal_json_t *const before = kestal_dup_json(full, 1);
    EXPECT_GE(with_each_allocation_failing([&] { kestal_free_json(kestal_dup_json(kept, 1)); }), 10u);
    EXPECT_EQ(with_each_allocation_failing([&] {
                  if (kestal_json_object_set_value(kept, "new", 3, value) == 0)
                      kestal_json_object_delete_value(kept, "new", 3);
              }),
              1u);
    for (const uint64_t index : {uint64_t{0}, uint64_t{8}}) {
        const failing_allocation failing(1);
        EXPECT_EQ(kestal_json_array_insert_value(full, index, value), -1);
    }
    {
        const failing_allocation failing(1);
        EXPECT_EQ(kestal_json_string_set_puts(get(kept, "name"), "longer than before"), -1);
    }
    EXPECT_STREQ(kestal_json_string_get_value(get(kept, "name"), nullptr), "kestal");
    EXPECT_EQ(kestal_json_object_get_count(kept), 3u);
    EXPECT_EQ(kestal_compare_json(full, before), 0);
    EXPECT_EQ(value->m_reference_count, 1u);
    for (kestal_json_t *each : {kept, value, full, before})
        kestal_free_json(each);
}

// Thousands of random edits of one object and one array, against std containers; every value is one of a few shared
// integers or a constant, whose reference counts are known from the model after each step.
TEST_F(json, agrees_with_a_plain_model)
{
    std::mt19937 random(20260101);
    const auto below = [&](uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(random); };
    std::vector<kestal_json_t *> pool;
    for (int64_t i = 0; i < 6; ++i)
        pool.push_back(kestal_new_json_integer(i));
    pool.push_back(kestal_new_json_null());
    kestal_json_t *object = kestal_new_json_object(), *array = kestal_new_json_array();
    std::map<std::string, kestal_json_t *> members;
    std::vector<kestal_json_t *> elements;
    const uint64_t empty = kestal_get_alloc_count();

    for (int step = 0; step < 6000; ++step) {
        kestal_json_t *value = pool[below(pool.size())];
        const std::string key(below(3), static_cast<char>('a' + below(20)));
        const uint64_t at = below(elements.size() + 2), count = elements.size();
        const auto place = elements.begin() + static_cast<std::ptrdiff_t>(std::min<uint64_t>(at, count));
        switch (below(7)) {
        case 0:
        case 1:
            ASSERT_EQ(kestal_json_object_set_value(object, key.data(), key.size(), value), 0);
            members[key] = value;
            break;
        case 2:
            ASSERT_EQ(kestal_json_object_delete_value(object, key.data(), key.size()), 0);
            members.erase(key);
            break;
        case 3:
            ASSERT_EQ(kestal_json_array_append_value(array, value), 0);
            elements.push_back(value);
            break;
        case 4:
            ASSERT_EQ(kestal_json_array_insert_value(array, at, value), at <= count ? 0 : -1);
            if (at <= count)
                elements.insert(place, value);
            break;
        case 5:
            ASSERT_EQ(kestal_json_array_set_value(array, at, value), at < count ? 0 : -1);
            if (at < count)
                *place = value;
            break;
        default:
            ASSERT_EQ(kestal_json_array_delete_value(array, at), at < count ? 0 : -1);
            if (at < count)
                elements.erase(place);
        }
        kestal_json_t **const table = kestal_json_array_get_table(array);
        ASSERT_EQ(elements, std::vector<kestal_json_t *>(table, table + kestal_json_array_get_count(array)));
        ASSERT_EQ(kestal_json_object_get_count(object), members.size());
        ASSERT_EQ(get(object, key), members.contains(key) ? members[key] : nullptr);
        ASSERT_EQ(kestal_get_alloc_count(), empty + members.size() + (table != nullptr));
        for (kestal_json_t *each : pool) {
            const auto is_member = [each](const auto &member) { return member.second == each; };
            const auto held = std::count(elements.begin(), elements.end(), each) +
                              std::count_if(members.begin(), members.end(), is_member);
            ASSERT_EQ(each->m_reference_count, each == pool.back() ? 0 : 1u + static_cast<uint32_t>(held));
        }
    }
    kestal_json_object_clear(object);
    pool.back() = object;
    pool.push_back(array);
    for (kestal_json_t *value : pool)
        kestal_free_json(value);
}

} // namespace
