#include <kestal_ulx/fbmap.h>

#include <kestal_ulx/color.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>

#include "fbmap_record.hpp"
#include "fbmap_update.hpp"
#include "guard.hpp"
#include "list.hpp"

#include <string.h>

namespace {

using namespace kestal;

constexpr const char *source_file = "./source/fbmap";

// What a map is made with.
struct plan {
    kestal_fbmap_t *parent;
    uint32_t flags;
    uint32_t color_interface;
    int32_t x;
    int32_t y;
    uint32_t width;
    uint32_t height;
    uint32_t identifier;
};

// --- the tree

doubly_linked_list children_of(kestal_fbmap_t *&first)
{
    return {&first, nullptr, KESTAL_LINKS(kestal_fbmap_t, m_previous, m_next)};
}

// Next to a map that may have no parent, and so no list that starts anywhere.
void link_beside(kestal_fbmap_t &map, kestal_fbmap_t &sibling, bool behind)
{
    map.m_parent = sibling.m_parent;
    map.m_previous = behind ? &sibling : sibling.m_previous;
    map.m_next = behind ? sibling.m_next : &sibling;
    if (map.m_previous != nullptr)
        map.m_previous->m_next = &map;
    else if (map.m_parent != nullptr)
        map.m_parent->m_child = &map;
    if (map.m_next != nullptr)
        map.m_next->m_previous = &map;
}

void link(kestal_fbmap_t &map, kestal_fbmap_t *parent)
{
    const bool at_end = has_flag(map, KESTAL_FBMAP_AT_END);
    if (parent == nullptr)
        return;
    if (has_flag(map, KESTAL_FBMAP_AS_SIBLING))
        return link_beside(map, *parent, at_end);
    map.m_parent = parent;
    if (at_end)
        children_of(parent->m_child).append(&map);
    else
        children_of(parent->m_child).prepend(&map);
}

void unlink(kestal_fbmap_t &map)
{
    if (map.m_previous != nullptr)
        map.m_previous->m_next = map.m_next;
    else if (map.m_parent != nullptr && map.m_parent->m_child == &map)
        map.m_parent->m_child = map.m_next;
    if (map.m_next != nullptr)
        map.m_next->m_previous = map.m_previous;
    map.m_previous = map.m_next = map.m_parent = nullptr;
}

// --- a map's life

void set_format(kestal_fbmap_t &map, const plan &plan)
{
    const kestal_raw_bitmap_t from = plan.parent != nullptr ? plan.parent->m_bitmap : kestal_raw_bitmap_t{};
    kestal_raw_bitmap_t &bitmap = map.m_bitmap;
    bitmap.m_color_interface = plan.color_interface != 0 ? plan.color_interface : from.m_color_interface;
    bitmap.m_width = plan.width != 0 ? plan.width : from.m_width;
    bitmap.m_height = plan.height != 0 ? plan.height : from.m_height;
    map.m_bits_per_pixel = kestal_color_interface_to_bits_per_pixel(bitmap.m_color_interface);
    bitmap.m_line_length = uint64_t{map.m_bits_per_pixel} * bitmap.m_width / 8;
    if (__builtin_mul_overflow(bitmap.m_line_length, uint64_t{bitmap.m_height}, &bitmap.m_size))
        bitmap.m_size = UINT64_MAX;
}

void set_brush(kestal_fbmap_t &map)
{
    const uint32_t code = map.m_bitmap.m_color_interface;
    const uint32_t black = kestal_convert_color(code, KESTAL_COLOR_ARGB8888, 0xFF000000u);
    kestal_fbmap_brush_t &brush = map.m_brush;
    brush.m_fcolor = kestal_convert_color(code, KESTAL_COLOR_ARGB8888, 0xFFFFFFFFu);
    brush.m_bcolor = black;
    brush.m_ocolor = black;
    brush.m_x_scale_numerator = brush.m_x_scale_denominator = 1;
    brush.m_y_scale_numerator = brush.m_y_scale_denominator = 1;
}

bool allocate_pixels(kestal_fbmap_t &map)
{
    // A size that is no memory's is not asked for: the allocator adds nothing to it, but others may.
    const uint64_t size = map.m_bitmap.m_size;
    map.m_bitmap.m_pixels = size > SIZE_MAX / 2 ? nullptr : kestal_calloc_tag(1, size, "kestal_init_fbmap_v", __LINE__);
    if (map.m_bitmap.m_pixels == nullptr)
        kestal_assert_fail_tag(source_file, "kestal_init_fbmap_v", __LINE__, "s_fbmap->m_map is null !");
    return map.m_bitmap.m_pixels != nullptr;
}

// False, with nothing left behind, when memory is short.
bool init(kestal_fbmap_t &map, const plan &plan, const char *format, va_list list)
{
    char *name = nullptr;
    if (format != nullptr) {
        name = kestal_alloc_vsprintf(format, list);
        if (name == nullptr) {
            kestal_assert_fail_tag(source_file, "kestal_init_fbmap_v", __LINE__,
                                   "kestal_unlikely(s_name != ((char *)0))");
            return false;
        }
    }
    map = {};
    map.m_flags = (plan.flags & ~KESTAL_FBMAP_DEVICE) | KESTAL_FBMAP_INITIALIZED;
    map.m_identifier = plan.identifier;
    map.m_x = plan.x;
    map.m_y = plan.y;
    map.m_alpha_window = 255;
    set_format(map, plan);
    set_brush(map);
    if (has_flag(map, KESTAL_FBMAP_OWN_MEMORY) && !allocate_pixels(map)) {
        kestal_check_free(name);
        map.m_flags &= ~KESTAL_FBMAP_INITIALIZED;
        return false;
    }
    map.m_name = name;
    map.m_context = plan.parent != nullptr ? plan.parent->m_context : nullptr;
    link(map, plan.parent);
    return true;
}

void free_map(kestal_fbmap_t &map);

void destroy(kestal_fbmap_t &map)
{
    while (map.m_child != nullptr)
        free_map(*map.m_child);
    if (!has_flag(map, KESTAL_FBMAP_KEEP_VISIBLE))
        hide_fbmap(map);
    unlink(map);
    kestal_check_free(map.m_composite);
    if (has_flag(map, KESTAL_FBMAP_OWN_MEMORY))
        kestal_check_free(map.m_bitmap.m_pixels);
    kestal_check_free(map.m_name);
    map.m_composite = nullptr;
    map.m_bitmap.m_pixels = nullptr;
    map.m_name = nullptr;
    map.m_flags &= ~KESTAL_FBMAP_INITIALIZED;
    map.m_identifier = UINT32_MAX;
}

void free_map(kestal_fbmap_t &map)
{
    if (has_flag(map, KESTAL_FBMAP_INITIALIZED))
        destroy(map);
    if (has_flag(map, KESTAL_FBMAP_ALLOCATED))
        kestal_free_tag(&map, "kestal_free_fbmap", __LINE__);
}

kestal_fbmap_t *search(kestal_fbmap_t *first, uint32_t identifier, const char *name)
{
    for (kestal_fbmap_t *map = first; map != nullptr; map = map->m_next) {
        const bool same_name =
            name == nullptr || map->m_name == nullptr ? name == map->m_name : strcmp(name, map->m_name) == 0;
        if (map->m_identifier == identifier && same_name)
            return map;
        kestal_fbmap_t *below = search(map->m_child, identifier, name);
        if (below != nullptr)
            return below;
    }
    return nullptr;
}

// --- settings

void set_flag(kestal_fbmap_t &map, uint32_t flag, bool on)
{
    map.m_flags = on ? map.m_flags | flag : map.m_flags & ~flag;
}

int32_t redraw(kestal_fbmap_t &map)
{
    note_change(map, whole_of(map.m_bitmap));
    return update_fbmap(map);
}

// Changes how a map appears, and redraws it.
int32_t use(kestal_fbmap_t *map, uint32_t flag, bool on, const char *caller = __builtin_FUNCTION())
{
    return on_fbmap(
        map, source_file, -1,
        [=] {
            set_flag(*map, flag, on);
            return redraw(*map);
        },
        caller);
}

int32_t set(kestal_fbmap_t *map, uint32_t kestal_fbmap_t::*field, uint32_t value,
            const char *caller = __builtin_FUNCTION())
{
    return on_fbmap(
        map, source_file, -1,
        [=] {
            map->*field = value;
            return redraw(*map);
        },
        caller);
}

// The many brush calls share their code: it is theirs many times over otherwise.
template <typename Field>
[[gnu::noinline]] int32_t set_brush(kestal_fbmap_t *map, Field kestal_fbmap_brush_t::*field, Field value,
                                    const char *caller = __builtin_FUNCTION())
{
    return on_fbmap(
        map, source_file, -1,
        [=] {
            map->m_brush.*field = value;
            return 0;
        },
        caller);
}

template <typename Field>
[[gnu::noinline]] int32_t set_brush(kestal_fbmap_t *map, Field kestal_fbmap_brush_t::*first, Field first_value,
                                    Field kestal_fbmap_brush_t::*second, Field second_value,
                                    const char *caller = __builtin_FUNCTION())
{
    return on_fbmap(
        map, source_file, -1,
        [=] {
            map->m_brush.*first = first_value;
            map->m_brush.*second = second_value;
            return 0;
        },
        caller);
}

template <typename Change>
int32_t change_brush(kestal_fbmap_t *map, Change change, const char *caller = __builtin_FUNCTION())
{
    return on_fbmap(
        map, source_file, -1,
        [&] {
            change(map->m_brush);
            return 0;
        },
        caller);
}

int32_t use_brush(kestal_fbmap_t *map, uint32_t flag, uint32_t on, const char *caller = __builtin_FUNCTION())
{
    return on_fbmap(
        map, source_file, -1,
        [&] {
            set_flag(*map, flag, on != 0);
            return 0;
        },
        caller);
}

} // namespace

