/**
 * @file
 * Two test patterns for displays, drawn into a frame-buffer map as any other drawing (fbmap_draw.h): a ruler, which shows
 * size, edges and geometry, and a colour bar. Every call holds the lock of all maps; a null map reports "s_fbmap is null !".
 */
#ifndef KESTAL_ULX_FBMAP_PATTERN_H
#define KESTAL_ULX_FBMAP_PATTERN_H

#include <kestal_ulx/fbmap_record.h>

KESTAL_BEGIN_DECLS

/**
 * Draws a ruler into the box at (x, y): a cross at its centre, lines inset by the margins with ticks every 5 pixels and
 * numbers every 50, their diagonals, and a circle. The circle's centre is (width / 2, height / 2) of the map, wherever
 * the box is. The brush is set for the numbers and stays so. -1 when the width or height is 0.
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
