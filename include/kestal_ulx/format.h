/**
 * @file
 * The library's own formatter, and texts formatted into new blocks. The formatter allocates nothing, depends on no
 * locale and may be called from any thread. Its grammar looks like the C runtime's and differs from it on purpose:
 *
 *     % [#] [-] [.] [0] [width | *] [. digits] [l | ll] conversion
 *
 *  - Each part is optional and stands in this order; "#" is ignored. "l" and "ll" alike mean a 64-bit argument, none a
 *    32-bit one: a uint64_t is "%lu" on every machine. There is no "h", "z", "+" or blank flag.
 *  - d i u o x X: "0" fills with zeros (also together with "-"), "-" pads on the right. There is no precision: a point
 *    right after the "%" only makes the digits the width ("%.3d" of 5 is "  5"); a later one is ignored.
 *  - s: the width is a minimum. With the point right after the "%" the text is also cut to the width: "%.5s" of "ab" is
 *    "   ab", and "%.*s" reads no byte behind its length. A later precision is ignored. Null prints "(null)".
 *  - c: one character, whatever the width.
 *  - p P: the pointer as 16 hexadecimal digits.
 *  - f: "%.Nf" has N digits after the point, "%W.Nf" pads the integer part to W, "%Wf" prints no fraction, "%f" six
 *    digits. "%lf" takes a long double; "%llf" takes and prints nothing. NaN and infinities print "nan", "inf", "-inf".
 *    Halves round away from zero, in double arithmetic: the last digit may be one off the C runtime's.
 *  - "*" takes a signed 32-bit width; a negative one means "-" with its absolute value.
 *  - "%%" is "%"; any other conversion prints its own character and takes no argument.
 */
#ifndef KESTAL_ULX_FORMAT_H
#define KESTAL_ULX_FORMAT_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** The longest text, in characters, that the allocating calls produce; a longer one gives null. */
#define KESTAL_ALLOC_FORMAT_LIMIT 65278

/**
 * Formats into `buffer` of `size` bytes and ends the text with a NUL; what does not fit is left out silently.
 * Returns the number of characters stored, without the NUL: never more than size - 1, and never what a larger buffer
 * would have held. With a size of 0 or a null buffer nothing is stored and 0 returned; a null format is empty. The list
 * is used up, here as in every call that takes one: va_copy it to use it again.
 */
KESTAL_API uint64_t kestal_vsnprintf(char *buffer, uint64_t size, const char *format, va_list list);

/** kestal_vsnprintf with the arguments themselves. */
KESTAL_API uint64_t kestal_snprintf(char *buffer, uint64_t size, const char *format, ...);

/** kestal_vsnprintf without a limit: the caller knows that the text fits. */
KESTAL_API uint64_t kestal_vsprintf(char *buffer, const char *format, va_list list);

/** kestal_vsprintf with the arguments themselves. */
KESTAL_API uint64_t kestal_sprintf(char *buffer, const char *format, ...);

/**
 * Formats into a new block of the exact size, to be released with kestal_free. Null for a null format, when memory is
 * short, and for a text of more than KESTAL_ALLOC_FORMAT_LIMIT characters.
 */
KESTAL_API char *kestal_alloc_vsprintf(const char *format, va_list list);

/** kestal_alloc_vsprintf with the arguments themselves. */
KESTAL_API char *kestal_alloc_sprintf(const char *format, ...);

/**
 * A newly formatted text in the place of `old`: formats first (the arguments may point into the old text), then
 * releases `old`, which may be null. The old text is released also when null is returned.
 */
KESTAL_API char *kestal_realloc_vsprintf(char *old, const char *format, va_list list);

/** kestal_realloc_vsprintf with the arguments themselves. */
KESTAL_API char *kestal_realloc_sprintf(char *old, const char *format, ...);

KESTAL_END_DECLS

#endif
