#include <kestal_ulx/fragment.h>

#include <kestal_ulx/memory.h>

#include <algorithm>

namespace {

using interval = kestal_fragment_interval_t;

// The intervals stand the highest first: ids are taken at the low end, which is the cheap one to insert at.

// The index of the highest interval that does not begin above `id`; the interval count when all begin above it.
uint64_t index_at_or_below(const kestal_fragment_t &fragment, uint64_t id)
{
    const interval *begin = fragment.m_intervals;
    const interval *end = begin + fragment.m_interval_count;
    return static_cast<uint64_t>(
        std::partition_point(begin, end, [id](const interval &at) { return at.m_first > id; }) - begin);
}

bool reserve(kestal_fragment_t &fragment, uint64_t intervals)
{
    if (intervals <= fragment.m_interval_capacity)
        return true;
    const uint64_t capacity = std::max<uint64_t>({intervals, fragment.m_interval_capacity * 2, 4});
    interval *grown = static_cast<interval *>(kestal_alloc(capacity * sizeof(interval)));
    if (grown == nullptr)
        return false;
    std::copy_n(fragment.m_intervals, fragment.m_interval_count, grown);
    kestal_check_free(fragment.m_intervals);
    fragment.m_intervals = grown;
    fragment.m_interval_capacity = capacity;
    return true;
}

void insert(kestal_fragment_t &fragment, uint64_t index, interval fresh)
{
    interval *at = fragment.m_intervals + index;
    interval *end = fragment.m_intervals + fragment.m_interval_count++;
    std::copy_backward(at, end, end + 1);
    *at = fresh;
}

void erase(kestal_fragment_t &fragment, uint64_t index)
{
    interval *at = fragment.m_intervals + index;
    interval *end = fragment.m_intervals + fragment.m_interval_count--;
    std::copy(at + 1, end, at);
}

bool is_free(const kestal_fragment_t &fragment, uint64_t first, uint64_t end)
{
    const uint64_t below = index_at_or_below(fragment, first);
    return (below == 0 || fragment.m_intervals[below - 1].m_first >= end) &&
           (below == fragment.m_interval_count || fragment.m_intervals[below].m_end <= first);
}

// Marks the free ids from `first` up to `end` as used. Beside what this needs, room is kept for every portion to
// become an interval of its own, so that no portion's release needs any.
bool take(kestal_fragment_t &fragment, uint64_t first, uint64_t end)
{
    if (!reserve(fragment, std::max(fragment.m_portions, fragment.m_interval_count) + 1))
        return false;
    interval *all = fragment.m_intervals;
    const uint64_t below = index_at_or_below(fragment, first);
    const bool joins_above = below > 0 && all[below - 1].m_first == end;
    const bool joins_below = below < fragment.m_interval_count && all[below].m_end == first;
    if (joins_above && joins_below) {
        all[below - 1].m_first = all[below].m_first;
        erase(fragment, below);
    } else if (joins_above) {
        all[below - 1].m_first = first;
    } else if (joins_below) {
        all[below].m_end = end;
    } else {
        insert(fragment, below, {first, end});
    }
    fragment.m_count += end - first;
    fragment.m_extent = std::max(fragment.m_extent, end);
    ++fragment.m_portions;
    return true;
}

// The lowest place with `count` free ids, or KESTAL_FRAGMENT_NONE.
uint64_t lowest_free(const kestal_fragment_t &fragment, uint64_t count)
{
    uint64_t first = 0;
    for (uint64_t index = fragment.m_interval_count; index-- > 0; first = fragment.m_intervals[index].m_end)
        if (fragment.m_intervals[index].m_first - first >= count)
            return first;
    return KESTAL_FRAGMENT_NONE - first >= count ? first : KESTAL_FRAGMENT_NONE;
}

} // namespace

kestal_fragment_t *kestal_open_fragment(void)
{
    return kestal_init_fragment(static_cast<kestal_fragment_t *>(kestal_alloc(sizeof(kestal_fragment_t))));
}

