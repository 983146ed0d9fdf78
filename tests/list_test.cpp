#include "support.hpp"

#include <algorithm>
#include <deque>
#include <list>
#include <random>

namespace
{

struct item {
    item *m_next = nullptr;
    int m_order = 0;
    item *m_previous = nullptr;
};

int32_t by_order(const void *a, const void *b)
{
    return static_cast<const item *>(a)->m_order - static_cast<const item *>(b)->m_order;
}

// One interface over the two families, with and without a tail, and checks of every link after every step.
struct family {
    bool doubly;
    bool with_tail;
    item *head = nullptr;
    item *tail = nullptr;

    item **tail_address() { return with_tail ? &tail : nullptr; }

#define EITHER(operation, ...)                                                                                         \
    (doubly ? kestal_doubly_linked_list_##operation(&head, tail_address(), __VA_ARGS__,                                \
                                                    KESTAL_LINKS(item, m_previous, m_next))                            \
            : kestal_singly_linked_list_##operation(&head, tail_address(), __VA_ARGS__, KESTAL_LINK(item, m_next)))
    void prepend(item *node)
    {
        EITHER(prepend, node);
    }
    void append(item *node)
    {
        EITHER(append, node);
    }
    void remove(item *node)
    {
        EITHER(delete, node);
    }
    void replace(item *old_node, item *new_node)
    {
        EITHER(replace, old_node, new_node);
    }
    void insert(item *existing, item *node)
    {
        EITHER(insert, existing, node);
    }
#undef EITHER
    void sort_insert(item *node, kestal_list_compare_t compare = by_order)
    {
        if (doubly)
            kestal_doubly_linked_list_sort_insert(&head, tail_address(), node, KESTAL_LINKS(item, m_previous, m_next),
                                                  compare);
        else
            kestal_singly_linked_list_sort_insert(&head, tail_address(), node, KESTAL_LINK(item, m_next), compare);
    }
    void sort(kestal_list_compare_t compare = by_order)
    {
        if (doubly)
            kestal_doubly_linked_list_sort(&head, tail_address(), KESTAL_LINKS(item, m_previous, m_next), compare);
        else
            kestal_singly_linked_list_sort(&head, tail_address(), KESTAL_LINK(item, m_next), compare);
    }

    void expect(const std::list<item *> &elements) const
    {
        const item *previous = nullptr, *at = head;
        for (const item *element : elements) {
            ASSERT_EQ(at, element);
            if (doubly) {
                ASSERT_EQ(at->m_previous, previous);
            }
            previous = at;
            at = at->m_next;
        }
        ASSERT_EQ(at, nullptr);
        if (with_tail) {
            ASSERT_EQ(tail, previous);
        }
    }
};

constexpr family families[] = {{true, true}, {true, false}, {false, true}, {false, false}};

// A list and what it should hold, worked on at random places.
class checked_list
{
public:
    explicit checked_list(const family &kind) : list_(kind) {}

    void step(unsigned action)
    {
        item *fresh = &items_.emplace_back();
        fresh->m_order = static_cast<int>(random_() % 10);
        auto place = model_.begin();
        if (!model_.empty())
            std::advance(place, static_cast<long>(random_() % model_.size()));
        const bool existing = place != model_.end();
        if (action == 0) {
            list_.prepend(fresh);
            model_.push_front(fresh);
        } else if (action == 1) {
            list_.append(fresh);
            model_.push_back(fresh);
        } else if (action == 2) {
            list_.sort_insert(fresh);
            model_.insert(std::find_if(model_.begin(), model_.end(),
                                       [&](const item *at) { return fresh->m_order < at->m_order; }),
                          fresh);
        } else if (action == 3 && existing) {
            list_.insert(*place, fresh);
            model_.insert(place, fresh);
        } else if (action == 4 && existing) {
            list_.replace(*place, fresh);
            expect_unlinked(std::exchange(*place, fresh));
        } else if (action == 5 && existing) {
            list_.remove(*place);
            expect_unlinked(*place);
            model_.erase(place);
        } else if (action == 6) {
            list_.sort();
            model_.sort([](const item *a, const item *b) { return a->m_order < b->m_order; });
        }
        list_.expect(model_);
    }

