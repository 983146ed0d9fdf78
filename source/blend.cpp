#include "blend.hpp"

#include <kestal_ulx/color.h>

#include "color.hpp"
#include "pixel.hpp"
#include "processor.hpp"

#include <algorithm>
#include <iterator>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace kestal {

namespace {

enum component : uint32_t { alpha = 1, red = 4, blue = 6, red_chroma = 9 };

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

// Red, green, blue, alpha and padding of at most 8 bits: ARGB8888 holds all that the format does.
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

// --- four channels of a byte each, many pixels at once

// What the alpha of a pixel is made of.
enum class weighing { window, pixel, both };

typedef uint32_t four_pixels __attribute__((vector_size(16)));
typedef uint16_t eight_halves __attribute__((vector_size(16)));

// Lays four pixels over four others. A channel and its neighbour but one share a pixel's halves: two multiplications of
// halves mix all four channels.
template <weighing by>
struct portable_step {
    static constexpr size_t pixels = 4;

    static void mix(uint8_t *mixed, const uint8_t *target, const uint8_t *source, const direct_mix &mix)
    {
        four_pixels over, under;
        memcpy(&over, source, sizeof over);
        memcpy(&under, target, sizeof under);

        four_pixels cover = four_pixels{} + mix.window_alpha;
        if constexpr (by != weighing::window) {
            const four_pixels own = over >> mix.alpha_shift & 0xFFu;
            const auto product = (eight_halves)own * (eight_halves)cover + uint16_t{128};
            cover = by == weighing::pixel ? own : (four_pixels)((product + (product >> 8)) >> 8);
        }
        const auto weight = (eight_halves)(cover | cover << 16);

        over |= mix.set_bits;
        const auto low_over = (eight_halves)(over & 0x00FF00FFu);
        const auto low_under = (eight_halves)(under & 0x00FF00FFu);
        const auto high_over = (eight_halves)over >> 8;
        const auto high_under = (eight_halves)under >> 8;
        const auto low = (low_over - low_under) * weight + (low_under << 8) - low_under + uint16_t{128};
        const auto high = (high_over - high_under) * weight + (high_under << 8) - high_under + uint16_t{128};
        const auto all = ((low + (low >> 8)) >> 8) | ((high + (high >> 8)) & uint16_t{0xFF00});
        memcpy(mixed, &all, sizeof all);
    }
};

#if defined(__x86_64__)
// Lays eight pixels over eight others. A channel of each and their weights are multiplied and added in one go. That takes
// channels with a sign: they go in less 128, and 255 x 128 comes back afterwards, with 128 more, which round.
template <weighing by>
struct avx2_step {
    static constexpr size_t pixels = 8;

    [[gnu::target("avx2")]] static void mix(uint8_t *mixed, const uint8_t *target, const uint8_t *source,
                                            const direct_mix &mix)
    {
        const __m256i over = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(source));
        const __m256i under = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(target));

        __m256i weight = _mm256_set1_epi8(static_cast<char>(mix.window_alpha));
        if constexpr (by != weighing::window) {
            const __m256i first = _mm256_set_epi64x(0x0C0C0C0C08080808, 0x0404040400000000, //
                                                    0x0C0C0C0C08080808, 0x0404040400000000);
            const __m256i places = _mm256_add_epi8(first, _mm256_set1_epi8(static_cast<char>(mix.alpha_shift / 8)));
            weight = _mm256_shuffle_epi8(over, places);
        }
        if constexpr (by == weighing::both) {
            const __m256i own = _mm256_and_si256(weight, _mm256_set1_epi16(0xFF));
            const __m256i window = _mm256_set1_epi16(static_cast<short>(mix.window_alpha));
            const __m256i product = _mm256_add_epi16(_mm256_mullo_epi16(own, window), _mm256_set1_epi16(128));
            const __m256i cover = divided_by_255(product);
            weight = _mm256_or_si256(cover, _mm256_slli_epi16(cover, 8));
        }
        const __m256i rest = _mm256_xor_si256(weight, _mm256_set1_epi8(-1));

        const __m256i sign = _mm256_set1_epi8(-128);
        const __m256i above =
            _mm256_xor_si256(_mm256_or_si256(over, _mm256_set1_epi32(static_cast<int>(mix.set_bits))), sign);
        const __m256i below = _mm256_xor_si256(under, sign);
        const __m256i low = mixed_half(_mm256_unpacklo_epi8(weight, rest), _mm256_unpacklo_epi8(above, below));
        const __m256i high = mixed_half(_mm256_unpackhi_epi8(weight, rest), _mm256_unpackhi_epi8(above, below));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(mixed), _mm256_packus_epi16(low, high));
    }

