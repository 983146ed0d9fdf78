#include <kestal_ulx/fbmap_draw.h>

#include <kestal_ulx/color.h>
#include <kestal_ulx/memory.h>

#include "fbmap_draw.hpp"
#include "fbmap_record.hpp"
#include "fill.hpp"
#include "pixel.hpp"
#include "raw_bitmap.hpp"

namespace {

using namespace kestal;

constexpr const char *source_file = "./source/fbmap_draw";

using operations = kestal_fbmap_operations_t;

size_t bytes_of(const kestal_fbmap_t &map)
{
    return map.m_bits_per_pixel / 8;
}

// --- areas

// Fills what lies in the map, and notes it. False when nothing does.
bool fill(kestal_fbmap_t &map, uint32_t color, const area &asked)
{
    const area inside = asked.cut_to(whole_of(map.m_bitmap));
    if (inside.empty() || map.m_bitmap.m_pixels == nullptr)
        return false;
    const size_t bytes = bytes_of(map);
    uint8_t *first =
        pixel_at(map.m_bitmap, bytes, static_cast<uint64_t>(inside.left), static_cast<uint64_t>(inside.top));
    fill_rows(first, map.m_bitmap.m_line_length, color, bytes, static_cast<size_t>(inside.width()),
              static_cast<size_t>(inside.height()));
    note_change(map, inside);
    return true;
}

int32_t result_of(bool drawn)
{
    return drawn ? 0 : -1;
}

int32_t clear(kestal_fbmap_t *map, uint32_t color)
{
    return result_of(fill(*map, color, whole_of(map->m_bitmap)));
}

constexpr fbmap_operation clear_operation(source_file, &operations::m_draw_clear, kestal_fbmap_draw_clear, clear);

int32_t draw_pixel(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y)
{
    return result_of(fill(*map, color, area::of(x, y, 1, 1)));
}

constexpr fbmap_operation pixel_operation(source_file, &operations::m_draw_pixel, kestal_fbmap_draw_pixel, draw_pixel);

int32_t draw_hline(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t length)
{
    return result_of(fill(*map, color, area::of(x, y, length, 1)));
}

constexpr fbmap_operation hline_operation(source_file, &operations::m_draw_hline, kestal_fbmap_draw_hline, draw_hline);

int32_t draw_vline(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t length)
{
    return result_of(fill(*map, color, area::of(x, y, 1, length)));
}

constexpr fbmap_operation vline_operation(source_file, &operations::m_draw_vline, kestal_fbmap_draw_vline, draw_vline);

int32_t draw_box(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t width, uint32_t height,
                 uint32_t filled)
{
    const area box = area::of(x, y, width, height);
    if (filled != 0 || box.empty())
        return result_of(fill(*map, color, box));
    const area edges[] = {
        {box.left, box.top, box.right, box.top + 1},
        {box.left, box.bottom - 1, box.right, box.bottom},
        {box.left, box.top, box.left + 1, box.bottom},
        {box.right - 1, box.top, box.right, box.bottom},
    };
    bool drawn = false;
    for (const area &edge : edges)
        drawn = fill(*map, color, edge) || drawn;
    return result_of(drawn);
}

// --- bits

// The bits of a row that lie in a map of this width.
uint32_t columns_inside(int64_t x, int64_t width)
{
    const int64_t first = std::clamp<int64_t>(-x, 0, 32);
    const int64_t last = std::clamp<int64_t>(width - x, 0, 32);
    const auto from = [](int64_t column) { return static_cast<uint32_t>(UINT64_C(0xFFFFFFFF) >> column); };
    return from(first) & ~from(last);
}

template <size_t bytes>
void put_row(uint8_t *line, uint32_t color, int64_t x, uint32_t bits)
{
    for (; bits != 0; bits &= bits - 1)
        store_pixel<bytes>(line + (x + 31 - std::countr_zero(bits)) * int64_t{bytes}, color);
}

void put_bits(kestal_fbmap_t &map, uint32_t color, int64_t x, int64_t y, std::span<const uint32_t> rows)
{
    const kestal_raw_bitmap_t &bitmap = map.m_bitmap;
    const auto put = with_pixel_bytes(bytes_of(map), [](auto bytes) { return put_row<bytes>; });
    const uint32_t inside = columns_inside(x, bitmap.m_width);
    uint32_t columns = 0;
    area drawn = {0, INT64_MAX, 0, INT64_MIN};
    for (const uint32_t row : rows) {
        const uint32_t bits = y >= 0 && y < bitmap.m_height ? row & inside : 0;
        if (bits != 0) {
            columns |= bits;
            drawn.top = std::min(drawn.top, y);
            drawn.bottom = y + 1;
            put(static_cast<uint8_t *>(bitmap.m_pixels) + static_cast<uint64_t>(y) * bitmap.m_line_length, color, x,
                bits);
        }
        ++y;
    }
    if (columns == 0)
        return;
    drawn.left = x + std::countl_zero(columns);
    drawn.right = x + 32 - std::countr_zero(columns);
    note_change(map, drawn);
}

// --- lines

struct point {
    int64_t x;
    int64_t y;
};

enum outcode : uint32_t { left_of = 1, right_of = 2, above = 4, below = 8 };

uint32_t outcode_of(point at, point last)
{
    return (at.x < 0 ? left_of : at.x > last.x ? right_of : 0u) | (at.y < 0 ? above : at.y > last.y ? below : 0u);
}

// Cuts a line to (0, 0) ... `last`, by Cohen and Sutherland. False when all of it lies outside. The second end is cut
// only when the first is inside: so no product leaves 64 bits.
bool clip_line(point &from, point &to, point last)
{
    for (;;) {
        const uint32_t from_code = outcode_of(from, last);
        const uint32_t to_code = outcode_of(to, last);
        if ((from_code | to_code) == 0)
            return true;
        if ((from_code & to_code) != 0)
            return false;
        const uint32_t code = from_code != 0 ? from_code : to_code;
        point cut;
        // NOLINTBEGIN(clang-analyzer-core.DivideZero): only one end lies beyond that edge, so the ends differ there
        if ((code & (above | below)) != 0) {
            cut.y = (code & above) != 0 ? 0 : last.y;
            cut.x = from.x + (to.x - from.x) * (cut.y - from.y) / (to.y - from.y);
        } else {
            cut.x = (code & left_of) != 0 ? 0 : last.x;
            cut.y = from.y + (to.y - from.y) * (cut.x - from.x) / (to.x - from.x);
        }
        // NOLINTEND(clang-analyzer-core.DivideZero)
        (from_code != 0 ? from : to) = cut;
    }
}

// A line's way from its first pixel on, in bytes.
struct line_steps {
    int64_t x_distance;
    int64_t y_distance;
    ptrdiff_t x_step;
    ptrdiff_t y_step;
};

template <size_t bytes>
void put_line(uint8_t *at, uint32_t color, const line_steps &line)
{
    const int64_t longer = std::max(line.x_distance, line.y_distance);
    int64_t x_error = 0;
    int64_t y_error = 0;
    store_pixel<bytes>(at, color);
    for (int64_t i = 0; i < longer; ++i) {
        if ((x_error += line.x_distance) >= longer) {
            x_error -= longer;
            at += line.x_step;
        }
        if ((y_error += line.y_distance) >= longer) {
            y_error -= longer;
            at += line.y_step;
        }
        store_pixel<bytes>(at, color);
    }
}

int32_t draw_line(kestal_fbmap_t *map, uint32_t color, int32_t x1, int32_t y1, int32_t x2, int32_t y2)
{
    const kestal_raw_bitmap_t &bitmap = map->m_bitmap;
    point from = {x1, y1};
    point to = {x2, y2};
    if (bitmap.m_pixels == nullptr || whole_of(bitmap).empty() ||
        !clip_line(from, to, {int64_t{bitmap.m_width} - 1, int64_t{bitmap.m_height} - 1}))
        return -1;
    const area around = {std::min(from.x, to.x), std::min(from.y, to.y), std::max(from.x, to.x) + 1,
                         std::max(from.y, to.y) + 1};
    if (around.width() == 1 || around.height() == 1)
        return result_of(fill(*map, color, around));

    const auto pixel = static_cast<ptrdiff_t>(bytes_of(*map));
    const auto row = static_cast<ptrdiff_t>(bitmap.m_line_length);
    const line_steps steps = {around.width() - 1, around.height() - 1, to.x > from.x ? pixel : -pixel,
                              to.y > from.y ? row : -row};
    uint8_t *first = pixel_at(bitmap, bytes_of(*map), static_cast<uint64_t>(from.x), static_cast<uint64_t>(from.y));
    with_pixel_bytes(bytes_of(*map), [&](auto bytes) { put_line<bytes>(first, color, steps); });
    note_change(*map, around);
    return 0;
}

// --- circles

// The largest number whose square is at most `value`.
uint64_t square_root(uint64_t value)
{
    uint64_t root = 0;
    for (uint64_t bit = uint64_t{1} << 31; bit != 0; bit >>= 1) {
        if ((root | bit) * (root | bit) <= value)
            root |= bit;
    }
    return root;
}

// The circle that the midpoint algorithm draws: at a distance x from the centre along one axis it is the largest y away
// along the other for which x^2 + (y - 1/2)^2 < radius^2, as long as x <= y. Found for one x without walking there, it
// costs what is seen and not what the radius is.
class midpoint_circle {
public:
    explicit midpoint_circle(uint32_t radius) : limit_(uint64_t{radius} * radius - 1) {}

