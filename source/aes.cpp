#include <kestal_ulx/aes.h>

#include "aes_hardware.hpp"
#include "block_modes.hpp"
#include "byte_order.hpp"

#include <array>
#include <bit>

using kestal::load_big_32;
using kestal::load_little_32;
using kestal::store_big_32;
using kestal::store_little_32;

namespace {

constexpr size_t block_bytes = 16;

constexpr size_t rounds_of(size_t key_words)
{
    return key_words + 6;
}

constexpr uint8_t times_x(uint8_t a)
{
    return static_cast<uint8_t>(a << 1 ^ ((a & 0x80) != 0 ? 0x1b : 0));
}

constexpr uint8_t multiply(uint8_t a, uint8_t b)
{
    unsigned product = 0;
    for (; b != 0; b = static_cast<uint8_t>(b >> 1), a = times_x(a))
        product ^= (b & 1) != 0 ? a : 0u;
    return static_cast<uint8_t>(product);
}

using byte_table = std::array<uint8_t, 256>;
using word_tables = std::array<std::array<uint32_t, 256>, 4>;

// The inverse in GF(2^8), then the affine map of the standard.
constexpr byte_table make_box()
{
    byte_table box{};
    uint8_t value = 1;
    uint8_t inverse = 1;
    do { // 3 generates the field, 0xf6 is its inverse
        value = multiply(value, 3);
        inverse = multiply(inverse, 0xf6);
        const uint8_t mapped = static_cast<uint8_t>(inverse ^ std::rotl(inverse, 1) ^ std::rotl(inverse, 2) ^
                                                    std::rotl(inverse, 3) ^ std::rotl(inverse, 4));
        box[value] = static_cast<uint8_t>(mapped ^ 0x63);
    } while (value != 1);
    box[0] = 0x63;
    return box;
}

constexpr byte_table make_inverse_box(const byte_table &box)
{
    byte_table inverse{};
    for (unsigned i = 0; i < 256; ++i)
        inverse[box[i]] = static_cast<uint8_t>(i);
    return inverse;
}

// What a byte of the state adds to its column: the box and the column mix by these factors, for each of four rows. A
// column is a word whose lowest byte stands in the first row.
constexpr word_tables make_round_tables(const byte_table &box, const uint8_t (&factors)[4])
{
    word_tables tables{};
    for (unsigned i = 0; i < 256; ++i) {
        uint32_t column = 0;
        for (int row = 0; row < 4; ++row)
            column |= uint32_t{multiply(box[i], factors[row])} << 8 * row;
        for (int row = 0; row < 4; ++row)
            tables[static_cast<size_t>(row)][i] = std::rotl(column, 8 * row);
    }
    return tables;
}

constexpr byte_table box = make_box();
constexpr byte_table inverse_box = make_inverse_box(box);
constexpr word_tables forward_tables = make_round_tables(box, {2, 1, 1, 3});
constexpr word_tables inverse_tables = make_round_tables(inverse_box, {14, 9, 13, 11});

uint32_t substitute_word(uint32_t word)
{
    if (kestal::aes_hardware::is_available())
        return kestal::aes_hardware::substitute_word(word);
    return uint32_t{box[word >> 24]} << 24 | uint32_t{box[word >> 16 & 255u]} << 16 |
           uint32_t{box[word >> 8 & 255u]} << 8 | box[word & 255u];
}

[[gnu::noinline]] void expand_key(uint8_t *round_key, const void *key, size_t key_words)
{
    memcpy(round_key, key, 4 * key_words);
    uint8_t round_constant = 1;
    for (size_t i = key_words; i < 4 * (rounds_of(key_words) + 1); ++i) {
        uint32_t word = load_big_32(round_key + 4 * (i - 1));
        if (i % key_words == 0) {
            word = substitute_word(std::rotl(word, 8)) ^ uint32_t { round_constant } << 24;
            round_constant = times_x(round_constant);
        } else if (key_words > 6 && i % key_words == 4) {
            word = substitute_word(word);
        }
        store_big_32(round_key + 4 * i, load_big_32(round_key + 4 * (i - key_words)) ^ word);
    }
}

// --- the portable engines

// One output column before the key: its four bytes come from four columns of the state.
uint32_t look_up(const word_tables &tables, uint32_t a, uint32_t b, uint32_t c, uint32_t d)
{
    return tables[0][a & 255u] ^ tables[1][b >> 8 & 255u] ^ tables[2][c >> 16 & 255u] ^ tables[3][d >> 24];
}

uint32_t look_up_last(const byte_table &table, uint32_t a, uint32_t b, uint32_t c, uint32_t d)
{
    return table[a & 255u] | uint32_t{table[b >> 8 & 255u]} << 8 | uint32_t{table[c >> 16 & 255u]} << 16 |
           uint32_t{table[d >> 24]} << 24;
}

// Runs blocks through all rounds, side by side to hide the latency of the look-ups. The rows are shifted by one, two
// and three columns, forwards or backwards: Step is 1 or 3.
template <size_t Step, size_t Blocks>
void transform_together(uint8_t *blocks, const uint8_t *keys, size_t rounds, const word_tables &tables,
                        const byte_table &last)
{
    struct columns {
        uint32_t words[4];
        uint32_t from(size_t number) const { return words[number % 4]; }
    };
    columns states[Blocks];
    for (size_t block = 0; block < Blocks; ++block) {
        for (size_t i = 0; i < 4; ++i)
            states[block].words[i] =
                load_little_32(blocks + block_bytes * block + 4 * i) ^ load_little_32(keys + 4 * i);
    }
    for (size_t round = 1; round < rounds; ++round) {
        keys += block_bytes;
        for (columns &state : states) {
            columns next;
            for (size_t i = 0; i < 4; ++i)
                next.words[i] =
                    load_little_32(keys + 4 * i) ^ look_up(tables, state.from(i), state.from(i + Step),
                                                           state.from(i + 2 * Step), state.from(i + 3 * Step));
            state = next;
        }
    }
    keys += block_bytes;
    for (size_t block = 0; block < Blocks; ++block) {
        const columns &state = states[block];
        for (size_t i = 0; i < 4; ++i)
            store_little_32(blocks + block_bytes * block + 4 * i,
                            load_little_32(keys + 4 * i) ^ look_up_last(last, state.from(i), state.from(i + Step),
                                                                        state.from(i + 2 * Step),
                                                                        state.from(i + 3 * Step)));
    }
}

template <size_t Step>
void transform_all(uint8_t *blocks, size_t count, const uint8_t *keys, size_t rounds, const word_tables &tables,
                   const byte_table &last)
{
    for (; count >= 2; count -= 2, blocks += 2 * block_bytes)
        transform_together<Step, 2>(blocks, keys, rounds, tables, last);
    if (count > 0)
        transform_together<Step, 1>(blocks, keys, rounds, tables, last);
}

class table_forward {
public:
    static constexpr size_t block_size = block_bytes;

