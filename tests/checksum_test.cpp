#include "support.hpp"

using kestal_test::noise;
using kestal_test::on_every_path;

namespace {

// One check of the library, and what defines it.
struct crc {
    const char *name;
    uint64_t (*update)(int32_t raw, uint64_t value, const void *data, uint64_t size);
    int width;
    uint64_t polynomial;
    bool complemented;
    uint64_t of_digits;

    uint64_t mask() const { return UINT64_MAX >> (64 - width); }

    uint64_t bit_by_bit(int32_t raw, uint64_t value, const std::string &data) const
    {
        if (complemented && raw == 0)
            value = ~value & mask();
        for (const char byte : data) {
            value ^= static_cast<uint8_t>(byte);
            for (int bit = 0; bit < 8; ++bit)
                value = value >> 1 ^ ((value & 1) != 0 ? polynomial : 0);
        }
        return complemented ? ~value & mask() : value;
    }
};

template <auto function, typename Word>
uint64_t widened(int32_t raw, uint64_t value, const void *data, uint64_t size)
{
    return function(raw, static_cast<Word>(value), data, size);
}

constexpr crc crcs[] = {
    {"ibm", widened<kestal_crc16_ibm, uint16_t>, 16, 0xA001, false, 0xBB3D},
    {"ccitt", widened<kestal_crc16_ccitt, uint16_t>, 16, 0x8408, false, 0x2189},
    {"ieee", widened<kestal_crc32_ieee_802_3, uint32_t>, 32, 0xEDB88320, true, 0xCBF43926},
    {"iso", widened<kestal_crc64_iso, uint64_t>, 64, 0xD800000000000000, true, 0xB90956C775A41001},
};

TEST(crc, continues_complements_and_takes_null)
{
    const std::string digits = "123456789";
    for (const crc &check : crcs) {
        SCOPED_TRACE(check.name);
        EXPECT_EQ(check.update(0, 0, digits.data(), 9), check.of_digits);
        EXPECT_EQ(check.update(0, check.update(0, 0, digits.data(), 4), digits.data() + 4, 5), check.of_digits);
        for (const int32_t raw : {0, 1})
            EXPECT_EQ(check.update(raw, 0x1234, nullptr, 9), 0x1234u);
        EXPECT_EQ(check.update(0, 0x1234, "", 0), 0x1234u);
        EXPECT_EQ(check.update(1, 0x1234, "", 0), check.complemented ? ~uint64_t{0x1234} & check.mask() : 0x1234u);
        EXPECT_EQ(check.update(1, 0x1234, "ab", 2), check.bit_by_bit(1, 0x1234, "ab"));
    }
}

TEST(crc, every_length_and_place_gives_what_the_definition_gives)
{
    const std::string data = noise(3000);
    on_every_path([&data] {
        for (const crc &check : crcs)
            for (size_t length = 0; length <= data.size(); length += length < 300 ? 1 : 127) {
                const size_t place = length % 17 < data.size() - length ? length % 17 : 0;
                const std::string part = data.substr(place, length);
                ASSERT_EQ(check.update(0, length, &data[place], length), check.bit_by_bit(0, length, part))
                    << check.name << ", " << length << " bytes";
            }
    });
}

uint32_t adler_byte_by_byte(uint32_t adler, const std::string &data)
{
    uint32_t a = adler & 0xFFFF, b = adler >> 16;
    for (const char byte : data) {
        a = (a + static_cast<uint8_t>(byte)) % 65521;
        b = (b + a) % 65521;
    }
    return b << 16 | a;
}

TEST(adler32, every_length_and_start_gives_what_the_definition_gives)
{
    const std::string data = noise(2000);
    const std::string highest((2 << 20) + 77, '\xFF'); // what overflows first
    on_every_path([&] {
        for (size_t length = 0; length <= data.size(); length += length < 300 ? 1 : 127)
            ASSERT_EQ(kestal_update_adler32(1, data.data() + data.size() - length, length),
                      adler_byte_by_byte(1, data.substr(data.size() - length)))
                << length << " bytes";
        for (const uint32_t start : {1u, 0xFFFFFFFFu})
            EXPECT_EQ(kestal_update_adler32(start, highest.data(), highest.size()), adler_byte_by_byte(start, highest));
        EXPECT_EQ(kestal_update_adler32(kestal_update_adler32(1, "Wiki", 4), "pedia", 5), 0x11E60398u);
    });
    EXPECT_EQ(kestal_update_adler32(0xFFFFFFFF, "", 0), 0xFFFFFFFFu);
    EXPECT_EQ(kestal_update_adler32(7, nullptr, 5), 7u);
}

} // namespace
