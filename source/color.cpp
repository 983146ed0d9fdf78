#include <kestal_ulx/color.h>

#include "color.hpp"
#include "pixel.hpp"
#include "processor.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <span>
#include <string.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

namespace component {
constexpr uint32_t alpha = 1, red = 4, green = 5, blue = 6, luma = 7, blue_difference = 8, red_difference = 9;
}
constexpr char component_letters[] = "dAPgRGBYuvxxxxxp";
constexpr uint32_t component_count = 16;
constexpr uint32_t opaque = 0xFF;

// --- what a code says

struct field {
    uint32_t component;
    uint32_t width; // in bits; 0 when the field is absent
    uint32_t end;   // the bit above its highest one
};

constexpr std::array<field, 4> fields_of(uint32_t code)
{
    std::array<field, 4> fields{};
    uint32_t end = 0;
    for (field &each : fields) {
        end += code & 0xF;
        each = {.component = code >> 4 & 0xF, .width = code & 0xF, .end = end};
        code >>= 8;
    }
    return fields;
}

constexpr bool is_yuv(uint32_t code)
{
    return std::ranges::any_of(fields_of(code), [](const field &each) {
        return each.width != 0 && each.component >= component::luma && each.component <= component::red_difference;
    });
}

// The bits of a pixel's value from `width` below `end` on, as far as it has so many.
constexpr uint64_t bits_below(uint32_t end, uint32_t width)
{
    return ((UINT64_C(1) << width) - 1) << (end - width) & UINT32_MAX;
}

// --- the palette: the colours of a terminal, a cube of 6 levels, greys

constexpr uint32_t opaque_color(uint32_t red, uint32_t green, uint32_t blue)
{
    return opaque << 24 | red << 16 | green << 8 | blue;
}

constexpr std::array<uint32_t, 256> make_palette()
{
    constexpr uint32_t terminal[16] = {0x000000, 0xCD0000, 0x00CD00, 0xCDCD00, 0x0000EE, 0xCD00CD, 0x00CDCD, 0xE5E5E5,
                                       0x7F7F7F, 0xFF0000, 0x00FF00, 0xFFFF00, 0x5C5CFF, 0xFF00FF, 0x00FFFF, 0xFFFFFF};
    constexpr uint32_t levels[6] = {0, 95, 135, 175, 215, 255};
    std::array<uint32_t, 256> palette{};
    uint32_t i = 0;
    for (const uint32_t color : terminal)
        palette[i++] = opaque << 24 | color;
    for (const uint32_t red : levels)
        for (const uint32_t green : levels)
            for (const uint32_t blue : levels)
                palette[i++] = opaque_color(red, green, blue);
    for (uint32_t grey = 8; i < 256; grey += 10)
        palette[i++] = opaque_color(grey, grey, grey);
    return palette;
}

constexpr std::array<uint32_t, 256> palette = make_palette();

// Formats whose values are no colours but stand for ARGB8888 colours.
bool is_indexed(uint32_t code)
{
    return code == KESTAL_COLOR_DDDP0008 || code == KESTAL_COLOR_PPPP1111 || code == KESTAL_COLOR_DDPP0011 ||
           code == KESTAL_COLOR_DDDG0001;
}

uint32_t look_up(uint32_t code, uint32_t value)
{
    if (code == KESTAL_COLOR_DDDG0001)
        return value != 0 ? opaque_color(255, 255, 255) : opaque_color(0, 0, 0);
    return palette[value & 0xFF];
}

// --- formats of one colour space: groups of bits change places

struct bit_moves {
    std::array<uint32_t, 4> masks{};
    std::array<uint8_t, 4> rotations{}; // to the left, before the mask
    uint32_t constant = 0;

    constexpr uint32_t operator()(uint32_t value) const
    {
        const auto moved = [&](size_t group) { return std::rotl(value, rotations[group]) & masks[group]; };
        return moved(0) | moved(1) | moved(2) | moved(3) | constant;
    }

    // Bits that go equally far go together.
    constexpr void add(uint32_t rotation, uint32_t mask)
    {
        size_t place = 0;
        while (masks[place] != 0 && rotations[place] != rotation)
            place++;
        masks[place] |= mask;
        rotations[place] = static_cast<uint8_t>(rotation);
    }
};

