/**
 * @file
 * SEED (RFC 4269): blocks of 16 bytes, keys of 16 bytes and 16 rounds; and variants with keys of 24 and 32 bytes, 20
 * and 24 rounds, whose key schedule is this library's own extension of the standard's. The names without a number are
 * those of SEED-128.
 *
 * A round-key object is the caller's and serves both directions and any number of threads.
 * All calls work in place, allocate nothing and return `data`, or null when a pointer is null. `iv` is one block, and
 * is moved on so that the next call continues the stream. The modes, and what they do with a partial last block, are
 * those of cipher_mode.h: nothing is padded or authenticated here.
 */
#ifndef KESTAL_ULX_SEED_H
#define KESTAL_ULX_SEED_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** SEED-128: a pair of words for each of 16 rounds. */
typedef struct kestal_seed128_round_key {
    uint32_t m_words[32]; /**< two for each round */
} kestal_seed128_round_key_t;

/** SEED-192: a pair of words for each of 20 rounds. */
typedef struct kestal_seed192_round_key {
    uint32_t m_words[40]; /**< two for each round */
} kestal_seed192_round_key_t;

/** SEED-256: a pair of words for each of 24 rounds. */
typedef struct kestal_seed256_round_key {
    uint32_t m_words[48]; /**< two for each round */
} kestal_seed256_round_key_t;

KESTAL_STATIC_ASSERT(sizeof(kestal_seed128_round_key_t) == 128, "16 pairs of words");
KESTAL_STATIC_ASSERT(sizeof(kestal_seed192_round_key_t) == 160, "20 pairs of words");
KESTAL_STATIC_ASSERT(sizeof(kestal_seed256_round_key_t) == 192, "24 pairs of words");

/* --- SEED-128 */

/** Fills `round_key` from a key of 16 bytes; returns it, or null when either is null. */
KESTAL_API kestal_seed128_round_key_t *kestal_make_round_key_seed128(kestal_seed128_round_key_t *round_key,
                                                                     const void *key);

/** Encrypts whole blocks one by one (SEED-128, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_encrypt_seed128_ecb(void *data, uint64_t size, const void *round_key);

/** Decrypts whole blocks one by one (SEED-128, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_decrypt_seed128_ecb(void *data, uint64_t size, const void *round_key);

/** Encrypts (SEED-128, CBC: whole blocks, chained). */
KESTAL_API void *kestal_encrypt_seed128_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED-128, CBC: whole blocks, chained). */
KESTAL_API void *kestal_decrypt_seed128_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (SEED-128, CFB-8: any number of bytes). */
KESTAL_API void *kestal_encrypt_seed128_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED-128, CFB-8: any number of bytes). */
KESTAL_API void *kestal_decrypt_seed128_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (SEED-128, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_encrypt_seed128_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED-128, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_decrypt_seed128_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/* --- SEED */

/** Fills `round_key` from a key of 16 bytes; returns it, or null when either is null. */
KESTAL_API kestal_seed128_round_key_t *kestal_make_round_key_seed(kestal_seed128_round_key_t *round_key,
                                                                  const void *key);

/** Encrypts whole blocks one by one (SEED, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_encrypt_seed_ecb(void *data, uint64_t size, const void *round_key);

/** Decrypts whole blocks one by one (SEED, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_decrypt_seed_ecb(void *data, uint64_t size, const void *round_key);

/** Encrypts (SEED, CBC: whole blocks, chained). */
KESTAL_API void *kestal_encrypt_seed_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED, CBC: whole blocks, chained). */
KESTAL_API void *kestal_decrypt_seed_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (SEED, CFB-8: any number of bytes). */
KESTAL_API void *kestal_encrypt_seed_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED, CFB-8: any number of bytes). */
KESTAL_API void *kestal_decrypt_seed_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (SEED, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_encrypt_seed_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_decrypt_seed_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/* --- SEED-192 */

/** Fills `round_key` from a key of 24 bytes; returns it, or null when either is null. */
KESTAL_API kestal_seed192_round_key_t *kestal_make_round_key_seed192(kestal_seed192_round_key_t *round_key,
                                                                     const void *key);

/** Encrypts whole blocks one by one (SEED-192, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_encrypt_seed192_ecb(void *data, uint64_t size, const void *round_key);

/** Decrypts whole blocks one by one (SEED-192, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_decrypt_seed192_ecb(void *data, uint64_t size, const void *round_key);

/** Encrypts (SEED-192, CBC: whole blocks, chained). */
KESTAL_API void *kestal_encrypt_seed192_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED-192, CBC: whole blocks, chained). */
KESTAL_API void *kestal_decrypt_seed192_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (SEED-192, CFB-8: any number of bytes). */
KESTAL_API void *kestal_encrypt_seed192_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED-192, CFB-8: any number of bytes). */
KESTAL_API void *kestal_decrypt_seed192_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (SEED-192, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_encrypt_seed192_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED-192, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_decrypt_seed192_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/* --- SEED-256 */

/** Fills `round_key` from a key of 32 bytes; returns it, or null when either is null. */
KESTAL_API kestal_seed256_round_key_t *kestal_make_round_key_seed256(kestal_seed256_round_key_t *round_key,
                                                                     const void *key);

/** Encrypts whole blocks one by one (SEED-256, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_encrypt_seed256_ecb(void *data, uint64_t size, const void *round_key);

/** Decrypts whole blocks one by one (SEED-256, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_decrypt_seed256_ecb(void *data, uint64_t size, const void *round_key);

/** Encrypts (SEED-256, CBC: whole blocks, chained). */
KESTAL_API void *kestal_encrypt_seed256_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED-256, CBC: whole blocks, chained). */
KESTAL_API void *kestal_decrypt_seed256_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (SEED-256, CFB-8: any number of bytes). */
KESTAL_API void *kestal_encrypt_seed256_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED-256, CFB-8: any number of bytes). */
KESTAL_API void *kestal_decrypt_seed256_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (SEED-256, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_encrypt_seed256_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (SEED-256, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_decrypt_seed256_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

KESTAL_END_DECLS

#endif
