#include <kestal_ulx/select.h>

#include <kestal_ulx/memory.h>

#include "select.hpp"

#include <bit>
#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/select.h>

struct kestal_select {
    size_t m_size;       // bytes in each bit set
    uint8_t *m_sets;     // three sets of interest, then three of results: read, write, exception
    uint64_t m_count[3]; // descriptors in each set of interest
    int32_t m_highest;
};

namespace {

constexpr uint32_t all_conditions = KESTAL_SELECT_READ | KESTAL_SELECT_WRITE | KESTAL_SELECT_EXCEPTION;

// The six bit sets, in this order.
constexpr unsigned first_interest = 0;
constexpr unsigned first_result = 3;
constexpr unsigned set_count = 6;
constexpr size_t first_size = 8;

constexpr int32_t fixed_set_bits = 1024; // what a set of the C runtime holds

// The kernel's layout: descriptor n is bit n % width of word n / width. FD_SET and its like end at 1024.
using word = unsigned long;
constexpr uint64_t word_bits = sizeof(word) * CHAR_BIT;

word *words(const kestal_select_t &set, unsigned index)
{
    return reinterpret_cast<word *>(set.m_sets + set.m_size * index);
}

word bit_of(uint64_t descriptor)
{
    return word{1} << descriptor % word_bits;
}

bool is_marked(const word *bits, uint64_t descriptor)
{
    return (bits[descriptor / word_bits] & bit_of(descriptor)) != 0;
}

void mark(word *bits, uint64_t descriptor)
{
    bits[descriptor / word_bits] |= bit_of(descriptor);
}

// The number of descriptors that select is told is one more than the highest.
bool is_descriptor(int32_t descriptor)
{
    return descriptor >= 0 && descriptor < INT32_MAX;
}

// The bytes of a bit set that has room for the descriptor.
size_t size_for(uint64_t descriptor)
{
    return static_cast<size_t>((descriptor + 64) / 64 * 8);
}

bool has_room(const kestal_select_t &set, int32_t descriptor)
{
    return descriptor >= 0 && size_for(static_cast<uint64_t>(descriptor)) <= set.m_size;
}

uint32_t marked_conditions(const kestal_select_t &set, unsigned first_set, int32_t descriptor)
{
    if (!has_room(set, descriptor))
        return 0;
    uint32_t mask = 0;
    for (unsigned condition = 0; condition < 3; ++condition)
        if (is_marked(words(set, first_set + condition), static_cast<uint64_t>(descriptor)))
            mask |= 1u << condition;
    return mask;
}

bool resize(kestal_select_t &set, size_t size)
{
    uint8_t *sets = static_cast<uint8_t *>(kestal_calloc_tag(set_count, size, "kestal_select_resize", __LINE__));
    if (sets == nullptr)
        return false;
    for (unsigned index = 0; index < set_count && set.m_sets != nullptr; ++index)
        memcpy(sets + size * index, set.m_sets + set.m_size * index, set.m_size);
    kestal_check_free_tag(set.m_sets, "kestal_select_resize", __LINE__);
    set.m_sets = sets;
    set.m_size = size;
    return true;
}

bool make_room(kestal_select_t &set, int32_t descriptor)
{
    const size_t needed = size_for(static_cast<uint64_t>(descriptor));
    size_t size = set.m_size;
    while (size < needed)
        size = size <= 128 ? size * 2 : size + 16;
    return size == set.m_size || resize(set, size);
}

int32_t next_highest(const kestal_select_t &set)
{
    for (uint64_t index = static_cast<uint64_t>(set.m_highest) / word_bits + 1; index-- > 0;) {
        word any = 0;
        for (unsigned condition = 0; condition < 3; ++condition)
            any |= words(set, first_interest + condition)[index];
        if (any != 0)
            return static_cast<int32_t>(index * word_bits + static_cast<uint64_t>(std::bit_width(any)) - 1);
    }
    return -1;
}

// A time-out as select takes it: null, for no limit, when it is negative.
class select_timeout {
public:
    explicit select_timeout(int32_t milliseconds) : limited_(milliseconds >= 0)
    {
        if (limited_) {
            value_.tv_sec = milliseconds / 1000;
            value_.tv_usec = milliseconds % 1000 * 1000;
        }
    }
    timeval *get() { return limited_ ? &value_ : nullptr; }

private:
    bool limited_;
    timeval value_{};
};

fd_set *as_fd_set(word *bits)
{
    return reinterpret_cast<fd_set *>(bits);
}

// A single wait in three zeroed bit sets, each with room for the descriptor. Only those that `mask` names are passed.
int32_t wait_for_one(int32_t descriptor, uint32_t mask, int32_t timeout_ms, word *sets, uint64_t words_in_set)
{
    word *passed[3] = {};
    for (unsigned condition = 0; condition < 3; ++condition) {
        if ((mask & 1u << condition) == 0)
            continue;
        passed[condition] = sets + words_in_set * condition;
        mark(passed[condition], static_cast<uint64_t>(descriptor));
    }
    select_timeout timeout(timeout_ms);
    const int ready = select(mask == 0 ? 0 : descriptor + 1, as_fd_set(passed[0]), as_fd_set(passed[1]),
                             as_fd_set(passed[2]), timeout.get());
    if (ready <= 0)
        return ready;
    int32_t found = 0;
    for (unsigned condition = 0; condition < 3; ++condition)
        if (passed[condition] != nullptr && is_marked(passed[condition], static_cast<uint64_t>(descriptor)))
            found |= 1 << condition;
    return found;
}

int32_t wait_for_high_one(int32_t descriptor, uint32_t mask, int32_t timeout_ms)
{
    // Waits for reading where writing was asked for: callers rely on the write bit standing in the read set here.
    if ((mask & KESTAL_SELECT_WRITE) != 0)
        mask = (mask & ~KESTAL_SELECT_WRITE) | KESTAL_SELECT_READ;
    const size_t size = size_for(static_cast<uint64_t>(descriptor));
    word *sets = static_cast<word *>(kestal_calloc_tag(3, size, "kestal_single_select", __LINE__));
    if (sets == nullptr)
        return -1;
    const int32_t found = wait_for_one(descriptor, mask, timeout_ms, sets, size / sizeof(word));
    const int error = errno;
    kestal_free_tag(sets, "kestal_single_select", __LINE__);
    errno = error;
    return found;
}

} // namespace