// As if each component went through a channel of 8 bits, in which it stands at the upper end.
constexpr bit_moves moves_between(uint32_t target, uint32_t source)
{
    // Not what 5:6:5 cut to 2:3:3 would be: callers rely on these bits.
    if (target == KESTAL_COLOR_DRGB0233 && source == KESTAL_COLOR_DRGB0565)
        return {.masks = {0xC00000, 0xE000, 0xE0}, .rotations = {16, 10, 5}};

    bit_moves moves;
    for (const field &to : fields_of(target)) {
        if (to.width == 0)
            continue;
        field from{};
        for (const field &each : fields_of(source))
            if (each.width != 0 && each.component == to.component)
                from = each;
        if (from.width != 0) {
            const uint32_t width = std::min({to.width, from.width, 8u});
            const uint32_t rotation = (to.end - from.end) % 32;
            const uint64_t taken = bits_below(from.end, width);
            const uint64_t mask = to.end >= from.end ? taken << (to.end - from.end) : taken >> (from.end - to.end);
            moves.add(rotation, static_cast<uint32_t>(mask));
        } else if (to.component == component::alpha) {
            moves.constant |= static_cast<uint32_t>(bits_below(to.end, std::min(to.width, 8u)));
        }
    }
    return moves;
}

// Each named format has a slot of its own, so that the moves between them are at hand.
constexpr uint32_t slot_count = 8;

constexpr uint32_t slot_of(uint32_t code)
{
    return code * 0x736AE249u >> 29; // the first multiplier found that tells them apart
}

struct named_format {
    uint32_t code = 0;
    std::array<bit_moves, slot_count> from{};
};

constexpr std::array<named_format, slot_count> named_formats = [] {
    std::array<named_format, slot_count> formats{};
    for (const uint32_t code :
         {KESTAL_COLOR_ARGB8888, KESTAL_COLOR_DRGB8888, KESTAL_COLOR_DRGB0888, KESTAL_COLOR_ABGR8888,
          KESTAL_COLOR_DBGR0888, KESTAL_COLOR_DRGB0565, KESTAL_COLOR_DRGB0233})
        formats[slot_of(code)].code = code;
    for (named_format &target : formats)
        for (size_t slot = 0; slot < slot_count; slot++)
            target.from[slot] = moves_between(target.code, formats[slot].code);
    return formats;
}();

static_assert(std::ranges::count_if(named_formats, [](const named_format &each) { return each.code != 0; }) == 7);

const bit_moves *known_moves(uint32_t target, uint32_t source)
{
    const named_format &to = named_formats[slot_of(target)];
    const uint32_t slot = slot_of(source);
    return to.code == target && named_formats[slot].code == source ? &to.from[slot] : nullptr;
}

// --- formats of RGB and YUV: channels of 8 bits, recomputed in 16.16 fixed point

using channels = std::array<uint8_t, component_count>;

channels unpack(uint32_t code, uint32_t value)
{
    channels unpacked{};
    unpacked[component::alpha] = opaque;
    for (const field &each : fields_of(code)) {
        if (each.width == 0)
            continue;
        const uint64_t bits = (value & bits_below(each.end, each.width)) >> (each.end - each.width);
        unpacked[each.component] = static_cast<uint8_t>(bits << 8 >> each.width);
    }
    return unpacked;
}

uint32_t pack(uint32_t code, const channels &unpacked)
{
    uint64_t packed = 0;
    for (const field &each : fields_of(code))
        packed |= (uint64_t{unpacked[each.component]} << each.width >> 8) << (each.end - each.width);
    return static_cast<uint32_t>(packed);
}

void rgb_to_yuv(channels &color)
{
    const int32_t red = color[component::red], green = color[component::green], blue = color[component::blue];
    const int32_t luma = (19595 * red >> 16) + (38470 * green >> 16) + (7471 * blue >> 16);
    const int32_t blue_difference = -(11059 * red >> 16) - (21709 * green >> 16) + (blue >> 1) + 128;
    const int32_t red_difference = (red >> 1) - (27439 * green >> 16) - (5329 * blue >> 16) + 128;
    color[component::luma] = static_cast<uint8_t>(luma);
    color[component::blue_difference] = static_cast<uint8_t>(blue_difference);
    color[component::red_difference] = static_cast<uint8_t>(red_difference);
}

