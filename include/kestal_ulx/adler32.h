/**
 * @file
 * The Adler-32 checksum of zlib streams (RFC 1950).
 *
 * A call continues from the value it is given, so that a message may be checked in pieces. It keeps no state: any thread
 * may make it.
 */
#ifndef KESTAL_ULX_ADLER32_H
#define KESTAL_ULX_ADLER32_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/**
 * The Adler-32 of `size` bytes behind those that gave `adler`, which is 1 at first. Null data, or a size of 0, give
 * `adler` back.
 */
KESTAL_API uint32_t kestal_update_adler32(uint32_t adler, const void *data, uint64_t size);

KESTAL_END_DECLS

#endif