    // False where x is past the diagonal.
    bool find(uint64_t x, uint64_t &y) const
    {
        if (x * x > limit_)
            return false;
        const uint64_t rest = limit_ - x * x;
        const uint64_t root = square_root(rest);
        y = root * (root + 1) <= rest ? root + 1 : root;
        return x <= y;
    }

    // Half of the row at a distance y of at most the radius from the centre.
    uint64_t half_row(uint64_t y) const
    {
        uint64_t half = 0;
        return find(y, half) ? half : std::min(square_root(limit_ - y * (y - 1)), y);
    }

private:
    uint64_t limit_;
};

uint64_t distance(int64_t from, int64_t to)
{
    return static_cast<uint64_t>(from < to ? to - from : from - to);
}

bool put(kestal_fbmap_t &map, uint32_t color, int64_t x, int64_t y)
{
    if (x < 0 || y < 0 || x >= map.m_bitmap.m_width || y >= map.m_bitmap.m_height)
        return false;
    return pixel_operation.run(map, color, static_cast<int32_t>(x), static_cast<int32_t>(y)) == 0;
}

bool fill_circle(kestal_fbmap_t &map, uint32_t color, point centre, uint32_t radius, const area &seen)
{
    const midpoint_circle circle(radius);
    bool drawn = false;
    for (int64_t y = seen.top; y < seen.bottom; ++y) {
        const auto half = static_cast<int64_t>(circle.half_row(distance(y, centre.y)));
        const area row = area{centre.x - half, y, centre.x + half + 1, y + 1}.cut_to(seen);
        if (!row.empty())
            drawn = hline_operation.run(map, color, static_cast<int32_t>(row.left), static_cast<int32_t>(y),
                                        static_cast<uint32_t>(row.width())) == 0 ||
                    drawn;
    }
    return drawn;
}

bool outline_circle(kestal_fbmap_t &map, uint32_t color, point centre, uint32_t radius, const area &seen)
{
    const midpoint_circle circle(radius);
    bool drawn = false;
    uint64_t away = 0;
    for (int64_t x = seen.left; x < seen.right; ++x) {
        if (!circle.find(distance(x, centre.x), away))
            continue;
        drawn = put(map, color, x, centre.y - static_cast<int64_t>(away)) || drawn;
        drawn = put(map, color, x, centre.y + static_cast<int64_t>(away)) || drawn;
    }
    for (int64_t y = seen.top; y < seen.bottom; ++y) {
        if (!circle.find(distance(y, centre.y), away))
            continue;
        drawn = put(map, color, centre.x - static_cast<int64_t>(away), y) || drawn;
        drawn = put(map, color, centre.x + static_cast<int64_t>(away), y) || drawn;
    }
    return drawn;
}

int32_t draw_circle(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t radius, uint32_t filled)
{
    if (radius == 0)
        return pixel_operation.run(*map, color, x, y);
    const point centre = {x, y};
    const int64_t away = radius;
    const area seen = area{x - away, y - away, x + away + 1, y + away + 1}.cut_to(whole_of(map->m_bitmap));
    if (seen.empty())
        return -1;
    return result_of(filled != 0 ? fill_circle(*map, color, centre, radius, seen)
                                 : outline_circle(*map, color, centre, radius, seen));
}

// --- flood

// Where runs of the old colour may start, last in, first out.
class seeds {
public:
    seeds() = default;
    ~seeds() { kestal_check_free_tag(places_, "kestal_fbmap_draw_fill", __LINE__); }
    seeds(const seeds &) = delete;
    seeds &operator=(const seeds &) = delete;

