/**
 * @file
 * Locations cut into their parts, such as "tftp://user:pw@host:69/dir/file?x=1&y=2", and the lists of name=value
 * options that queries and form bodies carry.
 *
 * A URI belongs to whoever opened it and owns every text in it; an option list belongs to whoever holds its head. They
 * are not changed after they were made, so that any number of threads may read them.
 */
#ifndef KESTAL_ULX_URI_H
#define KESTAL_ULX_URI_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Option flag: as in form bodies, "+" is decoded to a blank. */
#define KESTAL_URI_OPTION_FORM 0x01u

/** One option of a list. */
typedef struct kestal_uri_option {
    struct kestal_uri_option *m_next; /**< the next option, or null */
    char *m_option;                   /**< the option as given */
    char *m_name;                     /**< the text before the first "=" */
    char *m_value;                    /**< the text after it; empty without "=" */
    char *m_decoded_name;             /**< percent-decoded, or null when memory was short */
    char *m_decoded_value;            /**< percent-decoded, or null when memory was short */
} kestal_uri_option_t;

/** The parts of a URI. A part that is absent is null. */
typedef struct kestal_uri {
    char *m_uri;                    /**< the text as given */
    char *m_scheme;                 /**< before the first "://" */
    char *m_user;                   /**< user name */
    char *m_password;               /**< password */
    char *m_host;                   /**< host, without the brackets of an IPv6 address */
    char *m_port_text;              /**< port as written */
    char *m_path_query;             /**< from the first "/" behind the scheme on: path and query */
    char *m_scheme_name;            /**< the scheme up to its first "@" */
    char *m_scheme_qualifier;       /**< the scheme behind its first "@" */
    int32_t m_port;                 /**< port as a number; 0 when absent */
    char *m_location;               /**< all that follows "://"; the whole text without a scheme */
    char *m_path;                   /**< path as written, without the query */
    char *m_decoded_path;           /**< path percent-decoded; "/" without a path */
    char *m_query;                  /**< query as written, behind the "?" */
    kestal_uri_option_t *m_options; /**< the query's options */
} kestal_uri_t;

/**
 * Cuts a URI into its parts (after RFC 3986, kept liberal: nothing is refused). The port is what follows the first ":"
 * of the authority that only digits follow; user information ends at the last "@" of the authority and parts at its
 * first ":"; a "?" that no "/" precedes begins no query. Returns the URI, or null for a null text or when memory is
 * short; a part that alone finds no memory stays null.
 */
KESTAL_API kestal_uri_t *kestal_open_uri(const char *text);

/** Releases a URI with all its texts and options. Returns 0; -1 for null. */
KESTAL_API int32_t kestal_close_uri(kestal_uri_t *uri);

/**
 * Appends to a list (null: an empty one) an option for every piece of `text` between "&". Empty pieces give none; a
 * piece that finds no memory is left out. Returns the head of the list.
 */
KESTAL_API kestal_uri_option_t *kestal_parse_uri_option(kestal_uri_option_t *list, const char *text, uint32_t flags);

/** One option of a text such as "name=value", or null for a null text or when memory is short. */
KESTAL_API kestal_uri_option_t *kestal_new_uri_option(const char *text, uint32_t flags);

/** Releases a whole list; null is fine. Returns 0. */
KESTAL_API int32_t kestal_free_uri_option(kestal_uri_option_t *list);

/**
 * The first option whose decoded name (raw name when it has none) matches a list of wildcard patterns between "|", as
 * kestal_match_wildcard_list has them. Null when there is none.
 */
KESTAL_API kestal_uri_option_t *kestal_search_uri_option_node(kestal_uri_option_t *list, const char *pattern);

/** The raw value of the option that kestal_search_uri_option_node finds, or null. It stays the list's. */
KESTAL_API const char *kestal_search_uri_option_value(kestal_uri_option_t *list, const char *pattern);

/** As kestal_search_uri_option_value, but the decoded value; the raw one when it has no decoded value. */
KESTAL_API const char *kestal_search_uri_option_decode_value(kestal_uri_option_t *list, const char *pattern);

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(offsetof(kestal_uri_t, m_port) == 72 && sizeof(kestal_uri_t) == 120, "layout of the URI");
KESTAL_STATIC_ASSERT(sizeof(kestal_uri_option_t) == 48, "layout of the option");
#endif

KESTAL_END_DECLS

#endif
