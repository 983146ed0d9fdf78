#include "support.hpp"

#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uint32_t input = KESTAL_EVENT_BUFFER_INPUT;
constexpr uint32_t output = KESTAL_EVENT_BUFFER_OUTPUT;
constexpr uint32_t both = input | output;

class event_buffer : public kestal_test::counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        base_ = kestal_new_event_base();
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0);
        event_ = kestal_new_event(base_, ends_[0], KESTAL_EVENT_READ | KESTAL_EVENT_WRITE | KESTAL_EVENT_PERSIST,
                                  nullptr, nullptr);
    }
    void TearDown() override
    {
        kestal_free_event(event_);
        kestal_free_event_base(base_);
        close(ends_[0]);
        close(ends_[1]);
        counted::TearDown();
    }
    uint32_t interest() const { return kestal_get_select_flags(base_->m_select, ends_[0]); }

    kestal_event_base_t *base_ = nullptr;
    kestal_event_t *event_ = nullptr;
    int ends_[2] = {-1, -1};
};

TEST_F(event_buffer, WatermarksHoldBackTheWaiting)
{
    const std::string bytes(100, 'x');
    EXPECT_EQ(kestal_event_set_buffer_watermark(event_, both, 5, 100), 0);
    EXPECT_EQ(interest(), 0u) << "not registered";
    ASSERT_EQ(kestal_add_event(event_, -1), 0);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ | KESTAL_SELECT_WRITE) << "without buffers the flags count";
    EXPECT_EQ(kestal_event_enable_buffer(event_, both), 0);
    EXPECT_EQ(kestal_event_pending(event_, both, nullptr), both);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ);

    EXPECT_EQ(kestal_event_push_buffer(event_, input, bytes.data(), 99), 99);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ);
    EXPECT_EQ(kestal_event_push_puts(event_, input, "y"), 1);
    EXPECT_EQ(interest(), 0u);
    char taken[8];
    EXPECT_EQ(kestal_event_pop_buffer(event_, both, taken, 1), 1);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ);

    EXPECT_EQ(kestal_event_push_printf(event_, output, "%04d", 7), 4);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ);
    EXPECT_EQ(kestal_event_push_puts(event_, output, "!"), 1);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ | KESTAL_SELECT_WRITE);
    EXPECT_EQ(kestal_event_peek_buffer(event_, output, taken, 8, 3), 2);
    EXPECT_EQ(std::string(taken, 2), "7!");
    EXPECT_EQ(kestal_event_pop_buffer(event_, output, nullptr, 8), 5);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ);
    EXPECT_EQ(kestal_event_set_buffer_watermark(event_, output, 0, 9), 0);
    EXPECT_EQ(interest(), KESTAL_SELECT_READ | KESTAL_SELECT_WRITE) << "a low watermark of 0 always watches";
    EXPECT_EQ(event_->m_input_high_watermark, 100u);
    EXPECT_EQ(kestal_event_disable_buffer(event_, output), 0);
    EXPECT_EQ(kestal_event_get_buffer_size(event_, both), 99u);
}

TEST_F(event_buffer, DirectionsSayWhichBuffersAreMeant)
{
    char taken[8];
    EXPECT_EQ(kestal_event_get_buffer_size(event_, both), 0u);
    EXPECT_EQ(kestal_event_pop_buffer(event_, input, taken, 1), -1) << "no buffer";
    EXPECT_EQ(kestal_event_push_puts(event_, both, "abc"), 6);
    EXPECT_EQ(kestal_event_get_buffer_size(event_, both), 6u);
    EXPECT_EQ(kestal_event_get_buffer_size(event_, output), 3u);
    EXPECT_EQ(kestal_event_push_printf(event_, both, "%s", ""), 0);
    EXPECT_EQ(kestal_event_push_buffer(event_, 0, "x", 1), 0);
    EXPECT_EQ(kestal_event_pop_buffer(event_, 0, taken, 1), -1);
    EXPECT_EQ(kestal_event_peek_buffer(event_, 0, taken, 1, 0), -1);
    EXPECT_EQ(kestal_event_peek_buffer(event_, input, taken, 8, 1), 2);
}

TEST_F(event_buffer, ATimerWithABufferWaitsForItsDescriptor)
{
    static std::vector<uint32_t> told;
    told.clear();
    kestal_event_t *timer = kestal_new_event(
        base_, ends_[0], KESTAL_EVENT_PERSIST,
        [](kestal_event_t *, int32_t, uint32_t what, void *) { told.push_back(what); }, nullptr);
    ASSERT_EQ(kestal_add_event(timer, -1), 0);
    EXPECT_EQ(write(ends_[1], "x", 1), 1);
    kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_NON_BLOCK);
    EXPECT_EQ(kestal_event_enable_buffer(timer, input), 0);
    kestal_event_base_loop(base_, KESTAL_EVENT_LOOP_ONCE);
    EXPECT_EQ(told, (std::vector<uint32_t>{KESTAL_EVENT_ASSIGNED, KESTAL_EVENT_READ}));
    kestal_free_event(timer);
}

TEST_F(event_buffer, FailedAllocationsLoseNothingElse)
{
    kestal_add_event(event_, -1);
    EXPECT_GT(kestal_test::with_each_allocation_failing([this] {
                  const int32_t pushed = kestal_event_push_printf(event_, both, "%d", 12345);
                  EXPECT_TRUE(pushed == -1 ||
                              static_cast<uint64_t>(pushed) == kestal_event_get_buffer_size(event_, both));
                  kestal_event_disable_buffer(event_, both);
              }),
              4u);
}

} // namespace
