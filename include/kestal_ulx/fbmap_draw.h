/**
 * @file
 * Drawing into a frame-buffer map's own pixels: pixels, lines, boxes, circles and floods, at 8, 16, 24 and 32 bits per
 * pixel; another depth reports "not supported" and gives -1. Text stands in fbmap_text.h, patterns in fbmap_pattern.h.
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

KESTAL_END_DECLS

#endif
