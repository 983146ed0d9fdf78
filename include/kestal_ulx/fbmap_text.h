/**
 * @file
 * Text in a frame-buffer map, drawn with the map's brush (fbmap.h) and the fonts of bitmap_font.h: ASCII in cells of 8 x 16
 * pixels, Hangul in 16 x 16.
 *
 * A character's cell is its glyph and the brush's intervals, 2 pixels more each way with an outline. The cursor moves in
 * pixels before scaling; a position p becomes p x numerator / denominator from the brush's origin, which is not scaled
 * itself. What is drawn, in this order: the cell in the background colour, the glyph's outline, the glyph. With an angle
 * all of it turns around the origin, each pixel of the map taking what lies there turned back, so that nothing gets
 * holes; lines wrap as if there were none. As in all drawing, a shown map notes what changed, and every call holds the
 * lock of all maps.
 */
#ifndef KESTAL_ULX_FBMAP_TEXT_H
#define KESTAL_ULX_FBMAP_TEXT_H

#include <kestal_ulx/fbmap_record.h>

KESTAL_BEGIN_DECLS

/**
 * Draws a UTF-8 text with the map's brush at its cursor, which moves on. Lines that reach the map's right edge wrap. A line
 * feed starts a new line, a carriage return goes to the line's begin, a backspace goes 8 pixels (and the interval) back.
 * Returns the number of characters processed; malformed UTF-8 ends the text. 0 for a null map.
 */
KESTAL_API int32_t kestal_fbmap_draw_puts(kestal_fbmap_t *map, const char *text);

/** Formats (format.h) and draws as kestal_fbmap_draw_puts. 0 when memory is short. The list is used up. */
KESTAL_API int32_t kestal_fbmap_draw_vprintf(kestal_fbmap_t *map, const char *format, va_list list);

/** kestal_fbmap_draw_vprintf with the arguments themselves. */
KESTAL_API int32_t kestal_fbmap_draw_printf(kestal_fbmap_t *map, const char *format, ...);

KESTAL_END_DECLS

#endif
