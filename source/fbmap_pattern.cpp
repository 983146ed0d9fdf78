#include <kestal_ulx/fbmap_pattern.h>

#include <kestal_ulx/color.h>
#include <kestal_ulx/format.h>

#include "fbmap_draw.hpp"
#include "fbmap_record.hpp"
#include "fbmap_text.hpp"

namespace {

using namespace kestal;

constexpr const char *source_file = "./source/fbmap_draw";

// --- ruler

constexpr int64_t tick_distance = 5;
constexpr int64_t long_tick_distance = 10;
constexpr int64_t label_distance = 50;
constexpr int64_t short_tick = 5;
constexpr int64_t long_tick = 10;
constexpr int64_t label_gap = 12;   // from the edge to the label
constexpr int64_t label_width = 24; // three digits
constexpr int64_t label_height = 16;

class ruler {
public:
    ruler(kestal_fbmap_t &map, uint32_t color, const area &box, uint32_t x_margin, uint32_t y_margin)
        : map_(map), color_(color), box_(box), inset_{box.left + std::min<int64_t>(x_margin, box.width()),
                                                      box.top + std::min<int64_t>(y_margin, box.height()),
                                                      box.right - 1 - std::min<int64_t>(x_margin, box.width()),
                                                      box.bottom - 1 - std::min<int64_t>(y_margin, box.height())}
    {}

    void draw()
    {
        draw_cross();
        draw_diagonals();
        for (const int64_t x : {inset_.left, inset_.right})
            fill_area(map_, color_, {x, box_.top, x + 1, box_.bottom});
        for (const int64_t y : {inset_.top, inset_.bottom})
            fill_area(map_, color_, {box_.left, y, box_.right, y + 1});
        draw_vertical_ticks();
        draw_horizontal_ticks();
    }

private:
    void draw_cross()
    {
        const int64_t x = box_.left + box_.width() / 2;
        const int64_t y = box_.top + box_.height() / 2;
        fill_area(map_, color_, {x - 50, y - 1, x + 50, y + 2});
        fill_area(map_, color_, {x - 1, y - 50, x + 2, y + 50});
    }

    void draw_line(int64_t x1, int64_t y1, int64_t x2, int64_t y2)
    {
        line_operation.run(map_, color_, limited(x1), limited(y1), limited(x2), limited(y2));
    }

    void draw_diagonals()
    {
        draw_line(inset_.left, box_.top, inset_.right, box_.bottom - 1);
        draw_line(inset_.right, box_.top, inset_.left, box_.bottom - 1);
        draw_line(box_.left, inset_.top, box_.right - 1, inset_.bottom);
        draw_line(box_.left, inset_.bottom, box_.right - 1, inset_.top);
    }

    // Calls visit(position along the edge, length of the tick) for the ticks near the map: others are not seen.
    template <typename Visit>
    static void for_each_tick(int64_t begin, int64_t length, int64_t map_length, Visit visit)
    {
        const int64_t first = std::max<int64_t>(0, -begin - label_distance);
        const int64_t last = std::min(length, map_length - begin + label_distance);
        for (int64_t at = first - first % tick_distance; at < last; at += tick_distance)
            visit(at, at % long_tick_distance == 0 ? long_tick : short_tick);
    }

    void draw_vertical_ticks()
    {
        for_each_tick(box_.top, box_.height(), map_.m_bitmap.m_height, [&](int64_t at, int64_t length) {
            const int64_t y = box_.top + at;
            fill_area(map_, color_, {inset_.left, y, inset_.left + length, y + 1});
            fill_area(map_, color_, {inset_.right - length + 1, y, inset_.right + 1, y + 1});
            if (at % label_distance != 0)
                return;
            mark(inset_.left, y, inset_.left + label_gap, y - label_height / 2, at);
            mark(inset_.right, y, inset_.right - label_gap - label_width, y - label_height / 2, at);
        });
    }

    void draw_horizontal_ticks()
    {
        for_each_tick(box_.left, box_.width(), map_.m_bitmap.m_width, [&](int64_t at, int64_t length) {
            const int64_t x = box_.left + at;
            fill_area(map_, color_, {x, inset_.top, x + 1, inset_.top + length});
            fill_area(map_, color_, {x, inset_.bottom - length + 1, x + 1, inset_.bottom + 1});
            if (at % label_distance != 0)
                return;
            mark(x, inset_.top, x - label_width / 2, inset_.top + label_gap, at);
            mark(x, inset_.bottom, x - label_width / 2, inset_.bottom - label_gap - label_height, at);
        });
    }

