// What the tests of pictures share: pixels of any depth, and bitmaps of which no other byte may change.
#pragma once

#include "support.hpp"

#include "../../source/pixel.hpp"

#include <random>

namespace kestal_test {

// Formats of 8, 16, 24 and 32 bits.
constexpr uint32_t depths[] = {KESTAL_COLOR_DRGB0233, KESTAL_COLOR_DRGB0565, KESTAL_COLOR_DRGB0888,
                               KESTAL_COLOR_ARGB8888};

inline size_t bytes_of(const kestal_raw_bitmap_t &bitmap)
{
    return kestal_color_interface_to_bits_per_pixel(bitmap.m_color_interface) / 8;
}

inline uint8_t *place_of(const kestal_raw_bitmap_t &bitmap, int64_t x, int64_t y)
{
    return static_cast<uint8_t *>(bitmap.m_pixels) + y * static_cast<int64_t>(bitmap.m_line_length) +
           x * static_cast<int64_t>(bytes_of(bitmap));
}

inline uint32_t pixel_of(const kestal_raw_bitmap_t &bitmap, int64_t x, int64_t y)
{
    return kestal::load_pixel(place_of(bitmap, x, y), bytes_of(bitmap));
}

inline void set_pixel(const kestal_raw_bitmap_t &bitmap, int64_t x, int64_t y, uint32_t value)
{
    kestal::store_pixel(place_of(bitmap, x, y), bytes_of(bitmap), value);
}

// Calls body(x, y) for each pixel.
template <typename Body>
void for_each_pixel(const kestal_raw_bitmap_t &bitmap, Body body)
{
    for (int64_t y = 0; y < bitmap.m_height; ++y)
        for (int64_t x = 0; x < bitmap.m_width; ++x)
            body(x, y);
}

// A bitmap in memory of its own: its rows begin at odd addresses too, and there are bytes between them.
struct picture {
    static constexpr uint8_t paper = 0x5A;

    picture(uint32_t code, uint32_t width, uint32_t height)
    {
        const uint64_t line_length = uint64_t{width} * (kestal_color_interface_to_bits_per_pixel(code) / 8) + 5;
        memory.assign(line_length * height + 1, paper);
        raw = {memory.size() - 1, &memory[1], code, width, height, 0, line_length};
    }

    std::vector<uint8_t> memory;
    kestal_raw_bitmap_t raw;
};

// Numbers without order, the same ones in each run.
class dice {
public:
    explicit dice(uint32_t seed) : random_(seed) {}

    uint32_t any() { return static_cast<uint32_t>(random_()); }
    uint32_t below(size_t limit) { return static_cast<uint32_t>(random_() % limit); }
    int32_t between(int32_t least, int32_t most)
    {
        return least + static_cast<int32_t>(below(static_cast<size_t>(most - least + 1)));
    }
    void scribble(std::vector<uint8_t> &bytes)
    {
        for (uint8_t &byte : bytes)
            byte = static_cast<uint8_t>(random_());
    }

private:
    std::mt19937 random_;
};

} // namespace kestal_test
