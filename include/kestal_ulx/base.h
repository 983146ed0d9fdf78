/**
 * @file
 * What every public header of the library stands on: export and linkage macros, and the conventions that hold for
 * every call unless its own comment says otherwise.
 *
 *  - 0 is success and -1 is failure; creators return a pointer, or null. A null handle gives the failure value.
 *  - A time-out is a signed 32-bit number of milliseconds: negative waits without limit, 0 tries once.
 *  - Sizes, offsets and tag lines are unsigned 64-bit; sizes are in bytes.
 *  - A text is a NUL-terminated byte string; a null text counts as empty wherever texts are compared or written.
 *  - A call that takes a call-site tag (name, line) has a macro beside it that fills in the tag.
 */
#ifndef KESTAL_ULX_BASE_H
#define KESTAL_ULX_BASE_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define KESTAL_API __attribute__((visibility("default")))
#else
#define KESTAL_API
#endif

#if defined(__cplusplus)
#define KESTAL_BEGIN_DECLS extern "C" {
#define KESTAL_END_DECLS }
#else
#define KESTAL_BEGIN_DECLS
#define KESTAL_END_DECLS
#endif

/** The size and layout of a public record, checked at compile time in C and in C++. */
#if defined(__cplusplus)
#define KESTAL_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define KESTAL_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

/** True on machines with 64-bit pointers: the layouts that records with pointers promise in bytes hold there. */
#define KESTAL_POINTER_IS_64_BIT (UINTPTR_MAX == UINT64_MAX)

#endif