    table_forward(const uint8_t *round_key, size_t rounds) : keys_(round_key), rounds_(rounds) {}

    [[gnu::noinline]] void transform(uint8_t *blocks, size_t count) const
    {
        transform_all<1>(blocks, count, keys_, rounds_, forward_tables, box);
    }

private:
    const uint8_t *keys_;
    size_t rounds_;
};

// The four columns of a round key, side by side, in the machine's byte order.
using key_columns = uint32_t __attribute__((vector_size(block_bytes)));

void double_each(key_columns &bytes)
{
    const key_columns high = bytes & 0x80808080u;
    bytes = ((bytes ^ high) << 1) ^ ((high - (high >> 7)) & 0x1b1b1b1bu);
}

// The inverse column mix: what makes it of the column mix, and then that. Looks nothing up.
void mix_inversely(key_columns &columns)
{
    constexpr int row =
        std::endian::native == std::endian::little ? 8 : 24; // brings the next row's byte into its place
    key_columns difference = columns ^ (columns >> 16 | columns << 16);
    double_each(difference);
    double_each(difference);
    columns ^= difference;

    key_columns twice = columns;
    double_each(twice);
    const key_columns thrice = twice ^ columns;
    columns = twice ^ (thrice >> row | thrice << (32 - row)) ^ (columns >> 16 | columns << 16) ^
              (columns << row | columns >> (32 - row));
}

// The equivalent inverse cipher: the round keys backwards, the inner ones through the inverse column mix.
class table_inverse {
public:
    static constexpr size_t block_size = block_bytes;

