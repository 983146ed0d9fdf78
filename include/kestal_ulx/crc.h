/**
 * @file
 * Cyclic redundancy checks: CRC-16 in two variants, CRC-32 (IEEE 802.3) and CRC-64 (ISO 3309).
 *
 * All take the bytes least significant bit first. Each call continues from the value it is given, so that a message may
 * be checked in pieces: pass the result of one piece to the next. The calls keep no state: any thread may make them.
 */
#ifndef KESTAL_ULX_CRC_H
#define KESTAL_ULX_CRC_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/**
 * CRC-16/ARC, polynomial 0x8005, over `size` bytes from the register `crc`, 0 at first. Nothing is complemented and
 * `raw` is ignored. Null data give `crc` back.
 */
KESTAL_API uint16_t kestal_crc16_ibm(int32_t raw, uint16_t crc, const void *data, uint64_t size);

/**
 * CRC-16/KERMIT, polynomial 0x1021 taken in reflected form, over `size` bytes from the register `crc`, 0 at first.
 * Nothing is complemented and `raw` is ignored. It is not the unreflected XMODEM form. Null data give `crc` back.
 */
KESTAL_API uint16_t kestal_crc16_ccitt(int32_t raw, uint16_t crc, const void *data, uint64_t size);

/**
 * The CRC-32 of Ethernet, gzip and zip, polynomial 0x04C11DB7, over `size` bytes. With `raw` 0 `crc` is the result so
 * far, 0 at first; with `raw` set it is the register itself. The result is complemented either way, so that a result
 * continues with `raw` 0. Null data give `crc` back.
 */
KESTAL_API uint32_t kestal_crc32_ieee_802_3(int32_t raw, uint32_t crc, const void *data, uint64_t size);

/**
 * CRC-64/GO-ISO, polynomial 0x1B, over `size` bytes; `raw` and `crc` as with kestal_crc32_ieee_802_3. Null data give
 * `crc` back.
 */
KESTAL_API uint64_t kestal_crc64_iso(int32_t raw, uint64_t crc, const void *data, uint64_t size);

KESTAL_END_DECLS

#endif
