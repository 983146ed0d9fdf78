/**
 * @file
 * Modes of operation over any block cipher: CBC, CFB-8 and OFB-8, for a cipher of the library or a caller's own.
 *
 * All work in place on `size` bytes of `data` and return `data`, or null when a pointer is null or the block size is
 * 0. `iv` is a buffer of one block that is moved on, so that successive calls continue one stream. Nothing is padded
 * and nothing is authenticated: a caller who must detect changed bytes adds a MAC. The cipher functions of aes.h,
 * des.h and seed.h are recognised and take their fast paths.
 */
#ifndef KESTAL_ULX_CIPHER_MODE_H
#define KESTAL_ULX_CIPHER_MODE_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Transforms one block of `block_size` bytes in place under a round key; returns `block`. */
typedef void *(*kestal_cipher_ecb_t)(void *block, uint64_t block_size, const void *round_key);

/**
 * CBC encryption. The size must be a whole number of blocks: a partial last block is processed as a whole one, so the
 * buffer must hold it whole.
 */
KESTAL_API void *kestal_encrypt_mode_cbc(kestal_cipher_ecb_t ecb_encrypt, uint64_t block_size, void *data,
                                         uint64_t size, void *iv, const void *round_key);

/**
 * CBC decryption; the size as for encryption. Blocks of more than 64 bytes need an allocation: null (nothing changed)
 * when memory is short.
 */
KESTAL_API void *kestal_decrypt_mode_cbc(kestal_cipher_ecb_t ecb_decrypt, uint64_t block_size, void *data,
                                         uint64_t size, void *iv, const void *round_key);

/**
 * CFB-8 encryption of any number of bytes. Blocks of more than 32 bytes need an allocation, which is tried until it
 * succeeds.
 */
KESTAL_API void *kestal_encrypt_mode_cfb8(kestal_cipher_ecb_t ecb_encrypt, uint64_t block_size, void *data,
                                          uint64_t size, void *iv, const void *round_key);

/** CFB-8 decryption: it takes the forward cipher too. */
KESTAL_API void *kestal_decrypt_mode_cfb8(kestal_cipher_ecb_t ecb_encrypt, uint64_t block_size, void *data,
                                          uint64_t size, void *iv, const void *round_key);

/**
 * OFB-8 of any number of bytes: for each, the register is encrypted in place, the byte is combined with its first
 * byte, and the register is rotated left by one byte. This is not the shift register of the standard's 8-bit OFB.
 */
KESTAL_API void *kestal_encrypt_mode_ofb8(kestal_cipher_ecb_t ecb_encrypt, uint64_t block_size, void *data,
                                          uint64_t size, void *iv, const void *round_key);

/** The same as encryption. */
KESTAL_API void *kestal_decrypt_mode_ofb8(kestal_cipher_ecb_t ecb_encrypt, uint64_t block_size, void *data,
                                          uint64_t size, void *iv, const void *round_key);

KESTAL_END_DECLS

#endif