kestal::ready_descriptor kestal::next_ready(const kestal_select_t &set, int32_t from)
{
    uint64_t descriptor = static_cast<uint64_t>(from);
    for (; set.m_highest >= 0 && descriptor <= static_cast<uint64_t>(set.m_highest);
         descriptor = (descriptor / word_bits + 1) * word_bits) {
        word any = 0;
        for (unsigned condition = 0; condition < 3; ++condition)
            any |= words(set, first_result + condition)[descriptor / word_bits];
        any &= ~word{0} << descriptor % word_bits;
        if (any == 0)
            continue;
        const auto found =
            static_cast<int32_t>(descriptor / word_bits * word_bits + static_cast<uint64_t>(std::countr_zero(any)));
        return {found, marked_conditions(set, first_result, found)};
    }
    return {-1, 0};
}

kestal_select_t *kestal_open_select(void)
{
    return kestal_open_select_ex(0);
}

kestal_select_t *kestal_open_select_ex(uint32_t)
{
    kestal_select_t *set = static_cast<kestal_select_t *>(kestal_calloc(1, sizeof(kestal_select_t)));
    if (set == nullptr)
        return nullptr;
    set->m_highest = -1;
    return resize(*set, first_size) ? set : kestal_close_select(set);
}

kestal_select_t *kestal_close_select(kestal_select_t *set)
{
    if (set == nullptr)
        return nullptr;
    kestal_check_free(set->m_sets);
    kestal_free(set);
    return nullptr;
}

