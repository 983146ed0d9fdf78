// What waits for a deadline: an array of deadlines with their records, the front of it a heap with four below each, the
// rest in no order. To begin a time-out, or to begin it anew, costs no look at other records: a new one goes to the end,
// and one that is to wait longer stays where it is. What this leaves to be done is done when the first one goes. A record
// holds its deadline and its place, which is 0 while it is not here.
#pragma once

#include <kestal_ulx/memory.h>

#include <algorithm>
#include <stdint.h>
#include <string.h>
#include <utility>

namespace kestal {

template <typename T, uint64_t T::*Deadline, uint64_t T::*Place>
class timer_heap {
public:
    // All zero is an empty one.
    void close() { kestal_check_free(entries_); }

    // The first to be due, or null.
    T *first() const { return first_; }

    // False when memory is short.
    bool make_room(uint64_t count) { return count <= room_ || grow(); }

    // Takes note of the deadline of a record that is here, or of a new one, which there must be room for.
    void put(T &record)
    {
        const place at = record.*Place == 0 ? count_++ : record.*Place - 1;
        if (record.*Place == 0 || record.*Deadline < entries_[at].deadline)
            settle(at, {record.*Deadline, &record});
        if (first_ == &record)
            find_first();
        else if (first_ == nullptr || record.*Deadline < first_->*Deadline)
            first_ = &record;
    }

    void remove(T &record)
    {
        if (record.*Place == 0)
            return;
        drop(std::exchange(record.*Place, 0) - 1);
        if (first_ == &record)
            find_first();
    }

    // Takes out all records whose deadline has come, and hands each to `take`, which leaves the heap alone. They come in no
    // certain order; mostly, those with the same time-out come as they went in.
    template <typename Take>
    void take_due(uint64_t now, Take take)
    {
        if (first_ == nullptr || first_->*Deadline > now)
            return;
        order_all();
        place found = 0;
        due_[found++] = 0;
        for (place i = 0; i < found; ++i)
            for (place below = first_below(due_[i]), end = std::min(below + width, count_); below < end; ++below)
                if (entries_[below].deadline <= now)
                    due_[found++] = below;
        for (place i = 0; i < found; ++i) {
            T *&record = entries_[due_[i]].record;
            if (record->*Deadline <= now) {
                record->*Place = 0;
                take(*std::exchange(record, nullptr));
            }
        }
        // From the last one on: what takes a place is never due itself.
        while (found > 0) {
            const place at = due_[--found];
            if (T *later = entries_[at].record)
                settle(at, {later->*Deadline, later});
            else
                drop(at);
        }
        find_first();
    }

private:
    using place = uint64_t; // in the array

    struct entry {
        uint64_t deadline; // the record's, or an earlier one that it had before
        T *record;
    };

    static constexpr place width = 4;

    [[gnu::noinline]] bool grow()
    {
        const uint64_t room = std::max(uint64_t{16}, room_ * 2);
        void *block = kestal_alloc(room * (sizeof(entry) + sizeof(place)));
        if (block == nullptr)
            return false;
        if (count_ != 0)
            memcpy(block, entries_, static_cast<size_t>(count_) * sizeof(entry));
        kestal_check_free(entries_);
        entries_ = static_cast<entry *>(block);
        due_ = reinterpret_cast<place *>(entries_ + room);
        room_ = room;
        return true;
    }

    static place first_below(place at) { return at * width + 1; }

    void store(place at, const entry &stored)
    {
        entries_[at] = stored;
        stored.record->*Place = at + 1;
    }

    // Fills a place that is free, within the heap with what belongs there.
    void settle(place at, entry settled)
    {
        if (at < ordered_)
            at = sink(rise(at, settled), settled);
        store(at, settled);
    }

    // The place that an entry rises to from a free one; what stood above changes places with it.
    place rise(place at, const entry &rising)
    {
        for (; at > 0 && rising.deadline < entries_[(at - 1) / width].deadline; at = (at - 1) / width)
            store(at, entries_[(at - 1) / width]);
        return at;
    }

    place sink(place at, const entry &sinking)
    {
        for (place below = first_below(at); below < ordered_; below = first_below(at)) {
            place earliest = below;
            for (const place end = std::min(below + width, ordered_); ++below < end;)
                if (entries_[below].deadline < entries_[earliest].deadline)
                    earliest = below;
            if (sinking.deadline <= entries_[earliest].deadline)
                break;
            store(std::exchange(at, earliest), entries_[earliest]);
        }
        return at;
    }

    // Makes all of the array the heap.
    void order_all()
    {
        while (ordered_ < count_) {
            const place from = ordered_++;
            const entry rising = entries_[from];
            if (const place at = rise(from, rising); at != from)
                store(at, rising);
        }
    }

    void find_first()
    {
        order_all();
        while (count_ > 0 && entries_[0].deadline < entries_[0].record->*Deadline)
            settle(0, {entries_[0].record->*Deadline, entries_[0].record});
        first_ = count_ == 0 ? nullptr : entries_[0].record;
    }

    // Closes the gap that a record has left.
    void drop(place at)
    {
        if (at < ordered_) {
            const entry last = entries_[--ordered_];
            if (at < ordered_)
                settle(at, last);
            at = ordered_;
        }
        if (at < --count_)
            store(at, entries_[count_]);
    }

    entry *entries_;
    place *due_; // as much room as there is for entries
    uint64_t room_;
    uint64_t count_;
    uint64_t ordered_; // of the entries, those that are the heap
    T *first_;
};

} // namespace kestal
