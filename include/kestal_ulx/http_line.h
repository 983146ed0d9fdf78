/**
 * @file
 * One line of the head of an HTTP message: what kind it is of, and the texts and numbers in it. Lines are made and
 * released by the parser (http_parser.h) that they belong to.
 */
#ifndef KESTAL_ULX_HTTP_LINE_H
#define KESTAL_ULX_HTTP_LINE_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/* Types of a node. */
#define KESTAL_HTTP_NODE_LINE UINT32_C(0)              /**< not classified yet */
#define KESTAL_HTTP_NODE_END UINT32_C(1)               /**< the empty line that ends the head */
#define KESTAL_HTTP_NODE_REQUEST UINT32_C(2)           /**< request line */
#define KESTAL_HTTP_NODE_STATUS UINT32_C(3)            /**< status line */
#define KESTAL_HTTP_NODE_FIELD UINT32_C(4)             /**< header field */
#define KESTAL_HTTP_NODE_CONTINUATION UINT32_C(0x1000) /**< folded line; joined to the line before, never kept */
#define KESTAL_HTTP_NODE_UNKNOWN UINT32_C(0x8000)      /**< none of these */

/** A line of a head, as an element of a list. */
typedef struct kestal_http_node kestal_http_node_t;

/**
 * One line. Texts that are not set are null. To change a text, release it with kestal_free and put a new one, from
 * kestal_strdup and its like, in its place: it goes with the node.
 */
struct kestal_http_node {
    kestal_http_node_t *m_previous; /**< the line above */
    kestal_http_node_t *m_next;     /**< the line below */
    uint32_t m_type;                /**< KESTAL_HTTP_NODE_ value */
    uint64_t m_size;                /**< bytes of the line from m_start on, without the terminator */
    char *m_start;                  /**< the line, in m_line */
    char *m_extra;                  /**< what follows the part that was understood; in m_line too */
    char *m_text1;                  /**< field name; request method; protocol of a status line ("HTTP") */
    char *m_text2;                  /**< field value; request URI; protocol version of a status line ("1.1") */
    char *m_text3;                  /**< protocol of a request line; the three digits of a status code */
    char *m_text4;                  /**< protocol version of a request line; reason phrase */
    uint32_t m_major;               /**< major version */
    uint32_t m_minor;               /**< minor version */
    uint32_t m_status_code;         /**< the status code as a number */
    char m_line[4];                 /**< the characters, as many as there are, and a terminator */
};

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(offsetof(kestal_http_node_t, m_size) == 24, "the length stands behind the type");
KESTAL_STATIC_ASSERT(offsetof(kestal_http_node_t, m_major) == 80, "the numbers stand behind the four texts");
#endif

KESTAL_END_DECLS

#endif
