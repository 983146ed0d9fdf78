/**
 * @file
 * The terminal that the program speaks to. Every function may be called from any thread.
 */
#ifndef KESTAL_ULX_TERMINAL_H
#define KESTAL_ULX_TERMINAL_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/**
 * The size of the terminal behind a descriptor, in character cells. 0, or -1 when the descriptor is no terminal or does
 * not know its size; then nothing is stored. Each pointer may be null.
 */
KESTAL_API int32_t kestal_get_terminal_size(int32_t descriptor, uint32_t *columns, uint32_t *rows);

/**
 * The number of columns of the program's terminal: the first of standard output, standard error and standard input
 * that knows its size, else 80.
 */
KESTAL_API uint32_t kestal_get_terminal_columns(void);

KESTAL_END_DECLS

#endif
