#include <kestal_ulx/cipher_mode.h>

#include <kestal_ulx/aes.h>
#include <kestal_ulx/des.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/seed.h>
#include <kestal_ulx/short_lock.h>

#include <string.h>

namespace {

// --- the library's own ciphers, whose modes run several blocks at a time

using mode_function = void *(*)(void *data, uint64_t size, void *iv, const void *round_key);

struct library_cipher {
    kestal_cipher_ecb_t ecb_encrypt;
    kestal_cipher_ecb_t ecb_decrypt;
    uint64_t block_size;
    mode_function cbc_encrypt;
    mode_function cbc_decrypt;
    mode_function cfb8_encrypt;
    mode_function cfb8_decrypt;
    mode_function ofb8;
};

#define LIBRARY_CIPHER(NAME, BLOCK)                                                                                    \
    {                                                                                                                  \
        kestal_encrypt_##NAME##_ecb, kestal_decrypt_##NAME##_ecb, BLOCK, kestal_encrypt_##NAME##_cbc,                  \
            kestal_decrypt_##NAME##_cbc, kestal_encrypt_##NAME##_cfb8, kestal_decrypt_##NAME##_cfb8,                   \
            kestal_encrypt_##NAME##_ofb8                                                                               \
    }

constexpr library_cipher library_ciphers[] = {
    LIBRARY_CIPHER(aes128, 16),  LIBRARY_CIPHER(aes192, 16),  LIBRARY_CIPHER(aes256, 16),
    LIBRARY_CIPHER(des, 8),      LIBRARY_CIPHER(3des, 8),     LIBRARY_CIPHER(seed128, 16),
    LIBRARY_CIPHER(seed192, 16), LIBRARY_CIPHER(seed256, 16), LIBRARY_CIPHER(seed, 16),
};

// The function that does the whole mode for a library cipher; null for a caller's own.
mode_function find(kestal_cipher_ecb_t library_cipher::*direction, kestal_cipher_ecb_t ecb, uint64_t block_size,
                   mode_function library_cipher::*mode)
{
    for (const library_cipher &cipher : library_ciphers) {
        if (cipher.*direction == ecb && cipher.block_size == block_size)
            return cipher.*mode;
    }
    return nullptr;
}

bool is_usable(kestal_cipher_ecb_t ecb, uint64_t block_size, const void *data, const void *iv, const void *round_key)
{
    return ecb != nullptr && block_size > 0 && block_size <= SIZE_MAX && data != nullptr && iv != nullptr &&
           round_key != nullptr;
}

// --- a block of room: on the stack where it fits

template <size_t OnStack>
class scratch_block {
public:
    explicit scratch_block(size_t size, const char *tag) : size_(size), tag_(tag)
    {
        bytes_ = size <= OnStack ? local_ : static_cast<uint8_t *>(kestal_alloc_tag(size, tag, __LINE__));
    }
    ~scratch_block()
    {
        if (bytes_ == nullptr)
            return;
        explicit_bzero(bytes_, size_);
        if (bytes_ != local_)
            kestal_free_tag(bytes_, tag_, __LINE__);
    }
    scratch_block(const scratch_block &) = delete;
    scratch_block &operator=(const scratch_block &) = delete;

    // Asks again, with a pause between attempts, until the room is there.
    void insist()
    {
        while (bytes_ == nullptr) {
            kestal_load_balance();
            bytes_ = static_cast<uint8_t *>(kestal_alloc_tag(size_, tag_, __LINE__));
        }
    }
    uint8_t *get() const { return bytes_; }

private:
    uint8_t local_[OnStack];
    uint8_t *bytes_;
    size_t size_;
    const char *tag_;
};

void combine(uint8_t *to, const uint8_t *with, size_t size)
{
    for (size_t i = 0; i < size; ++i)
        to[i] = static_cast<uint8_t>(to[i] ^ with[i]);
}

// Drops the first byte and appends one.
void shift_in(uint8_t *shift_register, size_t size, uint8_t byte)
{
    memmove(shift_register, shift_register + 1, size - 1);
    shift_register[size - 1] = byte;
}

void *cfb8(kestal_cipher_ecb_t ecb_encrypt, size_t block_size, void *data, uint64_t size, void *iv,
           const void *round_key, bool encrypting)
{
    scratch_block<32> scratch(block_size, "kestal_encrypt_mode_cfb8");
    scratch.insist();
    uint8_t *bytes = static_cast<uint8_t *>(data);
    for (uint64_t i = 0; i < size; ++i) {
        memcpy(scratch.get(), iv, block_size);
        ecb_encrypt(scratch.get(), block_size, round_key);
        const uint8_t input = bytes[i];
        bytes[i] = static_cast<uint8_t>(input ^ scratch.get()[0]);
        shift_in(static_cast<uint8_t *>(iv), block_size, encrypting ? bytes[i] : input);
    }
    return data;
}

} // namespace

