/**
 * @file
 * The record of a frame-buffer map, its flags and its table of operations, what can be read from it, and the lock that
 * all maps share. Maps are made, placed and shown by fbmap.h and fbmap_update.h, drawn into by fbmap_draw.h and copied
 * from and to by fbmap_get.h.
 *
 * Any thread may make any call: each holds the process-wide lock for its whole duration. Who makes several calls in a row
 * and wants no other thread between them holds the lock around them; it is recursive. Who looks at a record's fields
 * while other threads work on maps holds the lock too.
 */
#ifndef KESTAL_ULX_FBMAP_RECORD_H
#define KESTAL_ULX_FBMAP_RECORD_H

#include <kestal_ulx/raw_bitmap.h>

KESTAL_BEGIN_DECLS

/* Bits of kestal_fbmap_t.m_flags. Those marked (create) are the caller's to give when the map is made. */
#define KESTAL_FBMAP_ALLOCATED 0x00000001u         /**< the record is released by kestal_free_fbmap */
#define KESTAL_FBMAP_KEEP_VISIBLE 0x00000002u      /**< (create) not hidden before it is destroyed: its pixels stay */
#define KESTAL_FBMAP_CLOSED 0x00000008u            /**< set on a root by its back end when the display is gone */
#define KESTAL_FBMAP_OWN_MEMORY 0x00000010u        /**< (create) the map allocates and releases its pixels */
#define KESTAL_FBMAP_DEVICE 0x00000060u            /**< two bits for the opener of a root's device */
#define KESTAL_FBMAP_INITIALIZED 0x00000080u       /**< made and not yet destroyed */
#define KESTAL_FBMAP_HIDDEN 0x00000100u            /**< (create) not shown; its children are shown all the same */
#define KESTAL_FBMAP_AT_END 0x00000200u            /**< (create) behind all its siblings, not in front of them */
#define KESTAL_FBMAP_AS_SIBLING 0x00000400u        /**< (create) in front of the given parent, with AT_END behind it */
#define KESTAL_FBMAP_BRUSH_FCOLOR 0x00001000u      /**< text: draw the glyphs */
#define KESTAL_FBMAP_BRUSH_BCOLOR 0x00002000u      /**< text: fill each character's cell first */
#define KESTAL_FBMAP_BRUSH_OCOLOR 0x00004000u      /**< text: outline the glyphs; cells grow by 2 pixels */
#define KESTAL_FBMAP_CCOLOR 0x00008000u            /**< colour key: pixels of this colour are not shown */
#define KESTAL_FBMAP_ALPHA_WINDOW 0x00010000u      /**< the whole map is translucent */
#define KESTAL_FBMAP_ALPHA_PIXEL 0x00020000u       /**< each pixel is as translucent as its alpha says */
#define KESTAL_FBMAP_NO_ALPHA_TRANSFER 0x00040000u /**< the alpha channel is not handed on: copies are opaque */
#define KESTAL_FBMAP_DEBUG 0x80000000u             /**< (create) debug messages on the error sink */

/** What shows through a map with any of these bits is composed behind it. */
#define KESTAL_FBMAP_COMPOSED (KESTAL_FBMAP_CCOLOR | KESTAL_FBMAP_ALPHA_WINDOW | KESTAL_FBMAP_ALPHA_PIXEL)

/** A frame-buffer map: pixels, their place in a parent, and what lies in them. */
typedef struct kestal_fbmap kestal_fbmap_t;

/** How text is drawn (fbmap_draw.h); set by the brush calls of fbmap.h. Colours are in the map's format. */
typedef struct kestal_fbmap_brush {
    uint32_t m_fcolor;              /**< glyphs: at first white */
    uint32_t m_bcolor;              /**< cells: at first opaque black */
    uint32_t m_ocolor;              /**< outlines: at first opaque black */
    uint32_t m_x_scale_numerator;   /**< widening: 1 at first */
    uint32_t m_x_scale_denominator; /**< by this: 1 at first */
    uint32_t m_y_scale_numerator;   /**< heightening: 1 at first */
    uint32_t m_y_scale_denominator; /**< by this: 1 at first */
    int32_t m_x_interval;           /**< pixels between characters, before scaling */
    int32_t m_y_interval;           /**< pixels between lines, before scaling */
    int32_t m_angle;                /**< degrees, clockwise around the origin */
    int32_t m_x;                    /**< origin, in the map */
    int32_t m_y;                    /**< the origin's row */
    int32_t m_cursor_x;             /**< where the next character goes, from the origin on, before scaling */
    int32_t m_cursor_y;             /**< its row */
} kestal_fbmap_brush_t;

