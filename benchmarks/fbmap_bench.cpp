// Frame-buffer maps at 1280 x 720 beside pixman and cairo, or beside a plain loop where those have no such operation.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>
#include <cairo.h>
#include <cstring>
#include <memory>
#include <pixman.h>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int width = 1280;
constexpr int height = 720;
constexpr int64_t pixels = int64_t{width} * height;

// --- the same surface for all sides

enum class content { opaque, translucent };

std::vector<uint32_t> picture(content kind, int count)
{
    std::mt19937 random(1);
    std::vector<uint32_t> made(static_cast<size_t>(count));
    for (uint32_t &pixel : made) {
        pixel = static_cast<uint32_t>(random());
        const uint32_t alpha = kind == content::opaque ? 255 : pixel >> 24;
        // Colours no brighter than their alpha, for those who want them multiplied with it already.
        const auto channel = [&](uint32_t shift) { return (pixel >> shift & 255u) * alpha / 255u << shift; };
        pixel = alpha << 24 | channel(16) | channel(8) | channel(0);
    }
    return made;
}

struct map_of_ours {
    explicit map_of_ours(content kind, uint32_t code = KESTAL_COLOR_ARGB8888, int across = width, int down = height)
        : map(kestal_new_fbmap(nullptr, KESTAL_FBMAP_OWN_MEMORY, code, 0, 0, static_cast<uint32_t>(across),
                               static_cast<uint32_t>(down), 0, nullptr))
    {
        fill(map, kind);
    }
    ~map_of_ours() { kestal_free_fbmap(map); }
    map_of_ours(const map_of_ours &) = delete;
    map_of_ours &operator=(const map_of_ours &) = delete;

    static void fill(kestal_fbmap_t *map, content kind)
    {
        const std::vector<uint32_t> all =
            picture(kind, static_cast<int>(map->m_bitmap.m_width * map->m_bitmap.m_height));
        memcpy(map->m_bitmap.m_pixels, all.data(), map->m_bitmap.m_size);
    }

    kestal_fbmap_t *map;
};

struct pixman_picture {
    explicit pixman_picture(content kind, pixman_format_code_t format = PIXMAN_a8r8g8b8, int across = width,
                            int down = height)
        : memory(picture(kind, across * down)),
          image(pixman_image_create_bits(format, across, down, memory.data(), across * PIXMAN_FORMAT_BPP(format) / 8))
    {}
    ~pixman_picture() { pixman_image_unref(image); }
    pixman_picture(const pixman_picture &) = delete;
    pixman_picture &operator=(const pixman_picture &) = delete;

    std::vector<uint32_t> memory;
    pixman_image_t *image;
};

struct cairo_picture {
    explicit cairo_picture(content kind, cairo_format_t format = CAIRO_FORMAT_ARGB32, int across = width,
                           int down = height)
        : memory(picture(kind, across * down)),
          surface(cairo_image_surface_create_for_data(reinterpret_cast<unsigned char *>(memory.data()), format, across,
                                                      down, cairo_format_stride_for_width(format, across))),
          cairo(cairo_create(surface))
    {}
    ~cairo_picture()
    {
        cairo_destroy(cairo);
        cairo_surface_destroy(surface);
    }
    cairo_picture(const cairo_picture &) = delete;
    cairo_picture &operator=(const cairo_picture &) = delete;

    std::vector<uint32_t> memory;
    cairo_surface_t *surface;
    cairo_t *cairo;
};

// Registers one side of a row: `make` sets the scene up and returns what is done again and again.
template <typename Make>
void add(const std::string &row, const char *who, int64_t items, Make make)
{
    benchmark::RegisterBenchmark((row + ":" + who).c_str(), [make, items](benchmark::State &state) {
        auto once = make();
        for (auto _ : state)
            once();
        state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * items);
    });
}

// --- fills

