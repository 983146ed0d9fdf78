// Draws, copies and redraws what any bytes say, over a tree of maps: no write may leave its bitmap, and a text ends where its
// bytes do. The last byte picks what is done: 0 text, 1 raw bitmap copies, else a sequence of operations on maps.
#include "fuzz.hpp"

#include <cstring>
#include <functional>
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

    kestal_rectangle_t rectangle() { return {coordinate(), coordinate(), length(), length()}; }

    uint32_t format()
    {
        return PickValueInArray({KESTAL_COLOR_DDDP0008, KESTAL_COLOR_DRGB0565, KESTAL_COLOR_DRGB0888,
                                 KESTAL_COLOR_ARGB8888, KESTAL_COLOR_ABGR8888, 0x00788898u});
    }

    kestal_fbmap_t *map(kestal_fbmap_t *parent, uint32_t flags, const kestal_rectangle_t &place)
    {
        return kestal_new_fbmap(parent, flags | KESTAL_FBMAP_OWN_MEMORY, format(), place.m_x, place.m_y,
                                place.m_width % 90u, place.m_height % 70u, 0, nullptr);
    }
};

void draw_text(input &from)
{
    kestal_fbmap_t *map = from.map(nullptr, 0, from.rectangle());
    const auto flags = from.byte();
    kestal_fbmap_use_brush_color(map, flags & 1u, flags & 2u, flags & 4u);
    kestal_fbmap_set_brush_angle(map, (flags & 8u) != 0 ? from.ConsumeIntegral<int32_t>() : 0);
    kestal_fbmap_set_brush_xy(map, from.coordinate(), from.coordinate());
    if ((flags & 16u) != 0)
        kestal_fbmap_set_brush_xy_scale(map, from.length(), from.length(), from.length(), from.length());
    if ((flags & 32u) != 0)
        kestal_fbmap_set_brush_xy_interval(map, from.coordinate(), from.coordinate());
    const std::string text = from.ConsumeRemainingBytesAsString().substr(0, 64);
    const int32_t count = kestal_fbmap_draw_puts(map, text.c_str());
    require(count >= 0 && static_cast<size_t>(count) <= strlen(text.c_str()));
    require_noted_inside(map);
    kestal_free_fbmap(map);
}

void copy_bitmaps(input &from)
{
    kestal_fbmap_t *maps[] = {from.map(nullptr, 0, from.rectangle()), from.map(nullptr, 0, from.rectangle())};
    const kestal_raw_bitmap_t &one = maps[0]->m_bitmap, &other = maps[1]->m_bitmap;
    while (from.remaining_bytes() > 0) {
        const kestal_rectangle_t source = from.rectangle(), target = from.rectangle();
        kestal_copy_raw_bitmap(&one, &other, target.m_x, target.m_y, &source);
        kestal_copy_raw_bitmap(&other, &other, target.m_x, target.m_y, &source);
        kestal_copy_raw_bitmap_scale(&one, &other, &target, &source);
    }
    for (kestal_fbmap_t *map : maps)
        kestal_free_fbmap(map);
}

void draw(kestal_fbmap_t *map, input &from)
{
    const auto color = from.ConsumeIntegral<uint32_t>();
    const kestal_rectangle_t box = from.rectangle();
    const auto x = box.m_x, y = box.m_y;
    const auto width = box.m_width, height = box.m_height;
    const std::function<void()> shapes[] = {
        [&] { kestal_fbmap_draw_box(map, color, x, y, width, height, color & 1u); },
        [&] { kestal_fbmap_draw_line(map, color, x, y, from.coordinate(), from.coordinate()); },
        [&] { kestal_fbmap_draw_circle(map, color, x, y, width, color & 1u); },
        [&] { kestal_fbmap_draw_fill(map, color, x, y); },
        [&] { kestal_fbmap_draw_ruler(map, color, x, y, width, height, from.length(), from.length()); },
        [&] { kestal_fbmap_draw_color_bar(map, color & 1u, color, x, y, width, height); },
        [&] { kestal_fbmap_set_box(map, &map->m_bitmap, color % 90, color / 90 % 70, &box); }};
    shapes[from.byte() % std::size(shapes)]();
}

void set(kestal_fbmap_t *map, input &from)
{
    constexpr decltype(&kestal_fbmap_use_ccolor) settings[] = {
        kestal_fbmap_use_ccolor,       kestal_fbmap_set_ccolor,      kestal_fbmap_use_alpha_window,
        kestal_fbmap_set_alpha_window, kestal_fbmap_use_alpha_pixel, kestal_fbmap_use_alpha_transfer};
    from.PickValueInArray(settings)(map, from.length());
}

void operate_on_maps(input &from)
{
    kestal_fbmap_t *root = from.map(nullptr, 0, {0, 0, 70, 50});
    std::vector<kestal_fbmap_t *> maps = {root};
    for (int steps = 0; from.remaining_bytes() > 0 && steps < 200; ++steps) {
        kestal_fbmap_t *map = maps[from.byte() % maps.size()];
        const uint32_t what = from.byte(), choice = what % 8;
        const auto [x, y, width, height] = choice < 3 ? from.rectangle() : kestal_rectangle_t{};
        const uint32_t flags = (what & 0x80) << 1 | (what & 0x40) << 3;
        if (choice == 0 && maps.size() < 12)
            maps.push_back(from.map(map, flags, {x, y, width, height}));
        else if (choice == 1)
            kestal_fbmap_resize(map, x, y, width % 90u, height % 70u);
        else if (choice == 2)
            kestal_fbmap_move(map, x, y);
        else if (choice == 3)
            flags != 0 ? kestal_fbmap_show(map) : kestal_fbmap_hide(map);
        else if (choice < 6)
            draw(map, from);
        else if (choice == 6)
            kestal_fbmap_update(map);
        else
            set(map, from);
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
    constexpr void (*targets[])(input &) = {draw_text, copy_bitmaps, operate_on_maps};
    targets[std::min<size_t>(from.byte(), 2)](from);
    require(kestal_get_alloc_count() == blocks);
    return 0;
}
