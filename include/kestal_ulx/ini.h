/**
 * @file
 * INI texts: sections of name=value entries, fed in pieces as they arrive from a file or a connection; and parameter
 * lists such as `realm="a, b", qop=auth`, which HTTP header fields carry. Both end in the same object.
 *
 *     ; a comment, as with #
 *     name = value            ; entries before the first section line belong to the section ""
 *     [section]
 *     quoted = " a \"b\" ; c " # in double quotes "\" takes the next byte as it is; in single quotes nothing is special
 *
 * The object owns all its texts, which stay until it is closed; names and values are overwritten with zeros then, since
 * such files hold passwords. It has no lock: one thread at a time.
 */
#ifndef KESTAL_ULX_INI_H
#define KESTAL_ULX_INI_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** Flag of opening: the text is one list of parameters between commas; it has no lines, sections or comments. */
#define KESTAL_INI_PARAMETER_LIST 0x01u

/** How many bytes an object takes unless kestal_set_ini_limit says otherwise. */
#define KESTAL_INI_LIMIT 1048576

/** Entries under their sections. */
typedef struct kestal_ini kestal_ini_t;

/** One entry. To be read only. */
typedef struct kestal_ini_entry {
    struct kestal_ini_entry *m_previous; /**< the entry before, or null */
    struct kestal_ini_entry *m_next;     /**< the entry behind, whatever its section, or null */
    const char *m_section;               /**< the name of its section; empty before the first section line */
    const char *m_name;                  /**< never empty */
    const char *m_value;                 /**< without its quotes; may be empty */
} kestal_ini_entry_t;

/** An empty object; `flags` are 0 or KESTAL_INI_PARAMETER_LIST. Null when memory is short. */
KESTAL_API kestal_ini_t *kestal_open_ini_ex(uint32_t flags);

/** kestal_open_ini_ex for INI texts. */
KESTAL_API kestal_ini_t *kestal_open_ini(void);

/** Overwrites and releases an object with all its entries. Returns null; null is fine. */
KESTAL_API kestal_ini_t *kestal_close_ini(kestal_ini_t *ini);

/** How many bytes the object may be fed in all (KESTAL_INI_LIMIT after opening; 0: any number). 0, or -1 for null. */
KESTAL_API int32_t kestal_set_ini_limit(kestal_ini_t *ini, uint64_t bytes);

/**
 * Feeds `size` bytes, which go on where the last ones ended: however a text is split, its entries are the same. Entries
 * appear as soon as their line has ended, with LF, CR or CR LF; those of a parameter list with kestal_end_ini.
 *
 * Names and values are taken without the white space around them. A value that begins with '"' or "'" reaches to the next
 * such quote (at most to the end of the line), and what follows is dropped; any other ends before a ";" or "#" behind
 * its first character that has white space before it. A line without "=" is a name with an empty value. Lines without a name, and section lines
 * without "]", are skipped. A NUL ends what counts of a line, and a byte order mark (UTF-8) before the first is skipped.
 *
 * In a parameter list only '"' quotes; an unquoted value reaches to the next comma; empty parameters are skipped.
 *
 * Returns 0; -1 when the object or, with a size, the data are null; when the limit would be exceeded or memory is short.
 * Then nothing more is taken by this and all later calls, so that a part is not mistaken for the whole.
 */
KESTAL_API int32_t kestal_push_ini(kestal_ini_t *ini, const void *data, uint64_t size);

/** kestal_push_ini of a text without its terminator; null counts as empty. */
KESTAL_API int32_t kestal_push_ini_string(kestal_ini_t *ini, const char *text);

/**
 * Ends the text: takes a last line that has no line end, or the parameters. What is fed afterwards begins a new line, or
 * list, in the section reached. Returns 0; -1 for null, when memory is short, or when a call before has failed.
 */
KESTAL_API int32_t kestal_end_ini(kestal_ini_t *ini);

/**
 * Reads a file as an INI text to its end. Returns the object; null when the path is null, the file cannot be read, is
 * larger than KESTAL_INI_LIMIT, or memory is short.
 */
KESTAL_API kestal_ini_t *kestal_load_ini(const char *path);

/** The parameters of a text (null counts as empty) as an object. Null when the text is too long or memory is short. */
KESTAL_API kestal_ini_t *kestal_parse_ini_parameters(const char *text);

/**
 * The entry of a name in a section (null or "": before the first section line, and every parameter of a list), letter
 * case ignored in both; where the name occurs more than once, the last one. Null when there is none.
 */
KESTAL_API const kestal_ini_entry_t *kestal_search_ini_entry(const kestal_ini_t *ini, const char *section,
                                                             const char *name);

/** The value of the entry that kestal_search_ini_entry finds, or null. It stays the object's. */
KESTAL_API const char *kestal_search_ini_value(const kestal_ini_t *ini, const char *section, const char *name);

/** The first entry, from which m_next leads through all in the order of the text; null when there is none. */
KESTAL_API const kestal_ini_entry_t *kestal_first_ini_entry(const kestal_ini_t *ini);

KESTAL_END_DECLS

#endif
