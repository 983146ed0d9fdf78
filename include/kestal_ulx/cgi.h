/**
 * @file
 * CGI programs (CGI/1.1, RFC 3875): one object reads one request from the environment and standard input, checks its
 * credentials against accounts, and writes the answer to standard output.
 *
 *     kestal_cgi_t *cgi = kestal_open_cgi(argc, argv, NULL);
 *     kestal_cgi_add_account(cgi, "name", "password");
 *     if (kestal_cgi_incoming(cgi) == 0 && kestal_cgi_digest_check(cgi) == 0) {
 *         kestal_cgi_set_response_header(cgi, "Content-Type", "text/plain");
 *         kestal_push_puts_ex(cgi->m_output, "Hello\n", 0);
 *     }
 *     kestal_cgi_outgoing(cgi); // an answer of status 401 when the check refused
 *     kestal_close_cgi(cgi);
 *
 * WARNING: as long as nothing else is asked for, kestal_cgi_digest_check ACCEPTS ANY BASIC CREDENTIALS that decode and
 * split into name and password, whatever the accounts are; only Digest credentials are compared with them. Call
 * kestal_cgi_set_basic_check(cgi, 1) to have Basic ones compared too.
 *
 * The object owns what it holds but for the texts of the environment, the file name and the handlers' context, which
 * must outlive it. It serves one request and one thread; nothing is reset between calls.
 */
#ifndef KESTAL_ULX_CGI_H
#define KESTAL_ULX_CGI_H

#include <kestal_ulx/argument.h>
#include <kestal_ulx/buffer.h>
#include <kestal_ulx/uri.h>

KESTAL_BEGIN_DECLS

/** The size of the block through which bodies and files go. */
#define KESTAL_CGI_BLOCK_SIZE 65536

/** The body bytes that are kept when no other limit is set. */
#define KESTAL_CGI_BODY_LIMIT 65536

/* Indices of the method table. */
#define KESTAL_CGI_METHOD_NONE 0u   /**< the empty text: no request was read, or it named no method */
#define KESTAL_CGI_METHOD_GET 1u    /**< GET */
#define KESTAL_CGI_METHOD_HEAD 2u   /**< HEAD */
#define KESTAL_CGI_METHOD_POST 3u   /**< POST */
#define KESTAL_CGI_METHOD_PUT 4u    /**< PUT */
#define KESTAL_CGI_METHOD_DELETE 5u /**< DELETE */
#define KESTAL_CGI_METHOD_LINK 6u   /**< LINK */
#define KESTAL_CGI_METHOD_UNLINK 7u /**< UNLINK */
#define KESTAL_CGI_METHOD_OTHER 8u  /**< a method that the table does not have */

/** The object of a CGI program: one request and its answer. */
typedef struct kestal_cgi kestal_cgi_t;

/** One account: a single allocation with its texts behind it, overwritten when the object is closed. */
typedef struct kestal_cgi_account {
    struct kestal_cgi_account *m_next; /**< the account added before this one, or null */
    uint64_t m_username_length;        /**< bytes without the NUL */
    char *m_username;                  /**< never null */
    uint64_t m_password_length;        /**< bytes without the NUL */
    char *m_password;                  /**< in plain text */
} kestal_cgi_account_t;

/** One header line of the answer: a single allocation with its texts behind it. */
typedef struct kestal_cgi_response_header {
    struct kestal_cgi_response_header *m_next; /**< the header added next, or null */
    char *m_name;                              /**< the field's name */
    uint64_t m_value_length;                   /**< bytes without the NUL */
    char *m_value;                             /**< the field's value */
} kestal_cgi_response_header_t;

/**
 * Receives the body as it is read: `size` bytes, of which it returns how many it took. It is called again with the rest;
 * 0 or less fails kestal_cgi_incoming.
 */
typedef int64_t (*kestal_cgi_incoming_handler_t)(kestal_cgi_t *cgi, const void *data, uint64_t size);

/** Writes the answer in place of the output buffer; see kestal_cgi_outgoing. Returns the status for its caller. */
typedef int32_t (*kestal_cgi_outgoing_handler_t)(kestal_cgi_t *cgi);

/**
 * A request and its answer. To be read; the application sets m_body_limit, m_incoming_handler, m_file_name and
 * m_outgoing_handler, here or by the calls, and pushes into m_output and m_error_output.
 */