int32_t kestal_set_select(kestal_select_t *set, int32_t descriptor, uint32_t mask)
{
    if (set == nullptr || !is_descriptor(descriptor))
        return -1;
    mask &= all_conditions;
    if (mask == 0 && !has_room(*set, descriptor))
        return 0;
    if (!make_room(*set, descriptor))
        return -1;
    const word bit = bit_of(static_cast<uint64_t>(descriptor));
    for (unsigned condition = 0; condition < 3; ++condition) {
        word &bits = words(*set, first_interest + condition)[static_cast<uint64_t>(descriptor) / word_bits];
        const bool is_wanted = (mask & 1u << condition) != 0;
        if (((bits & bit) != 0) == is_wanted)
            continue;
        bits ^= bit;
        set->m_count[condition] += is_wanted ? 1 : UINT64_MAX;
    }
    if (mask != 0 && descriptor > set->m_highest)
        set->m_highest = descriptor;
    else if (mask == 0 && descriptor == set->m_highest)
        set->m_highest = next_highest(*set);
    return 0;
}

int32_t kestal_add_select(kestal_select_t *set, int32_t descriptor, uint32_t mask)
{
    return kestal_set_select(set, descriptor, kestal_get_select_flags(set, descriptor) | mask);
}

int32_t kestal_del_select(kestal_select_t *set, int32_t descriptor, uint32_t mask)
{
    return kestal_set_select(set, descriptor, kestal_get_select_flags(set, descriptor) & ~mask);
}

int32_t kestal_clear_select(kestal_select_t *set)
{
    if (set == nullptr)
        return -1;
    memset(set->m_sets, 0, set->m_size * set_count);
    for (uint64_t &count : set->m_count)
        count = 0;
    set->m_highest = -1;
    return 0;
}

uint32_t kestal_get_select_flags(const kestal_select_t *set, int32_t descriptor)
{
    return set == nullptr ? 0 : marked_conditions(*set, first_interest, descriptor);
}

int32_t kestal_is_select(const kestal_select_t *set, int32_t descriptor, uint32_t mask)
{
    return set != nullptr && (marked_conditions(*set, first_result, descriptor) & mask) != 0 ? 1 : 0;
}

int32_t kestal_select_dispatch(kestal_select_t *set, int32_t timeout_ms)
{
    if (set == nullptr)
        return -1;
    memcpy(words(*set, first_result), words(*set, first_interest), set->m_size * 3);
    fd_set *passed[3];
    for (unsigned condition = 0; condition < 3; ++condition)
        passed[condition] = set->m_count[condition] == 0 ? nullptr : as_fd_set(words(*set, first_result + condition));
    select_timeout timeout(timeout_ms);
    const int ready = select(set->m_highest + 1, passed[0], passed[1], passed[2], timeout.get());
    if (ready <= 0)
        memset(words(*set, first_result), 0, set->m_size * 3);
    return ready;
}

int32_t kestal_get_select_highest(const kestal_select_t *set)
{
    return set == nullptr ? -1 : set->m_highest;
}

uint64_t kestal_get_select_count(const kestal_select_t *set, uint32_t mask)
{
    if (set == nullptr || !std::has_single_bit(mask & all_conditions))
        return 0;
    return set->m_count[std::countr_zero(mask & all_conditions)];
}

uint64_t kestal_get_select_size(const kestal_select_t *set)
{
    return set == nullptr ? 0 : set->m_size;
}

int32_t kestal_single_select(int32_t descriptor, uint32_t mask, int32_t timeout_ms)
{
    mask &= all_conditions;
    if (mask != 0 && !is_descriptor(descriptor)) {
        errno = EBADF;
        return -1;
    }
    if (mask != 0 && descriptor >= fixed_set_bits)
        return wait_for_high_one(descriptor, mask, timeout_ms);
    word sets[3 * fixed_set_bits / word_bits] = {};
    return wait_for_one(descriptor, mask, timeout_ms, sets, fixed_set_bits / word_bits);
}
