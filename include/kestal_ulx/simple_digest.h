/**
 * @file
 * Digests of whole stream sources: a file, or any location that a stream context opens, read to its end into a digest
 * context of the caller's. The digest is then taken with the digest's own call.
 *
 * The caller owns the digest context; the stream lives during the call only. Any thread may call.
 */
#ifndef KESTAL_ULX_SIMPLE_DIGEST_H
#define KESTAL_ULX_SIMPLE_DIGEST_H

#include <kestal_ulx/base.h>
#include <kestal_ulx/md5.h>
#include <kestal_ulx/sha1.h>
#include <kestal_ulx/sha256.h>

KESTAL_BEGIN_DECLS

/**
 * Initialises `context` and adds the bytes of the stream `source`, opened with mode "rb", up to its end. A null context
 * only drains the stream. Returns 0, or -1 when the source cannot be opened, memory is short, reading fails, or the
 * stream has nothing to read and more than 60 s have passed since the call began.
 */
KESTAL_API int32_t kestal_simple_md5(const char *source, kestal_md5_t *context);

/** As kestal_simple_md5, for SHA-1. */
KESTAL_API int32_t kestal_simple_sha1(const char *source, kestal_sha1_t *context);

/** As kestal_simple_md5, for SHA-256. */
KESTAL_API int32_t kestal_simple_sha256(const char *source, kestal_sha256_t *context);

KESTAL_END_DECLS

#endif
