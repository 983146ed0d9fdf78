#include "support.hpp"

#include <cmath>

namespace {

bool holds(const kestal_rectangle_t &rectangle, int64_t x, int64_t y)
{
    return x >= rectangle.m_x && x < rectangle.m_x + int64_t{rectangle.m_width} && y >= rectangle.m_y &&
           y < rectangle.m_y + int64_t{rectangle.m_height};
}

TEST(geometry, a_rectangle_splits_another_into_parts_that_make_it_up)
{
    const kestal_rectangle_t window = {3, 4, 5, 6};
    for (int32_t x = 0; x < 10; ++x)
        for (int32_t y = 0; y < 12; ++y)
            for (uint32_t width = 0; width < 10; width += 3)
                for (uint32_t height = 0; height < 12; height += 3) {
                    const kestal_rectangle_t other = {x, y, width, height};
                    kestal_rectangle_t overlap, pieces[KESTAL_SEPARATE_PIECES];
                    const uint32_t count = kestal_sep_overlap_window(&window, &other, &overlap, pieces);
                    EXPECT_EQ(kestal_sep_overlap_window(&window, &other, nullptr, nullptr), count);
                    for (int64_t row = 0; row < 15; ++row)
                        for (int64_t column = 0; column < 15; ++column) {
                            const bool in_both = holds(window, column, row) && holds(other, column, row);
                            ASSERT_EQ(holds(overlap, column, row), in_both);
                            int parts = in_both ? 1 : 0;
                            for (uint32_t i = 0; i < count; ++i)
                                parts += holds(pieces[i], column, row) ? 1 : 0;
                            ASSERT_EQ(parts, holds(window, column, row) ? 1 : 0);
                        }
                }
}

TEST(geometry, rectangles_reach_to_the_ends_of_the_numbers)
{
    const kestal_rectangle_t all = {INT32_MIN, INT32_MIN, UINT32_MAX, UINT32_MAX};
    const kestal_rectangle_t corner = {INT32_MAX - 1, INT32_MAX - 1, UINT32_MAX, UINT32_MAX};
    kestal_rectangle_t overlap, pieces[KESTAL_SEPARATE_PIECES];
    EXPECT_EQ(kestal_sep_overlap_window(&corner, &all, &overlap, pieces), 2u);
    EXPECT_EQ(overlap.m_width, 1u);
    EXPECT_EQ(pieces[0].m_x, INT32_MAX);
    EXPECT_EQ(pieces[0].m_width, 1u);
    EXPECT_EQ(kestal_sep_overlap_window(nullptr, &all, &overlap, pieces), 0u);
    EXPECT_EQ(kestal_sep_overlap_window(&all, nullptr, &overlap, pieces), 1u);
    EXPECT_EQ(overlap.m_width, 0u);
}

TEST(geometry, turns_points_to_the_nearest_whole_ones)
{
    for (int32_t angle = -720; angle <= 720; angle += 7)
        for (const auto &[x, y] : {std::pair{1, 0}, {0, 1}, {1000, -77}, {-123456789, 987654321}}) {
            int32_t turned_x = x, turned_y = y;
            kestal_rotate_point(&turned_x, &turned_y, angle);
            const double radians = angle * 3.14159265358979323846 / 180;
            EXPECT_NEAR(turned_x, x * cos(radians) - y * sin(radians), 1.6);
            EXPECT_NEAR(turned_y, x * sin(radians) + y * cos(radians), 1.6);
        }
    for (const auto &[angle, x, y] : {std::tuple{0, 5, 3}, {90, -3, 5}, {180, -5, -3}, {270, 3, -5}, {-90, 3, -5}}) {
        int32_t turned_x = 5, turned_y = 3;
        kestal_rotate_point(&turned_x, &turned_y, angle);
        EXPECT_EQ(turned_x, x);
        EXPECT_EQ(turned_y, y);
    }
    int32_t x = INT32_MIN, y = INT32_MIN;
    kestal_rotate_point(&x, &y, 45);
    EXPECT_EQ(x, 0);
    EXPECT_EQ(y, INT32_MIN);
    kestal_rotate_point(nullptr, &y, INT32_MIN);
}

} // namespace
