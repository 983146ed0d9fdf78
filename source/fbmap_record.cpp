#include <kestal_ulx/fbmap_record.h>

#include <kestal_ulx/lock.h>

#include "fbmap_record.hpp"

namespace {

constexpr const char *this_source = "./source/fbmap";

constexpr kestal_lock_t recursive_lock()
{
    kestal_lock_t lock = KESTAL_LOCK_INITIALIZER("kestal_fbmap_lock", 0);
    lock.m_flags |= KESTAL_LOCK_RECURSIVE;
    return lock;
}

constinit kestal_lock_t lock_of_all_maps = recursive_lock();

// What stands in a field; 0 for a null map.
template <typename Owner, typename Field>
[[gnu::noinline]] Field read(const kestal_fbmap_t *map, Field Owner::*field,
                             const char *function = __builtin_FUNCTION())
{
    return kestal::on_fbmap(
        map, this_source, Field{},
        [=] {
            if constexpr (std::is_same_v<Owner, kestal_fbmap_t>)
                return map->*field;
            else
                return map->m_bitmap.*field;
        },
        function);
}

} // namespace

bool kestal::is_served(const kestal_fbmap_t &map, const char *source, const char *caller)
{
    const uint32_t bits = map.m_bits_per_pixel;
    if (bits != 0 && bits <= 32 && bits % 8 == 0)
        return true;
    kestal_assert_fail_tag(source, caller, __LINE__, "not supported");
    return false;
}

int32_t kestal_fbmap_lock(void)
{
    return kestal_lock(&lock_of_all_maps);
}

int32_t kestal_fbmap_unlock(void)
{
    return kestal_unlock(&lock_of_all_maps);
}

void *kestal_fbmap_get_map(kestal_fbmap_t *map)
{
    return read(map, &kestal_raw_bitmap_t::m_pixels);
}

uint64_t kestal_fbmap_get_map_size(kestal_fbmap_t *map)
{
    return read(map, &kestal_raw_bitmap_t::m_size);
}

uint32_t kestal_fbmap_get_color_interface(kestal_fbmap_t *map)
{
    return read(map, &kestal_raw_bitmap_t::m_color_interface);
}

uint32_t kestal_fbmap_get_bits_per_pixel(kestal_fbmap_t *map)
{
    return read(map, &kestal_fbmap_t::m_bits_per_pixel);
}

uint64_t kestal_fbmap_get_line_length(kestal_fbmap_t *map)
{
    return read(map, &kestal_raw_bitmap_t::m_line_length);
}

int32_t kestal_fbmap_get_x(kestal_fbmap_t *map)
{
    return read(map, &kestal_fbmap_t::m_x);
}

int32_t kestal_fbmap_get_y(kestal_fbmap_t *map)
{
    return read(map, &kestal_fbmap_t::m_y);
}

uint32_t kestal_fbmap_get_resx(kestal_fbmap_t *map)
{
    return read(map, &kestal_raw_bitmap_t::m_width);
}

uint32_t kestal_fbmap_get_resy(kestal_fbmap_t *map)
{
    return read(map, &kestal_raw_bitmap_t::m_height);
}

int32_t kestal_fbmap_is_closed(kestal_fbmap_t *map)
{
    return kestal::on_fbmap(map, this_source, -1,
                            [&] { return kestal::has_flag(kestal::root_of(*map), KESTAL_FBMAP_CLOSED) ? 1 : 0; });
}

int32_t kestal_fbmap_is_visible(kestal_fbmap_t *map)
{
    return kestal::on_fbmap(map, this_source, -1, [&] { return kestal::has_flag(*map, KESTAL_FBMAP_HIDDEN) ? 1 : 0; });
}
