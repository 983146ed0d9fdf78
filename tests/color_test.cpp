#include "pictures.hpp"

#include "../source/color.hpp"
#include "../source/processor.hpp"

using namespace kestal_test;

namespace {

constexpr uint32_t argb = KESTAL_COLOR_ARGB8888, padded = KESTAL_COLOR_DRGB8888, rgb = KESTAL_COLOR_DRGB0888,
                   abgr = KESTAL_COLOR_ABGR8888, bgr = KESTAL_COLOR_DBGR0888, rgb565 = KESTAL_COLOR_DRGB0565,
                   rgb233 = KESTAL_COLOR_DRGB0233, palette8 = KESTAL_COLOR_DDDP0008, palette4 = KESTAL_COLOR_PPPP1111,
                   palette2 = KESTAL_COLOR_DDPP0011, grey1 = KESTAL_COLOR_DDDG0001, yuv = 0x00788898;

// Component by component through channels of 8 bits: what every conversion of one colour space comes to.
uint32_t through_channels(uint32_t target, uint32_t source, uint32_t value)
{
    uint32_t channels[16] = {0, 0xFF};
    for (uint64_t rest = value, fields = source; fields != 0; fields >>= 8) {
        const uint32_t width = fields & 0xF;
        if (width != 0)
            channels[fields >> 4 & 0xF] = static_cast<uint32_t>((rest & ((1u << width) - 1)) << (8 - width));
        rest >>= width;
    }
    uint32_t packed = 0, place = 0;
    for (; target != 0; target >>= 8) {
        const uint32_t width = target & 0xF;
        if (width != 0)
            packed |= channels[target >> 4 & 0xF] >> (8 - width) << place;
        place += width;
    }
    return packed;
}

TEST(color, codes_tell_their_bits_and_names)
{
    const struct {
        uint32_t code, bits;
        const char *name;
        bool usual;
    } formats[] = {
        {argb, 32, "ARGB8888", true},        {padded, 32, "dRGB8888", false},     {rgb, 24, "dRGB0888", true},
        {abgr, 32, "ABGR8888", false},       {bgr, 24, "dBGR0888", false},        {rgb565, 16, "dRGB0565", true},
        {rgb233, 8, "dRGB0233", false},      {palette8, 8, "dddp0008", true},     {palette4, 4, "PPPP1111", true},
        {palette2, 2, "ddPP0011", true},     {grey1, 1, "dddg0001", true},        {yuv, 24, "dYuv0888", false},
        {0x124A5A6A, 32, "ARGB2KKK", false}, {0xA9EF0000, 24, "xxdd9P00", false}, {0, 0, "dddd0000", true}};
    for (const auto &format : formats) {
        char name[KESTAL_COLOR_INTERFACE_NAME_SIZE];
        EXPECT_EQ(kestal_color_interface_name(name, format.code), name);
        EXPECT_STREQ(name, format.name);
        EXPECT_EQ(kestal_color_interface_to_bits_per_pixel(format.code), format.bits) << name;
        EXPECT_EQ(kestal_bits_per_pixel_to_color_interface(format.bits) == format.code, format.usual) << name;
    }
    EXPECT_EQ(kestal_color_interface_name(nullptr, argb), nullptr);
    for (const uint32_t bits : {0u, 3u, 15u, 33u, UINT32_MAX})
        EXPECT_EQ(kestal_bits_per_pixel_to_color_interface(bits), 0u);
}

TEST(color, converts_known_colors)
{
    const struct {
        uint32_t target, source, value, expected;
    } cases[] = {{rgb233, rgb565, 0xFFFF, 0xC0E0E0},
                 {abgr, abgr, 0x80123456, 0x80123456},
                 {argb, palette8, 0, 0xFF000000},
                 {argb, palette8, 0x10F, 0xFFFFFFFF},
                 {rgb, palette4, 1, 0xCD0000},
                 {rgb565, palette8, 204, 0xFAF0},
                 {argb, palette2, 2, 0xFF00CD00},
                 {rgb565, grey1, 8, 0xFFFF},
                 {palette8, argb, 0xFFFFFFFF, 0},
                 {grey1, argb, 0xFFFFFFFF, 0},
                 {palette8, palette4, 7, 0},
                 {yuv, rgb, 0xFFFFFF, 0xFE8081},
                 {yuv, rgb, 0xFF0000, 0x4C55FF},
                 {yuv, argb, 0x000000FF, 0x1DFF6C},
                 {yuv, palette8, 9, 0x4C55FF},
                 {rgb, yuv, 0x808080, 0x808062},
                 {argb, yuv, 0x50FF00, 0xFF9D80DD},
                 {argb, 0x00000078, 0x40, 0xFF8DC7B1},
                 {0x18788898, yuv, 0x123456, 0xFF123456},
                 // Fields of more than 8 bits, and more bits than a value has, are cut.
                 {0x124A5A6A, argb, 0xFFFF8040, 0xFFC80100},
                 {argb, 0x124A5A6A, 0xFFC80100, 0xC0FF8040},
                 {argb, 0x4F5F6F1F, 0xFFFFFFFF, 0xFF0000FF}};
    for (const auto &each : cases)
        EXPECT_EQ(kestal_convert_color(each.target, each.source, each.value), each.expected)
            << std::hex << each.target << " from " << each.source << ", " << each.value;
}

TEST(color, converts_between_any_two_rgb_formats_by_component)
{
    dice random(1);
    const uint32_t named[] = {argb, padded, rgb, abgr, bgr, rgb565, rgb233};
    constexpr uint32_t components[] = {0, 1, 2, 3, 4, 5, 6, 10, 15};
    const auto format = [&](bool any) {
        uint32_t code = any ? 0 : named[random.below(std::size(named))];
        for (int field = 0; any && field < 4; field++)
            code = code << 8 | components[random.below(std::size(components))] << 4 | random.below(9);
        return code;
    };
    for (int round = 0; round < 20000; round++) {
        const uint32_t target = format(round % 3 == 0), source = format(round % 5 == 0), value = random.any();
        if (target == source || (target == rgb233 && source == rgb565))
            continue;
        ASSERT_EQ(kestal_convert_color(target, source, value), through_channels(target, source, value))
            << std::hex << target << " from " << source << ", " << value;
    }
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
