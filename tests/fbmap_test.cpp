#include "pictures.hpp"

#include <cstring>
#include <utility>

using namespace kestal_test;

namespace {

class fbmap : public counted {};

constexpr uint32_t own = KESTAL_FBMAP_OWN_MEMORY;

TEST_F(fbmap, is_made_with_what_it_is_given_or_its_parent_has)
{
    kestal_fbmap_t *root =
        kestal_new_fbmap(nullptr, own | KESTAL_FBMAP_DEVICE, KESTAL_COLOR_DRGB0888, 0, 0, 33, 20, 1, "_master");
    kestal_fbmap_t map;
    EXPECT_EQ(kestal_init_fbmap(&map, root, KESTAL_FBMAP_ALLOCATED, 0, -5, 6, 0, 0, 42, "window %d", 3), &map);
    EXPECT_EQ(root->m_flags, own | KESTAL_FBMAP_ALLOCATED | KESTAL_FBMAP_INITIALIZED);
    EXPECT_EQ(map.m_flags, KESTAL_FBMAP_INITIALIZED);
    EXPECT_STREQ(map.m_name, "window 3");
    EXPECT_EQ((std::vector<uint64_t>{kestal_fbmap_get_color_interface(&map), kestal_fbmap_get_bits_per_pixel(&map),
                                     kestal_fbmap_get_line_length(&map), kestal_fbmap_get_map_size(&map),
                                     kestal_fbmap_get_resx(&map), kestal_fbmap_get_resy(&map), map.m_brush.m_fcolor}),
              (std::vector<uint64_t>{KESTAL_COLOR_DRGB0888, 24, 99, 99 * 20, 33, 20, 0xFFFFFF}));
    EXPECT_EQ(std::pair(kestal_fbmap_get_x(&map), kestal_fbmap_get_y(&map)), std::pair(-5, 6));
    EXPECT_EQ(kestal_fbmap_is_closed(&map) + kestal_fbmap_is_visible(&map), 0);
    root->m_flags |= KESTAL_FBMAP_CLOSED;
    EXPECT_EQ(kestal_fbmap_hide(&map), 0);
    EXPECT_EQ(kestal_fbmap_is_closed(&map) + kestal_fbmap_is_visible(&map), 2); // visible once hidden
    EXPECT_EQ(kestal_destroy_fbmap(&map), 0);
    EXPECT_EQ(kestal_destroy_fbmap(&map), -1);
    EXPECT_EQ(kestal_free_fbmap(root), nullptr);
}

TEST_F(fbmap, stands_where_the_flags_say_and_is_found_depth_first)
{
    kestal_fbmap_t *root = kestal_new_fbmap(nullptr, own, KESTAL_COLOR_DRGB0565, 0, 0, 9, 9, 0, nullptr);
    const auto add = [](kestal_fbmap_t *parent, uint32_t flags, const char *name) {
        return kestal_new_fbmap(parent, own | flags, 0, 0, 0, 0, 0, 7, name);
    };
    kestal_fbmap_t *b = add(root, 0, "b"), *a = add(root, 0, "a"), *e = add(root, KESTAL_FBMAP_AT_END, "e");
    kestal_fbmap_t *c = add(e, KESTAL_FBMAP_AS_SIBLING, "c");
    kestal_fbmap_t *d = add(c, KESTAL_FBMAP_AS_SIBLING | KESTAL_FBMAP_AT_END, "d");
    kestal_fbmap_t *inner = add(b, 0, "e");
    const kestal_fbmap_t *before = nullptr, *at = root->m_child;
    for (const kestal_fbmap_t *expected : {a, b, c, d, e}) {
        ASSERT_TRUE(at == expected && at->m_parent == root && at->m_previous == before) << expected->m_name;
        before = std::exchange(at, at->m_next);
    }
    EXPECT_EQ(at, nullptr);
    EXPECT_EQ(kestal_fbmap_search(root, 7, "e"), inner);
    EXPECT_EQ(kestal_fbmap_search(c, 7, "a"), nullptr);
    kestal_fbmap_t *second_root = add(root, KESTAL_FBMAP_AS_SIBLING, "second");
    EXPECT_EQ(kestal_fbmap_search(second_root, 7, "d"), d);
    kestal_free_fbmap(b);
    kestal_free_fbmap(a);
    EXPECT_EQ(root->m_child, c);
    kestal_free_fbmap(root);
    EXPECT_EQ(second_root->m_next, nullptr);
    kestal_free_fbmap(second_root);
}

TEST_F(fbmap, fails_without_a_trace)
{
    const caught_assertions reports;
    const auto scenario = [] {
        kestal_free_fbmap(kestal_new_fbmap(nullptr, own, KESTAL_COLOR_ARGB8888, 0, 0, 9, 9, 0, "%s", "name"));
    };
    EXPECT_GE(with_each_allocation_failing(scenario), 3u);
    EXPECT_EQ(kestal_new_fbmap(nullptr, own, KESTAL_COLOR_ARGB8888, 0, 0, UINT32_MAX, UINT32_MAX, 0, "huge"), nullptr);
    EXPECT_EQ(kestal_fbmap_get_resx(nullptr), 0u);
    EXPECT_EQ(kestal_fbmap_is_visible(nullptr) + kestal_fbmap_set_brush_x(nullptr, 1), -2);
    EXPECT_EQ(reports.distinct(), (std::set<std::string>{"kestal_unlikely(s_name != ((char *)0))",
                                                         "s_fbmap->m_map is null !", "s_fbmap is null !"}));
}

TEST_F(fbmap, the_lock_lets_its_holder_in_and_nobody_else)
{
    kestal_fbmap_t *map = kestal_new_fbmap(nullptr, own, KESTAL_COLOR_ARGB8888, 0, 0, 50, 50, 0, nullptr);
    EXPECT_EQ(kestal_fbmap_lock(), 0);
    std::thread other([map] {
        for (int i = 0; i < 100; ++i)
            kestal_fbmap_draw_clear(map, 2);
    });
    EXPECT_GE(with_each_allocation_failing([map] { EXPECT_EQ(kestal_fbmap_draw_clear(map, 1), 0); }), 1u);
    for (uint32_t i = 0; i < 1000; ++i)
        EXPECT_EQ(pixel_of(map->m_bitmap, 0, 0), 1u);
    EXPECT_EQ(kestal_fbmap_unlock(), 0);
    other.join();
    EXPECT_EQ(kestal_fbmap_unlock(), -1);
    kestal_free_fbmap(map);
}

TEST_F(fbmap, settings_redraw_the_map_and_the_brush_only_itself)
{
    const caught_errors errors;
    kestal_fbmap_t *root =
        kestal_new_fbmap(nullptr, own | KESTAL_FBMAP_DEBUG, KESTAL_COLOR_ARGB8888, 0, 0, 4, 4, 0, "r");
    kestal_fbmap_t *map = kestal_new_fbmap(root, own, 0, 1, 1, 2, 2, 0, "m");
    kestal_fbmap_draw_clear(map, 0x80FF8000u);
    EXPECT_EQ(kestal_fbmap_use_alpha_transfer(map, 0), 0);
    EXPECT_EQ(pixel_of(root->m_bitmap, 1, 1), 0xFFFF8000u);
    set_pixel(root->m_bitmap, 1, 1, 0xFF000000u);
    EXPECT_EQ(kestal_fbmap_use_alpha_pixel(map, 1), 0);
    EXPECT_EQ(pixel_of(root->m_bitmap, 1, 1), 0xFF804000u); // nothing lies behind but the root
    EXPECT_EQ(errors.text(), "fbmap: [DEBUG] composite map allocated.\n");

    kestal_fbmap_draw_clear(root, 7);
    kestal_fbmap_set_brush_bcolor(map, 5);
    kestal_fbmap_set_brush_ocolor(map, 6);
    kestal_fbmap_use_brush_bcolor(map, 1);
    kestal_fbmap_use_brush_ocolor(map, 0);
    kestal_fbmap_set_brush_x_scale(map, 7, 8);
    kestal_fbmap_set_brush_y_scale(map, 9, 10);
    kestal_fbmap_set_brush_x_delta(map, 11);
    kestal_fbmap_set_brush_x(map, 13);
    kestal_fbmap_set_brush_y(map, 14);
    kestal_fbmap_set_brush_y_delta(map, 15);
    const kestal_fbmap_brush_t expected = {0xFFFFFFFFu, 5, 6, 7, 8, 9, 10, 0, 0, 0, 13, 14, 0, 15};
    EXPECT_EQ(memcmp(&map->m_brush, &expected, sizeof expected), 0);
    EXPECT_EQ(map->m_flags & 0x7000u, KESTAL_FBMAP_BRUSH_BCOLOR);
    EXPECT_EQ(pixel_of(root->m_bitmap, 1, 1), 7u);
    kestal_free_fbmap(root);
}

TEST_F(fbmap, boxes_to_and_from_other_bitmaps)
{
    kestal_fbmap_t *map = kestal_new_fbmap(nullptr, own, KESTAL_COLOR_ARGB8888, 0, 0, 4, 3, 0, nullptr);
    const kestal_rectangle_t right = {1, 0, 2, 2};
    std::vector<uint16_t> pixels = {1, 2, 3, 4, 5, 6};
    const kestal_raw_bitmap_t other = {12, pixels.data(), KESTAL_COLOR_DRGB0565, 3, 2, 0, 6};
    const auto expect = [&](int32_t result, const std::vector<uint16_t> &expected) {
        EXPECT_EQ(result, 0);
        EXPECT_EQ(pixels, expected);
        std::fill(pixels.begin(), pixels.end(), uint16_t{0});
    };
    EXPECT_EQ(kestal_fbmap_set_box(map, &other, 2, 2, &right), 0);
    const kestal_rectangle_t corner = {2, 2, 2, 1};
    EXPECT_EQ(memcmp(&map->m_update, &corner, sizeof corner), 0);
    EXPECT_EQ(kestal_fbmap_set_scale_box(map, &other, nullptr, &right), 0);
    EXPECT_EQ(map->m_update.m_width * map->m_update.m_height, 12u);
    kestal_fbmap_use_alpha_window(map, 1);
    kestal_fbmap_set_alpha_window(map, 0);
    expect(kestal_fbmap_get_scale_box(map, &other, nullptr, nullptr, 0), {2, 2, 3, 2, 2, 3});
    expect(kestal_fbmap_get_scale_box(map, &other, nullptr, nullptr, 1), {0, 0, 0, 0, 0, 0}); // blended, and not seen
    expect(kestal_fbmap_get_pixel(map, &other, 3, 2, 9, 9), {6, 0, 0, 0, 0, 0});
    expect(kestal_fbmap_get_box(map, &other, 1, 1, nullptr, 0), {0, 0, 0, 0, 2, 2});
    EXPECT_EQ(kestal_fbmap_get_box(map, &other, 3, 0, nullptr, 0), -1);
    EXPECT_EQ(kestal_fbmap_get_box(map, nullptr, 0, 0, nullptr, 0), -1); // no composite buffer
    EXPECT_EQ(kestal_fbmap_get_scale_box(map, nullptr, nullptr, nullptr, 0), -1);
    kestal_free_fbmap(map);
}

} // namespace
