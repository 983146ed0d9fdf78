/**
 * @file
 * The SHA-256 message digest (FIPS 180-4).
 *
 * Open a context (or initialise one of your own), push the message in pieces of any size, take the digest once. The
 * context keeps the digest's text, so that no memory has to be given for it. Nothing but kestal_open_sha256 allocates
 * beyond the call. A context belongs to one thread at a time; different contexts are independent.
 */
#ifndef KESTAL_ULX_SHA256_H
#define KESTAL_ULX_SHA256_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** The bytes of a digest. */
#define KESTAL_SHA256_DIGEST_SIZE 32

/** A digest under way: filled by kestal_init_sha256, to be read by callers, written by the calls below alone. */
typedef struct kestal_sha256 {
    uint64_t m_byte_count; /**< The message's length in bytes so far. */
    uint32_t m_state[8];   /**< The chaining words. */
    uint32_t m_buffered;   /**< How many bytes wait in m_block. */
    uint8_t m_block[64];   /**< The bytes that do not fill a block yet. */
    char m_text[65];       /**< The digest in hexadecimal once it was taken, NUL-terminated; else empty. */
} kestal_sha256_t;

KESTAL_STATIC_ASSERT(offsetof(kestal_sha256_t, m_state) == 8, "SHA-256 context layout");
KESTAL_STATIC_ASSERT(offsetof(kestal_sha256_t, m_buffered) == 40, "SHA-256 context layout");
KESTAL_STATIC_ASSERT(offsetof(kestal_sha256_t, m_block) == 44, "SHA-256 context layout");
KESTAL_STATIC_ASSERT(offsetof(kestal_sha256_t, m_text) == 108, "SHA-256 context layout");

/** A new context on the heap, ready for bytes, or null when memory is short. kestal_close_sha256 releases it. */
KESTAL_API kestal_sha256_t *kestal_open_sha256(void);

/** Releases a context of kestal_open_sha256; null is let pass. Returns null. */
KESTAL_API kestal_sha256_t *kestal_close_sha256(kestal_sha256_t *context);

/** Makes a context of the caller's own ready for a new message and returns it; null gives null. */
KESTAL_API kestal_sha256_t *kestal_init_sha256(kestal_sha256_t *context);

/**
 * Adds `size` bytes to the message. However a message is split over calls, its digest is the same. Bytes pushed after
 * the digest was taken come behind the message's padding: start the next message with an init. Returns 0, or -1 when
 * the context is null, or when the data are null and `size` is not 0.
 */
KESTAL_API int32_t kestal_sha256_push(kestal_sha256_t *context, const void *data, uint64_t size);

/**
 * Adds a whole file to the message, read in chunks of 32768 bytes. Returns 0, or -1 when an argument is null, the file
 * cannot be opened, memory is short, or reading fails midway (what was read by then has been added).
 */
KESTAL_API int32_t kestal_sha256_push_file(kestal_sha256_t *context, const char *path);

/**
 * Ends the message and gives its digest: 32 bytes to `out`, unless that is null, and as the result its text of 64
 * upper-case hexadecimal digits, which lies in the context until the next init. The padding goes into the context
 * itself: asked again, it gives the same digest; begin the next message with kestal_init_sha256. Null when the context
 * is null.
 */
KESTAL_API const char *kestal_sha256_digest(kestal_sha256_t *context, uint8_t *out);

KESTAL_END_DECLS

#endif
