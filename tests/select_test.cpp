#include "support.hpp"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using kestal_test::counted;
using kestal_test::with_each_allocation_failing;

namespace
{

constexpr uint32_t R = KESTAL_SELECT_READ, W = KESTAL_SELECT_WRITE, X = KESTAL_SELECT_EXCEPTION;

// A connected pair; the second end may be put on a chosen descriptor number.
class pair
{
public:
    explicit pair(int number = -1)
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        near = ends[0];
        far = ends[1];
        if (number >= 0) {
            far = dup2(ends[1], number);
            EXPECT_EQ(far, number) << "descriptor limit too low";
            close(ends[1]);
        }
    }
    ~pair()
    {
        close(near);
        close(far);
    }
    void make_readable() const { EXPECT_EQ(send(near, "x", 1, 0), 1); }

    int near, far;
};

// The highest descriptor number that the system lets this process use, at most 5000.
int raised_limit()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<int>(std::min<rlim_t>(limit.rlim_cur - 1, 5000));
}

class select_set : public counted
{
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
    std::array<uint64_t, 3> counts() const
    {
        return {kestal_get_select_count(set_, R), kestal_get_select_count(set_, W), kestal_get_select_count(set_, X)};
    }

    kestal_select_t *set_ = nullptr;
};

TEST_F(select_set, grows_with_the_highest_descriptor)
{
    const struct {
        int32_t descriptor;
        uint64_t size;
    } steps[] = {{0, 8},      {63, 8},     {64, 16},    {128, 32},   {255, 32},   {256, 64},
                 {1023, 128}, {1024, 256}, {2047, 256}, {2048, 272}, {2176, 288}, {9999, 1264}};
    EXPECT_EQ(kestal_get_select_size(set_), 8u);
    for (const auto &step : steps) {
        EXPECT_EQ(kestal_set_select(set_, step.descriptor, R | X), 0);
        EXPECT_EQ(kestal_get_select_size(set_), step.size) << step.descriptor;
        EXPECT_EQ(kestal_get_select_highest(set_), step.descriptor);
    }
    for (const auto &step : steps)
        EXPECT_EQ(kestal_get_select_flags(set_, step.descriptor), R | X);
    EXPECT_EQ(counts(), (std::array<uint64_t, 3>{12, 0, 12}));
    EXPECT_EQ(kestal_del_select(set_, 123456, R), 0); // nothing to take away: nothing grows
    EXPECT_EQ(kestal_clear_select(set_), 0);
    EXPECT_EQ(kestal_get_select_size(set_), 1264u);
    EXPECT_EQ(kestal_get_select_highest(set_), -1);
    EXPECT_EQ(kestal_get_select_flags(set_, 2048), 0u);
    EXPECT_EQ(counts(), (std::array<uint64_t, 3>{0, 0, 0}));
}

TEST_F(select_set, counts_and_highest_follow_the_interest)
{
    EXPECT_EQ(kestal_add_select(set_, 5, R), 0);
    EXPECT_EQ(kestal_add_select(set_, 5, R | W | 0x100), 0);
    EXPECT_EQ(kestal_add_select(set_, 70, X), 0);
    EXPECT_EQ(kestal_add_select(set_, 200, W), 0);
    EXPECT_EQ(kestal_get_select_flags(set_, 5), R | W);
    EXPECT_EQ(counts(), (std::array<uint64_t, 3>{1, 2, 1}));
    EXPECT_EQ(kestal_set_select(set_, 200, 0), 0);
    EXPECT_EQ(kestal_get_select_highest(set_), 70);
    EXPECT_EQ(kestal_del_select(set_, 70, R | W), 0); // X is left
    EXPECT_EQ(kestal_get_select_highest(set_), 70);
    EXPECT_EQ(kestal_del_select(set_, 70, X), 0);
    EXPECT_EQ(kestal_get_select_highest(set_), 5);
    EXPECT_EQ(counts(), (std::array<uint64_t, 3>{1, 1, 0}));
    EXPECT_EQ(kestal_set_select(set_, 5, 0), 0);
    EXPECT_EQ(kestal_get_select_highest(set_), -1);
    EXPECT_EQ(counts(), (std::array<uint64_t, 3>{0, 0, 0}));
}

