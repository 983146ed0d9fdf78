// A heap whose links stand in the caller's records: nothing is allocated, adding takes one comparison, the first record
// is at hand, and any record can be taken out. A record's previous link points to its left sibling, or to its parent.
#pragma once

#include <utility>

namespace kestal {

template <typename T, T *T::*Previous, T *T::*Next, T *T::*Child, bool (*IsBefore)(const T &, const T &)>
class pairing_heap {
public:
    // The root is the caller's: the first of all records, or null.
    explicit pairing_heap(T *&root) : root_(root) {}

    void insert(T *record)
    {
        record->*Previous = record->*Next = record->*Child = nullptr;
        root_ = meld(root_, record);
    }

    void remove(T *record)
    {
        T *below = join(record->*Child);
        if (record == root_) {
            root_ = below;
        } else {
            T *before = record->*Previous;
            (before->*Child == record ? before->*Child : before->*Next) = record->*Next;
            if (record->*Next != nullptr)
                record->*Next->*Previous = before;
            root_ = meld(root_, below);
        }
        record->*Previous = record->*Next = record->*Child = nullptr;
    }

    // Takes out all records that `is_due` is true of, in no order, and hands each to `take`. Looks at no others but
    // their children.
    template <typename IsDue, typename Take>
    void take_due(IsDue is_due, Take take)
    {
        T *open = std::exchange(root_, nullptr);
        T *kept = nullptr;
        while (open != nullptr) {
            T *record = open;
            open = record->*Next;
            if (!is_due(*record)) {
                push(kept, record);
                continue;
            }
            for (T *child = record->*Child; child != nullptr;)
                push(open, std::exchange(child, child->*Next));
            record->*Previous = record->*Next = record->*Child = nullptr;
            take(*record);
        }
        root_ = join(kept);
    }

private:
    static void push(T *&chain, T *record)
    {
        record->*Next = chain;
        chain = record;
    }

    static T *meld(T *a, T *b)
    {
        if (a == nullptr || b == nullptr)
            return a == nullptr ? b : a;
        if (IsBefore(*b, *a))
            std::swap(a, b);
        b->*Previous = a;
        b->*Next = a->*Child;
        if (a->*Child != nullptr)
            a->*Child->*Previous = b;
        a->*Child = b;
        return a;
    }

    // Melds a chain of heaps: neighbours first, then the pairs from the last one on, which keeps later calls cheap.
    static T *join(T *chain)
    {
        T *pairs = nullptr;
        while (chain != nullptr) {
            T *first = chain;
            T *second = first->*Next;
            chain = second == nullptr ? nullptr : second->*Next;
            first->*Next = nullptr;
            if (second != nullptr)
                second->*Next = nullptr;
            push(pairs, meld(first, second));
        }
        T *all = nullptr;
        while (pairs != nullptr) {
            T *pair = std::exchange(pairs, pairs->*Next);
            pair->*Next = nullptr;
            all = meld(all, pair);
        }
        if (all != nullptr)
            all->*Previous = nullptr;
        return all;
    }

    T *&root_;
};

} // namespace kestal
