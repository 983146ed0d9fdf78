// Lists of a caller's records beside GLib's GQueue and GList: with the nodes that GLib allocates for each record, and
// ("links") with nodes that the records hold. Counting, searching and sorting use the latter on both sides.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <glib.h>
#include <random>
#include <vector>

namespace {

struct record {
    record *m_previous = nullptr;
    record *m_next = nullptr;
    GList link{};
    int order = 0;
};

constexpr int many = 1000;

std::vector<record> records(int count)
{
    std::vector<record> all(static_cast<size_t>(count));
    std::mt19937 random(1);
    for (record &one : all) {
        one.order = static_cast<int>(random() % 1000000);
        one.link.data = &one;
    }
    return all;
}

// In an order other than that of their addresses.
std::vector<record *> shuffled(std::vector<record> &all)
{
    std::vector<record *> pointers;
    for (record &one : all)
        pointers.push_back(&one);
    std::shuffle(pointers.begin(), pointers.end(), std::mt19937(2));
    return pointers;
}

int32_t by_order(const void *a, const void *b)
{
    return static_cast<const record *>(a)->order - static_cast<const record *>(b)->order;
}

#define LINKS KESTAL_LINKS(record, m_previous, m_next)

void append_and_delete_kestal(benchmark::State &state)
{
    auto all = records(many);
    const auto leaving = shuffled(all);
    for (auto _ : state) {
        record *head = nullptr, *tail = nullptr;
        for (record &one : all)
            kestal_doubly_linked_list_append(&head, &tail, &one, LINKS);
        for (record *one : leaving)
            kestal_doubly_linked_list_delete(&head, &tail, one, LINKS);
        benchmark::DoNotOptimize(head);
    }
    state.SetItemsProcessed(state.iterations() * many);
}

void append_and_delete_glib(benchmark::State &state)
{
    auto all = records(many);
    const auto leaving = shuffled(all);
    std::vector<GList *> nodes(many);
    for (auto _ : state) {
        GQueue queue = G_QUEUE_INIT;
        for (record &one : all) {
            g_queue_push_tail(&queue, &one);
            nodes[static_cast<size_t>(&one - all.data())] = queue.tail;
        }
        for (record *one : leaving)
            g_queue_delete_link(&queue, nodes[static_cast<size_t>(one - all.data())]);
        benchmark::DoNotOptimize(queue);
    }
    state.SetItemsProcessed(state.iterations() * many);
}

void append_and_delete_glib_link(benchmark::State &state)
{
    auto all = records(many);
    const auto leaving = shuffled(all);
    for (auto _ : state) {
        GQueue queue = G_QUEUE_INIT;
        for (record &one : all)
            g_queue_push_tail_link(&queue, &one.link);
        for (record *one : leaving)
            g_queue_unlink(&queue, &one->link);
        benchmark::DoNotOptimize(queue);
    }
    state.SetItemsProcessed(state.iterations() * many);
}

// The same records in the same random order, in both forms of list.
struct both_lists {
    explicit both_lists(int count) : all(records(count))
    {
        for (record *one : shuffled(all)) {
            kestal_doubly_linked_list_append(&head, &tail, one, LINKS);
            g_queue_push_tail_link(&queue, &one->link);
        }
    }

    std::vector<record> all;
    record *head = nullptr, *tail = nullptr;
    GQueue queue = G_QUEUE_INIT;
};

void count_kestal(benchmark::State &state)
{
    both_lists lists(many);
    for (auto _ : state)
        benchmark::DoNotOptimize(kestal_linked_list_count(&lists.head, KESTAL_LINK(record, m_next)));
}

void count_glib(benchmark::State &state)
{
    both_lists lists(many);
    for (auto _ : state)
        benchmark::DoNotOptimize(g_list_length(lists.queue.head));
}

int32_t not_the_order(const void *element, const void *key)
{
    return static_cast<const record *>(element)->order != *static_cast<const int *>(key);
}

void search_kestal(benchmark::State &state)
{
    both_lists lists(many);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            kestal_linked_list_search(&lists.head, &lists.tail->order, KESTAL_LINK(record, m_next), not_the_order));
}

void search_glib(benchmark::State &state)
{
    both_lists lists(many);
    for (auto _ : state)
        benchmark::DoNotOptimize(g_list_find_custom(lists.queue.head, &lists.tail->order, not_the_order));
}

void sort_insert_kestal(benchmark::State &state)
{
    auto all = records(100);
    for (auto _ : state) {
        record *head = nullptr, *tail = nullptr;
        for (record &one : all)
            kestal_doubly_linked_list_sort_insert(&head, &tail, &one, LINKS, by_order);
        benchmark::DoNotOptimize(head);
    }
}

void sort_insert_glib(benchmark::State &state)
{
    auto all = records(100);
    for (auto _ : state) {
        GList *head = nullptr;
        for (record &one : all)
            head = g_list_insert_sorted(head, &one, by_order);
        benchmark::DoNotOptimize(head);
        g_list_free(head);
    }
}

// Building the list anew each time costs both sides about the same.
void sort_kestal(benchmark::State &state)
{
    auto all = records(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        record *head = nullptr, *tail = nullptr;
        for (record &one : all)
            kestal_doubly_linked_list_append(&head, &tail, &one, LINKS);
        kestal_doubly_linked_list_sort(&head, &tail, LINKS, by_order);
        benchmark::DoNotOptimize(head);
    }
}

void sort_glib(benchmark::State &state)
{
    auto all = records(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        GQueue queue = G_QUEUE_INIT;
        for (record &one : all) {
            one.link.prev = one.link.next = nullptr;
            g_queue_push_tail_link(&queue, &one.link);
        }
        queue.head = g_list_sort(queue.head, by_order);
        benchmark::DoNotOptimize(queue);
    }
}

BENCHMARK(append_and_delete_kestal)->Name("list append and delete 1000:kestal");
BENCHMARK(append_and_delete_glib)->Name("list append and delete 1000:GQueue");
BENCHMARK(append_and_delete_glib_link)->Name("list append and delete 1000:GQueue links");
BENCHMARK(count_kestal)->Name("list count 1000:kestal");
BENCHMARK(count_glib)->Name("list count 1000:GList");
BENCHMARK(search_kestal)->Name("list search in 1000:kestal");
BENCHMARK(search_glib)->Name("list search in 1000:GList");
BENCHMARK(sort_insert_kestal)->Name("list sort insert 100:kestal");
BENCHMARK(sort_insert_glib)->Name("list sort insert 100:GList");
BENCHMARK(sort_kestal)->Name("list sort:kestal")->Arg(16);
BENCHMARK(sort_glib)->Name("list sort:GList")->Arg(16);
BENCHMARK(sort_kestal)->Name("list sort:kestal")->Arg(1000);
BENCHMARK(sort_glib)->Name("list sort:GList")->Arg(1000);

} // namespace
