/**
 * @file
 * The MD5 message digest (RFC 1321), for protocols that ask for it; it does not withstand forgery.
 *
 * Open a context (or initialise one of your own), push the message in pieces of any size, take the digest. The context
 * keeps the digest's text, so that no memory has to be given for it. Nothing but kestal_open_md5 allocates beyond the
 * call. A context belongs to one thread at a time; different contexts are independent.
 */
#ifndef KESTAL_ULX_MD5_H
#define KESTAL_ULX_MD5_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** The bytes of a digest. */
#define KESTAL_MD5_DIGEST_SIZE 16

/** A digest under way: filled by kestal_init_md5, to be read by callers, written by the calls below alone. */
typedef struct kestal_md5 {
    uint32_t m_zero;         /**< Kept 0. */
    uint32_t m_state[4];     /**< The chaining words A, B, C, D. */
    uint32_t m_bit_count[2]; /**< The message's length in bits so far, low word first. */
    uint8_t m_block[64];     /**< The bytes that do not fill a block yet. */
    char m_text[33];         /**< The last digest in hexadecimal, NUL-terminated; empty before the first. */
} kestal_md5_t;

KESTAL_STATIC_ASSERT(offsetof(kestal_md5_t, m_state) == 4, "MD5 context layout");
KESTAL_STATIC_ASSERT(offsetof(kestal_md5_t, m_bit_count) == 20, "MD5 context layout");
KESTAL_STATIC_ASSERT(offsetof(kestal_md5_t, m_block) == 28, "MD5 context layout");
KESTAL_STATIC_ASSERT(offsetof(kestal_md5_t, m_text) == 92, "MD5 context layout");
KESTAL_STATIC_ASSERT(sizeof(kestal_md5_t) == 128, "MD5 context layout");

/** A new context on the heap, ready for bytes, or null when memory is short. kestal_close_md5 releases it. */
KESTAL_API kestal_md5_t *kestal_open_md5(void);

/** Releases a context of kestal_open_md5; null is let pass. Returns null. */
KESTAL_API kestal_md5_t *kestal_close_md5(kestal_md5_t *context);

/** Makes a context of the caller's own ready for a new message and returns it; null gives null. */
KESTAL_API kestal_md5_t *kestal_init_md5(kestal_md5_t *context);

/**
 * Adds `size` bytes to the message. However a message is split over calls, its digest is the same. Returns 0, or -1
 * when the context is null, or when the data are null and `size` is not 0.
 */
KESTAL_API int32_t kestal_md5_push(kestal_md5_t *context, const void *data, uint64_t size);

/**
 * Adds a whole file to the message, read in chunks of 32768 bytes. Returns 0, or -1 when an argument is null, the file
 * cannot be opened, memory is short, or reading fails midway (what was read by then has been added).
 */
KESTAL_API int32_t kestal_md5_push_file(kestal_md5_t *context, const char *path);

/**
 * Gives the digest of the message so far: 16 bytes to `out`, unless that is null, and as the result its text of 32
 * upper-case hexadecimal digits, which lies in the context until the next digest or init. The message stays open: more
 * may be pushed, and a later digest covers all of it. Null when the context is null.
 */
KESTAL_API const char *kestal_md5_digest(kestal_md5_t *context, uint8_t *out);

KESTAL_END_DECLS

#endif
