// Draws, copies and redraws what any bytes say, over a tree of maps: no write may leave its bitmap, and a text ends where its
// bytes do. The last byte picks what is done: 0 text, 1 raw bitmap copies, else a sequence of operations on maps.
#include "fuzz.hpp"

#include <cstring>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

namespace {

// What a map notes for its next update lies in the map.
void require_noted_inside(const kestal_fbmap_t *map)
{
    const kestal_rectangle_t &update = map->m_update;
    require(update.m_width == 0 || (update.m_x >= 0 && update.m_y >= 0 &&
                                    static_cast<uint32_t>(update.m_x) + update.m_width <= map->m_bitmap.m_width &&
                                    static_cast<uint32_t>(update.m_y) + update.m_height <= map->m_bitmap.m_height));
}

struct input : FuzzedDataProvider {
    using FuzzedDataProvider::FuzzedDataProvider;

    uint8_t byte() { return ConsumeIntegral<uint8_t>(); }

    // Mostly small, now and then any.
    int32_t coordinate()
    {
        const auto small = ConsumeIntegral<int8_t>();
        return small == INT8_MIN ? ConsumeIntegral<int32_t>() : small;
    }

    uint32_t length()
    {
        const uint8_t small = byte();
        return small == UINT8_MAX ? ConsumeIntegral<uint32_t>() : small;
    }

    kestal_rectangle_t rectangle()
    {
        const int32_t x = coordinate(), y = coordinate();
        const uint32_t width = length(), height = length();
        return {x, y, width, height};
    }

