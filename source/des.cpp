#include <kestal_ulx/des.h>

#include <kestal_ulx/output.h>

#include "block_modes.hpp"
#include "byte_order.hpp"

#include <array>
#include <bit>

using kestal::load_big_32;
using kestal::load_little_64;
using kestal::store_big_32;

namespace {

constexpr size_t block_bytes = 8;
constexpr int rounds = 16;
constexpr size_t round_bits = 48;

// The standard's tables count bits from 1, the most significant.
constexpr uint8_t key_choice_1[56] = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18, 10, 2,  59, 51, 43,
                                      35, 27, 19, 11, 3,  60, 52, 44, 36, 63, 55, 47, 39, 31, 23, 15, 7,  62, 54,
                                      46, 38, 30, 22, 14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};
constexpr uint8_t key_choice_2[round_bits] = {14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,
                                              26, 8,  16, 7,  27, 20, 13, 2,  41, 52, 31, 37, 47, 55, 30, 40,
                                              51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};
constexpr uint8_t key_shifts[rounds] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};
constexpr uint8_t permutation[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23, 26, 5,  18, 31, 10,
                                     2,  8, 24, 14, 32, 27, 3,  9,  19, 13, 30, 6,  22, 11, 4,  25};
constexpr uint8_t boxes[8][64] = {
    {14, 4,  13, 1, 2,  15, 11, 8, 3, 10, 6, 12, 5,  9,  0,  7,  0,  15, 7,  4,  14, 2,
     13, 1,  10, 6, 12, 11, 9,  5, 3, 8,  4, 1,  14, 8,  13, 6,  2,  11, 15, 12, 9,  7,
     3,  10, 5,  0, 15, 12, 8,  2, 4, 9,  1, 7,  5,  11, 3,  14, 10, 0,  6,  13},
    {15, 1,  8, 14, 6,  11, 3,  4, 9, 7, 2,  13, 12, 0, 5, 10, 3,  13, 4,  7, 15, 2,  8, 14, 12, 0, 1, 10, 6, 9, 11, 5,
     0,  14, 7, 11, 10, 4,  13, 1, 5, 8, 12, 6,  9,  3, 2, 15, 13, 8,  10, 1, 3,  15, 4, 2,  11, 6, 7, 12, 0, 5, 14, 9},
    {10, 0,  9,  14, 6, 3,  15, 5,  1,  13, 12, 7, 11, 4,  2,  8,  13, 7, 0,  9, 3, 4,
     6,  10, 2,  8,  5, 14, 12, 11, 15, 1,  13, 6, 4,  9,  8,  15, 3,  0, 11, 1, 2, 12,
     5,  10, 14, 7,  1, 10, 13, 0,  6,  9,  8,  7, 4,  15, 14, 3,  11, 5, 2,  12},
    {7, 13, 14, 3, 0, 6,  9, 10, 1,  2, 8,  5, 11, 12, 4,  15, 13, 8,  11, 5, 6, 15,
     0, 3,  4,  7, 2, 12, 1, 10, 14, 9, 10, 6, 9,  0,  12, 11, 7,  13, 15, 1, 3, 14,
     5, 2,  8,  4, 3, 15, 0, 6,  10, 1, 13, 8, 9,  4,  5,  11, 12, 7,  2,  14},
    {2,  12, 4, 1,  7,  10, 11, 6, 8, 5,  3, 15, 13, 0,  14, 9,  14, 11, 2,  12, 4,  7,
     13, 1,  5, 0,  15, 10, 3,  9, 8, 6,  4, 2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,
     6,  3,  0, 14, 11, 8,  12, 7, 1, 14, 2, 13, 6,  15, 0,  9,  10, 4,  5,  3},
    {12, 1,  10, 15, 9,  2,  6, 8,  0, 13, 3,  4,  14, 7,  5, 11, 10, 15, 4, 2, 7, 12,
     9,  5,  6,  1,  13, 14, 0, 11, 3, 8,  9,  14, 15, 5,  2, 8,  12, 3,  7, 0, 4, 10,
     1,  13, 11, 6,  4,  3,  2, 12, 9, 5,  15, 10, 11, 14, 1, 7,  6,  0,  8, 13},
    {4, 11, 2,  14, 15, 0, 8, 13, 3,  12, 9, 7, 5, 10, 6, 1, 13, 0,  11, 7, 4, 9, 1,  10, 14, 3, 5, 12, 2,  15, 8, 6,
     1, 4,  11, 13, 12, 3, 7, 14, 10, 15, 6, 8, 0, 5,  9, 2, 6,  11, 13, 8, 1, 4, 10, 7,  9,  5, 0, 15, 14, 2,  3, 12},
    {13, 2,  8, 4, 6, 15, 11, 1, 10, 9, 3,  14, 5,  0, 12, 7, 1, 15, 13, 8, 10, 3,  7, 4,  12, 5,  6, 11, 0, 14, 9, 2,
     7,  11, 4, 1, 9, 12, 14, 2, 0,  6, 10, 13, 15, 3, 5,  8, 2, 1,  14, 7, 4,  10, 8, 13, 15, 12, 9, 0,  3, 5,  6, 11},
};

