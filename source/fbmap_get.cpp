#include <kestal_ulx/fbmap_get.h>

#include "blend.hpp"
#include "fbmap_get.hpp"
#include "fbmap_record.hpp"
#include "raw_bitmap.hpp"

namespace {

using namespace kestal;

constexpr const char *source_file = "./source/fbmap_get";

// What copies from a map do to the target's pixels.
blend_rule rule_of(const kestal_fbmap_t &map, bool blend)
{
    blend_rule rule;
    rule.opaque = has_flag(map, KESTAL_FBMAP_NO_ALPHA_TRANSFER);
    if (!blend)
        return rule;
    rule.keyed = has_flag(map, KESTAL_FBMAP_CCOLOR);
    rule.key = map.m_ccolor;
    rule.pixel_alpha = has_flag(map, KESTAL_FBMAP_ALPHA_PIXEL);
    if (has_flag(map, KESTAL_FBMAP_ALPHA_WINDOW))
        rule.window_alpha = map.m_alpha_window;
    return rule;
}

// The target with its format, which is the map's where it names none. False when nothing can be copied there.
bool is_target(const kestal_raw_bitmap_t *target, const kestal_raw_bitmap_t &source, kestal_raw_bitmap_t &checked)
{
    if (target == nullptr || target->m_pixels == nullptr || source.m_pixels == nullptr)
        return false;
    checked = *target;
    if (checked.m_color_interface == 0)
        checked.m_color_interface = source.m_color_interface;
    if (bytes_per_pixel(checked.m_color_interface) != 0)
        return true;
    kestal_assert_fail_tag(source_file, __func__, __LINE__, "not supported");
    return false;
}

int32_t get_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target, int32_t x, int32_t y,
                const kestal_rectangle_t *rectangle, uint32_t blend)
{
    kestal_raw_bitmap_t source = map->m_bitmap;
    if (target == nullptr) {
        target = &map->m_bitmap;
        source.m_pixels = map->m_composite;
        blend = 0;
    }
    kestal_raw_bitmap_t to;
    placed_copy placed;
    if (!is_target(target, source, to) || !place_copy(to, source, x, y, rectangle, placed))
        return -1;
    const blend_rule rule = target == &map->m_bitmap ? blend_rule{} : rule_of(*map, blend == 1);
    const row_blender blender(to.m_color_interface, source.m_color_interface, rule);
    const uint32_t to_bytes = bytes_per_pixel(to.m_color_interface);
    const uint32_t from_bytes = bytes_per_pixel(source.m_color_interface);
    if (to.m_pixels == source.m_pixels)
        for_each_row(to, to_bytes, source, from_bytes, placed, blender);
    else
        blender.box(pixel_at(to, to_bytes, placed.to_x, placed.to_y), to.m_line_length,
                    pixel_at(source, from_bytes, placed.from_x, placed.from_y), source.m_line_length,
                    static_cast<size_t>(placed.width), static_cast<size_t>(placed.height));
    return 0;
}

int32_t get_scale_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target,
                      const kestal_rectangle_t *target_rectangle, const kestal_rectangle_t *rectangle, uint32_t blend)
{
    const kestal_raw_bitmap_t &source = map->m_bitmap;
    kestal_raw_bitmap_t to;
    if (!is_target(target, source, to))
        return -1;
    const scaled_copy scaled(to, source, target_rectangle, rectangle);
    if (scaled.empty())
        return -1;
    for_each_scaled_row(to, bytes_per_pixel(to.m_color_interface), source, bytes_per_pixel(source.m_color_interface),
                        scaled, row_blender(to.m_color_interface, source.m_color_interface, rule_of(*map, blend == 1)));
    return 0;
}

int32_t set_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *source, int32_t x, int32_t y,
                const kestal_rectangle_t *rectangle)
{
    if (kestal_copy_raw_bitmap(&map->m_bitmap, source, x, y, rectangle) != 0)
        return -1;
    placed_copy placed;
    if (place_copy(map->m_bitmap, *source, x, y, rectangle, placed))
        note_change(*map, placed.target());
    return 0;
}

int32_t set_scale_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *source, const kestal_rectangle_t *rectangle,
                      const kestal_rectangle_t *source_rectangle)
{
    if (kestal_copy_raw_bitmap_scale(&map->m_bitmap, source, rectangle, source_rectangle) != 0)
        return -1;
    note_change(*map, scaled_copy(map->m_bitmap, *source, rectangle, source_rectangle).target());
    return 0;
}

int32_t get_pixel(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target, int32_t x, int32_t y, uint32_t width,
                  uint32_t height)
{
    const kestal_rectangle_t box = {x, y, width, height};
    return target == nullptr ? -1 : kestal_copy_raw_bitmap(target, &map->m_bitmap, 0, 0, &box);
}

// The rows look at the formats themselves: each of these serves every depth.
using operations = kestal_fbmap_operations_t;
constexpr fbmap_operation set_box_operation(source_file, &operations::m_set_box, kestal_fbmap_set_box, set_box);
constexpr fbmap_operation get_scale_box_operation(source_file, &operations::m_get_scale_box, kestal_fbmap_get_scale_box,
                                                  get_scale_box);
constexpr fbmap_operation set_scale_box_operation(source_file, &operations::m_set_scale_box, kestal_fbmap_set_scale_box,
                                                  set_scale_box);
constexpr fbmap_operation get_pixel_operation(source_file, &operations::m_get_pixel, kestal_fbmap_get_pixel, get_pixel);

} // namespace

constinit const decltype(kestal::get_box_operation) kestal::get_box_operation(source_file, &operations::m_get_box,
                                                                              kestal_fbmap_get_box, get_box);

int32_t kestal_fbmap_get_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target, int32_t x, int32_t y,
                             const kestal_rectangle_t *rectangle, uint32_t blend)
{
    return get_box_operation.enter(map, target, x, y, rectangle, blend);
}

int32_t kestal_fbmap_set_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *source, int32_t x, int32_t y,
                             const kestal_rectangle_t *rectangle)
{
    return set_box_operation.enter(map, source, x, y, rectangle);
}

int32_t kestal_fbmap_get_scale_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target,
                                   const kestal_rectangle_t *target_rectangle, const kestal_rectangle_t *rectangle,
                                   uint32_t blend)
{
    return get_scale_box_operation.enter(map, target, target_rectangle, rectangle, blend);
}

int32_t kestal_fbmap_set_scale_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *source,
                                   const kestal_rectangle_t *rectangle, const kestal_rectangle_t *source_rectangle)
{
    return set_scale_box_operation.enter(map, source, rectangle, source_rectangle);
}

int32_t kestal_fbmap_get_pixel(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target, int32_t x, int32_t y,
                               uint32_t width, uint32_t height)
{
    return get_pixel_operation.enter(map, target, x, y, width, height);
}
