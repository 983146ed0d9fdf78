#include "support.hpp"

#include "../source/pixel.hpp"
#include "../source/processor.hpp"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <random>

using kestal_test::caught_assertions;
using kestal_test::caught_errors;
using kestal_test::counted;
using kestal_test::with_each_allocation_failing;

namespace {

class fbmap_update : public counted {};

uint8_t *place_of(const kestal_fbmap_t *map, int64_t x, int64_t y)
{
    const kestal_raw_bitmap_t &bitmap = map->m_bitmap;
    const auto index =
        static_cast<uint64_t>(y) * bitmap.m_line_length + static_cast<uint64_t>(x) * (map->m_bits_per_pixel / 8);
    return static_cast<uint8_t *>(bitmap.m_pixels) + index;
}

uint32_t pixel_of(const kestal_fbmap_t *map, int64_t x, int64_t y)
{
    return kestal::load_pixel(place_of(map, x, y), map->m_bits_per_pixel / 8);
}

constexpr uint32_t rgba8888 = 0x48586818;

bool is_palette(uint32_t code)
{
    return code == KESTAL_COLOR_DDDP0008;
}

bool has_alpha(uint32_t code)
{
    return code == KESTAL_COLOR_ARGB8888 || code == KESTAL_COLOR_ABGR8888 || code == rgba8888;
}

// One pixel of a map over one of the root, as the settings say, at 8 bits a channel.
uint32_t painted(const kestal_fbmap_t *map, uint32_t over, uint32_t root_code, uint32_t under)
{
    const uint32_t code = map->m_bitmap.m_color_interface;
    uint32_t bits = map->m_bits_per_pixel;
    const uint32_t key = bits == 32 ? map->m_ccolor : map->m_ccolor & ((1u << bits) - 1);
    if ((map->m_flags & KESTAL_FBMAP_CCOLOR) != 0 && over == key)
        return under;
    const bool window = (map->m_flags & KESTAL_FBMAP_ALPHA_WINDOW) != 0;
    const bool pixel = (map->m_flags & KESTAL_FBMAP_ALPHA_PIXEL) != 0 && has_alpha(code);
    const bool opaque = (map->m_flags & KESTAL_FBMAP_NO_ALPHA_TRANSFER) != 0;
    double alpha = window ? std::min(map->m_alpha_window, 255u) : 255;
    uint32_t above = kestal_convert_color(KESTAL_COLOR_ARGB8888, code, over);
    if (pixel)
        alpha = std::floor(alpha * (above >> 24) / 255 + 0.5);
    if (is_palette(root_code))
        return alpha >= 128 ? over : under;
    if ((pixel || opaque) && has_alpha(root_code))
        above |= 0xFF000000u;
    if (alpha == 255)
        return kestal_convert_color(root_code, KESTAL_COLOR_ARGB8888, above);
    const uint32_t below = kestal_convert_color(KESTAL_COLOR_ARGB8888, root_code, under);
    uint32_t mixed = 0;
    for (uint32_t shift = 0; shift < 32; shift += 8) {
        const double sum = (above >> shift & 255u) * alpha + (below >> shift & 255u) * (255 - alpha);
        mixed |= static_cast<uint32_t>(sum / 255 + 0.5) << shift;
    }
    return kestal_convert_color(root_code, KESTAL_COLOR_ARGB8888, mixed);
}

// A root with a tree of maps over it, an opaque one as large as the root at the back, and the picture that a painter
// makes of it, who paints every map whole, from the back to the front.
class scene {
public:
    static constexpr int64_t width = 61;
    static constexpr int64_t height = 47;

    scene(uint32_t code, uint32_t seed) : code_(code), random_(seed)
    {
        root_ = kestal_new_fbmap(nullptr, KESTAL_FBMAP_OWN_MEMORY, code, 0, 0, width, height, 0, "_master");
        back_ = kestal_new_fbmap(root_, KESTAL_FBMAP_OWN_MEMORY, 0, 0, 0, 0, 0, 0, nullptr);
        root_->m_operations.m_transfer = end_of_redraw;
        back_->m_operations.m_get_box = watched_get_box;
        scribble(back_);
        kestal_fbmap_update(back_);
        for (uint32_t i = 1; i <= 9; ++i)
            add(i);
        picture_ = painting();
    }
    ~scene() { kestal_free_fbmap(root_); }

