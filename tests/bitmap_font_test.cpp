#include "support.hpp"

#include <array>
#include <cstring>
#include <set>

namespace {

using glyph = std::array<uint8_t, KESTAL_BITMAP_FONT_GLYPH_SIZE>;

constexpr uint32_t first_syllable = 0xAC00, last_syllable = 0xD7A3;

glyph looked_up(uint32_t code_point, const uint8_t *font = nullptr)
{
    glyph buffer{};
    EXPECT_EQ(kestal_get_bitmap_font(nullptr, nullptr, buffer.data(), font, code_point), buffer.data());
    return buffer;
}

// A table of Hangul whose glyphs tell their places in it, each group in a byte of its own: a syllable composed of them
// shows of which.
std::vector<uint8_t> telling_table()
{
    std::vector<uint8_t> table(KESTAL_BITMAP_FONT_16X16_KO_SIZE);
    for (uint32_t i = 0; i < 152; i++)
        table[i * 32] = static_cast<uint8_t>(i);
    for (uint32_t i = 0; i < 84; i++)
        table[(152 + i) * 32 + 1] = static_cast<uint8_t>(i);
    for (uint32_t i = 0; i < 108; i++)
        table[(236 + i) * 32 + 31] = static_cast<uint8_t>(i + 1);
    return table;
}

TEST(bitmap_font, sizes_are_told_by_code_point)
{
    for (const uint32_t code_point : {0u, 65u, 127u, 128u, 255u, 256u, 0x3131u, 0xAC00u, 0x1F600u, UINT32_MAX}) {
        uint32_t width = 0, height = 0;
        EXPECT_NE(kestal_get_bitmap_font(&width, &height, nullptr, nullptr, code_point), nullptr);
        EXPECT_EQ(width, code_point < 256 ? 8u : 16u) << code_point;
        EXPECT_EQ(height, 16u);
    }
}

TEST(bitmap_font, ascii_glyphs_are_copied_or_pointed_to)
{
    const uint8_t *font = kestal_get_default_bitmap_font_8x16_en_entry();
    EXPECT_EQ(kestal_get_bitmap_font(nullptr, nullptr, nullptr, nullptr, 'A'), font + 'A' * 16);
    glyph buffer;
    buffer.fill(0xEE);
    kestal_get_bitmap_font(nullptr, nullptr, buffer.data(), nullptr, 'A');
    EXPECT_EQ(std::memcmp(buffer.data(), font + 'A' * 16, 16), 0);
    EXPECT_EQ(buffer[16], 0xEE);
    const std::vector<uint8_t> own(KESTAL_BITMAP_FONT_8X16_EN_SIZE, 0x55);
    EXPECT_EQ(kestal_get_bitmap_font(nullptr, nullptr, nullptr, own.data(), 127), own.data() + 127 * 16);

    // Above ASCII all are the one unsupported sign, whatever the table.
    const uint8_t *unsupported = kestal_get_bitmap_font(nullptr, nullptr, nullptr, nullptr, 128);
    EXPECT_EQ(kestal_get_bitmap_font(nullptr, nullptr, nullptr, own.data(), 200), unsupported);
    EXPECT_EQ(std::memcmp(looked_up(255, own.data()).data(), unsupported, 16), 0);

    std::set<std::string> shapes;
    for (uint32_t code_point = 0x20; code_point < 0x7F; code_point++)
        shapes.emplace(reinterpret_cast<const char *>(font + code_point * 16), 16);
    EXPECT_EQ(shapes.size(), 95u);
}

TEST(bitmap_font, letters_of_hangul_have_glyphs_of_their_own)
{
    const uint8_t *font = kestal_get_default_bitmap_font_16x16_ko_entry();
    const auto pointed_to = [&](uint32_t code_point) {
        return kestal_get_bitmap_font(nullptr, nullptr, nullptr, nullptr, code_point);
    };
    EXPECT_EQ(pointed_to(0x3131), font);
    EXPECT_EQ(pointed_to(0x3132), font + 32);
    EXPECT_EQ(pointed_to(0x3141), font + 6 * 32);
    EXPECT_EQ(pointed_to(0x314E), font + 18 * 32);
    EXPECT_EQ(pointed_to(0x314F), font + 152 * 32);
    EXPECT_EQ(pointed_to(0x3163), font + 172 * 32);
    EXPECT_EQ(std::memcmp(looked_up(0x3163).data(), font + 172 * 32, 32), 0);
    EXPECT_EQ(looked_up(0x3131, telling_table().data())[0], 0);
    EXPECT_EQ(looked_up(0x314E, telling_table().data())[0], 18);

    // Compound consonants, what lies around the letters, and a syllable without a buffer are unsupported.
    const uint8_t *unsupported = pointed_to(0x3133);
    for (const uint32_t code_point : {256u, 0x3130u, 0x3140u, 0x3164u, 0xABFFu, first_syllable, last_syllable, 0xD7A4u})
        EXPECT_EQ(pointed_to(code_point), unsupported) << code_point;
    glyph buffer;
    buffer.fill(0xEE);
    kestal_get_bitmap_font(nullptr, nullptr, buffer.data(), nullptr, 0x4E00);
    EXPECT_EQ(std::memcmp(buffer.data(), unsupported, 16), 0);
    EXPECT_EQ(buffer[16], 0xEE) << "copied by its upper half only";
}

TEST(bitmap_font, syllables_are_composed_of_shapes_that_fit)
{
    const std::vector<uint8_t> table = telling_table();
    const struct {
        uint32_t code_point, initial_shape, initial, medial_shape, medial, final_shape, final; // final -1: none
    } cases[] = {
        {0xAC00, 0, 0, 0, 0, 0, UINT32_MAX},   // ga
        {0xB098, 0, 2, 1, 0, 0, UINT32_MAX},   // na
        {0xCF54, 1, 15, 0, 8, 0, UINT32_MAX},  // ko
        {0xADF8, 1, 0, 0, 18, 0, UINT32_MAX},  // geu
        {0xC6B0, 2, 11, 1, 13, 0, UINT32_MAX}, // u
        {0xC65C, 3, 11, 1, 10, 0, UINT32_MAX}, // wae
        {0xC704, 4, 11, 1, 16, 0, UINT32_MAX}, // wi
        {0xD55C, 5, 18, 3, 0, 0, 3},           // han
        {0xAC12, 5, 0, 2, 0, 0, 17},           // gap, bieup and siot
        {0xBC31, 5, 7, 3, 1, 2, 0},            // baek
        {0xC815, 5, 12, 3, 4, 1, 20},          // jeong
        {0xAE00, 6, 0, 2, 18, 3, 7},           // geul
        {0xAD75, 6, 0, 2, 13, 3, 8},           // gulg, rieul and giyeok
        {0xBDC1, 7, 7, 3, 15, 2, 8},           // bwelg
        {0xC6D0, 7, 11, 3, 14, 1, 3},          // won
        {0xAD11, 7, 0, 2, 9, 0, 20},           // gwang
        {0xC549, 5, 11, 3, 0, 0, 4},           // anj
        {0xBC2D, 5, 7, 3, 0, 0, 24},           // bat
        {0xC55E, 5, 11, 3, 0, 0, 26},          // ap: the glyph behind its own
        {0xC88B, 1, 12, 1, 8, 0, UINT32_MAX},  // joh: as without a final
        {last_syllable, 0, 18, 1, 20, 0, UINT32_MAX},
    };
    for (const auto &each : cases) {
        glyph buffer;
        buffer.fill(0xEE);
        kestal_get_bitmap_font(nullptr, nullptr, buffer.data(), table.data(), each.code_point);
        EXPECT_EQ(buffer[0], each.initial_shape * 19 + each.initial) << std::hex << each.code_point;
        EXPECT_EQ(buffer[1], each.medial_shape * 21 + each.medial) << std::hex << each.code_point;
        EXPECT_EQ(buffer[31], each.final == UINT32_MAX ? 0 : each.final_shape * 27 + each.final + 1)
            << std::hex << each.code_point;
    }
}

} // namespace
