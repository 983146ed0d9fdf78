#include <kestal_ulx/adler32.h>

#include "adler32_instructions.hpp"
#include "byte_order.hpp"

#include <algorithm>

namespace {

using kestal::adler32_sums;

constexpr uint32_t modulus = 65521;

// As many bytes as the vector code takes; the sums themselves could hold more.
constexpr size_t bytes_between_reductions = size_t{1} << 20;

// As many words as add_words can take: 255 x 22 x 23 / 2 < 2^16.
constexpr size_t words_at_once = 22;

// Adds up the bytes of each place in a word in 16-bit lanes, and what these sums were before each word. How often the
// bytes count in b is worked out from that for all words at once.
void add_words(adler32_sums &total, const uint8_t *data, size_t count)
{
    constexpr uint64_t lanes = 0x00FF00FF00FF00FF;
    uint64_t even = 0, odd = 0, even_so_far = 0, odd_so_far = 0;
    for (size_t i = 0; i < count; ++i) {
        const uint64_t word = kestal::load_little_64(data + 8 * i);
        even_so_far += even;
        odd_so_far += odd;
        even += word & lanes;
        odd += word >> 8 & lanes;
    }
    total.b += 8 * count * total.a;
    for (unsigned place = 0; place < 8; place += 2) {
        const auto lane = [place](uint64_t word) { return word >> 8 * place & 0xFFFF; };
        total.a += lane(even) + lane(odd);
        total.b += (8 - place) * lane(even) + (7 - place) * lane(odd);
        total.b += 8 * (lane(even_so_far) + lane(odd_so_far));
    }
}

// Below this a plain loop is over before the words are set up; 32 bits hold its sums.
constexpr uint64_t short_size = 24;

uint32_t add_short(uint32_t adler, const uint8_t *data, size_t size)
{
    uint32_t a = adler & 0xFFFF;
    uint32_t b = adler >> 16;
    for (size_t i = 0; i < size; ++i) {
        a += data[i];
        b += a;
    }
    return b % modulus << 16 | a % modulus;
}

void add_bytes(adler32_sums &total, const uint8_t *data, size_t size)
{
    const size_t done = kestal::adler32_instructions::add(total, data, size);
    data += done;
    size -= done;
    while (size >= 8) {
        const size_t count = std::min(size / 8, words_at_once);
        add_words(total, data, count);
        data += 8 * count;
        size -= 8 * count;
    }
    for (; size > 0; --size) {
        total.a += *data++;
        total.b += total.a;
    }
}

} // namespace

uint32_t kestal_update_adler32(uint32_t adler, const void *data, uint64_t size)
{
    if (data == nullptr || size == 0)
        return adler;
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    if (size < short_size)
        return add_short(adler, bytes, static_cast<size_t>(size));
    adler32_sums sums{adler & 0xFFFF, adler >> 16};
    while (size > 0) {
        const size_t part = static_cast<size_t>(std::min<uint64_t>(size, bytes_between_reductions));
        add_bytes(sums, bytes, part);
        sums.a %= modulus;
        sums.b %= modulus;
        bytes += part;
        size -= part;
    }
    return static_cast<uint32_t>(sums.b << 16 | sums.a);
}
