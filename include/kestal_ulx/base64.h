/**
 * @file
 * Base64 (RFC 4648), in the standard and in the URL-safe alphabet, at once or as a stream.
 *
 * A stream is one context used in one direction: open it, change its settings if need be, push input in pieces of any
 * size, push 0 bytes to mark the end, and get the output, once or as often as wanted on the way. Texts that the calls
 * return belong to the caller, who releases them with kestal_free. A context belongs to one thread at a time.
 */
#ifndef KESTAL_ULX_BASE64_H
#define KESTAL_ULX_BASE64_H

#include <kestal_ulx/base.h>

#include <kestal_ulx/buffer.h>

KESTAL_BEGIN_DECLS

/** A conversion under way. Every setting is 0 after kestal_open_base64. */
typedef struct kestal_base64 {
    uint64_t m_input_limit;         /**< The most bytes it may be fed in all; 0: no limit. */
    uint64_t m_output_limit;        /**< The most bytes of output it may hold; 0: no limit. */
    uint64_t m_line_length;         /**< Encoding: the characters of a line; 0: no lines. */
    uint32_t m_line_continuation;   /**< Encoding: a backslash stands before each newline. */
    uint32_t m_ignore_invalid;      /**< Decoding: foreign characters are skipped instead of ending the input. */
    uint32_t m_alphabet;            /**< 0: standard ("+/"), else URL-safe ("-_"). */
    uint64_t m_column;              /**< Encoding: the characters of the line so far. */
    uint32_t m_finished;            /**< 0 until the end was marked or met, or memory ran short. */
    struct kestal_buffer *m_input;  /**< Input that waits for the rest of its group, or for room in the output. */
    struct kestal_buffer *m_output; /**< Output that was not taken yet. */
} kestal_base64_t;

KESTAL_STATIC_ASSERT(offsetof(kestal_base64_t, m_line_continuation) == 24, "Base64 context layout");
KESTAL_STATIC_ASSERT(offsetof(kestal_base64_t, m_alphabet) == 32, "Base64 context layout");
KESTAL_STATIC_ASSERT(!KESTAL_POINTER_IS_64_BIT || sizeof(kestal_base64_t) == 72, "Base64 context layout");

/** A new context with all settings 0, or null when memory is short. kestal_close_base64 releases it. */
KESTAL_API kestal_base64_t *kestal_open_base64(void);

/** Releases a context with all it holds; null is let pass. Returns null. */
KESTAL_API kestal_base64_t *kestal_close_base64(kestal_base64_t *context);

/** Bounds the bytes that the context may be fed in all; 0: no bound. Returns 0, or -1 for a null context. */
KESTAL_API int32_t kestal_set_base64_input_limit(kestal_base64_t *context, uint64_t bytes);

/** Bounds the bytes of output that the context may hold at a time; 0: no bound. Returns 0, or -1 for a null context. */
KESTAL_API int32_t kestal_set_base64_output_limit(kestal_base64_t *context, uint64_t bytes);

/**
 * Encoding: breaks the output into lines of this many characters, each ended by a newline, the last one too; 0: no
 * lines. Returns 0, or -1 for a null context.
 */
KESTAL_API int32_t kestal_set_base64_line_length(kestal_base64_t *context, uint64_t characters);

/** Encoding: puts a backslash before each newline when `on` is not 0. Returns 0, or -1 for a null context. */
KESTAL_API int32_t kestal_set_base64_line_continuation(kestal_base64_t *context, uint32_t on);

/**
 * Decoding: skips characters that are neither whitespace, pad nor of the alphabet when `on` is not 0; otherwise the
 * first one ends the input. Returns 0, or -1 for a null context.
 */
KESTAL_API int32_t kestal_set_base64_ignore_invalid(kestal_base64_t *context, uint32_t on);

/** Chooses the alphabet: 0 standard ("+" and "/"), else URL-safe ("-" and "_"). Returns 0, or -1 for a null context. */
KESTAL_API int32_t kestal_set_base64_alphabet(kestal_base64_t *context, uint32_t url_safe);

/**
 * Encodes `size` bytes behind those pushed before; a size of 0 marks the end, which pads the last group. Returns 0; or
 * -1 when the context is null, the data are null and `size` is not 0, data come after the end, at a limit, or when
 * memory is short:
 *  - where the input limit would be exceeded, nothing of this push is taken;
 *  - where the output has no room for 4 more characters (newlines do not ask for any), the push is taken all the same,
 *    and its rest waits: get the output and go on with the next push, or mark the end again until that returns 0;
 *  - when memory ran short, the conversion is lost: all further calls but kestal_close_base64 fail.
 */
KESTAL_API int32_t kestal_push_encode_base64(kestal_base64_t *context, const void *data, uint64_t size);

/**
 * Decodes `size` characters behind those pushed before; a size of 0 marks the end, which decodes an incomplete group
 * as if it were padded. Whitespace is skipped; a pad ends its group. A foreign character (a byte above 127 too) ends the
 * input unless foreign characters are ignored; what comes after the end is dropped. Returns 0 or -1 as
 * kestal_push_encode_base64 does, except that data after the end are no failure; a group needs room for 3 bytes.
 */
KESTAL_API int32_t kestal_push_decode_base64(kestal_base64_t *context, const void *data, uint64_t size);

/**
 * Takes all output produced so far as a new NUL-terminated block, empty when there is none; its length without the
 * terminator goes to `out_size`, which may be null. Null, and length 0, when the context is null, memory is short (the
 * output then stays), or was in a push.
 */
KESTAL_API char *kestal_get_base64(kestal_base64_t *context, uint64_t *out_size);

/**
 * Encodes `size` bytes at once, in the standard alphabet without lines. Returns a new NUL-terminated text, its length
 * in `out_size` (which may be null); null when the data are null and `size` is not 0, or memory is short.
 */
KESTAL_API char *kestal_encode_base64(const void *data, uint64_t size, uint64_t *out_size);

/**
 * Decodes `size` characters at once, in the standard alphabet, up to the first foreign one. Returns and fails as
 * kestal_encode_base64; the block is NUL-terminated for texts' sake, and `out_size` tells its length for all else.
 */
KESTAL_API char *kestal_decode_base64(const char *text, uint64_t size, uint64_t *out_size);

KESTAL_END_DECLS

#endif
