#include <kestal_ulx/raw_bitmap.h>

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/color.h>

#include "raw_bitmap.hpp"

namespace kestal {

namespace {

template <size_t bytes>
void gather(uint8_t *to, const uint8_t *row, scaled_axis &axis, uint64_t count)
{
    for (uint64_t i = 0; i < count; ++i, axis.advance())
        memcpy(to + i * bytes, row + axis.source() * bytes, bytes);
}

uint64_t divided_up(uint64_t value, uint64_t divisor)
{
    return value / divisor + (value % divisor != 0 ? 1 : 0);
}

} // namespace

bool place_copy(const kestal_raw_bitmap_t &target, const kestal_raw_bitmap_t &source, int32_t x, int32_t y,
                const kestal_rectangle_t *rectangle, placed_copy &placed)
{
    const area whole = area::of(0, 0, source.m_width, source.m_height);
    const area asked = rectangle == nullptr ? whole : area::of(*rectangle);
    const int64_t x_distance = x - asked.left;
    const int64_t y_distance = y - asked.top;
    const area to =
        asked.cut_to(whole).moved(x_distance, y_distance).cut_to(area::of(0, 0, target.m_width, target.m_height));
    if (to.empty())
        return false;
    placed = {static_cast<uint64_t>(to.left - x_distance),
              static_cast<uint64_t>(to.top - y_distance),
              static_cast<uint64_t>(to.left),
              static_cast<uint64_t>(to.top),
              static_cast<uint64_t>(to.width()),
              static_cast<uint64_t>(to.height())};
    return true;
}

scaled_axis::scaled_axis(int64_t to, uint32_t to_length, uint32_t to_limit, int64_t from, uint32_t from_length,
                         uint32_t from_limit)
    : to_length_(to_length)
{
    if (to_length == 0 || from_length == 0)
        return;
    // The first pixel of the target that comes from pixel `index` of the source's stretch, or from behind it.
    const auto first_from = [&](int64_t index) {
        const auto within = static_cast<uint64_t>(std::clamp<int64_t>(index, 0, from_length));
        return static_cast<int64_t>(divided_up(within * to_length, from_length));
    };
    const int64_t first = std::max(std::max<int64_t>(0, -to), first_from(-from));
    const int64_t last = std::min(std::min<int64_t>(to_length, to_limit - to), first_from(from_limit - from));
    if (first >= last)
        return;
    const uint64_t position = static_cast<uint64_t>(first) * from_length;
    target_ = static_cast<uint64_t>(to + first);
    count_ = static_cast<uint64_t>(last - first);
    source_ = static_cast<uint64_t>(from + static_cast<int64_t>(position / to_length));
    remainder_ = position % to_length;
    step_ = from_length / to_length;
    step_remainder_ = from_length % to_length;
}

scaled_copy::scaled_copy(const kestal_raw_bitmap_t &target, const kestal_raw_bitmap_t &source,
                         const kestal_rectangle_t *target_rectangle, const kestal_rectangle_t *source_rectangle)
    : scaled_copy(
          target, source,
          target_rectangle != nullptr ? *target_rectangle : kestal_rectangle_t{0, 0, target.m_width, target.m_height},
          source_rectangle != nullptr ? *source_rectangle : kestal_rectangle_t{0, 0, source.m_width, source.m_height})
{}

scaled_copy::scaled_copy(const kestal_raw_bitmap_t &target, const kestal_raw_bitmap_t &source,
                         const kestal_rectangle_t &to, const kestal_rectangle_t &from)
    : x(to.m_x, to.m_width, target.m_width, from.m_x, from.m_width, source.m_width),
      y(to.m_y, to.m_height, target.m_height, from.m_y, from.m_height, source.m_height)
{}

void gather_pixels(uint8_t *to, const uint8_t *row, uint64_t bytes, scaled_axis &axis, uint64_t count)
{
    switch (bytes) {
    case 1:
        return gather<1>(to, row, axis, count);
    case 2:
        return gather<2>(to, row, axis, count);
    case 3:
        return gather<3>(to, row, axis, count);
    default:
        return gather<4>(to, row, axis, count);
    }
}

} // namespace kestal

namespace {

using namespace kestal;

constexpr const char *source_file = "./source/fbmap_draw";

// A copy between two bitmaps that are there, have pixels, and have a depth that is served.
struct copy_job {
    uint32_t source_bytes;
    uint32_t target_bytes;
    uint32_t target_code;
    bool converts;
};

bool is_given(const void *bitmap, const char *message, const char *function)
{
    if (bitmap == nullptr)
        kestal_assert_fail_tag(source_file, function, __LINE__, message);
    return bitmap != nullptr;
}

bool prepare(const kestal_raw_bitmap_t *target, const kestal_raw_bitmap_t *source, copy_job &job, const char *function)
{
    if (!is_given(target, "s_to_raw_bitmap is null !", function) ||
        !is_given(source, "s_from_raw_bitmap is null !", function))
        return false;
    job.target_code = target->m_color_interface != 0 ? target->m_color_interface : source->m_color_interface;
    job.converts = job.target_code != source->m_color_interface;
    job.source_bytes = bytes_per_pixel(source->m_color_interface);
    job.target_bytes = bytes_per_pixel(job.target_code);
    if (job.source_bytes == 0 || job.target_bytes == 0) {
        kestal_assert_fail_tag(source_file, function, __LINE__, "not supported");
        return false;
    }
    return target->m_pixels != nullptr && source->m_pixels != nullptr;
}

// What is done to each row of the job: `move` for rows that are copied as they are.
template <typename Rows>
void copy_rows(const copy_job &job, uint32_t source_code, Rows for_each)
{
    if (job.converts)
        for_each([&](uint8_t *to, const uint8_t *from, size_t count) {
            convert_color_row(job.target_code, to, source_code, from, count);
        });
    else
        for_each([&](uint8_t *to, const uint8_t *from, size_t count) { memmove(to, from, count * job.source_bytes); });
}

} // namespace

int32_t kestal_copy_raw_bitmap(const kestal_raw_bitmap_t *target, const kestal_raw_bitmap_t *source, int32_t x,
                               int32_t y, const kestal_rectangle_t *rectangle)
{
    copy_job job{};
    placed_copy placed{};
    if (!prepare(target, source, job, __func__) || !place_copy(*target, *source, x, y, rectangle, placed))
        return -1;
    copy_rows(job, source->m_color_interface,
              [&](auto write) { for_each_row(*target, job.target_bytes, *source, job.source_bytes, placed, write); });
    return 0;
}

int32_t kestal_copy_raw_bitmap_scale(const kestal_raw_bitmap_t *target, const kestal_raw_bitmap_t *source,
                                     const kestal_rectangle_t *target_rectangle,
                                     const kestal_rectangle_t *source_rectangle)
{
    copy_job job{};
    if (!prepare(target, source, job, __func__))
        return -1;
    const scaled_copy scaled(*target, *source, target_rectangle, source_rectangle);
    if (scaled.empty())
        return -1;
    copy_rows(job, source->m_color_interface, [&](auto write) {
        for_each_scaled_row(*target, job.target_bytes, *source, job.source_bytes, scaled, write);
    });
    return 0;
}