kestal_fbmap_t *kestal_init_fbmap(kestal_fbmap_t *map, kestal_fbmap_t *parent, uint32_t flags, uint32_t color_interface,
                                  int32_t x, int32_t y, uint32_t width, uint32_t height, uint32_t identifier,
                                  const char *format, ...)
{
    va_list list;
    va_start(list, format);
    kestal_fbmap_t *made =
        kestal_init_fbmap_v(map, parent, flags, color_interface, x, y, width, height, identifier, format, list);
    va_end(list);
    return made;
}

kestal_fbmap_t *kestal_init_fbmap_v(kestal_fbmap_t *map, kestal_fbmap_t *parent, uint32_t flags,
                                    uint32_t color_interface, int32_t x, int32_t y, uint32_t width, uint32_t height,
                                    uint32_t identifier, const char *format, va_list list)
{
    const plan plan = {parent, flags & ~KESTAL_FBMAP_ALLOCATED, color_interface, x, y, width, height, identifier};
    return on_fbmap<kestal_fbmap_t *>(map, source_file, nullptr,
                                      [&] { return init(*map, plan, format, list) ? map : nullptr; });
}

kestal_fbmap_t *kestal_new_fbmap(kestal_fbmap_t *parent, uint32_t flags, uint32_t color_interface, int32_t x, int32_t y,
                                 uint32_t width, uint32_t height, uint32_t identifier, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    kestal_fbmap_t *made =
        kestal_new_fbmap_v(parent, flags, color_interface, x, y, width, height, identifier, format, list);
    va_end(list);
    return made;
}