void yuv_to_rgb(channels &color)
{
    const int32_t luma = color[component::luma];
    const int32_t blue_difference = color[component::blue_difference] - 128;
    const int32_t red_difference = color[component::red_difference] - 128;
    color[component::red] = static_cast<uint8_t>(luma + 91881 * red_difference / 65536);
    color[component::green] =
        static_cast<uint8_t>(luma - 22554 * blue_difference / 65536 - 46802 * red_difference / 65536);
    // From the luma, not from the blue difference: callers rely on these values.
    color[component::blue] = static_cast<uint8_t>(luma + (116130 * luma >> 16));
}

// --- formats whose bytes only change places

#if defined(__x86_64__)
// Which byte of a pixel of the source each byte of one of the target is, where all that moves is whole bytes.
struct byte_moves {
    static constexpr uint8_t none = 0x80;

    uint8_t from[4] = {none, none, none, none};
    uint32_t constant;

    explicit byte_moves(const bit_moves &moves) : constant(moves.constant)
    {
        for (size_t group = 0; group < moves.masks.size(); group++)
            for (uint32_t byte = 0; byte < 4; byte++)
                if ((moves.masks[group] >> 8 * byte & 0xFFu) != 0)
                    from[byte] = static_cast<uint8_t>((byte - moves.rotations[group] / 8u) % 4);
    }

    static bool is_enough(const bit_moves &moves)
    {
        for (size_t group = 0; group < moves.masks.size(); group++)
            if (moves.rotations[group] % 8 != 0 || (moves.masks[group] & 0x01010101u) * 0xFFu != moves.masks[group])
                return false;
        return true;
    }
};

// Converts as many of `count` pixels of 3 or 4 bytes as can be read and written four at once, and returns how many.
[[gnu::target("ssse3")]] size_t shuffle_row(uint8_t *target, size_t target_size, const uint8_t *source,
                                            size_t source_size, size_t count, const byte_moves &moves)
{
    constexpr size_t pixels = 4;
    alignas(16) uint8_t places[sizeof(__m128i)];
    alignas(16) uint8_t constants[sizeof(__m128i)] = {};
    memset(places, byte_moves::none, sizeof places);
    for (size_t i = 0; i < pixels; i++)
        for (size_t byte = 0; byte < target_size; byte++) {
            if (moves.from[byte] != byte_moves::none)
                places[i * target_size + byte] = static_cast<uint8_t>(i * source_size + moves.from[byte]);
            constants[i * target_size + byte] = static_cast<uint8_t>(moves.constant >> 8 * byte);
        }
    const __m128i shuffled = _mm_load_si128(reinterpret_cast<const __m128i *>(places));
    const __m128i constant = _mm_load_si128(reinterpret_cast<const __m128i *>(constants));
    const size_t reach = std::min(target_size, source_size) == 3 ? 6 : pixels; // pixels that 16 bytes touch
    const size_t steps = count < reach ? 0 : (count - reach) / pixels + 1;
#pragma GCC unroll 4
    for (size_t i = 0; i < steps; i++) {
        const __m128i from = _mm_loadu_si128(reinterpret_cast<const __m128i *>(source + i * pixels * source_size));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(target + i * pixels * target_size),
                         _mm_or_si128(_mm_shuffle_epi8(from, shuffled), constant));
    }
    return steps * pixels;
}
#endif

// --- any two formats

// What it takes from one format to another, chosen once for any number of colours.
class conversion {
public:
    conversion(uint32_t target, uint32_t source)
        : target_(target), source_(source), indexed_(is_indexed(source)),
          source_color_(indexed_ ? KESTAL_COLOR_ARGB8888 : source), crosses_(is_yuv(target) != is_yuv(source))
    {
        if (const bit_moves *known = known_moves(target_, source_color_))
            moves_ = *known;
        else if (!crosses_)
            moves_ = moves_between(target_, source_color_);
    }

    uint32_t operator()(uint32_t value) const
    {
        if (indexed_)
            value = look_up(source_, value);
        return crosses_ ? cross(value) : moves_(value);
    }

    void convert(std::span<uint32_t> colors) const
    {
        if (crosses_) {
            for (uint32_t &each : colors)
                each = (*this)(each);
            return;
        }
        if (indexed_)
            for (uint32_t &each : colors)
                each = look_up(source_, each);
        const bit_moves moves = moves_;
        for (uint32_t &each : colors)
            each = moves(each);
    }

