// Arguments and environment.
#include "support.hpp"

namespace {

class argument : public kestal_test::counted {};

TEST_F(argument, are_found_by_number_and_name)
{
    const char *given[] = {"program", "-x", nullptr, "behind"};
    const char *variables[] = {"A=1", "AB=x=y", "EMPTY=", "odd", "A=2", "a=3", nullptr};
    auto *opened = kestal_open_argument(4, const_cast<char **>(given), const_cast<char **>(variables));
    EXPECT_EQ(kestal_count_argument(opened), 2u);
    EXPECT_STREQ(kestal_get_argument(opened, 1), "-x");
    EXPECT_EQ(kestal_get_argument(opened, 2), nullptr);
    for (const auto &[name, value] : {std::pair("A", "1"), {"AB", "x=y"}, {"EMPTY", ""}, {"a", "3"}})
        EXPECT_STREQ(kestal_search_argument_variable(opened, name), value);
    for (const char *name : {"AB=x", "odd", "", "HOME", static_cast<const char *>(nullptr)})
        EXPECT_EQ(kestal_search_argument_variable(opened, name), nullptr);
    EXPECT_EQ(kestal_close_argument(opened), nullptr);
    EXPECT_EQ(kestal_search_argument_variable(nullptr, "HOME"), nullptr);

    opened = kestal_open_argument(-1, nullptr, nullptr);
    EXPECT_EQ(kestal_count_argument(opened) + kestal_count_argument(nullptr), 0u);
    EXPECT_STREQ(kestal_search_argument_variable(opened, "PATH"), getenv("PATH"));
    kestal_close_argument(opened);
    const kestal_test::failing_allocation failing(1);
    EXPECT_EQ(kestal_open_argument(0, nullptr, nullptr), nullptr);
}

} // namespace
