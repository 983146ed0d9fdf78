#include <kestal_ulx/json_parser.h>

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>

#include "adler32.hpp"
#include "guard.hpp"
#include "hash.hpp"

#include <algorithm>
#include <string.h>
#include <utility>

namespace {

constexpr uint64_t object_buckets = 32;
constexpr uint64_t least_room = 8;
constexpr uint64_t room_step = 1025;
constexpr uint32_t reference_mark = 0x10000;

struct json_object {
    kestal_json_t head;
    kestal_hash_t *hash;
};

struct json_array {
    kestal_json_t head;
    uint64_t room;
    uint64_t count;
    kestal_json_t **table;
};

struct json_string {
    kestal_json_t head;
    uint64_t size;
    char *data;
};

struct json_integer {
    kestal_json_t head;
    int64_t number;
};

struct json_real {
    kestal_json_t head;
    double number;
};

// A member: a node of the object's hash table, the pair that the node's data points to, and the key's bytes, in one
// block, which the table frees as the node. The pair owns one reference to the value.
struct json_pair {
    uint64_t key_size;
    char *key;
    kestal_json_t *value;
};

struct json_member {
    kestal_hash_node_t node;
    json_pair pair;
};

// In read-only storage: nothing may write to them, their counts included.
constexpr kestal_json_t constant_true{KESTAL_JSON_TRUE, 0};
constexpr kestal_json_t constant_false{KESTAL_JSON_FALSE, 0};
constexpr kestal_json_t constant_null{KESTAL_JSON_NULL, 0};

kestal_json_t *lend(const kestal_json_t &constant)
{
    return const_cast<kestal_json_t *>(&constant);
}

bool is_constant(const kestal_json_t *value)
{
    return value == &constant_true || value == &constant_false || value == &constant_null;
}

void report(const char *function, uint64_t line, const char *message)
{
    kestal_assert_fail_tag("./source/json_parser", function, line, message);
}

template <typename T>
constexpr uint32_t type_code = 0;
template <>
constexpr uint32_t type_code<json_object> = KESTAL_JSON_OBJECT;
template <>
constexpr uint32_t type_code<json_array> = KESTAL_JSON_ARRAY;
template <>
constexpr uint32_t type_code<json_string> = KESTAL_JSON_STRING;
template <>
constexpr uint32_t type_code<json_integer> = KESTAL_JSON_INTEGER;
template <>
constexpr uint32_t type_code<json_real> = KESTAL_JSON_REAL;

// The record behind a value of type T; null for null and for any other type.
template <typename T>
T *as(kestal_json_t *value)
{
    return kestal_json_type(value) == type_code<T> ? reinterpret_cast<T *>(value) : nullptr;
}

template <typename T>
const T *as(const kestal_json_t *value)
{
    return kestal_json_type(value) == type_code<T> ? reinterpret_cast<const T *>(value) : nullptr;
}

template <typename T>
T *new_record()
{
    T *record = static_cast<T *>(kestal_alloc_tag(sizeof(T), "kestal_new_json", __LINE__));
    if (record == nullptr)
        return nullptr;
    *record = T{};
    record->head = {type_code<T>, 1};
    return record;
}

template <typename T>
kestal_json_t *head_of(T *record)
{
    return record == nullptr ? nullptr : &record->head;
}

int64_t to_integer(double number)
{
    constexpr double limit = 9223372036854775808.0; // 2 to the power of 63
    if (number >= limit)
        return INT64_MAX;
    if (number < -limit)
        return INT64_MIN;
    return number == number ? static_cast<int64_t>(number) : 0;
}

template <typename T>
int32_t order(T a, T b)
{
    return a < b ? -1 : (b < a ? 1 : 0);
}

// --- members

json_member *__kestal_json_new_pair(uint32_t key_hash, const void *key, uint64_t key_size)
{
    if (key_size > SIZE_MAX - sizeof(json_member))
        return nullptr;
    json_member *member = static_cast<json_member *>(kestal_alloc(sizeof(json_member) + key_size));
    if (member == nullptr)
        return nullptr;
    *member = {.node = {.m_previous = nullptr,
                        .m_next = nullptr,
                        .m_bucket_previous = nullptr,
                        .m_bucket_next = nullptr,
                        .m_key = key_hash,
                        .m_data = &member->pair},
               .pair = {.key_size = key_size, .key = reinterpret_cast<char *>(member + 1), .value = nullptr}};
    memcpy(member->pair.key, key, static_cast<size_t>(key_size));
    return member;
}

// The table's data destructor.
void *__kestal_json_free_pair(void *data)
{
    if (data != nullptr)
        kestal_free_json(static_cast<json_pair *>(data)->value);
    return nullptr;
}

// Adds a member under a key that the object does not have yet. It takes the caller's reference to the value over, also
// when it fails.
int32_t add_member(kestal_hash_t *hash, uint32_t key_hash, const void *key, uint64_t key_size, kestal_json_t *value)
{
    json_member *member = __kestal_json_new_pair(key_hash, key, key_size);
    if (member == nullptr) {
        kestal_free_json(value);
        return -1;
    }
    member->pair.value = value;
    kestal_add_hash_node_to_tail(hash, &member->node);
    return 0;
}

uint64_t word_at(const char *bytes)
{
    uint64_t word;
    memcpy(&word, bytes, sizeof word);
    return word;
}

// Most keys are short: two words that may overlap cover them without a call.
bool is_same_key(const json_pair *pair, const void *key, uint64_t key_size)
{
    if (pair->key_size != key_size)
        return false;
    const size_t size = static_cast<size_t>(key_size);
    const char *other = static_cast<const char *>(key);
    if (size < sizeof(uint64_t) || size > 2 * sizeof(uint64_t))
        return memcmp(pair->key, other, size) == 0;
    const size_t last = size - sizeof(uint64_t);
    return word_at(pair->key) == word_at(other) && word_at(pair->key + last) == word_at(other + last);
}

kestal_hash_node_t *find_member(kestal_hash_t *hash, uint32_t key_hash, const void *key, uint64_t key_size,
                                const char *function)
{
    kestal_hash_node_t *node = kestal::search(*hash, nullptr, key_hash);
    for (; node != nullptr; node = kestal::search(*hash, node, key_hash)) {
        const json_pair *pair = static_cast<const json_pair *>(node->m_data);
        if (pair == nullptr)
            report(function, __LINE__, "hash vector is null");
        else if (is_same_key(pair, key, key_size))
            return node;
    }
    return nullptr;
}

json_pair *pair_of(const kestal_hash_node_t *node)
{
    return node == nullptr ? nullptr : static_cast<json_pair *>(node->m_data);
}

// --- elements

// Room for one more element. When a larger table had to be made, `old_table` receives the one in use so far, whose
// elements the caller moves over and which it then releases; else it receives null.
bool __kestal_json_array_extend_room(json_array *array, kestal_json_t ***old_table)
{
    *old_table = nullptr;
    const uint64_t need = array->count + 1;
    if (need <= array->room)
        return true;

    uint64_t room = need;
    if (need < 2 * array->room)
        room = need < room_step ? 2 * array->room : array->count + room_step;
    room = std::max(room, least_room);
    if (room > SIZE_MAX / sizeof(kestal_json_t *))
        return false;

    void *table = kestal_alloc(room * sizeof(kestal_json_t *));
    if (table == nullptr)
        return false;
    *old_table = array->table;
    array->table = static_cast<kestal_json_t **>(table);
    array->room = room;
    return true;
}

void release_elements(json_array *array)
{
    while (array->count > 0)
        kestal_free_json(array->table[--array->count]);
}

void move_elements(kestal_json_t **to, kestal_json_t *const *from, uint64_t count)
{
    if (count > 0)
        memmove(to, from, static_cast<size_t>(count) * sizeof *to);
}

// --- strings

void set_data(json_string *string, char *data, uint64_t size)
{
    kestal_check_free(std::exchange(string->data, data));
    string->size = size;
}

bool all_zero(const char *bytes, uint64_t size)
{
    return std::all_of(bytes, bytes + size, [](char byte) { return byte == 0; });
}

bool holds_already(const json_string *string, const void *bytes)
{
    if (string->data == bytes)
        return true;
    if (string->data == nullptr)
        return false;
    if (bytes == nullptr)
        return all_zero(string->data, string->size);
    return memcmp(string->data, bytes, static_cast<size_t>(string->size)) == 0;
}

// --- copies and comparisons

// Stores what a container's copy holds in the original's place: the same value, or a copy of it.
template <typename Store>
bool store_copy(kestal_json_t *value, int32_t deep, Store store)
{
    if (deep == 0)
        return store(value) == 0;
    kestal_json_t *copy = kestal_dup_json(value, deep);
    const bool stored = copy != nullptr && store(copy) == 0;
    kestal_free_json(copy);
    return stored;
}

kestal_json_t *copy_object(const json_object *object, int32_t deep)
{
    kestal_json_t *copy = kestal_new_json_object();
    if (copy == nullptr)
        return nullptr;
    for (const kestal_hash_node_t *node = object->hash->m_head; node != nullptr; node = node->m_next) {
        __builtin_prefetch(node->m_next);
        const json_pair *pair = pair_of(node);
        const auto store = [&](kestal_json_t *value) {
            kestal_json_reference_get(value);
            return add_member(as<json_object>(copy)->hash, node->m_key, pair->key, pair->key_size, value);
        };
        if (pair != nullptr && !store_copy(pair->value, deep, store))
            return kestal_free_json(copy);
    }
    return copy;
}

kestal_json_t *copy_array(const json_array *array, int32_t deep)
{
    kestal_json_t *copy = kestal_new_json_array();
    if (copy == nullptr)
        return nullptr;
    const auto store = [&](kestal_json_t *value) { return kestal_json_array_append_value(copy, value); };
    for (uint64_t index = 0; index < array->count; ++index) {
        if (!store_copy(array->table[index], deep, store))
            return kestal_free_json(copy);
    }
    return copy;
}

int32_t compare_objects(const json_object *a, const json_object *b)
{
    const int32_t by_count = order(a->hash->m_node_count, b->hash->m_node_count);
    if (by_count != 0)
        return by_count;
    for (const kestal_hash_node_t *node = a->hash->m_head; node != nullptr; node = node->m_next) {
        const json_pair *mine = pair_of(node);
        if (mine == nullptr)
            continue;
        const json_pair *other =
            pair_of(find_member(b->hash, node->m_key, mine->key, mine->key_size, "kestal_compare_json"));
        const int32_t result = kestal_compare_json(mine->value, other == nullptr ? nullptr : other->value);
        if (result != 0)
            return result;
    }
    return 0;
}

int32_t compare_arrays(const json_array *a, const json_array *b)
{
    if (a->count != b->count)
        return order(a->count, b->count);
    for (uint64_t index = 0; index < a->count; ++index) {
        const int32_t result = kestal_compare_json(a->table[index], b->table[index]);
        if (result != 0)
            return result;
    }
    return 0;
}

int32_t compare_strings(const json_string *a, const json_string *b)
{
    if (a->size != b->size || a->size == 0)
        return order(a->size, b->size);
    if (a->data == nullptr || b->data == nullptr)
        return order(a->data != nullptr, b->data != nullptr);
    return memcmp(a->data, b->data, static_cast<size_t>(a->size));
}

// Frees an object's table with its members. Nobody looks into it any more, so none is unlinked before it goes.
void close_members(kestal_hash_t *hash)
{
    for (kestal_hash_node_t *node = hash->m_head, *next; node != nullptr; node = next) {
        next = node->m_next;
        __builtin_prefetch(next);
        __kestal_json_free_pair(node->m_data);
        kestal_free(node);
    }
    kestal_free(hash);
}

// Frees a value that has no reference left, and the references it holds.
void __kestal_json_destructor(kestal_json_t *value)
{
    switch (value->m_type) {
    case KESTAL_JSON_OBJECT:
        close_members(as<json_object>(value)->hash);
        break;
    case KESTAL_JSON_ARRAY:
        release_elements(as<json_array>(value));
        kestal_check_free(as<json_array>(value)->table);
        break;
    case KESTAL_JSON_STRING:
        kestal_check_free(as<json_string>(value)->data);
        break;
    case KESTAL_JSON_UNDEFINED:
    case KESTAL_JSON_INTEGER:
    case KESTAL_JSON_REAL:
    case KESTAL_JSON_TRUE:
    case KESTAL_JSON_FALSE:
    case KESTAL_JSON_NULL:
        break;
    default:
        report("kestal_free_json", __LINE__, "unknown json type");
        break;
    }
    if (!is_constant(value))
        kestal_free(value);
}

} // namespace