void add_fills(const char *row, int across, int down)
{
    const auto w = static_cast<uint32_t>(across), h = static_cast<uint32_t>(down);
    add(row, "kestal", int64_t{across} * down, [=] {
        auto at = std::make_shared<map_of_ours>(content::opaque);
        return [=] { kestal_fbmap_draw_box(at->map, 0xFF336699u, 11, 0, w, h, 1); };
    });
    add(row, "pixman", int64_t{across} * down, [=] {
        auto at = std::make_shared<pixman_picture>(content::opaque);
        return [=] { pixman_fill(at->memory.data(), width, 32, 11, 0, across, down, 0xFF336699u); };
    });
    add(row, "cairo", int64_t{across} * down, [=] {
        auto at = std::make_shared<cairo_picture>(content::opaque);
        return [=] {
            cairo_set_source_rgb(at->cairo, 0.2, 0.4, 0.6);
            cairo_rectangle(at->cairo, 11, 0, across, down);
            cairo_fill(at->cairo);
        };
    });
}

void add_lines()
{
    add("line of 700 pixels", "kestal", 700, [] {
        auto at = std::make_shared<map_of_ours>(content::opaque);
        return [=] { kestal_fbmap_draw_line(at->map, 0xFF336699u, 5, 5, 704, 300); };
    });
    add("line of 700 pixels", "cairo", 700, [] {
        auto at = std::make_shared<cairo_picture>(content::opaque);
        cairo_set_antialias(at->cairo, CAIRO_ANTIALIAS_NONE);
        cairo_set_line_width(at->cairo, 1);
        return [=] {
            cairo_move_to(at->cairo, 5, 5);
            cairo_line_to(at->cairo, 704, 300);
            cairo_stroke(at->cairo);
        };
    });
}

// --- copies

enum class way { copy, pixel_alpha, one_alpha };

void add_copies(const char *row, way how)
{
    const content over = how == way::pixel_alpha ? content::translucent : content::opaque;
    add(row, "kestal", pixels, [=] {
        auto from = std::make_shared<map_of_ours>(over);
        auto to = std::make_shared<map_of_ours>(content::opaque);
        kestal_fbmap_use_alpha_pixel(from->map, how == way::pixel_alpha);
        kestal_fbmap_set_alpha_window(from->map, 100);
        kestal_fbmap_use_alpha_window(from->map, how == way::one_alpha);
        return [=] { kestal_fbmap_get_box(from->map, &to->map->m_bitmap, 0, 0, nullptr, 1); };
    });
    add(row, "pixman", pixels, [=] {
        const pixman_format_code_t format = how == way::one_alpha ? PIXMAN_x8r8g8b8 : PIXMAN_a8r8g8b8;
        auto from = std::make_shared<pixman_picture>(over, format);
        auto to = std::make_shared<pixman_picture>(content::opaque, format);
        const pixman_color_t alpha = {0, 0, 0, 100 * 257};
        auto mask = std::shared_ptr<pixman_image_t>(
            how == way::one_alpha ? pixman_image_create_solid_fill(&alpha) : nullptr,
            [](pixman_image_t *at) { at != nullptr ? (void)pixman_image_unref(at) : (void)0; });
        return [=] {
            pixman_image_composite32(how == way::copy ? PIXMAN_OP_SRC : PIXMAN_OP_OVER, from->image, mask.get(),
                                     to->image, 0, 0, 0, 0, 0, 0, width, height);
        };
    });
    add(row, "cairo", pixels, [=] {
        const cairo_format_t format = how == way::one_alpha ? CAIRO_FORMAT_RGB24 : CAIRO_FORMAT_ARGB32;
        auto from = std::make_shared<cairo_picture>(over, format);
        auto to = std::make_shared<cairo_picture>(content::opaque, format);
        cairo_set_source_surface(to->cairo, from->surface, 0, 0);
        cairo_set_operator(to->cairo, how == way::copy ? CAIRO_OPERATOR_SOURCE : CAIRO_OPERATOR_OVER);
        return [=] {
            if (how == way::one_alpha)
                cairo_paint_with_alpha(to->cairo, 100 / 255.0);
            else
                cairo_paint(to->cairo);
        };
    });
}