    table_inverse(const uint8_t *round_key, size_t rounds) : rounds_(rounds)
    {
        for (size_t round = 0; round <= rounds; ++round) {
            memcpy(&keys_[round], round_key + block_bytes * (rounds - round), block_bytes);
            if (round != 0 && round != rounds)
                mix_inversely(keys_[round]);
        }
    }
    ~table_inverse() { explicit_bzero(keys_, (rounds_ + 1) * block_bytes); }
    table_inverse(const table_inverse &) = delete;
    table_inverse &operator=(const table_inverse &) = delete;

    [[gnu::noinline]] void transform(uint8_t *blocks, size_t count) const
    {
        const auto *keys = reinterpret_cast<const uint8_t *>(keys_);
        transform_all<3>(blocks, count, keys, rounds_, inverse_tables, inverse_box);
    }

private:
    size_t rounds_;
    key_columns keys_[rounds_of(8) + 1];
};

// --- the choice between the processor's instructions and the tables

template <auto Instructions, typename Engine, auto Tables>
[[gnu::noinline]] void *run(void *data, uint64_t size, void *iv, const void *round_key, size_t rounds)
{
    if (!kestal::aes_hardware::is_available())
        return kestal::mode::run<Engine, Tables>(data, size, iv, round_key, rounds);
    if (data == nullptr || iv == nullptr || round_key == nullptr)
        return nullptr;
    Instructions(static_cast<uint8_t *>(data), size, static_cast<uint8_t *>(iv),
                 static_cast<const uint8_t *>(round_key), rounds);
    return data;
}

namespace instructions = kestal::aes_hardware;
namespace tables = kestal::mode;

struct modes {
    static constexpr auto ecb_encrypt = run<instructions::ecb_encrypt, table_forward, tables::ecb<table_forward>>;
    static constexpr auto ecb_decrypt = run<instructions::ecb_decrypt, table_inverse, tables::ecb<table_inverse>>;
    static constexpr auto cbc_encrypt =
        run<instructions::cbc_encrypt, table_forward, tables::cbc_encrypt<table_forward>>;
    static constexpr auto cbc_decrypt =
        run<instructions::cbc_decrypt, table_inverse, tables::cbc_decrypt<table_inverse>>;
    static constexpr auto cfb8_encrypt =
        run<instructions::cfb8_encrypt, table_forward, tables::cfb8_encrypt<table_forward>>;
    static constexpr auto cfb8_decrypt =
        run<instructions::cfb8_decrypt, table_forward, tables::cfb8_decrypt<table_forward>>;
    static constexpr auto ofb8 = run<instructions::ofb8, table_forward, tables::ofb8<table_forward>>;
};

} // namespace

kestal_aes128_round_key_t *kestal_make_round_key_aes128(kestal_aes128_round_key_t *round_key, const void *key)
{
    if (round_key == nullptr || key == nullptr)
        return nullptr;
    expand_key(round_key->m_bytes, key, 4);
    return round_key;
}

KESTAL_DEFINE_CIPHER(aes128, modes, rounds_of(4))

kestal_aes192_round_key_t *kestal_make_round_key_aes192(kestal_aes192_round_key_t *round_key, const void *key)
{
    if (round_key == nullptr || key == nullptr)
        return nullptr;
    expand_key(round_key->m_bytes, key, 6);
    return round_key;
}

KESTAL_DEFINE_CIPHER(aes192, modes, rounds_of(6))

kestal_aes256_round_key_t *kestal_make_round_key_aes256(kestal_aes256_round_key_t *round_key, const void *key)
{
    if (round_key == nullptr || key == nullptr)
        return nullptr;
    expand_key(round_key->m_bytes, key, 8);
    return round_key;
}

KESTAL_DEFINE_CIPHER(aes256, modes, rounds_of(8))
