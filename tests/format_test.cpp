#include "support.hpp"

#include <cmath>
#include <cstring>
#include <limits>

using kestal_test::with_each_allocation_failing;

namespace {

class format : public kestal_test::counted {};

std::string text(const char *pattern, ...)
{
    char buffer[2048];
    va_list list;
    va_start(list, pattern);
    const uint64_t stored = kestal_vsnprintf(buffer, sizeof buffer, pattern, list);
    va_end(list);
    EXPECT_EQ(buffer[stored], '\0');
    return std::string(buffer, stored);
}

struct row {
    std::string got;
    std::string wanted;
};

void check(std::initializer_list<row> rows)
{
    for (const row &each : rows)
        EXPECT_EQ(each.got, each.wanted);
}

// Several rows a line.
// clang-format off

TEST_F(format, integers)
{
    check({
        {text("%d", 0), "0"}, {text("%i", -7), "-7"}, {text("%d", INT32_MAX), "2147483647"},
        {text("%d", INT32_MIN), "-2147483648"}, {text("%u", UINT32_MAX), "4294967295"},
        {text("%ld", INT64_MIN), "-9223372036854775808"}, {text("%lld", INT64_MAX), "9223372036854775807"},
        {text("%li", int64_t{-1}), "-1"}, {text("%lu", UINT64_MAX), "18446744073709551615"},
        {text("%llu", uint64_t{4294967296}), "4294967296"}, {text("%o", 8u), "10"},
        {text("%lo", UINT64_MAX), "1777777777777777777777"}, {text("%x|%X", 0xBEEFu, 0xBEEFu), "beef|BEEF"},
        {text("%lx", UINT64_MAX), "ffffffffffffffff"}, {text("%llX", uint64_t{0x123456789A}), "123456789A"},
        {text("%x", 0u), "0"}, {text("%u %lu %u", 1u, uint64_t{2}, 3u), "1 2 3"}, {text("%lu", uint64_t{9}), "9"},
        {text("%lu", uint64_t{10}), "10"}, {text("%lu", uint64_t{99}), "99"}, {text("%lu", uint64_t{100}), "100"},
        {text("%lu", uint64_t{999999999999}), "999999999999"}, {text("%lu", uint64_t{10000000000}), "10000000000"},
        {text("%lu", uint64_t{4294967295}), "4294967295"},
    });
}

TEST_F(format, integer_widths)
{
    check({
        {text("[%5d]", 42), "[   42]"}, {text("[%5d]", -42), "[  -42]"}, {text("[%05d]", 42), "[00042]"},
        {text("[%05d]", -42), "[-0042]"}, {text("[%-5d]", 42), "[42   ]"}, {text("[%-5d]", -42), "[-42  ]"},
        {text("[%2d]", 12345), "[12345]"}, {text("[%02d]", -1), "[-1]"}, {text("[%08X]", 0xBEEFu), "[0000BEEF]"},
        {text("[%8x]", 0xBEEFu), "[    beef]"}, {text("[%-8o]", 8u), "[10      ]"},
        {text("[%08llX]", uint64_t{0x123456789A}), "[123456789A]"},
        {text("[%20lu]", UINT64_MAX), "[18446744073709551615]"},
        {text("[%021ld]", INT64_MIN), "[-09223372036854775808]"}, {text("[%*d]", 5, 42), "[   42]"},
        {text("[%*d]", -5, 42), "[42   ]"}, {text("[%0*d]", 5, 42), "[00042]"}, {text("[%-*d]", 5, 42), "[42   ]"},
        {text("[%-*d]", -5, 42), "[42   ]"}, {text("[%*d]", 0, 42), "[42]"},
    });
}

TEST_F(format, integer_rules_that_differ_from_c)
{
    check({
        {text("%.3d", 5), "  5"}, {text("%.3d", -5), " -5"}, {text("%.03d", 5), "005"}, {text("%.03d", -5), "-05"},
        {text("%-.3d|", 5), "5  |"}, {text("%.*u", 4, 7u), "   7"}, {text("%.8X", 0xBEEFu), "    BEEF"},
        {text("%8.3d", 5), "       5"}, {text("%08.3d", 5), "00000005"}, {text("%.3.7d", 5), "  5"},
        {text("%.0d", 0), "0"}, {text("%.d", 0), "0"}, {text("%-05d|", 42), "00042|"}, {text("%-05d|", -42), "-0042|"},
        {text("%0*d", -5, 42), "00042"}, {text("%#x", 255u), "ff"}, {text("%#o", 8u), "10"},
        {text("%#-6X|", 255u), "FF    |"}, {text("%#-.06X|", 255u), "0000FF|"}, {text("%0-5d|", 42), "-5d|"},
        {text("%-#5d|", 42), "#5d|"}, {text("%+d", 42), "+d"}, {text("% d", 42), " d"}, {text("%hd", 42), "hd"},
        {text("%zu", size_t{42}), "zu"}, {text("%jd", 42), "jd"}, {text("%'d", 42), "'d"}, {text("%1$d", 42), "$d"},
        {text("%llld%d", 42), "ld42"},
    });
}

TEST_F(format, texts_and_characters)
{
    const char unterminated[] = {'a', 'b', 'c'};
    check({
        {text("%s", "abc"), "abc"}, {text("%s", ""), ""}, {text("%s", nullptr), "(null)"},
        {text("<%s> and <%s>", "a", "b"), "<a> and <b>"}, {text("[%5s]", "ab"), "[   ab]"},
        {text("[%-5s]", "ab"), "[ab   ]"}, {text("[%05s]", "ab"), "[   ab]"}, {text("[%-05s]", "ab"), "[ab   ]"},
        {text("[%1s]", "abc"), "[abc]"}, {text("[%10s]", nullptr), "[    (null)]"}, {text("[%*s]", 5, "ab"), "[   ab]"},
        {text("[%*s]", -5, "ab"), "[ab   ]"}, {text("[%ls]", "ab"), "[ab]"},
        // the point makes the digits width and cut at once
        {text("[%.5s]", "ab"), "[   ab]"}, {text("[%.5s]", "abcdefgh"), "[abcde]"}, {text("[%-.5s]", "ab"), "[ab   ]"},
        {text("[%-.5s]", "abcdefgh"), "[abcde]"}, {text("[%.05s]", "ab"), "[   ab]"},
        {text("[%.3s]", nullptr), "[(nu]"}, {text("[%.*s]", 3, unterminated), "[abc]"},
        {text("[%.*s]", 0, unterminated), "[]"}, {text("[%.*s]", -5, "abcdefgh"), "[abcde]"},
        {text("[%.*s]", -5, "ab"), "[ab   ]"}, {text("[%.s]", "abc"), "[]"}, {text("[%.0s]", "abc"), "[]"},
        // a precision behind a width is ignored
        {text("[%10.3s]", "abcdefgh"), "[  abcdefgh]"}, {text("[%2.1s]", "abc"), "[abc]"},
        {text("[%-10.3s]", "abcdefgh"), "[abcdefgh  ]"}, {text("[%c]", 'x'), "[x]"}, {text("[%5c]", 'x'), "[x]"},
        {text("[%-5c]", 'x'), "[x]"}, {text("[%05c%c]", 'x', 'y'), "[xy]"}, {text("[%c]", 0), std::string("[\0]", 3)},
        {text("[%lc%d]", uint64_t{'x'}, 1), "[x1]"}, {text("100%% %%d"), "100% %d"}, {text("%5%|"), "%|"},
        {text("%y%q%-5k"), "yqk"}, {text("%n%n"), "nn"}, {text("abc%"), "abc"}, {text("abc%-08.3ll"), "abc"},
        {text(""), ""}, {text(nullptr), ""},
    });
}

TEST_F(format, pointers_have_sixteen_digits)
{
    const auto pointer = reinterpret_cast<const void *>(uintptr_t{0xABCD12});
    check({
        {text("%p", pointer), "0000000000abcd12"}, {text("%P", pointer), "0000000000ABCD12"},
        {text("%p", nullptr), "0000000000000000"},
        {text("[%-20p][%4p]", pointer, pointer), "[0000000000abcd12][0000000000abcd12]"},
    });
}

TEST_F(format, floating_point)
{
    const double infinity = std::numeric_limits<double>::infinity();
    check({
        {text("%f", 3.14159265), "3.141593"}, {text("%f", 0.0), "0.000000"}, {text("%f", -0.0), "-0.000000"},
        {text("%.3f", 3.14159), "3.142"}, {text("%.3f", -3.14159), "-3.142"}, {text("%.1f", 0.96), "1.0"},
        {text("%.2f", 0.004), "0.00"}, {text("%.2f", -0.004), "-0.00"}, {text("%.1f", -0.5), "-0.5"},
        {text("%.3f", 2.0005), "2.001"}, {text("%.6f", 1e-6), "0.000001"}, {text("%.03f", 3.14159), "3.142"},
        {text("%.*f", 2, 2.71828), "2.72"}, {text("%.0f", 2.5), "3"}, {text("%.0f", -2.5), "-3"},
        {text("%.0f", -0.4), "-0"}, {text("%.f", 1.6), "2"}, {text("%8.f", 1.6), "       2"},
        // the width is the integer part's
        {text("%8.3f", 3.14159), "       3.142"}, {text("%08.3f", 3.14159), "00000003.142"},
        {text("%08.3f", -3.14159), "-0000003.142"}, {text("%-4.2f|", 3.14159), "3   .14|"},
        {text("%1.2f", 1234.5678), "1234.57"},
        // a width alone prints no fraction
        {text("%5f", 3.7), "    4"}, {text("%05f", -3.2), "-0003"}, {text("%-5f|", 3.2), "3    |"},
        {text("%*f", 5, 3.7), "    4"}, {text("%0f", 3.25), "3.250000"}, {text("%lf", 2.5L), "2.500000"},
        {text("%.1lf", -2.5L), "-2.5"}, {text("[%llf][%d]", 7), "[][7]"},
        {text("%f %f %f", NAN, infinity, -infinity), "nan inf -inf"},
        {text("[%6f][%-6.2f][%06f][%.1f]", infinity, -infinity, NAN, infinity), "[   inf][-inf  ][   nan][inf]"},
        {text("%.0f", 4503599627370497.0), "4503599627370497"}, {text("%.0f", 9007199254740991.0), "9007199254740991"},
        {text("%.1f", 18446744073709551616.0), "18446744073709551616.0"},
        {text("%.0f", 1e22), "10000000000000000000000"}, {text("%.0f", 1e23), "99999999999999991611392"},
        {text("%.0f", 0x1p200), "1606938044258990275541962092341162602522202993782792835301376"},
        {text("%.20f", 0.5), "0.50000000000000000000"}, {text("%.22f", 0.1), "0.1000000000000000000000"},
        {text("%.25f", 1e-24).substr(0, 26), "0.000000000000000000000001"},
    });

    const std::string largest = text("%.2f", -std::numeric_limits<double>::max());
    char expected[400];
    std::snprintf(expected, sizeof expected, "%.2f", -std::numeric_limits<double>::max());
    EXPECT_EQ(largest, expected);
    EXPECT_EQ(text("%.1000f", 5e-324).size(), 1002u);
}

// clang-format on

TEST_F(format, output_stops_at_the_end_of_the_buffer)
{
    for (uint64_t size = 1; size < 64; ++size) {
        char buffer[64];
        std::memset(buffer, '#', sizeof buffer);
        const uint64_t stored =
            kestal_snprintf(buffer, size, "abc%s%05d|%-6d|%4s%c%%%.3f%p", "defg", 42, 7, "x", 'y', 1.5, nullptr);
        const std::string whole = "abcdefg00042|7     |   xy%1.5000000000000000000";
        EXPECT_EQ(stored, std::min<uint64_t>(size - 1, whole.size()));
        EXPECT_EQ(std::string(buffer), whole.substr(0, stored));
        EXPECT_EQ(buffer[size], '#') << "wrote behind size " << size;
    }
    char buffer[8] = "keep";
    EXPECT_EQ(kestal_snprintf(buffer, 0, "%d", 1), 0u);
    EXPECT_STREQ(buffer, "keep");
    EXPECT_EQ(kestal_snprintf(nullptr, 8, "%d", 1), 0u);
    EXPECT_EQ(kestal_snprintf(buffer, 8, "%*d", INT32_MIN, 1), 7u);
    EXPECT_EQ(kestal_snprintf(buffer, 8, "%99999999999999999999d", 1), 7u);
    EXPECT_STREQ(buffer, "       ");
    EXPECT_EQ(kestal_sprintf(buffer, "%s-%d", "a", 12), 4u);
    EXPECT_STREQ(buffer, "a-12");
}

TEST_F(format, allocated_texts_are_exact_and_limited)
{
    EXPECT_EQ(kestal_alloc_sprintf(nullptr), nullptr);
    for (const size_t length : {0u, 1u, 254u, 255u, 300u, 511u, 512u, 513u, 65278u}) {
        const std::string long_text(length, 'x');
        char *block = kestal_alloc_sprintf("%s", long_text.c_str());
        EXPECT_EQ(block, long_text) << length;
        kestal_free(block);
    }
    for (const size_t length : {65279u, 70000u})
        EXPECT_EQ(kestal_alloc_sprintf("%s", std::string(length, 'x').c_str()), nullptr) << length;

    char *text = kestal_alloc_sprintf("%s %d", "one", 1);
    text = kestal_realloc_sprintf(text, "%s, %s", text, "two"); // the old text may be an argument
    EXPECT_STREQ(text, "one 1, two");
    EXPECT_EQ(kestal_realloc_sprintf(text, nullptr), nullptr); // released all the same

    EXPECT_EQ(with_each_allocation_failing([] { kestal_check_free(kestal_alloc_sprintf("%600d", 1)); }), 1u);
}

} // namespace
