/**
 * @file
 * Percent encoding of RFC 3986 for URIs, and of HTML forms, where a blank travels as "+".
 *
 * Every call gives a new text that belongs to the caller (release it with kestal_free), or null when the text given is
 * null or memory is short. Any thread may call.
 */
#ifndef KESTAL_ULX_PERCENT_H
#define KESTAL_ULX_PERCENT_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Percent flag: as in form bodies, a blank is written "+", and "+" is read as a blank. */
#define KESTAL_PERCENT_FORM 0x01u

/**
 * Encodes a text: ASCII letters, digits, "-", ".", "_", "~" and the characters of `keep` (null: none) stay; every other
 * byte, those from 0x80 included, becomes "%" and two upper-case hexadecimal digits. With KESTAL_PERCENT_FORM a blank
 * becomes "+", also when `keep` names it.
 */
KESTAL_API char *kestal_encode_percent_string_ex(const char *text, uint32_t flags, const char *keep);

/** kestal_encode_percent_string_ex with flags 0 and nothing else kept. */
KESTAL_API char *kestal_encode_percent_string(const char *text);

/**
 * Decodes a text: "%" and one or two hexadecimal digits, of either case, become the byte of that value; a "%" without a
 * digit stays; with KESTAL_PERCENT_FORM "+" becomes a blank. A decoded zero byte ends the text.
 */
KESTAL_API char *kestal_decode_percent_string_ex(const char *text, uint32_t flags);

/** kestal_decode_percent_string_ex with flags 0. */
KESTAL_API char *kestal_decode_percent_string(const char *text);

KESTAL_END_DECLS

#endif
