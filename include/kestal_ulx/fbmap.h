/**
 * @file
 * Frame-buffer maps: rectangular surfaces of pixels in a tree. The root lies over the memory of a display; every other map
 * is a window at a place in its parent, with pixels of its own, in front of its parent and of the siblings that follow it.
 *
 * Drawing (fbmap_draw.h) changes a map's own pixels; kestal_fbmap_update (fbmap_update.h) then brings what changed onto the
 * display. A map belongs to whoever made it and ends with kestal_free_fbmap, its children with it. Every call holds the
 * lock of all maps (fbmap_record.h); a null map reports "s_fbmap is null !" and gives -1, or null.
 *
 *     kestal_fbmap_t *window = kestal_new_fbmap(root, KESTAL_FBMAP_OWN_MEMORY, 0, 10, 10, 200, 100, 1, "window");
 *     kestal_fbmap_draw_clear(window, 0xFF000080u);
 *     kestal_fbmap_update(window);
 */
#ifndef KESTAL_ULX_FBMAP_H
#define KESTAL_ULX_FBMAP_H

#include <kestal_ulx/fbmap_record.h>

KESTAL_BEGIN_DECLS

/**
 * Makes a map in the caller's memory, which must not move while the map lives, and returns it: in front of the parent's
 * other children unless the flags say otherwise, at (x, y) in the parent. Without a parent it is a root. A colour
 * interface, width or height of 0 is the parent's. The name is formatted (format.h); a null format is no name.
 *
 * With KESTAL_FBMAP_OWN_MEMORY the pixels are allocated, all 0; else the caller sets m_bitmap.m_pixels (and the line
 * length and size, where they are not width x bits / 8 and line length x height). A map that is not created hidden counts
 * as shown, but appears only when it is drawn into and updated.
 *
 * Null, with nothing left behind, when the name ("kestal_unlikely(s_name != ((char *)0))" is reported) or the pixels
 * ("s_fbmap->m_map is null !") find no memory.
 */
KESTAL_API kestal_fbmap_t *kestal_init_fbmap(kestal_fbmap_t *map, kestal_fbmap_t *parent, uint32_t flags,
                                             uint32_t color_interface, int32_t x, int32_t y, uint32_t width,
                                             uint32_t height, uint32_t identifier, const char *format, ...);

/** kestal_init_fbmap with an argument list, which is used up. */
KESTAL_API kestal_fbmap_t *kestal_init_fbmap_v(kestal_fbmap_t *map, kestal_fbmap_t *parent, uint32_t flags,
                                               uint32_t color_interface, int32_t x, int32_t y, uint32_t width,
                                               uint32_t height, uint32_t identifier, const char *format, va_list list);

/** kestal_init_fbmap in a new record, which kestal_free_fbmap releases. */
KESTAL_API kestal_fbmap_t *kestal_new_fbmap(kestal_fbmap_t *parent, uint32_t flags, uint32_t color_interface, int32_t x,
                                            int32_t y, uint32_t width, uint32_t height, uint32_t identifier,
                                            const char *format, ...);

/** kestal_new_fbmap with an argument list, which is used up. */
KESTAL_API kestal_fbmap_t *kestal_new_fbmap_v(kestal_fbmap_t *parent, uint32_t flags, uint32_t color_interface,
                                              int32_t x, int32_t y, uint32_t width, uint32_t height,
                                              uint32_t identifier, const char *format, va_list list);

/**
 * Ends a map: frees its children, hides it unless KESTAL_FBMAP_KEEP_VISIBLE, takes it out of its parent, and releases its
 * name, its composite buffer and the pixels that it owns. The record stays. Returns 0, or -1 when it is no living map.
 */
KESTAL_API int32_t kestal_destroy_fbmap(kestal_fbmap_t *map);

/** kestal_destroy_fbmap, and releases the record if kestal_new_fbmap made it. Returns null. */
KESTAL_API kestal_fbmap_t *kestal_free_fbmap(kestal_fbmap_t *map);

/**
 * The first map of that identifier and name among `first`, the siblings behind it, and all that lies below each, depth
 * first. A null name finds maps without a name. Null when there is none.
 */
KESTAL_API kestal_fbmap_t *kestal_fbmap_search(kestal_fbmap_t *first, uint32_t identifier, const char *name);

/* How a map appears. Each call redraws the whole map, if it is shown, and returns 0 or -1. What the settings do to the
 * pixels stands in fbmap_get.h. */

/** Uses the colour key, or not. */
KESTAL_API int32_t kestal_fbmap_use_ccolor(kestal_fbmap_t *map, uint32_t on);

/** Sets the colour key, in the map's format. */
KESTAL_API int32_t kestal_fbmap_set_ccolor(kestal_fbmap_t *map, uint32_t color);

/** Uses the window alpha, or not. */
KESTAL_API int32_t kestal_fbmap_use_alpha_window(kestal_fbmap_t *map, uint32_t on);

