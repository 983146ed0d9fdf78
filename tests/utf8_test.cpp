#include "support.hpp"

namespace {

TEST(utf8, takes_code_points_and_nothing_else)
{
    const struct {
        const char *text;
        uint32_t length;
        uint32_t code_point;
    } cases[] = {
        {"", 0, 0},
        {"A", 1, 'A'},
        {"\x7F", 1, 0x7F},
        {"\xC2\x80", 2, 0x80},
        {"\xDF\xBF", 2, 0x7FF},
        {"\xE0\xA0\x80", 3, 0x800},
        {"\xEA\xB0\x80z", 3, 0xAC00},
        {"\xED\x9F\xBF", 3, 0xD7FF},
        {"\xEE\x80\x80", 3, 0xE000},
        {"\xF0\x90\x80\x80", 4, 0x10000},
        {"\xF4\x8F\xBF\xBF", 4, 0x10FFFF},
        {"\x80", 0, 0},     // a stray continuation
        {"\xC0\x80", 0, 0}, // longer than needed
        {"\xC1\xBF", 0, 0},
        {"\xE0\x9F\xBF", 0, 0},
        {"\xF0\x8F\xBF\xBF", 0, 0},
        {"\xED\xA0\x80", 0, 0},     // a surrogate
        {"\xF4\x90\x80\x80", 0, 0}, // above the last
        {"\xF8\x88\x80\x80\x80", 0, 0},
        {"\xFF", 0, 0},
        {"\xC2", 0, 0}, // cut off
        {"\xE2\x82", 0, 0},
        {"\xE2\x82z", 0, 0},
        {nullptr, 0, 0},
    };
    for (const auto &each : cases) {
        uint32_t code_point = 99;
        EXPECT_EQ(kestal_decode_utf8(each.text, &code_point), each.length) << (each.text ? each.text : "null");
        EXPECT_EQ(code_point, each.code_point);
        EXPECT_EQ(kestal_decode_utf8(each.text, nullptr), each.length);
    }
}

} // namespace
