// The modes of operation as templates over an engine: a cipher in one direction under one round key.
//
// An engine is made from the address of a round-key object and its number of rounds, states its `block_size`, and
// transforms `count` blocks in a row with transform(blocks, count), which is kept out of line so that the modes share it.
// What it copies of the keys, and what the modes keep of the key stream, does not stay behind on the stack.
#pragma once

#include <algorithm>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace kestal::mode {

// So many blocks are in flight where a mode allows it: enough for every engine's widest step.
constexpr size_t batch_blocks = 16;

template <size_t Size>
void combine(uint8_t *to, const uint8_t *with)
{
    static_assert(Size % sizeof(uint64_t) == 0);
    for (size_t i = 0; i < Size; i += sizeof(uint64_t)) {
        uint64_t a, b;
        memcpy(&a, to + i, sizeof a);
        memcpy(&b, with + i, sizeof b);
        a ^= b;
        memcpy(to + i, &a, sizeof a);
    }
}

// Drops the first byte of a register and appends one.
template <size_t Size>
void shift_in(uint8_t *shift_register, uint8_t byte)
{
    memmove(shift_register, shift_register + 1, Size - 1);
    shift_register[Size - 1] = byte;
}

template <typename Engine>
void ecb(const Engine &engine, uint8_t *data, uint64_t size, uint8_t *)
{
    engine.transform(data, static_cast<size_t>(size / Engine::block_size));
}

// The number of blocks that CBC processes: a partial last block counts as whole.
template <typename Engine>
uint64_t whole_blocks(uint64_t size)
{
    return size / Engine::block_size + (size % Engine::block_size != 0);
}

template <typename Engine>
void cbc_encrypt(const Engine &forward, uint8_t *data, uint64_t size, uint8_t *iv)
{
    constexpr size_t block = Engine::block_size;
    const uint8_t *chain = iv;
    for (uint64_t left = whole_blocks<Engine>(size); left > 0; --left, data += block) {
        combine<block>(data, chain);
        forward.transform(data, 1);
        chain = data;
    }
    if (chain != iv)
        memcpy(iv, chain, block);
}

template <typename Engine>
void cbc_decrypt(const Engine &inverse, uint8_t *data, uint64_t size, uint8_t *iv)
{
    constexpr size_t block = Engine::block_size;
    uint8_t chain[(batch_blocks + 1) * block]; // the block before the batch, then the batch as it came
    memcpy(chain, iv, block);
    for (uint64_t left = whole_blocks<Engine>(size); left > 0;) {
        const size_t count = static_cast<size_t>(std::min<uint64_t>(left, batch_blocks));
        memcpy(chain + block, data, count * block);
        inverse.transform(data, count);
        for (size_t i = 0; i < count; ++i)
            combine<block>(data + i * block, chain + i * block);
        memcpy(chain, chain + count * block, block);
        data += count * block;
        left -= count;
    }
    memcpy(iv, chain, block);
    explicit_bzero(chain, sizeof chain);
}

template <typename Engine>
void cfb8_encrypt(const Engine &forward, uint8_t *data, uint64_t size, uint8_t *iv)
{
    constexpr size_t block = Engine::block_size;
    uint8_t scratch[block];
    for (uint64_t i = 0; i < size; ++i) {
        memcpy(scratch, iv, block);
        forward.transform(scratch, 1);
        data[i] = static_cast<uint8_t>(data[i] ^ scratch[0]);
        shift_in<block>(iv, data[i]);
    }
    explicit_bzero(scratch, sizeof scratch);
}

// Every register is known beforehand here (it is ciphertext), so a batch of them goes through the cipher at once.
template <typename Engine>
void cfb8_decrypt(const Engine &forward, uint8_t *data, uint64_t size, uint8_t *iv)
{
    constexpr size_t block = Engine::block_size;
    uint8_t window[block + batch_blocks]; // the register, then the ciphertext that moves into it
    uint8_t scratch[batch_blocks * block];
    while (size > 0) {
        const size_t count = static_cast<size_t>(std::min<uint64_t>(size, batch_blocks));
        memcpy(window, iv, block);
        memcpy(window + block, data, count);
        for (size_t i = 0; i < count; ++i)
            memcpy(scratch + i * block, window + i, block);
        forward.transform(scratch, count);
        for (size_t i = 0; i < count; ++i)
            data[i] = static_cast<uint8_t>(data[i] ^ scratch[i * block]);
        memcpy(iv, window + count, block);
        data += count;
        size -= count;
    }
    explicit_bzero(scratch, sizeof scratch);
}

