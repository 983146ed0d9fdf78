// Which of a base's descriptors are ready. The select set holds the interest and, while the descriptors are few, does the
// waiting; beyond that the kernel's readiness list (epoll) waits for them, so that a wait costs what is ready and not
// what is watched. The answers are those of select: a descriptor closed while it is watched fails the wait with EBADF
// (found within some seconds), a number that names another file by then is watched as that, and what cannot be in a
// readiness list (a regular file) takes the base back to select.
#pragma once

#include "select.hpp"

#include <sys/epoll.h>

struct kestal_event;

namespace kestal {

// How many of the three conditions there are among the bits.
constexpr int32_t number_of(uint32_t conditions)
{
    return static_cast<int32_t>((conditions & 1) + (conditions >> 1 & 1) + (conditions >> 2 & 1));
}

class readiness {
public:
    // All zero is a closed one. The set stays the caller's.
    void open(kestal_select_t *set);
    void close();

    // The chain of events on a descriptor, kept by the caller. There must be room for the descriptor.
    kestal_event *&first(int32_t descriptor) { return watches_[descriptor].first; }
    bool make_room(int32_t descriptor);

    // Makes the interest in a descriptor exactly `mask`. False, changing nothing, when memory is short.
    bool set(int32_t descriptor, uint32_t mask);

    // As kestal_select_dispatch, but it may find nothing before the time is up. `is_unsettled`: since the last wait there
    // was somebody who may have closed a descriptor.
    int32_t wait(int32_t timeout_ms, bool is_unsettled);

    // Calls visit(descriptor, conditions) for each descriptor that the last wait found ready.
    template <typename Visit>
    void each_ready(Visit visit) const
    {
        if (list_ < 0) {
            for (ready_descriptor at = next_ready(*set_, 0); at.descriptor >= 0;
                 at = next_ready(*set_, at.descriptor + 1))
                visit(at.descriptor, at.conditions);
            return;
        }
        for (int32_t i = 0; i < found_; ++i)
            if (reports_[i].events != 0)
                visit(static_cast<int32_t>(static_cast<uint32_t>(reports_[i].data.u64)), uint32_t{reports_[i].events});
    }

private:
    struct watch {
        kestal_event *first;
        uint32_t listed;     // what the list watches the descriptor for, which nobody may want any more; 0: not in it
        uint32_t generation; // of its entry in the list: tells reports of a file that had the number before
        int32_t next_changed;
        uint8_t interest;    // KESTAL_SELECT_ bits, as in the set
        uint8_t is_changed;  // is in the chain of those whose entry may not be what it should be
        uint8_t is_doubtful; // the number may name another file than the list knows
    };

    bool is_worth_a_list() const;
    void start_list();
    void stop_list();
    bool restart_list();
    void mark_changed(int32_t descriptor);
    bool apply_changes();
    bool apply(int32_t descriptor);
    bool enter(int32_t descriptor, uint32_t wanted);
    bool check_some();
    bool start_ticker();
    void tick_later();
    int32_t wait_by_list(int32_t timeout_ms);
    int32_t collect();

    kestal_select_t *set_;
    watch *watches_;
    int32_t room_;  // descriptors that there are watches for
    int32_t count_; // descriptors with interest
    int list_;
    bool is_refused_; // something cannot be watched by the list
    int32_t first_changed_;
    epoll_event *reports_;
    int32_t report_room_;
    int32_t found_;
    int ticker_; // a timer in the list that says when to check some descriptors
    bool is_ticking_;
    bool is_check_due_;
    int32_t cursor_;    // the next descriptor to be checked
    int32_t unchecked_; // descriptors that were not checked since somebody may have closed one
};

} // namespace kestal
