#include "support.hpp"

using kestal_test::counted;
using kestal_test::with_each_allocation_failing;

namespace {

class percent : public counted {};

std::string owned(char *text)
{
    const std::string copy = text == nullptr ? "<null>" : text;
    kestal_check_free(text);
    return copy;
}

TEST_F(percent, encodes_and_decodes)
{
    const struct {
        const char *text;
        uint32_t flags;
        const char *keep, *result;
    } encoded[] = {
        {"AZaz09-._~", 0, nullptr, "AZaz09-._~"},
        {"a b/\xC3\xA9", 0, nullptr, "a%20b%2F%C3%A9"},
        {"a b/\xC3\xA9", 1, nullptr, "a+b%2F%C3%A9"},
        {"a b/\xC3\xA9", 0, "/", "a%20b/%C3%A9"},
        {"\x01\x7F\xFF%+@[`{", 0, "", "%01%7F%FF%25%2B%40%5B%60%7B"},
        {"+ \xFF", 1, " +\xFF", "++\xFF"},
        {nullptr, 0, nullptr, "<null>"},
    };
    for (const auto &item : encoded)
        EXPECT_EQ(owned(kestal_encode_percent_string_ex(item.text, item.flags, item.keep)), item.result);

    const struct {
        const char *text;
        uint32_t flags;
        const char *result;
    } decoded[] = {{"a+b", 0, "a+b"}, {"a+b%2B", 1, "a b+"},     {"a%20b%2f%fF", 0, "a b/\xFF"},
                   {"%4", 0, "\x04"}, {"%4g%411", 0, "\x04gA1"}, {"%%41%zz%", 0, "%A%zz%"},
                   {"a%00b", 0, "a"}, {nullptr, 0, "<null>"}};
    for (const auto &item : decoded)
        EXPECT_EQ(owned(kestal_decode_percent_string_ex(item.text, item.flags)), item.result);
    EXPECT_EQ(with_each_allocation_failing([] {
                  EXPECT_NE(owned(kestal_encode_percent_string("a b")), "a b");
                  EXPECT_NE(owned(kestal_decode_percent_string("a%20b")), "a%20b");
              }),
              2u);
}

} // namespace