    // One random change. Then the root must show the painter's picture, and only what could have changed is written.
    void step()
    {
        seen_region_.assign(static_cast<size_t>(width * height), false);
        invert_root();
        const std::string what = change(maps_[below(maps_.size())]);
        const std::vector<uint32_t> after = painting();
        for (int64_t y = 0; y < height; ++y)
            for (int64_t x = 0; x < width; ++x)
                check(what, x, y, picture_[place(x, y)], after[place(x, y)]);
        picture_ = after;
        restore();
        for (const kestal_fbmap_t *map : maps_) // what is noted lies in the map
            ASSERT_TRUE(map->m_update.m_x + int64_t{map->m_update.m_width} <= map->m_bitmap.m_width &&
                        map->m_update.m_y + int64_t{map->m_update.m_height} <= map->m_bitmap.m_height)
                << what;
    }

private:
    static size_t place(int64_t x, int64_t y) { return static_cast<size_t>(y * width + x); }
    uint32_t below(size_t limit) { return static_cast<uint32_t>(random_() % limit); }
    int32_t between(int32_t least, int32_t most)
    {
        return least + static_cast<int32_t>(below(static_cast<size_t>(most - least + 1)));
    }
    uint32_t mask() const
    {
        return code_ == 0 ? 0 : root_->m_bits_per_pixel == 32 ? UINT32_MAX : (1u << root_->m_bits_per_pixel) - 1;
    }

    void add(uint32_t identifier)
    {
        kestal_fbmap_t *parent = maps_.empty() || below(3) == 0 ? root_ : maps_[below(maps_.size())];
        const uint32_t codes[] = {0, 0, KESTAL_COLOR_ARGB8888, KESTAL_COLOR_ABGR8888, KESTAL_COLOR_DRGB0565};
        const uint32_t code = is_palette(code_) ? 0 : codes[below(code_ == KESTAL_COLOR_DRGB0233 ? 4 : 5)];
        uint32_t flags = KESTAL_FBMAP_HIDDEN | (below(3) == 0 ? KESTAL_FBMAP_AT_END : 0);
        flags |= below(3) == 0 ? 0 : KESTAL_FBMAP_OWN_MEMORY;
        flags |= parent != root_ && below(3) == 0 ? KESTAL_FBMAP_AS_SIBLING : 0;
        kestal_fbmap_t *map = kestal_new_fbmap(parent, flags, code, between(-20, 55), between(-20, 40), 1 + below(60),
                                               1 + below(50), identifier, "%d", identifier);
        if ((flags & KESTAL_FBMAP_OWN_MEMORY) == 0)
            map->m_bitmap.m_pixels = supplied_.emplace_back(map->m_bitmap.m_size).data();
        map->m_operations.m_get_box = watched_get_box;
        scribble(map);
        maps_.push_back(map);
    }

    void scribble(kestal_fbmap_t *map)
    {
        // Few colours in most places, so that keys and full and no alpha come up.
        const uint32_t palette[] = {0xFF102030u, 0x80FF00FFu, 0x00C0FFEEu, 0xFFFFFFFFu, 0x3D7A5C91u};
        for (uint32_t y = 0; y < map->m_bitmap.m_height; ++y)
            for (uint32_t x = 0; x < map->m_bitmap.m_width; ++x)
                kestal::store_pixel(place_of(map, x, y), map->m_bits_per_pixel / 8,
                                    below(4) == 0 ? static_cast<uint32_t>(random_())
                                                  : palette[below(std::size(palette))]);
        if ((map->m_flags & KESTAL_FBMAP_HIDDEN) == 0)
            map->m_update = whole(map);
    }

    std::string change(kestal_fbmap_t *map)
    {
        const auto name = [&](const char *what) { return what + std::string(" ") + map->m_name; };
        if (below(8) == 0) {
            kestal_fbmap_draw_box(map, static_cast<uint32_t>(random_()), between(-9, 40), between(-9, 40),
                                  1 + below(30), 1 + below(30), 1);
            mark_region(map, map->m_update);
            EXPECT_EQ(kestal_fbmap_update(map), 0);
            return name("box");
        }
        mark_region(map, whole(map));
        if (map->m_child == nullptr && below(20) == 0) {
            const std::string what = name("free");
            const uint32_t identifier = map->m_identifier;
            maps_.erase(std::find(maps_.begin(), maps_.end(), map));
            kestal_free_fbmap(map);
            add(identifier);
            return what;
        }
        const std::string what = name(change_whole(map));
        mark_region(map, whole(map));
        return what;
    }