// Each box with the round's permutation applied to its output. The halves are kept rotated left by one bit, which
// lines the expansion's groups up with bytes: so are the outputs.
constexpr auto make_permuted_boxes()
{
    std::array<std::array<uint32_t, 64>, 8> tables{};
    for (size_t box = 0; box < 8; ++box) {
        for (uint32_t input = 0; input < 64; ++input) {
            const uint32_t row = (input >> 4 & 2u) | (input & 1u);
            const uint32_t column = input >> 1 & 15u;
            const uint32_t output = uint32_t{boxes[box][row * 16 + column]} << (28 - 4 * box);
            uint32_t permuted = 0;
            for (int bit = 0; bit < 32; ++bit)
                permuted |= (output >> (32 - permutation[bit]) & 1u) << (31 - bit);
            tables[box][input] = std::rotl(permuted, 1);
        }
    }
    return tables;
}

constexpr auto permuted_boxes = make_permuted_boxes();

// A round key ready for use: the six-bit groups of the boxes 1, 3, 5, 7 and of 2, 4, 6, 8, a byte each.
struct packed_round {
    uint32_t odd;
    uint32_t even;
};

// Gathers eight bytes of 0 or 1 into one byte, the first as its highest bit.
uint64_t gather(const uint8_t *bits)
{
    return load_little_64(bits) * 0x8040201008040201u >> 56;
}

packed_round pack(const uint8_t *bits)
{
    uint64_t word = 0;
    for (size_t i = 0; i < round_bits; i += 8)
        word = word << 8 | gather(bits + i);
    const auto group = [word](int number) { return static_cast<uint32_t>(word >> (48 - 6 * number) & 63u); };
    return {group(1) << 24 | group(3) << 16 | group(5) << 8 | group(7),
            group(2) << 24 | group(4) << 16 | group(6) << 8 | group(8)};
}

// Exchanges the bits of `low` under the mask with those of `high` that stand `shift` higher.
void exchange(uint32_t &high, uint32_t &low, int shift, uint32_t mask)
{
    const uint32_t differing = (high >> shift ^ low) & mask;
    low ^= differing;
    high ^= differing << shift;
}

struct halves {
    uint32_t left;
    uint32_t right;
};

halves load_block(const uint8_t *block)
{
    halves state{load_big_32(block), load_big_32(block + 4)};
    exchange(state.left, state.right, 4, 0x0f0f0f0fu);
    exchange(state.left, state.right, 16, 0x0000ffffu);
    exchange(state.right, state.left, 2, 0x33333333u);
    exchange(state.right, state.left, 8, 0x00ff00ffu);
    exchange(state.left, state.right, 1, 0x55555555u);
    return {std::rotl(state.left, 1), std::rotl(state.right, 1)};
}

void store_block(uint8_t *block, halves state)
{
    state = {std::rotr(state.left, 1), std::rotr(state.right, 1)};
    exchange(state.left, state.right, 1, 0x55555555u);
    exchange(state.right, state.left, 8, 0x00ff00ffu);
    exchange(state.right, state.left, 2, 0x33333333u);
    exchange(state.left, state.right, 16, 0x0000ffffu);
    exchange(state.left, state.right, 4, 0x0f0f0f0fu);
    store_big_32(block, state.left);
    store_big_32(block + 4, state.right);
}

uint32_t round_output(uint32_t half, packed_round key)
{
    const uint32_t odd = std::rotr(half, 4) ^ key.odd;
    const uint32_t even = half ^ key.even;
    return permuted_boxes[0][odd >> 24 & 63u] ^ permuted_boxes[2][odd >> 16 & 63u] ^ permuted_boxes[4][odd >> 8 & 63u] ^
           permuted_boxes[6][odd & 63u] ^ permuted_boxes[1][even >> 24 & 63u] ^ permuted_boxes[3][even >> 16 & 63u] ^
           permuted_boxes[5][even >> 8 & 63u] ^ permuted_boxes[7][even & 63u];
}

// DES transformations in a row, one for each 16 round keys, in the direction that the order of these says. The final
// permutation of one and the initial one of the next cancel out.
class des_engine {
public:
    static constexpr size_t block_size = block_bytes;

