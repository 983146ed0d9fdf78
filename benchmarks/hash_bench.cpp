// The hash table beside GLib's GHashTable and std::unordered_map, on random 32-bit keys, with as many buckets as keys
// where that can be asked for.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <glib.h>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

// Distinct keys; those that go into a table and those that are in none come from one sequence.
std::vector<uint32_t> keys(int64_t count, bool present)
{
    std::unordered_set<uint32_t> seen;
    std::vector<uint32_t> all;
    std::mt19937 random(1);
    while (all.size() < 2 * static_cast<size_t>(count))
        if (const uint32_t key = static_cast<uint32_t>(random()); seen.insert(key).second)
            all.push_back(key);
    const auto middle = all.begin() + count;
    return present ? std::vector<uint32_t>(all.begin(), middle) : std::vector<uint32_t>(middle, all.end());
}

class kestal_table {
public:
    explicit kestal_table(size_t count) : table_(kestal_open_hash(count, nullptr)) {}
    ~kestal_table() { kestal_close_hash(table_); }
    void insert(uint32_t key) { kestal_create_hash_node_to_tail(table_, key, this); }
    bool has(uint32_t key) const { return kestal_search_hash_node(table_, nullptr, key) != nullptr; }

private:
    kestal_hash_t *table_;
};

class glib_table {
public:
    explicit glib_table(size_t) : table_(g_hash_table_new(g_direct_hash, g_direct_equal)) {}
    ~glib_table() { g_hash_table_destroy(table_); }
    void insert(uint32_t key) { g_hash_table_insert(table_, GUINT_TO_POINTER(key), this); }
    bool has(uint32_t key) const { return g_hash_table_lookup(table_, GUINT_TO_POINTER(key)) != nullptr; }

private:
    GHashTable *table_;
};

class standard_table {
public:
    explicit standard_table(size_t count) { table_.reserve(count); }
    void insert(uint32_t key) { table_.emplace(key, this); }
    bool has(uint32_t key) const { return table_.find(key) != table_.end(); }

private:
    std::unordered_map<uint32_t, void *> table_;
};

// A table's opening and all its insertions; its closing is left out of the time.
template <typename Table>
void insert(benchmark::State &state)
{
    const auto all = keys(state.range(0), true);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        Table table(all.size());
        for (const uint32_t key : all)
            table.insert(key);
        benchmark::DoNotOptimize(table);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Look-ups of as many keys, in an order other than that of insertion.
template <typename Table>
void look_up(benchmark::State &state, bool present)
{
    Table table(static_cast<size_t>(state.range(0)));
    for (const uint32_t key : keys(state.range(0), true))
        table.insert(key);
    auto wanted = keys(state.range(0), present);
    std::shuffle(wanted.begin(), wanted.end(), std::mt19937(2));
    for (auto _ : state)
        for (const uint32_t key : wanted)
            benchmark::DoNotOptimize(table.has(key));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Table>
void hit(benchmark::State &state)
{
    look_up<Table>(state, true);
}

template <typename Table>
void miss(benchmark::State &state)
{
    look_up<Table>(state, false);
}

BENCHMARK(insert<kestal_table>)->Name("hash insert:kestal")->Arg(10000)->Arg(200000)->UseManualTime();
BENCHMARK(insert<glib_table>)->Name("hash insert:glib")->Arg(10000)->Arg(200000)->UseManualTime();
BENCHMARK(insert<standard_table>)->Name("hash insert:unordered_map")->Arg(10000)->Arg(200000)->UseManualTime();
BENCHMARK(hit<kestal_table>)->Name("hash hit:kestal")->Arg(10000)->Arg(200000);
BENCHMARK(hit<glib_table>)->Name("hash hit:glib")->Arg(10000)->Arg(200000);
BENCHMARK(hit<standard_table>)->Name("hash hit:unordered_map")->Arg(10000)->Arg(200000);
BENCHMARK(miss<kestal_table>)->Name("hash miss:kestal")->Arg(10000)->Arg(200000);
BENCHMARK(miss<glib_table>)->Name("hash miss:glib")->Arg(10000)->Arg(200000);
BENCHMARK(miss<standard_table>)->Name("hash miss:unordered_map")->Arg(10000)->Arg(200000);

} // namespace
