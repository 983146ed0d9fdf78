#include "readiness.hpp"

#include <kestal_ulx/memory.h>

#include <algorithm>
#include <errno.h>
#include <string.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int32_t few = 8;          // descriptors up to which select costs no more than a list
constexpr int32_t low_number = 256; // and how far their numbers may reach
constexpr int32_t first_room = 64;
constexpr int32_t no_descriptor = -1;

// Descriptors in the list are looked at again in passing, so many at a time: a list forgets closed ones without a word.
constexpr long check_step_ns = 100000000;
constexpr int32_t check_size = 256;
constexpr uint64_t tick = UINT64_MAX; // what the list reports for the ticker

uint32_t as_list_bits(uint32_t mask)
{
    return ((mask & KESTAL_SELECT_READ) != 0 ? uint32_t{EPOLLIN} : 0) |
           ((mask & KESTAL_SELECT_WRITE) != 0 ? uint32_t{EPOLLOUT} : 0) |
           ((mask & KESTAL_SELECT_EXCEPTION) != 0 ? uint32_t{EPOLLPRI} : 0);
}

// The conditions under which select would have found the descriptor ready.
uint32_t as_conditions(uint32_t list_bits)
{
    return ((list_bits & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 ? KESTAL_SELECT_READ : 0) |
           ((list_bits & (EPOLLOUT | EPOLLERR)) != 0 ? KESTAL_SELECT_WRITE : 0) |
           ((list_bits & EPOLLPRI) != 0 ? KESTAL_SELECT_EXCEPTION : 0);
}

// A block of `count` elements with what the old one held; the old one goes. Null, and the old one stays, without memory.
template <typename T>
T *grown(T *old, int32_t old_count, int32_t count)
{
    void *block = kestal_calloc(static_cast<uint64_t>(count), sizeof(T));
    if (block != nullptr && old != nullptr)
        memcpy(block, old, sizeof(T) * static_cast<size_t>(old_count));
    if (block != nullptr)
        kestal_check_free(old);
    return static_cast<T *>(block);
}

} // namespace

void kestal::readiness::open(kestal_select_t *set)
{
    set_ = set;
    list_ = ticker_ = -1;
    first_changed_ = no_descriptor;
}

void kestal::readiness::close()
{
    if (set_ == nullptr)
        return;
    stop_list();
    kestal_check_free(reports_);
    kestal_check_free(watches_);
}

bool kestal::readiness::make_room(int32_t descriptor)
{
    if (descriptor < room_)
        return true;
    if (descriptor > INT32_MAX / 2)
        return false;
    const int32_t room = std::max({first_room, room_ * 2, descriptor + 1});
    watch *watches = grown(watches_, room_, room);
    if (watches == nullptr)
        return false;
    watches_ = watches;
    room_ = room;
    return true;
}

bool kestal::readiness::set(int32_t descriptor, uint32_t mask)
{
    if (mask != 0 && !make_room(descriptor))
        return false;
    const uint32_t before = descriptor < room_ ? watches_[descriptor].interest : 0;
    if (mask == before)
        return true;
    if (kestal_set_select(set_, descriptor, mask) != 0)
        return false;
    watches_[descriptor].interest = static_cast<uint8_t>(mask);
    count_ += (mask != 0 ? 1 : 0) - (before != 0 ? 1 : 0);
    if (list_ >= 0) {
        mark_changed(descriptor);
        if (mask == 0 || before == 0)
            watches_[descriptor].is_doubtful = 1;
    }
    return true;
}

int32_t kestal::readiness::wait(int32_t timeout_ms, bool is_unsettled)
{
    if (list_ < 0 && is_worth_a_list())
        start_list();
    if (list_ >= 0) {
        if (is_unsettled)
            unchecked_ = room_;
        const bool is_well = (!is_check_due_ || check_some()) && apply_changes();
        const int32_t found = is_well ? wait_by_list(timeout_ms) : -1;
        if (list_ >= 0)
            return found;
    }
    return kestal_select_dispatch(set_, timeout_ms);
}

bool kestal::readiness::is_worth_a_list() const
{
    return !is_refused_ && (count_ > few || (count_ > 0 && kestal_get_select_highest(set_) >= low_number));
}

// --- the list

void kestal::readiness::start_list()
{
    list_ = epoll_create1(EPOLL_CLOEXEC);
    if (list_ < 0)
        return;
    if (!start_ticker()) {
        stop_list();
        return;
    }
    const int32_t highest = kestal_get_select_highest(set_);
    for (int32_t descriptor = 0; descriptor <= highest; ++descriptor)
        if (watches_[descriptor].interest != 0)
            mark_changed(descriptor);
}

// Reported once a tick, since nobody reads from it.
bool kestal::readiness::start_ticker()
{
    ticker_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    epoll_event entry{};
    entry.events = EPOLLIN | EPOLLET;
    entry.data.u64 = tick;
    return ticker_ >= 0 && epoll_ctl(list_, EPOLL_CTL_ADD, ticker_, &entry) == 0;
}

void kestal::readiness::stop_list()
{
    if (list_ < 0)
        return;
    ::close(std::exchange(list_, -1));
    if (ticker_ >= 0)
        ::close(std::exchange(ticker_, -1));
    is_ticking_ = is_check_due_ = false;
    found_ = 0;
    first_changed_ = no_descriptor;
    for (int32_t descriptor = 0; descriptor < room_; ++descriptor)
        watches_[descriptor].listed = watches_[descriptor].is_changed = watches_[descriptor].is_doubtful = 0;
}

