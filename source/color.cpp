#include <kestal_ulx/color.h>

#include "color.hpp"
#include "processor.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <span>
#include <string.h>

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
    struct group {
        int rotation = 0; // to the left
        uint32_t mask = 0;
    };
    std::array<group, 4> groups;
    uint32_t constant = 0;

    constexpr uint32_t operator()(uint32_t value) const
    {
        const auto moved = [value](group bits) { return std::rotl(value, bits.rotation) & bits.mask; };
        return moved(groups[0]) | moved(groups[1]) | moved(groups[2]) | moved(groups[3]) | constant;
    }

    // Bits that go equally far go together.
    constexpr void add(int rotation, uint32_t mask)
    {
        group *place = groups.data();
        while (place->mask != 0 && place->rotation != rotation)
            place++;
        *place = {.rotation = rotation, .mask = place->mask | mask};
    }
};

// As if each component went through a channel of 8 bits, in which it stands at the upper end.
constexpr bit_moves moves_between(uint32_t target, uint32_t source)
{
    // Not what 5:6:5 cut to 2:3:3 would be: callers rely on these bits.
    if (target == KESTAL_COLOR_DRGB0233 && source == KESTAL_COLOR_DRGB0565)
        return {.groups = {{{16, 0xC00000}, {10, 0xE000}, {5, 0xE0}, {}}}};

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
            const int rotation = static_cast<int>((to.end - from.end) % 32);
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

// The value of a pixel in memory, and back.
template <uint32_t size>
[[gnu::always_inline]] inline uint32_t load(const uint8_t *pixel)
{
    if constexpr (size == 3) {
        return uint32_t{pixel[0]} | uint32_t{pixel[1]} << 8 | uint32_t{pixel[2]} << 16;
    } else {
        std::conditional_t<size == 1, uint8_t, std::conditional_t<size == 2, uint16_t, uint32_t>> value;
        memcpy(&value, pixel, size);
        return value;
    }
}

template <uint32_t size>
[[gnu::always_inline]] inline void store(uint8_t *pixel, uint32_t value)
{
    if constexpr (size == 3) {
        pixel[0] = static_cast<uint8_t>(value);
        pixel[1] = static_cast<uint8_t>(value >> 8);
        pixel[2] = static_cast<uint8_t>(value >> 16);
    } else {
        using pixel_type = std::conditional_t<size == 1, uint8_t, std::conditional_t<size == 2, uint16_t, uint32_t>>;
        const pixel_type cut = static_cast<pixel_type>(value);
        memcpy(pixel, &cut, size);
    }
}

template <uint32_t size>
void load_row(uint32_t *__restrict values, const uint8_t *__restrict pixels, size_t count)
{
    for (size_t i = 0; i < count; i++)
        values[i] = load<size>(pixels + i * size);
}

template <uint32_t size>
void store_row(uint8_t *__restrict pixels, const uint32_t *__restrict values, size_t count)
{
    for (size_t i = 0; i < count; i++)
        store<size>(pixels + i * size, values[i]);
}

// Bits that go only up or only down need no whole rotation.
template <bit_moves::group moved>
[[gnu::always_inline]] inline uint32_t move_bits(uint32_t value)
{
    if constexpr (moved.mask == 0)
        return 0;
    else if constexpr (moved.rotation == 0)
        return value & moved.mask;
    else if constexpr (moved.mask >> moved.rotation << moved.rotation == moved.mask)
        return value << moved.rotation & moved.mask;
    else if constexpr (moved.mask << (32 - moved.rotation) >> (32 - moved.rotation) == moved.mask)
        return value >> (32 - moved.rotation) & moved.mask;
    else
        return std::rotl(value, moved.rotation) & moved.mask;
}

template <uint32_t target_code, uint32_t source_code>
[[gnu::always_inline]] inline void convert_row(uint8_t *__restrict target, const uint8_t *__restrict source,
                                               size_t count)
{
    constexpr bit_moves moves = moves_between(target_code, source_code);
    constexpr uint32_t target_size = fields_of(target_code).back().end / 8;
    constexpr uint32_t source_size = fields_of(source_code).back().end / 8;
    for (size_t i = 0; i < count; i++) {
        const uint32_t value = load<source_size>(source + i * source_size);
        const uint32_t moved = move_bits<moves.groups[0]>(value) | move_bits<moves.groups[1]>(value) |
                               move_bits<moves.groups[2]>(value) | move_bits<moves.groups[3]>(value);
        store<target_size>(target + i * target_size, moved | moves.constant);
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
    direct<KESTAL_COLOR_DRGB0888, KESTAL_COLOR_ARGB8888>, direct<KESTAL_COLOR_ARGB8888, KESTAL_COLOR_DRGB0888>,
    direct<KESTAL_COLOR_DRGB8888, KESTAL_COLOR_ARGB8888>, direct<KESTAL_COLOR_ARGB8888, KESTAL_COLOR_DRGB8888>,
    direct<KESTAL_COLOR_ABGR8888, KESTAL_COLOR_ARGB8888>, direct<KESTAL_COLOR_ARGB8888, KESTAL_COLOR_ABGR8888>,
};

const direct_row *direct_row_of(uint32_t target, uint32_t source)
{
    for (const direct_row &each : direct_rows)
        if (each.target == target && each.source == source)
            return &each;
    return nullptr;
}

struct row_access {
    uint32_t bits;
    void (*load)(uint32_t *values, const uint8_t *pixels, size_t count);
    void (*store)(uint8_t *pixels, const uint32_t *values, size_t count);
};

constexpr row_access row_accesses[] = {
    {8, load_row<1>, store_row<1>},
    {16, load_row<2>, store_row<2>},
    {24, load_row<3>, store_row<3>},
    {32, load_row<4>, store_row<4>},
};

const row_access *row_access_of(uint32_t code)
{
    const uint32_t bits = kestal_color_interface_to_bits_per_pixel(code);
    for (const row_access &each : row_accesses)
        if (each.bits == bits)
            return &each;
    return nullptr;
}

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
    const row_access *to = row_access_of(target_code);
    const row_access *from = row_access_of(source_code);
    if (to == nullptr || from == nullptr)
        return false;
    if (target_code == source_code) {
        memcpy(target, source, count * to->bits / 8);
        return true;
    }
    if (const direct_row *direct = direct_row_of(target_code, source_code)) {
        const bool wide = processor::has(processor::avx2);
        (wide ? direct->convert_wide : direct->convert)(target, source, count);
        return true;
    }
    const conversion converted(target_code, source_code);
    std::array<uint32_t, 256> values;
    while (count > 0) {
        const size_t part = std::min(count, values.size());
        from->load(values.data(), source, part);
        converted.convert({values.data(), part});
        to->store(target, values.data(), part);
        source += part * from->bits / 8;
        target += part * to->bits / 8;
        count -= part;
    }
    return true;
}

} // namespace kestal
