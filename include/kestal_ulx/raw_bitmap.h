/**
 * @file
 * Raw bitmaps: a descriptor of pixels in the caller's memory, and copies between two of them with conversion of the
 * colours (color.h) and with scaling. A frame-buffer map carries such a descriptor of its own pixels.
 *
 * The calls keep nothing and change nothing but the target's pixels: threads that copy into one bitmap, or change the
 * bitmap copied from, agree among themselves. Pixels of 8, 16, 24 and 32 bits are served, 16 and 32 bits in the machine's
 * byte order, 24 bits as three bytes from the least significant on; every other depth reports "not supported".
 */
#ifndef KESTAL_ULX_RAW_BITMAP_H
#define KESTAL_ULX_RAW_BITMAP_H

#include <kestal_ulx/geometry.h>

KESTAL_BEGIN_DECLS

/** A bitmap in memory. The pixels and the descriptor belong to the caller; height x line length bytes are accessible. */
typedef struct kestal_raw_bitmap {
    uint64_t m_size;            /**< bytes of all pixels; not looked at by the copies */
    void *m_pixels;             /**< the first row; null: nothing can be copied */
    uint32_t m_color_interface; /**< format of a pixel; 0 in a target: that of the source */
    uint32_t m_width;           /**< pixels */
    uint32_t m_height;          /**< rows */
    uint32_t m_reserved;        /**< 0 */
    uint64_t m_line_length;     /**< bytes from one row to the next */
} kestal_raw_bitmap_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(offsetof(kestal_raw_bitmap_t, m_color_interface) == 16, "layout of kestal_raw_bitmap_t");
KESTAL_STATIC_ASSERT(offsetof(kestal_raw_bitmap_t, m_line_length) == 32, "layout of kestal_raw_bitmap_t");
KESTAL_STATIC_ASSERT(sizeof(kestal_raw_bitmap_t) == 40, "layout of kestal_raw_bitmap_t");
#endif

/**
 * Copies a rectangle of the source (null: all of it) to (x, y) in the target. What lies outside the source or would lie
 * outside the target is left out, the rest stays in its place. Colours are converted where the formats differ, as
 * kestal_convert_color does. Source and target may overlap in one memory when their formats are the same.
 *
 * 0, or -1 when nothing is left to copy, the source's depth is not served ("not supported" is reported), a bitmap has no
 * pixels, or one is null ("s_to_raw_bitmap is null !", "s_from_raw_bitmap is null !" are reported).
 */
KESTAL_API int32_t kestal_copy_raw_bitmap(const kestal_raw_bitmap_t *target, const kestal_raw_bitmap_t *source,
                                          int32_t x, int32_t y, const kestal_rectangle_t *rectangle);

/**
 * Copies a rectangle of the source, stretched or shrunk to the size of a rectangle of the target; null rectangles are
 * whole bitmaps. Each pixel of the target takes the nearest one of the source: pixel i of n takes pixel i x m / n of m.
 * Pixels outside the target, and those that would come from outside the source, are left out. The two must not overlap in
 * memory. Otherwise as kestal_copy_raw_bitmap.
 */
KESTAL_API int32_t kestal_copy_raw_bitmap_scale(const kestal_raw_bitmap_t *target, const kestal_raw_bitmap_t *source,
                                                const kestal_rectangle_t *target_rectangle,
                                                const kestal_rectangle_t *source_rectangle);

KESTAL_END_DECLS

#endif
