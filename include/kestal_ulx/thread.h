/**
 * @file
 * Detached threads, and the process-wide pool of workers that can be kept for later jobs.
 *
 * A job is a function and its argument; whoever starts it does not wait for it and gets no handle. The pool is off
 * until kestal_set_thread_pool turns it on; idle workers are kept only while some job runs: when the last one ends,
 * they end too. What a job's argument points to is the caller's and must live until the job is done with it.
 */
#ifndef KESTAL_ULX_THREAD_H
#define KESTAL_ULX_THREAD_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** A job: called once, on a thread of its own. */
typedef void (*kestal_thread_function_t)(void *argument);

/* The calls with the call site filled in as the tag: the ones to use. */
/** kestal_detached_thread_ex_tag with the caller's name and line. */
#define kestal_detached_thread_ex(function, argument, stack_size)                                                      \
    kestal_detached_thread_ex_tag((function), (argument), (stack_size), __func__, __LINE__)
/** kestal_detached_thread_ex_tag with the usual stack size, the caller's name and line. */
#define kestal_detached_thread(function, argument)                                                                     \
    kestal_detached_thread_ex_tag((function), (argument), 0, __func__, __LINE__)

/**
 * Runs function(argument) on another thread: an idle worker of the pool that has this stack size, or a new thread.
 * `stack_size` is in bytes, 0 for the system's default. Returns 0, or -1 when `function` is null or no thread could be
 * made; a job that could not be started is not called. The job runs with the signal mask of its worker's creator.
 */
KESTAL_API int32_t kestal_detached_thread_ex_tag(kestal_thread_function_t function, void *argument, uint64_t stack_size,
                                                 const char *name, uint64_t line);

/**
 * Sets the pool up. `ready_target`: starting a job adds one idle worker as long as running jobs and idle workers
 * together are fewer. `ready_limit`: a worker that finds this many idle ones when its job is done ends; 0 means no
 * limit. Both 0, the start value, turn the pool off: every job has a thread of its own. Returns 0.
 */
KESTAL_API int32_t kestal_set_thread_pool(uint64_t ready_target, uint64_t ready_limit);

/**
 * The number of threads that are alive for jobs, idle ones included. Stored, where the pointer is not null: the running
 * jobs, the idle workers, and the largest number of threads ever alive.
 */
KESTAL_API uint64_t kestal_get_thread_count(uint64_t *active, uint64_t *ready, uint64_t *max);

/**
 * Waits until at most `count` threads remain, looking every 10 ms. `timeout` in milliseconds, negative: no limit.
 * With `verbose` non-zero, a time-out, and a wait of more than a minute, are reported on the error sink.
 * Returns 0, or -1 when the time was up.
 */
KESTAL_API int32_t kestal_thread_pool_wait_ex(uint64_t count, int32_t timeout, int32_t verbose);

/** Waits, quietly, until no thread remains: kestal_thread_pool_wait_ex(0, timeout, 0). For the end of a program. */
KESTAL_API int32_t kestal_thread_pool_wait(int32_t timeout);

/** The calling thread's id (pthread_self). */
KESTAL_API uint64_t kestal_get_thread_id(void);

KESTAL_END_DECLS

#endif
