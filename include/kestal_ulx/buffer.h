/**
 * @file
 * Buffer queue: bytes in at the tail, out at the head, in a chain of nodes. Pushed bytes are copied, referred to where
 * they are, or adopted together with their block; they are peeked at, popped into memory, popped as a new block, or
 * popped line by line. The queue knows how many bytes it holds and how many have ever been popped.
 *
 * A queue belongs to one thread at a time. Opened with a handler it runs a service that hands every queued node to the
 * handler as soon as it arrives: then any thread may push and end, and everything else is the service's. Blocks and
 * lines popped belong to the caller, who releases them with kestal_free.
 */
#ifndef KESTAL_ULX_BUFFER_H
#define KESTAL_ULX_BUFFER_H

#include <kestal_ulx/lock.h>
#include <kestal_ulx/service.h>

KESTAL_BEGIN_DECLS

/** Buffer flag: the bytes that a node holds are overwritten with zeros before it is freed; memory referred to is not. */
#define KESTAL_BUFFER_WIPE 0x01u
/** Buffer flag: nodes point at the caller's memory, which stays the caller's and must outlive them. */
#define KESTAL_BUFFER_REFERENCE 0x02u
/** Buffer flag: nodes take over the caller's block (from kestal_alloc and its like) and free it in the end. */
#define KESTAL_BUFFER_ADOPT 0x04u
/** Buffer flag: nodes that copy are as large as the data; otherwise they have room for at least 4096 bytes. */
#define KESTAL_BUFFER_EXACT 0x08u

/** Line state: the previous byte was 0x80 or above, so the next one ends no line. Begins anew with every search. */
#define KESTAL_BUFFER_HIGH_BYTE 0x1000u
/** Line state: the last line ended with LF; a CR that follows belongs to it. */
#define KESTAL_BUFFER_LF 0x2000u
/** Line state: the last line ended with CR; a LF that follows belongs to it. */
#define KESTAL_BUFFER_CR 0x4000u
/** The input has ended. */
#define KESTAL_BUFFER_ENDED 0x8000u

/** One link of the chain: a header with its room behind it, or with the caller's memory beside it. */
typedef struct kestal_buffer_node {
    struct kestal_buffer_node *m_next; /**< the next node, or null */
    uint32_t m_flags;                  /**< the buffer's and those of the push that made it; wipe also of later ones */
    uint64_t m_capacity;               /**< room in bytes */
    uint64_t m_fill;                   /**< bytes stored */
    uint64_t m_read_position;          /**< bytes of those already taken */
    void *m_data;                      /**< the room behind this header, or the caller's memory */
} kestal_buffer_node_t;

/**
 * Called on the service's thread, without any lock held, with the context given when the buffer was opened and the
 * bytes of one node: `block` of `length` bytes, released after the call; `offset` is how many bytes had been popped
 * before them, `size` how many remained queued behind them. It may push into the buffer; it must not close it.
 */
typedef void (*kestal_buffer_handler_t)(void *context, void *block, uint64_t length, uint64_t offset, uint64_t size);

/** A buffer queue; to be read only, and changed through the calls below. */
typedef struct kestal_buffer {
    kestal_buffer_node_t *m_head;      /**< the node to pop from; null when empty */
    kestal_buffer_node_t *m_tail;      /**< the node pushed last; null when empty */
    uint32_t m_flags;                  /**< creation flags in the low byte, line state and end in the second */
    uint64_t m_unit_size;              /**< 4096: the least room of a node that copies */
    uint64_t m_offset;                 /**< bytes popped */
    uint64_t m_size;                   /**< bytes queued */
    kestal_lock_t m_lock;              /**< taken only when there is a service */
    kestal_service_t *m_service;       /**< of the handler, or null */
    void *m_handler_context;           /**< passed to the handler */
    kestal_buffer_handler_t m_handler; /**< null: none */
    kestal_buffer_node_t *m_scan_node; /**< private: where the search for a line's end goes on; null: at the head */
    uint64_t m_scan_position;          /**< private: the place in that node */
    uint64_t m_scan_length;            /**< private: bytes from the head that were searched */
    uint32_t m_scan_high_byte;         /**< private: the last of them was the first half of a double-byte character */
} kestal_buffer_t;

/**
 * Opens an empty queue. `flags` are the KESTAL_BUFFER flags (wipe, reference, adopt, exact) of every push. With a
 * `handler` (may be null) exact is set and a service starts that calls it. Returns the buffer, or null when memory is
 * short or the service cannot start.
 */
KESTAL_API kestal_buffer_t *kestal_open_buffer_ex2(uint32_t flags, kestal_buffer_handler_t handler, void *context);

/** kestal_open_buffer_ex2 without a handler. */
KESTAL_API kestal_buffer_t *kestal_open_buffer_ex(uint32_t flags);

/**
 * Stops the service, frees all nodes and the buffer. What is queued is dropped, also what the handler has not seen yet.
 * Returns null; null is fine.
 */
KESTAL_API kestal_buffer_t *kestal_close_buffer(kestal_buffer_t *buffer);

/**
 * Marks the input as ended. The creation flags and the line state go with it: later pushes copy. Text without a line
 * end stays queued. Returns 0; -1 for null.
 */
KESTAL_API int32_t kestal_end_buffer(kestal_buffer_t *buffer);

/**
 * Queues `length` bytes at `data`, or as many zero bytes when `data` is null, under the buffer's flags and `flags`
 * together (adopt wins over reference). Copied bytes fill the last node's room first.
 *
 * Returns the number of bytes queued: fewer than `length` when memory ran short, 0 for a null buffer. When 0 is returned
 * an adopted block is still the caller's.
 */
