/**
 * @file
 * The library's version: that of the header an application was compiled with, and that of the library it runs with.
 */
#ifndef KESTAL_ULX_VERSION_H
#define KESTAL_ULX_VERSION_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** The version of this header. */
#define KESTAL_ULX_VERSION_STRING "0.0.1"

/** The version of the library at run time, as "major.minor.patch". A static text. */
KESTAL_API const char *kestal_get_ulx_version_string(void);

KESTAL_END_DECLS

#endif
