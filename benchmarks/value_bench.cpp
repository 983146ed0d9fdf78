// Value lists beside GLib's keyed data lists: 16 named texts set, replaced and read. Both sides copy what they are given.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>

#include <glib.h>

namespace {

const char *const names[16] = {"src",     "mode",  "debug",    "verbose",  "timeout", "offset",
                               "address", "port",  "username", "password", "charset", "httpheader",
                               "method",  "limit", "ttl",      "scope"};

void set_kestal(kestal_value_t *list, const char *text)
{
    for (const char *name : names)
        kestal_set_value_string(list, KESTAL_VALUE_REPLACE_BY_NAME, 1, name, text);
}

void set_glib(GData **list, const char *text)
{
    for (const char *name : names)
        g_datalist_set_data_full(list, name, g_strdup(text), g_free);
}

void build_kestal(benchmark::State &state)
{
    for (auto _ : state) {
        kestal_value_t list;
        kestal_init_value(&list);
        set_kestal(&list, "a value");
        kestal_destroy_value(&list);
    }
}

void build_glib(benchmark::State &state)
{
    for (auto _ : state) {
        GData *list;
        g_datalist_init(&list);
        set_glib(&list, "a value");
        g_datalist_clear(&list);
    }
}

void replace_kestal(benchmark::State &state)
{
    kestal_value_t list;
    kestal_init_value(&list);
    for (auto _ : state) {
        set_kestal(&list, "one value");
        set_kestal(&list, "another value");
    }
    kestal_destroy_value(&list);
}

void replace_glib(benchmark::State &state)
{
    GData *list;
    g_datalist_init(&list);
    for (auto _ : state) {
        set_glib(&list, "one value");
        set_glib(&list, "another value");
    }
    g_datalist_clear(&list);
}

void get_kestal(benchmark::State &state)
{
    kestal_value_t list;
    kestal_init_value(&list);
    set_kestal(&list, "a value");
    for (auto _ : state)
        for (const char *name : names)
            benchmark::DoNotOptimize(kestal_get_value_string(&list, 1, name));
    kestal_destroy_value(&list);
}

void get_glib(benchmark::State &state)
{
    GData *list;
    g_datalist_init(&list);
    set_glib(&list, "a value");
    for (auto _ : state)
        for (const char *name : names)
            benchmark::DoNotOptimize(g_datalist_get_data(&list, name));
    g_datalist_clear(&list);
}

BENCHMARK(build_kestal)->Name("value list set 16:kestal");
BENCHMARK(build_glib)->Name("value list set 16:glib");
BENCHMARK(replace_kestal)->Name("value list replace 16 twice:kestal");
BENCHMARK(replace_glib)->Name("value list replace 16 twice:glib");
BENCHMARK(get_kestal)->Name("value list get 16:kestal");
BENCHMARK(get_glib)->Name("value list get 16:glib");

} // namespace