KESTAL_API uint64_t kestal_push_buffer_ex(kestal_buffer_t *buffer, const void *data, uint64_t length, uint32_t flags);

/** kestal_push_buffer_ex of a text without its terminator; null counts as empty. */
KESTAL_API uint64_t kestal_push_puts_ex(kestal_buffer_t *buffer, const char *text, uint32_t flags);

/**
 * Queues a formatted text (the formatter's grammar; at most 65,278 characters) without its terminator. Returns the
 * number of bytes queued, 0 when memory is short or the text too long. Also a buffer whose flags refer or adopt gets
 * bytes of its own.
 */
KESTAL_API uint64_t kestal_push_vprintf(kestal_buffer_t *buffer, const char *format, va_list arguments);

/** kestal_push_vprintf with the arguments in place. */
KESTAL_API uint64_t kestal_push_printf(kestal_buffer_t *buffer, const char *format, ...);

/**
 * Takes up to `length` bytes from the head into `destination`, or drops them when it is null. With `exact` other than 0
 * all or nothing is taken. Returns the number of bytes, 0 for a null buffer.
 */
KESTAL_API uint64_t kestal_pop_buffer_ex(kestal_buffer_t *buffer, void *destination, uint64_t length, int32_t exact);

/**
 * Copies up to `length` bytes that begin `offset` bytes behind the head, without taking them. With `exact` other than 0
 * all or nothing is copied. Returns the number of bytes, 0 for a null buffer or destination.
 */
KESTAL_API uint64_t kestal_peek_buffer_ex(kestal_buffer_t *buffer, void *destination, uint64_t length, uint64_t offset,
                                          int32_t exact);

/**
 * Takes up to `length` bytes as a new block without a terminator. A head node that is an adopted block of just that
 * length, still untouched, is handed over without a copy. Null when nothing is queued, when memory is short, or when
 * `exact` is other than 0 and fewer bytes are queued: then nothing is taken.
 */
KESTAL_API void *kestal_alloc_pop_buffer_ex(kestal_buffer_t *buffer, uint64_t length, int32_t exact);

/**
 * Takes the unread bytes of the first node as a new block and stores their number in `length` (may be null). Null, and
 * length 0, when nothing is queued or memory is short.
 */
KESTAL_API void *kestal_get_buffer_node(kestal_buffer_t *buffer, uint64_t *length);

/** Takes one byte: 0 to 255, or -1 when nothing is queued. */
KESTAL_API int32_t kestal_pop_buffer_uint8(kestal_buffer_t *buffer);

/** The byte that stands `offset` bytes behind the head, 0 to 255, or -1 when there is none. */
KESTAL_API int32_t kestal_peek_buffer_uint8(kestal_buffer_t *buffer, uint64_t offset);

/**
 * Takes one line as a new text without its end. CR, LF, CR LF and LF CR each end a line; a pair counts as one end also
 * when its second byte is pushed later. A byte that follows one of 0x80 or above in the same line is the second half of
 * a double-byte character and ends no line. However the bytes were split into pushes, the lines are the same.
 *
 * Null when no whole line is queued (a last line without an end stays queued, also after kestal_end_buffer) or memory is
 * short. Bytes searched once are not searched again by the next call.
 */
KESTAL_API char *kestal_pop_buffer_line(kestal_buffer_t *buffer);

/** Drops all that is queued; the offset goes up by as much. Returns the number of bytes. */
KESTAL_API uint64_t kestal_flush_buffer(kestal_buffer_t *buffer);

/** The number of bytes queued; 0 for null. */
KESTAL_API uint64_t kestal_get_buffer_size(kestal_buffer_t *buffer);

/** The number of bytes popped since the buffer was opened, or since the offset was set; 0 for null. */
KESTAL_API uint64_t kestal_get_buffer_offset(kestal_buffer_t *buffer);

/** Sets the offset to count on from. Returns it; 0 for null. */
KESTAL_API uint64_t kestal_set_buffer_offset(kestal_buffer_t *buffer, uint64_t offset);

/**
 * Queues a copy of a file's bytes: from `start` (negative: that many bytes before the end; 0 does not seek, as pipes want
 * it), at most `maximum` of them (0: all). A read error ends them as the end of the file does.
 *
 * Returns the number of bytes, INT32_MAX standing for that many and more. -1, with the cause in errno, when the file
 * cannot be opened, or when `start` cannot be reached: then the file's descriptor is left open.
 */
KESTAL_API int32_t kestal_push_buffer_from_file(kestal_buffer_t *buffer, const char *path, int64_t start,
                                                uint64_t maximum);

/**
 * A file's bytes, chosen as kestal_push_buffer_from_file does, as a new block without a terminator; their number is
 * stored in `length` (may be null). Null, and length 0, when there are none, on failure, or when memory is short.
 */
KESTAL_API void *kestal_load_file(const char *path, int64_t start, uint64_t maximum, uint64_t *length);

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(sizeof(kestal_buffer_node_t) == 48, "layout of kestal_buffer_node_t");
KESTAL_STATIC_ASSERT(offsetof(kestal_buffer_t, m_size) == 40, "layout of kestal_buffer_t");
KESTAL_STATIC_ASSERT(offsetof(kestal_buffer_t, m_lock) == 48, "layout of kestal_buffer_t");
#endif

KESTAL_END_DECLS

#endif
