#include "support.hpp"

#include "../source/pixel.hpp"

#include <cstring>
#include <random>

using kestal_test::caught_assertions;

namespace {

// Pixels with bytes between the rows that must stay as they are.
struct bitmap {
    bitmap(uint32_t code, uint32_t width, uint32_t height)
        : bytes(kestal_color_interface_to_bits_per_pixel(code) / 8), memory((width * bytes + 3) * height, 0x11)
    {
        raw = {memory.size(), memory.data(), code, width, height, 0, width * bytes + 3};
    }

    size_t place(int64_t x, int64_t y) const
    {
        return static_cast<size_t>(y) * static_cast<size_t>(raw.m_line_length) + static_cast<size_t>(x) * bytes;
    }
    uint32_t at(int64_t x, int64_t y) const { return kestal::load_pixel(memory.data() + place(x, y), bytes); }
    void set(int64_t x, int64_t y, uint32_t value) { kestal::store_pixel(memory.data() + place(x, y), bytes, value); }
    bool has(int64_t x, int64_t y) const { return x >= 0 && y >= 0 && x < raw.m_width && y < raw.m_height; }

    uint32_t bytes;
    std::vector<uint8_t> memory;
    kestal_raw_bitmap_t raw;
};

constexpr uint32_t codes[] = {KESTAL_COLOR_DRGB0233, KESTAL_COLOR_DRGB0565, KESTAL_COLOR_DRGB0888,
                              KESTAL_COLOR_ARGB8888, KESTAL_COLOR_DDDP0008, KESTAL_COLOR_ABGR8888};

constexpr kestal_rectangle_t rectangles[] = {
    {0, 0, 7, 9},           {2, 1, 3, 4},
    {-2, -3, 5, 8},         {5, 7, 40, 40},
    {3, 3, 0, 2},           {6, 8, 1, 1},
    {7, 0, 3, 3},           {-9, 0, 9, 9},
    {0, 0, UINT32_MAX, 5},  {INT32_MIN, 2, UINT32_MAX, 3},
    {0, 0, 70, 3},          {-1, -1, 9, 1},
    {1, 1, 5, 0x80000000u}, {INT32_MAX, INT32_MAX, UINT32_MAX, UINT32_MAX},
};

int64_t scaled_index(int64_t index, uint32_t from_length, uint32_t to_length)
{
    return static_cast<int64_t>(static_cast<uint64_t>(index) * from_length / to_length);
}

// The same picture once by the library and once pixel by pixel, for pixel i of the target's n from i * m / n of m.
void check(uint32_t source_code, uint32_t target_code, const kestal_rectangle_t &to, const kestal_rectangle_t &from,
           bool scaled)
{
    std::mt19937 random(1);
    bitmap source(source_code, 7, 9), target(target_code, 8, 10);
    for (uint8_t &byte : source.memory)
        byte = static_cast<uint8_t>(random());
    bitmap expected = target;
    bool any = false;
    for (int64_t y = 0; y < 10; ++y)
        for (int64_t x = 0; x < 8; ++x) {
            const int64_t column = x - to.m_x, row = y - to.m_y;
            if (column < 0 || row < 0 || column >= to.m_width || row >= to.m_height || from.m_width == 0 ||
                from.m_height == 0)
                continue;
            const int64_t from_x = from.m_x + scaled_index(column, from.m_width, to.m_width);
            const int64_t from_y = from.m_y + scaled_index(row, from.m_height, to.m_height);
            if (!source.has(from_x, from_y))
                continue;
            expected.set(x, y, kestal_convert_color(target_code, source_code, source.at(from_x, from_y)));
            any = true;
        }
    const int32_t result = scaled ? kestal_copy_raw_bitmap_scale(&target.raw, &source.raw, &to, &from)
                                  : kestal_copy_raw_bitmap(&target.raw, &source.raw, to.m_x, to.m_y, &from);
    ASSERT_EQ(result, any ? 0 : -1);
    ASSERT_EQ(target.memory, expected.memory);
}

TEST(raw_bitmap, copies_what_both_have)
{
    for (const uint32_t source_code : codes)
        for (const uint32_t target_code : codes)
            for (const kestal_rectangle_t &from : rectangles)
                for (const int32_t x : {INT32_MIN, -4, 0, 3, 8, INT32_MAX})
                    for (const int32_t y : {-9, 0, 2})
                        check(source_code, target_code, {x, y, from.m_width, from.m_height}, from, false);
}

TEST(raw_bitmap, scales_to_the_nearest_pixel)
{
    for (const uint32_t code : codes)
        for (const kestal_rectangle_t &from : rectangles)
            for (const kestal_rectangle_t &to : rectangles) {
                check(code, code, to, from, true);
                check(code, KESTAL_COLOR_ARGB8888, to, from, true);
            }
    bitmap wide(KESTAL_COLOR_DRGB0565, 700, 2), small(KESTAL_COLOR_DRGB0565, 2, 1);
    small.set(1, 0, 0xBEEF);
    EXPECT_EQ(kestal_copy_raw_bitmap_scale(&wide.raw, &small.raw, nullptr, nullptr), 0);
    EXPECT_EQ(wide.at(349, 1), 0x1111u);
    EXPECT_EQ(wide.at(350, 1), 0xBEEFu);
    EXPECT_EQ(wide.at(699, 0), 0xBEEFu);
}

TEST(raw_bitmap, overlapping_in_one_memory_scrolls)
{
    for (const auto &[x, y] : {std::pair{0, 3}, {0, -3}, {2, 0}, {-2, 0}, {1, 2}, {-2, -1}}) {
        bitmap picture(KESTAL_COLOR_DRGB0888, 20, 15);
        for (int64_t i = 0; i < 300; ++i)
            picture.set(i % 20, i / 20, static_cast<uint32_t>(i));
        EXPECT_EQ(kestal_copy_raw_bitmap(&picture.raw, &picture.raw, x, y, nullptr), 0);
        for (int64_t i = 0; i < 300; ++i) {
            const int64_t from_x = i % 20 - x, from_y = i / 20 - y;
            const int64_t expected = picture.has(from_x, from_y) ? from_y * 20 + from_x : i;
            ASSERT_EQ(picture.at(i % 20, i / 20), expected);
        }
    }
}

TEST(raw_bitmap, refuses_what_is_no_bitmap)
{
    const caught_assertions reports;
    bitmap good(KESTAL_COLOR_DRGB0565, 4, 4), same(0, 4, 4);
    kestal_raw_bitmap_t odd = good.raw, empty = good.raw;
    odd.m_color_interface = KESTAL_COLOR_PPPP1111;
    empty.m_pixels = nullptr;
    EXPECT_EQ(kestal_copy_raw_bitmap(nullptr, &good.raw, 0, 0, nullptr), -1);
    EXPECT_EQ(kestal_copy_raw_bitmap(&good.raw, nullptr, 0, 0, nullptr), -1);
    EXPECT_EQ(kestal_copy_raw_bitmap(&good.raw, &odd, 0, 0, nullptr), -1);
    EXPECT_EQ(kestal_copy_raw_bitmap_scale(&odd, &good.raw, nullptr, nullptr), -1);
    EXPECT_EQ(kestal_copy_raw_bitmap(&good.raw, &empty, 0, 0, nullptr), -1);
    EXPECT_EQ(reports.messages(), (std::vector<std::string>{"s_to_raw_bitmap is null !", "s_from_raw_bitmap is null !",
                                                            "not supported", "not supported"}));
    // A target without a format takes the source's.
    same.memory.assign(4 * 8, 0);
    same.raw = {32, same.memory.data(), 0, 4, 4, 0, 8};
    EXPECT_EQ(kestal_copy_raw_bitmap(&same.raw, &good.raw, 0, 0, nullptr), 0);
    EXPECT_EQ(same.memory, std::vector<uint8_t>(32, 0x11));
}

} // namespace