/**
 * A map's operations. A null slot is filled on first use with the library's routine for the map's depth. An owner may put
 * functions of its own here, for a display that draws or copies by itself; they take and return what the public call of
 * the same name does, run under the lock, and see to the update rectangle and the clipping themselves. The public call
 * itself in a slot counts as null.
 */
typedef struct kestal_fbmap_operations {
    /** kestal_fbmap_transfer. */
    int32_t (*m_transfer)(kestal_fbmap_t *map);
    /** kestal_fbmap_convert_color. */
    uint32_t (*m_convert_color)(kestal_fbmap_t *map, uint32_t target, uint32_t source, uint32_t color);
    /** kestal_fbmap_draw_clear. */
    int32_t (*m_draw_clear)(kestal_fbmap_t *map, uint32_t color);
    /** kestal_fbmap_draw_pixel. */
    int32_t (*m_draw_pixel)(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y);
    /** kestal_fbmap_draw_hline. */
    int32_t (*m_draw_hline)(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t length);
    /** kestal_fbmap_draw_vline. */
    int32_t (*m_draw_vline)(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t length);
    /** kestal_fbmap_draw_box. */
    int32_t (*m_draw_box)(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t width, uint32_t height,
                          uint32_t fill);
    /** kestal_fbmap_draw_line. */
    int32_t (*m_draw_line)(kestal_fbmap_t *map, uint32_t color, int32_t x1, int32_t y1, int32_t x2, int32_t y2);
    /** kestal_fbmap_draw_circle. */
    int32_t (*m_draw_circle)(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t radius, uint32_t fill);
    /** kestal_fbmap_draw_fill. */
    int32_t (*m_draw_fill)(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y);
    /** kestal_fbmap_get_pixel. */
    int32_t (*m_get_pixel)(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target, int32_t x, int32_t y, uint32_t width,
                           uint32_t height);
    /** kestal_fbmap_get_box. */
    int32_t (*m_get_box)(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target, int32_t x, int32_t y,
                         const kestal_rectangle_t *rectangle, uint32_t blend);
    /** kestal_fbmap_set_box. */
    int32_t (*m_set_box)(kestal_fbmap_t *map, const kestal_raw_bitmap_t *source, int32_t x, int32_t y,
                         const kestal_rectangle_t *rectangle);
    /** kestal_fbmap_get_scale_box. */
    int32_t (*m_get_scale_box)(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target,
                               const kestal_rectangle_t *target_rectangle, const kestal_rectangle_t *rectangle,
                               uint32_t blend);
    /** kestal_fbmap_set_scale_box. */
    int32_t (*m_set_scale_box)(kestal_fbmap_t *map, const kestal_raw_bitmap_t *source,
                               const kestal_rectangle_t *rectangle, const kestal_rectangle_t *source_rectangle);
} kestal_fbmap_operations_t;

/**
 * A map. Owners of the pixels (without KESTAL_FBMAP_OWN_MEMORY) and back ends set m_bitmap, m_context and m_operations
 * after the map is made; everything else is read only and changed by calls.
 */
