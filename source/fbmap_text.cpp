#include <kestal_ulx/fbmap_text.h>

#include <kestal_ulx/bitmap_font.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/utf8.h>

#include "fbmap_draw.hpp"
#include "fbmap_record.hpp"
#include "fbmap_text.hpp"
#include "guard.hpp"

#include <bit>

namespace {

using namespace kestal;

constexpr const char *source_file = "./source/fbmap_draw";

constexpr uint32_t outline_margin = 2;
constexpr int32_t line_height = 16;
constexpr int32_t narrow_width = 8;

// A glyph's rows, the leftmost pixel in the highest bit; with room for an outline.
struct glyph {
    static constexpr uint32_t most_rows = 16 + outline_margin;

    uint32_t rows[most_rows] = {};
    uint32_t width = 0;
    uint32_t height = 0;
};

glyph look_up(uint32_t code_point)
{
    glyph found;
    uint8_t buffer[KESTAL_BITMAP_FONT_GLYPH_SIZE] = {};
    const uint8_t *bits =
        kestal_get_bitmap_font(&found.width, &found.height, code_point < 256 ? nullptr : buffer, nullptr, code_point);
    const uint32_t bytes = found.width / 8;
    for (uint32_t row = 0; row < found.height; ++row)
        for (uint32_t byte = 0; byte < bytes; ++byte)
            found.rows[row] |= uint32_t{bits[row * bytes + byte]} << (24 - 8 * byte);
    return found;
}

glyph moved_by_one(const glyph &from)
{
    glyph moved = {{}, from.width, from.height};
    for (uint32_t row = 0; row < from.height; ++row)
        moved.rows[row + 1] = from.rows[row] >> 1;
    return moved;
}

// Every pixel drawn eight times around the place that it has in the moved glyph.
glyph outline_of(const glyph &from)
{
    glyph outline = {{}, from.width, from.height};
    for (int32_t angle = 0; angle < 360; angle += 45) {
        int32_t x = 1;
        int32_t y = 0;
        kestal_rotate_point(&x, &y, angle);
        for (uint32_t row = 0; row < from.height; ++row)
            outline.rows[static_cast<uint32_t>(static_cast<int32_t>(row) + 1 + y)] |= from.rows[row] >> (1 + x);
    }
    return outline;
}

int64_t scaled(int64_t value, uint32_t numerator, uint32_t denominator)
{
    const int64_t factor = numerator;
    return limited(value) * factor / (denominator == 0 ? 1 : int64_t{denominator});
}

// The writing of one text with a map's brush.
class writer {
public:
    explicit writer(kestal_fbmap_t &map)
        : map_(map), brush_(map.m_brush), margin_(has_flag(map, KESTAL_FBMAP_BRUSH_OCOLOR) ? outline_margin : 0),
          seen_(area_around(whole_of(map.m_bitmap).moved(-int64_t{brush_.m_x}, -int64_t{brush_.m_y}),
                            -(brush_.m_angle % 360)))
    {}

    void write(uint32_t code_point)
    {
        switch (code_point) {
        case '\n':
            return start_line(line_height);
        case '\r':
            brush_.m_cursor_x = 0;
            return;
        case '\b':
            brush_.m_cursor_x = limited(int64_t{brush_.m_cursor_x} - advance(narrow_width));
            return;
        default:
            return draw(look_up(code_point));
        }
    }

private:
    int64_t advance(uint32_t width) const { return int64_t{margin_} + width + brush_.m_x_interval; }
    bool is_unscaled() const
    {
        return brush_.m_x_scale_numerator == brush_.m_x_scale_denominator &&
               brush_.m_y_scale_numerator == brush_.m_y_scale_denominator && brush_.m_x_scale_numerator != 0 &&
               brush_.m_y_scale_numerator != 0;
    }
    int64_t x_of(int64_t x) const { return scaled(x, brush_.m_x_scale_numerator, brush_.m_x_scale_denominator); }
    int64_t y_of(int64_t y) const { return scaled(y, brush_.m_y_scale_numerator, brush_.m_y_scale_denominator); }

    void start_line(uint32_t height)
    {
        brush_.m_cursor_x = 0;
        brush_.m_cursor_y = limited(int64_t{brush_.m_cursor_y} + margin_ + height + brush_.m_y_interval);
    }

    void draw(const glyph &letter)
    {
        const int64_t width = advance(letter.width);
        if (brush_.m_x + x_of(brush_.m_cursor_x + width) >= map_.m_bitmap.m_width)
            start_line(letter.height);
        const bool outlined = margin_ != 0;
        if (has_flag(map_, KESTAL_FBMAP_BRUSH_BCOLOR))
            draw_part(brush_.m_bcolor, area::of(0, 0, width, int64_t{margin_} + letter.height + brush_.m_y_interval));
        if (outlined)
            draw_glyph(brush_.m_ocolor, outline_of(letter));
        if (has_flag(map_, KESTAL_FBMAP_BRUSH_FCOLOR))
            draw_glyph(brush_.m_fcolor, outlined ? moved_by_one(letter) : letter);
        brush_.m_cursor_x = limited(brush_.m_cursor_x + width);
    }