void *kestal_encrypt_mode_cbc(kestal_cipher_ecb_t ecb_encrypt, uint64_t block_size, void *data, uint64_t size, void *iv,
                              const void *round_key)
{
    if (!is_usable(ecb_encrypt, block_size, data, iv, round_key))
        return nullptr;
    if (const mode_function fast =
            find(&library_cipher::ecb_encrypt, ecb_encrypt, block_size, &library_cipher::cbc_encrypt))
        return fast(data, size, iv, round_key);

    const size_t step = static_cast<size_t>(block_size);
    uint8_t *block = static_cast<uint8_t *>(data);
    for (uint64_t offset = 0; offset < size; offset += step, block += step) {
        combine(block, static_cast<const uint8_t *>(iv), step);
        ecb_encrypt(block, step, round_key);
        memcpy(iv, block, step);
    }
    return data;
}

void *kestal_decrypt_mode_cbc(kestal_cipher_ecb_t ecb_decrypt, uint64_t block_size, void *data, uint64_t size, void *iv,
                              const void *round_key)
{
    if (!is_usable(ecb_decrypt, block_size, data, iv, round_key))
        return nullptr;
    if (const mode_function fast =
            find(&library_cipher::ecb_decrypt, ecb_decrypt, block_size, &library_cipher::cbc_decrypt))
        return fast(data, size, iv, round_key);

    const size_t step = static_cast<size_t>(block_size);
    const scratch_block<64> received(step, __func__);
    if (received.get() == nullptr)
        return nullptr;
    uint8_t *block = static_cast<uint8_t *>(data);
    for (uint64_t offset = 0; offset < size; offset += step, block += step) {
        memcpy(received.get(), block, step);
        ecb_decrypt(block, step, round_key);
        combine(block, static_cast<const uint8_t *>(iv), step);
        memcpy(iv, received.get(), step);
    }
    return data;
}

void *kestal_encrypt_mode_cfb8(kestal_cipher_ecb_t ecb_encrypt, uint64_t block_size, void *data, uint64_t size,
                               void *iv, const void *round_key)
{
    if (!is_usable(ecb_encrypt, block_size, data, iv, round_key))
        return nullptr;
    if (const mode_function fast =
            find(&library_cipher::ecb_encrypt, ecb_encrypt, block_size, &library_cipher::cfb8_encrypt))
        return fast(data, size, iv, round_key);
    return cfb8(ecb_encrypt, static_cast<size_t>(block_size), data, size, iv, round_key, true);
}

void *kestal_decrypt_mode_cfb8(kestal_cipher_ecb_t ecb_encrypt, uint64_t block_size, void *data, uint64_t size,
                               void *iv, const void *round_key)
{
    if (!is_usable(ecb_encrypt, block_size, data, iv, round_key))
        return nullptr;
    if (const mode_function fast =
            find(&library_cipher::ecb_encrypt, ecb_encrypt, block_size, &library_cipher::cfb8_decrypt))
        return fast(data, size, iv, round_key);
    return cfb8(ecb_encrypt, static_cast<size_t>(block_size), data, size, iv, round_key, false);
}

void *kestal_encrypt_mode_ofb8(kestal_cipher_ecb_t ecb_encrypt, uint64_t block_size, void *data, uint64_t size,
                               void *iv, const void *round_key)
{
    if (!is_usable(ecb_encrypt, block_size, data, iv, round_key))
        return nullptr;
    if (const mode_function fast = find(&library_cipher::ecb_encrypt, ecb_encrypt, block_size, &library_cipher::ofb8))
        return fast(data, size, iv, round_key);

    uint8_t *bytes = static_cast<uint8_t *>(data);
    uint8_t *shift_register = static_cast<uint8_t *>(iv);
    for (uint64_t i = 0; i < size; ++i) {
        ecb_encrypt(shift_register, block_size, round_key);
        bytes[i] = static_cast<uint8_t>(bytes[i] ^ shift_register[0]);
        shift_in(shift_register, static_cast<size_t>(block_size), shift_register[0]);
    }
    return data;
}

void *kestal_decrypt_mode_ofb8(kestal_cipher_ecb_t ecb_encrypt, uint64_t block_size, void *data, uint64_t size,
                               void *iv, const void *round_key)
{
    return kestal_encrypt_mode_ofb8(ecb_encrypt, block_size, data, size, iv, round_key);
}