    [[gnu::noinline]] void transform(uint8_t *blocks, size_t count) const
    {
        for (; count >= 3; count -= 3, blocks += 3 * block_bytes)
            transform_together<3>(blocks);
        for (; count > 0; --count, blocks += block_bytes)
            transform_together<1>(blocks);
    }

    des_engine(const des_engine &) = delete;
    des_engine &operator=(const des_engine &) = delete;

protected:
    explicit des_engine(size_t count) : count_(count) {}
    ~des_engine() { explicit_bzero(rounds_, count_ * sizeof rounds_[0]); }
    void set_round(size_t position, const uint8_t *bits) { rounds_[position] = pack(bits); }

private:
    // Independent blocks side by side hide the latency of the table look-ups.
    template <size_t Blocks>
    void transform_together(uint8_t *blocks) const
    {
        halves states[Blocks];
        for (size_t i = 0; i < Blocks; ++i)
            states[i] = load_block(blocks + i * block_bytes);
        for (const packed_round *round = rounds_; round != rounds_ + count_;) {
            for (int pair = 0; pair < rounds / 2; ++pair, round += 2) {
                for (halves &state : states)
                    state.left ^= round_output(state.right, round[0]);
                for (halves &state : states)
                    state.right ^= round_output(state.left, round[1]);
            }
            for (halves &state : states)
                state = {state.right, state.left};
        }
        for (size_t i = 0; i < Blocks; ++i)
            store_block(blocks + i * block_bytes, states[i]);
    }

    size_t count_;
    packed_round rounds_[3 * rounds];
};

struct des_forward : des_engine {
    [[gnu::noinline]] des_forward(const uint8_t *bits, size_t count) : des_engine(count)
    {
        for (size_t i = 0; i < count; ++i)
            set_round(i, bits + i * round_bits);
    }
};

struct des_inverse : des_engine {
    [[gnu::noinline]] des_inverse(const uint8_t *bits, size_t count) : des_engine(count)
    {
        for (size_t i = 0; i < count; ++i)
            set_round(i, bits + (count - 1 - i) * round_bits);
    }
};

using modes = kestal::mode::modes<des_forward, des_inverse>;

void print_round(const uint8_t *bits)
{
    for (size_t i = 0; i < round_bits; ++i)
        kestal_printf("%u%s", bits[i], i % 8 == 7 ? "b " : "");
    kestal_printf("\n");
}

} // namespace

kestal_des_round_key_t *kestal_make_round_key_des(kestal_des_round_key_t *round_key, const void *key)
{
    if (round_key == nullptr || key == nullptr)
        return nullptr;
    const uint8_t *bytes = static_cast<const uint8_t *>(key);
    uint8_t chosen[56];
    for (size_t i = 0; i < 56; ++i) {
        const unsigned bit = key_choice_1[i] - 1u;
        chosen[i] = static_cast<uint8_t>(bytes[bit / 8] >> (7 - bit % 8) & 1);
    }
    size_t shift = 0;
    for (size_t round = 0; round < rounds; ++round) {
        shift += key_shifts[round];
        for (size_t i = 0; i < round_bits; ++i) {
            const size_t bit = key_choice_2[i] - 1u;
            const size_t half = bit < 28 ? 0 : 28;
            round_key->m_bits[round * round_bits + i] = chosen[half + (bit - half + shift) % 28];
        }
    }
    explicit_bzero(chosen, sizeof chosen);
    return round_key;
}

KESTAL_DEFINE_CIPHER(des, modes, rounds)

void kestal_dump_round_key_des(const kestal_des_round_key_t *round_key)
{
    if (round_key == nullptr)
        return;
    kestal_printf("round key:\n");
    for (int round = 0; round < rounds; ++round) {
        kestal_printf("[%2d] ", round);
        print_round(round_key->m_bits + round); // from byte `round`, not 48 x round: the lines overlap
    }
}

kestal_3des_round_key_t *kestal_make_round_key_3des(kestal_3des_round_key_t *round_key, const void *key)
{
    if (round_key == nullptr || key == nullptr)
        return nullptr;
    for (size_t i = 0; i < 3; ++i)
        kestal_make_round_key_des(&round_key->m_keys[i], static_cast<const uint8_t *>(key) + i * block_bytes);
    return round_key;
}

KESTAL_DEFINE_CIPHER(3des, modes, 3 * rounds)

void kestal_dump_round_key_3des(const kestal_3des_round_key_t *round_key)
{
    if (round_key == nullptr)
        return;
    kestal_printf("triple round key:\n");
    for (int key = 0; key < 3; ++key) {
        for (int round = 0; round < rounds; ++round) {
            kestal_printf("[%d][%2d] ", key, round);
            print_round(round_key->m_keys[key].m_bits + round);
        }
    }
}
