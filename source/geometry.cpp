#include <kestal_ulx/geometry.h>

#include "geometry.hpp"

#include <array>

namespace {

using kestal::area;

constexpr int64_t coordinate_end = int64_t{INT32_MAX} + 1;

area area_of(const kestal_rectangle_t *rectangle)
{
    if (rectangle == nullptr)
        return {};
    const area whole = area::of(*rectangle);
    return {whole.left, whole.top, std::min(whole.right, coordinate_end), std::min(whole.bottom, coordinate_end)};
}

// --- angles: sines of 0 to 90 degrees as fractions of 2^30

constexpr int fraction_bits = 30;
constexpr int64_t one = int64_t{1} << fraction_bits;

constexpr std::array<int64_t, 91> make_sines()
{
    std::array<int64_t, 91> sines{};
    for (int degrees = 0; degrees <= 90; ++degrees) {
        const double angle = degrees * 3.14159265358979323846 / 180;
        double term = angle;
        double sum = angle;
        for (int i = 1; i <= 12; ++i) {
            term *= -angle * angle / (2 * i * (2 * i + 1));
            sum += term;
        }
        sines[static_cast<size_t>(degrees)] = static_cast<int64_t>(sum * static_cast<double>(one) + 0.5);
    }
    return sines;
}

constexpr std::array<int64_t, 91> sines = make_sines();
static_assert(sines[0] == 0 && sines[30] == one / 2 && sines[90] == one);

// The sine of 0 to 359 degrees.
int64_t sine(int degrees)
{
    const int half_turn = degrees % 180;
    const int64_t magnitude = sines[static_cast<size_t>(half_turn <= 90 ? half_turn : 180 - half_turn)];
    return degrees < 180 ? magnitude : -magnitude;
}

int32_t rounded(int64_t fraction)
{
    return kestal::limited((fraction + one / 2) >> fraction_bits);
}

} // namespace

uint32_t kestal_sep_overlap_window(const kestal_rectangle_t *window, const kestal_rectangle_t *other,
                                   kestal_rectangle_t *overlap, kestal_rectangle_t *pieces)
{
    const area whole = area_of(window);
    const area both = whole.cut_to(area_of(other));
    if (overlap != nullptr)
        *overlap = both.rectangle();

    const area around[] = {
        {whole.left, whole.top, whole.right, both.top},
        {whole.left, both.top, both.left, both.bottom},
        {both.right, both.top, whole.right, both.bottom},
        {whole.left, both.bottom, whole.right, whole.bottom},
    };
    uint32_t count = 0;
    const auto add = [&](const area &piece) {
        if (piece.empty())
            return;
        if (pieces != nullptr)
            pieces[count] = piece.rectangle();
        ++count;
    };
    if (both.empty())
        add(whole);
    else
        std::for_each(std::begin(around), std::end(around), add);
    return count;
}

void kestal_rotate_point(int32_t *x, int32_t *y, int32_t angle)
{
    if (x == nullptr || y == nullptr)
        return;
    const int degrees = (angle % 360 + 360) % 360;
    const int64_t sin = sine(degrees);
    const int64_t cos = sine((degrees + 90) % 360);
    const int64_t turned_x = *x * cos - *y * sin;
    const int64_t turned_y = *x * sin + *y * cos;
    *x = rounded(turned_x);
    *y = rounded(turned_y);
}