kestal_fbmap_t *kestal_new_fbmap_v(kestal_fbmap_t *parent, uint32_t flags, uint32_t color_interface, int32_t x,
                                   int32_t y, uint32_t width, uint32_t height, uint32_t identifier, const char *format,
                                   va_list list)
{
    const plan plan = {parent, flags | KESTAL_FBMAP_ALLOCATED, color_interface, x, y, width, height, identifier};
    owned_block<kestal_fbmap_t> map(kestal_alloc(sizeof(kestal_fbmap_t)), __func__);
    if (!map)
        return nullptr;
    const fbmap_guard guard;
    return init(*map.get(), plan, format, list) ? map.release() : nullptr;
}

int32_t kestal_destroy_fbmap(kestal_fbmap_t *map)
{
    return on_fbmap(map, source_file, -1, [&] {
        if (!has_flag(*map, KESTAL_FBMAP_INITIALIZED))
            return -1;
        destroy(*map);
        return 0;
    });
}

kestal_fbmap_t *kestal_free_fbmap(kestal_fbmap_t *map)
{
    return on_fbmap<kestal_fbmap_t *>(map, source_file, nullptr, [&] {
        free_map(*map);
        return nullptr;
    });
}

kestal_fbmap_t *kestal_fbmap_search(kestal_fbmap_t *first, uint32_t identifier, const char *name)
{
    return on_fbmap<kestal_fbmap_t *>(first, source_file, nullptr, [&] { return search(first, identifier, name); });
}

