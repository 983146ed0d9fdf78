#include "pictures.hpp"

using namespace kestal_test;

namespace {

constexpr uint32_t codes[] = {KESTAL_COLOR_DRGB0233, KESTAL_COLOR_DRGB0565, KESTAL_COLOR_DRGB0888,
                              KESTAL_COLOR_ARGB8888, KESTAL_COLOR_DDDP0008, KESTAL_COLOR_ABGR8888};

constexpr kestal_rectangle_t rectangles[] = {
    {0, 0, 7, 9},          {2, 1, 3, 4},  {-2, -3, 5, 8},         {5, 7, 40, 40},
    {3, 3, 0, 2},          {6, 8, 1, 1},  {-9, 0, 9, 9},          {INT32_MIN, 2, UINT32_MAX, 3},
    {0, 0, UINT32_MAX, 5}, {0, 0, 70, 3}, {1, 1, 5, 0x80000000u}, {INT32_MAX, INT32_MAX, UINT32_MAX, UINT32_MAX},
};

bool has(const kestal_raw_bitmap_t &bitmap, int64_t x, int64_t y)
{
    return x >= 0 && y >= 0 && x < bitmap.m_width && y < bitmap.m_height;
}

// The same picture once by the library and once pixel by pixel, for pixel i of the target's n from i * m / n of m.
void check(uint32_t source_code, uint32_t target_code, const kestal_rectangle_t &to, const kestal_rectangle_t &from,
           bool scaled)
{
    picture source(source_code, 7, 9), target(target_code, 8, 10), expected(target_code, 8, 10);
    dice(1).scribble(source.memory);
    bool any = false;
    for_each_pixel(expected.raw, [&](int64_t x, int64_t y) {
        const auto column = static_cast<uint64_t>(x - to.m_x), row = static_cast<uint64_t>(y - to.m_y);
        if (column >= to.m_width || row >= to.m_height || from.m_width == 0 || from.m_height == 0)
            return;
        const int64_t from_x = from.m_x + static_cast<int64_t>(column * from.m_width / to.m_width);
        const int64_t from_y = from.m_y + static_cast<int64_t>(row * from.m_height / to.m_height);
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

TEST(raw_bitmap, copies_what_both_have_or_the_nearest_pixel_of_it)
{
    for (const uint32_t source_code : codes)
        for (const uint32_t target_code : codes)
            for (const kestal_rectangle_t &from : rectangles)
                for (const kestal_rectangle_t &to : rectangles) {
                    check(source_code, target_code, to, from, true);
                    check(source_code, target_code, {to.m_x, to.m_y, from.m_width, from.m_height}, from, false);
                }
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
    kestal_raw_bitmap_t odd = good.raw, codeless = good.raw;
    odd.m_color_interface = KESTAL_COLOR_PPPP1111;
    codeless.m_color_interface = 0;
    EXPECT_EQ(kestal_copy_raw_bitmap(nullptr, &good.raw, 0, 0, nullptr), -1);
    EXPECT_EQ(kestal_copy_raw_bitmap(&good.raw, nullptr, 0, 0, nullptr), -1);
    EXPECT_EQ(kestal_copy_raw_bitmap_scale(&good.raw, &odd, nullptr, nullptr), -1);
    EXPECT_EQ(reports.messages(),
              (std::vector<std::string>{"s_to_raw_bitmap is null !", "s_from_raw_bitmap is null !", "not supported"}));
    EXPECT_EQ(kestal_copy_raw_bitmap_scale(&codeless, &good.raw, nullptr, nullptr), 0); // a target takes the source's
}

} // namespace