// A new list, without what the old one could not be made to forget.
bool kestal::readiness::restart_list()
{
    stop_list();
    start_list();
    return list_ >= 0 && apply_changes();
}

void kestal::readiness::mark_changed(int32_t descriptor)
{
    watch &changed = watches_[descriptor];
    if (changed.is_changed != 0)
        return;
    changed.is_changed = 1;
    changed.next_changed = std::exchange(first_changed_, descriptor);
}

// Brings the list up to date. False with errno EBADF for a closed descriptor, which stays to be applied; also false,
// with the list gone, when it cannot watch what is wanted.
bool kestal::readiness::apply_changes()
{
    while (first_changed_ != no_descriptor) {
        watch &changed = watches_[first_changed_];
        if (!apply(first_changed_))
            return false;
        changed.is_changed = changed.is_doubtful = 0;
        first_changed_ = changed.next_changed;
    }
    return true;
}

bool kestal::readiness::apply(int32_t descriptor)
{
    watch &changed = watches_[descriptor];
    const uint32_t wanted = as_list_bits(changed.interest);
    if (wanted == changed.listed && changed.is_doubtful == 0)
        return true;
    // What nobody waits for any more is taken out when it is reported: it may be wanted again before.
    return wanted == 0 || enter(descriptor, wanted);
}

// Makes the list watch the file that the descriptor names now. Adding what is there already is refused at little cost.
bool kestal::readiness::enter(int32_t descriptor, uint32_t wanted)
{
    watch &entered = watches_[descriptor];
    const bool is_as_wanted = entered.listed == wanted;
    int operation = entered.listed == 0 || is_as_wanted ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    for (int tries = 0; tries < 2; ++tries) {
        const uint32_t generation = entered.generation + (operation == EPOLL_CTL_ADD ? 1 : 0);
        epoll_event entry{};
        entry.events = wanted;
        entry.data.u64 = static_cast<uint64_t>(generation) << 32 | static_cast<uint32_t>(descriptor);
        if (epoll_ctl(list_, operation, descriptor, &entry) == 0) {
            entered.generation = generation;
            entered.listed = wanted;
            return true;
        }
        if (errno == EEXIST && is_as_wanted)
            return true;
        if (errno != ENOENT && errno != EEXIST)
            break;
        operation = errno == ENOENT ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    }
    if (errno == EBADF)
        return false;
    is_refused_ = true;
    stop_list();
    return false;
}

// Looks at the next few descriptors: whether they are open, and name the files that the list knows.
bool kestal::readiness::check_some()
{
    is_check_due_ = false;
    for (int32_t i = 0; i < check_size && i < room_; ++i) {
        if (cursor_ >= room_)
            cursor_ = 0;
        const bool is_watched = watches_[cursor_].interest != 0 && watches_[cursor_].is_changed == 0;
        if (is_watched && !enter(cursor_, watches_[cursor_].listed)) {
            if (list_ >= 0) {
                mark_changed(cursor_); // fails every wait until it is not watched any more
                watches_[cursor_].is_doubtful = 1;
            }
            return false;
        }
        ++cursor_;
    }
    unchecked_ -= check_size;
    return true;
}

void kestal::readiness::tick_later()
{
    if (is_ticking_)
        return;
    itimerspec step{};
    step.it_value.tv_nsec = check_step_ns;
    is_ticking_ = timerfd_settime(ticker_, 0, &step, nullptr) == 0;
}

int32_t kestal::readiness::wait_by_list(int32_t timeout_ms)
{
    if (report_room_ <= count_) {
        const int32_t room = std::max({first_room, report_room_ * 2, count_ + 1});
        if (epoll_event *reports = grown(reports_, 0, room)) {
            reports_ = reports;
            report_room_ = room;
        }
    }
    if (report_room_ == 0) {
        stop_list();
        return -1;
    }
    if (unchecked_ > 0)
        tick_later();
    found_ = epoll_wait(list_, reports_, report_room_, timeout_ms);
    return found_ > 0 ? collect() : std::exchange(found_, 0);
}

// Turns the reports into conditions of interest, and returns how many there are.
int32_t kestal::readiness::collect()
{
    int32_t conditions = 0;
    bool has_strangers = false;
    for (int32_t i = 0; i < found_; ++i) {
        epoll_event &report = reports_[i];
        if (report.data.u64 == tick) {
            report.events = 0;
            is_ticking_ = false;
            is_check_due_ = true;
            continue;
        }
        const auto descriptor = static_cast<int32_t>(static_cast<uint32_t>(report.data.u64));
        watch &watched = watches_[descriptor];
        const bool is_stranger =
            watched.listed == 0 || watched.generation != static_cast<uint32_t>(report.data.u64 >> 32);
        if (is_stranger || watched.interest == 0) {
            report.events = 0;
            if (is_stranger || epoll_ctl(list_, EPOLL_CTL_DEL, descriptor, nullptr) != 0)
                has_strangers = true;
            else
                watched.listed = 0;
            continue;
        }
        report.events = as_conditions(report.events) & watched.interest;
        conditions += number_of(report.events);
        // A list reports hang-ups and errors unasked. What nobody waits for is to be reported when it changes only.
        const uint32_t wanted = watched.listed & ~uint32_t{EPOLLET};
        if (report.events == 0 && watched.listed == wanted)
            enter(descriptor, wanted | EPOLLET);
        else if (report.events != 0 && watched.listed != wanted)
            enter(descriptor, wanted);
        if (list_ < 0)
            return 0;
    }
    if (!has_strangers)
        return conditions;
    // A file that lives on under another number is reported under the one it was closed under.
    return restart_list() || list_ < 0 ? 0 : -1;
}