int32_t kestal_fbmap_use_ccolor(kestal_fbmap_t *map, uint32_t on)
{
    return use(map, KESTAL_FBMAP_CCOLOR, on != 0);
}

int32_t kestal_fbmap_set_ccolor(kestal_fbmap_t *map, uint32_t color)
{
    return set(map, &kestal_fbmap_t::m_ccolor, color);
}

int32_t kestal_fbmap_use_alpha_window(kestal_fbmap_t *map, uint32_t on)
{
    return use(map, KESTAL_FBMAP_ALPHA_WINDOW, on != 0);
}

int32_t kestal_fbmap_set_alpha_window(kestal_fbmap_t *map, uint32_t value)
{
    return set(map, &kestal_fbmap_t::m_alpha_window, value);
}

int32_t kestal_fbmap_use_alpha_pixel(kestal_fbmap_t *map, uint32_t on)
{
    return use(map, KESTAL_FBMAP_ALPHA_PIXEL, on != 0);
}

int32_t kestal_fbmap_use_alpha_transfer(kestal_fbmap_t *map, uint32_t on)
{
    // The flag says that transfer is off.
    return use(map, KESTAL_FBMAP_NO_ALPHA_TRANSFER, on == 0);
}

int32_t kestal_fbmap_set_brush_fcolor(kestal_fbmap_t *map, uint32_t color)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_fcolor, color);
}

int32_t kestal_fbmap_set_brush_bcolor(kestal_fbmap_t *map, uint32_t color)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_bcolor, color);
}

int32_t kestal_fbmap_set_brush_ocolor(kestal_fbmap_t *map, uint32_t color)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_ocolor, color);
}

int32_t kestal_fbmap_set_brush_color(kestal_fbmap_t *map, uint32_t fcolor, uint32_t bcolor, uint32_t ocolor)
{
    return change_brush(map, [&](kestal_fbmap_brush_t &brush) {
        brush.m_fcolor = fcolor;
        brush.m_bcolor = bcolor;
        brush.m_ocolor = ocolor;
    });
}

int32_t kestal_fbmap_use_brush_fcolor(kestal_fbmap_t *map, uint32_t on)
{
    return use_brush(map, KESTAL_FBMAP_BRUSH_FCOLOR, on);
}

int32_t kestal_fbmap_use_brush_bcolor(kestal_fbmap_t *map, uint32_t on)
{
    return use_brush(map, KESTAL_FBMAP_BRUSH_BCOLOR, on);
}

