#include "support.hpp"

#include <cstring>

namespace {

TEST(utf8, takes_code_points_and_nothing_else)
{
    uint32_t code_point = 99;
    for (const auto &[text, expected] : {std::pair{"\x7F", 0x7Fu},
                                         {"\xC2\x80", 0x80},
                                         {"\xDF\xBF", 0x7FF},
                                         {"\xE0\xA0\x80", 0x800},
                                         {"\xED\x9F\xBF", 0xD7FF},
                                         {"\xEE\x80\x80", 0xE000},
                                         {"\xF0\x90\x80\x80", 0x10000},
                                         {"\xF4\x8F\xBF\xBF", 0x10FFFF}}) {
        EXPECT_EQ(kestal_decode_utf8((text + std::string("z")).c_str(), &code_point), strlen(text)) << text;
        EXPECT_EQ(code_point, expected);
    }
    // Nothing, a stray continuation, longer than needed, a surrogate, above the last one, no UTF-8, and cut off.
    for (const char *text :
         {static_cast<const char *>(nullptr), "", "\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",
          "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xC2", "\xE2\x82z"}) {
        EXPECT_EQ(kestal_decode_utf8(text, &code_point), 0u) << (text != nullptr ? text : "null");
        EXPECT_EQ(std::exchange(code_point, 99), 0u);
    }
    EXPECT_EQ(kestal_decode_utf8("", nullptr) + kestal_decode_utf8("A", nullptr), 1u);
}

} // namespace
