/**
 * @file
 * Rectangles and angles in whole pixels: what the picture modules place, split and turn with.
 *
 * A rectangle covers m_x to m_x + m_width - 1 and m_y to m_y + m_height - 1; it is empty when its width or height is 0.
 * Parts beyond 2147483647 do not count. y grows downwards. All calls are pure: any thread may make them at any time.
 */
#ifndef KESTAL_ULX_GEOMETRY_H
#define KESTAL_ULX_GEOMETRY_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** A rectangle of pixels. */
typedef struct kestal_rectangle {
    int32_t m_x;       /**< left edge */
    int32_t m_y;       /**< upper edge */
    uint32_t m_width;  /**< pixels; 0: empty */
    uint32_t m_height; /**< rows; 0: empty */
} kestal_rectangle_t;

KESTAL_STATIC_ASSERT(sizeof(kestal_rectangle_t) == 16, "layout of kestal_rectangle_t");

/** The most pieces into which one rectangle splits another. */
#define KESTAL_SEPARATE_PIECES 4

/**
 * Splits `window` by `other`: `overlap` receives the part that both cover (empty when there is none), and `pieces` the rest
 * of the window, as up to KESTAL_SEPARATE_PIECES rectangles that do not overlap: above, left, right, below. Returns how many
 * pieces there are; the whole window is the one piece when nothing overlaps, and an empty window has none.
 *
 * `overlap` and `pieces` may be null when they do not matter. A null window or other counts as empty.
 */
KESTAL_API uint32_t kestal_sep_overlap_window(const kestal_rectangle_t *window, const kestal_rectangle_t *other,
                                              kestal_rectangle_t *overlap, kestal_rectangle_t *pieces);

/**
 * Turns the point (x, y) around (0, 0) by an angle in degrees, clockwise as seen on a screen, where y grows downwards.
 * The result is rounded to the nearest whole numbers and stays within 32 bits. Null pointers are left alone.
 */
KESTAL_API void kestal_rotate_point(int32_t *x, int32_t *y, int32_t angle);

KESTAL_END_DECLS

#endif
