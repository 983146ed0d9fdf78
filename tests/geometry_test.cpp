#include "support.hpp"

#include <cmath>

namespace {

TEST(geometry, rectangles_reach_to_the_ends_of_the_numbers)
{
    const kestal_rectangle_t all = {INT32_MIN, INT32_MIN, UINT32_MAX, UINT32_MAX};
    const kestal_rectangle_t corner = {INT32_MAX - 1, INT32_MAX - 1, UINT32_MAX, UINT32_MAX};
    kestal_rectangle_t overlap, pieces[KESTAL_SEPARATE_PIECES];
    EXPECT_EQ(kestal_sep_overlap_window(&corner, &all, &overlap, pieces), 2u);
    EXPECT_EQ(overlap.m_width, 1u);
    EXPECT_EQ(std::pair(pieces[0].m_x, pieces[0].m_width), std::pair(INT32_MAX, 1u));
    EXPECT_EQ(kestal_sep_overlap_window(&all, nullptr, nullptr, nullptr), 1u);
}

TEST(geometry, turns_points_to_the_nearest_whole_ones)
{
    for (int32_t angle = -720; angle <= 720; angle += 7)
        for (const auto &[x, y] : {std::pair{1, 0}, {0, 1}, {1000, -77}, {-123456789, 987654321}}) {
            int32_t turned_x = x, turned_y = y;
            kestal_rotate_point(&turned_x, &turned_y, angle);
            const double radians = angle * 3.14159265358979323846 / 180;
            const double most = x < -1000 ? 1.6 : 0.501;
            EXPECT_NEAR(turned_x, x * cos(radians) - y * sin(radians), most);
            EXPECT_NEAR(turned_y, x * sin(radians) + y * cos(radians), most);
        }
    int32_t x = INT32_MIN, y = INT32_MIN;
    kestal_rotate_point(&x, &y, 45);
    EXPECT_EQ(std::pair(x, y), std::pair(0, INT32_MIN));
}

} // namespace
