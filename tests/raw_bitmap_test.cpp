#include "pictures.hpp"

using namespace kestal_test;

namespace {

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

bool has(const kestal_raw_bitmap_t &bitmap, int64_t x, int64_t y)
{
    return x >= 0 && y >= 0 && x < bitmap.m_width && y < bitmap.m_height;
}

int64_t scaled_index(int64_t index, uint32_t from_length, uint32_t to_length)
{
    return static_cast<int64_t>(static_cast<uint64_t>(index) * from_length / to_length);
}

// The same picture once by the library and once pixel by pixel, for pixel i of the target's n from i * m / n of m.
void check(uint32_t source_code, uint32_t target_code, const kestal_rectangle_t &to, const kestal_rectangle_t &from,
           bool scaled)
{
    picture source(source_code, 7, 9), target(target_code, 8, 10), expected(target_code, 8, 10);
    dice(1).scribble(source.memory);
    bool any = false;
    for_each_pixel(expected.raw, [&](int64_t x, int64_t y) {
        const int64_t column = x - to.m_x, row = y - to.m_y;
        if (column < 0 || row < 0 || column >= to.m_width || row >= to.m_height || from.m_width == 0 ||
            from.m_height == 0)
            return;
        const int64_t from_x = from.m_x + scaled_index(column, from.m_width, to.m_width);
        const int64_t from_y = from.m_y + scaled_index(row, from.m_height, to.m_height);
        if (!has(source.raw, from_x, from_y))
            return;
        set_pixel(expected.raw, x, y,
                  kestal_convert_color(target_code, source_code, pixel_of(source.raw, from_x, from_y)));
        any = true;
    });
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
    picture wide(KESTAL_COLOR_DRGB0565, 700, 2), small(KESTAL_COLOR_DRGB0565, 2, 1);
    set_pixel(small.raw, 1, 0, 0xBEEF);
    EXPECT_EQ(kestal_copy_raw_bitmap_scale(&wide.raw, &small.raw, nullptr, nullptr), 0);
    for_each_pixel(wide.raw,
                   [&](int64_t x, int64_t y) { ASSERT_EQ(pixel_of(wide.raw, x, y), x < 350 ? 0x5A5Au : 0xBEEFu); });
}

TEST(raw_bitmap, overlapping_in_one_memory_scrolls)
{
    for (const auto &[dx, dy] : {std::pair{0, 3}, {0, -3}, {2, 0}, {-2, 0}, {1, 2}, {-2, -1}}) {
        const picture at(KESTAL_COLOR_DRGB0888, 20, 15);
        const auto number = [](int64_t x, int64_t y) { return static_cast<uint32_t>(y * 20 + x); };
        for_each_pixel(at.raw, [&](int64_t x, int64_t y) { set_pixel(at.raw, x, y, number(x, y)); });
        EXPECT_EQ(kestal_copy_raw_bitmap(&at.raw, &at.raw, dx, dy, nullptr), 0);
        for_each_pixel(at.raw, [&](int64_t x, int64_t y) {
            const bool copied = has(at.raw, x - dx, y - dy);
            ASSERT_EQ(pixel_of(at.raw, x, y), copied ? number(x - dx, y - dy) : number(x, y)) << dx << ", " << dy;
        });
    }
}

TEST(raw_bitmap, refuses_what_is_no_bitmap)
{
    const caught_assertions reports;
    const picture good(KESTAL_COLOR_DRGB0565, 4, 4);
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
    uint8_t pixels[32] = {};
    const kestal_raw_bitmap_t same = {sizeof pixels, pixels, 0, 4, 4, 0, 8};
    EXPECT_EQ(kestal_copy_raw_bitmap(&same, &good.raw, 0, 0, nullptr), 0);
    EXPECT_EQ(std::vector<uint8_t>(pixels, pixels + 32), std::vector<uint8_t>(32, picture::paper));
}

} // namespace
