/**
 * @file
 * Destroy stack: what is to be undone, collected step by step and undone from the last step to the first. A stack is
 * named by the pointer to its top node; null is the empty stack. It belongs to the caller, one thread at a time.
 *
 *     kestal_destroy_stack_t *undo = NULL;
 *     undo = kestal_add_destroy_stack(undo, close_device, device);
 *     undo = kestal_add_destroy_stack(undo, NULL, block);         // null: the block is released
 *     ...
 *     kestal_call_destroy_stack(undo);                            // releases the block, closes the device
 *     kestal_free_destroy_stack(undo);
 */
#ifndef KESTAL_ULX_DESTROY_STACK_H
#define KESTAL_ULX_DESTROY_STACK_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Undoes one step: receives the argument, and what it returns is the argument of the next call of the stack. */
typedef void *(*kestal_destructor_t)(void *argument);

/** One step to undo. */
typedef struct kestal_destroy_stack {
    struct kestal_destroy_stack *m_next; /**< the step below, done before; null at the bottom */
    kestal_destructor_t m_destructor;    /**< null: the argument is a block to release */
    void *m_argument;                    /**< what the destructor is called with */
} kestal_destroy_stack_t;

/**
 * Puts a step on top and returns the new top. With a null destructor the argument is a block of kestal_alloc (or
 * null), to be released. When memory is short the old top is returned and the step is not on the stack: compare, where
 * that matters.
 */
KESTAL_API kestal_destroy_stack_t *kestal_add_destroy_stack(kestal_destroy_stack_t *top, kestal_destructor_t destructor,
                                                            void *argument);

/**
 * Undoes all steps from the top down and stores each result over its argument (null for a released block), so that a
 * second call passes what the first one returned. The nodes stay. Returns 0.
 */
KESTAL_API int32_t kestal_call_destroy_stack(kestal_destroy_stack_t *top);

/** Releases all nodes; calls no destructor and leaves the arguments alone. Returns 0. */
KESTAL_API int32_t kestal_free_destroy_stack(kestal_destroy_stack_t *top);

KESTAL_END_DECLS

#endif
