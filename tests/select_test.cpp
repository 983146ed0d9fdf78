#include "support.hpp"

#include <array>
#include <cerrno>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

using kestal_test::counted;
using kestal_test::with_each_allocation_failing;

namespace {

constexpr uint32_t R = KESTAL_SELECT_READ, W = KESTAL_SELECT_WRITE, X = KESTAL_SELECT_EXCEPTION;

// A descriptor that can always be written and becomes readable on demand; on a chosen number if one is given.
struct event_descriptor {
    explicit event_descriptor(int wanted = -1) : number(eventfd(0, 0))
    {
        if (wanted >= 0)
            close(std::exchange(number, dup2(number, wanted)));
    }
    ~event_descriptor() { close(number); }
    void make_readable() const { EXPECT_EQ(eventfd_write(number, 1), 0); }

    int number;
};

// The highest descriptor number that the system lets this process use, at most 5000.
int high_descriptor()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_GT(limit.rlim_cur, 1100u) << "descriptor limit too low for this test";
    return static_cast<int>(std::min<rlim_t>(limit.rlim_cur - 1, 5000));
}

class select_set : public counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        set_ = kestal_open_select();
        ASSERT_NE(set_, nullptr);
    }
    void TearDown() override
    {
        EXPECT_EQ(kestal_close_select(set_), nullptr);
        counted::TearDown();
    }
    // Descriptors with interest in reading, writing, exceptions, and the highest.
    using states = std::array<int64_t, 4>;
    states state() const
    {
        const auto count = [this](uint32_t mask) { return static_cast<int64_t>(kestal_get_select_count(set_, mask)); };
        return {count(R), count(W), count(X), kestal_get_select_highest(set_)};
    }

    kestal_select_t *set_ = nullptr;
};

TEST_F(select_set, grows_with_the_highest_descriptor)
{
    const std::pair<int32_t, uint64_t> sizes[] = {{63, 8}, {64, 16}, {256, 64}, {2047, 256}, {2048, 272}, {9999, 1264}};
    for (const auto &[descriptor, size] : sizes) {
        EXPECT_EQ(kestal_set_select(set_, descriptor, R | X), 0);
        EXPECT_EQ(kestal_get_select_size(set_), size) << descriptor;
    }
    for (const auto &[descriptor, size] : sizes)
        EXPECT_EQ(kestal_get_select_flags(set_, descriptor), R | X);
    EXPECT_EQ(kestal_add_select(set_, 63, W | 0x100), 0);
    EXPECT_EQ(kestal_del_select(set_, 123456, R), 0); // nothing to take away: nothing grows
    EXPECT_EQ(state(), (states{6, 1, 6, 9999}));
    EXPECT_EQ(kestal_set_select(set_, 9999, 0), 0);
    EXPECT_EQ(kestal_del_select(set_, 2048, R | W), 0); // X is left
    EXPECT_EQ(state(), (states{4, 1, 5, 2048}));
    EXPECT_EQ(kestal_clear_select(set_), 0);
    EXPECT_EQ(kestal_get_select_size(set_), 1264u);
    EXPECT_EQ(state(), (states{0, 0, 0, -1}));
}

TEST_F(select_set, waits_also_above_1024)
{
    const event_descriptor low, upper(high_descriptor());
    EXPECT_EQ(kestal_set_select(set_, low.number, R), 0);
    EXPECT_EQ(kestal_set_select(set_, upper.number, R | X), 0);
    EXPECT_EQ(kestal_select_dispatch(set_, 0), 0);
    upper.make_readable();
    EXPECT_EQ(kestal_select_dispatch(set_, -1), 1);
    EXPECT_EQ(kestal_is_select(set_, upper.number, R | W), 1);
    EXPECT_EQ(kestal_is_select(set_, upper.number, W | X), 0);
    EXPECT_EQ(kestal_is_select(set_, low.number, R), 0);
    low.make_readable();
    EXPECT_EQ(kestal_add_select(set_, upper.number, W), 0);
    EXPECT_EQ(kestal_select_dispatch(set_, 1000), 3);
    EXPECT_EQ(kestal_set_select(set_, upper.number, 0), 0);
    EXPECT_EQ(kestal_select_dispatch(set_, 1000), 1);
    EXPECT_EQ(kestal_is_select(set_, upper.number, R | W), 0);
}

TEST_F(select_set, failures)
{
    const int closed = event_descriptor().number;
    EXPECT_EQ(kestal_set_select(set_, closed, R | W), 0);
    EXPECT_EQ(kestal_select_dispatch(set_, 1000), -1);
    EXPECT_EQ(errno, EBADF);
    for (const int32_t descriptor : {-1, INT32_MAX}) {
        EXPECT_EQ(kestal_set_select(set_, descriptor, R), -1);
        EXPECT_EQ(kestal_get_select_flags(set_, descriptor), 0u);
        EXPECT_EQ(kestal_single_select(descriptor, R, 0), -1);
    }
    EXPECT_EQ(kestal_add_select(nullptr, 1, R) & kestal_select_dispatch(nullptr, 0), -1);
    EXPECT_EQ(kestal_is_select(nullptr, 1, R), 0);
    const auto scenario = [] {
        kestal_select_t *set = kestal_open_select();
        kestal_set_select(set, 3, W);
        if (set != nullptr && kestal_set_select(set, 100, R) != 0) {
            EXPECT_EQ(kestal_get_select_highest(set), 3);
            EXPECT_EQ(kestal_get_select_flags(set, 3), W);
        }
        kestal_close_select(set);
        kestal_single_select(4000, R, 0);
    };
    EXPECT_EQ(with_each_allocation_failing(scenario), 4u);
}

TEST_F(select_set, waits_on_one_descriptor)
{
    const event_descriptor ends, upper(high_descriptor());
    EXPECT_EQ(kestal_single_select(ends.number, R | X, 0), 0);
    ends.make_readable();
    EXPECT_EQ(kestal_single_select(ends.number, R | W | 0x100, 1000), static_cast<int32_t>(R | W));
    // Above 1024 waiting to write is waiting to read.
    EXPECT_EQ(kestal_single_select(upper.number, W, 0), 0);
    upper.make_readable();
    for (const uint32_t mask : {R, W, R | W | X})
        EXPECT_EQ(kestal_single_select(upper.number, mask, -1), static_cast<int32_t>(R)) << mask;
    const uint64_t start = kestal_time_stamp_msec();
    EXPECT_EQ(kestal_single_select(-1, 16, 25), 0);
    EXPECT_GE(kestal_time_stamp_msec() - start, 24u);
}

} // namespace
