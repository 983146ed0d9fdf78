#include "support.hpp"

#include <array>
#include <cstring>

namespace {

using glyph = std::array<uint8_t, KESTAL_BITMAP_FONT_GLYPH_SIZE>;

constexpr uint32_t first_syllable = 0xAC00, last_syllable = 0xD7A3, none = UINT32_MAX;
constexpr uint8_t untouched = 0xEE;

glyph looked_up(uint32_t code_point, const uint8_t *font = nullptr)
{
    glyph buffer;
    buffer.fill(untouched);
    EXPECT_EQ(kestal_get_bitmap_font(nullptr, nullptr, buffer.data(), font, code_point), buffer.data());
    return buffer;
}

// A table of Hangul whose glyphs tell their places in it, each group in a byte of its own: a syllable composed of them
// shows of which.
std::vector<uint8_t> telling_table()
{
    std::vector<uint8_t> table(KESTAL_BITMAP_FONT_16X16_KO_SIZE);
    for (uint32_t i = 0; i < 344; i++) {
        const auto [begin, byte] = i < 152 ? std::pair{0u, 0u} : i < 236 ? std::pair{152u, 1u} : std::pair{235u, 31u};
        table[i * 32 + byte] = static_cast<uint8_t>(i - begin);
    }
    return table;
}

const uint8_t *pointed_to(uint32_t code_point, const uint8_t *font = nullptr)
{
    uint32_t width = 0, height = 0;
    const uint8_t *bits = kestal_get_bitmap_font(&width, &height, nullptr, font, code_point);
    EXPECT_EQ(width, code_point < 256 ? 8u : 16u);
    EXPECT_EQ(height, 16u);
    return bits;
}

// Whether sixteen bytes are copied, and no more.
bool is_half_copied(uint32_t code_point)
{
    const glyph copied = looked_up(code_point);
    return std::memcmp(copied.data(), pointed_to(code_point), 16) == 0 && copied[16] == untouched;
}

TEST(bitmap_font, ascii_glyphs_are_copied_or_pointed_to)
{
    const uint8_t *font = kestal_get_default_bitmap_font_8x16_en_entry();
    const std::vector<uint8_t> own(KESTAL_BITMAP_FONT_8X16_EN_SIZE, 0x55);
    EXPECT_EQ(pointed_to('A'), font + 'A' * 16);
    EXPECT_EQ(pointed_to(127, own.data()), own.data() + 127 * 16);
    EXPECT_EQ(pointed_to(200, own.data()), pointed_to(128)); // above ASCII the one unsupported sign, whatever the table
    EXPECT_TRUE(is_half_copied('A') && is_half_copied(255));
}

TEST(bitmap_font, letters_of_hangul_have_glyphs_of_their_own)
{
    const uint8_t *font = kestal_get_default_bitmap_font_16x16_ko_entry();
    for (const auto &[letter, place] :
         {std::pair{U'ㄱ', 0}, {U'ㄲ', 1}, {U'ㅁ', 6}, {U'ㅎ', 18}, {U'ㅏ', 152}, {U'ㅣ', 172}})
        EXPECT_EQ(pointed_to(letter), font + place * 32) << place;
    EXPECT_EQ(looked_up(U'ㅎ', telling_table().data())[0], 18);

    // Compound consonants, what lies around the letters, and a syllable without a buffer are unsupported.
    for (const uint32_t code_point : {256u, 0x3130u, 0x3140u, 0x3164u, 0xABFFu, first_syllable, last_syllable, 0xD7A4u})
        EXPECT_EQ(pointed_to(code_point), pointed_to(U'ㄳ')) << code_point;
    EXPECT_TRUE(is_half_copied(U'漢'));
}

TEST(bitmap_font, syllables_are_composed_of_shapes_that_fit)
{
    const std::vector<uint8_t> table = telling_table();
    const struct {
        uint32_t code_point, initial_shape, initial, medial_shape, medial, final_shape, final;
    } cases[] = {
        {U'가', 0, 0, 0, 0, 0, none},   {U'코', 1, 15, 0, 8, 0, none},  {U'우', 2, 11, 1, 13, 0, none},
        {U'왜', 3, 11, 1, 10, 0, none}, {U'위', 4, 11, 1, 16, 0, none}, {U'한', 5, 18, 3, 0, 0, 3},
        {U'백', 5, 7, 3, 1, 2, 0},      {U'정', 5, 12, 3, 4, 1, 20},    {U'글', 6, 0, 2, 18, 3, 7},
        {U'뷁', 7, 7, 3, 15, 2, 8},     {U'앞', 5, 11, 3, 0, 0, 26},    {last_syllable, 0, 18, 1, 20, 0, none}};
    for (const auto &each : cases) {
        const glyph shown = looked_up(each.code_point, table.data());
        EXPECT_EQ(shown[0], each.initial_shape * 19 + each.initial) << std::hex << each.code_point;
        EXPECT_EQ(shown[1], each.medial_shape * 21 + each.medial) << std::hex << each.code_point;
        EXPECT_EQ(shown[31], each.final == none ? 0 : each.final_shape * 27 + each.final + 1)
            << std::hex << each.code_point;
    }
}

} // namespace
