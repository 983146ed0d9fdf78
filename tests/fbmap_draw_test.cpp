#include "support.hpp"

#include "../source/pixel.hpp"
#include "../source/processor.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <set>

using kestal_test::caught_assertions;
using kestal_test::counted;
using kestal_test::with_each_allocation_failing;

namespace {

using places = std::set<std::pair<int64_t, int64_t>>;

constexpr uint32_t codes[] = {KESTAL_COLOR_DRGB0233, KESTAL_COLOR_DRGB0565, KESTAL_COLOR_DRGB0888,
                              KESTAL_COLOR_ARGB8888};

// A map over memory of the test's own: rows begin at odd addresses, and the bytes between them must stay as they are.
class surface {
public:
    static constexpr uint32_t ink = 0xABCDEF37u;

    surface(uint32_t code, uint32_t width, uint32_t height, uint32_t flags = 0)
    {
        map = kestal_new_fbmap(nullptr, flags, code, 0, 0, width, height, 7, "surface");
        bytes_ = map->m_bits_per_pixel / 8;
        map->m_bitmap.m_line_length = width * bytes_ + 5;
        memory_.assign(map->m_bitmap.m_line_length * height + 1, paper);
        map->m_bitmap.m_pixels = memory_.data() + 1;
    }
    ~surface() { kestal_free_fbmap(map); }

    // The pixels that are not paper; each must be ink, and what changed must be noted, if the map is shown.
    places drawn() const
    {
        places found;
        std::vector<uint8_t> rest = memory_;
        int64_t left = INT32_MAX, top = INT32_MAX, right = 0, bottom = 0;
        for (uint32_t y = 0; y < map->m_bitmap.m_height; ++y)
            for (uint32_t x = 0; x < map->m_bitmap.m_width; ++x) {
                uint8_t *at = rest.data() + 1 + y * map->m_bitmap.m_line_length + x * bytes_;
                if (std::all_of(at, at + bytes_, [](uint8_t byte) { return byte == paper; }))
                    continue;
                EXPECT_EQ(kestal::load_pixel(at, bytes_), ink & (UINT32_MAX >> (32 - 8 * bytes_)));
                std::fill(at, at + bytes_, paper);
                found.insert({x, y});
                left = std::min<int64_t>(left, x);
                top = std::min<int64_t>(top, y);
                right = std::max<int64_t>(right, x + 1);
                bottom = std::max<int64_t>(bottom, y + 1);
            }
        EXPECT_TRUE(std::all_of(rest.begin(), rest.end(), [](uint8_t byte) { return byte == paper; }));
        const kestal_rectangle_t &noted = map->m_update;
        if (found.empty() || (map->m_flags & KESTAL_FBMAP_HIDDEN) != 0)
            EXPECT_EQ(noted.m_width, 0u);
        else
            EXPECT_TRUE(noted.m_x == left && noted.m_y == top && left + noted.m_width == right &&
                        top + noted.m_height == bottom);
        return found;
    }

    void wipe()
    {
        std::fill(memory_.begin(), memory_.end(), paper);
        map->m_update = {};
    }

    kestal_fbmap_t *map;

private:
    static constexpr uint8_t paper = 0x5A;