void add_keyed_copies()
{
    const auto speckled = [] {
        std::vector<uint32_t> made = picture(content::opaque, width * height);
        for (size_t i = 0; i < made.size(); ++i)
            if (i / 7 % 3 == 0)
                made[i] = 0xFFFF00FFu;
        return made;
    };
    add("colour-key copy 1280x720", "kestal", pixels, [=] {
        auto from = std::make_shared<map_of_ours>(content::opaque);
        auto to = std::make_shared<map_of_ours>(content::opaque);
        memcpy(from->map->m_bitmap.m_pixels, speckled().data(), from->map->m_bitmap.m_size);
        kestal_fbmap_set_ccolor(from->map, 0xFFFF00FFu);
        kestal_fbmap_use_ccolor(from->map, 1);
        return [=] { kestal_fbmap_get_box(from->map, &to->map->m_bitmap, 0, 0, nullptr, 1); };
    });
    add("colour-key copy 1280x720", "loop", pixels, [=] {
        auto from = std::make_shared<std::vector<uint32_t>>(speckled());
        auto to = std::make_shared<std::vector<uint32_t>>(picture(content::opaque, width * height));
        return [=] {
            const uint32_t *at = from->data();
            uint32_t *into = to->data();
            for (int i = 0; i < width * height; ++i)
                if (at[i] != 0xFFFF00FFu)
                    into[i] = at[i];
            benchmark::ClobberMemory();
        };
    });
}

void add_conversion(const char *row, uint32_t from_code, pixman_format_code_t from_format, uint32_t to_code,
                    pixman_format_code_t to_format)
{
    add(row, "kestal", pixels, [=] {
        auto from = std::make_shared<map_of_ours>(content::opaque, from_code);
        auto to = std::make_shared<map_of_ours>(content::opaque, to_code);
        return [=] { kestal_copy_raw_bitmap(&to->map->m_bitmap, &from->map->m_bitmap, 0, 0, nullptr); };
    });
    add(row, "pixman", pixels, [=] {
        auto from = std::make_shared<pixman_picture>(content::opaque, from_format);
        auto to = std::make_shared<pixman_picture>(content::opaque, to_format);
        return [=] {
            pixman_image_composite32(PIXMAN_OP_SRC, from->image, nullptr, to->image, 0, 0, 0, 0, 0, 0, width, height);
        };
    });
}

// --- text: 25 lines of 80 characters of 8 x 16 pixels

const std::string line = "The quick brown fox jumps over the lazy dog; 0123456789 + (a - b) * c == \"text\" ~";

void add_texts()
{
    constexpr int lines = 25;
    add("text, 25 lines of 80", "kestal", lines * 80, [] {
        auto at = std::make_shared<map_of_ours>(content::opaque);
        kestal_fbmap_use_brush_fcolor(at->map, 1);
        return [=] {
            kestal_fbmap_set_brush_xy(at->map, 3, 2);
            for (int i = 0; i < lines; ++i) {
                kestal_fbmap_draw_puts(at->map, line.c_str());
                kestal_fbmap_draw_puts(at->map, "\n");
            }
        };
    });
    add("text, 25 lines of 80", "pixman", lines * 80, [] {
        auto to = std::make_shared<pixman_picture>(content::opaque);
        pixman_glyph_cache_t *cache = pixman_glyph_cache_create();
        pixman_glyph_cache_freeze(cache);
        std::vector<pixman_glyph_t> glyphs;
        for (size_t i = 0; i < line.size(); ++i) {
            const auto code = static_cast<unsigned char>(line[i]);
            auto *font_key = reinterpret_cast<void *>(uintptr_t{1});
            auto *glyph_key = reinterpret_cast<void *>(uintptr_t{code} + 1);
            const void *glyph = pixman_glyph_cache_lookup(cache, font_key, glyph_key);
            if (glyph == nullptr) {
                pixman_image_t *image = pixman_image_create_bits(PIXMAN_a8, 8, 16, nullptr, 8);
                auto *bits = reinterpret_cast<uint8_t *>(pixman_image_get_data(image));
                const uint8_t *rows = kestal_get_default_bitmap_font_8x16_en_entry() + 16 * code;
                for (int pixel = 0; pixel < 128; ++pixel)
                    bits[pixel] = (rows[pixel / 8] >> (7 - pixel % 8) & 1) != 0 ? 255 : 0;
                glyph = pixman_glyph_cache_insert(cache, font_key, glyph_key, 0, 0, image);
                pixman_image_unref(image);
            }
            glyphs.push_back({static_cast<int>(3 + 8 * i), 0, glyph});
        }
        const pixman_color_t white = {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF};
        auto ink = std::shared_ptr<pixman_image_t>(pixman_image_create_solid_fill(&white), pixman_image_unref);
        return [=] {
            for (int i = 0; i < lines; ++i)
                pixman_composite_glyphs_no_mask(PIXMAN_OP_OVER, ink.get(), to->image, 0, 0, 0, 2 + 16 * i, cache,
                                                static_cast<int>(glyphs.size()), glyphs.data());
        };
    });
}