kestal_json_t *kestal_new_json(uint32_t type)
{
    switch (type) {
    case KESTAL_JSON_OBJECT: {
        kestal::owned_block<json_object> object(new_record<json_object>(), __func__);
        if (!object)
            return nullptr;
        object->hash = kestal_open_hash(object_buckets, __kestal_json_free_pair);
        return object->hash == nullptr ? nullptr : head_of(object.release());
    }
    case KESTAL_JSON_ARRAY:
        return head_of(new_record<json_array>());
    case KESTAL_JSON_STRING:
        return head_of(new_record<json_string>());
    case KESTAL_JSON_INTEGER:
        return head_of(new_record<json_integer>());
    case KESTAL_JSON_REAL:
        return head_of(new_record<json_real>());
    case KESTAL_JSON_TRUE:
        return lend(constant_true);
    case KESTAL_JSON_FALSE:
        return lend(constant_false);
    case KESTAL_JSON_NULL:
        return lend(constant_null);
    default:
        report(__func__, __LINE__, "unknown json type");
        return nullptr;
    }
}

kestal_json_t *kestal_new_json_object(void)
{
    return kestal_new_json(KESTAL_JSON_OBJECT);
}

kestal_json_t *kestal_new_json_array(void)
{
    return kestal_new_json(KESTAL_JSON_ARRAY);
}

