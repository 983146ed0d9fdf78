/**
 * @file
 * Event buffers: two byte queues that an event may carry, for input and output, and that hold back its waiting. While
 * the input buffer holds as much as its high watermark, the loop does not watch the descriptor for reading; while the
 * output buffer holds less than its low watermark (1 at the start), it does not watch for writing. The loop moves no
 * bytes: the handler receives and pushes, pops and sends.
 *
 * The buffers are the event's; they go with kestal_unassign_event. They have no lock: the calls are for the event's
 * handler, and callers on other threads take turns by means of their own. With a buffer the event's own read or write
 * flag does not count, and an event that had neither waits for its descriptor.
 *
 * A null event and one that is not assigned are reported on the error sink.
 */
#ifndef KESTAL_ULX_EVENT_BUFFER_H
#define KESTAL_ULX_EVENT_BUFFER_H

#include <kestal_ulx/event.h>

KESTAL_BEGIN_DECLS

/* Directions. */
#define KESTAL_EVENT_BUFFER_INPUT 1u  /**< what the descriptor sends us */
#define KESTAL_EVENT_BUFFER_OUTPUT 2u /**< what we send to the descriptor */

/** Makes the buffers of the directions that are not there yet. 0; -1 when one could not be made, or for a bad event. */
KESTAL_API int32_t kestal_event_enable_buffer(kestal_event_t *event, uint32_t directions);

/** Drops the buffers of the directions with what they hold. 0, or -1 for a bad event. */
KESTAL_API int32_t kestal_event_disable_buffer(kestal_event_t *event, uint32_t directions);

/**
 * Sets the input buffer's high watermark to `high` bytes (0: no limit) and the output buffer's low watermark to `low` (0:
 * always watched for writing), each if it is among the directions. 0, or -1 for a bad event.
 */
KESTAL_API int32_t kestal_event_set_buffer_watermark(kestal_event_t *event, uint32_t directions, uint64_t low,
                                                     uint64_t high);

/** The number of bytes queued in the buffers of the directions; 0 for a bad event. */
KESTAL_API uint64_t kestal_event_get_buffer_size(kestal_event_t *event, uint32_t directions);

/**
 * Appends the bytes to the buffer of each direction, which is made if need be. The sum of the bytes appended (fewer when
 * memory is short); -1 when a buffer could not be made, or for a bad event.
 */
KESTAL_API int32_t kestal_event_push_buffer(kestal_event_t *event, uint32_t directions, const void *data,
                                            uint64_t size);

/** kestal_event_push_buffer of a text without its terminator; null counts as empty. */
KESTAL_API int32_t kestal_event_push_puts(kestal_event_t *event, uint32_t directions, const char *text);

/** kestal_event_push_buffer of a formatted text (the library's formatter, at most 65,278 characters). */
KESTAL_API int32_t kestal_event_push_vprintf(kestal_event_t *event, uint32_t directions, const char *format,
                                             va_list arguments);

/** kestal_event_push_vprintf with the arguments in place. */
KESTAL_API int32_t kestal_event_push_printf(kestal_event_t *event, uint32_t directions, const char *format, ...);

/**
 * Takes up to `size` bytes from the input buffer, or, when only that direction is named, from the output buffer; null
 * as `destination` drops them. The number of bytes; -1 without a direction or a buffer, or for a bad event.
 */
KESTAL_API int32_t kestal_event_pop_buffer(kestal_event_t *event, uint32_t direction, void *destination, uint64_t size);

/** As kestal_event_pop_buffer, but copies bytes that begin `offset` bytes behind the head, and leaves them. */
KESTAL_API int32_t kestal_event_peek_buffer(kestal_event_t *event, uint32_t direction, void *destination, uint64_t size,
                                            uint64_t offset);

KESTAL_END_DECLS

#endif
