/**
 * @file
 * HTTP message parser: the head of a request or response (RFC 9112, kept liberal), pushed in pieces of any size as they
 * arrive. Each line becomes a node; folded lines are joined; once the empty line is there every line is classified as
 * the request line, the status line or a field, and may be looked up, changed and written out again. Bodies are not
 * kept: push tells how many bytes belonged to the head, and the caller goes on in its own data from there.
 *
 * A parser is the caller's record or one from kestal_new_http_parser; it owns its nodes and their texts until it is
 * reset or destroyed. It has no lock: one thread at a time. There is no limit to a head's length: whoever reads from
 * strangers counts what it has pushed.
 *
 *     int64_t taken = kestal_push_http_parser(parser, data, size);
 *     if ((parser->m_flags & KESTAL_HTTP_PARSER_COMPLETE) != 0)
 *         begin_body(kestal_http_parser_get_field(parser, "Content-Length"), data + taken, size - taken);
 */
#ifndef KESTAL_ULX_HTTP_PARSER_H
#define KESTAL_ULX_HTTP_PARSER_H

#include <kestal_ulx/buffer.h>
#include <kestal_ulx/http_line.h>

KESTAL_BEGIN_DECLS

/* Flags of a parser. */
#define KESTAL_HTTP_PARSER_COMPLETE UINT32_C(0x0001)    /**< the empty line has been seen */
#define KESTAL_HTTP_PARSER_ERROR UINT32_C(0x0008)       /**< something failed since the last reset */
#define KESTAL_HTTP_PARSER_INITIALIZED UINT32_C(0x0080) /**< from init to destroy */
#define KESTAL_HTTP_PARSER_ALLOCATED UINT32_C(0x0100)   /**< from kestal_new_http_parser */
#define KESTAL_HTTP_PARSER_VERBOSE UINT32_C(0x8000)     /**< traces; set by the caller, right in m_flags, after init */

/** A parser. To be read, but for the verbose flag and the nodes' texts. */
typedef struct kestal_http_parser {
    void *m_owner[2];           /**< the owner's, neither read nor written here */
    uint32_t m_flags;           /**< KESTAL_HTTP_PARSER_ bits */
    kestal_buffer_t *m_input;   /**< bytes of the line that is not complete yet; null without a head under way */
    kestal_http_node_t *m_head; /**< the first line; null: none yet */
    kestal_http_node_t *m_tail; /**< the last line */
    char *m_output;             /**< the text that kestal_get_output_http_parser made last */
    uint64_t m_output_size;     /**< its length in bytes */
} kestal_http_parser_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(sizeof(kestal_http_parser_t) == 64, "owner, flags, input, head, tail, output, its length");
#endif

/* --- life. Every call but init wants an initialised parser; a null one gives -1 or null unless it says otherwise. */

/** A new parser, or null when memory is short. */
KESTAL_API kestal_http_parser_t *kestal_new_http_parser(void);

/** Prepares the caller's record, but for m_owner, and returns it. Null for null. */
KESTAL_API kestal_http_parser_t *kestal_init_http_parser(kestal_http_parser_t *parser);

/**
 * Resets the parser, ends its validity, and releases it when it came from kestal_new_http_parser. 0, also for null and
 * for one that is not initialised.
 */
KESTAL_API int32_t kestal_destroy_http_parser(kestal_http_parser_t *parser);

/** kestal_destroy_http_parser under its other name. */
KESTAL_API int32_t kestal_free_http_parser(kestal_http_parser_t *parser);

/** Drops all lines and the output text, clears the flags complete and error: ready for a new message. 0, or -1. */
KESTAL_API int32_t kestal_reset_http_parser(kestal_http_parser_t *parser);

/* --- input */

/**
 * Takes in the next `size` bytes. CR, LF, CR LF and LF CR each end a line, as in kestal_pop_buffer_line; what follows a
 * zero byte in a line is left out. A line that begins with blanks goes on from the line before, its leading blanks left
 * out and nothing put in between.
 *
 * Returns how many of these bytes belonged to the head: `size` until it is complete; with the bytes that complete it
 * those up to and including the empty line's end (a LF that arrives after its CR in a push of its own is no longer
 * one); 0 from then on. -1, with the error flag, for null data, when memory for the partial line is short, and for a
 * parser that is not initialised. A line or text that finds no memory is left out, which only the error flag tells.
 */
KESTAL_API int64_t kestal_push_http_parser(kestal_http_parser_t *parser, const void *data, uint64_t size);

/** Pushes a formatted text. Returns as kestal_push_http_parser; -1, with the error flag, also when formatting failed. */
KESTAL_API int64_t kestal_push_vprintf_http_parser(kestal_http_parser_t *parser, const char *format, va_list list);

/** kestal_push_vprintf_http_parser with the arguments themselves. */
KESTAL_API int64_t kestal_push_printf_http_parser(kestal_http_parser_t *parser, const char *format, ...);

/* --- output */

/**
 * The head as a text: start line and fields as their texts stand now, each line with CR LF, then the empty line.
 * Lines that are not classified and the extra text of a request line are left out, so that an incomplete head is only
 * the empty line. The text is the parser's and lasts until the next call or reset; its length without the terminator
 * goes to `size` (may be null). Null, and length 0, when memory is short.
 */
KESTAL_API const char *kestal_get_output_http_parser(kestal_http_parser_t *parser, uint64_t *size);

/* --- look-ups, of a head that is complete */

/**
 * The first field from `first` on (itself included) whose name is `name` without regard to the case of ASCII letters.
 * Pass the m_next of the last result to go on. Null when there is none; a null name counts as empty.
 */
KESTAL_API kestal_http_node_t *kestal_search_http_parser(const kestal_http_node_t *first, const char *name);

/** The first node from `first` on of a type (KESTAL_HTTP_NODE_ value), or null. */
KESTAL_API kestal_http_node_t *kestal_search_http_parser_by_type(const kestal_http_node_t *first, uint32_t type);

/** The start line, a request or status line, or null. */
KESTAL_API kestal_http_node_t *kestal_http_parser_get_header_node(const kestal_http_parser_t *parser);

/** The start line's type, KESTAL_HTTP_NODE_REQUEST or KESTAL_HTTP_NODE_STATUS; 0 without one, and for null. */
KESTAL_API uint32_t kestal_http_parser_get_header_type(const kestal_http_parser_t *parser);

/** The method of the request line, or null. */
KESTAL_API const char *kestal_http_parser_get_method(const kestal_http_parser_t *parser);

/** The URI of the request line, as it was written, or null. */
KESTAL_API const char *kestal_http_parser_get_request_uri(const kestal_http_parser_t *parser);

/** The status code of the status line; 0 without one, and for null. */
KESTAL_API uint32_t kestal_http_parser_get_status_code(const kestal_http_parser_t *parser);

/**
 * Stores the start line's version (1 and 1 for "HTTP/1.1", 0 and 9 for a line without one), or zeros, to `major` and
 * `minor` (each may be null). Returns -1 always, also when it found one: go by what it stored.
 */
KESTAL_API int32_t kestal_http_parser_get_version(const kestal_http_parser_t *parser, uint32_t *major, uint32_t *minor);

/** The value of the first field of that name (letter case ignored), or null. */
KESTAL_API const char *kestal_http_parser_get_field(const kestal_http_parser_t *parser, const char *name);

KESTAL_END_DECLS

#endif