kestal_json_t *kestal_new_json_string(const void *bytes, uint64_t size)
{
    kestal_json_t *string = kestal_new_json(KESTAL_JSON_STRING);
    if (kestal_json_string_set_value(string, bytes, size) != 0)
        return kestal_free_json(string);
    return string;
}

kestal_json_t *kestal_new_json_integer(int64_t number)
{
    json_integer *integer = new_record<json_integer>();
    if (integer != nullptr)
        integer->number = number;
    return head_of(integer);
}

kestal_json_t *kestal_new_json_real(double number)
{
    json_real *real = new_record<json_real>();
    if (real != nullptr)
        real->number = number;
    return head_of(real);
}

kestal_json_t *kestal_new_json_true(void)
{
    return kestal_new_json(KESTAL_JSON_TRUE);
}

kestal_json_t *kestal_new_json_false(void)
{
    return kestal_new_json(KESTAL_JSON_FALSE);
}

kestal_json_t *kestal_new_json_null(void)
{
    return kestal_new_json(KESTAL_JSON_NULL);
}

uint32_t kestal_json_type(const kestal_json_t *value)
{
    return value == nullptr ? 0 : value->m_type;
}

uint32_t kestal_json_reference_get(kestal_json_t *value)
{
    if (value == nullptr)
        return 0;
    // Reports ordinary counts and is silent above the mark: callers rely on it.
    if (value->m_reference_count <= reference_mark)
        report(__func__, __LINE__, "too many reference count");
    return is_constant(value) ? 0 : ++value->m_reference_count;
}