struct kestal_fbmap {
    kestal_fbmap_t *m_previous;   /**< the sibling in front */
    kestal_fbmap_t *m_next;       /**< the sibling behind */
    kestal_fbmap_t *m_parent;     /**< null for a root */
    kestal_fbmap_t *m_child;      /**< the front-most child */
    uint32_t m_flags;             /**< KESTAL_FBMAP_ bits */
    uint32_t m_identifier;        /**< the caller's; all ones when destroyed */
    char *m_name;                 /**< may be null */
    kestal_raw_bitmap_t m_bitmap; /**< the pixels; without pixels a map shows nothing and only holds its children */
    uint32_t m_bits_per_pixel;    /**< of the format: 8, 16, 24 or 32 */
    int32_t m_x;                  /**< position in the parent, pixels */
    int32_t m_y;                  /**< position in the parent, rows */
    void *m_composite;            /**< root: where translucent maps are composed; as large as the pixels */
    void *m_context;              /**< the back end's, inherited from the parent */
    uint32_t m_ccolor;            /**< the colour key, in the map's format */
    uint32_t m_alpha_window;      /**< 0 (nothing is seen) to 255 (opaque), at first 255 */
    kestal_fbmap_brush_t m_brush; /**< how text is drawn */
    kestal_rectangle_t m_update;  /**< what changed since the last redraw; empty: nothing */
    kestal_fbmap_operations_t m_operations; /**< null: the library's */
};

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(offsetof(kestal_fbmap_t, m_bitmap) == 48, "layout of kestal_fbmap_t");
KESTAL_STATIC_ASSERT(offsetof(kestal_fbmap_t, m_composite) == 104, "layout of kestal_fbmap_t");
KESTAL_STATIC_ASSERT(offsetof(kestal_fbmap_t, m_brush) == 128, "layout of kestal_fbmap_t");
KESTAL_STATIC_ASSERT(offsetof(kestal_fbmap_t, m_update) == 184, "layout of kestal_fbmap_t");
KESTAL_STATIC_ASSERT(sizeof(kestal_fbmap_t) == 320, "layout of kestal_fbmap_t");
#endif

/**
 * Holds the lock of all maps until as many calls of kestal_fbmap_unlock, so that no other thread comes between the calls
 * made meanwhile; waits for it without limit. Returns 0; -1 when a thread that holds the lock already finds no memory for
 * one more hold: then nothing is to be unlocked for this call.
 */
KESTAL_API int32_t kestal_fbmap_lock(void);

/** Gives up one hold of kestal_fbmap_lock. Returns 0, or -1 when nobody held the lock. */
KESTAL_API int32_t kestal_fbmap_unlock(void);

/* Each of these reports "s_fbmap is null !" and returns 0 for a null map. */

/** The pixels of a map, or null. */
KESTAL_API void *kestal_fbmap_get_map(kestal_fbmap_t *map);

/** The bytes of a map's pixels: line length x height. */
KESTAL_API uint64_t kestal_fbmap_get_map_size(kestal_fbmap_t *map);

/** The format of a map's pixels (color.h). */
KESTAL_API uint32_t kestal_fbmap_get_color_interface(kestal_fbmap_t *map);

/** The bits that a pixel of the map takes. */
KESTAL_API uint32_t kestal_fbmap_get_bits_per_pixel(kestal_fbmap_t *map);

/** The bytes from one row of the map to the next. */
KESTAL_API uint64_t kestal_fbmap_get_line_length(kestal_fbmap_t *map);

/** The map's horizontal position in its parent, in pixels. */
KESTAL_API int32_t kestal_fbmap_get_x(kestal_fbmap_t *map);

/** The map's vertical position in its parent, in pixels. */
KESTAL_API int32_t kestal_fbmap_get_y(kestal_fbmap_t *map);

/** The map's width in pixels. */
KESTAL_API uint32_t kestal_fbmap_get_resx(kestal_fbmap_t *map);

/** The map's height in pixels. */
KESTAL_API uint32_t kestal_fbmap_get_resy(kestal_fbmap_t *map);

/** Whether the back end of the map's root has closed its display: 1 or 0. Null is reported and gives -1. */
KESTAL_API int32_t kestal_fbmap_is_closed(kestal_fbmap_t *map);

/**
 * 1 for a hidden map and 0 for a shown one: the sense is the opposite of the name, and callers rely on it. Null is
 * reported and gives -1.
 */
KESTAL_API int32_t kestal_fbmap_is_visible(kestal_fbmap_t *map);

KESTAL_END_DECLS

#endif
