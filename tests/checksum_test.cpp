#include "support.hpp"

using kestal_test::noise;
using kestal_test::on_every_path;

namespace {

// One check of the library, and what defines it.
struct checksum {
    const char *name;
    uint64_t (*update)(int32_t raw, uint64_t value, const void *data, uint64_t size);
    uint64_t (*defined)(int32_t raw, uint64_t value, const std::string &data);
    uint64_t start, of_digits;
};

template <auto function, typename Word>
uint64_t crc(int32_t raw, uint64_t value, const void *data, uint64_t size)
{
    return function(raw, static_cast<Word>(value), data, size);
}

template <int width, uint64_t polynomial, bool complemented>
uint64_t bit_by_bit(int32_t raw, uint64_t value, const std::string &data)
{
    constexpr uint64_t mask = UINT64_MAX >> (64 - width);
    if (complemented && raw == 0)
        value = ~value & mask;
    for (const char byte : data) {
        value ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; ++bit)
            value = value >> 1 ^ ((value & 1) != 0 ? polynomial : 0);
    }
    return complemented ? ~value & mask : value;
}

uint64_t adler32(int32_t, uint64_t value, const void *data, uint64_t size)
{
    return kestal_update_adler32(static_cast<uint32_t>(value), data, size);
}

uint64_t byte_by_byte(int32_t, uint64_t value, const std::string &data)
{
    uint64_t a = value & 0xFFFF, b = value >> 16;
    for (const char byte : data) {
        a = (a + static_cast<uint8_t>(byte)) % 65521;
        b = (b + a) % 65521;
    }
    return b << 16 | a;
}

constexpr checksum checksums[] = {
    {"ibm", crc<kestal_crc16_ibm, uint16_t>, bit_by_bit<16, 0xA001, false>, 0, 0xBB3D},
    {"ccitt", crc<kestal_crc16_ccitt, uint16_t>, bit_by_bit<16, 0x8408, false>, 0, 0x2189},
    {"ieee", crc<kestal_crc32_ieee_802_3, uint32_t>, bit_by_bit<32, 0xEDB88320, true>, 0, 0xCBF43926},
    {"iso", crc<kestal_crc64_iso, uint64_t>, bit_by_bit<64, 0xD800000000000000, true>, 0, 0xB90956C775A41001},
    {"adler", adler32, byte_by_byte, 1, 0x091E01DE},
};

TEST(checksum, gives_what_the_definition_gives)
{
    on_every_path([data = noise(3000)] {
        for (const checksum &check : checksums)
            for (size_t length = 0; length <= data.size(); length += length < 300 ? 1 : 127) {
                const size_t place = length % 17 < data.size() - length ? length % 17 : 0;
                const auto raw = static_cast<int32_t>(length % 2);
                ASSERT_EQ(check.update(raw, length, &data[place], length),
                          check.defined(raw, length, data.substr(place, length)))
                    << check.name << ", " << length << " bytes";
            }
        const std::string highest((2 << 20) + 77, '\xFF'); // which overflows first
        for (const uint64_t start : {1u, 0xFFFFFFFFu})
            EXPECT_EQ(adler32(0, start, highest.data(), highest.size()), byte_by_byte(0, start, highest));
    });
    for (const checksum &check : checksums) {
        const uint64_t of_four = check.update(0, check.start, "1234", 4);
        EXPECT_EQ(check.update(0, of_four, "56789", 5), check.of_digits) << check.name;
        EXPECT_EQ(check.update(1, 0x1234, nullptr, 9), 0x1234u) << check.name;
        EXPECT_EQ(check.update(1, 0x1234, "", 0), check.defined(1, 0x1234, "")) << check.name;
    }
}

} // namespace