// The register is rotated, not shifted: data enciphered so must stay readable.
template <typename Engine>
void ofb8(const Engine &forward, uint8_t *data, uint64_t size, uint8_t *iv)
{
    constexpr size_t block = Engine::block_size;
    for (uint64_t i = 0; i < size; ++i) {
        forward.transform(iv, 1);
        data[i] = static_cast<uint8_t>(data[i] ^ iv[0]);
        shift_in<block>(iv, iv[0]);
    }
}

// What stands behind an exported function: `Mode` over an engine of this round key, for all its numbers of rounds.
template <typename Engine, void (*Mode)(const Engine &engine, uint8_t *data, uint64_t size, uint8_t *iv)>
[[gnu::noinline]] void *run(void *data, uint64_t size, void *iv, const void *round_key, size_t rounds)
{
    if (data == nullptr || iv == nullptr || round_key == nullptr)
        return nullptr;
    Mode(Engine(static_cast<const uint8_t *>(round_key), rounds), static_cast<uint8_t *>(data), size,
         static_cast<uint8_t *>(iv));
    return data;
}

template <typename Forward, typename Inverse>
struct modes {
    static constexpr auto ecb_encrypt = run<Forward, ecb<Forward>>;
    static constexpr auto ecb_decrypt = run<Inverse, ecb<Inverse>>;
    static constexpr auto cbc_encrypt = run<Forward, mode::cbc_encrypt<Forward>>;
    static constexpr auto cbc_decrypt = run<Inverse, mode::cbc_decrypt<Inverse>>;
    static constexpr auto cfb8_encrypt = run<Forward, mode::cfb8_encrypt<Forward>>;
    static constexpr auto cfb8_decrypt = run<Forward, mode::cfb8_decrypt<Forward>>;
    static constexpr auto ofb8 = run<Forward, mode::ofb8<Forward>>;
};

} // namespace kestal::mode

// The exported functions of one cipher: NAME as in kestal_encrypt_NAME_ecb; MODES with the members of kestal::mode::modes.
#define KESTAL_DEFINE_CIPHER_MODE(function, mode_call, rounds)                                                         \
    void *function(void *data, uint64_t size, void *iv, const void *round_key)                                         \
    {                                                                                                                  \
        return mode_call(data, size, iv, round_key, rounds);                                                           \
    }

#define KESTAL_DEFINE_CIPHER_ECB(function, mode_call, rounds)                                                          \
    void *function(void *data, uint64_t size, const void *round_key)                                                   \
    {                                                                                                                  \
        return mode_call(data, size, data, round_key, rounds);                                                         \
    }

#define KESTAL_DEFINE_CIPHER(NAME, MODES, ROUNDS)                                                                      \
    KESTAL_DEFINE_CIPHER_ECB(kestal_encrypt_##NAME##_ecb, MODES::ecb_encrypt, ROUNDS)                                  \
    KESTAL_DEFINE_CIPHER_ECB(kestal_decrypt_##NAME##_ecb, MODES::ecb_decrypt, ROUNDS)                                  \
    KESTAL_DEFINE_CIPHER_MODE(kestal_encrypt_##NAME##_cbc, MODES::cbc_encrypt, ROUNDS)                                 \
    KESTAL_DEFINE_CIPHER_MODE(kestal_decrypt_##NAME##_cbc, MODES::cbc_decrypt, ROUNDS)                                 \
    KESTAL_DEFINE_CIPHER_MODE(kestal_encrypt_##NAME##_cfb8, MODES::cfb8_encrypt, ROUNDS)                               \
    KESTAL_DEFINE_CIPHER_MODE(kestal_decrypt_##NAME##_cfb8, MODES::cfb8_decrypt, ROUNDS)                               \
    KESTAL_DEFINE_CIPHER_MODE(kestal_encrypt_##NAME##_ofb8, MODES::ofb8, ROUNDS)                                       \
    KESTAL_DEFINE_CIPHER_MODE(kestal_decrypt_##NAME##_ofb8, MODES::ofb8, ROUNDS)