    bool push(uint32_t x, uint32_t y)
    {
        if (count_ == room_ && !grow())
            return false;
        places_[count_++] = {x, y};
        return true;
    }

    bool pop(uint32_t &x, uint32_t &y)
    {
        if (count_ == 0)
            return false;
        x = places_[--count_].x;
        y = places_[count_].y;
        return true;
    }

private:
    struct place {
        uint32_t x;
        uint32_t y;
    };

    bool grow()
    {
        const uint64_t room = room_ == 0 ? 256 : 2 * room_;
        auto *places = static_cast<place *>(kestal_alloc_tag(room * sizeof(place), "kestal_fbmap_draw_fill", __LINE__));
        if (places == nullptr)
            return false;
        if (count_ > 0)
            memcpy(places, places_, static_cast<size_t>(count_ * sizeof(place)));
        kestal_check_free_tag(places_, "kestal_fbmap_draw_fill", __LINE__);
        places_ = places;
        room_ = room;
        return true;
    }

    place *places_ = nullptr;
    uint64_t count_ = 0;
    uint64_t room_ = 0;
};

// The first place from `x` up to `end` in a row whose pixel is the colour, or, with `other`, is not.
template <size_t bytes>
uint32_t find_in_row(const uint8_t *row, uint32_t color, uint32_t x, uint32_t end, bool other)
{
    while (x < end && (load_pixel<bytes>(row + uint64_t{x} * bytes) != color) != other)
        ++x;
    return x;
}

// One flood: runs of the old colour are replaced whole, and the rows above and below searched for more along them.
class flood {
public:
    flood(kestal_fbmap_t &map, uint32_t color, uint32_t old_color)
        : map_(map), color_(color), old_color_(old_color), bytes_(bytes_of(map)),
          find_(with_pixel_bytes(bytes_, [](auto bytes) { return find_in_row<bytes>; }))
    {}

