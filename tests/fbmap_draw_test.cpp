#include "pictures.hpp"

#include "../source/geometry.hpp"
#include "../source/processor.hpp"

#include <algorithm>
#include <cstring>

using namespace kestal_test;

namespace {

// A map over a bitmap of the test's own, and beside it the picture that is expected of it.
struct surface {
    static constexpr uint32_t ink = 0xABCDEF37u;

    surface(uint32_t code, uint32_t width, uint32_t height, uint32_t flags = 0)
        : map(kestal_new_fbmap(nullptr, flags, code, 0, 0, width, height, 7, "surface")), bitmap(code, width, height),
          expected(code, width, height)
    {
        map->m_bitmap = bitmap.raw;
    }
    ~surface() { kestal_free_fbmap(map); }

    // Expects a box of ink, or what of it is inside.
    void box(int64_t x, int64_t y, int64_t width = 1, int64_t height = 1)
    {
        for (int64_t row = std::max<int64_t>(y, 0); row < std::min<int64_t>(y + height, bitmap.raw.m_height); ++row)
            for (int64_t at = std::max<int64_t>(x, 0); at < std::min<int64_t>(x + width, bitmap.raw.m_width); ++at) {
                set_pixel(expected.raw, at, row, ink);
                around = around.joined(kestal::area::of(at, row, 1, 1));
            }
    }

    bool is_expected(int64_t x, int64_t y) const
    {
        return pixel_of(expected.raw, x, y) == (ink & kestal::pixel_mask(bytes_of(expected.raw)));
    }

    // The map is as expected, to the last byte, and what changed is noted if it is shown. Then it is blank again.
    void expect_drawn()
    {
        const bool hidden = (map->m_flags & KESTAL_FBMAP_HIDDEN) != 0;
        const kestal_rectangle_t noted = hidden ? kestal_rectangle_t{} : around.rectangle();
        EXPECT_EQ(memcmp(&map->m_update, &noted, sizeof noted), 0);
        EXPECT_EQ(bitmap.memory, expected.memory);
        std::fill(bitmap.memory.begin(), bitmap.memory.end(), picture::paper);
        expected.memory = bitmap.memory;
        map->m_update = {};
        around = {};
    }

    // Also that the call gave -1 if it drew nothing.
    void expect(int32_t result)
    {
        EXPECT_EQ(result, around.empty() ? -1 : 0);
        expect_drawn();
    }

