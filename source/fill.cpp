#include "fill.hpp"

#include "pixel.hpp"
#include "processor.hpp"

namespace kestal {

namespace {

// Bytes of pixels one after the other: the same wherever a pixel begins.
typedef uint32_t pattern __attribute__((vector_size(32)));

// Fills less than a pattern: with two stores that may overlap, one at each end.
[[gnu::always_inline]] inline void fill_piece(uint8_t *first, size_t size, const pattern &repeated)
{
    const auto fill_ends = [&](auto part) {
        memcpy(first, &repeated, part);
        memcpy(first + size - part, &repeated, part);
    };
    if ((size & 16) != 0)
        fill_ends(std::integral_constant<size_t, 16>{});
    else if ((size & 8) != 0)
        fill_ends(std::integral_constant<size_t, 8>{});
    else if ((size & 4) != 0)
        fill_ends(std::integral_constant<size_t, 4>{});
    else if ((size & 2) != 0)
        fill_ends(std::integral_constant<size_t, 2>{});
    else if (size != 0)
        *first = static_cast<uint8_t>(repeated[0]);
}

// One end of a row: a whole pattern at `at`, over bytes that have it anyway, or the piece alone where that would reach over
// the end of a page: such a store takes as long as some thirty others.
[[gnu::always_inline]] inline void fill_end(uint8_t *at, uint8_t *piece, size_t size, const pattern &repeated)
{
    constexpr size_t page_size = 4096;
    if (reinterpret_cast<uintptr_t>(at) % page_size > page_size - sizeof repeated) [[unlikely]]
        fill_piece(piece, size, repeated);
    else
        memcpy(at, &repeated, sizeof repeated);
}

// Between its ends a row is filled at multiples of the pattern's size, as far as pixels begin there.
[[gnu::always_inline]] inline void fill_row(uint8_t *first, size_t size, size_t bytes, const pattern &repeated)
{
    uint8_t *const end = first + size;
    const size_t before = -reinterpret_cast<uintptr_t>(first) % sizeof repeated & -bytes;
    fill_end(first, first, before, repeated);
    uint8_t *at = first + before;
    for (; at + sizeof repeated <= end; at += sizeof repeated)
        memcpy(at, &repeated, sizeof repeated);
    fill_end(end - sizeof repeated, at, static_cast<size_t>(end - at), repeated);
}

[[gnu::always_inline]] inline void fill_by_pattern(uint8_t *first, uint64_t line_length, uint32_t word, size_t bytes,
                                                   size_t size, size_t height)
{
    const pattern repeated = pattern{} + word;
    for (size_t row = 0; size < sizeof repeated && row < height; ++row)
        fill_piece(first + row * line_length, size, repeated);
    for (size_t row = 0; size >= sizeof repeated && row < height; ++row)
        fill_row(first + row * line_length, size, bytes, repeated);
}

void fill_portable(uint8_t *first, uint64_t line_length, uint32_t word, size_t bytes, size_t size, size_t height)
{
    fill_by_pattern(first, line_length, word, bytes, size, height);
}

#if defined(__x86_64__)
[[gnu::target("avx2")]] void fill_avx2(uint8_t *first, uint64_t line_length, uint32_t word, size_t bytes, size_t size,
                                       size_t height)
{
    fill_by_pattern(first, line_length, word, bytes, size, height);
}
#endif

// Pixels of three bytes: the first row is copied to the others.
void fill_by_first_row(uint8_t *first, uint64_t line_length, uint32_t color, size_t width, size_t height)
{
    for (size_t i = 0; i < width; ++i)
        store_pixel<3>(first + i * 3, color);
    for (size_t row = 1; row < height; ++row)
        memcpy(first + row * line_length, first, width * 3);
}

} // namespace

void fill_rows(uint8_t *first, uint64_t line_length, uint32_t color, size_t bytes, size_t width, size_t height)
{
    size_t size = width * bytes;
    if (bytes == 3)
        return fill_by_first_row(first, line_length, color, width, height);
    if (size == line_length) {
        size *= height;
        height = 1;
    }
    const uint32_t word = bytes == 1   ? (color & 0xFFu) * 0x01010101u
                          : bytes == 2 ? (color & 0xFFFFu) * 0x00010001u
                                       : color;
#if defined(__x86_64__)
    if (processor::has(processor::avx2))
        return fill_avx2(first, line_length, word, bytes, size, height);
#endif
    fill_portable(first, line_length, word, bytes, size, height);
}

} // namespace kestal
