#include "support.hpp"

#include <algorithm>
#include <deque>
#include <list>
#include <random>

namespace {

struct item {
    item *m_next = nullptr;
    int m_order = 0;
    item *m_previous = nullptr;
};

#define LINKS KESTAL_LINKS(item, m_previous, m_next)
#define LINK KESTAL_LINK(item, m_next)

int32_t by_order(const void *a, const void *b)
{
    return static_cast<const item *>(a)->m_order - static_cast<const item *>(b)->m_order;
}

#define EITHER(operation, ...)                                                                                         \
    (doubly ? kestal_doubly_linked_list_##operation(&head, end(), __VA_ARGS__, LINKS)                                  \
            : kestal_singly_linked_list_##operation(&head, end(), __VA_ARGS__, LINK))

// Both families behind one face, with and without a tail.
struct family {
    bool doubly;
    bool with_tail;
    item *head = nullptr, *tail = nullptr;

    item **end() { return with_tail ? &tail : nullptr; }
    void prepend(item *node) { EITHER(prepend, node); }
    void append(item *node) { EITHER(append, node); }
    void remove(item *node) { EITHER(delete, node); }
    void replace(item *old_node, item *new_node) { EITHER(replace, old_node, new_node); }
    void insert(item *existing, item *node) { EITHER(insert, existing, node); }
    void sort_insert(item *node, kestal_list_compare_t compare = by_order)
    {
        doubly ? kestal_doubly_linked_list_sort_insert(&head, end(), node, LINKS, compare)
               : kestal_singly_linked_list_sort_insert(&head, end(), node, LINK, compare);
    }
    void sort(kestal_list_compare_t compare = by_order)
    {
        doubly ? kestal_doubly_linked_list_sort(&head, end(), LINKS, compare)
               : kestal_singly_linked_list_sort(&head, end(), LINK, compare);
    }

    void expect(const std::list<item *> &elements) const
    {
        const item *before = nullptr, *at = head;
        for (const item *element : elements) {
            ASSERT_EQ(at, element);
            ASSERT_TRUE(!doubly || at->m_previous == before);
            before = at;
            at = at->m_next;
        }
        ASSERT_EQ(at, nullptr);
        ASSERT_TRUE(!with_tail || tail == before);
    }
};

constexpr family families[] = {{true, true}, {true, false}, {false, true}, {false, false}};

TEST(list, random_operations_match_a_model)
{
    for (family list : families) {
        std::mt19937 random(7);
        std::deque<item> items;
        std::list<item *> model;
        for (int step = 0; step < 3000 && !HasFailure(); ++step) {
            item *fresh = &items.emplace_back();
            fresh->m_order = static_cast<int>(random() % 10);
            auto place = std::next(model.begin(), static_cast<long>(random() % (model.size() + 1)));
            item *gone = nullptr;
            unsigned action = static_cast<unsigned>(random() % 9);
            if ((place == model.end() && action > 2) || (model.size() > 20 && action < 4))
                action = 8;
            if (action == 0) {
                list.prepend(fresh);
                model.push_front(fresh);
            } else if (action == 1) {
                list.append(fresh);
                model.push_back(fresh);
            } else if (action == 2) {
                list.sort_insert(fresh);
                model.insert(std::find_if(model.begin(), model.end(),
                                          [&](const item *at) { return fresh->m_order < at->m_order; }),
                             fresh);
            } else if (action == 3) {
                list.insert(*place, fresh);
                model.insert(place, fresh);
            } else if (action == 4) {
                list.replace(*place, fresh);
                gone = std::exchange(*place, fresh);
            } else if (action < 8) {
                list.remove(*place);
                gone = *place;
                model.erase(place);
            } else {
                list.sort();
                model.sort([](const item *a, const item *b) { return a->m_order < b->m_order; });
            }
            EXPECT_TRUE(gone == nullptr || (gone->m_next == nullptr && gone->m_previous == nullptr));
            list.expect(model);
        }
    }
}

TEST(list, edges)
{
    for (family list : families) {
        item one, two, stranger, other;
        list.prepend(&one);
        list.expect({&one});
        list.remove(&one);
        list.expect({});
        list.remove(&one); // not on the list any more
        list.append(&one);
        list.append(&two);
        other.m_next = &stranger;
        list.remove(&stranger);
        list.insert(&stranger, &other);
        EXPECT_EQ(other.m_next, &stranger);
        list.replace(&stranger, &other);
        EXPECT_EQ(other.m_next, list.doubly ? &stranger : nullptr); // a singly linked one takes the link over first
        list.replace(&one, &one);
        list.insert(&one, &one);
        list.append(nullptr);
        list.replace(&one, nullptr);
        list.insert(nullptr, &other);
        list.sort(nullptr);
        list.expect({&one, &two});
        list.sort_insert(&other, nullptr);
        list.expect({&one, &two, &other});
    }
}

TEST(list, sorting_is_stable_and_always_ends)
{
    for (family list : families) {
        item items[5];
        for (int i = 0; i < 5; ++i) {
            items[i].m_order = 5 - i / 2; // 5 5 4 4 3
            list.append(&items[i]);
        }
        list.sort([](const void *, const void *) { return 0; });
        list.expect({&items[0], &items[1], &items[2], &items[3], &items[4]});
        list.sort();
        list.expect({&items[4], &items[2], &items[3], &items[0], &items[1]});
        list.sort([](const void *, const void *) { return 1; }); // contradicts itself
        EXPECT_EQ(kestal_linked_list_count(&list.head, LINK), 5u);
    }
}

TEST(list, walkers)
{
    item *head = nullptr, *tail = nullptr, items[3], stranger;
    EXPECT_EQ(kestal_linked_list_get_tail(&head, &tail, LINK), nullptr);
    EXPECT_EQ(kestal_linked_list_count(&head, LINK), 0u);
    for (int i = 0; i < 3; ++i) {
        items[i].m_order = 10 * i;
        kestal_singly_linked_list_append(&head, &tail, &items[i], LINK);
        EXPECT_EQ(kestal_linked_list_index(&head, &items[i], LINK), i);
        EXPECT_EQ(kestal_linked_list_count(&head, LINK), static_cast<uint64_t>(i) + 1);
        EXPECT_EQ(kestal_linked_list_get_tail(&head, i == 0 ? nullptr : &tail, LINK), &items[i]);
    }
    EXPECT_EQ(kestal_linked_list_index(&head, &stranger, LINK), -1);
    EXPECT_EQ(kestal_linked_list_index(&head, nullptr, LINK), -1);

    const int wanted = 20;
    const kestal_list_match_t match = [](const void *element, const void *key) {
        return static_cast<const item *>(element)->m_order == *static_cast<const int *>(key) ? 0 : 1;
    };
    EXPECT_EQ(kestal_linked_list_search(&head, &wanted, LINK, match), &items[2]);
    EXPECT_EQ(kestal_linked_list_search(&head, &items[1], LINK, nullptr), &items[1]);
    EXPECT_EQ(kestal_linked_list_search(&head, &stranger, LINK, nullptr), nullptr);
    EXPECT_EQ(kestal_linked_list_search(nullptr, &wanted, LINK, match), nullptr);
}

} // namespace