int32_t kestal_fbmap_use_brush_ocolor(kestal_fbmap_t *map, uint32_t on)
{
    return use_brush(map, KESTAL_FBMAP_BRUSH_OCOLOR, on);
}

int32_t kestal_fbmap_use_brush_color(kestal_fbmap_t *map, uint32_t fcolor_on, uint32_t bcolor_on, uint32_t ocolor_on)
{
    return on_fbmap(map, source_file, -1, [&] {
        set_flag(*map, KESTAL_FBMAP_BRUSH_FCOLOR, fcolor_on != 0);
        set_flag(*map, KESTAL_FBMAP_BRUSH_BCOLOR, bcolor_on != 0);
        set_flag(*map, KESTAL_FBMAP_BRUSH_OCOLOR, ocolor_on != 0);
        return 0;
    });
}

int32_t kestal_fbmap_set_brush_x_scale(kestal_fbmap_t *map, uint32_t numerator, uint32_t denominator)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_x_scale_numerator, numerator,
                     &kestal_fbmap_brush_t::m_x_scale_denominator, denominator);
}

int32_t kestal_fbmap_set_brush_y_scale(kestal_fbmap_t *map, uint32_t numerator, uint32_t denominator)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_y_scale_numerator, numerator,
                     &kestal_fbmap_brush_t::m_y_scale_denominator, denominator);
}

int32_t kestal_fbmap_set_brush_xy_scale(kestal_fbmap_t *map, uint32_t x_numerator, uint32_t x_denominator,
                                        uint32_t y_numerator, uint32_t y_denominator)
{
    return change_brush(map, [&](kestal_fbmap_brush_t &brush) {
        brush.m_x_scale_numerator = x_numerator;
        brush.m_x_scale_denominator = x_denominator;
        brush.m_y_scale_numerator = y_numerator;
        brush.m_y_scale_denominator = y_denominator;
    });
}

int32_t kestal_fbmap_set_brush_x_interval(kestal_fbmap_t *map, int32_t interval)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_x_interval, interval);
}

int32_t kestal_fbmap_set_brush_y_interval(kestal_fbmap_t *map, int32_t interval)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_y_interval, interval);
}

int32_t kestal_fbmap_set_brush_xy_interval(kestal_fbmap_t *map, int32_t x_interval, int32_t y_interval)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_x_interval, x_interval, &kestal_fbmap_brush_t::m_y_interval,
                     y_interval);
}

int32_t kestal_fbmap_set_brush_angle(kestal_fbmap_t *map, int32_t angle)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_angle, angle);
}

int32_t kestal_fbmap_set_brush_x(kestal_fbmap_t *map, int32_t x)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_x, x, &kestal_fbmap_brush_t::m_cursor_x, 0);
}

int32_t kestal_fbmap_set_brush_y(kestal_fbmap_t *map, int32_t y)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_y, y, &kestal_fbmap_brush_t::m_cursor_y, 0);
}

int32_t kestal_fbmap_set_brush_xy(kestal_fbmap_t *map, int32_t x, int32_t y)
{
    return change_brush(map, [&](kestal_fbmap_brush_t &brush) {
        brush.m_x = x;
        brush.m_y = y;
        brush.m_cursor_x = brush.m_cursor_y = 0;
    });
}

int32_t kestal_fbmap_set_brush_x_delta(kestal_fbmap_t *map, int32_t x)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_cursor_x, x);
}

int32_t kestal_fbmap_set_brush_y_delta(kestal_fbmap_t *map, int32_t y)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_cursor_y, y);
}

int32_t kestal_fbmap_set_brush_xy_delta(kestal_fbmap_t *map, int32_t x, int32_t y)
{
    return set_brush(map, &kestal_fbmap_brush_t::m_cursor_x, x, &kestal_fbmap_brush_t::m_cursor_y, y);
}
