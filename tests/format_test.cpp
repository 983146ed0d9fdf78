#include "support.hpp"

#include <cmath>
#include <cstring>
#include <limits>

using kestal_test::owned;
using kestal_test::with_each_allocation_failing;

namespace {

class format : public kestal_test::counted {};

std::string f(const char *pattern, ...)
{
    char buffer[2048];
    va_list list;
    va_start(list, pattern);
    const uint64_t stored = kestal_vsnprintf(buffer, sizeof buffer, pattern, list);
    va_end(list);
    EXPECT_EQ(buffer[stored], '\0');
    return std::string(buffer, stored);
}

void check(std::initializer_list<std::pair<std::string, std::string>> rows)
{
    for (const auto &[got, wanted] : rows)
        EXPECT_EQ(got, wanted);
}

// Several rows a line.
// clang-format off

TEST_F(format, integers)
{
    check({
        {f("%d", 0), "0"}, {f("%i", -7), "-7"}, {f("%d", INT32_MIN), "-2147483648"}, {f("%li", int64_t{-1}), "-1"},
        {f("%lld", INT64_MAX), "9223372036854775807"}, {f("%lu", UINT64_MAX), "18446744073709551615"},
        {f("%o", 8u), "10"}, {f("%lo", UINT64_MAX), "1777777777777777777777"}, {f("%lu", uint64_t{10}), "10"},
        {f("%x|%X", 0xBEEFu, 0xBEEFu), "beef|BEEF"}, {f("%llX", uint64_t{0x123456789A}), "123456789A"},
        {f("%u %lu %u", 1u, uint64_t{2}, 3u), "1 2 3"}, {f("%lu", uint64_t{10000000000}), "10000000000"},
        {f("%lu", uint64_t{4294967295}), "4294967295"}, {f("[%5d]", 42), "[   42]"}, {f("[%5d]", -42), "[  -42]"},
        {f("[%05d]", 42), "[00042]"}, {f("[%-5d]", 42), "[42   ]"}, {f("[%8x]", 0xBEEFu), "[    beef]"},
        {f("[%-8o]", 8u), "[10      ]"}, {f("[%08llX]", uint64_t{0x123456789A}), "[123456789A]"}, {f("%.3d", 5), "  5"},
        {f("[%20lu]", UINT64_MAX), "[18446744073709551615]"}, {f("[%021ld]", INT64_MIN), "[-09223372036854775808]"},
        {f("[%*d]", 5, 42), "[   42]"}, {f("[%*d]", -5, 42), "[42   ]"}, {f("[%-*d]", 5, 42), "[42   ]"},
        {f("%.3d", -5), " -5"}, {f("%.03d", 5), "005"}, {f("%-.3d|", 5), "5  |"}, {f("%.*u", 4, 7u), "   7"},
        {f("%8.3d", 5), "       5"}, {f("%08.3d", 5), "00000005"}, {f("%.3.7d", 5), "  5"}, {f("%.0d", 0), "0"},
        {f("%-05d|", -42), "-0042|"}, {f("%0*d", -5, 42), "00042"}, {f("%#x", 255u), "ff"}, {f("%0-5d|", 42), "-5d|"},
        {f("%#-6X|", 255u), "FF    |"}, {f("%#-.06X|", 255u), "0000FF|"}, {f("%-#5d|", 42), "#5d|"},
        {f("%+d", 42), "+d"}, {f("% d", 42), " d"}, {f("%hd", 42), "hd"}, {f("%zu", size_t{42}), "zu"},
        {f("%'d", 42), "'d"}, {f("%1$d", 42), "$d"}, {f("%llld%d", 42), "ld42"},
    });
}

TEST_F(format, texts_characters_and_pointers)
{
    const char unterminated[] = {'a', 'b', 'c'};
    const auto pointer = reinterpret_cast<const void *>(uintptr_t{0xABCD12});
    check({
        {f("%s", "abc"), "abc"}, {f("%s", ""), ""}, {f("%s", nullptr), "(null)"}, {f("[%5s]", "ab"), "[   ab]"},
        {f("[%-5s]", "ab"), "[ab   ]"}, {f("[%-05s]", "ab"), "[ab   ]"}, {f("[%1s]", "abc"), "[abc]"},
        {f("[%10s]", nullptr), "[    (null)]"}, {f("[%*s]", -5, "ab"), "[ab   ]"}, {f("[%ls]", "ab"), "[ab]"},
        {f("[%.5s]", "abcdefgh"), "[abcde]"}, {f("[%-.5s]", "ab"), "[ab   ]"}, {f("[%-.5s]", "abcdefgh"), "[abcde]"},
        {f("[%.05s]", "ab"), "[   ab]"}, {f("[%.3s]", nullptr), "[(nu]"}, {f("[%.*s]", 3, unterminated), "[abc]"},
        {f("[%.*s]", 0, unterminated), "[]"}, {f("[%.*s]", -5, "abcdefgh"), "[abcde]"}, {f("[%.s]", "abc"), "[]"},
        {f("[%10.3s]", "abcdefgh"), "[  abcdefgh]"}, {f("[%2.1s]", "abc"), "[abc]"}, {f("[%-5c]", 'x'), "[x]"},
        {f("[%05c%c]", 'x', 'y'), "[xy]"}, {f("[%c]", 0), std::string("[\0]", 3)}, {f("100%% %%d"), "100% %d"},
        {f("[%lc%d]", uint64_t{'x'}, 1), "[x1]"}, {f("%5%|"), "%|"}, {f("%y%q%-5k"), "yqk"}, {f("%n%n"), "nn"},
        {f("abc%"), "abc"}, {f("abc%-08.3ll"), "abc"}, {f(""), ""}, {f(nullptr), ""},
        {f("%p", pointer), "0000000000abcd12"}, {f("%P", pointer), "0000000000ABCD12"},
        {f("%p", nullptr), "0000000000000000"}, {f("[%.5s]", "ab"), "[   ab]"},
        {f("[%-20p][%4p]", pointer, pointer), "[0000000000abcd12][0000000000abcd12]"},
    });
}

TEST_F(format, floating_point)
{
    const double infinity = std::numeric_limits<double>::infinity();
    check({
        {f("%f", 3.14159265), "3.141593"}, {f("%f", -0.0), "-0.000000"}, {f("%.3f", -3.14159), "-3.142"},
        {f("%.1f", 0.96), "1.0"}, {f("%.2f", -0.004), "-0.00"}, {f("%.1f", -0.5), "-0.5"}, {f("%.3f", 2.0005), "2.001"},
        {f("%.6f", 1e-6), "0.000001"}, {f("%.03f", 3.14159), "3.142"}, {f("%.*f", 2, 2.71828), "2.72"},
        {f("%.0f", 2.5), "3"}, {f("%.0f", -0.4), "-0"}, {f("%.f", 1.6), "2"}, {f("%8.f", 1.6), "       2"},
        {f("%8.3f", 3.14159), "       3.142"}, {f("%08.3f", -3.14159), "-0000003.142"}, {f("%5f", 3.7), "    4"},
        {f("%-4.2f|", 3.14159), "3   .14|"}, {f("%1.2f", 1234.5678), "1234.57"}, {f("%05f", -3.2), "-0003"},
        {f("%-5f|", 3.2), "3    |"}, {f("%0f", 3.25), "3.250000"}, {f("%.1lf", -2.5L), "-2.5"},
        {f("[%llf][%d]", 7), "[][7]"}, {f("%f %f %f", NAN, infinity, -infinity), "nan inf -inf"},
        {f("[%6f][%-6.2f][%06f][%.1f]", infinity, -infinity, NAN, infinity), "[   inf][-inf  ][   nan][inf]"},
        {f("%.0f", 4503599627370497.0), "4503599627370497"}, {f("%.0f", 1e22), "10000000000000000000000"},
        {f("%.1f", 18446744073709551616.0), "18446744073709551616.0"}, {f("%.0f", 1e23), "99999999999999991611392"},
        {f("%.0f", 0x1p200), "1606938044258990275541962092341162602522202993782792835301376"},
        {f("%.20f", 0.5), "0.50000000000000000000"}, {f("%.22f", 0.1), "0.1000000000000000000000"},
        {f("%.25f", 1e-24).substr(0, 26), "0.000000000000000000000001"},
    });

    char largest[400];
    std::snprintf(largest, sizeof largest, "%.2f", -std::numeric_limits<double>::max());
    EXPECT_EQ(f("%.2f", -std::numeric_limits<double>::max()), largest);
    EXPECT_EQ(f("%.1000f", 5e-324).size(), 1002u);
}

// clang-format on

TEST_F(format, output_stops_at_the_end_of_the_buffer)
{
    const std::string whole = "abcdefg00042|7     |   xy%1.5000000000000000000";
    char buffer[64] = "keep";
    EXPECT_EQ(kestal_snprintf(buffer, 0, "%d", 1) + kestal_snprintf(nullptr, 8, "%d", 1), 0u);
    EXPECT_STREQ(buffer, "keep");
    for (uint64_t size = 1; size < sizeof buffer; ++size) {
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(kestal_snprintf(buffer, size, "abc%s%05d|%-6d|%4s%c%%%.3f%p", "defg", 42, 7, "x", 'y', 1.5, nullptr),
                  std::min<uint64_t>(size - 1, whole.size()));
        EXPECT_EQ(std::string(buffer), whole.substr(0, size - 1));
        EXPECT_EQ(buffer[size], '#') << "wrote behind size " << size;
    }
    EXPECT_EQ(kestal_snprintf(buffer, 8, "%*d", INT32_MIN, 1), 7u);
    EXPECT_EQ(kestal_snprintf(buffer, 8, "%99999999999999999999d", 1), 7u);
    EXPECT_STREQ(buffer, "       ");
    EXPECT_EQ(kestal_sprintf(buffer, "%s-%d", "a", 12), 4u);
    EXPECT_STREQ(buffer, "a-12");
}

TEST_F(format, allocated_texts_are_exact_and_limited)
{
    for (const size_t length : {0u, 1u, 254u, 255u, 300u, 511u, 512u, 513u, 65278u, 65279u, 70000u}) {
        const std::string text(length, 'x');
        EXPECT_EQ(owned(kestal_alloc_sprintf("%s", text.c_str())), length > 65278 ? "<null>" : text) << length;
    }
    char *text = kestal_alloc_sprintf("%s %d", "one", 1);
    text = kestal_realloc_sprintf(text, "%s, %s", text, "two"); // the old text may be an argument
    EXPECT_STREQ(text, "one 1, two");
    EXPECT_EQ(kestal_realloc_sprintf(text, nullptr), nullptr); // released all the same
    EXPECT_EQ(with_each_allocation_failing([] { owned(kestal_alloc_sprintf("%600d", 1)); }), 1u);
}

} // namespace
