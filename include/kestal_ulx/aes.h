/**
 * @file
 * AES (FIPS 197): blocks of 16 bytes; keys of 16, 24 and 32 bytes for AES-128, AES-192 and AES-256.
 *
 * A round-key object is the caller's; it holds the standard's expanded key and serves both directions and any number
 * of threads. The processor's AES instructions are used where it has them; the portable code looks tables up, which
 * another program on the same processor may observe through the cache.
 * All calls work in place, allocate nothing and return `data`, or null when a pointer is null. `iv` is one block, and
 * is moved on so that the next call continues the stream. The modes, and what they do with a partial last block, are
 * those of cipher_mode.h: nothing is padded or authenticated here.
 */
#ifndef KESTAL_ULX_AES_H
#define KESTAL_ULX_AES_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** The expanded key of AES-128: 11 round keys. */
typedef struct kestal_aes128_round_key {
    uint8_t m_bytes[176]; /**< 11 round keys of 16 bytes, in the order of encryption */
} kestal_aes128_round_key_t;

/** The expanded key of AES-192: 13 round keys. */
typedef struct kestal_aes192_round_key {
    uint8_t m_bytes[208]; /**< 13 round keys of 16 bytes, in the order of encryption */
} kestal_aes192_round_key_t;

/** The expanded key of AES-256: 15 round keys. */
typedef struct kestal_aes256_round_key {
    uint8_t m_bytes[240]; /**< 15 round keys of 16 bytes, in the order of encryption */
} kestal_aes256_round_key_t;

KESTAL_STATIC_ASSERT(sizeof(kestal_aes128_round_key_t) == 176, "11 round keys of 16 bytes");
KESTAL_STATIC_ASSERT(sizeof(kestal_aes192_round_key_t) == 208, "13 round keys of 16 bytes");
KESTAL_STATIC_ASSERT(sizeof(kestal_aes256_round_key_t) == 240, "15 round keys of 16 bytes");

/* --- AES-128 */

/** Fills `round_key` from a key of 16 bytes; returns it, or null when either is null. */
KESTAL_API kestal_aes128_round_key_t *kestal_make_round_key_aes128(kestal_aes128_round_key_t *round_key,
                                                                   const void *key);

/** Encrypts whole blocks one by one (AES-128, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_encrypt_aes128_ecb(void *data, uint64_t size, const void *round_key);

/** Decrypts whole blocks one by one (AES-128, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_decrypt_aes128_ecb(void *data, uint64_t size, const void *round_key);

/** Encrypts (AES-128, CBC: whole blocks, chained). */
KESTAL_API void *kestal_encrypt_aes128_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (AES-128, CBC: whole blocks, chained). */
KESTAL_API void *kestal_decrypt_aes128_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (AES-128, CFB-8: any number of bytes). */
KESTAL_API void *kestal_encrypt_aes128_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (AES-128, CFB-8: any number of bytes). */
KESTAL_API void *kestal_decrypt_aes128_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (AES-128, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_encrypt_aes128_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (AES-128, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_decrypt_aes128_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/* --- AES-192 */

/** Fills `round_key` from a key of 24 bytes; returns it, or null when either is null. */
KESTAL_API kestal_aes192_round_key_t *kestal_make_round_key_aes192(kestal_aes192_round_key_t *round_key,
                                                                   const void *key);

/** Encrypts whole blocks one by one (AES-192, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_encrypt_aes192_ecb(void *data, uint64_t size, const void *round_key);

/** Decrypts whole blocks one by one (AES-192, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_decrypt_aes192_ecb(void *data, uint64_t size, const void *round_key);

/** Encrypts (AES-192, CBC: whole blocks, chained). */
KESTAL_API void *kestal_encrypt_aes192_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (AES-192, CBC: whole blocks, chained). */
KESTAL_API void *kestal_decrypt_aes192_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (AES-192, CFB-8: any number of bytes). */
KESTAL_API void *kestal_encrypt_aes192_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (AES-192, CFB-8: any number of bytes). */
KESTAL_API void *kestal_decrypt_aes192_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (AES-192, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_encrypt_aes192_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (AES-192, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_decrypt_aes192_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/* --- AES-256 */

/** Fills `round_key` from a key of 32 bytes; returns it, or null when either is null. */
KESTAL_API kestal_aes256_round_key_t *kestal_make_round_key_aes256(kestal_aes256_round_key_t *round_key,
                                                                   const void *key);

/** Encrypts whole blocks one by one (AES-256, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_encrypt_aes256_ecb(void *data, uint64_t size, const void *round_key);

/** Decrypts whole blocks one by one (AES-256, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_decrypt_aes256_ecb(void *data, uint64_t size, const void *round_key);

/** Encrypts (AES-256, CBC: whole blocks, chained). */
KESTAL_API void *kestal_encrypt_aes256_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (AES-256, CBC: whole blocks, chained). */
KESTAL_API void *kestal_decrypt_aes256_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (AES-256, CFB-8: any number of bytes). */
KESTAL_API void *kestal_encrypt_aes256_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (AES-256, CFB-8: any number of bytes). */
KESTAL_API void *kestal_decrypt_aes256_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (AES-256, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_encrypt_aes256_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (AES-256, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_decrypt_aes256_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

KESTAL_END_DECLS

#endif
