#include "blend.hpp"

#include <kestal_ulx/color.h>

#include "color.hpp"
#include "pixel.hpp"
#include "processor.hpp"

#include <algorithm>
#include <iterator>

namespace kestal {

namespace {

enum component : uint32_t {
    padding = 0,
    alpha = 1,
    red = 4,
    green = 5,
    blue = 6,
    luma = 7,
    blue_chroma = 8,
    red_chroma = 9
};

struct field {
    uint32_t component;
    uint32_t width;
    uint32_t position;
};

// Calls visit(field) for each field of a format, the least significant first.
template <typename Visit>
void for_each_field(uint32_t code, Visit visit)
{
    uint32_t position = 0;
    for (uint32_t rest = code; rest != 0; rest >>= 8) {
        const uint32_t width = rest & 15u;
        if (width > 0)
            visit(field{rest >> 4 & 15u, width, position});
        position += width;
    }
}

uint32_t bytes_of(uint32_t code)
{
    return kestal_color_interface_to_bits_per_pixel(code) / 8;
}

// The bits of a format's alpha channel.
uint32_t alpha_mask(uint32_t code)
{
    uint32_t mask = 0;
    for_each_field(code, [&](field each) {
        if (each.component == alpha)
            mask = ((1u << each.width) - 1) << each.position;
    });
    return mask;
}

// Red, green, blue and alpha of at most 8 bits: ARGB8888 holds all that the format does.
bool is_rgb(uint32_t code)
{
    bool all = code != 0;
    for_each_field(code, [&](field each) {
        all = all && each.width <= 8 && (each.component <= alpha || (each.component >= red && each.component <= blue));
    });
    return all;
}

// Four channels of a byte each.
bool is_four_bytes(uint32_t code)
{
    return (code & 0x0F0F0F0Fu) == 0x08080808u;
}

uint32_t divided_by_255(uint32_t product)
{
    return (product + 128 + ((product + 128) >> 8)) >> 8;
}

// --- four channels of a byte each, eight pixels at once

struct direct_mix {
    uint32_t alpha_shift;
    bool pixel_alpha;
    bool keyed;
    uint32_t key;
    uint32_t window_alpha;
    uint32_t set_bits; // the alpha channel, where the source's is not handed on
};

typedef uint32_t pixels_of_32_bits __attribute__((vector_size(32)));
typedef uint16_t halves_of_16_bits __attribute__((vector_size(32)));

constexpr size_t pixels_at_once = sizeof(pixels_of_32_bits) / sizeof(uint32_t);

// A channel and its neighbour but one share a pixel's halves: two multiplications of halves mix all four.
template <bool pixel_alpha, bool keyed>
[[gnu::always_inline]] inline void mix_at_once(uint8_t *target, const uint8_t *source, const direct_mix &mix)
{
    pixels_of_32_bits over, under;
    memcpy(&over, source, sizeof over);
    memcpy(&under, target, sizeof under);

    pixels_of_32_bits cover = pixels_of_32_bits{} + mix.window_alpha;
    if constexpr (pixel_alpha) {
        const pixels_of_32_bits own = over >> mix.alpha_shift & 0xFFu;
        const auto product = (halves_of_16_bits)own * (halves_of_16_bits)cover + uint16_t{128};
        cover = (pixels_of_32_bits)((product + (product >> 8)) >> 8);
    }
    if constexpr (keyed)
        cover &= (pixels_of_32_bits)(over != mix.key);
    const auto weight = (halves_of_16_bits)(cover | cover << 16);

    over |= mix.set_bits;
    const auto low_over = (halves_of_16_bits)(over & 0x00FF00FFu);
    const auto low_under = (halves_of_16_bits)(under & 0x00FF00FFu);
    const auto high_over = (halves_of_16_bits)over >> 8;
    const auto high_under = (halves_of_16_bits)under >> 8;
    const auto low = (low_over - low_under) * weight + (low_under << 8) - low_under + uint16_t{128};
    const auto high = (high_over - high_under) * weight + (high_under << 8) - high_under + uint16_t{128};
    const auto mixed = ((low + (low >> 8)) >> 8) | ((high + (high >> 8)) & uint16_t{0xFF00});
    memcpy(target, &mixed, sizeof mixed);
}

template <bool pixel_alpha, bool keyed>
[[gnu::always_inline]] inline void mix_all(uint8_t *target, const uint8_t *source, size_t count, const direct_mix &mix)
{
    const size_t whole = count - count % pixels_at_once;
    for (size_t i = 0; i < whole; i += pixels_at_once)
        mix_at_once<pixel_alpha, keyed>(target + 4 * i, source + 4 * i, mix);
    if (whole == count)
        return;
    uint8_t last_target[sizeof(pixels_of_32_bits)] = {};
    uint8_t last_source[sizeof(pixels_of_32_bits)] = {};
    const size_t rest = 4 * (count - whole);
    memcpy(last_target, target + 4 * whole, rest);
    memcpy(last_source, source + 4 * whole, rest);
    mix_at_once<pixel_alpha, keyed>(last_target, last_source, mix);
    memcpy(target + 4 * whole, last_target, rest);
}

[[gnu::always_inline]] inline void mix_by_kind(uint8_t *target, const uint8_t *source, size_t count,
                                               const direct_mix &mix)
{
    if (mix.pixel_alpha)
        mix.keyed ? mix_all<true, true>(target, source, count, mix) : mix_all<true, false>(target, source, count, mix);
    else
        mix.keyed ? mix_all<false, true>(target, source, count, mix)
                  : mix_all<false, false>(target, source, count, mix);
}

void mix_direct_portable(uint8_t *target, const uint8_t *source, size_t count, const direct_mix &mix)
{
    mix_by_kind(target, source, count, mix);
}

#if defined(__x86_64__)
[[gnu::target("avx2")]] void mix_direct_avx2(uint8_t *target, const uint8_t *source, size_t count,
                                             const direct_mix &mix)
{
    mix_by_kind(target, source, count, mix);
}
#endif

void mix_direct(uint8_t *target, const uint8_t *source, size_t count, uint32_t code, const blend_rule &rule)
{
    const uint32_t mask = alpha_mask(code);
    const direct_mix mix = {
        .alpha_shift = mask != 0 ? static_cast<uint32_t>(std::countr_zero(mask)) : 0,
        .pixel_alpha = rule.pixel_alpha && mask != 0,
        .keyed = rule.keyed,
        .key = rule.key,
        .window_alpha = rule.window_alpha,
        .set_bits = rule.pixel_alpha || rule.opaque ? mask : 0,
    };
#if defined(__x86_64__)
    if (processor::has(processor::avx2))
        return mix_direct_avx2(target, source, count, mix);
#endif
    mix_direct_portable(target, source, count, mix);
}

// --- copies without the pixels of one colour

template <typename Pixel>
void select(uint8_t *target, const uint8_t *source, size_t count, uint32_t key)
{
    for (size_t i = 0; i < count; ++i) {
        Pixel over, under;
        memcpy(&over, source + i * sizeof over, sizeof over);
        memcpy(&under, target + i * sizeof under, sizeof under);
        under = over == static_cast<Pixel>(key) ? under : over;
        memcpy(target + i * sizeof under, &under, sizeof under);
    }
}

void select_row(uint8_t *target, const uint8_t *source, size_t count, size_t bytes, uint32_t key)
{
    if (bytes == 1)
        select<uint8_t>(target, source, count, key);
    else if (bytes == 2)
        select<uint16_t>(target, source, count, key);
    else
        select<uint32_t>(target, source, count, key);
}

// --- pixels that are no red, green and blue

uint32_t mixed_field(field each, uint32_t over, uint32_t under, uint32_t cover)
{
    const uint32_t mask = (1u << each.width) - 1;
    const uint32_t above = over >> each.position & mask;
    const uint32_t below = under >> each.position & mask;
    const bool is_channel = each.component == alpha || (each.component >= red && each.component <= red_chroma);
    if (!is_channel)
        return (cover >= 128 ? above : below) << each.position;
    const uint32_t widen = each.width < 8 ? 8 - each.width : 0;
    const uint32_t mixed = ((above << widen) * cover + (below << widen) * (255 - cover) + 127) / 255;
    return mixed >> widen << each.position;
}

} // namespace

row_blender::row_blender(uint32_t target_code, uint32_t source_code, const blend_rule &rule)
    : target_code_(target_code), source_code_(source_code), target_bytes_(bytes_of(target_code)),
      source_bytes_(bytes_of(source_code)), rule_(rule)
{
    rule_.window_alpha = std::min(rule_.window_alpha, 255u);
    if (source_bytes_ < 4)
        rule_.key &= (1u << 8 * source_bytes_) - 1;
    way_ = choose();
}

row_blender::way row_blender::choose() const
{
    const bool same = target_code_ == source_code_;
    const bool sets_alpha = rule_.opaque && alpha_mask(source_code_) != 0 && alpha_mask(target_code_) != 0;
    const bool mixes = rule_.window_alpha < 255 || sets_alpha || (rule_.pixel_alpha && alpha_mask(source_code_) != 0);
    if (!mixes && same)
        return rule_.keyed && source_bytes_ != 3 ? way::select : way::copy;
    if (!mixes)
        return way::convert;
    if (same && is_four_bytes(source_code_))
        return way::direct;
    return is_rgb(target_code_) ? way::by_channels : way::by_fields;
}

void row_blender::operator()(uint8_t *target, const uint8_t *source, size_t count) const
{
    if (way_ == way::select)
        return select_row(target, source, count, source_bytes_, rule_.key);
    if (!rule_.keyed || way_ == way::direct)
        return blend_run(target, source, count);
    const auto is_key = [&](size_t i) { return load_pixel(source + i * source_bytes_, source_bytes_) == rule_.key; };
    for (size_t first = 0; first < count;) {
        size_t last = first;
        while (last < count && !is_key(last))
            ++last;
        if (last > first)
            blend_run(target + first * target_bytes_, source + first * source_bytes_, last - first);
        first = last + 1;
    }
}

void row_blender::blend_run(uint8_t *target, const uint8_t *source, size_t count) const
{
    switch (way_) {
    case way::copy:
    case way::select:
        memmove(target, source, count * source_bytes_);
        return;
    case way::convert:
        convert_color_row(target_code_, target, source_code_, source, count);
        return;
    case way::direct:
        return mix_direct(target, source, count, target_code_, rule_);
    case way::by_channels:
        return mix_channels(target, source, count);
    case way::by_fields:
        return mix_fields(target, source, count);
    }
}

// By way of ARGB8888, which holds the channels of all these formats.
void row_blender::mix_channels(uint8_t *target, const uint8_t *source, size_t count) const
{
    constexpr size_t part = 256;
    constexpr uint32_t argb = KESTAL_COLOR_ARGB8888;
    alignas(32) uint8_t over[4 * part];
    alignas(32) uint8_t under[4 * part];
    blend_rule rule = rule_;
    rule.keyed = false;
    for (size_t done = 0; done < count; done += part) {
        const size_t now = std::min(part, count - done);
        uint8_t *at = target + done * target_bytes_;
        convert_color_row(argb, over, source_code_, source + done * source_bytes_, now);
        convert_color_row(argb, under, target_code_, at, now);
        mix_direct(under, over, now, argb, rule);
        convert_color_row(target_code_, at, argb, under, now);
    }
}

void row_blender::mix_fields(uint8_t *target, const uint8_t *source, size_t count) const
{
    const uint32_t set_bits = rule_.pixel_alpha || rule_.opaque ? alpha_mask(target_code_) : 0;
    for (size_t i = 0; i < count; ++i) {
        const uint32_t value = load_pixel(source + i * source_bytes_, source_bytes_);
        const uint32_t own =
            rule_.pixel_alpha ? kestal_convert_color(KESTAL_COLOR_ARGB8888, source_code_, value) >> 24 : 255;
        const uint32_t cover = divided_by_255(own * rule_.window_alpha);
        const uint32_t over = kestal_convert_color(target_code_, source_code_, value) | set_bits;
        uint8_t *at = target + i * target_bytes_;
        const uint32_t under = load_pixel(at, target_bytes_);
        uint32_t mixed = 0;
        for_each_field(target_code_, [&](field each) { mixed |= mixed_field(each, over, under, cover); });
        store_pixel(at, target_bytes_, mixed);
    }
}

} // namespace kestal
