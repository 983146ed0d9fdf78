#include <kestal_ulx/bitmap_font.h>

#include <string.h>

namespace {

// The glyph behind each font's last one is the sign for a character that the font has not.
constexpr size_t narrow_size = 16, wide_size = KESTAL_BITMAP_FONT_GLYPH_SIZE;
constexpr uint8_t ascii_font[KESTAL_BITMAP_FONT_8X16_EN_SIZE + narrow_size] = {
#include "bitmap_font_8x16_en.inc"
};
constexpr uint8_t hangul_font[KESTAL_BITMAP_FONT_16X16_KO_SIZE + wide_size] = {
#include "bitmap_font_16x16_ko.inc"
};
constexpr const uint8_t *unsupported_narrow = ascii_font + KESTAL_BITMAP_FONT_8X16_EN_SIZE;
constexpr const uint8_t *unsupported_wide = hangul_font + KESTAL_BITMAP_FONT_16X16_KO_SIZE;

constexpr uint32_t initial_count = 19, medial_count = 21, final_count = 27;
constexpr uint32_t first_medial = 8 * initial_count;
constexpr uint32_t first_final = first_medial + 4 * medial_count;
constexpr uint8_t none = 255;

constexpr uint32_t first_consonant = 0x3131, first_vowel = 0x314F, first_syllable = 0xAC00, last_syllable = 0xD7A3;

// By the letters' code points.
constexpr uint8_t initial_of_consonant[] = {0,    1,    none, 2,    none, none, 3,  4,  5,  none,
                                            none, none, none, none, none, none, 6,  7,  8,  none,
                                            9,    10,   11,   12,   13,   14,   15, 16, 17, 18};

// By the syllable's final. ㅍ has the glyph behind its own, and ㅎ has none: tables that callers bring are laid out so.
constexpr uint8_t glyph_of_final[] = {none, 0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                      13,   14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 26, none};

// By the medial: which shape leaves the room that it takes.
constexpr uint8_t initial_shape_over_final[] = {5, 5, 5, 5, 5, 5, 5, 5, 6, 7, 7, 7, 6, 6, 7, 7, 7, 6, 6, 7, 5};
constexpr uint8_t initial_shape_alone[] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 3, 3, 3, 1, 2, 4, 4, 4, 2, 1, 3, 0};
constexpr uint8_t final_shape[] = {0, 2, 0, 2, 1, 2, 1, 2, 3, 0, 2, 1, 3, 3, 1, 2, 1, 3, 3, 1, 1};

static_assert(sizeof initial_of_consonant == 30 && sizeof glyph_of_final == 28);
static_assert(sizeof initial_shape_over_final == medial_count && sizeof initial_shape_alone == medial_count &&
              sizeof final_shape == medial_count);

const uint8_t *hangul_glyph(const uint8_t *font, uint32_t index)
{
    return font + index * wide_size;
}

// ㄱ and ㅋ are open where a vowel begins: vowels have shapes of their own after them.
bool is_open(uint32_t initial)
{
    return initial == 0 || initial == 15;
}

// A glyph in the making, in as few words as hold it.
class laid_letters {
public:
    void lay(const uint8_t *glyph)
    {
        uint64_t letter[word_count];
        memcpy(letter, glyph, wide_size);
        for (size_t i = 0; i < word_count; i++)
            words_[i] |= letter[i];
    }

    const uint8_t *handed_out(uint8_t *buffer) const
    {
        return static_cast<uint8_t *>(memcpy(buffer, words_, wide_size));
    }

private:
    static constexpr size_t word_count = wide_size / sizeof(uint64_t);
    uint64_t words_[word_count] = {};
};

const uint8_t *compose(uint8_t *buffer, const uint8_t *font, uint32_t syllable)
{
    const uint32_t initial = syllable / (medial_count * 28);
    const uint32_t medial = syllable / 28 % medial_count;
    const uint32_t final = glyph_of_final[syllable % 28];
    const bool has_final = final != none;
    const uint32_t initial_shape = (has_final ? initial_shape_over_final : initial_shape_alone)[medial];
    const uint32_t medial_shape = (has_final ? 2u : 0u) + (is_open(initial) ? 0u : 1u);

    laid_letters letters;
    letters.lay(hangul_glyph(font, initial_shape * initial_count + initial));
    letters.lay(hangul_glyph(font, first_medial + medial_shape * medial_count + medial));
    if (has_final)
        letters.lay(hangul_glyph(font, first_final + final_shape[medial] * final_count + final));
    return letters.handed_out(buffer);
}

const uint8_t *handed_out(uint8_t *buffer, const uint8_t *glyph, size_t size)
{
    return buffer != nullptr ? static_cast<uint8_t *>(memcpy(buffer, glyph, size)) : glyph;
}

const uint8_t *wide_glyph(uint8_t *buffer, const uint8_t *font, uint32_t code_point)
{
    if (code_point >= first_consonant && code_point < first_vowel) {
        const uint8_t initial = initial_of_consonant[code_point - first_consonant];
        if (initial != none)
            return handed_out(buffer, hangul_glyph(font, initial), wide_size);
    }
    if (code_point >= first_vowel && code_point < first_vowel + medial_count)
        return handed_out(buffer, hangul_glyph(font, first_medial + code_point - first_vowel), wide_size);
    if (code_point >= first_syllable && code_point <= last_syllable && buffer != nullptr)
        return compose(buffer, font, code_point - first_syllable);
    // Copies the upper half only: callers rely on what they keep in the lower half.
    return handed_out(buffer, unsupported_wide, wide_size / 2);
}

} // namespace

const uint8_t *kestal_get_bitmap_font(uint32_t *width, uint32_t *height, uint8_t *buffer, const uint8_t *font,
                                      uint32_t code_point)
{
    const bool narrow = code_point < 256;
    if (width != nullptr)
        *width = narrow ? 8 : 16;
    if (height != nullptr)
        *height = 16;
    if (!narrow)
        return wide_glyph(buffer, font != nullptr ? font : hangul_font, code_point);
    if (code_point >= 128)
        return handed_out(buffer, unsupported_narrow, narrow_size);
    return handed_out(buffer, (font != nullptr ? font : ascii_font) + code_point * narrow_size, narrow_size);
}

const uint8_t *kestal_get_default_bitmap_font_8x16_en_entry(void)
{
    return ascii_font;
}

const uint8_t *kestal_get_default_bitmap_font_16x16_ko_entry(void)
{
    return hangul_font;
}
