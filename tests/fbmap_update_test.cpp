#include "pictures.hpp"

#include "../source/geometry.hpp"
#include "../source/processor.hpp"

#include <algorithm>
#include <cmath>
#include <deque>
#include <map>

using namespace kestal_test;

namespace {

class fbmap_update : public counted {};

constexpr uint32_t rgba8888 = 0x48586818;

bool has_alpha(uint32_t code)
{
    return code == KESTAL_COLOR_ARGB8888 || code == KESTAL_COLOR_ABGR8888 || code == rgba8888;
}

// One pixel of a map over one of the root, as the settings say, at 8 bits a channel.
uint32_t painted(const kestal_fbmap_t *map, uint32_t over, uint32_t root_code, uint32_t under)
{
    const auto is = [map](uint32_t flag) { return (map->m_flags & flag) != 0; };
    const uint32_t code = map->m_bitmap.m_color_interface;
    if (is(KESTAL_FBMAP_CCOLOR) && over == (map->m_ccolor & kestal::pixel_mask(map->m_bits_per_pixel / 8)))
        return under;
    const bool pixel = is(KESTAL_FBMAP_ALPHA_PIXEL) && has_alpha(code);
    double alpha = is(KESTAL_FBMAP_ALPHA_WINDOW) ? std::min(map->m_alpha_window, 255u) : 255;
    uint32_t above = kestal_convert_color(KESTAL_COLOR_ARGB8888, code, over);
    if (pixel)
        alpha = std::floor(alpha * (above >> 24) / 255 + 0.5);
    if (root_code == KESTAL_COLOR_DDDP0008)
        return alpha >= 128 ? over : under;
    if ((pixel || is(KESTAL_FBMAP_NO_ALPHA_TRANSFER)) && has_alpha(root_code))
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
    static constexpr uint32_t width = 61;
    static constexpr uint32_t height = 47;

    scene(uint32_t code, uint32_t seed) : code_(code), random_(seed)
    {
        root_ = kestal_new_fbmap(nullptr, KESTAL_FBMAP_OWN_MEMORY, code, 0, 0, width, height, 0, "_master");
        kestal_fbmap_t *back = kestal_new_fbmap(root_, KESTAL_FBMAP_OWN_MEMORY, 0, 0, 0, 0, 0, 0, nullptr);
        root_->m_operations.m_transfer = end_of_redraw;
        back->m_operations.m_get_box = watched_get_box;
        scribble(back);
        kestal_fbmap_update(back);
        for (uint32_t i = 1; i <= 9; ++i)
            add(i);
        picture_ = painting();
    }
    ~scene() { kestal_free_fbmap(root_); }

    // One random change. Then the root must show the painter's picture, and only what could have changed is written.
    void step()
    {
        changing_.assign(width * height, false);
        for_each_pixel(root_->m_bitmap,
                       [&](int64_t x, int64_t y) { set_pixel(root_->m_bitmap, x, y, ~picture_[place(x, y)]); });
        const std::string what = change(maps_[random_.below(maps_.size())]);
        const std::vector<uint32_t> after = painting();
        const uint32_t mask = kestal::pixel_mask(root_->m_bits_per_pixel / 8);
        for_each_pixel(root_->m_bitmap, [&](int64_t x, int64_t y) {
            const uint32_t before = picture_[place(x, y)], now = after[place(x, y)];
            const uint32_t shown = pixel_of(root_->m_bitmap, x, y);
            const bool written = shown != (~before & mask);
            ASSERT_TRUE(shown == now || (!written && before == now)) << what << " at " << x << ", " << y;
            ASSERT_TRUE(changing_[place(x, y)] || !written) << what << " wrote " << x << ", " << y;
        });
        picture_ = after;
        for (const kestal_fbmap_t *map : maps_) // what is noted lies in the map
            ASSERT_TRUE(map->m_update.m_x + int64_t{map->m_update.m_width} <= map->m_bitmap.m_width &&
                        map->m_update.m_y + int64_t{map->m_update.m_height} <= map->m_bitmap.m_height)
                << what;
    }

private:
    static size_t place(int64_t x, int64_t y) { return static_cast<size_t>(y * width + x); }

    void add(uint32_t identifier)
    {
        kestal_fbmap_t *parent = maps_.empty() || one_in(3) ? root_ : maps_[random_.below(maps_.size())];
        const uint32_t codes[] = {0, 0, KESTAL_COLOR_ARGB8888, KESTAL_COLOR_ABGR8888, KESTAL_COLOR_DRGB0565};
        const bool palette = code_ == KESTAL_COLOR_DDDP0008;
        const uint32_t code = palette ? 0 : codes[random_.below(code_ == KESTAL_COLOR_DRGB0233 ? 4 : 5)];
        const uint32_t flags = KESTAL_FBMAP_HIDDEN | (one_in(3) ? KESTAL_FBMAP_AT_END : 0) |
                               (one_in(3) ? 0 : KESTAL_FBMAP_OWN_MEMORY) |
                               (parent != root_ && one_in(3) ? KESTAL_FBMAP_AS_SIBLING : 0);
        kestal_fbmap_t *map =
            kestal_new_fbmap(parent, flags, code, random_.between(-20, 55), random_.between(-20, 40),
                             1 + random_.below(60), 1 + random_.below(50), identifier, "%d", identifier);
        if ((flags & KESTAL_FBMAP_OWN_MEMORY) == 0)
            map->m_bitmap.m_pixels = supplied_.emplace_back(map->m_bitmap.m_size).data();
        map->m_operations.m_get_box = watched_get_box;
        scribble(map);
        maps_.push_back(map);
    }

    bool one_in(uint32_t count) { return random_.below(count) == 0; }

    void scribble(kestal_fbmap_t *map)
    {
        // Few colours in most places, so that keys and full and no alpha come up.
        const uint32_t palette[] = {0xFF102030u, 0x80FF00FFu, 0x00C0FFEEu, 0xFFFFFFFFu, 0x3D7A5C91u};
        for_each_pixel(map->m_bitmap, [&](int64_t x, int64_t y) {
            set_pixel(map->m_bitmap, x, y, one_in(4) ? random_.any() : palette[random_.below(std::size(palette))]);
        });
        if ((map->m_flags & KESTAL_FBMAP_HIDDEN) == 0)
            map->m_update = whole(map);
    }

    // Says what was done. What it marks may be written.
    std::string change(kestal_fbmap_t *map)
    {
        const std::string name = map->m_name;
        const int32_t x = random_.between(-30, 60), y = random_.between(-30, 50);
        const uint32_t box_width = 1 + random_.below(60), box_height = 1 + random_.below(50), on = random_.below(2);
        if (one_in(8)) {
            kestal_fbmap_draw_box(map, random_.any(), x, y, box_width / 2, box_height / 2, 1);
            mark(map, map->m_update);
            EXPECT_EQ(kestal_fbmap_update(map), 0);
            return "box " + name;
        }
        mark(map, whole(map));
        if (map->m_child == nullptr && one_in(20)) {
            const uint32_t identifier = map->m_identifier;
            maps_.erase(std::find(maps_.begin(), maps_.end(), map));
            kestal_free_fbmap(map);
            add(identifier);
            return "free " + name;
        }
        const std::pair<const char *, std::function<int32_t()>> changes[] = {
            {"show ", [&] { return kestal_fbmap_show(map); }},
            {"move ", [&] { return kestal_fbmap_move(map, x, y); }},
            {"hide ", [&] { return kestal_fbmap_hide(map); }},
            {"resize ", [&] { return kestal_fbmap_resize(map, x / 2, y / 2, box_width, box_height); }},
            {"draw ", [&] { return scribble(map), kestal_fbmap_update(map); }},
            {"key ", [&] { return kestal_fbmap_set_ccolor(map, pixel_of(map->m_bitmap, 0, 0)); }},
            {"use of key ", [&] { return kestal_fbmap_use_ccolor(map, on); }},
            {"alpha ", [&] { return kestal_fbmap_set_alpha_window(map, random_.below(300)); }},
            {"use of alpha ", [&] { return kestal_fbmap_use_alpha_window(map, on); }},
            {"alpha of pixels ", [&] { return kestal_fbmap_use_alpha_pixel(map, on); }},
            {"alpha transfer ", [&] { return kestal_fbmap_use_alpha_transfer(map, on); }}};
        const auto &[what, run] = changes[random_.below(13) % std::size(changes)]; // to show and to move twice as often
        EXPECT_EQ(run(), 0);
        mark(map, whole(map));
        return what + name;
    }

    static kestal_rectangle_t whole(const kestal_fbmap_t *map)
    {
        return {0, 0, map->m_bitmap.m_width, map->m_bitmap.m_height};
    }

    // Calls body(x, y, place) for each pixel of a part of a map that its ancestors let see.
    template <typename Body>
    static void for_each_seen(const kestal_fbmap_t *map, const kestal_rectangle_t &part, Body body)
    {
        kestal::area seen = kestal::area::of(part);
        int64_t x = 0, y = 0;
        for (const kestal_fbmap_t *at = map; at->m_parent != nullptr; at = at->m_parent) {
            x += at->m_x;
            y += at->m_y;
            seen = seen.moved(at->m_x, at->m_y).cut_to(kestal::area::of(whole(at->m_parent)));
        }
        for (int64_t row = seen.top; row < seen.bottom; ++row)
            for (int64_t column = seen.left; column < seen.right; ++column)
                body(column - x, row - y, place(column, row));
    }

    void mark(const kestal_fbmap_t *map, const kestal_rectangle_t &part)
    {
        for_each_seen(map, part, [&](int64_t, int64_t, size_t at) { changing_[at] = true; });
    }

    void paint(std::vector<uint32_t> &canvas, const kestal_fbmap_t *map) const
    {
        if (map == nullptr)
            return;
        paint(canvas, map->m_next);
        if ((map->m_flags & KESTAL_FBMAP_HIDDEN) == 0)
            for_each_seen(map, whole(map), [&](int64_t x, int64_t y, size_t at) {
                canvas[at] = painted(map, pixel_of(map->m_bitmap, x, y), code_, canvas[at]);
            });
        paint(canvas, map->m_child);
    }

    std::vector<uint32_t> painting() const
    {
        std::vector<uint32_t> canvas(width * height);
        paint(canvas, root_->m_child);
        return canvas;
    }

    // In one redraw a map draws each pixel at most once, and one opaque map at most draws there.
    static int32_t watched_get_box(kestal_fbmap_t *map, const kestal_raw_bitmap_t *target, int32_t x, int32_t y,
                                   const kestal_rectangle_t *rectangle, uint32_t blend)
    {
        std::vector<uint8_t> &drawn = drawn_[(map->m_flags & KESTAL_FBMAP_COMPOSED) == 0 ? nullptr : map];
        drawn.resize(width * height);
        for (uint32_t row = 0; row < rectangle->m_height; ++row)
            for (uint32_t column = 0; column < rectangle->m_width; ++column)
                EXPECT_EQ(drawn[place(int64_t{x} + column, int64_t{y} + row)]++, 0);
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
    dice random_;
    kestal_fbmap_t *root_ = nullptr;
    std::vector<kestal_fbmap_t *> maps_;
    std::deque<std::vector<uint8_t>> supplied_;
    std::vector<uint32_t> picture_; // the painter's
    std::vector<bool> changing_;
    static inline std::map<const kestal_fbmap_t *, std::vector<uint8_t>> drawn_; // null: by opaque ones
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

TEST_F(fbmap_update, failing_allocations_leave_the_tree_whole)
{
    const uint64_t failures = with_each_allocation_failing([] {
        const caught_assertions reports;
        const auto add = [](kestal_fbmap_t *parent) {
            return kestal_new_fbmap(parent, KESTAL_FBMAP_OWN_MEMORY, KESTAL_COLOR_ARGB8888, 5, 5, 40, 40, 0, nullptr);
        };
        kestal_fbmap_t *root = add(nullptr), *map = root == nullptr ? nullptr : add(root);
        if (map != nullptr) {
            EXPECT_EQ(kestal_fbmap_draw_clear(map, 0xFF000003u), 0);
            const bool composed = kestal_fbmap_use_alpha_pixel(map, 1) == 0;
            const bool resized = kestal_fbmap_resize(map, 4, 4, 25, 26) == 0;
            EXPECT_EQ(map->m_bitmap.m_width == 25, map->m_bitmap.m_height == 26);
            EXPECT_EQ(pixel_of(map->m_bitmap, 24, 25), 0xFF000003u);
            EXPECT_TRUE(!composed || !resized || pixel_of(root->m_bitmap, 4, 4) == 0xFF000003u);
        }
        kestal_free_fbmap(root);
    });
    EXPECT_GT(failures, 5u);
}

} // namespace