struct kestal_cgi {
    const char *m_carriage_return;                    /**< "\r" */
    const char *m_line_feed;                          /**< "\n" */
    const char *m_line_end;                           /**< "\r\n": ends every header line written */
    kestal_argument_t *m_argument;                    /**< arguments and environment */
    kestal_cgi_account_t *m_accounts;                 /**< the newest first */
    const char *const *m_methods;                     /**< "", "GET", "HEAD" and so on to "UNLINK", and a null */
    const char *m_method;                             /**< the table's text, else the request's as given */
    uint32_t m_method_index;                          /**< KESTAL_CGI_METHOD */
    const char *m_content_type;                       /**< CONTENT_TYPE, or null */
    uint32_t m_has_content_length;                    /**< 1 when CONTENT_LENGTH is a number, else 0 */
    uint64_t m_content_length;                        /**< that number in bytes; 0 when there is none */
    const char *m_user_agent;                         /**< HTTP_USER_AGENT, or null */
    const char *m_query_string;                       /**< QUERY_STRING, or null */
    kestal_uri_option_t *m_query_options;             /**< the options in it */
    kestal_uri_option_t *m_body_options;              /**< the options in the body of a POST */
    uint64_t m_body_limit;                            /**< body bytes to keep; 0: KESTAL_CGI_BODY_LIMIT */
    uint64_t m_received;                              /**< body bytes read */
    kestal_cgi_incoming_handler_t m_incoming_handler; /**< may be null */
    const char *m_file_name;                          /**< what kestal_cgi_outgoing_file_handler sends */
    kestal_cgi_outgoing_handler_t m_outgoing_handler; /**< may be null */
    kestal_cgi_response_header_t *m_response_headers; /**< in the order added */
    kestal_buffer_t *m_body;                          /**< the request's body as far as it is kept; may be null */
    kestal_buffer_t *m_output;                        /**< the answer's body */
    kestal_buffer_t *m_error_output;                  /**< what goes to standard error with the answer */
    uint8_t m_block[KESTAL_CGI_BLOCK_SIZE];           /**< bodies and files pass through here */
};

/**
 * Opens an object over the arguments and the environment `envp` (null: that of the process; see kestal_open_argument).
 * Nothing is read yet. Null when memory is short; when it was short for m_body alone, no body will be kept.
 */
KESTAL_API kestal_cgi_t *kestal_open_cgi(int32_t argc, char *const *argv, char *const *envp);

/** Releases an object with all it holds; accounts are overwritten with zeros before. Returns 0; -1 for null. */
KESTAL_API int32_t kestal_close_cgi(kestal_cgi_t *cgi);

/* --- before the request is read */

/**
 * Adds an account, ahead of those that are there; one with just this name and password is there only once, while a name
 * may have several passwords: Digest credentials are then checked with the one added last. Null texts count as empty.
 * Returns 0; -1 for a null object or when memory is short. Even then the object no longer counts as one
 * without accounts, which lets everybody in.
 */
KESTAL_API int32_t kestal_cgi_add_account(kestal_cgi_t *cgi, const char *username, const char *password);

/**
 * With `on` other than 0 Basic credentials are accepted only when an account has just this name and password. Without
 * (so it is after opening) any that decode and split are accepted. Returns 0; -1 for null.
 */
KESTAL_API int32_t kestal_cgi_set_basic_check(kestal_cgi_t *cgi, uint32_t on);

/**
 * With `on` other than 0 kestal_cgi_set_response_header refuses names that are no token (RFC 9110 section 5.6.2), and
 * values with control characters other than tabs. Without (so it is after opening) it takes any text. Returns 0; -1 for null.
 */
KESTAL_API int32_t kestal_cgi_set_header_check(kestal_cgi_t *cgi, uint32_t on);

/**
 * With `on` other than 0 a body is read until as many bytes have come as the content length says. Without (so it is
 * after opening) a body with a content length must come in a single read, see kestal_cgi_incoming. Returns 0; -1 for null.
 */
KESTAL_API int32_t kestal_cgi_set_whole_body(kestal_cgi_t *cgi, uint32_t on);

/** Sets m_body_limit: the bytes of the body to keep; 0: KESTAL_CGI_BODY_LIMIT. Returns 0; -1 for null. */
KESTAL_API int32_t kestal_cgi_set_body_limit(kestal_cgi_t *cgi, uint64_t bytes);

/** Sets m_incoming_handler; null: none. Returns 0; -1 for null. */
KESTAL_API int32_t kestal_cgi_set_incoming_handler(kestal_cgi_t *cgi, kestal_cgi_incoming_handler_t handler);

/** Sets m_outgoing_handler; null: none. Returns 0; -1 for null. */
KESTAL_API int32_t kestal_cgi_set_outgoing_handler(kestal_cgi_t *cgi, kestal_cgi_outgoing_handler_t handler);

/** Sets m_file_name, without copying it. Returns 0; -1 for null. */
KESTAL_API int32_t kestal_cgi_set_file_name(kestal_cgi_t *cgi, const char *name);

