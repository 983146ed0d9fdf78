// Copies between bitmaps, row by row: where they go, and the walk over their rows with whatever is done to each.
#pragma once

#include <kestal_ulx/raw_bitmap.h>

#include "color.hpp"
#include "geometry.hpp"

#include <string.h>

namespace kestal {

// The part of a copy at the same size that both bitmaps have: as large here as there.
struct placed_copy {
    uint64_t from_x;
    uint64_t from_y;
    uint64_t to_x;
    uint64_t to_y;
    uint64_t width;
    uint64_t height;

    area target() const
    {
        return area::of(static_cast<int64_t>(to_x), static_cast<int64_t>(to_y), static_cast<int64_t>(width),
                        static_cast<int64_t>(height));
    }
};

// Where the rectangle (null: all) of the source goes in the target, cut to both. False when nothing is left.
bool place_copy(const kestal_raw_bitmap_t &target, const kestal_raw_bitmap_t &source, int32_t x, int32_t y,
                const kestal_rectangle_t *rectangle, placed_copy &placed);

// One direction of a scaled copy: pixels `first` to `last` - 1 of the target, each from the nearest one of the source.
// The walk along it needs no division.
class scaled_axis {
public:
    scaled_axis(int64_t to, uint32_t to_length, uint32_t to_limit, int64_t from, uint32_t from_length,
                uint32_t from_limit);

    bool empty() const { return count_ == 0; }
    uint64_t target() const { return target_; }
    uint64_t count() const { return count_; }
    uint64_t source() const { return source_; }

    void advance()
    {
        source_ += step_;
        remainder_ += step_remainder_;
        if (remainder_ >= to_length_) {
            remainder_ -= to_length_;
            ++source_;
        }
    }

private:
    uint64_t to_length_;
    uint64_t target_ = 0;
    uint64_t count_ = 0;
    uint64_t source_ = 0;
    uint64_t remainder_ = 0;
    uint64_t step_ = 0;
    uint64_t step_remainder_ = 0;
};

// A scaled copy, cut to both bitmaps.
struct scaled_copy {
    scaled_axis x;
    scaled_axis y;

    scaled_copy(const kestal_raw_bitmap_t &target, const kestal_raw_bitmap_t &source,
                const kestal_rectangle_t *target_rectangle, const kestal_rectangle_t *source_rectangle);
    scaled_copy(const kestal_raw_bitmap_t &target, const kestal_raw_bitmap_t &source, const kestal_rectangle_t &to,
                const kestal_rectangle_t &from);

    bool empty() const { return x.empty() || y.empty(); }
    area target() const
    {
        return area::of(static_cast<int64_t>(x.target()), static_cast<int64_t>(y.target()),
                        static_cast<int64_t>(x.count()), static_cast<int64_t>(y.count()));
    }
};

inline uint8_t *pixel_at(const kestal_raw_bitmap_t &bitmap, uint64_t bytes, uint64_t x, uint64_t y)
{
    return static_cast<uint8_t *>(bitmap.m_pixels) + (y * bitmap.m_line_length + x * bytes);
}

// Calls write(target row, source row, count) for each row; once for rows that follow each other without a gap in both
// bitmaps, and from the bottom up where the copy moves pixels down inside one memory.
template <typename Writer>
void for_each_row(const kestal_raw_bitmap_t &target, uint64_t target_bytes, const kestal_raw_bitmap_t &source,
                  uint64_t source_bytes, const placed_copy &placed, Writer write)
{
    const uint8_t *from = pixel_at(source, source_bytes, placed.from_x, placed.from_y);
    uint8_t *to = pixel_at(target, target_bytes, placed.to_x, placed.to_y);
    if (placed.width * target_bytes == target.m_line_length && placed.width * source_bytes == source.m_line_length)
        return write(to, from, static_cast<size_t>(placed.width * placed.height));
    const bool upwards = to > from && to < from + placed.height * source.m_line_length;
    for (uint64_t i = 0; i < placed.height; ++i) {
        const uint64_t row = upwards ? placed.height - 1 - i : i;
        write(to + row * target.m_line_length, from + row * source.m_line_length, static_cast<size_t>(placed.width));
    }
}

// Picks `count` pixels along the axis, which moves on, into neighbouring ones.
void gather_pixels(uint8_t *to, const uint8_t *row, uint64_t bytes, scaled_axis &axis, uint64_t count);

// for_each_row for a scaled copy: the rows come in parts, gathered at the target's size.
template <typename Writer>
void for_each_scaled_row(const kestal_raw_bitmap_t &target, uint64_t target_bytes, const kestal_raw_bitmap_t &source,
                         uint64_t source_bytes, const scaled_copy &scaled, Writer write)
{
    constexpr uint64_t part = 256;
    alignas(4) uint8_t gathered[part * 4];
    scaled_axis y = scaled.y;
    for (uint64_t row = 0; row < y.count(); ++row, y.advance()) {
        uint8_t *to = pixel_at(target, target_bytes, scaled.x.target(), y.target() + row);
        const uint8_t *from = pixel_at(source, source_bytes, 0, y.source());
        scaled_axis x = scaled.x;
        for (uint64_t done = 0; done < x.count(); done += part) {
            const uint64_t count = std::min(part, x.count() - done);
            gather_pixels(gathered, from, source_bytes, x, count);
            write(to + done * target_bytes, gathered, static_cast<size_t>(count));
        }
    }
}

} // namespace kestal