kestal_fragment_t *kestal_close_fragment(kestal_fragment_t *fragment)
{
    if (kestal_uninit_fragment(fragment) == 0)
        kestal_free(fragment);
    return nullptr;
}

kestal_fragment_t *kestal_init_fragment(kestal_fragment_t *fragment)
{
    if (fragment != nullptr)
        *fragment = {};
    return fragment;
}

int32_t kestal_uninit_fragment(kestal_fragment_t *fragment)
{
    if (fragment == nullptr)
        return -1;
    kestal_check_free(fragment->m_intervals);
    kestal_init_fragment(fragment);
    return 0;
}

uint64_t kestal_fragment_alloc(kestal_fragment_t *fragment)
{
    return kestal_fragment_alloc_range(fragment, 1);
}

uint64_t kestal_fragment_alloc_range(kestal_fragment_t *fragment, uint64_t count)
{
    if (fragment == nullptr || count == 0)
        return KESTAL_FRAGMENT_NONE;
    const uint64_t first = lowest_free(*fragment, count);
    if (first == KESTAL_FRAGMENT_NONE || !take(*fragment, first, first + count))
        return KESTAL_FRAGMENT_NONE;
    return first;
}

int32_t kestal_fragment_alloc_at(kestal_fragment_t *fragment, uint64_t first, uint64_t count)
{
    if (fragment == nullptr || count == 0 || count > KESTAL_FRAGMENT_NONE - first)
        return -1;
    const uint64_t end = first + count;
    return is_free(*fragment, first, end) && take(*fragment, first, end) ? 0 : -1;
}

int32_t kestal_fragment_free(kestal_fragment_t *fragment, uint64_t id)
{
    return kestal_fragment_free_range(fragment, id, 1);
}

int32_t kestal_fragment_free_range(kestal_fragment_t *fragment, uint64_t first, uint64_t count)
{
    if (fragment == nullptr || count == 0 || count > KESTAL_FRAGMENT_NONE - first)
        return -1;
    const uint64_t end = first + count;
    const uint64_t index = index_at_or_below(*fragment, first);
    if (index == fragment->m_interval_count || fragment->m_intervals[index].m_end < end)
        return -1;
    const interval whole = fragment->m_intervals[index];
    if (whole.m_first == first && whole.m_end == end) {
        erase(*fragment, index);
    } else if (whole.m_first == first) {
        fragment->m_intervals[index].m_first = end;
    } else if (whole.m_end == end) {
        fragment->m_intervals[index].m_end = first;
    } else {
        if (!reserve(*fragment, fragment->m_interval_count + 1))
            return -1;
        fragment->m_intervals[index].m_end = first;
        insert(*fragment, index, {end, whole.m_end});
    }
    fragment->m_count -= count;
    // Ids given back in other portions than taken make this inexact; it never needs to exceed the ids in use.
    fragment->m_portions = std::min(std::max<uint64_t>(fragment->m_portions, 1) - 1, fragment->m_count);
    return 0;
}

int32_t kestal_fragment_is_used(const kestal_fragment_t *fragment, uint64_t id)
{
    return id != KESTAL_FRAGMENT_NONE && kestal_fragment_next(fragment, id) == id ? 1 : 0;
}

uint64_t kestal_fragment_next(const kestal_fragment_t *fragment, uint64_t from)
{
    if (fragment == nullptr)
        return KESTAL_FRAGMENT_NONE;
    const uint64_t index = index_at_or_below(*fragment, from);
    if (index < fragment->m_interval_count && fragment->m_intervals[index].m_end > from)
        return from;
    return index == 0 ? KESTAL_FRAGMENT_NONE : fragment->m_intervals[index - 1].m_first;
}

uint64_t kestal_fragment_count(const kestal_fragment_t *fragment)
{
    return fragment == nullptr ? 0 : fragment->m_count;
}

uint64_t kestal_fragment_extent(const kestal_fragment_t *fragment)
{
    return fragment == nullptr ? 0 : fragment->m_extent;
}
