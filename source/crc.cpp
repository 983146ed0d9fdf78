#include <kestal_ulx/crc.h>

#include "byte_order.hpp"
#include "crc_instructions.hpp"
#include "settled.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace {

using namespace kestal::crc_instructions;

// One check with bytes taken least significant bit first: bit i of the register is the coefficient of x^(width - 1 - i).
// `polynomial` is reflected likewise. `slices` bytes are looked up at a step, each in a table of its own.
template <typename Word, Word polynomial, size_t slices>
class reflected_crc {
public:
    static Word update(Word start, const uint8_t *data, size_t size)
    {
        if (size < least_size || !usable())
            return look_up(start, data, size);
        const size_t tail = size % lane_size;
        const Word value = static_cast<Word>(kestal::crc_instructions::update(start, data, size, by));
        return tail == 0 ? value : look_up(value, data + (size - tail), tail);
    }

private:
    static constexpr uint64_t times_x(uint64_t value)
    {
        return value >> 1 ^ ((value & 1) != 0 ? uint64_t{polynomial} : 0);
    }

    // tables[i][b]: the register 1 + i bytes behind the byte b.
    static constexpr auto tables = [] {
        std::array<std::array<Word, 256>, slices> built{};
        for (size_t byte = 0; byte < 256; ++byte) {
            uint64_t value = byte;
            for (size_t slice = 0; slice < slices; ++slice) {
                for (int bit = 0; bit < 8; ++bit)
                    value = times_x(value);
                built[slice][byte] = static_cast<Word>(value);
            }
        }
        return built;
    }();

    // The remainder of x^exponent.
    static constexpr uint64_t power_of_x(int exponent)
    {
        uint64_t value = uint64_t{1} << 63;
        for (int i = 0; i < exponent; ++i)
            value = times_x(value);
        return value;
    }

    // The quotient of x^128 without its x^64: long division, bit after bit from x^63 down.
    static constexpr uint64_t reciprocal()
    {
        uint64_t quotient = 0, remainder = polynomial;
        for (int bit = 0; bit < 64; ++bit) {
            quotient |= (remainder & 1) << bit;
            remainder = times_x(remainder);
        }
        return quotient;
    }

    static constexpr fold_factors factors_for(int distance)
    {
        return {power_of_x(distance + 63), power_of_x(distance - 1)};
    }

    static constexpr factors by = {
        {factors_for(128), factors_for(256), factors_for(512), factors_for(1024), factors_for(2048)},
        power_of_x(127),
        reciprocal(),
        polynomial};

    static void load_step(uint64_t (&words)[(slices + 7) / 8], const uint8_t *data)
    {
        if constexpr (slices == 4)
            words[0] = kestal::load_little_32(data);
        else
            for (size_t i = 0; i < slices / 8; ++i)
                words[i] = kestal::load_little_64(data + 8 * i);
    }

    // What bytes of a step leave in the register: those from `first` on, as many as there are offsets.
    template <size_t first, size_t... offset>
    [[gnu::always_inline]] static Word look_up_bytes([[maybe_unused]] const uint64_t *words,
                                                     std::index_sequence<offset...>)
    {
        [[maybe_unused]] const auto look_up_byte = [words](size_t i) {
            return tables[slices - 1 - i][words[i / 8] >> 8 * (i % 8) & 0xFF];
        };
        return static_cast<Word>((Word{0} ^ ... ^ look_up_byte(first + offset)));
    }

    static Word look_up(Word value, const uint8_t *data, size_t size)
    {
        // The register goes into the first bytes alone: the others need not wait for it.
        constexpr size_t mixed = std::min(slices, sizeof(Word));
        for (; size >= slices; size -= slices, data += slices) {
            uint64_t words[(slices + 7) / 8];
            load_step(words, data);
            const Word rest = kestal::settled(look_up_bytes<mixed>(words, std::make_index_sequence<slices - mixed>()));
            words[0] ^= value;
            const Word left = slices < sizeof(Word) ? static_cast<Word>(value >> 8 * mixed) : Word{0};
            value = static_cast<Word>(rest ^ left ^ look_up_bytes<0>(words, std::make_index_sequence<mixed>()));
        }
        for (; size > 0; --size, ++data)
            value = static_cast<Word>(uint64_t{value} >> 8 ^ tables[0][(value ^ *data) & 0xFF]);
        return value;
    }
};

using ibm = reflected_crc<uint16_t, 0xA001, 4>;
using ccitt = reflected_crc<uint16_t, 0x8408, 4>;
using ieee_802_3 = reflected_crc<uint32_t, 0xEDB88320, 16>;
using iso = reflected_crc<uint64_t, 0xD800000000000000, 4>;

// The checks whose register is complemented before, unless it is given raw, and afterwards.
template <typename Crc, typename Word>
Word complemented(int32_t raw, Word crc, const void *data, uint64_t size)
{
    if (data == nullptr)
        return crc;
    const Word start = raw != 0 ? crc : ~crc;
    return ~Crc::update(start, static_cast<const uint8_t *>(data), static_cast<size_t>(size));
}

} // namespace

uint16_t kestal_crc16_ibm(int32_t, uint16_t crc, const void *data, uint64_t size)
{
    return data == nullptr ? crc : ibm::update(crc, static_cast<const uint8_t *>(data), static_cast<size_t>(size));
}

uint16_t kestal_crc16_ccitt(int32_t, uint16_t crc, const void *data, uint64_t size)
{
    return data == nullptr ? crc : ccitt::update(crc, static_cast<const uint8_t *>(data), static_cast<size_t>(size));
}

uint32_t kestal_crc32_ieee_802_3(int32_t raw, uint32_t crc, const void *data, uint64_t size)
{
    return complemented<ieee_802_3>(raw, crc, data, size);
}

uint64_t kestal_crc64_iso(int32_t raw, uint64_t crc, const void *data, uint64_t size)
{
    return complemented<iso>(raw, crc, data, size);
}
