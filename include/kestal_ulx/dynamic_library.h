/**
 * @file
 * Shared objects at run time: opened through a search path, asked for names, closed. A thin room over the system's
 * dynamic loader, which counts: every open of one library gives the same handle and needs a close of its own.
 *
 * Any thread may call. Opening runs the library's constructors and the last close its destructors, in the caller's
 * thread.
 */
#ifndef KESTAL_ULX_DYNAMIC_LIBRARY_H
#define KESTAL_ULX_DYNAMIC_LIBRARY_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Resolve functions at their first call. */
#define KESTAL_DYNAMIC_LIBRARY_LAZY UINT32_C(0x01)
/** Resolve all at once: a library that lacks something fails to open. Wins over lazy; taken when neither is given. */
#define KESTAL_DYNAMIC_LIBRARY_NOW UINT32_C(0x02)
/** Keep the library's names to itself: the default. */
#define KESTAL_DYNAMIC_LIBRARY_LOCAL UINT32_C(0x10)
/** Offer the library's names to libraries opened later. Wins over local. */
#define KESTAL_DYNAMIC_LIBRARY_GLOBAL UINT32_C(0x20)

/**
 * Opens a library. A path with a "/" is opened as it stands. A bare name is tried in each directory of `search_path`
 * (parted by ":"; may be null), in order, then as the system's loader itself finds it. A null or empty path is the
 * running program. `flags` are KESTAL_DYNAMIC_LIBRARY_...
 *
 * Returns the handle, or null. A file that is found but does not load does not end the search.
 */
KESTAL_API void *kestal_open_dynamic_library(const char *path, const char *search_path, uint32_t flags);

/**
 * kestal_open_dynamic_library that says why: `error` (of `error_size` bytes, may be null) receives the loader's text,
 * cut to fit, or the empty text on success. When a file of that name was found and did not load, the text is about
 * the first such file.
 */
KESTAL_API void *kestal_open_dynamic_library_ex(const char *path, const char *search_path, uint32_t flags, char *error,
                                                uint64_t error_size);

/** The address of a name that the library (or one that it needs) defines, or null. Null arguments give null. */
KESTAL_API void *kestal_import_dynamic_library(void *library, const char *name);

/** Gives one open of a library back; the last unloads it. Null is ignored. Returns null. */
KESTAL_API void *kestal_close_dynamic_library(void *library);

KESTAL_END_DECLS

#endif