/** Keeps a pointer of the application's, for its handlers. Returns 0; -1 for null. */
KESTAL_API int32_t kestal_cgi_set_context(kestal_cgi_t *cgi, void *context);

/** The pointer given to kestal_cgi_set_context, or null. */
KESTAL_API void *kestal_cgi_get_context(const kestal_cgi_t *cgi);

/* --- the request */

/**
 * Reads the request: the method (letter case ignored), the query string with its options, and the body from standard
 * input, of which each read may wait for 60 s and fetches at most 65536 bytes. There is no body to read when the content
 * length is 0, for HEAD, and for GET without a content length; other methods without one are read to the end of input.
 * The body goes to the handler, if there is one, and to m_body; a body of a POST is also parsed as a form into
 * m_body_options.
 *
 * With a content length the reading ends with the first read that brings as many bytes. A body that comes in several
 * reads, and so every one beyond 65536 bytes, is read to the end of input and then fails this call: see
 * kestal_cgi_set_whole_body.
 *
 * Bytes that come when m_body holds its limit already are not kept, and reported on the error sink.
 *
 * Returns 0; -1 for null, when reading failed, input ended or the time ran out before a given content length was there,
 * the handler failed, or memory is short.
 */
KESTAL_API int32_t kestal_cgi_incoming(kestal_cgi_t *cgi);

/**
 * Checks the credentials of the request, after kestal_cgi_incoming. When no account was ever added, every request is
 * allowed. Digest credentials (RFC 2617 and 2069, always as MD5) must carry the response that the account's password
 * gives; their nonce may be of any age, the URI in them is not compared with the request's, and where they name an
 * "opaque", it must be that of their realm. BASIC CREDENTIALS ARE NOT COMPARED with the accounts unless kestal_cgi_set_basic_check asks for it.
 *
 * Returns 0 when the request is allowed. Otherwise -1, and the headers of the answer are set: status 401 and a challenge
 * for Digest with quality of protection "auth", whose realm is the first of the variables SERVER_ADMIN, SERVER_ADDR and
 * SERVER_NAME that is not empty. It is sent by kestal_cgi_outgoing.
 */
KESTAL_API int32_t kestal_cgi_digest_check(kestal_cgi_t *cgi);

/**
 * The raw value of the first option whose name matches (kestal_search_uri_option_node: patterns between "|"), first in
 * the query, then in the body; null when there is none. It stays the object's.
 */
KESTAL_API const char *kestal_cgi_search_query_value(kestal_cgi_t *cgi, const char *name);

/** As kestal_cgi_search_query_value, but percent-decoded; the raw value when memory was short for that. */
KESTAL_API const char *kestal_cgi_search_query_decode_value(kestal_cgi_t *cgi, const char *name);

/* --- the answer */

/**
 * Adds a header line behind those that are there; it never takes the place of one. A null value is empty. The texts are
 * written as they are: LINE ENDS IN THEM BEGIN NEW LINES of the head, so ask for kestal_cgi_set_header_check when any
 * part of a text comes from the client. Returns 0; -1 for a null object or name, when memory is short, or when the check
 * refuses a text.
 */
KESTAL_API int32_t kestal_cgi_set_response_header(kestal_cgi_t *cgi, const char *name, const char *value);

/**
 * Writes the answer to standard output. When headers were set: these, then "Server", "Content-Length" and "Date" where
 * they are not among them, and the empty line; without headers nothing of that. Then the output buffer's content, which
 * is taken out of it; and that of the error output buffer to standard error.
 *
 * With an outgoing handler only the headers that were set are written, and the handler writes all else: further
 * headers, the empty line, the body.
 *
 * Returns the handler's result; without one 0, or -1 for null or when the output could not be written.
 */
KESTAL_API int32_t kestal_cgi_outgoing(kestal_cgi_t *cgi);

/**
 * An outgoing handler: sends the file m_file_name, of any size, after "Content-Length" (when it has a size) and the empty
 * line. Each read may wait for 60 s. Returns 0. -1 when there is no file name, the file cannot be opened or read to its
 * end (reported on the error sink), or the output cannot be written.
 */
KESTAL_API int32_t kestal_cgi_outgoing_file_handler(kestal_cgi_t *cgi);

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(sizeof(kestal_cgi_account_t) == 40, "layout of the account");
KESTAL_STATIC_ASSERT(sizeof(kestal_cgi_response_header_t) == 32, "layout of the response header");
KESTAL_STATIC_ASSERT(offsetof(kestal_cgi_t, m_body_limit) == 120, "layout of the CGI object");
KESTAL_STATIC_ASSERT(offsetof(kestal_cgi_t, m_block) == 192, "layout of the CGI object");
#endif

KESTAL_END_DECLS

#endif