    bool run(uint32_t x, uint32_t y)
    {
        bool room = seeds_.push(x, y);
        while (room && seeds_.pop(x, y)) {
            if (is_old(x, y))
                room = replace_run(x, y);
        }
        return room;
    }

private:
    uint32_t find(uint32_t x, uint32_t end, uint32_t y, bool other) const
    {
        return find_(pixel_at(map_.m_bitmap, bytes_, 0, y), old_color_, x, end, other);
    }

    bool is_old(uint32_t x, uint32_t y) const
    {
        return load_pixel(pixel_at(map_.m_bitmap, bytes_, x, y), bytes_) == old_color_;
    }

    bool replace_run(uint32_t x, uint32_t y)
    {
        uint32_t first = x;
        while (first > 0 && is_old(first - 1, y))
            --first;
        const uint32_t end = find(x, map_.m_bitmap.m_width, y, true);
        fill(map_, color_, {first, y, end, int64_t{y} + 1});
        return (y == 0 || search(first, end, y - 1)) && (y + 1 >= map_.m_bitmap.m_height || search(first, end, y + 1));
    }

    bool search(uint32_t x, uint32_t end, uint32_t y)
    {
        while ((x = find(x, end, y, false)) < end) {
            if (!seeds_.push(x, y))
                return false;
            x = find(x, end, y, true);
        }
        return true;
    }