uint32_t kestal_json_reference_put(kestal_json_t *value)
{
    if (value == nullptr)
        return 0;
    if (value->m_reference_count == 0) {
        report(__func__, __LINE__, "reference count incorrect (double put ?)");
        return 0;
    }
    return --value->m_reference_count;
}

kestal_json_t *kestal_free_json(kestal_json_t *value)
{
    if (value != nullptr && kestal_json_reference_put(value) == 0)
        __kestal_json_destructor(value);
    return nullptr;
}

kestal_json_t *kestal_dup_json(const kestal_json_t *value, int32_t deep)
{
    switch (kestal_json_type(value)) {
    case KESTAL_JSON_OBJECT:
        return copy_object(as<json_object>(value), deep);
    case KESTAL_JSON_ARRAY:
        return copy_array(as<json_array>(value), deep);
    case KESTAL_JSON_STRING:
        return kestal_new_json_string(as<json_string>(value)->data, as<json_string>(value)->size);
    case KESTAL_JSON_INTEGER:
        return kestal_new_json_integer(as<json_integer>(value)->number);
    case KESTAL_JSON_REAL:
        return kestal_new_json_real(as<json_real>(value)->number);
    case KESTAL_JSON_TRUE:
    case KESTAL_JSON_FALSE:
    case KESTAL_JSON_NULL:
        return kestal_new_json(value->m_type);
    default:
        return nullptr;
    }
}

int32_t kestal_compare_json(const kestal_json_t *a, const kestal_json_t *b)
{
    if (a == b)
        return 0;
    if (a == nullptr || b == nullptr)
        return a == nullptr ? -1 : 1;
    if (a->m_type != b->m_type)
        return order(a->m_type, b->m_type);
    switch (a->m_type) {
    case KESTAL_JSON_OBJECT:
        return compare_objects(as<json_object>(a), as<json_object>(b));
    case KESTAL_JSON_ARRAY:
        return compare_arrays(as<json_array>(a), as<json_array>(b));
    case KESTAL_JSON_STRING:
        return compare_strings(as<json_string>(a), as<json_string>(b));
    case KESTAL_JSON_INTEGER:
        return order(as<json_integer>(a)->number, as<json_integer>(b)->number);
    case KESTAL_JSON_REAL:
        return order(as<json_real>(a)->number, as<json_real>(b)->number);
    default:
        return 0;
    }
}