    // Converts the first ones of a row that can be converted by moving bytes, and returns how many.
    size_t convert_bytes([[maybe_unused]] uint8_t *target, [[maybe_unused]] size_t target_size,
                         [[maybe_unused]] const uint8_t *source, [[maybe_unused]] size_t source_size,
                         [[maybe_unused]] size_t count) const
    {
#if defined(__x86_64__)
        if (!crosses_ && !indexed_ && target_size >= 3 && source_size >= 3 && byte_moves::is_enough(moves_) &&
            kestal::processor::has(kestal::processor::ssse3))
            return shuffle_row(target, target_size, source, source_size, count, byte_moves(moves_));
#endif
        return 0;
    }

private:
    uint32_t cross(uint32_t value) const
    {
        channels color = unpack(source_color_, value);
        if (is_yuv(target_))
            rgb_to_yuv(color);
        else
            yuv_to_rgb(color);
        return pack(target_, color);
    }

    uint32_t target_, source_;
    bool indexed_;
    uint32_t source_color_;
    bool crosses_;
    bit_moves moves_;
};

// --- rows

template <size_t size>
void load_row(uint32_t *__restrict values, const uint8_t *__restrict pixels, size_t count)
{
    for (size_t i = 0; i < count; i++)
        values[i] = kestal::load_pixel<size>(pixels + i * size);
}

template <size_t size>
void store_row(uint8_t *__restrict pixels, const uint32_t *__restrict values, size_t count)
{
    for (size_t i = 0; i < count; i++)
        kestal::store_pixel<size>(pixels + i * size, values[i]);
}

// Bits that go only up or only down need no whole rotation.
template <uint32_t mask, int rotation>
[[gnu::always_inline]] inline uint32_t move_bits(uint32_t value)
{
    if constexpr (mask == 0)
        return 0;
    else if constexpr (rotation == 0)
        return value & mask;
    else if constexpr (mask >> rotation << rotation == mask)
        return value << rotation & mask;
    else if constexpr (mask << (32 - rotation) >> (32 - rotation) == mask)
        return value >> (32 - rotation) & mask;
    else
        return std::rotl(value, rotation) & mask;
}

template <uint32_t target_code, uint32_t source_code>
[[gnu::always_inline]] inline void convert_row(uint8_t *__restrict target, const uint8_t *__restrict source,
                                               size_t count)
{
    constexpr bit_moves moves = moves_between(target_code, source_code);
    constexpr size_t target_size = kestal::bytes_per_pixel(target_code);
    constexpr size_t source_size = kestal::bytes_per_pixel(source_code);
    const auto moved = [&]<size_t... group>(uint32_t value, std::index_sequence<group...>)
    {
        return (move_bits<moves.masks[group], moves.rotations[group]>(value) | ...);
    };
    for (size_t i = 0; i < count; i++) {
        const uint32_t value = kestal::load_pixel<source_size>(source + i * source_size);
        kestal::store_pixel<target_size>(target + i * target_size,
                                         moved(value, std::make_index_sequence<4>{}) | moves.constant);
    }
}

// The conversions of pictures for the screen and back take one step, a wide one where the processor can.
struct direct_row {
    uint32_t target, source;
    void (*convert)(uint8_t *target, const uint8_t *source, size_t count);
    void (*convert_wide)(uint8_t *target, const uint8_t *source, size_t count);
};

template <uint32_t target_code, uint32_t source_code>
void convert_directly(uint8_t *target, const uint8_t *source, size_t count)
{
    convert_row<target_code, source_code>(target, source, count);
}

#if defined(__x86_64__)
template <uint32_t target_code, uint32_t source_code>
[[gnu::target("avx2")]] void convert_directly_wide(uint8_t *target, const uint8_t *source, size_t count)
{
    convert_row<target_code, source_code>(target, source, count);
}
#else
template <uint32_t target_code, uint32_t source_code>
constexpr auto convert_directly_wide = convert_directly<target_code, source_code>;
#endif

template <uint32_t target_code, uint32_t source_code>
constexpr direct_row direct = {target_code, source_code, convert_directly<target_code, source_code>,
                               convert_directly_wide<target_code, source_code>};