    kestal_fbmap_t &map_;
    uint32_t color_;
    uint32_t old_color_;
    size_t bytes_;
    uint32_t (*find_)(const uint8_t *row, uint32_t color, uint32_t x, uint32_t end, bool other);
    seeds seeds_;
};

int32_t draw_fill(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y)
{
    const kestal_raw_bitmap_t &bitmap = map->m_bitmap;
    if (bitmap.m_pixels == nullptr || area::of(x, y, 1, 1).cut_to(whole_of(bitmap)).empty())
        return -1;
    const auto column = static_cast<uint32_t>(x);
    const auto row = static_cast<uint32_t>(y);
    const size_t bytes = bytes_of(*map);
    const uint32_t old_color = load_pixel(pixel_at(bitmap, bytes, column, row), bytes);
    if (old_color == (color & pixel_mask(bytes)))
        return 0;
    return result_of(flood(*map, color, old_color).run(column, row));
}

constexpr fbmap_operation flood_operation(source_file, &operations::m_draw_fill, kestal_fbmap_draw_fill, draw_fill);

uint32_t convert_color(kestal_fbmap_t *, uint32_t target, uint32_t source, uint32_t color)
{
    return kestal_convert_color(target, source, color);
}

constexpr fbmap_operation convert_operation(source_file, &operations::m_convert_color, kestal_fbmap_convert_color,
                                            convert_color);

} // namespace

constinit const decltype(kestal::box_operation) kestal::box_operation(source_file, &operations::m_draw_box,
                                                                      kestal_fbmap_draw_box, draw_box);
constinit const decltype(kestal::line_operation) kestal::line_operation(source_file, &operations::m_draw_line,
                                                                        kestal_fbmap_draw_line, draw_line);
constinit const decltype(kestal::circle_operation) kestal::circle_operation(source_file, &operations::m_draw_circle,
                                                                            kestal_fbmap_draw_circle, draw_circle);

bool kestal::fill_area(kestal_fbmap_t &map, uint32_t color, const area &asked)
{
    const kestal_rectangle_t inside = asked.cut_to(whole_of(map.m_bitmap)).rectangle();
    return inside.m_width != 0 &&
           box_operation.run(map, color, inside.m_x, inside.m_y, inside.m_width, inside.m_height, 1) == 0;
}

bool kestal::draw_bits(kestal_fbmap_t &map, uint32_t color, int64_t x, int64_t y, std::span<const uint32_t> rows)
{
    if (!box_operation.is_built_in(map))
        return false;
    if (map.m_bitmap.m_pixels != nullptr)
        put_bits(map, color, x, y, rows);
    return true;
}

uint32_t kestal_fbmap_convert_color(kestal_fbmap_t *map, uint32_t target, uint32_t source, uint32_t color)
{
    if (map == nullptr)
        return kestal_convert_color(target, source, color);
    return convert_operation.enter(map, target, source, color);
}

int32_t kestal_fbmap_draw_clear(kestal_fbmap_t *map, uint32_t color)
{
    return clear_operation.enter(map, color);
}

int32_t kestal_fbmap_draw_pixel(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y)
{
    return pixel_operation.enter(map, color, x, y);
}

int32_t kestal_fbmap_draw_hline(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t length)
{
    return hline_operation.enter(map, color, x, y, length);
}

int32_t kestal_fbmap_draw_vline(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t length)
{
    return vline_operation.enter(map, color, x, y, length);
}

int32_t kestal_fbmap_draw_box(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t width,
                              uint32_t height, uint32_t fill)
{
    return box_operation.enter(map, color, x, y, width, height, fill);
}

int32_t kestal_fbmap_draw_line(kestal_fbmap_t *map, uint32_t color, int32_t x1, int32_t y1, int32_t x2, int32_t y2)
{
    return line_operation.enter(map, color, x1, y1, x2, y2);
}

int32_t kestal_fbmap_draw_circle(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y, uint32_t radius,
                                 uint32_t fill)
{
    return circle_operation.enter(map, color, x, y, radius, fill);
}

int32_t kestal_fbmap_draw_fill(kestal_fbmap_t *map, uint32_t color, int32_t x, int32_t y)
{
    return flood_operation.enter(map, color, x, y);
}
