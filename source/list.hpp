// The list operations as inline code: the exported calls wrap them, and modules whose links stand at known positions
// get them folded into their own code.
#pragma once

#include <kestal_ulx/list.h>

#include <algorithm>
#include <utility>

namespace kestal {

// A pointer field of a record whose type is not known here.
typedef void *__attribute__((__may_alias__)) list_link;

inline list_link &list_link_at(void *record, uint64_t position)
{
    return *reinterpret_cast<list_link *>(static_cast<char *>(record) + position);
}

// What the next links alone say: the walkers and the singly linked family.
class singly_linked_list {
public:
    singly_linked_list(void *head, void *tail, uint64_t next)
        : head_(*static_cast<list_link *>(head)), tail_(static_cast<list_link *>(tail)), next_position_(next)
    {}

    void *head() const { return head_; }
    list_link &next(void *element) const { return list_link_at(element, next_position_); }

    void *last() const
    {
        if (tail_ != nullptr && *tail_ != nullptr)
            return *tail_;
        // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): what the head holds may be null, the head is not
        return last_behind(head_);
    }

    uint64_t count() const
    {
        uint64_t elements = 0;
        for (void *element = head_; element != nullptr; element = next(element))
            ++elements;
        return elements;
    }

    void prepend(void *node) const { link_after(nullptr, node); }
    void append(void *node) const { link_after(last(), node); }

    void remove(void *node) const
    {
        const place found = find(node);
        if (found.slot == nullptr)
            return;
        *found.slot = next(node);
        if (tail_ != nullptr && *tail_ == node)
            *tail_ = found.predecessor;
        next(node) = nullptr;
    }

    void replace(void *old_node, void *new_node) const
    {
        if (old_node == new_node)
            return;
        next(new_node) = next(old_node);
        const place found = find(old_node);
        if (found.slot == nullptr)
            return;
        *found.slot = new_node;
        if (tail_ != nullptr && *tail_ == old_node)
            *tail_ = new_node;
        next(old_node) = nullptr;
    }

    void insert(void *existing, void *new_node) const
    {
        if (existing == new_node)
            return;
        next(new_node) = existing;
        const place found = find(existing);
        if (found.slot != nullptr)
            *found.slot = new_node;
    }

    void sort_insert(void *node, kestal_list_compare_t compare) const
    {
        link_after(compare == nullptr ? last() : last_not_above(node, compare), node);
    }

    // The last element of those at the front that `node` does not compare less than; null when the first is above it.
    void *last_not_above(void *node, kestal_list_compare_t compare) const
    {
        void *before = nullptr;
        for (void *at = head_; at != nullptr && compare(node, at) >= 0; at = next(at))
            before = at;
        return before;
    }

    // Merges the ascending runs that are there: stable, and one walk for a list in order. True when elements changed
    // places.
    bool sort(kestal_list_compare_t compare) const
    {
        void *rest = head_;
        void *sorted = take_run(rest, compare);
        if (rest == nullptr)
            return false;
        // What 2^place runs came to, or null; the earliest runs have the highest place. An address has more bits than
        // there can be places.
        void *merged[8 * sizeof(void *)];
        size_t places = 0;
        for (; sorted != nullptr; sorted = take_run(rest, compare)) {
            size_t at = 0;
            for (; at < places && merged[at] != nullptr; ++at)
                sorted = merge(std::exchange(merged[at], nullptr), sorted, compare);
            merged[at] = sorted;
            places = std::max(places, at + 1);
        }
        for (size_t at = 0; at < places; ++at)
            if (merged[at] != nullptr)
                sorted = sorted == nullptr ? merged[at] : merge(merged[at], sorted, compare);
        head_ = sorted;
        if (tail_ != nullptr)
            *tail_ = last_behind(sorted);
        return true;
    }

private:
    void *last_behind(void *element) const
    {
        while (element != nullptr && next(element) != nullptr)
            element = next(element);
        return element;
    }

    struct place {
        list_link *slot; // the link that points to the element; null when it is not on the list
        void *predecessor;
    };

