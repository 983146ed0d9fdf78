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

TEST_F(percent, encodes)
{
    const struct {
        const char *text;
        uint32_t flags;
        const char *keep, *result;
    } cases[] = {
        {"", 0, nullptr, ""},
        {"AZaz09-._~", 0, nullptr, "AZaz09-._~"},
        {"a b/\xC3\xA9", 0, nullptr, "a%20b%2F%C3%A9"},
        {"a b/\xC3\xA9", 1, nullptr, "a+b%2F%C3%A9"},
        {"a b/\xC3\xA9", 0, "/", "a%20b/%C3%A9"},
        {"\x01\x7F\xFF%+@[`{", 0, "", "%01%7F%FF%25%2B%40%5B%60%7B"},
        {"+ ", 1, "+", "++"},
        {" \xFF", 1, " \xFF", "+\xFF"},
        {nullptr, 0, nullptr, "<null>"},
    };
    for (const auto &item : cases)
        EXPECT_EQ(owned(kestal_encode_percent_string_ex(item.text, item.flags, item.keep)), item.result);
    EXPECT_EQ(owned(kestal_encode_percent_string("a b")), "a%20b");
}

TEST_F(percent, decodes)
{
    const struct {
        const char *text;
        uint32_t flags;
        const char *result;
    } cases[] = {
        {"", 0, ""},       {"a+b", 0, "a+b"},         {"a+b", 1, "a b"},  {"a%20b%2f%2F", 0, "a b//"},
        {"%4", 0, "\x04"}, {"%4g%411", 0, "\x04gA1"}, {"%", 0, "%"},      {"%%41%zz", 0, "%A%zz"},
        {"%2B+", 1, "+ "}, {"a%00b", 0, "a"},         {"%fF", 0, "\xFF"}, {nullptr, 0, "<null>"},
    };
    for (const auto &item : cases)
        EXPECT_EQ(owned(kestal_decode_percent_string_ex(item.text, item.flags)), item.result);
    EXPECT_EQ(owned(kestal_decode_percent_string("a+%62")), "a+b");
    EXPECT_EQ(with_each_allocation_failing([] {
                  kestal_check_free(kestal_encode_percent_string("a b"));
                  kestal_check_free(kestal_decode_percent_string("a%20b"));
              }),
              2u);
}

} // namespace