kestal_hash_t *kestal_json_object_get_hash(const kestal_json_t *object)
{
    const json_object *record = as<json_object>(object);
    return record == nullptr ? nullptr : record->hash;
}

uint64_t kestal_json_object_get_count(const kestal_json_t *object)
{
    const json_object *record = as<json_object>(object);
    return record == nullptr ? 0 : kestal_get_hash_node_count(record->hash);
}

kestal_json_t *kestal_json_object_get_pair(const kestal_hash_node_t *node, const void **key, uint64_t *key_size)
{
    const json_pair *pair = pair_of(node);
    if (key != nullptr)
        *key = pair == nullptr ? nullptr : pair->key;
    if (key_size != nullptr)
        *key_size = pair == nullptr ? 0 : pair->key_size;
    return pair == nullptr ? nullptr : pair->value;
}

int32_t kestal_json_object_set_value(kestal_json_t *object, const void *key, uint64_t key_size, kestal_json_t *value)
{
    json_object *record = as<json_object>(object);
    if (record == nullptr || key == nullptr || value == nullptr || value == object)
        return -1;

    kestal_json_reference_get(value);
    const uint32_t key_hash = kestal::adler32_of(key, key_size);
    kestal_hash_node_t *node = find_member(record->hash, key_hash, key, key_size, __func__);
    if (node == nullptr)
        return add_member(record->hash, key_hash, key, key_size, value);
    kestal_free_json(std::exchange(pair_of(node)->value, value));
    return 0;
}

kestal_json_t *kestal_json_object_get_value(const kestal_json_t *object, const void *key, uint64_t key_size)
{
    const json_object *record = as<json_object>(object);
    if (record == nullptr || key == nullptr)
        return nullptr;
    const json_pair *pair =
        pair_of(find_member(record->hash, kestal::adler32_of(key, key_size), key, key_size, __func__));
    return pair == nullptr ? nullptr : pair->value;
}

int32_t kestal_json_object_delete_value(kestal_json_t *object, const void *key, uint64_t key_size)
{
    json_object *record = as<json_object>(object);
    if (record == nullptr || key == nullptr)
        return -1;
    if (kestal_hash_node_t *node =
            find_member(record->hash, kestal::adler32_of(key, key_size), key, key_size, __func__))
        kestal_del_hash_node(record->hash, node);
    return 0;
}

int32_t kestal_json_object_clear(kestal_json_t *object)
{
    json_object *record = as<json_object>(object);
    if (record == nullptr)
        return -1;
    kestal_clear_hash(record->hash);
    return 0;
}

kestal_json_t **kestal_json_array_get_table(const kestal_json_t *array)
{
    const json_array *record = as<json_array>(array);
    return record == nullptr ? nullptr : record->table;
}

uint64_t kestal_json_array_get_room_count(const kestal_json_t *array)
{
    const json_array *record = as<json_array>(array);
    return record == nullptr ? 0 : record->room;
}

uint64_t kestal_json_array_get_count(const kestal_json_t *array)
{
    const json_array *record = as<json_array>(array);
    return record == nullptr ? 0 : record->count;
}

int32_t kestal_json_array_set_value(kestal_json_t *array, uint64_t index, kestal_json_t *value)
{
    json_array *record = as<json_array>(array);
    if (record == nullptr || value == nullptr || value == array || index >= record->count)
        return -1;
    kestal_json_reference_get(value);
    kestal_free_json(std::exchange(record->table[index], value));
    return 0;
}

int32_t kestal_json_array_append_value(kestal_json_t *array, kestal_json_t *value)
{
    return kestal_json_array_insert_value(array, kestal_json_array_get_count(array), value);
}

int32_t kestal_json_array_insert_value(kestal_json_t *array, uint64_t index, kestal_json_t *value)
{
    json_array *record = as<json_array>(array);
    if (record == nullptr || value == nullptr || value == array || index > record->count)
        return -1;
    kestal_json_t **old_table = nullptr;
    if (!__kestal_json_array_extend_room(record, &old_table))
        return -1;

    kestal_json_t **from = old_table != nullptr ? old_table : record->table;
    move_elements(record->table + index + 1, from + index, record->count - index);
    if (old_table != nullptr) {
        move_elements(record->table, old_table, index);
        kestal_free(old_table);
    }
    kestal_json_reference_get(value);
    record->table[index] = value;
    ++record->count;
    return 0;
}

