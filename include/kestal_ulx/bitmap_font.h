/**
 * @file
 * The two built-in bitmap fonts and the look-up of glyphs: ASCII in 8 x 16 pixels, and Hangul in 16 x 16 pixels, whose
 * 11,172 syllables are composed of initial, medial and final letters in several shapes.
 *
 * A glyph has 1 bit per pixel, rows from top to bottom, 1 byte per row when 8 pixels wide and 2 bytes (left half first) when
 * 16; a byte's most significant bit is its leftmost pixel. The built-in glyphs are constant and live as long as the
 * library; any thread may look up at any time.
 */
#ifndef KESTAL_ULX_BITMAP_FONT_H
#define KESTAL_ULX_BITMAP_FONT_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** The bytes of the largest glyph, and so of a glyph buffer. */
#define KESTAL_BITMAP_FONT_GLYPH_SIZE 32
/** The bytes of a table of 8 x 16 ASCII glyphs: 128 of 16 bytes. */
#define KESTAL_BITMAP_FONT_8X16_EN_SIZE 2048
/** The bytes of a table of 16 x 16 Hangul glyphs: 344 of 32 bytes. */
#define KESTAL_BITMAP_FONT_16X16_KO_SIZE 11008

/**
 * The glyph of a code point. Its width and height in pixels are written through `width` and `height` where not null: 8 x 16
 * below code point 256, else 16 x 16.
 *
 * With a `buffer` (KESTAL_BITMAP_FONT_GLYPH_SIZE bytes) the glyph is copied there and the buffer returned; without one a
 * pointer into the table is returned. Syllables are composed and therefore need a buffer. `font` is a table of the
 * built-in tables' layout, of ASCII glyphs for code points below 128 and else of Hangul glyphs; null is the built-in one.
 *
 * Code points without glyph give a fixed one for unsupported characters, also with a caller's table: 128-255, compound
 * consonants, all other scripts, and syllables without a buffer. The 16 x 16 one is copied by its upper half only, so
 * clear the buffer before. Syllables whose final is the last one (hieuh) are drawn as without a final.
 */
KESTAL_API const uint8_t *kestal_get_bitmap_font(uint32_t *width, uint32_t *height, uint8_t *buffer,
                                                 const uint8_t *font, uint32_t code_point);

/** The built-in ASCII font: KESTAL_BITMAP_FONT_8X16_EN_SIZE bytes, the glyph of code point c at 16 c. */
KESTAL_API const uint8_t *kestal_get_default_bitmap_font_8x16_en_entry(void);

/**
 * The built-in Hangul font: KESTAL_BITMAP_FONT_16X16_KO_SIZE bytes. Glyphs 0-151 are initials (8 shapes of 19, shape by
 * shape), 152-235 medials (4 shapes of 21) and 236-343 finals (4 shapes of 27; the last two of each shape are hieuh,
 * which no syllable uses, and phieuph).
 */
KESTAL_API const uint8_t *kestal_get_default_bitmap_font_16x16_ko_entry(void);

KESTAL_END_DECLS

#endif