TEST_F(select_set, waits_also_above_1024)
{
    const int high = raised_limit();
    ASSERT_GT(high, 1100);
    const pair low, upper(high);
    EXPECT_EQ(kestal_set_select(set_, low.far, R), 0);
    EXPECT_EQ(kestal_set_select(set_, upper.far, R | X), 0);
    EXPECT_EQ(kestal_select_dispatch(set_, 0), 0);
    EXPECT_EQ(kestal_is_select(set_, upper.far, R), 0);

    upper.make_readable();
    EXPECT_EQ(kestal_select_dispatch(set_, -1), 1);
    EXPECT_EQ(kestal_is_select(set_, upper.far, R | W), 1);
    EXPECT_EQ(kestal_is_select(set_, upper.far, W | X), 0);
    EXPECT_EQ(kestal_is_select(set_, low.far, R), 0);

    low.make_readable();
    EXPECT_EQ(kestal_add_select(set_, upper.far, W), 0);
    EXPECT_EQ(kestal_select_dispatch(set_, 1000), 3);
    EXPECT_EQ(kestal_is_select(set_, upper.far, W), 1);
    EXPECT_EQ(kestal_is_select(set_, low.far, R), 1);
    EXPECT_EQ(kestal_get_select_flags(set_, upper.far), R | W | X);

    EXPECT_EQ(kestal_set_select(set_, upper.far, 0), 0);
    EXPECT_EQ(kestal_select_dispatch(set_, 1000), 1);
    EXPECT_EQ(kestal_is_select(set_, upper.far, R), 0);
    EXPECT_EQ(kestal_is_select(set_, high + 100000, R), 0);
}

TEST_F(select_set, a_failed_wait_finds_nothing)
{
    int closed;
    {
        const pair gone;
        closed = gone.far;
    }
    EXPECT_EQ(kestal_set_select(set_, closed, R | W), 0);
    EXPECT_EQ(kestal_select_dispatch(set_, 1000), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(kestal_is_select(set_, closed, R | W), 0);
    EXPECT_EQ(kestal_single_select(closed, R, 1000), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(select_set, bad_arguments)
{
    EXPECT_EQ(kestal_close_select(nullptr), nullptr);
    EXPECT_EQ(kestal_clear_select(nullptr), -1);
    EXPECT_EQ(kestal_set_select(nullptr, 1, R), -1);
    EXPECT_EQ(kestal_add_select(nullptr, 1, R), -1);
    EXPECT_EQ(kestal_del_select(nullptr, 1, R), -1);
    EXPECT_EQ(kestal_get_select_flags(nullptr, 1), 0u);
    EXPECT_EQ(kestal_is_select(nullptr, 1, R), 0);
    EXPECT_EQ(kestal_select_dispatch(nullptr, 0), -1);
    EXPECT_EQ(kestal_get_select_highest(nullptr), -1);
    EXPECT_EQ(kestal_get_select_size(nullptr), 0u);
    EXPECT_EQ(kestal_get_select_count(nullptr, R), 0u);
    EXPECT_EQ(kestal_get_select_count(set_, R | W), 0u);
    for (const int32_t descriptor : {-1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(kestal_set_select(set_, descriptor, R), -1);
        EXPECT_EQ(kestal_get_select_flags(set_, descriptor), 0u);
        EXPECT_EQ(kestal_single_select(descriptor, R, 0), -1);
    }
}

TEST_F(select_set, failing_allocations_leave_the_set_as_it_was)
{
    EXPECT_EQ(with_each_allocation_failing([] {
                  kestal_select_t *set = kestal_open_select();
                  kestal_set_select(set, 3, W);
                  if (set != nullptr && kestal_set_select(set, 100, R) != 0) {
                      EXPECT_EQ(kestal_get_select_highest(set), 3);
                      EXPECT_EQ(kestal_get_select_flags(set, 3), W);
                      EXPECT_EQ(kestal_get_select_size(set), 8u);
                  }
                  kestal_close_select(set);
                  kestal_single_select(4000, R, 0);
              }),
              4u);
}

class single_select : public counted
{
};

TEST_F(single_select, waits_for_one_descriptor)
{
    const pair ends;
    EXPECT_EQ(kestal_single_select(ends.far, R | X, 0), 0);
    EXPECT_EQ(kestal_single_select(ends.far, R | W | X, -1), static_cast<int32_t>(W));
    ends.make_readable();
    EXPECT_EQ(kestal_single_select(ends.far, R | W, -1), static_cast<int32_t>(R | W));
    EXPECT_EQ(kestal_single_select(ends.far, R | 0x100, 1000), static_cast<int32_t>(R));
}

TEST_F(single_select, sleeps_without_a_set)
{
    const uint64_t start = kestal_time_stamp_msec();
    EXPECT_EQ(kestal_single_select(-1, 16, 25), 0);
    EXPECT_GE(kestal_time_stamp_msec() - start, 24u);
    EXPECT_EQ(kestal_single_select(INT32_MAX, 0, 0), 0);
}

TEST_F(single_select, above_1024_waiting_to_write_is_waiting_to_read)
{
    const pair ends(raised_limit());
    EXPECT_EQ(kestal_single_select(ends.far, W, 0), 0);
    EXPECT_EQ(kestal_single_select(ends.far, R | W | X, 0), 0);
    ends.make_readable();
    for (const uint32_t mask : {R, W, R | W, R | W | X})
        EXPECT_EQ(kestal_single_select(ends.far, mask, -1), static_cast<int32_t>(R)) << mask;
}

} // namespace