private:
    // Products to which 128 was added: so they are rounded.
    [[gnu::target("avx2")]] static __m256i divided_by_255(__m256i products)
    {
        return _mm256_mulhi_epu16(products, _mm256_set1_epi16(257));
    }

    [[gnu::target("avx2")]] static __m256i mixed_half(__m256i weights, __m256i channels)
    {
        const __m256i sums = _mm256_maddubs_epi16(weights, channels);
        return divided_by_255(_mm256_add_epi16(sums, _mm256_set1_epi16(INT16_MIN)));
    }
};
#endif

// Rows of a step's pixels or more. The last ones of a row overlap those before, and so are mixed while what lies below them
// is still as it was.
template <typename Step>
[[gnu::always_inline]] inline void mix_rows(const direct_box &box, const direct_mix mix)
{
    constexpr size_t size = 4 * Step::pixels;
    const size_t last_place = 4 * (box.width - Step::pixels);
    for (size_t row = 0; row < box.height; ++row) {
        uint8_t *target = box.target + row * box.target_stride;
        const uint8_t *source = box.source + row * box.source_stride;
        uint8_t last[size];
        Step::mix(last, target + last_place, source + last_place, mix);
        for (size_t at = 0; at < last_place; at += size)
            Step::mix(target + at, target + at, source + at, mix);
        memcpy(target + last_place, last, size);
    }
}

template <weighing by>
[[gnu::flatten]] void mix_portable(const direct_box &box, const direct_mix &mix)
{
    mix_rows<portable_step<by>>(box, mix);
}

#if defined(__x86_64__)
template <weighing by>
[[gnu::target("avx2"), gnu::flatten]] void mix_avx2(const direct_box &box, const direct_mix &mix)
{
    mix_rows<avx2_step<by>>(box, mix);
}
#endif

template <weighing by>
direct_mixer mixer()
{
#if defined(__x86_64__)
    if (processor::has(processor::avx2))
        return mix_avx2<by>;
#endif
    return mix_portable<by>;
}

direct_mixer mixer_for(const direct_mix &mix)
{
    if (!mix.pixel_alpha)
        return mixer<weighing::window>();
    return mix.window_alpha == 255 ? mixer<weighing::pixel>() : mixer<weighing::both>();
}

// Rows too short for a step are filled up in memory of their own.
void mix_box(direct_mixer mixer, const direct_box &box, const direct_mix &mix)
{
    constexpr size_t longest_step = 8;
    if (box.width >= longest_step)
        return mixer(box, mix);
    for (size_t row = 0; row < box.height; ++row) {
        uint8_t *target = box.target + row * box.target_stride;
        uint8_t below[4 * longest_step] = {};
        uint8_t above[4 * longest_step] = {};
        memcpy(below, target, 4 * box.width);
        memcpy(above, box.source + row * box.source_stride, 4 * box.width);
        mixer({below, 0, above, 0, longest_step, 1}, mix);
        memcpy(target, below, 4 * box.width);
    }
}

direct_mix direct_mix_of(uint32_t code, const blend_rule &rule)
{
    const uint32_t mask = alpha_mask(code);
    return {
        .alpha_shift = mask != 0 ? static_cast<uint32_t>(std::countr_zero(mask)) : 0,
        .pixel_alpha = rule.pixel_alpha && mask != 0,
        .window_alpha = rule.window_alpha,
        .set_bits = rule.pixel_alpha || rule.opaque ? mask : 0,
    };
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
    : target_code_(target_code), source_code_(source_code), target_bytes_(bytes_per_pixel(target_code)),
      source_bytes_(bytes_per_pixel(source_code)), rule_(rule)
{
    rule_.window_alpha = std::min(rule_.window_alpha, 255u);
    if (source_bytes_ < 4)
        rule_.key &= (1u << 8 * source_bytes_) - 1;
    way_ = choose();
    if (way_ != way::direct && way_ != way::by_channels)
        return;
    mix_ = direct_mix_of(way_ == way::direct ? target_code_ : KESTAL_COLOR_ARGB8888, rule_);
    mixer_ = mixer_for(mix_);
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
    if (!rule_.keyed)
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

void row_blender::box(uint8_t *target, uint64_t target_stride, const uint8_t *source, uint64_t source_stride,
                      size_t width, size_t height) const
{
    if (width * target_bytes_ == target_stride && width * source_bytes_ == source_stride) {
        width *= height;
        height = 1;
    }
    if (way_ == way::direct && !rule_.keyed)
        return mix_box(mixer_, {target, target_stride, source, source_stride, width, height}, mix_);
    for (size_t row = 0; row < height; ++row)
        (*this)(target + row * target_stride, source + row * source_stride, width);
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
        return mix_box(mixer_, {target, 0, source, 0, count, 1}, mix_);
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
    for (size_t done = 0; done < count; done += part) {
        const size_t now = std::min(part, count - done);
        uint8_t *at = target + done * target_bytes_;
        convert_color_row(argb, over, source_code_, source + done * source_bytes_, now);
        convert_color_row(argb, under, target_code_, at, now);
        mix_box(mixer_, {under, 0, over, 0, now, 1}, mix_);
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
