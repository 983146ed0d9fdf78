// The JSON value model beside cJSON, json-c and jansson: a tree of 1,000 objects of 100 members is built, copied,
// compared and freed; members are looked up. Assertion reports go to a handler that drops them.

#include <kestal_ulx.h>

#include <benchmark/benchmark.h>
#include <cjson/cJSON.h>
#include <dlfcn.h>
#include <jansson.h>

#include <string>
#include <vector>

namespace {

constexpr int objects = 1000;
constexpr int members = 100;

const std::vector<std::string> &keys()
{
    static const std::vector<std::string> made = [] {
        std::vector<std::string> result;
        for (int i = 0; i < members; ++i)
            result.push_back("member" + std::to_string(i));
        return result;
    }();
    return made;
}

// What each library is asked to do.
struct with_kestal {
    using tree = kestal_json_t *;
    static tree build()
    {
        tree root = kestal_new_json_array();
        for (int i = 0; i < objects; ++i) {
            kestal_json_t *object = kestal_new_json_object();
            int64_t number = 0;
            for (const std::string &key : keys()) {
                kestal_json_t *value = kestal_new_json_integer(number++);
                kestal_json_object_set_value(object, key.data(), key.size(), value);
                kestal_free_json(value);
            }
            kestal_json_array_append_value(root, object);
            kestal_free_json(object);
        }
        return root;
    }
    static tree copy(tree root) { return kestal_dup_json(root, 1); }
    static bool same(tree a, tree b) { return kestal_compare_json(a, b) == 0; }
    static void release(tree root) { kestal_free_json(root); }
    static int64_t look_up(tree root)
    {
        int64_t sum = 0;
        const kestal_json_t *object = kestal_json_array_get_table(root)[0];
        for (const std::string &key : keys())
            sum += kestal_json_integer_get_value(kestal_json_object_get_value(object, key.data(), key.size()), 0);
        return sum;
    }
};

struct with_cjson {
    using tree = cJSON *;
    static tree build()
    {
        tree root = cJSON_CreateArray();
        for (int i = 0; i < objects; ++i) {
            cJSON *object = cJSON_CreateObject();
            int64_t number = 0;
            for (const std::string &key : keys())
                cJSON_AddItemToObject(object, key.c_str(), cJSON_CreateNumber(static_cast<double>(number++)));
            cJSON_AddItemToArray(root, object);
        }
        return root;
    }
    static tree copy(tree root) { return cJSON_Duplicate(root, 1); }
    static bool same(tree a, tree b) { return cJSON_Compare(a, b, 1) != 0; }
    static void release(tree root) { cJSON_Delete(root); }
    static int64_t look_up(tree root)
    {
        int64_t sum = 0;
        const cJSON *object = cJSON_GetArrayItem(root, 0);
        for (const std::string &key : keys())
            sum += cJSON_GetObjectItemCaseSensitive(object, key.c_str())->valueint;
        return sum;
    }
};

// json-c and jansson claim the same names, so json-c is reached through the loader.
template <typename Function>
Function json_c(const char *name)
{
    static void *library = dlopen("libjson-c.so.5", RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
    return reinterpret_cast<Function>(dlsym(library, name));
}

struct with_jsonc {
    using tree = void *;
    static inline const auto new_array = json_c<tree (*)()>("json_object_new_array");
    static inline const auto new_object = json_c<tree (*)()>("json_object_new_object");
    static inline const auto new_int64 = json_c<tree (*)(int64_t)>("json_object_new_int64");
    static inline const auto object_add = json_c<int (*)(tree, const char *, tree)>("json_object_object_add");
    static inline const auto array_add = json_c<int (*)(tree, tree)>("json_object_array_add");
    static inline const auto deep_copy = json_c<int (*)(tree, tree *, void *)>("json_object_deep_copy");
    static inline const auto equal = json_c<int (*)(tree, tree)>("json_object_equal");
    static inline const auto put = json_c<int (*)(tree)>("json_object_put");
    static inline const auto element = json_c<tree (*)(tree, size_t)>("json_object_array_get_idx");
    static inline const auto get_ex = json_c<int (*)(tree, const char *, tree *)>("json_object_object_get_ex");
    static inline const auto get_int64 = json_c<int64_t (*)(tree)>("json_object_get_int64");

    static tree build()
    {
        tree root = new_array();
        for (int i = 0; i < objects; ++i) {
            tree object = new_object();
            int64_t number = 0;
            for (const std::string &key : keys())
                object_add(object, key.c_str(), new_int64(number++));
            array_add(root, object);
        }
        return root;
    }
    static tree copy(tree root)
    {
        tree result = nullptr;
        deep_copy(root, &result, nullptr);
        return result;
    }
    static bool same(tree a, tree b) { return equal(a, b) != 0; }
    static void release(tree root) { put(root); }
    static int64_t look_up(tree root)
    {
        int64_t sum = 0;
        tree object = element(root, 0), value = nullptr;
        for (const std::string &key : keys()) {
            get_ex(object, key.c_str(), &value);
            sum += get_int64(value);
        }
        return sum;
    }
};

struct with_jansson {
    using tree = json_t *;
    static tree build()
    {
        tree root = json_array();
        for (int i = 0; i < objects; ++i) {
            json_t *object = json_object();
            int64_t number = 0;
            for (const std::string &key : keys())
                json_object_set_new(object, key.c_str(), json_integer(number++));
            json_array_append_new(root, object);
        }
        return root;
    }
    static tree copy(tree root) { return json_deep_copy(root); }
    static bool same(tree a, tree b) { return json_equal(a, b) != 0; }
    static void release(tree root) { json_decref(root); }
    static int64_t look_up(tree root)
    {
        int64_t sum = 0;
        const json_t *object = json_array_get(root, 0);
        for (const std::string &key : keys())
            sum += json_integer_value(json_object_get(object, key.c_str()));
        return sum;
    }
};

template <typename Library>
void build(benchmark::State &state)
{
    for (auto _ : state) {
        typename Library::tree root = Library::build();
        state.PauseTiming();
        Library::release(root);
        state.ResumeTiming();
    }
}

template <typename Library>
void release(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        typename Library::tree root = Library::build();
        state.ResumeTiming();
        Library::release(root);
    }
}

template <typename Library>
void copy(benchmark::State &state)
{
    typename Library::tree root = Library::build();
    for (auto _ : state) {
        typename Library::tree result = Library::copy(root);
        state.PauseTiming();
        Library::release(result);
        state.ResumeTiming();
    }
    Library::release(root);
}

template <typename Library>
void compare(benchmark::State &state)
{
    typename Library::tree root = Library::build(), other = Library::copy(root);
    for (auto _ : state)
        benchmark::DoNotOptimize(Library::same(root, other));
    Library::release(root);
    Library::release(other);
}

template <typename Library>
void look_up(benchmark::State &state)
{
    typename Library::tree root = Library::build();
    for (auto _ : state)
        benchmark::DoNotOptimize(Library::look_up(root));
    Library::release(root);
}

template <typename Library>
void register_rows(const std::string &who)
{
    const auto row = [&](const char *name, void (*run)(benchmark::State &)) {
        benchmark::RegisterBenchmark((std::string("JSON ") + name + ":" + who).c_str(), run)
            ->Unit(benchmark::kMicrosecond);
    };
    row("build 1,000 x 100", build<Library>);
    row("copy 1,000 x 100", copy<Library>);
    row("compare 1,000 x 100", compare<Library>);
    row("free 1,000 x 100", release<Library>);
    row("100 look-ups", look_up<Library>);
}

} // namespace

int main(int argc, char **argv)
{
    kestal_set_assert_handler([](const char *, const char *, uint64_t, const char *) {}, nullptr);
    register_rows<with_kestal>("kestal");
    register_rows<with_cjson>("cjson");
    register_rows<with_jsonc>("json-c");
    register_rows<with_jansson>("jansson");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