    place find(const void *node) const
    {
        place at{&head_, nullptr};
        while (*at.slot != node) {
            if (*at.slot == nullptr)
                return {nullptr, nullptr};
            at.predecessor = *at.slot;
            at.slot = &next(at.predecessor);
        }
        return at;
    }

    void link_after(void *predecessor, void *node) const
    {
        list_link &slot = predecessor == nullptr ? head_ : next(predecessor);
        next(node) = slot;
        if (tail_ != nullptr && slot == nullptr)
            *tail_ = node;
        slot = node;
    }

    // Cuts the elements that ascend already off the front of `rest`. Null when there are none.
    void *take_run(void *&rest, kestal_list_compare_t compare) const
    {
        void *first = rest;
        void *last = first;
        while (last != nullptr && (rest = next(last)) != nullptr && compare(last, rest) <= 0)
            last = rest;
        if (last != nullptr)
            next(last) = nullptr;
        return first;
    }

    // Two sorted chains in one; of equal elements, those of the earlier chain come first.
    void *merge(void *earlier, void *later, kestal_list_compare_t compare) const
    {
        const uint64_t position = next_position_;
        list_link first = nullptr;
        list_link *end = &first;
        while (earlier != nullptr && later != nullptr) {
            if (compare(earlier, later) > 0) {
                *end = later;
                end = &list_link_at(later, position);
                later = *end;
            } else {
                *end = earlier;
                end = &list_link_at(earlier, position);
                earlier = *end;
            }
        }
        *end = earlier != nullptr ? earlier : later;
        return first;
    }

    list_link &head_;
    list_link *tail_;
    uint64_t next_position_;
};

class doubly_linked_list {
public:
    doubly_linked_list(void *head, void *tail, uint64_t previous, uint64_t next)
        : head_(*static_cast<list_link *>(head)), tail_(static_cast<list_link *>(tail)), forward_(head, tail, next),
          previous_position_(previous)
    {}

    void prepend(void *node) const { link_between(nullptr, node, head_); }
    void append(void *node) const { link_between(forward_.last(), node, nullptr); }

    void remove(void *node) const
    {
        if (!may_hold(node))
            return;
        void *before = previous(node);
        void *after = next(node);
        successor_slot(before) = after;
        set_predecessor(after, before);
        previous(node) = nullptr;
        next(node) = nullptr;
    }

    void replace(void *old_node, void *new_node) const
    {
        if (old_node == new_node || !may_hold(old_node))
            return;
        link_between(previous(old_node), new_node, next(old_node));
        previous(old_node) = nullptr;
        next(old_node) = nullptr;
    }

    void insert(void *existing, void *new_node) const
    {
        if (existing != new_node && may_hold(existing))
            link_between(previous(existing), new_node, existing);
    }

    void sort_insert(void *node, kestal_list_compare_t compare) const
    {
        void *before = compare == nullptr ? forward_.last() : forward_.last_not_above(node, compare);
        link_between(before, node, successor_slot(before));
    }

    // Sorts by the next links, then puts the previous links right.
    void sort(kestal_list_compare_t compare) const
    {
        if (!forward_.sort(compare))
            return;
        void *before = nullptr;
        for (void *element = head_; element != nullptr; element = next(element)) {
            previous(element) = before;
            before = element;
        }
    }

private:
    list_link &previous(void *element) const { return list_link_at(element, previous_position_); }
    list_link &next(void *element) const { return forward_.next(element); }

    list_link &successor_slot(void *element) const { return element == nullptr ? head_ : next(element); }

    void set_predecessor(void *element, void *predecessor) const
    {
        if (element != nullptr)
            previous(element) = predecessor;
        else if (tail_ != nullptr)
            *tail_ = predecessor;
    }

    // An element that has no predecessor and is not the head is on no list, or on another one.
    bool may_hold(void *element) const { return previous(element) != nullptr || head_ == element; }

    void link_between(void *before, void *node, void *after) const
    {
        previous(node) = before;
        next(node) = after;
        successor_slot(before) = node;
        set_predecessor(after, node);
    }

    list_link &head_;
    list_link *tail_;
    singly_linked_list forward_;
    uint64_t previous_position_;
};

} // namespace kestal