int32_t kestal_json_array_delete_value(kestal_json_t *array, uint64_t index)
{
    json_array *record = as<json_array>(array);
    if (record == nullptr || index >= record->count)
        return -1;
    kestal_json_t *removed = record->table[index];
    --record->count;
    move_elements(record->table + index, record->table + index + 1, record->count - index);
    kestal_free_json(removed);
    return 0;
}

int32_t kestal_json_array_clear(kestal_json_t *array)
{
    json_array *record = as<json_array>(array);
    if (record == nullptr)
        return -1;
    release_elements(record);
    return 0;
}

const char *kestal_json_string_get_value(const kestal_json_t *string, uint64_t *size)
{
    const json_string *record = as<json_string>(string);
    if (size != nullptr)
        *size = record == nullptr ? 0 : record->size;
    return record == nullptr ? nullptr : record->data;
}

uint64_t kestal_json_string_get_size(const kestal_json_t *string)
{
    const json_string *record = as<json_string>(string);
    return record == nullptr ? 0 : record->size;
}

int32_t kestal_json_string_set_value(kestal_json_t *string, const void *bytes, uint64_t size)
{
    json_string *record = as<json_string>(string);
    if (record == nullptr)
        return -1;
    if (size == 0) {
        set_data(record, nullptr, 0);
        return 0;
    }
    if (size == record->size && holds_already(record, bytes))
        return 0;
    if (size > SIZE_MAX - 1)
        return -1;

    char *data = static_cast<char *>(kestal_alloc(size + 1));
    if (data == nullptr)
        return -1;
    if (bytes != nullptr)
        memcpy(data, bytes, static_cast<size_t>(size));
    else
        memset(data, 0, static_cast<size_t>(size));
    data[size] = '\0';
    set_data(record, data, size);
    return 0;
}

int32_t kestal_json_string_set_puts(kestal_json_t *string, const char *text)
{
    return kestal_json_string_set_value(string, text, text == nullptr ? 0 : strlen(text));
}

int32_t kestal_json_string_set_printf(kestal_json_t *string, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int32_t result = kestal_json_string_set_vprintf(string, format, arguments);
    va_end(arguments);
    return result;
}

int32_t kestal_json_string_set_vprintf(kestal_json_t *string, const char *format, va_list arguments)
{
    kestal::owned_block<char> text(kestal_alloc_vsprintf(format, arguments), __func__);
    if (!text)
        return kestal_json_string_clear(string);
    if (kestal_json_string_set_value_allocated_ptr(string, text.get(), strlen(text.get())) != 0)
        return -1;
    text.release();
    return 0;
}

int32_t kestal_json_string_set_value_allocated_ptr(kestal_json_t *string, void *block, uint64_t size)
{
    json_string *record = as<json_string>(string);
    if (record == nullptr)
        return -1;
    if (record->data != block)
        set_data(record, static_cast<char *>(block), size);
    record->size = size;
    return 0;
}

int32_t kestal_json_string_clear(kestal_json_t *string)
{
    return kestal_json_string_set_value(string, nullptr, 0);
}

int64_t kestal_json_integer_get_value(const kestal_json_t *number, int64_t otherwise)
{
    if (const json_integer *integer = as<json_integer>(number))
        return integer->number;
    if (const json_real *real = as<json_real>(number))
        return to_integer(real->number);
    return otherwise;
}

double kestal_json_real_get_value(const kestal_json_t *number, double otherwise)
{
    if (const json_real *real = as<json_real>(number))
        return real->number;
    if (const json_integer *integer = as<json_integer>(number))
        return static_cast<double>(integer->number);
    return otherwise;
}

int32_t kestal_json_integer_set_value(kestal_json_t *number, int64_t value)
{
    json_integer *integer = as<json_integer>(number);
    if (integer == nullptr)
        return -1;
    integer->number = value;
    return 0;
}

int32_t kestal_json_real_set_value(kestal_json_t *number, double value)
{
    if (json_real *real = as<json_real>(number)) {
        real->number = value;
        return 0;
    }
    return kestal_json_integer_set_value(number, to_integer(value));
}

int32_t kestal_json_integer_clear(kestal_json_t *number)
{
    return kestal_json_integer_set_value(number, 0);
}

int32_t kestal_json_real_clear(kestal_json_t *number)
{
    return kestal_json_real_set_value(number, 0);
}
