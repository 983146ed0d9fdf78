#include <kestal_ulx.h>

enum { WIDTH = 24, HEIGHT = 8 };

static uint32_t screen[WIDTH * HEIGHT]; /* stands for the memory of a display */

int main(void)
{
    kestal_fbmap_t *root = kestal_new_fbmap(NULL, 0, KESTAL_COLOR_ARGB8888, 0, 0, WIDTH, HEIGHT, 0, "root");
    root->m_bitmap.m_pixels = screen;

    kestal_fbmap_t *back = kestal_new_fbmap(root, KESTAL_FBMAP_OWN_MEMORY, 0, 0, 0, WIDTH, HEIGHT, 1, "back");
    kestal_fbmap_draw_clear(back, 0xFF000000u);
    kestal_fbmap_update(back);

    kestal_fbmap_t *window = kestal_new_fbmap(root, KESTAL_FBMAP_OWN_MEMORY, 0, 3, 1, 14, 5, 2, "window");
    kestal_fbmap_draw_clear(window, 0xFF000000u);
    kestal_fbmap_draw_box(window, 0xFFFFFFFFu, 0, 0, 14, 5, 0);
    kestal_fbmap_set_alpha_window(window, 128);
    kestal_fbmap_use_alpha_window(window, 1);
    kestal_fbmap_update(window);
    kestal_fbmap_move(window, 7, 2);

    for (int y = 0; y < HEIGHT; ++y) {
        char row[WIDTH + 1] = "";
        for (int x = 0; x < WIDTH; ++x)
            row[x] = " .:*#"[(screen[y * WIDTH + x] & 0xFF) / 60];
        kestal_printf("|%s|\n", row);
    }
    kestal_free_fbmap(root); /* and the windows in it */
    return kestal_get_alloc_count() == 0 ? 0 : 1;
}
