/**
 * @file
 * Colour interfaces: 32-bit codes that name pixel formats, and the conversion of colours between any two of them.
 *
 * A code has four 8-bit fields. The lowest describes the least significant bits of a pixel's value, each further one the
 * next higher bits. A field's high nibble is its component (0 padding, 1 alpha, 2 palette index of 2 and 4 bits, 3 grey,
 * 4 red, 5 green, 6 blue, 7 luma, 8 blue difference, 9 red difference, 15 palette index of 8 bits), its low nibble the
 * component's width in bits; width 0 is no field. So formats that have no name below can be put together from fields.
 *
 * All calls are pure: any thread may make them at any time.
 */
#ifndef KESTAL_ULX_COLOR_H
#define KESTAL_ULX_COLOR_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** 32 bits: alpha, red, green, blue of 8 bits each, from the most significant on. */
#define KESTAL_COLOR_ARGB8888 UINT32_C(0x18485868)
/** 32 bits: 8 unused, then red, green, blue. */
#define KESTAL_COLOR_DRGB8888 UINT32_C(0x08485868)
/** 24 bits: red, green, blue. */
#define KESTAL_COLOR_DRGB0888 UINT32_C(0x00485868)
/** 32 bits: alpha, blue, green, red. */
#define KESTAL_COLOR_ABGR8888 UINT32_C(0x18685848)
/** 24 bits: blue, green, red. */
#define KESTAL_COLOR_DBGR0888 UINT32_C(0x00685848)
/** 16 bits: 5 of red, 6 of green, 5 of blue. */
#define KESTAL_COLOR_DRGB0565 UINT32_C(0x00455665)
/** 8 bits: 2 of red, 3 of green, 3 of blue. */
#define KESTAL_COLOR_DRGB0233 UINT32_C(0x00425363)
/** 8 bits: an index into the palette. */
#define KESTAL_COLOR_DDDP0008 UINT32_C(0x000000F8)
/** 4 bits: an index into the palette's first 16 entries. */
#define KESTAL_COLOR_PPPP1111 UINT32_C(0x21212121)
/** 2 bits: an index into the palette's first 4 entries. */
#define KESTAL_COLOR_DDPP0011 UINT32_C(0x00002121)
/** 1 bit: black or white. */
#define KESTAL_COLOR_DDDG0001 UINT32_C(0x00000031)

/** The bytes that a colour interface's name takes, its NUL included. */
#define KESTAL_COLOR_INTERFACE_NAME_SIZE 9

/** The bits that a pixel of the format takes: the sum of the fields' widths. 0 for code 0. */
KESTAL_API uint32_t kestal_color_interface_to_bits_per_pixel(uint32_t code);

/**
 * The usual format of a device with so many bits per pixel: 32 ARGB8888, 24 dRGB0888, 16 dRGB0565, 8 dddp0008 (a palette),
 * 4 PPPP1111, 2 ddPP0011, 1 dddg0001. 0 for any other number.
 */
KESTAL_API uint32_t kestal_bits_per_pixel_to_color_interface(uint32_t bits);

/**
 * Writes the format's name and a NUL, such as "ARGB8888", into `buffer` of at least KESTAL_COLOR_INTERFACE_NAME_SIZE bytes:
 * the components' letters and then their widths, each from the most significant field on. A width above 9 is written as
 * the letter that stands that far behind A: 10 is K. Returns the buffer; a null buffer gives null.
 */
KESTAL_API char *kestal_color_interface_name(char *buffer, uint32_t code);

/**
 * The colour `value` of the format `source` in the format `target`. Equal formats give the value as it is.
 *
 * Components are cut to the target's width and padded with zero bits (white of dRGB0565 is 0xFFF8FCF8 in ARGB8888); one
 * that the source lacks is 0, or 255 for alpha. Between RGB and YUV the channels are recomputed in fixed point and wrap at
 * 8 bits; blue from YUV is computed from the luma alone. From dRGB0565 to dRGB0233 the result has dRGB0233's bits of the
 * value's low byte each in the place of its 8-bit channel.
 *
 * A colour of a palette format is looked up in the library's palette: 0-15 the colours of a terminal (black, red, green,
 * yellow, blue, magenta, cyan, light grey, then dark grey and the bright ones), 16-231 a cube of 16 + 36 red + 6 green +
 * blue with the levels 0, 95, 135, 175, 215, 255, and 232-255 greys from 8 in steps of 10. Nothing is searched the other
 * way: to a palette format and to dddg0001 every RGB colour becomes 0. Who draws in palette format picks indexes.
 */
KESTAL_API uint32_t kestal_convert_color(uint32_t target, uint32_t source, uint32_t value);

KESTAL_END_DECLS

#endif