    kestal_fbmap_t *map;
    picture bitmap, expected;
    kestal::area around = {}; // what is expected
};

class fbmap_draw : public counted {};

// Anywhere over a map and its edges, over the ends of pages, and now and then at the ends of the numbers.
TEST_F(fbmap_draw, boxes_and_straight_lines_are_cut_to_the_map)
{
    dice random(3);
    const auto coordinate = [&](int32_t most) {
        constexpr int32_t ends[] = {INT32_MIN, -1, 0, INT32_MAX};
        return random.below(8) == 0 ? ends[random.below(4)] : random.between(-9, most);
    };
    const auto length = [&] {
        constexpr uint32_t ends[] = {0, 1, 0x80000000u, UINT32_MAX};
        return random.below(4) == 0 ? ends[random.below(4)] : random.below(60);
    };
    for (uint32_t round = 0; round < 400; ++round) {
        kestal::processor::allow_only(round % 8 < 4 ? kestal::processor::every_feature : 0);
        surface at(depths[round % 4], 400, 32);
        const int32_t x = coordinate(400), y = coordinate(32);
        const uint32_t width = length(), height = length();
        SCOPED_TRACE(testing::Message() << round << ": " << width << " x " << height << " at " << x << ", " << y);
        at.box(x, y, width);
        at.expect(kestal_fbmap_draw_hline(at.map, surface::ink, x, y, width));
        at.box(x, y, 1, height);
        at.expect(kestal_fbmap_draw_vline(at.map, surface::ink, x, y, height));
        at.box(x, y, width, height);
        at.expect(kestal_fbmap_draw_box(at.map, surface::ink, x, y, width, height, 1));
        for (const int64_t row : {int64_t{y}, int64_t{y} + height - 1})
            at.box(x, row, width, height == 0 ? 0 : 1);
        for (const int64_t column : {int64_t{x}, int64_t{x} + width - 1})
            at.box(column, y, width == 0 ? 0 : 1, height);
        at.expect(kestal_fbmap_draw_box(at.map, surface::ink, x, y, width, height, 0));
        at.box(x, y);
        at.expect(kestal_fbmap_draw_pixel(at.map, surface::ink, x, y));
    }
    kestal::processor::allow_only(kestal::processor::every_feature);
}

TEST_F(fbmap_draw, lines_are_clipped_and_then_stepped)
{
    for (const uint32_t code : depths) {
        surface at(code, 100, 100);
        at.box(0, 5, 6);
        at.expect(kestal_fbmap_draw_line(at.map, surface::ink, -10, 5, 5, 5));
        // An accumulator steps when it reaches the longer distance.
        for (const auto &[x, y] : {std::pair{7, 20}, {6, 20}, {5, 20}, {4, 19}, {3, 19}, {2, 18}})
            at.box(x, y);
        at.expect(kestal_fbmap_draw_line(at.map, surface::ink, 7, 20, 2, 18));
        for (int64_t i = 0; i < 100; ++i)
            at.box(i, i);
        at.expect(kestal_fbmap_draw_line(at.map, surface::ink, INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX));
        at.expect(kestal_fbmap_draw_line(at.map, surface::ink, INT32_MAX, INT32_MIN, INT32_MIN, 150));
    }
}

// Expects a circle by its textbook steps.
void expect_circle(surface &at, int64_t centre_x, int64_t centre_y, int64_t radius, bool filled)
{
    int64_t x = 0, y = radius, decision = 1 - radius;
    while (x <= y) {
        for (const auto &[along, across] : {std::pair{x, y}, {y, x}})
            for (const int64_t row : {centre_y - across, centre_y + across}) {
                at.box(centre_x - along, row, filled ? 2 * along + 1 : 1);
                at.box(centre_x + along, row);
            }
        decision += decision < 0 ? 2 * x + 3 : 2 * (x - y--) + 5;
        ++x;
    }
}

TEST_F(fbmap_draw, circles_of_any_size)
{
    for (const uint32_t code : depths) {
        surface at(code, 50, 40);
        for (const uint32_t filled : {0u, 1u})
            for (uint32_t radius = 0; radius < 70; radius += radius < 30 ? 1 : 7)
                for (const auto &[x, y] : {std::pair{25, 20}, {3, 35}, {-20, 60}}) {
                    SCOPED_TRACE(testing::Message() << code << ": " << radius << " at " << x << ", " << y);
                    expect_circle(at, x, y, radius, filled != 0);
                    at.expect(kestal_fbmap_draw_circle(at.map, surface::ink, x, y, radius, filled));
                }
        // So large that the edge is straight, and near the ends of the numbers.
        at.box(0, 0, 11, 40);
        at.expect(kestal_fbmap_draw_circle(at.map, surface::ink, 10 - INT32_MAX, 20, INT32_MAX, 1));
        at.expect(kestal_fbmap_draw_circle(at.map, surface::ink, INT32_MAX, 0, 1, 0));
    }
}

TEST_F(fbmap_draw, floods_what_is_connected)
{
    dice random(5);
    for (uint32_t round = 0; round < 80; ++round) {
        surface at(depths[round % 4], 30, 20);
        for (int wall = 0; wall < 200; ++wall) {
            const int32_t x = random.between(0, 29), y = random.between(0, 18);
            at.box(x, y);
            kestal_fbmap_draw_pixel(at.map, surface::ink, x, y);
        }
        std::vector<std::pair<int32_t, int32_t>> next = {{15, 19}};
        while (!next.empty()) {
            const auto [x, y] = next.back();
            next.pop_back();
            if (x < 0 || y < 0 || x >= 30 || y >= 20 || at.is_expected(x, y))
                continue;
            at.box(x, y);
            next.insert(next.end(), {{x + 1, y}, {x - 1, y}, {x, y + 1}, {x, y - 1}});
        }
        EXPECT_EQ(kestal_fbmap_draw_fill(at.map, surface::ink, 15, 19), 0);
        EXPECT_EQ(kestal_fbmap_draw_fill(at.map, surface::ink, 15, 19), 0); // has the colour already
        EXPECT_EQ(kestal_fbmap_draw_fill(at.map, surface::ink, 30, 19), -1);
        at.expect_drawn();
    }
    surface at(KESTAL_COLOR_ARGB8888, 2000, 2);
    const auto scenario = [map = at.map] { // more seeds than fit at first, and at second
        kestal_fbmap_draw_clear(map, 1);
        kestal_fbmap_draw_hline(map, 0, 0, 0, 2000);
        for (int32_t x = 0; x < 2000; x += 2)
            kestal_fbmap_draw_pixel(map, 0, x, 1);
        kestal_fbmap_draw_fill(map, 2, 0, 0);
    };
    EXPECT_EQ(with_each_allocation_failing(scenario), 3u);
}

TEST_F(fbmap_draw, refuses_what_it_cannot_draw_into)
{
    const caught_assertions reports;
    kestal_fbmap_t *odd = kestal_new_fbmap(nullptr, 0, KESTAL_COLOR_PPPP1111, 0, 0, 8, 8, 0, nullptr);
    kestal_fbmap_t *empty = kestal_new_fbmap(nullptr, 0, KESTAL_COLOR_ARGB8888, 0, 0, 8, 8, 0, nullptr); // no pixels
    for (kestal_fbmap_t *map : {odd, static_cast<kestal_fbmap_t *>(nullptr), empty}) {
        EXPECT_EQ(kestal_fbmap_draw_clear(map, 0), -1);
        EXPECT_EQ(kestal_fbmap_draw_line(map, 0, 0, 0, 3, 3), -1);
        EXPECT_EQ(kestal_fbmap_draw_fill(map, 0, 0, 0), -1);
        EXPECT_EQ(kestal_fbmap_draw_color_bar(map, 0, 0, 0, 0, 8, 8) + kestal_fbmap_draw_puts(map, ""), -1);
    }
    EXPECT_EQ(reports.distinct(), (std::set<std::string>{"not supported", "s_fbmap is null !"}));
    EXPECT_EQ(kestal_fbmap_convert_color(nullptr, KESTAL_COLOR_DRGB0565, KESTAL_COLOR_ARGB8888, 0xFFFFFFFFu), 0xFFFFu);
    kestal_free_fbmap(odd);
    kestal_free_fbmap(empty);
}

// --- text and patterns

class fbmap_text : public counted {};

// Expects characters in cells one beside the other.
void expect_text(surface &at, const std::u32string &characters, int64_t x, int64_t y, uint32_t scale = 1)
{
    for (const char32_t character : characters) {
        uint32_t width = 0;
        uint8_t rows[KESTAL_BITMAP_FONT_GLYPH_SIZE] = {};
        kestal_get_bitmap_font(&width, nullptr, rows, nullptr, character);
        for (uint32_t bit = 0; bit < 16 * width; ++bit)
            if ((rows[bit / 8] >> (7 - bit % 8) & 1) != 0)
                at.box(x + bit % width * scale, y + bit / width * scale, scale, scale);
        x += width * scale;
    }
}

TEST_F(fbmap_text, writes_lines)
{
    for (const uint32_t code : depths) {
        surface at(code, 100, 80, code == KESTAL_COLOR_DRGB0565 ? KESTAL_FBMAP_HIDDEN : 0);
        kestal_fbmap_t *map = at.map;
        kestal_fbmap_set_brush_fcolor(map, surface::ink);
        EXPECT_EQ(kestal_fbmap_draw_puts(map, "x"), 1); // the brush draws nothing at first
        kestal_fbmap_use_brush_fcolor(map, 1);
        const auto text = [&](const char *written, int32_t count, const std::u32string &first,
                              const std::u32string &second = U"", uint32_t scale = 1) {
            SCOPED_TRACE(written);
            kestal_fbmap_set_brush_xy(map, 4, 3);
            EXPECT_EQ(kestal_fbmap_draw_printf(map, "%s", written), count);
            expect_text(at, first, 4, 3, scale);
            expect_text(at, second, 4, 20);
            at.expect_drawn();
        };
        kestal_fbmap_set_brush_y_interval(map, 1);
        text("ABC\r\nx\bx", 8, U"ABC", U"x");
        text("가A\xC0\x80z", 2, U"가A");
        // The 12th cell would end exactly at the edge, and wraps.
        text("0123456789abcd", 14, U"0123456789a", U"bcd");
        kestal_fbmap_set_brush_x_interval(map, 8);
        text("ab", 2, U"a b");
        kestal_fbmap_set_brush_xy_interval(map, 0, 0);
        kestal_fbmap_set_brush_xy_scale(map, 6, 3, 2, 0);
        text("no", 2, U"no", U"", 2);
    }
}

TEST_F(fbmap_text, outlines_grounds_and_turns)
{
    surface at(KESTAL_COLOR_ARGB8888, 100, 80);
    kestal_fbmap_t *map = at.map;
    kestal_fbmap_set_brush_color(map, surface::ink, surface::ink, surface::ink);
    const auto expect_letter = [&](uint32_t foreground, uint32_t ground, uint32_t outline, int32_t angle = 0) {
        kestal_fbmap_use_brush_color(map, foreground, ground, outline);
        kestal_fbmap_set_brush_angle(map, angle);
        kestal_fbmap_set_brush_xy(map, 40, 30);
        EXPECT_EQ(kestal_fbmap_draw_puts(map, "A"), 1);
        at.expect_drawn();
    };
    at.box(40, 30, 10, 18);
    expect_letter(0, 1, 1);
    for (int64_t i = 0; i < 9; ++i)
        expect_text(at, U"A", 40 + i % 3, 30 + i / 3);
    expect_letter(1, 0, 1);
    kestal_fbmap_set_brush_xy_scale(map, 2, 1, 2, 1);
    for (const int32_t angle : {33, 90, -180, 450}) {
        SCOPED_TRACE(angle);
        for_each_pixel(at.bitmap.raw,
                       [&](int64_t column, int64_t row) { // no hole where its middle turned back is inside
                           auto x = static_cast<int32_t>(column) - 40, y = static_cast<int32_t>(row) - 30;
                           kestal_rotate_point(&x, &y, -angle);
                           if (x >= 0 && y >= 0 && x < 16 && y < 32)
                               at.box(column, row);
                       });
        expect_letter(1, 1, 0, angle);
    }
}

class fbmap_pattern : public counted {};

TEST_F(fbmap_pattern, ruler_and_color_bar)
{
    surface at(KESTAL_COLOR_ARGB8888, 320, 240);
    kestal_fbmap_t *map = at.map;
    EXPECT_EQ(kestal_fbmap_draw_ruler(map, surface::ink, 0, 0, 0, 240, 0, 0), -1);
    EXPECT_EQ(kestal_fbmap_draw_ruler(map, surface::ink, 0, 0, 320, 240, 20, 30), 0);
    at.box(110, 119, 100, 3);
    at.box(159, 70, 3, 100);
    at.box(20, 0, 1, 240);
    at.box(0, 30, 320);
    at.box(20, 55, 5);
    at.box(19, 149, 3, 3);
    expect_circle(at, 160, 120, 50, false);
    expect_text(at, U"150", 32, 142);
    const auto pixel = [&](int64_t x, int64_t y) { return pixel_of(map->m_bitmap, x, y); };
    for_each_pixel(at.expected.raw, [&](int64_t x, int64_t y) {
        EXPECT_TRUE(pixel(x, y) == surface::ink || !at.is_expected(x, y)) << x << ", " << y;
    });
    EXPECT_EQ(kestal_fbmap_draw_ruler(map, 1, INT32_MIN, INT32_MIN, UINT32_MAX, UINT32_MAX, 5, UINT32_MAX), 0);

    EXPECT_EQ(kestal_fbmap_draw_color_bar(map, 0, 0x80, 0, 0, 73, 60), 0);
    EXPECT_EQ(pixel(72, 59), 0x800000FFu); // the last takes what is left
    EXPECT_EQ(kestal_fbmap_draw_color_bar(map, 1, 0xFF, 0, 0, 73, 60), 0);
    EXPECT_EQ(pixel(20, 39), 0xFF00FFFFu);
    EXPECT_EQ(pixel(20, 40), 0xFFFF7F3Fu);
    EXPECT_EQ(pixel(12, 50), 0xFFFFFFFFu);
}

} // namespace
