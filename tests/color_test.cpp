#include "support.hpp"

#include "../source/color.hpp"
#include "../source/pixel.hpp"
#include "../source/processor.hpp"

#include <random>

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
    } cases[] = {{rgb565, argb, 0xFFFFFFFF, 0xFFFF},
                 {argb, rgb565, 0xFFFF, 0xFFF8FCF8},
                 {rgb233, rgb565, 0xFFFF, 0xC0E0E0},
                 {rgb, abgr, 0x80123456, 0x563412},
                 {argb, bgr, 0x123456, 0xFF563412},
                 {abgr, abgr, 0x80123456, 0x80123456},
                 {argb, palette8, 0, 0xFF000000},
                 {argb, palette8, 0x10F, 0xFFFFFFFF},
                 {rgb, palette4, 1, 0xCD0000},
                 {rgb565, palette8, 16 + 36 * 5 + 6 * 1 + 2, 0xFAF0},
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
                 {0x18788898, yuv, 0x123456, 0xFF123456}};
    for (const auto &each : cases)
        EXPECT_EQ(kestal_convert_color(each.target, each.source, each.value), each.expected)
            << std::hex << each.target << " from " << each.source << ", " << each.value;
}

TEST(color, converts_between_any_two_rgb_formats_by_component)
{
    std::mt19937 random(1);
    const uint32_t named[] = {argb, padded, rgb, abgr, bgr, rgb565, rgb233};
    const auto any_format = [&] {
        uint32_t code = 0;
        for (uint32_t i = 0; i < 4; i++) {
            constexpr uint32_t components[] = {0, 1, 2, 3, 4, 5, 6, 10, 15};
            code = code << 8 | components[random() % std::size(components)] << 4 | static_cast<uint32_t>(random() % 9);
        }
        return code;
    };
    for (int round = 0; round < 20000; round++) {
        const uint32_t target = round % 3 == 0 ? any_format() : named[random() % std::size(named)];
        const uint32_t source = round % 5 == 0 ? any_format() : named[random() % std::size(named)];
        const uint32_t value = static_cast<uint32_t>(random());
        if (target == source || (target == rgb233 && source == rgb565))
            continue;
        ASSERT_EQ(kestal_convert_color(target, source, value), through_channels(target, source, value))
            << std::hex << target << " from " << source << ", " << value;
    }
    // Fields of more than 8 bits, and more bits than a value has, are cut and not shifted too far.
    EXPECT_EQ(kestal_convert_color(0x124A5A6A, argb, 0xFFFF8040), 0xFFC80100);
    EXPECT_EQ(kestal_convert_color(argb, 0x124A5A6A, 0xFFC80100), 0xC0FF8040u);
    EXPECT_EQ(kestal_convert_color(argb, 0x4F5F6F1F, 0xFFFFFFFF), 0xFF0000FFu);
}

TEST(color, rows_convert_as_single_colors_do)
{
    std::mt19937 random(2);
    const uint32_t formats[] = {argb, padded, rgb, abgr, bgr, rgb565, rgb233, palette8, yuv, 0x11455565};
    constexpr size_t most = 600, guard = 0x5A;
    std::vector<uint8_t> source(most * 4 + 1), target(most * 4 + 2);
    for (const uint32_t features : {kestal::processor::every_feature, 0u}) {
        kestal::processor::allow_only(features);
        for (const uint32_t to : formats) {
            for (const uint32_t from : formats) {
                const size_t to_size = kestal_color_interface_to_bits_per_pixel(to) / 8;
                const size_t from_size = kestal_color_interface_to_bits_per_pixel(from) / 8;
                for (const size_t count : {size_t{0}, size_t{1}, size_t{7}, size_t{33}, most}) {
                    for (uint8_t &byte : source)
                        byte = static_cast<uint8_t>(random());
                    std::fill(target.begin(), target.end(), guard);
                    ASSERT_TRUE(kestal::convert_color_row(to, &target[1], from, &source[1], count));
                    for (size_t i = 0; i < count; i++) {
                        const uint32_t value = kestal::load_pixel(&source[1 + i * from_size], from_size);
                        const uint32_t converted = kestal::load_pixel(&target[1 + i * to_size], to_size);
                        const uint32_t kept = static_cast<uint32_t>((uint64_t{1} << 8 * to_size) - 1);
                        ASSERT_EQ(converted, kestal_convert_color(to, from, value) & kept)
                            << std::hex << to << " from " << from << " at " << i << " of " << count;
                    }
                    EXPECT_EQ(target[0], guard);
                    EXPECT_EQ(target[1 + count * to_size], guard);
                }
            }
        }
    }
    kestal::processor::allow_only(kestal::processor::every_feature);
    EXPECT_FALSE(kestal::convert_color_row(argb, target.data(), palette4, source.data(), 1));
    EXPECT_FALSE(kestal::convert_color_row(grey1, target.data(), argb, source.data(), 1));
}

} // namespace
