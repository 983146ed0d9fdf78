/**
 * @file
 * Copies of boxes from a frame-buffer map to any bitmap and back, at the same size and scaled, at 8, 16, 24 and 32 bits
 * per pixel; another depth reports "not supported". Colours are converted where the formats differ. Parts outside the map
 * or the bitmap are left out, the rest stays in its place. The bitmaps belong to the caller; every call holds the lock of
 * all maps.
 *
 * Blending looks at the map's settings, and does the same at every depth:
 *  - colour key: pixels equal to the key are not copied;
 *  - window alpha: the map's pixels are laid over the target's with the map's value (255: nothing shines through);
 *  - per-pixel alpha: the same with each pixel's own alpha; with both, the two multiply.
 *
 * A channel becomes (source x alpha + target x (255 - alpha)) / 255, rounded: the target counts as opaque, as a screen is.
 * Where pixels have their own alpha, a target's alpha channel becomes that of one over the other. Palette indexes and
 * single grey bits cannot be mixed: they are copied where alpha is 128 or more.
 *
 * With alpha transfer off, what is copied is opaque in the target, with blending and without.
 */
#ifndef KESTAL_ULX_FBMAP_GET_H
#define KESTAL_ULX_FBMAP_GET_H

#include <kestal_ulx/fbmap_record.h>

KESTAL_BEGIN_DECLS

/* Null maps report "s_fbmap is null !". Failure, -1, is also: nothing left to copy, no pixels, an unserved depth. */

/**
 * Copies a rectangle of the map (null: all of it) to (x, y) in the target, blended when `blend` is 1. A null target is the
 * map's own pixels, and the source then its composite buffer: the last step of composing a root. 0 / -1.
 */
KESTAL_API int32_t kestal_fbmap_get_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target, int32_t x, int32_t y,
                                        const kestal_rectangle_t *rectangle, uint32_t blend);

/**
 * Copies a rectangle of the source (null: all of it) to (x, y) in the map; a shown map notes it for its next update. The
 * source may be the map's own m_bitmap, also where the two boxes overlap, as in scrolling. 0 / -1.
 */
KESTAL_API int32_t kestal_fbmap_set_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *source, int32_t x, int32_t y,
                                        const kestal_rectangle_t *rectangle);

/**
 * As kestal_fbmap_get_box, with the rectangle of the map stretched or shrunk to a rectangle of the target (null: all of
 * it), each pixel from the nearest one as in kestal_copy_raw_bitmap_scale. A null target is a failure. 0 / -1.
 */
KESTAL_API int32_t kestal_fbmap_get_scale_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target,
                                              const kestal_rectangle_t *target_rectangle,
                                              const kestal_rectangle_t *rectangle, uint32_t blend);

/** As kestal_fbmap_set_box, stretching a rectangle of the source (null: all of it) to a rectangle of the map (null: all). */
KESTAL_API int32_t kestal_fbmap_set_scale_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *source,
                                              const kestal_rectangle_t *rectangle,
                                              const kestal_rectangle_t *source_rectangle);

/** Copies the box of the map at (x, y), without blending, to the target's upper left corner. 0 / -1. */
KESTAL_API int32_t kestal_fbmap_get_pixel(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target, int32_t x, int32_t y,
                                          uint32_t width, uint32_t height);

KESTAL_END_DECLS

#endif
