#include "pictures.hpp"

#include "../source/color.hpp"
#include "../source/processor.hpp"

using namespace kestal_test;

namespace {

constexpr uint32_t argb = KESTAL_COLOR_ARGB8888, padded = KESTAL_COLOR_DRGB8888, rgb = KESTAL_COLOR_DRGB0888,
                   abgr = KESTAL_COLOR_ABGR8888, bgr = KESTAL_COLOR_DBGR0888, rgb565 = KESTAL_COLOR_DRGB0565,
                   rgb233 = KESTAL_COLOR_DRGB0233, palette8 = KESTAL_COLOR_DDDP0008, palette4 = KESTAL_COLOR_PPPP1111,
                   palette2 = KESTAL_COLOR_DDPP0011, grey1 = KESTAL_COLOR_DDDG0001, yuv = 0x00788898;

TEST(color, codes_tell_their_bits_and_names)
{
    const std::tuple<uint32_t, uint32_t, const char *, bool> formats[] = {
        {argb, 32, "ARGB8888", true},    {rgb, 24, "dRGB0888", true},     {rgb565, 16, "dRGB0565", true},
        {palette8, 8, "dddp0008", true}, {palette4, 4, "PPPP1111", true}, {palette2, 2, "ddPP0011", true},
        {grey1, 1, "dddg0001", true},    {yuv, 24, "dYuv0888", false},    {0x124A5A6A, 32, "ARGB2KKK", false},
        {0, 0, "dddd0000", true}};
    EXPECT_EQ(kestal_color_interface_name(nullptr, argb), nullptr);
    for (const auto &[code, bits, expected, is_usual] : formats) {
        char name[KESTAL_COLOR_INTERFACE_NAME_SIZE];
        EXPECT_STREQ(kestal_color_interface_name(name, code), expected);
        EXPECT_EQ(kestal_color_interface_to_bits_per_pixel(code), bits) << name;
        EXPECT_EQ(kestal_bits_per_pixel_to_color_interface(bits) == code, is_usual) << name;
    }
}

TEST(color, converts_known_colors)
{
    // In the last two, fields of more than 8 bits and more bits than a value has are cut.
    constexpr uint32_t cases[][4] = {
        {rgb565, argb, 0xFFFEDCBA, 0xFEF7},
        {argb, rgb565, 0xFEF7, 0xFFF8DCB8},
        {abgr, argb, 0x80FEDCBA, 0x80BADCFE},
        {rgb233, rgb565, 0xFFFF, 0xC0E0E0},
        {0x11455565, argb, 0x80FEDCBA, 0xFF77},
        {argb, palette8, 0x10F, 0xFFFFFFFF},
        {rgb, palette4, 1, 0xCD0000},
        {argb, palette2, 2, 0xFF00CD00},
        {rgb565, grey1, 8, 0xFFFF},
        {palette8, argb, 0xFFFFFFFF, 0},
        {yuv, argb, 0x000000FF, 0x1DFF6C},
        {rgb, yuv, 0x808080, 0x808062},
        {argb, yuv, 0x50FF00, 0xFF9D80DD},
        {0x18788898, yuv, 0x123456, 0xFF123456},
        {argb, 0x124A5A6A, 0xFFC80100, 0xC0FF8040},
        {argb, 0x4F5F6F1F, 0xFFFFFFFF, 0xFF0000FF},
    };
    for (const auto &[target, source, value, expected] : cases)
        EXPECT_EQ(kestal_convert_color(target, source, value), expected)
            << std::hex << target << " from " << source << ", " << value;
}

TEST(color, rows_convert_as_single_colors_do)
{
    dice random(2);
    const uint32_t formats[] = {argb, padded, rgb, abgr, bgr, rgb565, rgb233, palette8, yuv, 0x11455565};
    for (const uint32_t features : {kestal::processor::every_feature, 0u})
        for (const uint32_t to : formats)
            for (const uint32_t from : formats)
                for (const uint32_t count : {0u, 1u, 7u, 33u, 600u}) {
                    picture source(from, count, 1), target(to, count, 1), expected(to, count, 1);
                    random.scribble(source.memory);
                    for_each_pixel(expected.raw, [&](int64_t x, int64_t y) {
                        set_pixel(expected.raw, x, y, kestal_convert_color(to, from, pixel_of(source.raw, x, y)));
                    });
                    kestal::processor::allow_only(features);
                    ASSERT_TRUE(kestal::convert_color_row(to, &target.memory[1], from, &source.memory[1], count));
                    ASSERT_EQ(target.memory, expected.memory) << std::hex << to << " from " << from << ", " << count;
                }
    kestal::processor::allow_only(kestal::processor::every_feature);
    uint8_t byte[4] = {};
    EXPECT_FALSE(kestal::convert_color_row(argb, byte, palette4, byte, 1));
    EXPECT_FALSE(kestal::convert_color_row(grey1, byte, argb, byte, 1));
}

} // namespace
