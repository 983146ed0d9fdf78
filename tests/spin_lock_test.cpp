#include "support.hpp"

using kestal_test::caught_assertions;
using kestal_test::caught_errors;

namespace {

class spin_lock : public kestal_test::counted {
protected:
    kestal_spin_lock_t lock_{};
};

constexpr int32_t shared = KESTAL_SPIN_LOCK_SHARED;

TEST_F(spin_lock, shared_holders_are_counted_and_exclude_an_exclusive_one)
{
    EXPECT_EQ(kestal_reference_try_spin_lock_tag(&lock_, shared, "first", 1), 1);
    EXPECT_EQ(kestal_reference_try_spin_lock_tag(&lock_, 0, "second", 2), 1);
    EXPECT_EQ(lock_.m_count, 2u);
    EXPECT_STREQ(lock_.m_name, "first");
    EXPECT_EQ(kestal_spin_lock_timeout(&lock_, 5), 0);
    kestal_reference_spin_unlock(&lock_);
    EXPECT_EQ(kestal_try_spin_lock(&lock_), 0);
    kestal_reference_spin_unlock(&lock_);

    EXPECT_EQ(kestal_reference_try_spin_lock_tag(&lock_, 2, "third", 3), 1);
    EXPECT_EQ(kestal_try_spin_lock(&lock_) + kestal_reference_spin_lock_timeout(&lock_, shared, 0), 0);
    kestal_spin_unlock(&lock_);

    const caught_errors errors;
    kestal_reference_spin_unlock_tag(&lock_, "caller", 12); // one too many
    EXPECT_EQ(errors.text(), "\n-=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=-\n"
                             "kestal: [WARNING] unlock - invalid reference count (already unlocked ?, \"caller:12\")\n"
                             "-=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=- -=*=-\n");
    lock_.m_count = UINT32_MAX; // no more can be counted
    EXPECT_EQ(kestal_reference_try_spin_lock(&lock_, shared), 0);
    lock_ = {1, nullptr, 0, 0, 0}; // somebody is at the count: a try does not wait for that
    EXPECT_EQ(kestal_reference_try_spin_lock(&lock_, shared), 0);
}

TEST_F(spin_lock, null_is_reported_or_ignored_and_memory_may_run_out)
{
    const caught_assertions reports;
    EXPECT_EQ(kestal_free_spin_lock(kestal_init_spin_lock(nullptr)), -1);
    EXPECT_EQ(reports.messages(), std::vector<std::string>(2, "s_this_spin_lock != ((kestal_spin_lock_t *)0)"));
    EXPECT_EQ(kestal_try_spin_lock(nullptr), 0);
    kestal_spin_unlock(nullptr);
    const auto scenario = [] { kestal_free_spin_lock(kestal_new_spin_lock()); };
    EXPECT_EQ(kestal_test::with_each_allocation_failing(scenario), 1u);
}

TEST_F(spin_lock, many_readers_never_see_a_writer_at_work)
{
    int left = 0, right = 0;
    kestal_test::on_threads(8, [&](size_t thread) {
        for (int i = 0; i < 200; ++i) {
            if (thread < 3) {
                kestal_spin_lock(&lock_);
                ++left;
                ++right;
            } else {
                EXPECT_EQ(kestal_reference_spin_lock_timeout(&lock_, shared, -1), 1);
                EXPECT_EQ(left, right);
            }
            kestal_spin_unlock(&lock_);
        }
    });
    EXPECT_EQ(left, 600);
    EXPECT_EQ(kestal_try_spin_lock(&lock_), 1);
}

} // namespace
