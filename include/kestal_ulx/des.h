/**
 * @file
 * DES (FIPS 46-3), blocks and keys of 8 bytes (parity bits are ignored), and a triple DES with keys of 24 bytes.
 *
 * Triple DES here is three encryptions, with key 1, then 2, then 3 (not encrypt-decrypt-encrypt), and three
 * decryptions in the opposite order. DES is weak by today's measure: use it only where a peer demands it. A round-key
 * object is the caller's and serves both directions and any number of threads.
 * All calls work in place, allocate nothing and return `data`, or null when a pointer is null. `iv` is one block, and
 * is moved on so that the next call continues the stream. The modes, and what they do with a partial last block, are
 * those of cipher_mode.h: nothing is padded or authenticated here.
 */
#ifndef KESTAL_ULX_DES_H
#define KESTAL_ULX_DES_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** 16 round keys of 48 bits, one byte (0 or 1) a bit. */
typedef struct kestal_des_round_key {
    uint8_t m_bits[768]; /**< round by round, the highest bit first */
} kestal_des_round_key_t;

/** The round keys of key 1 (bytes 0 to 7 of the key), key 2 (8 to 15) and key 3 (16 to 23). */
typedef struct kestal_3des_round_key {
    kestal_des_round_key_t m_keys[3]; /**< for keys 1, 2 and 3 */
} kestal_3des_round_key_t;

KESTAL_STATIC_ASSERT(sizeof(kestal_des_round_key_t) == 768, "16 round keys of 48 bytes");
KESTAL_STATIC_ASSERT(sizeof(kestal_3des_round_key_t) == 2304, "three DES keys in a row");

/* --- DES */

/** Fills `round_key` from a key of 8 bytes; returns it, or null when either is null. */
KESTAL_API kestal_des_round_key_t *kestal_make_round_key_des(kestal_des_round_key_t *round_key, const void *key);

/** Encrypts whole blocks one by one (DES, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_encrypt_des_ecb(void *data, uint64_t size, const void *round_key);

/** Decrypts whole blocks one by one (DES, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_decrypt_des_ecb(void *data, uint64_t size, const void *round_key);

/** Encrypts (DES, CBC: whole blocks, chained). */
KESTAL_API void *kestal_encrypt_des_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (DES, CBC: whole blocks, chained). */
KESTAL_API void *kestal_decrypt_des_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (DES, CFB-8: any number of bytes). */
KESTAL_API void *kestal_encrypt_des_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (DES, CFB-8: any number of bytes). */
KESTAL_API void *kestal_decrypt_des_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (DES, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_encrypt_des_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (DES, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_decrypt_des_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/**
 * Prints "round key:" and a line of 48 bits a round on the output sink, the bits in groups of eight. Line r shows the
 * 48 bytes that begin at byte r of the object, so the lines overlap. Null prints nothing.
 */
KESTAL_API void kestal_dump_round_key_des(const kestal_des_round_key_t *round_key);

/* --- triple DES */

/** Fills `round_key` from a key of 24 bytes; returns it, or null when either is null. */
KESTAL_API kestal_3des_round_key_t *kestal_make_round_key_3des(kestal_3des_round_key_t *round_key, const void *key);

/** Encrypts whole blocks one by one (triple DES, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_encrypt_3des_ecb(void *data, uint64_t size, const void *round_key);

/** Decrypts whole blocks one by one (triple DES, ECB); a partial last block is left alone. */
KESTAL_API void *kestal_decrypt_3des_ecb(void *data, uint64_t size, const void *round_key);

/** Encrypts (triple DES, CBC: whole blocks, chained). */
KESTAL_API void *kestal_encrypt_3des_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (triple DES, CBC: whole blocks, chained). */
KESTAL_API void *kestal_decrypt_3des_cbc(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (triple DES, CFB-8: any number of bytes). */
KESTAL_API void *kestal_encrypt_3des_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (triple DES, CFB-8: any number of bytes). */
KESTAL_API void *kestal_decrypt_3des_cfb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Encrypts (triple DES, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_encrypt_3des_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Decrypts (triple DES, OFB-8 with the rotated register: any number of bytes). */
KESTAL_API void *kestal_decrypt_3des_ofb8(void *data, uint64_t size, void *iv, const void *round_key);

/** Prints "triple round key:" and the lines of kestal_dump_round_key_des for each of the three keys. */
KESTAL_API void kestal_dump_round_key_3des(const kestal_3des_round_key_t *round_key);

KESTAL_END_DECLS

#endif