    void run()
    {
        for (int count = 0; count < 3000 && !testing::Test::HasFailure(); ++count)
            step(static_cast<unsigned>(model_.size() > 40     ? 4 + random_() % 2
                                       : random_() % 100 == 0 ? 6
                                                              : random_() % 6));
    }

private:
    void expect_unlinked(const item *gone) const
    {
        EXPECT_EQ(gone->m_next, nullptr);
        EXPECT_TRUE(!list_.doubly || gone->m_previous == nullptr);
    }

    family list_;
    std::deque<item> items_;
    std::list<item *> model_;
    std::mt19937 random_{7};
};

TEST(list, random_operations_match_a_model)
{
    for (const family &kind : families)
        checked_list(kind).run();
}

TEST(list, the_last_element_leaves_an_empty_list)
{
    for (family list : families) {
        item one;
        list.prepend(&one);
        list.expect({&one});
        list.remove(&one);
        list.expect({});
        EXPECT_EQ(list.tail, nullptr);
        EXPECT_EQ(one.m_next, nullptr);
        list.remove(&one); // not on the list any more
        list.expect({});
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
        list.sort(nullptr);
        list.sort([](const void *, const void *) { return 1; }); // contradicts itself
        EXPECT_EQ(kestal_linked_list_count(&list.head, KESTAL_LINK(item, m_next)), 5u);
        list.sort();
        EXPECT_EQ(list.head, &items[4]);
    }
}

TEST(list, strangers_and_nulls_change_nothing)
{
    for (family list : families) {
        item items[2], stranger, other;
        list.append(&items[0]);
        list.append(&items[1]);
        other.m_next = &stranger;
        list.remove(&stranger);
        list.insert(&stranger, &other);
        EXPECT_EQ(other.m_next, &stranger);
        list.replace(&stranger, &other);
        EXPECT_EQ(other.m_next, list.doubly ? &stranger : nullptr); // a singly linked one takes the link over first
        list.replace(&items[0], &items[0]);
        list.insert(&items[0], &items[0]);
        list.prepend(nullptr);
        list.append(nullptr);
        list.remove(nullptr);
        list.replace(&items[0], nullptr);
        list.insert(nullptr, &other);
        list.sort_insert(nullptr);
        list.expect({&items[0], &items[1]});
        list.sort_insert(&other, nullptr);
        list.expect({&items[0], &items[1], &other});
    }
    item one;
    kestal_doubly_linked_list_append(nullptr, nullptr, &one, KESTAL_LINKS(item, m_previous, m_next));
    kestal_singly_linked_list_sort(nullptr, nullptr, KESTAL_LINK(item, m_next), by_order);
}

TEST(list, walkers)
{
    const uint64_t next = KESTAL_LINK(item, m_next);
    item *head = nullptr, *tail = nullptr, items[3], stranger;
    EXPECT_EQ(kestal_linked_list_get_tail(&head, &tail, next), nullptr);
    EXPECT_EQ(kestal_linked_list_count(&head, next), 0u);
    EXPECT_EQ(kestal_linked_list_count(nullptr, next), 0u);
    for (int i = 0; i < 3; ++i) {
        items[i].m_order = 10 * i;
        kestal_singly_linked_list_append(&head, &tail, &items[i], next);
    }
    EXPECT_EQ(kestal_linked_list_get_tail(&head, &tail, next), &items[2]);
    EXPECT_EQ(kestal_linked_list_get_tail(&head, nullptr, next), &items[2]);
    EXPECT_EQ(kestal_linked_list_count(&head, next), 3u);
    EXPECT_EQ(kestal_linked_list_index(&head, &items[0], next), 0);
    EXPECT_EQ(kestal_linked_list_index(&head, &items[2], next), 2);
    EXPECT_EQ(kestal_linked_list_index(&head, &stranger, next), -1);
    EXPECT_EQ(kestal_linked_list_index(&head, nullptr, next), -1);

    const int wanted = 20;
    const kestal_list_match_t match = [](const void *element, const void *key) {
        return static_cast<const item *>(element)->m_order == *static_cast<const int *>(key) ? 0 : 1;
    };
    EXPECT_EQ(kestal_linked_list_search(&head, &wanted, next, match), &items[2]);
    EXPECT_EQ(kestal_linked_list_search(&head, &items[1], next, nullptr), &items[1]);
    EXPECT_EQ(kestal_linked_list_search(&head, &stranger, next, nullptr), nullptr);
    EXPECT_EQ(kestal_linked_list_search(nullptr, &wanted, next, match), nullptr);
}

} // namespace
