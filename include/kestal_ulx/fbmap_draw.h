/**
 * @file
 * Drawing into a frame-buffer map's own pixels: pixels, lines, boxes, circles, floods, text with the map's brush, and two
 * test patterns, at 8, 16, 24 and 32 bits per pixel; another depth reports "not supported" and gives -1.
 *
 * Coordinates are pixels of the map, and may lie anywhere: what is outside the map is left out. Colours are in the map's
 * format; kestal_fbmap_convert_color brings others there. Nothing reaches the display: a shown map notes what was drawn,
 * and kestal_fbmap_update shows it. Every call holds the lock of all maps. 0 is success; -1 is that nothing was drawn: all
 * of it lies outside, the map has no pixels, or it is null ("s_fbmap is null !" is reported).
 */
#ifndef KESTAL_ULX_FBMAP_DRAW_H
#define KESTAL_ULX_FBMAP_DRAW_H

#include <kestal_ulx/fbmap_record.h>

KESTAL_BEGIN_DECLS

/** The colour of the format `source` in the format `target`, by the map's operation; a null map converts too. */
KESTAL_API uint32_t kestal_fbmap_convert_color(kestal_fbmap_t *map, uint32_t target, uint32_t source, uint32_t color);

/** Fills the whole map. */
KESTAL_API int32_t kestal_fbmap_draw_clear(kestal_fbmap_t *map, uint32_t color);

/** Draws one pixel. */
KESTAL_API int32_t kestal_fbmap_draw_pixel(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y);

/** Draws `length` pixels from (x, y) to the right. */
KESTAL_API int32_t kestal_fbmap_draw_hline(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t length);

/** Draws `length` pixels from (x, y) downwards. */
KESTAL_API int32_t kestal_fbmap_draw_vline(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t length);

/** Draws a box with its upper left corner at (x, y): filled, or with `fill` 0 its border of one pixel. */
KESTAL_API int32_t kestal_fbmap_draw_box(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t width,
                                         uint32_t height, uint32_t fill);

/** Draws a line, both ends included. It is clipped to the map first, at whole pixels. */
KESTAL_API int32_t kestal_fbmap_draw_line(kestal_fbmap_t *map, uint32_t color, int32_t x1, int32_t y1, int32_t x2,
                                          int32_t y2);

/** Draws a circle around (x, y), filled or its outline; a radius of 0 is one pixel. */
KESTAL_API int32_t kestal_fbmap_draw_circle(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t radius,
                                            uint32_t fill);

/**
 * Floods: gives the pixel (x, y), which must be in the map, and all of its colour that join it left, right, above or
 * below, the new colour. 0 also when it has that colour already. -1 also when memory runs out; part is then flooded.
 */
KESTAL_API int32_t kestal_fbmap_draw_fill(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y);

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

/**
 * Draws a ruler into the box at (x, y): a cross at its centre, lines inset by the margins with ticks every 5 pixels and
 * numbers every 50, their diagonals, and a circle around the centre of the map. The brush is set for the numbers and stays
 * so. -1 when the width or height is 0.
 */
KESTAL_API int32_t kestal_fbmap_draw_ruler(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t width,
                                           uint32_t height, uint32_t x_margin, uint32_t y_margin);

/**
 * Draws a colour bar of the given alpha (0 to 255) into the box at (x, y): seven vertical bars, white, yellow, cyan, green,
 * magenta, red, blue; in mode 1 with two rows more below them. -1 when the width or height is 0.
 */
KESTAL_API int32_t kestal_fbmap_draw_color_bar(kestal_fbmap_t *map, uint32_t mode, uint32_t alpha, int32_t x, int32_t y,
                                               uint32_t width, uint32_t height);

KESTAL_END_DECLS

#endif