/** Sets the window alpha: 0 (not seen) to 255 (opaque); more is as 255. */
KESTAL_API int32_t kestal_fbmap_set_alpha_window(kestal_fbmap_t *map, uint32_t value);

/** Uses the alpha of each pixel, or not. */
KESTAL_API int32_t kestal_fbmap_use_alpha_pixel(kestal_fbmap_t *map, uint32_t on);

/** Hands the alpha channel on in copies, as at first, or not: then what is copied is opaque. */
KESTAL_API int32_t kestal_fbmap_use_alpha_transfer(kestal_fbmap_t *map, uint32_t on);

/* The brush: how text is drawn from now on. Nothing is redrawn. Each call returns 0, or -1 for a null map. */

/** Sets the colour of glyphs, in the map's format. */
KESTAL_API int32_t kestal_fbmap_set_brush_fcolor(kestal_fbmap_t *map, uint32_t color);

/** Sets the colour behind characters. */
KESTAL_API int32_t kestal_fbmap_set_brush_bcolor(kestal_fbmap_t *map, uint32_t color);

/** Sets the colour of outlines. */
KESTAL_API int32_t kestal_fbmap_set_brush_ocolor(kestal_fbmap_t *map, uint32_t color);

/** Sets the colours of glyphs, behind characters, and of outlines. */
KESTAL_API int32_t kestal_fbmap_set_brush_color(kestal_fbmap_t *map, uint32_t fcolor, uint32_t bcolor, uint32_t ocolor);

/** Draws glyphs, or not. At first nothing is drawn. */
KESTAL_API int32_t kestal_fbmap_use_brush_fcolor(kestal_fbmap_t *map, uint32_t on);

/** Fills the cell behind each character, or not. */
KESTAL_API int32_t kestal_fbmap_use_brush_bcolor(kestal_fbmap_t *map, uint32_t on);

/** Outlines glyphs, or not. */
KESTAL_API int32_t kestal_fbmap_use_brush_ocolor(kestal_fbmap_t *map, uint32_t on);

/** Draws glyphs, cells and outlines, or not, each. */
KESTAL_API int32_t kestal_fbmap_use_brush_color(kestal_fbmap_t *map, uint32_t fcolor_on, uint32_t bcolor_on,
                                                uint32_t ocolor_on);

/** Draws text `numerator` / `denominator` times as wide as its font. A denominator of 0 counts as 1. */
KESTAL_API int32_t kestal_fbmap_set_brush_x_scale(kestal_fbmap_t *map, uint32_t numerator, uint32_t denominator);

/** Draws text `numerator` / `denominator` times as high as its font. A denominator of 0 counts as 1. */
KESTAL_API int32_t kestal_fbmap_set_brush_y_scale(kestal_fbmap_t *map, uint32_t numerator, uint32_t denominator);

/** Sets both scales. */
KESTAL_API int32_t kestal_fbmap_set_brush_xy_scale(kestal_fbmap_t *map, uint32_t x_numerator, uint32_t x_denominator,
                                                   uint32_t y_numerator, uint32_t y_denominator);

/** Sets the pixels left between characters. */
KESTAL_API int32_t kestal_fbmap_set_brush_x_interval(kestal_fbmap_t *map, int32_t interval);

/** Sets the pixels left between lines. */
KESTAL_API int32_t kestal_fbmap_set_brush_y_interval(kestal_fbmap_t *map, int32_t interval);

/** Sets both intervals. */
KESTAL_API int32_t kestal_fbmap_set_brush_xy_interval(kestal_fbmap_t *map, int32_t x_interval, int32_t y_interval);

/** Turns text around the brush's origin by an angle in degrees, clockwise. */
KESTAL_API int32_t kestal_fbmap_set_brush_angle(kestal_fbmap_t *map, int32_t angle);

/** Sets the origin's x, in the map, and the cursor's x to 0. */
KESTAL_API int32_t kestal_fbmap_set_brush_x(kestal_fbmap_t *map, int32_t x);

/** Sets the origin's y, in the map, and the cursor's y to 0. */
KESTAL_API int32_t kestal_fbmap_set_brush_y(kestal_fbmap_t *map, int32_t y);

/** Sets the origin, in the map, and the cursor to (0, 0). */
KESTAL_API int32_t kestal_fbmap_set_brush_xy(kestal_fbmap_t *map, int32_t x, int32_t y);

/** Sets the cursor's x: where the next character goes, from the origin on, before scaling. */
KESTAL_API int32_t kestal_fbmap_set_brush_x_delta(kestal_fbmap_t *map, int32_t x);

/** Sets the cursor's y. */
KESTAL_API int32_t kestal_fbmap_set_brush_y_delta(kestal_fbmap_t *map, int32_t y);

/** Sets the cursor. */
KESTAL_API int32_t kestal_fbmap_set_brush_xy_delta(kestal_fbmap_t *map, int32_t x, int32_t y);

KESTAL_END_DECLS

#endif