// --- 20 overlapping windows, of which one moves to and fro

constexpr int windows = 20;
constexpr int window_width = 300;
constexpr int window_height = 200;

int window_x(int index)
{
    return 40 + index * 47;
}

int window_y(int index)
{
    return 30 + index * 89 % 450;
}

void add_redraws(const char *row, bool translucent)
{
    add(row, "kestal", 1, [=] {
        auto root = std::make_shared<map_of_ours>(content::opaque);
        kestal_fbmap_t *moving = nullptr;
        for (int i = 0; i <= windows; ++i) {
            const bool back = i == 0;
            kestal_fbmap_t *map =
                kestal_new_fbmap(root->map, KESTAL_FBMAP_OWN_MEMORY, 0, back ? 0 : window_x(i), back ? 0 : window_y(i),
                                 back ? width : window_width, back ? height : window_height, 0, nullptr);
            map_of_ours::fill(map, translucent && !back ? content::translucent : content::opaque);
            kestal_fbmap_use_alpha_pixel(map, translucent && !back);
            if (i == windows / 2)
                moving = map;
        }
        return [root, moving, away = 0]() mutable {
            away = 8 - away;
            kestal_fbmap_move(moving, window_x(windows / 2) + away, window_y(windows / 2) + away);
        };
    });
    add(row, "pixman", 1, [=] {
        auto root = std::make_shared<pixman_picture>(content::opaque);
        auto back = std::make_shared<pixman_picture>(content::opaque);
        auto maps = std::make_shared<std::vector<std::unique_ptr<pixman_picture>>>();
        for (int i = 1; i <= windows; ++i)
            maps->push_back(std::make_unique<pixman_picture>(translucent ? content::translucent : content::opaque,
                                                             PIXMAN_a8r8g8b8, window_width, window_height));
        return [=, away = 0]() mutable {
            const int before = away;
            away = 8 - away;
            const int x = window_x(windows / 2), y = window_y(windows / 2);
            pixman_region32_t changed;
            pixman_region32_init_rect(&changed, x + before, y + before, window_width, window_height);
            pixman_region32_union_rect(&changed, &changed, x + away, y + away, window_width, window_height);
            pixman_image_set_clip_region32(root->image, &changed);
            pixman_image_composite32(PIXMAN_OP_SRC, back->image, nullptr, root->image, 0, 0, 0, 0, 0, 0, width, height);
            for (int i = 1; i <= windows; ++i) {
                const int moved = i == windows / 2 ? away : 0;
                pixman_image_composite32(translucent ? PIXMAN_OP_OVER : PIXMAN_OP_SRC,
                                         (*maps)[static_cast<size_t>(i - 1)]->image, nullptr, root->image, 0, 0, 0, 0,
                                         window_x(i) + moved, window_y(i) + moved, window_width, window_height);
            }
            pixman_region32_fini(&changed);
        };
    });
}

const bool rows_added = [] {
    add_fills("fill 1280x720", width - 11, height);
    add_fills("fill 32x32", 32, 32);
    add_lines();
    add_copies("copy 1280x720", way::copy);
    add_copies("blend per pixel 1280x720", way::pixel_alpha);
    add_copies("blend one alpha 1280x720", way::one_alpha);
    add_keyed_copies();
    add_conversion("ARGB8888 to RGB565 1280x720", KESTAL_COLOR_ARGB8888, PIXMAN_a8r8g8b8, KESTAL_COLOR_DRGB0565,
                   PIXMAN_r5g6b5);
    add_conversion("RGB565 to ARGB8888 1280x720", KESTAL_COLOR_DRGB0565, PIXMAN_r5g6b5, KESTAL_COLOR_ARGB8888,
                   PIXMAN_a8r8g8b8);
    add_texts();
    add_redraws("move one of 20 windows", false);
    add_redraws("move one of 20 translucent windows", true);
    return true;
}();

} // namespace
