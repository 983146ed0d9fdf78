/**
 * @file
 * Hash files: the simplest configuration form, a text file of lines "key value", read whole into a list of entries.
 * The file is read through a stream context, so any location that a loaded plugin opens will do, up to 1 MiB
 * (1,048,576 bytes) and 60 s.
 *
 * The caller owns the list. No state is shared: threads may load side by side.
 */
#ifndef KESTAL_ULX_HASH_FILE_H
#define KESTAL_ULX_HASH_FILE_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** One line of a hash file: a single allocation, with the line's text behind the record. */
typedef struct kestal_hash_file {
    struct kestal_hash_file *m_next; /**< the entry of the next line, or null */
    char *m_key;                     /**< the line's first word */
    char *m_value;                   /**< the rest of the line behind the key and white space; may be empty */
} kestal_hash_file_t;

/**
 * Reads the location `name` as a stream and returns its entries in the order of the lines, or null: when it cannot be
 * opened, when nothing was read, or when no line makes an entry.
 *
 * Blanks, tabs, CR and LF separate key and value. Leading white space is skipped; empty lines and lines that begin
 * with "#" make no entry; a line of only a key has an empty value. The last line counts only when it ends with a line
 * end. Reading stops at the end, at a read error, after 60 s in all, or as soon as more than 1,048,576 bytes are
 * there: the lines gathered so far are returned. When memory is short the result is null, never a part.
 */
KESTAL_API kestal_hash_file_t *kestal_load_hash_file(const char *name);

/** Releases a list from its head on, which may be null. Returns 0. */
KESTAL_API int32_t kestal_free_hash_file(kestal_hash_file_t *head);

KESTAL_END_DECLS

#endif