    uint32_t bytes_;
    std::vector<uint8_t> memory_;
};

class fbmap_draw : public counted {};

places box(int64_t x, int64_t y, int64_t width, int64_t height, int64_t map_width, int64_t map_height)
{
    places inside;
    for (int64_t row = std::max<int64_t>(y, 0); row < std::min(y + height, map_height); ++row)
        for (int64_t column = std::max<int64_t>(x, 0); column < std::min(x + width, map_width); ++column)
            inside.insert({column, row});
    return inside;
}

TEST_F(fbmap_draw, boxes_and_straight_lines_are_cut_to_the_map)
{
    constexpr int32_t coordinates[] = {INT32_MIN, -9, -3, 0, 4, 10, 11, INT32_MAX};
    constexpr uint32_t lengths[] = {0, 1, 2, 10, 0x80000000u, UINT32_MAX};
    for (const uint32_t code : codes) {
        surface at(code, 11, 9);
        kestal::processor::allow_only(code == KESTAL_COLOR_DRGB0565 ? 0 : kestal::processor::every_feature);
        const auto expect = [&](int32_t result, const places &expected) {
            EXPECT_EQ(result, expected.empty() ? -1 : 0);
            EXPECT_EQ(at.drawn(), expected);
            at.wipe();
        };
        for (const int32_t x : coordinates)
            for (const int32_t y : coordinates)
                for (const uint32_t width : lengths) {
                    expect(kestal_fbmap_draw_hline(at.map, surface::ink, x, y, width), box(x, y, width, 1, 11, 9));
                    expect(kestal_fbmap_draw_vline(at.map, surface::ink, x, y, width), box(x, y, 1, width, 11, 9));
                    for (const uint32_t height : lengths) {
                        const places filled = box(x, y, width, height, 11, 9);
                        expect(kestal_fbmap_draw_box(at.map, surface::ink, x, y, width, height, 1), filled);
                        places border = filled;
                        if (width > 1 && height > 1)
                            for (const auto &inner :
                                 box(x + int64_t{1}, y + int64_t{1}, width - int64_t{2}, height - int64_t{2}, 11, 9))
                                border.erase(inner);
                        expect(kestal_fbmap_draw_box(at.map, surface::ink, x, y, width, height, 0), border);
                    }
                }
        expect(kestal_fbmap_draw_pixel(at.map, surface::ink, 10, 8), {{10, 8}});
        expect(kestal_fbmap_draw_pixel(at.map, surface::ink, 11, 8), {});
        expect(kestal_fbmap_draw_clear(at.map, surface::ink), box(0, 0, 11, 9, 11, 9));
    }
}

TEST_F(fbmap_draw, lines_are_clipped_and_then_stepped)
{
    for (const uint32_t code : codes) {
        surface at(code, 100, 100);
        EXPECT_EQ(kestal_fbmap_draw_line(at.map, surface::ink, -10, 5, 5, 5), 0);
        EXPECT_EQ(at.drawn(), box(0, 5, 6, 1, 100, 100));
        at.wipe();
        EXPECT_EQ(kestal_fbmap_draw_line(at.map, surface::ink, -10, 5, -1, 50), -1);
        EXPECT_EQ(kestal_fbmap_draw_line(at.map, surface::ink, 7, 20, 2, 18), 0);
        // An accumulator steps when it reaches the longer distance.
        EXPECT_EQ(at.drawn(), (places{{7, 20}, {6, 20}, {5, 20}, {4, 19}, {3, 19}, {2, 18}}));
        at.wipe();
        EXPECT_EQ(kestal_fbmap_draw_line(at.map, surface::ink, INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX), 0);
        EXPECT_EQ(at.drawn().size(), 100u);
        EXPECT_EQ(kestal_fbmap_draw_line(at.map, surface::ink, INT32_MAX, INT32_MIN, INT32_MIN, 150), -1);
    }
}

// The circle by its textbook steps.
places stepped_circle(int64_t centre_x, int64_t centre_y, int64_t radius, bool filled, int64_t width, int64_t height)
{
    places points;
    const auto put = [&](int64_t from, int64_t row) {
        for (int64_t column = std::min(from, filled ? -from : from); column <= from; ++column)
            if (centre_x + column >= 0 && centre_x + column < width && centre_y + row >= 0 && centre_y + row < height)
                points.insert({centre_x + column, centre_y + row});
    };
    int64_t x = 0, y = radius, decision = 1 - radius;
    while (x <= y) {
        for (const int64_t sign : {-1, 1})
            for (const int64_t side : {-1, 1}) {
                put(side * x, sign * y);
                put(side * y, sign * x);
            }
        if (decision < 0) {
            decision += 2 * x++ + 3;
        } else {
            decision += 2 * (x++ - y--) + 5;
        }
    }
    return points;
}

TEST_F(fbmap_draw, circles_of_any_size)
{
    for (const uint32_t code : codes) {
        surface at(code, 50, 40);
        for (const uint32_t filled : {0u, 1u})
            for (uint32_t radius = 0; radius < 70; radius += radius < 30 ? 1 : 7)
                for (const auto &[x, y] : {std::pair{25, 20}, {3, 35}, {-20, 60}}) {
                    const places expected = stepped_circle(x, y, radius, filled != 0, 50, 40);
                    EXPECT_EQ(kestal_fbmap_draw_circle(at.map, surface::ink, x, y, radius, filled),
                              expected.empty() ? -1 : 0);
                    EXPECT_EQ(at.drawn(), expected) << radius << " at " << x << ", " << y;
                    at.wipe();
                }
        // So large that the edge is straight, and near the ends of the numbers.
        EXPECT_EQ(kestal_fbmap_draw_circle(at.map, surface::ink, 10 - INT32_MAX, 20, INT32_MAX, 1), 0);
        EXPECT_EQ(at.drawn(), box(0, 0, 11, 40, 50, 40));
        at.wipe();
        EXPECT_EQ(kestal_fbmap_draw_circle(at.map, surface::ink, INT32_MIN, INT32_MIN, UINT32_MAX, 1), 0);
        EXPECT_EQ(kestal_fbmap_draw_circle(at.map, surface::ink, INT32_MAX, 0, 1, 0), -1);
    }
}

TEST_F(fbmap_draw, floods_what_is_connected)
{
    std::mt19937 random(5);
    for (const uint32_t code : codes)
        for (int round = 0; round < 20; ++round) {
            surface at(code, 30, 20);
            places walls;
            for (int i = 0; i < 200; ++i)
                walls.insert({random() % 30, random() % 20});
            walls.erase({15, 10});
            for (const auto &[x, y] : walls)
                kestal_fbmap_draw_pixel(at.map, surface::ink, static_cast<int32_t>(x), static_cast<int32_t>(y));
            places expected = walls;
            std::vector<std::pair<int64_t, int64_t>> next = {{15, 10}};
            while (!next.empty()) {
                const auto [x, y] = next.back();
                next.pop_back();
                if (x >= 0 && y >= 0 && x < 30 && y < 20 && expected.insert({x, y}).second)
                    for (const auto &[dx, dy] : {std::pair{1, 0}, {-1, 0}, {0, 1}, {0, -1}})
                        next.push_back({x + dx, y + dy});
            }
            EXPECT_EQ(kestal_fbmap_draw_fill(at.map, surface::ink, 15, 10), 0);
            EXPECT_EQ(at.drawn(), expected);
            EXPECT_EQ(kestal_fbmap_draw_fill(at.map, surface::ink, 15, 10), 0); // has the colour already
            EXPECT_EQ(kestal_fbmap_draw_fill(at.map, surface::ink, 30, 10), -1);
        }
    surface at(KESTAL_COLOR_ARGB8888, 200, 300);
    for (int32_t y = 0; y < 300; ++y)
        for (int32_t x = y % 2; y > 0 && x < 200; x += 2)
            kestal_fbmap_draw_pixel(at.map, 1, x, y); // more seeds than fit at first
    kestal_fbmap_t *map = at.map;
    EXPECT_GE(with_each_allocation_failing([map] {
                  if (kestal_fbmap_draw_fill(map, 2, 0, 0) == 0)
                      kestal_fbmap_draw_fill(map, 0x5A5A5A5Au, 0, 0);
              }),
              1u);
}

TEST_F(fbmap_draw, an_operation_may_be_the_owners)
{
    static int called;
    called = 0;
    surface at(KESTAL_COLOR_ARGB8888, 20, 20);
    at.map->m_operations.m_draw_hline = [](kestal_fbmap_t *, uint32_t, int32_t, int32_t, uint32_t) { return ++called; };
    at.map->m_operations.m_draw_pixel = kestal_fbmap_draw_pixel; // the public call itself: as good as nothing
    EXPECT_EQ(kestal_fbmap_draw_hline(at.map, 1, 2, 3, 4), 1);
    EXPECT_EQ(kestal_fbmap_draw_circle(at.map, 1, 10, 10, 3, 1), -1); // rows by the owner's, which does not say 0
    EXPECT_EQ(called, 8);
    EXPECT_EQ(kestal_fbmap_draw_pixel(at.map, surface::ink, 2, 3), 0);
    EXPECT_EQ(at.drawn(), (places{{2, 3}}));
}

TEST_F(fbmap_draw, refuses_what_it_cannot_draw_into)
{
    const caught_assertions reports;
    kestal_fbmap_t *map = kestal_new_fbmap(nullptr, 0, KESTAL_COLOR_PPPP1111, 0, 0, 8, 8, 0, nullptr);
    const auto all_fail = [](kestal_fbmap_t *at) {
        EXPECT_EQ(kestal_fbmap_draw_clear(at, 0), -1);
        EXPECT_EQ(kestal_fbmap_draw_pixel(at, 0, 0, 0), -1);
        EXPECT_EQ(kestal_fbmap_draw_hline(at, 0, 0, 0, 1), -1);
        EXPECT_EQ(kestal_fbmap_draw_vline(at, 0, 0, 0, 1), -1);
        EXPECT_EQ(kestal_fbmap_draw_box(at, 0, 0, 0, 1, 1, 1), -1);
        EXPECT_EQ(kestal_fbmap_draw_line(at, 0, 0, 0, 3, 3), -1);
        EXPECT_EQ(kestal_fbmap_draw_circle(at, 0, 3, 3, 1, 0), -1);
        EXPECT_EQ(kestal_fbmap_draw_fill(at, 0, 0, 0), -1);
        EXPECT_EQ(kestal_fbmap_draw_color_bar(at, 0, 0, 0, 0, 8, 8), -1);
    };
    all_fail(map);
    EXPECT_EQ(kestal_fbmap_draw_puts(map, "x"), 0);
    EXPECT_EQ(kestal_fbmap_draw_ruler(map, 0, 0, 0, 8, 8, 0, 0), -1);
    const std::vector<std::string> unsupported = reports.messages();
    EXPECT_EQ(std::count(unsupported.begin(), unsupported.end(), "not supported"), 11);
    kestal_free_fbmap(map);
    all_fail(nullptr);
    EXPECT_EQ(reports.messages().back(), "s_fbmap is null !");
    map = kestal_new_fbmap(nullptr, 0, KESTAL_COLOR_ARGB8888, 0, 0, 8, 8, 0, nullptr);
    all_fail(map); // no pixels
    kestal_free_fbmap(map);
    EXPECT_EQ(kestal_fbmap_convert_color(nullptr, KESTAL_COLOR_DRGB0565, KESTAL_COLOR_ARGB8888, 0xFFFFFFFFu), 0xFFFFu);
}

// --- text and patterns

class fbmap_text : public counted {};

// The pixels of characters drawn in cells one beside the other.
places glyphs(const std::string &characters, int64_t x, int64_t y, uint32_t scale = 1)
{
    places bits;
    for (const char character : characters) {
        const uint8_t *rows =
            kestal_get_default_bitmap_font_8x16_en_entry() + 16 * static_cast<unsigned char>(character);
        for (int64_t row = 0; row < 16; ++row)
            for (int64_t column = 0; column < 8; ++column)
                if ((rows[row] >> (7 - column) & 1) != 0)
                    for (uint32_t i = 0; i < scale * scale; ++i)
                        bits.insert({x + column * scale + i % scale, y + row * scale + i / scale});
        x += 8 * scale;
    }
    return bits;
}

places operator+(places left, const places &right)
{
    left.insert(right.begin(), right.end());
    return left;
}

TEST_F(fbmap_text, writes_lines)
{
    for (const uint32_t code : codes) {
        surface at(code, 100, 80);
        kestal_fbmap_t *map = at.map;
        EXPECT_EQ(kestal_fbmap_set_brush_fcolor(map, surface::ink), 0);
        EXPECT_EQ(kestal_fbmap_draw_puts(map, "x"), 1); // the brush draws nothing at first
        EXPECT_EQ(at.drawn(), places{});
        EXPECT_EQ(kestal_fbmap_use_brush_fcolor(map, 1), 0);
        const auto text = [&](const char *written, int32_t count, const places &expected) {
            at.wipe();
            kestal_fbmap_set_brush_xy(map, 2, 3);
            EXPECT_EQ(kestal_fbmap_draw_puts(map, written), count) << written;
            EXPECT_EQ(at.drawn(), expected) << written;
        };
        kestal_fbmap_set_brush_y_interval(map, 1);
        text("AB\nC", 4, glyphs("AB", 2, 3) + glyphs("C", 2, 20));
        text("ABC\r\nx\by", 8, glyphs("ABC", 2, 3) + glyphs("x", 2, 20) + glyphs("y", 2, 20));
        text("A\xC0\x80z", 1, glyphs("A", 2, 3));
        // 12 cells would end at 98: the 13th wraps; one that would end exactly at the edge wraps too.
        text("0123456789abcd", 14, glyphs("0123456789ab", 2, 3) + glyphs("cd", 2, 20));
        kestal_fbmap_set_brush_x_interval(map, 3);
        text("ab", 2, glyphs("a", 2, 3) + glyphs("b", 13, 3));
        kestal_fbmap_set_brush_xy_interval(map, 0, 0);
        kestal_fbmap_set_brush_xy_scale(map, 6, 3, 2, 1);
        text("no", 2, glyphs("no", 2, 3, 2));
        kestal_fbmap_set_brush_xy_scale(map, 1, 1, 1, 0);
        at.wipe();
        kestal_fbmap_set_brush_xy(map, 4, 0);
        kestal_fbmap_set_brush_xy_delta(map, 88, 0);
        EXPECT_EQ(kestal_fbmap_draw_printf(map, "%s", "q"), 1);
        EXPECT_EQ(at.drawn(), glyphs("q", 4, 16));
    }
}

TEST_F(fbmap_text, outlines_grounds_and_turns)
{
    surface at(KESTAL_COLOR_ARGB8888, 100, 80);
    kestal_fbmap_t *map = at.map;
    const auto text = [&](const char *written) {
        at.wipe();
        kestal_fbmap_set_brush_xy(map, 40, 30);
        EXPECT_EQ(kestal_fbmap_draw_puts(map, written), 1);
        return at.drawn();
    };
    kestal_fbmap_set_brush_color(map, surface::ink, surface::ink, surface::ink);
    kestal_fbmap_use_brush_color(map, 0, 1, 0);
    EXPECT_EQ(text("A"), box(40, 30, 8, 16, 100, 80));
    kestal_fbmap_use_brush_color(map, 0, 1, 1);
    EXPECT_EQ(text("A"), box(40, 30, 10, 18, 100, 80));
    kestal_fbmap_use_brush_color(map, 1, 0, 1);
    places around;
    for (int64_t i = 0; i < 9; ++i) {
        const places moved = glyphs("A", 40 + i % 3, 30 + i / 3);
        around.insert(moved.begin(), moved.end());
    }
    EXPECT_EQ(text("A"), around);

    kestal_fbmap_use_brush_color(map, 1, 0, 0);
    const places upright = text("A");
    for (const int32_t angle : {90, 180, 270, -90, 450}) {
        kestal_fbmap_set_brush_angle(map, angle);
        places turned;
        for (const auto &[x, y] : upright) {
            int32_t to_x = static_cast<int32_t>(x) - 40, to_y = static_cast<int32_t>(y) - 30;
            kestal_rotate_point(&to_x, &to_y, angle);
            turned.insert({40 + to_x, 30 + to_y});
        }
        EXPECT_EQ(text("A"), turned) << angle;
    }
    kestal_fbmap_set_brush_angle(map, 33);
    kestal_fbmap_use_brush_color(map, 0, 1, 0);
    kestal_fbmap_set_brush_xy_scale(map, 2, 1, 2, 1);
    const places cell = text("A");
    EXPECT_GT(cell.size(), 15u * 31);
    const auto holds = [&](int64_t x, int64_t y) { return cell.contains({x, y}); };
    for (const auto &[x, y] : cell)
        EXPECT_TRUE(holds(x, y + 1) || !holds(x, y + 2)) << "a hole below " << x << ", " << y;

    // Sizes and places far from any map end soon.
    kestal_fbmap_set_brush_xy_scale(map, UINT32_MAX, 1, UINT32_MAX, 1);
    kestal_fbmap_set_brush_xy(map, INT32_MIN, INT32_MAX);
    kestal_fbmap_set_brush_xy_delta(map, INT32_MAX, INT32_MIN);
    EXPECT_EQ(kestal_fbmap_draw_puts(map, "a\n\b"), 3);
    EXPECT_EQ(map->m_brush.m_cursor_y, INT32_MIN + 32);
}

TEST_F(fbmap_text, hidden_maps_and_korean)
{
    surface at(KESTAL_COLOR_DRGB0565, 100, 80, KESTAL_FBMAP_HIDDEN);
    kestal_fbmap_set_brush_fcolor(at.map, surface::ink);
    kestal_fbmap_use_brush_fcolor(at.map, 1);
    EXPECT_EQ(kestal_fbmap_draw_puts(at.map, "\xEA\xB0\x80\xE2\x82\xAC"), 2); // a syllable, and an unsupported sign
    uint8_t syllable[32];
    kestal_get_bitmap_font(nullptr, nullptr, syllable, nullptr, 0xAC00);
    const uint8_t *sign = kestal_get_bitmap_font(nullptr, nullptr, nullptr, nullptr, 0x20AC);
    places expected;
    for (int64_t i = 0; i < 256; ++i) {
        if ((syllable[i / 8] >> (7 - i % 8) & 1) != 0)
            expected.insert({i % 16, i / 16});
        if (i < 128 && (sign[i / 8] >> (7 - i % 8) & 1) != 0)
            expected.insert({16 + i % 16, i / 16}); // its upper half
    }
    EXPECT_EQ(at.drawn(), expected);
}

class fbmap_pattern : public counted {};

TEST_F(fbmap_pattern, ruler_and_color_bar)
{
    surface at(KESTAL_COLOR_ARGB8888, 320, 240);
    kestal_fbmap_t *map = at.map;
    EXPECT_EQ(kestal_fbmap_draw_ruler(map, surface::ink, 0, 0, 0, 240, 0, 0), -1);
    EXPECT_EQ(kestal_fbmap_draw_ruler(map, surface::ink, 0, 0, 320, 240, 20, 30), 0);
    const places ruler = at.drawn();
    places expected = box(110, 119, 100, 3, 320, 240) + box(159, 70, 3, 100, 320, 240) + box(20, 0, 1, 240, 320, 240) +
                      box(0, 30, 320, 1, 320, 240) + stepped_circle(160, 120, 50, false, 320, 240) +
                      box(20, 55, 5, 1, 320, 240) + box(290, 60, 10, 1, 320, 240) + box(19, 149, 3, 3, 320, 240) +
                      glyphs("150", 32, 142) + glyphs(" 50", 38, 42);
    EXPECT_TRUE(std::includes(ruler.begin(), ruler.end(), expected.begin(), expected.end()));
    EXPECT_EQ(kestal_fbmap_draw_ruler(map, 1, INT32_MIN, INT32_MIN, UINT32_MAX, UINT32_MAX, 5, UINT32_MAX), 0);

    const auto pixel = [&](uint64_t x, uint64_t y) {
        uint32_t value;
        memcpy(&value, static_cast<uint8_t *>(map->m_bitmap.m_pixels) + y * map->m_bitmap.m_line_length + x * 4, 4);
        return value;
    };
    EXPECT_EQ(kestal_fbmap_draw_color_bar(map, 0, 0x80, 10, 10, 0, 9), -1);
    EXPECT_EQ(kestal_fbmap_draw_color_bar(map, 0, 0x80, 0, 0, 73, 60), 0);
    for (const auto &[x, color] : {std::pair{9, 0x80FFFFFFu}, {10, 0x80FFFF00u}, {60, 0x800000FFu}, {72, 0x800000FFu}})
        EXPECT_EQ(pixel(static_cast<uint64_t>(x), 59), color);
    EXPECT_EQ(kestal_fbmap_draw_color_bar(map, 1, 0xFF, 0, 0, 73, 60), 0);
    EXPECT_EQ(pixel(20, 39), 0xFF00FFFFu);
    EXPECT_EQ(pixel(20, 40), 0xFFFF7F3Fu);
    EXPECT_EQ(pixel(12, 50), 0xFFFFFFFFu);
    EXPECT_EQ(pixel(72, 59), 0xFF000000u);
}

} // namespace