    // A dot at a tick, and its number beside it.
    void mark(int64_t x, int64_t y, int64_t label_x, int64_t label_y, int64_t number)
    {
        fill_area(map_, color_, {x - 1, y - 1, x + 2, y + 2});
        kestal_fbmap_brush_t &brush = map_.m_brush;
        brush.m_x = limited(label_x);
        brush.m_y = limited(label_y);
        brush.m_cursor_x = brush.m_cursor_y = 0;
        char text[24];
        kestal_snprintf(text, sizeof text, "%3ld", number);
        draw_text(map_, text);
    }

    kestal_fbmap_t &map_;
    uint32_t color_;
    area box_;
    struct {
        int64_t left;
        int64_t top;
        int64_t right; // the last column
        int64_t bottom;
    } inset_;
};

void set_brush(kestal_fbmap_t &map, uint32_t color)
{
    map.m_flags &= ~(KESTAL_FBMAP_BRUSH_BCOLOR | KESTAL_FBMAP_BRUSH_OCOLOR);
    map.m_flags |= KESTAL_FBMAP_BRUSH_FCOLOR;
    kestal_fbmap_brush_t &brush = map.m_brush;
    brush.m_fcolor = color;
    brush.m_x_scale_numerator = brush.m_x_scale_denominator = 1;
    brush.m_y_scale_numerator = brush.m_y_scale_denominator = 1;
    brush.m_x_interval = brush.m_y_interval = 0;
    brush.m_angle = 0;
}

// Around the same place of the map wherever the ruler is: callers rely on it.
void draw_ruler_circle(kestal_fbmap_t &map, uint32_t color, uint32_t width, uint32_t height, uint32_t x_margin,
                       uint32_t y_margin)
{
    const int64_t inner = width > height ? height - 2 * int64_t{y_margin} : width - 2 * int64_t{x_margin};
    const int64_t radius = inner / 2 > 40 ? inner / 2 - 40 : inner / 2;
    if (radius >= 0)
        circle_operation.run(map, color, limited(width / 2), limited(height / 2), static_cast<uint32_t>(radius), 0);
}

// --- colour bar

constexpr uint32_t top_colors[] = {0xFFFFFF, 0xFFFF00, 0x00FFFF, 0x00FF00, 0xFF00FF, 0xFF0000, 0x0000FF};
constexpr uint32_t middle_colors[] = {0x0000FF, 0x000000, 0xFF7F3F, 0x000000, 0x007FFF, 0x000000, 0xFFFFFF};
constexpr uint32_t bottom_colors[] = {0x00007F, 0xFFFFFF, 0x0000FF, 0x000000, 0x000000, 0x000000};

// Bars of the same width beside each other; the last takes what is left.
template <size_t count>
bool draw_bars(kestal_fbmap_t &map, const uint32_t (&colors)[count], uint32_t alpha, const area &row)
{
    const int64_t width = row.width() / int64_t{count};
    bool drawn = false;
    for (size_t i = 0; i < count; ++i) {
        const int64_t left = row.left + static_cast<int64_t>(i) * width;
        const uint32_t color =
            kestal_convert_color(map.m_bitmap.m_color_interface, KESTAL_COLOR_ARGB8888, alpha << 24 | colors[i]);
        drawn = fill_area(map, color, {left, row.top, i + 1 == count ? row.right : left + width, row.bottom}) || drawn;
    }
    return drawn;
}

int32_t draw_color_bar(kestal_fbmap_t &map, uint32_t mode, uint32_t alpha, const area &box)
{
    if (!box_operation.serves(map))
        return -1;
    if (mode != 1)
        return draw_bars(map, top_colors, alpha, box) ? 0 : -1;
    const int64_t middle = box.top + box.height() * 2 / 3;
    const int64_t bottom = middle + box.height() / 6;
    bool drawn = draw_bars(map, top_colors, alpha, {box.left, box.top, box.right, middle});
    drawn = draw_bars(map, middle_colors, alpha, {box.left, middle, box.right, bottom}) || drawn;
    drawn = draw_bars(map, bottom_colors, alpha, {box.left, bottom, box.right, box.bottom}) || drawn;
    return drawn ? 0 : -1;
}

} // namespace

int32_t kestal_fbmap_draw_ruler(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t width,
                                uint32_t height, uint32_t x_margin, uint32_t y_margin)
{
    return on_fbmap(map, source_file, -1, [&] {
        if (width == 0 || height == 0 || !box_operation.serves(*map))
            return -1;
        set_brush(*map, color);
        ruler(*map, color, area::of(x, y, width, height), x_margin, y_margin).draw();
        draw_ruler_circle(*map, color, width, height, x_margin, y_margin);
        return 0;
    });
}

int32_t kestal_fbmap_draw_color_bar(kestal_fbmap_t *map, uint32_t mode, uint32_t alpha, int32_t x, int32_t y,
                                    uint32_t width, uint32_t height)
{
    return on_fbmap(map, source_file, -1, [&] {
        return width == 0 || height == 0 ? -1 : draw_color_bar(*map, mode, alpha, area::of(x, y, width, height));
    });
}
