#include "support.hpp"

#include "../source/exception.hpp"

#include <thread>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using texts = std::vector<std::string>;

namespace {

class exception : public kestal_test::counted {
protected:
    void TearDown() override
    {
        kestal::register_thread_counters(nullptr);
        counted::TearDown();
    }
};

std::string dumped(int32_t force)
{
    CaptureStderr();
    kestal_dump_exception_tag(force, "file.c", "function", 12);
    return kestal_test::numbers_masked(GetCapturedStderr(), " (-");
}

TEST_F(exception, a_dump_tells_sections_blocks_and_threads)
{
    EXPECT_EQ(dumped(0), "");
    EXPECT_EQ(dumped(1), "CONSOLE # dump exception at file.c:function:12 (section=0, heap size/count/peak=0/0/0, "
                         "active/ready/threads/max=0/0/0/0).\n");

    kestal::register_thread_counters([](uint64_t *active, uint64_t *ready, uint64_t *max) -> uint64_t {
        *active = 1, *ready = 2, *max = 4;
        return 3;
    });
    void *block = kestal_alloc(1);
    kestal_exception_t *outer = kestal_add_exception_tag("a.c", "outer", 1);
    kestal_exception_t *inner = kestal_add_exception_tag("b.c", nullptr, 2);
    kestal_exception_t *last = kestal_add_exception_tag("c.c", "last", 3);
    EXPECT_EQ(kestal_del_exception_tag(inner), 0);
    const std::string head = "CONSOLE # dump exception at file.c:function:12 (section=2, heap size/count/peak=0/1/0, "
                             "active/ready/threads/max=1/2/3/4) {\n";
    const std::string records = "CONSOLE #     c.c:last():3 (-N msec)\nCONSOLE #     a.c:outer():1 (-N msec)\n";
    EXPECT_EQ(dumped(0), head + records + "CONSOLE # }\n");

    kestal_set_force_dump_exception(0);
    EXPECT_EQ(dumped(1), "");
    kestal_set_force_dump_exception(UINT32_MAX);
    {
        const kestal_test::caught_assertions caught;
        outer->m_older = outer;
        EXPECT_EQ(dumped(0), head + records + "CONSOLE # }\n");
        outer->m_older = nullptr;
        EXPECT_EQ(caught.messages(), texts{"broken exception node"});
    }
    kestal_del_exception_tag(last);
    kestal_del_exception_tag(outer);
    kestal_free(block);
    EXPECT_NE(dumped(0), "") << "threads alone are worth a dump";
}

TEST_F(exception, misuse_and_excess_are_reported)
{
    const kestal_test::caught_assertions caught;
    EXPECT_EQ(kestal_del_exception_tag(nullptr), 0);
    {
        const kestal_test::failing_allocation failing(1);
        EXPECT_EQ(kestal_add_exception(), nullptr);
    }
    std::vector<kestal_exception_t *> records;
    for (int i = 0; i < 4097; ++i)
        records.push_back(kestal_add_exception());
    EXPECT_EQ(caught.messages(), (texts{"invalid argument", "not enough memory", "too many exception entry"}));
    EXPECT_NE(records.back(), nullptr);
    for (kestal_exception_t *record : records)
        kestal_del_exception(record);
    EXPECT_EQ(dumped(0), "");
}

TEST_F(exception, threads_enter_and_leave_at_once)
{
    const auto enter_and_leave = [] {
        for (int i = 0; i < 500; ++i) {
            kestal_exception_t *outer = kestal_add_exception();
            kestal_exception_t *inner = kestal_add_exception();
            kestal_del_exception(outer);
            kestal_del_exception(inner);
        }
    };
    std::thread other(enter_and_leave);
    enter_and_leave();
    other.join();
    EXPECT_EQ(dumped(0), "");
}

} // namespace