    uint32_t format()
    {
        constexpr uint32_t formats[] = {KESTAL_COLOR_DDDP0008,
                                        KESTAL_COLOR_DRGB0233,
                                        KESTAL_COLOR_DRGB0565,
                                        KESTAL_COLOR_DRGB0888,
                                        KESTAL_COLOR_ARGB8888,
                                        KESTAL_COLOR_ABGR8888,
                                        0x00788898u};
        return PickValueInArray(formats);
    }
};

void set_brush(kestal_fbmap_t *map, input &from)
{
    const auto flags = from.byte();
    kestal_fbmap_use_brush_color(map, flags & 1u, flags & 2u, flags & 4u);
    kestal_fbmap_set_brush_angle(map, (flags & 8u) != 0 ? from.ConsumeIntegral<int32_t>() : 0);
    const auto [x, y, width, height] = from.rectangle();
    kestal_fbmap_set_brush_xy(map, x, y);
    if ((flags & 16u) != 0)
        kestal_fbmap_set_brush_xy_scale(map, width, from.length(), height, from.length());
    if ((flags & 32u) != 0)
        kestal_fbmap_set_brush_xy_interval(map, from.coordinate(), from.coordinate());
}

void draw_text(input &from)
{
    kestal_fbmap_t *map = kestal_new_fbmap(nullptr, KESTAL_FBMAP_OWN_MEMORY, from.format(), 0, 0,
                                           from.byte() % 100u + 1u, from.byte() % 60u + 1u, 0, nullptr);
    set_brush(map, from);
    const std::string text = from.ConsumeRemainingBytesAsString().substr(0, 64);
    const int32_t count = kestal_fbmap_draw_puts(map, text.c_str());
    require(count >= 0 && static_cast<size_t>(count) <= strlen(text.c_str()));
    require_noted_inside(map);
    kestal_free_fbmap(map);
}

void copy_bitmaps(input &from)
{
    std::vector<uint8_t> memory[2];
    kestal_raw_bitmap_t bitmaps[2];
    for (int i = 0; i < 2; ++i) {
        const uint32_t code = from.format();
        const uint32_t width = from.byte() % 40u, height = from.byte() % 20u;
        const uint32_t line = kestal_color_interface_to_bits_per_pixel(code) / 8 * width + from.byte() % 5u;
        memory[i].resize(size_t{line} * height);
        bitmaps[i] = {memory[i].size(), memory[i].data(), code, width, height, 0, line};
    }
    while (from.remaining_bytes() > 0) {
        const kestal_rectangle_t source = from.rectangle(), target = from.rectangle();
        kestal_copy_raw_bitmap(&bitmaps[0], &bitmaps[1], target.m_x, target.m_y, &source);
        kestal_copy_raw_bitmap(&bitmaps[1], &bitmaps[1], target.m_x, target.m_y, &source);
        kestal_copy_raw_bitmap_scale(&bitmaps[0], &bitmaps[1], &target, &source);
    }
}

void draw(kestal_fbmap_t *map, input &from)
{
    const auto color = from.ConsumeIntegral<uint32_t>();
    const auto [x, y, width, height] = from.rectangle();
    switch (from.byte() % 8u) {
    case 0:
        return (void)kestal_fbmap_draw_box(map, color, x, y, width, height, color & 1u);
    case 1:
        return (void)kestal_fbmap_draw_line(map, color, x, y, from.coordinate(), from.coordinate());
    case 2:
        return (void)kestal_fbmap_draw_circle(map, color, x, y, width, color & 1u);
    case 3:
        return (void)kestal_fbmap_draw_fill(map, color, x, y);
    case 4:
        return (void)kestal_fbmap_draw_ruler(map, color, x, y, width, height, from.length(), from.length());
    case 5:
        return (void)kestal_fbmap_draw_color_bar(map, color & 1u, color, x, y, width, height);
    case 6:
        kestal_fbmap_draw_vline(map, color, x, y, height);
        return (void)kestal_fbmap_draw_hline(map, color, x, y, width);
    default:
        const kestal_rectangle_t box = {x, y, width, height};
        kestal_fbmap_set_box(map, &map->m_bitmap, static_cast<int8_t>(color), static_cast<int8_t>(color >> 8), &box);
    }
}

void set(kestal_fbmap_t *map, input &from)
{
    constexpr decltype(&kestal_fbmap_use_ccolor) settings[] = {
        kestal_fbmap_use_ccolor,       kestal_fbmap_set_ccolor,      kestal_fbmap_use_alpha_window,
        kestal_fbmap_set_alpha_window, kestal_fbmap_use_alpha_pixel, kestal_fbmap_use_alpha_transfer};
    const auto which = from.byte();
    settings[which / 2 % std::size(settings)](map, (which & 1u) != 0 ? from.ConsumeIntegral<uint32_t>() : 0);
}

void operate_on_maps(input &from)
{
    kestal_fbmap_t *root =
        kestal_new_fbmap(nullptr, KESTAL_FBMAP_OWN_MEMORY, from.format(), 0, 0, 70, 50, 0, "_master");
    std::vector<kestal_fbmap_t *> maps = {root};
    for (int steps = 0; from.remaining_bytes() > 0 && steps < 200; ++steps) {
        kestal_fbmap_t *map = maps[from.byte() % maps.size()];
        const auto what = from.byte();
        const kestal_rectangle_t place = what % 8u < 4 ? from.rectangle() : kestal_rectangle_t{};
        switch (what % 8u) {
        case 0:
        case 1:
            if (maps.size() < 12)
                maps.push_back(kestal_new_fbmap(
                    map, KESTAL_FBMAP_OWN_MEMORY | (what & 0x80u) << 1 | (what & 0x40u) << 3, from.format(), place.m_x,
                    place.m_y, place.m_width % 90u, place.m_height % 70u, 0, nullptr));
            break;
        case 2:
            kestal_fbmap_resize(map, place.m_x, place.m_y, place.m_width % 90u, place.m_height % 70u);
            break;
        case 3:
            kestal_fbmap_move(map, place.m_x, place.m_y);
            break;
        case 4:
            (what & 0x80u) != 0 ? kestal_fbmap_show(map) : kestal_fbmap_hide(map);
            break;
        case 5:
            draw(map, from);
            break;
        case 6:
            kestal_fbmap_update(map);
            break;
        default:
            set(map, from);
        }
        require_noted_inside(map);
        require_noted_inside(root);
    }
    kestal_free_fbmap(root);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint64_t blocks = kestal_get_alloc_count();
    input from(data, size);
    switch (from.byte()) {
    case 0:
        draw_text(from);
        break;
    case 1:
        copy_bitmaps(from);
        break;
    default:
        operate_on_maps(from);
    }
    require(kestal_get_alloc_count() == blocks);
    return 0;
}
