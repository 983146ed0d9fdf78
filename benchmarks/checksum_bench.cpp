// CRC-32 and Adler-32 beside those of the compression libraries, and the checks that have no peer beside a plain table.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>
#include <gcrypt.h>
#include <libdeflate.h>
#include <zlib.h>

#include <string>
#include <vector>

namespace {

using checksum_function = uint64_t (*)(const uint8_t *data, size_t size);

uint64_t gcrypt_crc32(const uint8_t *data, size_t size)
{
    uint8_t out[4];
    gcry_md_hash_buffer(GCRY_MD_CRC32, out, data, size);
    return out[0];
}

template <typename Word, Word polynomial>
uint64_t byte_table(const uint8_t *data, size_t size)
{
    static const std::vector<Word> table = [] {
        std::vector<Word> built;
        for (unsigned byte = 0; byte < 256; ++byte) {
            Word value = static_cast<Word>(byte);
            for (int bit = 0; bit < 8; ++bit)
                value = static_cast<Word>(value >> 1 ^ ((value & 1) != 0 ? polynomial : 0));
            built.push_back(value);
        }
        return built;
    }();
    Word value = 0;
    for (size_t i = 0; i < size; ++i)
        value = static_cast<Word>(uint64_t{value} >> 8 ^ table[(value ^ data[i]) & 0xFF]);
    return value;
}

void run(benchmark::State &state, checksum_function checksum, size_t size)
{
    const std::vector<uint8_t> message(size, 'x');
    for (auto _ : state) {
        uint64_t result = checksum(message.data(), message.size());
        benchmark::DoNotOptimize(result);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

const struct {
    const char *row;
    const char *who;
    checksum_function checksum;
} sides[] = {
    {"crc32", "kestal", [](const uint8_t *d, size_t s) -> uint64_t { return kestal_crc32_ieee_802_3(0, 0, d, s); }},
    {"crc32", "libdeflate", [](const uint8_t *d, size_t s) -> uint64_t { return libdeflate_crc32(0, d, s); }},
    {"crc32", "gcrypt", gcrypt_crc32},
    {"crc32", "zlib", [](const uint8_t *d, size_t s) -> uint64_t { return crc32_z(0, d, s); }},
    {"adler32", "kestal", [](const uint8_t *d, size_t s) -> uint64_t { return kestal_update_adler32(1, d, s); }},
    {"adler32", "libdeflate", [](const uint8_t *d, size_t s) -> uint64_t { return libdeflate_adler32(1, d, s); }},
    {"adler32", "zlib", [](const uint8_t *d, size_t s) -> uint64_t { return adler32_z(1, d, s); }},
    {"crc64", "kestal", [](const uint8_t *d, size_t s) -> uint64_t { return kestal_crc64_iso(0, 0, d, s); }},
    {"crc64", "byte table", byte_table<uint64_t, 0xD800000000000000>},
    {"crc16", "kestal", [](const uint8_t *d, size_t s) -> uint64_t { return kestal_crc16_ibm(0, 0, d, s); }},
    {"crc16", "byte table", byte_table<uint16_t, 0xA001>},
};

const bool registered = [] {
    gcry_check_version(nullptr);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    for (const auto &side : sides) {
        const std::string row = side.row, who = side.who;
        benchmark::RegisterBenchmark((row + " 1 MiB:" + who).c_str(), run, side.checksum, size_t{1} << 20);
        benchmark::RegisterBenchmark((row + " 64 bytes:" + who).c_str(), run, side.checksum, size_t{64});
    }
    return true;
}();

} // namespace
