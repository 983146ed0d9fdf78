#include <kestal_ulx/seed.h>

#include "block_modes.hpp"
#include "byte_order.hpp"

#include <array>
#include <bit>

using kestal::load_big_32;
using kestal::store_big_32;

namespace {

constexpr size_t block_bytes = 16;

constexpr size_t rounds_of(size_t key_words)
{
    return 2 * key_words + 8;
}

constexpr uint32_t key_constant = 0x9e3779b9u; // from the golden ratio; rotated left by one more bit each round

// --- the boxes: S(x) = A x^n + b over GF(2^8) modulo x^8 + x^6 + x^5 + x + 1

constexpr uint8_t multiply(uint8_t a, uint8_t b)
{
    unsigned product = 0;
    for (int bit = 7; bit >= 0; --bit) {
        product <<= 1;
        if (product & 0x100u)
            product ^= 0x163u;
        if (b >> bit & 1)
            product ^= a;
    }
    return static_cast<uint8_t>(product);
}

constexpr uint8_t power(uint8_t base, unsigned exponent)
{
    uint8_t result = 1;
    for (; exponent != 0; exponent >>= 1) {
        if (exponent & 1u)
            result = multiply(result, base);
        base = multiply(base, base);
    }
    return result;
}

// The rows of A, the first giving the highest bit.
constexpr uint8_t matrix_1[8] = {0x8a, 0xfe, 0x85, 0x42, 0x45, 0x21, 0x88, 0x14};
constexpr uint8_t matrix_2[8] = {0x45, 0x85, 0xfe, 0x21, 0x8a, 0x88, 0x42, 0x14};

constexpr uint8_t substitute(uint8_t input, const uint8_t (&matrix)[8], unsigned exponent, uint8_t constant)
{
    const uint8_t raised = power(input, exponent);
    unsigned output = 0;
    for (uint8_t row : matrix)
        output = output << 1 | (__builtin_parity(static_cast<unsigned>(row & raised)) != 0);
    return static_cast<uint8_t>(output ^ constant);
}

// SS0 to SS3: a box each (S1 for the even, S2 for the odd bytes, counted from the lowest), spread over a word under
// the masks that mix the four.
constexpr auto make_spread_boxes()
{
    constexpr uint8_t masks[4] = {0xfc, 0xf3, 0xcf, 0x3f};
    std::array<std::array<uint32_t, 256>, 4> tables{};
    for (size_t table = 0; table < 4; ++table) {
        for (unsigned input = 0; input < 256; ++input) {
            const uint8_t output = table % 2 == 0 ? substitute(static_cast<uint8_t>(input), matrix_1, 247, 169)
                                                  : substitute(static_cast<uint8_t>(input), matrix_2, 251, 56);
            uint32_t word = 0;
            for (size_t byte = 0; byte < 4; ++byte)
                word |= static_cast<uint32_t>(output & masks[(byte + table) % 4]) << (8 * byte);
            tables[table][input] = word;
        }
    }
    return tables;
}

constexpr auto spread_boxes = make_spread_boxes();

uint32_t mix(uint32_t word)
{
    return (spread_boxes[0][word & 255u] ^ spread_boxes[1][word >> 8 & 255u]) ^
           (spread_boxes[2][word >> 16 & 255u] ^ spread_boxes[3][word >> 24]);
}

// --- the key schedule

// Rotates a row of words as one number by eight bits.
void rotate_right_8(uint32_t *words, size_t count)
{
    const uint32_t last = words[count - 1];
    for (size_t i = count - 1; i > 0; --i)
        words[i] = words[i] >> 8 | words[i - 1] << 24;
    words[0] = words[0] >> 8 | last << 24;
}

void rotate_left_8(uint32_t *words, size_t count)
{
    const uint32_t first = words[0];
    for (size_t i = 0; i + 1 < count; ++i)
        words[i] = words[i] << 8 | words[i + 1] >> 24;
    words[count - 1] = words[count - 1] << 8 | first >> 24;
}

// The standard's schedule for keys of four words; for six and eight words the same sums run over all of them, and each
// half of the key is rotated in its turn, so that every round key depends on every word.
[[gnu::noinline]] void expand_key(uint32_t *round_keys, const void *key, size_t key_words)
{
    uint32_t words[8];
    for (size_t i = 0; i < key_words; ++i)
        words[i] = load_big_32(static_cast<const uint8_t *>(key) + 4 * i);
    for (size_t round = 0; round < rounds_of(key_words); ++round) {
        const uint32_t constant = std::rotl(key_constant, static_cast<int>(round));
        uint32_t even = 0 - constant;
        uint32_t odd = constant;
        for (size_t i = 0; i < key_words; i += 2) {
            even += words[i];
            odd += i % 4 == 0 ? words[i + 1] : 0 - words[i + 1];
        }
        round_keys[2 * round] = mix(even);
        round_keys[2 * round + 1] = mix(odd);
        if (round % 2 == 0)
            rotate_right_8(words, key_words / 2);
        else
            rotate_left_8(words + key_words / 2, key_words / 2);
    }
    explicit_bzero(words, sizeof words);
}

// --- the cipher

struct state {
    uint32_t left[2];
    uint32_t right[2];
};

void apply_round(uint32_t (&target)[2], const uint32_t (&half)[2], const uint32_t *key)
{
    uint32_t c = half[0] ^ key[0];
    uint32_t d = half[1] ^ key[1];
    d = mix(c ^ d);
    c = mix(c + d);
    d = mix(c + d);
    target[0] ^= c + d;
    target[1] ^= d;
}

// In one direction: decryption takes the round keys from the last to the first.
class seed_cipher {
public:
    static constexpr size_t block_size = block_bytes;

