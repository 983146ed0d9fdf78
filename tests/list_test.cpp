#include "support.hpp"

#include <algorithm>
#include <deque>
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

    // As the links have it, and as the walkers do.
    void expect(const std::vector<item *> &elements)
    {
        const item *before = nullptr, *at = head;
        for (int64_t place = 0; at != nullptr; before = at, at = at->m_next, ++place) {
            ASSERT_EQ(at, elements.at(static_cast<size_t>(place)));
            ASSERT_EQ(kestal_linked_list_index(&head, at, LINK), place);
            ASSERT_TRUE(!doubly || at->m_previous == before);
        }
        ASSERT_EQ(kestal_linked_list_count(&head, LINK), elements.size());
        ASSERT_EQ(kestal_linked_list_get_tail(&head, end(), LINK), elements.empty() ? nullptr : elements.back());
    }
};

constexpr family families[] = {{true, true}, {true, false}, {false, true}, {false, false}};

TEST(list, random_operations_match_a_model)
{
    for (family list : families) {
        std::mt19937 random(7);
        std::deque<item> items;
        std::vector<item *> model;
        for (int step = 0; step < 3000 && !HasFailure(); ++step) {
            item *fresh = &items.emplace_back();
            fresh->m_order = static_cast<int>(random() % 10);
            const auto above = [&](const item *at) { return fresh->m_order < at->m_order; };
            const auto place = model.begin() + static_cast<long>(random() % (model.size() + 1));
            item *gone = nullptr;
            unsigned action = static_cast<unsigned>(random() % 9);
            if ((place == model.end() && action > 2) || (model.size() > 40 && action < 4))
                action = 8;
            if (action == 0) {
                list.prepend(fresh);
                model.insert(model.begin(), fresh);
            } else if (action == 1) {
                list.append(fresh);
                model.push_back(fresh);
            } else if (action == 2) {
                list.sort_insert(fresh);
                model.insert(std::find_if(model.begin(), model.end(), above), fresh);
            } else if (action == 3) {
                list.insert(*place, fresh);
                model.insert(place, fresh);
            } else if (action == 4) {
                list.replace(*place, fresh);
                gone = std::exchange(*place, fresh);
            } else if (action < 8) {
                list.remove(gone = *place);
                model.erase(place);
            } else {
                list.sort();
                std::stable_sort(model.begin(), model.end(), [](auto a, auto b) { return a->m_order < b->m_order; });
            }
            const auto equal = std::ranges::find(model, fresh->m_order, &item::m_order);
            EXPECT_EQ(kestal_linked_list_search(&list.head, fresh, LINK, by_order),
                      equal == model.end() ? nullptr : *equal);
            EXPECT_TRUE(gone == nullptr || (gone->m_next == nullptr && gone->m_previous == nullptr));
            list.expect(model);
        }
    }
}

TEST(list, what_is_not_on_the_list_is_left_alone)
{
    for (family list : families) {
        item one, two, stranger, other;
        list.append(&one);
        list.remove(&one);
        list.remove(&one);
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
        EXPECT_EQ(kestal_linked_list_index(&list.head, &stranger, LINK), -1);
        EXPECT_EQ(kestal_linked_list_search(&list.head, &stranger, LINK, nullptr), nullptr);
        list.sort_insert(&other, nullptr);
        list.expect({&one, &two, &other});
    }
}

} // namespace
