#include "fill.hpp"

#include "pixel.hpp"
#include "processor.hpp"

namespace kestal {

namespace {

typedef uint32_t pattern __attribute__((vector_size(32)));

// A run that is shorter than this is filled pixel by pixel.
constexpr size_t shortest_run = sizeof(pattern);

void fill_by_pixels(uint8_t *first, uint64_t line_length, uint32_t color, size_t bytes, size_t width, size_t height)
{
    with_pixel_bytes(bytes, [=](auto size) {
        for (size_t row = 0; row < height; ++row) {
            uint8_t *const at = first + row * line_length;
            for (size_t i = 0; i < width; ++i)
                store_pixel<size>(at + i * size, color);
        }
    });
}

// The last stretch of a row overlaps the one before: the pattern is the same wherever a pixel begins.
[[gnu::always_inline]] inline void fill_by_pattern(uint8_t *first, uint64_t line_length, uint32_t word, size_t size,
                                                   size_t height)
{
    const pattern repeated = pattern{} + word;
    for (size_t row = 0; row < height; ++row, first += line_length) {
        uint8_t *const last = first + size - sizeof repeated;
        for (uint8_t *at = first; at < last; at += sizeof repeated)
            memcpy(at, &repeated, sizeof repeated);
        memcpy(last, &repeated, sizeof repeated);
    }
}

void fill_portable(uint8_t *first, uint64_t line_length, uint32_t word, size_t size, size_t height)
{
    fill_by_pattern(first, line_length, word, size, height);
}

#if defined(__x86_64__)
[[gnu::target("avx2")]] void fill_avx2(uint8_t *first, uint64_t line_length, uint32_t word, size_t size, size_t height)
{
    fill_by_pattern(first, line_length, word, size, height);
}
#endif

// Pixels of three bytes: the first row is copied to the others.
void fill_by_first_row(uint8_t *first, uint64_t line_length, uint32_t color, size_t width, size_t height)
{
    fill_by_pixels(first, 0, color, 3, width, 1);
    for (size_t row = 1; row < height; ++row)
        memcpy(first + row * line_length, first, width * 3);
}

} // namespace

void fill_rows(uint8_t *first, uint64_t line_length, uint32_t color, size_t bytes, size_t width, size_t height)
{
    size_t size = width * bytes;
    if (size < shortest_run)
        return fill_by_pixels(first, line_length, color, bytes, width, height);
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
        return fill_avx2(first, line_length, word, size, height);
#endif
    fill_portable(first, line_length, word, size, height);
}

} // namespace kestal
