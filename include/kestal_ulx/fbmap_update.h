/**
 * @file
 * What brings maps onto the display: showing, hiding, moving, resizing, and the update of what was drawn. The changed part
 * of a map is split into rectangles, each drawn into the root's pixels once by the front-most opaque map there, or
 * composed from the back to the front where maps are translucent; then the root is transferred to its display.
 *
 * Parts of a map outside any of its ancestors are not seen. Visible children of a hidden map are. Where no map lies
 * behind a translucent one, it is composed over what the root shows there, and an area that no map covers any more keeps its
 * pixels: have an opaque map as large as the root at the back.
 *
 * All calls hold the lock of all maps, report "s_fbmap is null !" for a null map, and return 0 or -1. When memory runs
 * out (-1), parts of the display stay as they were and the maps are unharmed.
 */
#ifndef KESTAL_ULX_FBMAP_UPDATE_H
#define KESTAL_ULX_FBMAP_UPDATE_H

#include <kestal_ulx/fbmap_record.h>

KESTAL_BEGIN_DECLS

/** Shows a hidden map and redraws all of it. A shown map and a root are left alone (0). */
KESTAL_API int32_t kestal_fbmap_show(kestal_fbmap_t *map);

/** Hides a shown map: what lies behind it appears. A hidden map and a root are left alone (0). */
KESTAL_API int32_t kestal_fbmap_hide(kestal_fbmap_t *map);

/** Moves a map inside its parent: kestal_fbmap_resize with the width and height that it has. */
KESTAL_API int32_t kestal_fbmap_move(kestal_fbmap_t *map, int32_t x, int32_t y);

/**
 * Moves a map to (x, y) in its parent and gives it another size; redraws where it was and where it is. With another size
 * the map gets new pixels of its own: those that both sizes have are kept, the others are 0. (A map whose pixels were
 * supplied owns its new ones; a map without pixels stays so.) Nothing happens when nothing would change, and to a root.
 * -1, and the map as it was, when memory is short.
 */
KESTAL_API int32_t kestal_fbmap_resize(kestal_fbmap_t *map, int32_t x, int32_t y, uint32_t width, uint32_t height);

/** Redraws what changed in a map since its last redraw, if anything, and transfers it; a root is only transferred. */
KESTAL_API int32_t kestal_fbmap_update(kestal_fbmap_t *map);

/**
 * Hands a root's changes to its display by its operation m_transfer, which finds them in m_update; that is emptied when the
 * operation returned 0. The library's own operation has nothing to do: the pixels are the display's memory.
 */
KESTAL_API int32_t kestal_fbmap_transfer(kestal_fbmap_t *map);

KESTAL_END_DECLS

#endif