    const char *change_whole(kestal_fbmap_t *map)
    {
        switch (below(11)) {
        case 0:
        case 1:
            EXPECT_EQ(kestal_fbmap_show(map), 0);
            return "show";
        case 2:
            EXPECT_EQ(kestal_fbmap_hide(map), 0);
            return "hide";
        case 3:
        case 4:
            EXPECT_EQ(kestal_fbmap_move(map, between(-30, 60), between(-30, 50)), 0);
            return "move";
        case 5:
            EXPECT_EQ(kestal_fbmap_resize(map, between(-9, 30), between(-9, 30), 1 + below(60), 1 + below(50)), 0);
            return "resize";
        case 6:
            scribble(map);
            EXPECT_EQ(kestal_fbmap_update(map), 0);
            return "draw";
        case 7:
            EXPECT_EQ(kestal_fbmap_set_ccolor(map, pixel_of(map, 0, 0)), 0);
            EXPECT_EQ(kestal_fbmap_use_ccolor(map, below(2)), 0);
            return "colour key";
        case 8:
            EXPECT_EQ(kestal_fbmap_set_alpha_window(map, below(3) == 0 ? 255 : below(300)), 0);
            EXPECT_EQ(kestal_fbmap_use_alpha_window(map, below(2)), 0);
            return "window alpha";
        case 9:
            EXPECT_EQ(kestal_fbmap_use_alpha_pixel(map, below(2)), 0);
            return "alpha of pixels";
        default:
            EXPECT_EQ(kestal_fbmap_use_alpha_transfer(map, below(2)), 0);
            return "alpha transfer";
        }
    }

    static kestal_rectangle_t whole(const kestal_fbmap_t *map)
    {
        return {0, 0, map->m_bitmap.m_width, map->m_bitmap.m_height};
    }

    // Where a part of a map is seen.
    void mark_region(const kestal_fbmap_t *map, const kestal_rectangle_t &part)
    {
        int64_t left = part.m_x, top = part.m_y, right = left + part.m_width, bottom = top + part.m_height;
        for (const kestal_fbmap_t *at = map; at->m_parent != nullptr; at = at->m_parent) {
            left = std::max<int64_t>(left + at->m_x, 0);
            top = std::max<int64_t>(top + at->m_y, 0);
            right = std::min<int64_t>(right + at->m_x, at->m_parent->m_bitmap.m_width);
            bottom = std::min<int64_t>(bottom + at->m_y, at->m_parent->m_bitmap.m_height);
        }
        for (int64_t y = top; y < bottom; ++y)
            for (int64_t x = left; x < right; ++x)
                seen_region_[place(x, y)] = true;
    }

    struct clip {
        int64_t left, top, right, bottom;
    };

    void paint(std::vector<uint32_t> &canvas, const kestal_fbmap_t *map, int64_t x, int64_t y, clip inside) const
    {
        if (map == nullptr)
            return;
        paint(canvas, map->m_next, x, y, inside);
        const int64_t left = x + map->m_x, top = y + map->m_y;
        const clip seen = {std::max(inside.left, left), std::max(inside.top, top),
                           std::min(inside.right, left + map->m_bitmap.m_width),
                           std::min(inside.bottom, top + map->m_bitmap.m_height)};
        if ((map->m_flags & KESTAL_FBMAP_HIDDEN) == 0)
            for (int64_t row = seen.top; row < seen.bottom; ++row)
                for (int64_t column = seen.left; column < seen.right; ++column) {
                    uint32_t &at = canvas[place(column, row)];
                    at = painted(map, pixel_of(map, column - left, row - top), code_, at);
                }
        paint(canvas, map->m_child, left, top, seen);
    }

    std::vector<uint32_t> painting() const
    {
        std::vector<uint32_t> canvas(static_cast<size_t>(width * height));
        paint(canvas, root_->m_child, 0, 0, {0, 0, width, height});
        return canvas;
    }

    void check(const std::string &what, int64_t x, int64_t y, uint32_t before, uint32_t after)
    {
        const uint32_t shown = pixel_of(root_, x, y);
        if (shown != (~before & mask())) {
            ASSERT_EQ(shown, after) << what << " at " << x << ", " << y;
            ASSERT_TRUE(seen_region_[place(x, y)]) << what << " wrote " << x << ", " << y;
        } else if (shown != after) {
            ASSERT_EQ(before, after) << what << " forgot " << x << ", " << y;
        }
    }

    void invert_root()
    {
        auto *pixels = static_cast<uint8_t *>(root_->m_bitmap.m_pixels);
        for (uint64_t i = 0; i < root_->m_bitmap.m_size; ++i)
            pixels[i] = static_cast<uint8_t>(~pixels[i]);
    }

    void restore()
    {
        for (int64_t y = 0; y < height; ++y)
            for (int64_t x = 0; x < width; ++x)
                kestal::store_pixel(place_of(root_, x, y), root_->m_bits_per_pixel / 8, picture_[place(x, y)]);
    }

