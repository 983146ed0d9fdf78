// Rectangles as their edges, in numbers wide enough that no sum of coordinates overflows.
#pragma once

#include <kestal_ulx/geometry.h>

#include <algorithm>

namespace kestal {

// The nearest coordinate to a number.
constexpr int32_t limited(int64_t value)
{
    return static_cast<int32_t>(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX));
}

// From left and top up to, not including, right and bottom.
struct area {
    int64_t left;
    int64_t top;
    int64_t right;
    int64_t bottom;

    static constexpr area of(const kestal_rectangle_t &rectangle)
    {
        return of(rectangle.m_x, rectangle.m_y, rectangle.m_width, rectangle.m_height);
    }
    static constexpr area of(int64_t x, int64_t y, int64_t width, int64_t height)
    {
        return {x, y, x + width, y + height};
    }

    constexpr int64_t width() const { return right - left; }
    constexpr int64_t height() const { return bottom - top; }
    constexpr bool empty() const { return right <= left || bottom <= top; }

    constexpr area cut_to(const area &other) const
    {
        return {std::max(left, other.left), std::max(top, other.top), std::min(right, other.right),
                std::min(bottom, other.bottom)};
    }
    constexpr area moved(int64_t x, int64_t y) const { return {left + x, top + y, right + x, bottom + y}; }

    // The smallest area around both; empty ones do not count.
    constexpr area joined(const area &other) const
    {
        if (empty())
            return other;
        if (other.empty())
            return *this;
        return {std::min(left, other.left), std::min(top, other.top), std::max(right, other.right),
                std::max(bottom, other.bottom)};
    }

    // For areas within 32 bits.
    constexpr kestal_rectangle_t rectangle() const
    {
        if (empty())
            return {};
        return {static_cast<int32_t>(left), static_cast<int32_t>(top), static_cast<uint32_t>(width()),
                static_cast<uint32_t>(height())};
    }
};

} // namespace kestal
