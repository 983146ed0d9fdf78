#include "support.hpp"

#include <array>
#include <cstring>

namespace {

using glyph = std::array<uint8_t, KESTAL_BITMAP_FONT_GLYPH_SIZE>;

constexpr uint32_t first_syllable = 0xAC00, last_syllable = 0xD7A3;
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
        std::u32string medials;
        uint32_t initial_shape, initial_shape_over_final, final_shape;
    } groups[] = {{U"ㅏㅑ", 0, 5, 0}, {U"ㅓㅕㅣ", 0, 5, 1}, {U"ㅐㅒㅔㅖ", 0, 5, 2}, {U"ㅗㅛㅡ", 1, 6, 3},
                  {U"ㅜㅠ", 2, 6, 3}, {U"ㅘ", 3, 7, 0},     {U"ㅚㅢ", 3, 7, 1},     {U"ㅙ", 3, 7, 2},
                  {U"ㅝㅟ", 4, 7, 1}, {U"ㅞ", 4, 7, 2}};
    for (const auto &group : groups)
        for (const char32_t letter : group.medials) {
            const uint32_t medial = letter - U'ㅏ', open = U'아' + 28 * medial, closed = open + 4; // with ㄴ
            EXPECT_EQ(looked_up(open, table.data())[0], group.initial_shape * 19 + 11) << medial;
            EXPECT_EQ(looked_up(closed, table.data())[0], group.initial_shape_over_final * 19 + 11) << medial;
            EXPECT_EQ(looked_up(closed, table.data())[1], 3 * 21 + medial);
            EXPECT_EQ(looked_up(closed, table.data())[31], group.final_shape * 27 + 4) << medial;
        }
    EXPECT_EQ(looked_up(U'가', table.data())[1], 0); // after ㄱ and ㅋ vowels have shapes of their own
    EXPECT_EQ(looked_up(U'칸', table.data())[1], 2 * 21);
    EXPECT_EQ(looked_up(U'앞', table.data())[31], 27); // at the end ㅍ has the glyph behind its own, and ㅎ none
    EXPECT_EQ(looked_up(last_syllable, table.data())[31], 0);
}

} // namespace