constexpr direct_row direct_rows[] = {
    direct<KESTAL_COLOR_DRGB0565, KESTAL_COLOR_ARGB8888>, direct<KESTAL_COLOR_ARGB8888, KESTAL_COLOR_DRGB0565>,
#if !defined(__x86_64__)
    direct<KESTAL_COLOR_DRGB0888, KESTAL_COLOR_ARGB8888>, direct<KESTAL_COLOR_ARGB8888, KESTAL_COLOR_DRGB0888>,
    direct<KESTAL_COLOR_DRGB8888, KESTAL_COLOR_ARGB8888>, direct<KESTAL_COLOR_ARGB8888, KESTAL_COLOR_DRGB8888>,
    direct<KESTAL_COLOR_ABGR8888, KESTAL_COLOR_ARGB8888>, direct<KESTAL_COLOR_ARGB8888, KESTAL_COLOR_ABGR8888>,
#endif
};

const direct_row *direct_row_of(uint32_t target, uint32_t source)
{
    for (const direct_row &each : direct_rows)
        if (each.target == target && each.source == source)
            return &each;
    return nullptr;
}

// By the bytes of a pixel, from 1 on.
struct row_access {
    void (*load)(uint32_t *values, const uint8_t *pixels, size_t count);
    void (*store)(uint8_t *pixels, const uint32_t *values, size_t count);
};

constexpr row_access row_accesses[] = {
    {load_row<1>, store_row<1>},
    {load_row<2>, store_row<2>},
    {load_row<3>, store_row<3>},
    {load_row<4>, store_row<4>},
};

} // namespace

uint32_t kestal_color_interface_to_bits_per_pixel(uint32_t code)
{
    return kestal::bits_per_pixel(code);
}

uint32_t kestal_bits_per_pixel_to_color_interface(uint32_t bits)
{
    switch (bits) {
    case 32:
        return KESTAL_COLOR_ARGB8888;
    case 24:
        return KESTAL_COLOR_DRGB0888;
    case 16:
        return KESTAL_COLOR_DRGB0565;
    case 8:
        return KESTAL_COLOR_DDDP0008;
    case 4:
        return KESTAL_COLOR_PPPP1111;
    case 2:
        return KESTAL_COLOR_DDPP0011;
    case 1:
        return KESTAL_COLOR_DDDG0001;
    default:
        return 0;
    }
}

char *kestal_color_interface_name(char *buffer, uint32_t code)
{
    if (buffer == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < 4; i++) {
        const uint32_t bits = code >> (24 - 8 * i);
        const uint32_t width = bits & 0xF;
        buffer[i] = component_letters[bits >> 4 & 0xF];
        buffer[4 + i] = static_cast<char>(width > 9 ? 'A' + width : '0' + width);
    }
    buffer[8] = '\0';
    return buffer;
}

uint32_t kestal_convert_color(uint32_t target, uint32_t source, uint32_t value)
{
    if (target == source)
        return value;
    if (const bit_moves *known = known_moves(target, source))
        return (*known)(value);
    return conversion(target, source)(value);
}

namespace kestal {

bool convert_color_row(uint32_t target_code, uint8_t *target, uint32_t source_code, const uint8_t *source, size_t count)
{
    const size_t target_size = bytes_per_pixel(target_code), source_size = bytes_per_pixel(source_code);
    if (target_size == 0 || source_size == 0)
        return false;
    if (target_code == source_code) {
        memcpy(target, source, count * target_size);
        return true;
    }
    if (const direct_row *direct = direct_row_of(target_code, source_code)) {
        const bool wide = processor::has(processor::avx2);
        (wide ? direct->convert_wide : direct->convert)(target, source, count);
        return true;
    }
    const conversion converted(target_code, source_code);
    const size_t done = converted.convert_bytes(target, target_size, source, source_size, count);
    target += done * target_size;
    source += done * source_size;
    count -= done;
    std::array<uint32_t, 256> values;
    while (count > 0) {
        const size_t part = std::min(count, values.size());
        row_accesses[source_size - 1].load(values.data(), source, part);
        converted.convert({values.data(), part});
        row_accesses[target_size - 1].store(target, values.data(), part);
        source += part * source_size;
        target += part * target_size;
        count -= part;
    }
    return true;
}

} // namespace kestal