    // In one redraw a map draws each pixel at most once, and one opaque map at most draws there.
    static int32_t watched_get_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target, int32_t x, int32_t y,
                                   const kestal_rectangle_t *rectangle, uint32_t blend)
    {
        std::vector<bool> &drawn = drawn_[(map->m_flags & KESTAL_FBMAP_COMPOSED) == 0 ? nullptr : map];
        drawn.resize(static_cast<size_t>(width * height));
        for (uint32_t row = 0; row < rectangle->m_height; ++row)
            for (uint32_t column = 0; column < rectangle->m_width; ++column) {
                const auto at = place(int64_t{x} + column, int64_t{y} + row);
                EXPECT_FALSE(drawn[at]);
                drawn[at] = true;
            }
        map->m_operations.m_get_box = nullptr;
        const int32_t result = kestal_fbmap_get_box(map, target, x, y, rectangle, blend);
        map->m_operations.m_get_box = watched_get_box;
        return result;
    }

    static int32_t end_of_redraw(kestal_fbmap_t *)
    {
        drawn_.clear();
        return 0;
    }

    uint32_t code_;
    std::mt19937 random_;
    kestal_fbmap_t *root_ = nullptr;
    kestal_fbmap_t *back_ = nullptr;
    std::vector<kestal_fbmap_t *> maps_;
    std::deque<std::vector<uint8_t>> supplied_;
    std::vector<uint32_t> picture_; // the painter's
    std::vector<bool> seen_region_;
    static inline std::map<const kestal_fbmap_t *, std::vector<bool>> drawn_; // null: by opaque ones
};

TEST_F(fbmap_update, the_root_shows_what_a_painter_would_paint)
{
    for (const uint32_t code : {KESTAL_COLOR_DDDP0008, KESTAL_COLOR_DRGB0233, KESTAL_COLOR_DRGB0565,
                                KESTAL_COLOR_DRGB0888, KESTAL_COLOR_ARGB8888, rgba8888})
        for (uint32_t seed = 0; seed < 6; ++seed) {
            kestal::processor::allow_only(seed % 2 == 0 ? kestal::processor::every_feature : 0);
            scene tree(code, seed);
            for (int step = 0; step < 150 && !HasFatalFailure(); ++step)
                tree.step();
        }
}

kestal_fbmap_t *window(kestal_fbmap_t *parent, int32_t x, int32_t y, uint32_t width, uint32_t height, uint32_t color)
{
    kestal_fbmap_t *map =
        kestal_new_fbmap(parent, KESTAL_FBMAP_OWN_MEMORY, KESTAL_COLOR_ARGB8888, x, y, width, height, 0, nullptr);
    if (map != nullptr)
        for (uint32_t i = 0; i < width * height; ++i)
            static_cast<uint32_t *>(map->m_bitmap.m_pixels)[i] = color;
    return map;
}

TEST_F(fbmap_update, failing_allocations_leave_the_tree_whole)
{
    const uint64_t failures = with_each_allocation_failing([] {
        const caught_assertions reports;
        kestal_fbmap_t *root = window(nullptr, 0, 0, 40, 40, 0);
        kestal_fbmap_t *back = root == nullptr ? nullptr : window(root, 0, 0, 40, 40, 1);
        kestal_fbmap_t *middle = back == nullptr ? nullptr : window(root, 5, 5, 20, 20, 2);
        kestal_fbmap_t *front = middle == nullptr ? nullptr : window(middle, 3, 3, 30, 9, 0x80000003u);
        bool complete = front != nullptr;
        for (kestal_fbmap_t *map : {back, middle, front}) {
            if (map == nullptr)
                break;
            const uint32_t color = pixel_of(map, 0, 0);
            map->m_update = {0, 0, 40, 40};
            complete = kestal_fbmap_update(map) == 0 && complete;
            complete = kestal_fbmap_use_alpha_pixel(map, map == front) == 0 && complete;
            const bool resized = kestal_fbmap_resize(map, 4, 4, 25, 26) == 0;
            EXPECT_TRUE(map->m_bitmap.m_width == 25 || !resized);
            EXPECT_EQ(map->m_bitmap.m_size, 4u * map->m_bitmap.m_width * map->m_bitmap.m_height);
            EXPECT_EQ(pixel_of(map, 0, 0), color);
            complete = resized && complete;
        }
        if (complete) {
            EXPECT_EQ(pixel_of(root, 4, 4), 2u);
            EXPECT_EQ(pixel_of(root, 8, 8), 0x80000003u);
        }
        if (root != nullptr)
            kestal_free_fbmap(root);
    });
    EXPECT_GT(failures, 15u);
}

} // namespace
