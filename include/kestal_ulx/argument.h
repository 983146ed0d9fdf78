/**
 * @file
 * What a process was started with: its arguments, and its environment or another one in its place, searched by the names
 * of the variables.
 *
 * The object refers to the caller's arrays, which must outlive it, and copies nothing: the texts that it gives belong to
 * them. Threads may share an object as long as nobody changes the arrays or the process's environment.
 */
#ifndef KESTAL_ULX_ARGUMENT_H
#define KESTAL_ULX_ARGUMENT_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Arguments and environment. */
typedef struct kestal_argument {
    int32_t m_argc;      /**< the number of arguments, the program's name included */
    char *const *m_argv; /**< the arguments, or null when there are none */
    char *const *m_envp; /**< "NAME=value" texts up to a null; null: the environment of the process */
} kestal_argument_t;

/**
 * An object over `argc` arguments (fewer when a null stands among them; none when `argv` is null) and the environment
 * `envp` ("NAME=value" texts, the last followed by a null; null: the environment of the process, as it is at each search).
 * Null when memory is short.
 */
KESTAL_API kestal_argument_t *kestal_open_argument(int32_t argc, char *const *argv, char *const *envp);

/** Releases an object. Returns null; null is fine. */
KESTAL_API kestal_argument_t *kestal_close_argument(kestal_argument_t *argument);

/** The number of arguments, the program's name included; 0 for null. */
KESTAL_API uint32_t kestal_count_argument(const kestal_argument_t *argument);

/** One argument, 0 being the program's name; null when there is none of that number. */
KESTAL_API const char *kestal_get_argument(const kestal_argument_t *argument, uint32_t index);

/**
 * The value of an environment variable, which may be empty; letter case matters, and of two variables of one name the
 * first counts. Null when there is none, and for a name that is null, empty or contains "=".
 */
KESTAL_API const char *kestal_search_argument_variable(const kestal_argument_t *argument, const char *name);

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(sizeof(kestal_argument_t) == 24, "layout of the arguments");
#endif

KESTAL_END_DECLS

#endif
