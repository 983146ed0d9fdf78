/**
 * @file
 * UTF-8 (RFC 3629): texts taken apart into code points. Nothing is kept between calls; any thread may call at any time.
 */
#ifndef KESTAL_ULX_UTF8_H
#define KESTAL_ULX_UTF8_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/**
 * The first code point of a text: written through `code_point`, which may be null. Returns the bytes that it takes, 1 to 4.
 *
 * 0, and code point 0, at the end of the text, for a null text, and for what is no UTF-8: stray or missing continuation
 * bytes, forms longer than needed, surrogates, and code points above 0x10FFFF. No byte behind the NUL is read.
 */
KESTAL_API uint32_t kestal_decode_utf8(const char *text, uint32_t *code_point);

KESTAL_END_DECLS

#endif
