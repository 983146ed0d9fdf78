/**
 * @file
 * Exception tags: a process-wide registry of the code sections that are being executed, each with its place and its
 * time of entry. A dump shows, on standard error, which sections never ended, beside the counters of blocks and
 * threads.
 *
 * The caller owns a record from add to del, and the names it gives must live as long. Every function may be called
 * from any thread.
 */
#ifndef KESTAL_ULX_EXCEPTION_H
#define KESTAL_ULX_EXCEPTION_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** One entered section. The library links and fills it; it is public for debuggers and reads as it stands. */
typedef struct kestal_exception {
    struct kestal_exception *m_newer; /**< entered next; null for the newest */
    struct kestal_exception *m_older; /**< entered before; null for the oldest */
    uint64_t m_entry_time;            /**< kestal_time_stamp_msec at entry */
    const char *m_file;               /**< not copied */
    const char *m_function;           /**< not copied */
    uint64_t m_line;                  /**< of the entry */
} kestal_exception_t;

/* The calls with the call site filled in. */
/** kestal_add_exception_tag with the caller's file, name and line. */
#define kestal_add_exception() kestal_add_exception_tag(__FILE__, __func__, __LINE__)
/** kestal_del_exception_tag. */
#define kestal_del_exception(record) kestal_del_exception_tag(record)
/** kestal_dump_exception_tag with the caller's file, name and line. */
#define kestal_dump_exception(force) kestal_dump_exception_tag((force), __FILE__, __func__, __LINE__)

/**
 * Enters a section: returns its record, to be given to kestal_del_exception_tag when the section ends. Null when memory
 * is short, after an assertion report. More than 4096 records are reported as an assertion and kept all the same.
 */
KESTAL_API kestal_exception_t *kestal_add_exception_tag(const char *file, const char *function, uint64_t line);

/** Leaves a section and releases its record. Returns 0; a null record is reported as an assertion. */
KESTAL_API int32_t kestal_del_exception_tag(kestal_exception_t *record);

/**
 * Writes the counters and the sections, newest first with the milliseconds since their entry, to standard error.
 * Unless `force` is not 0, it writes nothing when there is nothing to tell: no section, no live block, no thread.
 * File, function and line say where the dump was asked for; a null text reads "".
 */
KESTAL_API void kestal_dump_exception_tag(int32_t force, const char *file, const char *function, uint64_t line);

/** Enables dumps (any value but 0, the start) or silences them all, forced ones too (0). */
KESTAL_API void kestal_set_force_dump_exception(uint32_t value);

KESTAL_END_DECLS

#endif