    // Draws the set bits: those of a row that stand together at once.
    void draw_glyph(uint32_t color, const glyph &letter)
    {
        if (brush_.m_angle == 0 && is_unscaled() &&
            draw_bits(map_, color, int64_t{brush_.m_x} + brush_.m_cursor_x, int64_t{brush_.m_y} + brush_.m_cursor_y,
                      {letter.rows, letter.height + margin_}))
            return;
        for (int32_t row = 0; row < static_cast<int32_t>(glyph::most_rows); ++row) {
            uint32_t bits = letter.rows[row];
            for (int32_t x = 0; bits != 0;) {
                const int skipped = std::countl_zero(bits);
                const int length = std::countl_one(bits << skipped);
                x += skipped;
                draw_part(color, {x, row, x + length, row + 1});
                x += length;
                bits = static_cast<uint32_t>(uint64_t{bits} << (skipped + length));
            }
        }
    }

    // Draws an area of the cell at the cursor.
    void draw_part(uint32_t color, const area &part)
    {
        const area at = part.moved(brush_.m_cursor_x, brush_.m_cursor_y);
        const area around = area{x_of(at.left), y_of(at.top), x_of(at.right), y_of(at.bottom)};
        if (brush_.m_angle == 0)
            fill_area(map_, color, around.moved(brush_.m_x, brush_.m_y));
        else
            draw_turned(color, around.cut_to(seen_));
    }

    // Draws an area, given from the origin on, turned around it: the pixels that turned back lie in the area.
    void draw_turned(uint32_t color, const area &part)
    {
        const area around = area_around(part, brush_.m_angle)
                                .moved(brush_.m_x, brush_.m_y)
                                .cut_to(whole_of(map_.m_bitmap))
                                .moved(-int64_t{brush_.m_x}, -int64_t{brush_.m_y});
        for (int64_t y = around.top; y < around.bottom; ++y) {
            int64_t x = around.left;
            while (x < around.right && !is_turned_into(part, x, y))
                ++x;
            const int64_t first = x;
            while (x < around.right && is_turned_into(part, x, y))
                ++x;
            fill_area(map_, color, area{first, y, x, y + 1}.moved(brush_.m_x, brush_.m_y));
        }
    }

    bool is_turned_into(const area &part, int64_t at_x, int64_t at_y) const
    {
        auto x = static_cast<int32_t>(at_x);
        auto y = static_cast<int32_t>(at_y);
        kestal_rotate_point(&x, &y, -(brush_.m_angle % 360));
        return x >= part.left && x < part.right && y >= part.top && y < part.bottom;
    }

    // What an area becomes turned around the origin, as upright again, and a little more.
    static area area_around(const area &part, int32_t angle)
    {
        constexpr int64_t limit = INT32_MAX / 4; // turned, it stays within 32 bits
        area around = {};
        for (const int64_t corner_x : {part.left, part.right})
            for (const int64_t corner_y : {part.top, part.bottom}) {
                auto x = static_cast<int32_t>(std::clamp(corner_x, -limit, limit));
                auto y = static_cast<int32_t>(std::clamp(corner_y, -limit, limit));
                kestal_rotate_point(&x, &y, angle);
                around = around.joined({x - 2, y - 2, x + 2, y + 2});
            }
        return around;
    }

    kestal_fbmap_t &map_;
    kestal_fbmap_brush_t &brush_;
    uint32_t margin_;
    area seen_;
};

} // namespace

int32_t kestal::draw_text(kestal_fbmap_t &map, const char *text)
{
    if (!box_operation.serves(map))
        return 0;
    writer writer(map);
    int32_t count = 0;
    uint32_t code_point = 0;
    while (const uint32_t length = kestal_decode_utf8(text, &code_point)) {
        writer.write(code_point);
        text += length;
        ++count;
    }
    return count;
}

int32_t kestal_fbmap_draw_puts(kestal_fbmap_t *map, const char *text)
{
    return on_fbmap(map, source_file, 0, [&] { return draw_text(*map, text); });
}

int32_t kestal_fbmap_draw_vprintf(kestal_fbmap_t *map, const char *format, va_list list)
{
    const owned_block<char> text(kestal_alloc_vsprintf(format, list), __func__);
    return kestal_fbmap_draw_puts(map, text.get());
}

int32_t kestal_fbmap_draw_printf(kestal_fbmap_t *map, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const int32_t count = kestal_fbmap_draw_vprintf(map, format, list);
    va_end(list);
    return count;
}
