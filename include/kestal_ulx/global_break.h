/**
 * @file
 * Global break: one process-wide flag that asks every loop of the library to stop. Any thread, and a signal handler,
 * may set, clear and read it.
 */
#ifndef KESTAL_ULX_GLOBAL_BREAK_H
#define KESTAL_ULX_GLOBAL_BREAK_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Asks all loops to stop. Returns 0. */
KESTAL_API int32_t kestal_set_global_break(void);

/** Takes the request back. Returns 0. */
KESTAL_API int32_t kestal_clear_global_break(void);

/** 1 when loops are to stop, else 0 (at first). */
KESTAL_API uint32_t kestal_get_global_break(void);

KESTAL_END_DECLS

#endif