    [[gnu::noinline]] void transform(uint8_t *blocks, size_t count) const
    {
        for (; count >= 3; count -= 3, blocks += 3 * block_bytes)
            transform_together<3>(blocks);
        for (; count > 0; --count, blocks += block_bytes)
            transform_together<1>(blocks);
    }

protected:
    seed_cipher(const uint32_t *first_key, ptrdiff_t step, size_t rounds)
        : first_key_(first_key), step_(step), rounds_(rounds)
    {}

private:
    // Independent blocks side by side hide the latency of the table look-ups.
    template <size_t Blocks>
    void transform_together(uint8_t *blocks) const
    {
        state states[Blocks];
        for (size_t i = 0; i < Blocks; ++i) {
            const uint8_t *block = blocks + i * block_bytes;
            states[i] = {{load_big_32(block), load_big_32(block + 4)},
                         {load_big_32(block + 8), load_big_32(block + 12)}};
        }
        for (size_t round = 0; round < rounds_; round += 2) {
            const uint32_t *key = first_key_ + static_cast<ptrdiff_t>(round) * step_;
            for (state &each : states)
                apply_round(each.left, each.right, key);
            for (state &each : states)
                apply_round(each.right, each.left, key + step_);
        }
        for (size_t i = 0; i < Blocks; ++i) { // the last round does not swap the halves
            uint8_t *block = blocks + i * block_bytes;
            store_big_32(block, states[i].right[0]);
            store_big_32(block + 4, states[i].right[1]);
            store_big_32(block + 8, states[i].left[0]);
            store_big_32(block + 12, states[i].left[1]);
        }
    }

    const uint32_t *first_key_;
    ptrdiff_t step_;
    size_t rounds_;
};

struct seed_forward : seed_cipher {
    seed_forward(const uint8_t *round_key, size_t rounds)
        : seed_cipher(reinterpret_cast<const uint32_t *>(round_key), 2, rounds)
    {}
};

struct seed_inverse : seed_cipher {
    seed_inverse(const uint8_t *round_key, size_t rounds)
        : seed_cipher(reinterpret_cast<const uint32_t *>(round_key) + 2 * (rounds - 1), -2, rounds)
    {}
};

using modes = kestal::mode::modes<seed_forward, seed_inverse>;

} // namespace

kestal_seed128_round_key_t *kestal_make_round_key_seed128(kestal_seed128_round_key_t *round_key, const void *key)
{
    if (round_key == nullptr || key == nullptr)
        return nullptr;
    expand_key(round_key->m_words, key, 4);
    return round_key;
}

KESTAL_DEFINE_CIPHER(seed128, modes, rounds_of(4))

kestal_seed128_round_key_t *kestal_make_round_key_seed(kestal_seed128_round_key_t *round_key, const void *key)
{
    return kestal_make_round_key_seed128(round_key, key);
}

KESTAL_DEFINE_CIPHER(seed, modes, rounds_of(4))

kestal_seed192_round_key_t *kestal_make_round_key_seed192(kestal_seed192_round_key_t *round_key, const void *key)
{
    if (round_key == nullptr || key == nullptr)
        return nullptr;
    expand_key(round_key->m_words, key, 6);
    return round_key;
}

KESTAL_DEFINE_CIPHER(seed192, modes, rounds_of(6))

kestal_seed256_round_key_t *kestal_make_round_key_seed256(kestal_seed256_round_key_t *round_key, const void *key)
{
    if (round_key == nullptr || key == nullptr)
        return nullptr;
    expand_key(round_key->m_words, key, 8);
    return round_key;
}

KESTAL_DEFINE_CIPHER(seed256, modes, rounds_of(8))
