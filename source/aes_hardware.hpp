// AES by the processor's own instructions, with the same round-key objects and results as the portable code and no
// table look-ups that depend on the key. Only to be called where is_available().
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace kestal::aes_hardware {

bool is_available();

// The S-box on each byte of a word, for the key schedule.
uint32_t substitute_word(uint32_t word);

// `rounds` is 10, 12 or 14; `round_key` holds 16 x (rounds + 1) bytes; `size` is in bytes; `iv`, which ECB leaves alone, is
// moved on.
void ecb_encrypt(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds);
void ecb_decrypt(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds);
void cbc_encrypt(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds);
void cbc_decrypt(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds);
void cfb8_encrypt(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds);
void cfb8_decrypt(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds);
void ofb8(uint8_t *data, uint64_t size, uint8_t *iv, const uint8_t *round_key, size_t rounds);

} // namespace kestal::aes_hardware
