/**
 * @file
 * Stream contexts: one handle for whatever is opened by a MIME type and then read, written, sought or controlled.
 * A context is created empty, given named options, and opened: the loaded plugins are asked from the newest to the
 * oldest, and the first whose hint list matches and whose open accepts serves the context until it is closed.
 *
 *     uint32_t stream = kestal_open_ctx_stream("/etc/hostname", "rb", 0);
 *     char text[256];
 *     int64_t length = kestal_ctx_read(stream, text, sizeof(text));
 *     stream = kestal_destroy_ctx(stream);
 *
 * Callers hold a context by its id, never by pointer; KESTAL_INVALID_ID (all ones) is no context, and every call
 * answers an unknown id with its failure value. Every context keeps the built-in plugin loaded while it lives.
 *
 * A context has no lock: one thread at a time uses it, different threads use different ones. The plugins' registry is
 * held while a plugin's open runs, so an open must not create or destroy contexts, nor may a plugin's initialize; and
 * while a slow location opens, other threads wait to create contexts.
 */
#ifndef KESTAL_ULX_INTERFACE_H
#define KESTAL_ULX_INTERFACE_H

#include <kestal_ulx/base.h>
#include <kestal_ulx/instance.h>
#include <kestal_ulx/plugin.h>

KESTAL_BEGIN_DECLS

/* --- last errors: set by this layer and by plugins, cleared by every option and forwarded call */

#define KESTAL_CTX_ERROR_NONE UINT32_C(0) /**< nothing failed */
/** The device or file could not be opened, or the plugin has no state for the request. */
#define KESTAL_CTX_ERROR_NOT_OPENED UINT32_C(1)
/** No plugin, no such operation, the wrong kind, or a failed open. Lets the next plugin try. */
#define KESTAL_CTX_ERROR_NOT_SUPPORTED UINT32_C(3)
/** A bad argument block: a missing pointer, or a size smaller than the record. */
#define KESTAL_CTX_ERROR_BAD_ARGUMENT UINT32_C(4)
/** The caller's buffer is smaller than the datagram to deliver. */
#define KESTAL_CTX_ERROR_SHORT_BUFFER UINT32_C(5)
#define KESTAL_CTX_ERROR_NO_MEMORY UINT32_C(8)    /**< memory is short */
#define KESTAL_CTX_ERROR_ALREADY_OPEN UINT32_C(9) /**< the context is open already */
/** The remote transfer could not be set up. */
#define KESTAL_CTX_ERROR_REMOTE UINT32_C(10)

/* --- the kinds of context that the built-in plugin serves: a context's m_kind */

#define KESTAL_CTX_KIND_BASE 0          /**< no source: a handle to the library itself */
#define KESTAL_CTX_KIND_MULTICALL 1     /**< no source: for plugins that serve several requests at once */
#define KESTAL_CTX_KIND_STREAM 100      /**< before the source's scheme has picked one of the next */
#define KESTAL_CTX_KIND_STREAM_FILE 101 /**< a file */
#define KESTAL_CTX_KIND_STREAM_TFTP 102 /**< a file of a TFTP server */
#define KESTAL_CTX_KIND_STREAM_FTP 103  /**< a file of an FTP server */
#define KESTAL_CTX_KIND_STREAM_PIPE 104 /**< a pipe, or a descriptor that was open */
#define KESTAL_CTX_KIND_STREAM_UDP 105  /**< datagrams of a port or group */
#define KESTAL_CTX_KIND_STREAM_TCP 106  /**< a TCP connection */
#define KESTAL_CTX_KIND_FB 200          /**< a frame buffer of whatever kind; the built-in plugin serves the next */
#define KESTAL_CTX_KIND_LINUXFB 201     /**< a frame-buffer device */
#define KESTAL_CTX_KIND_WINDOWS_DIB 202 /**< for plugins that draw into a window's bitmap */

/* --- control codes, and the records that go with them */

/** Plain control: the stream's total size in bytes; the record is one uint64_t. */
#define KESTAL_CTX_CONTROL_GET_SIZE UINT32_C(0x01010009)
/** X-control: frame-buffer information, into a kestal_ctx_fbinfo_t. */
#define KESTAL_CTX_CONTROL_GET_FBINFO UINT32_C(0x01030011)

/* X-controls that a plugin which serves a database answers, each with its record below. */
#define KESTAL_CTX_CONTROL_DB_GET_QUERY UINT32_C(0x0102000B)       /**< kestal_ctx_db_get_query_record_t */
#define KESTAL_CTX_CONTROL_DB_SET_QUERY UINT32_C(0x0202000B)       /**< kestal_ctx_db_set_query_record_t */
#define KESTAL_CTX_CONTROL_DB_FREE_RESULT UINT32_C(0x0602000C)     /**< kestal_ctx_db_free_result_record_t */
#define KESTAL_CTX_CONTROL_DB_DUMP_RESULT UINT32_C(0x0902000C)     /**< kestal_ctx_db_dump_result_record_t */
#define KESTAL_CTX_CONTROL_DB_FETCH_ROW UINT32_C(0x0802000D)       /**< kestal_ctx_db_fetch_row_record_t */
#define KESTAL_CTX_CONTROL_DB_GET_ROW_COUNT UINT32_C(0x0102000E)   /**< kestal_ctx_db_get_count_record_t */
#define KESTAL_CTX_CONTROL_DB_GET_FIELD_COUNT UINT32_C(0x0102000F) /**< kestal_ctx_db_get_count_record_t */
#define KESTAL_CTX_CONTROL_DB_GET_FIELD_INDEX UINT32_C(0x01020010) /**< kestal_ctx_db_get_field_index_record_t */
#define KESTAL_CTX_CONTROL_DB_GET_FIELD_NAME UINT32_C(0x01020012)  /**< kestal_ctx_db_get_field_name_record_t */

/** What kestal_ctx_get_fbinfo fills. */
typedef struct kestal_ctx_fbinfo {
    const char *m_device;        /**< path of the device, the plugin's own text */
    int32_t m_descriptor;        /**< the open device */
    struct kestal_fbmap *m_root; /**< the root map over the device's memory */
    uint64_t m_reserved[8];      /**< zero */
} kestal_ctx_fbinfo_t;

/** KESTAL_CTX_CONTROL_DB_GET_QUERY: runs a query that has a result. */
typedef struct kestal_ctx_db_get_query_record {
    uint64_t m_result;   /**< out: the result's handle; 0 before */
    uint64_t m_reserved; /**< 0 */
    const char *m_query; /**< the query's text */
} kestal_ctx_db_get_query_record_t;

/** KESTAL_CTX_CONTROL_DB_SET_QUERY: runs a query that has none. */
typedef struct kestal_ctx_db_set_query_record {
    int32_t m_status;    /**< out: 0 for success; -1 before */
    uint32_t m_padding;  /**< 0 */
    uint64_t m_reserved; /**< 0 */
    const char *m_query; /**< the query's text */
} kestal_ctx_db_set_query_record_t;

/** KESTAL_CTX_CONTROL_DB_FREE_RESULT. */
typedef struct kestal_ctx_db_free_result_record {
    uint64_t m_result; /**< the result's handle; out: 0 when it is gone */
} kestal_ctx_db_free_result_record_t;

/** KESTAL_CTX_CONTROL_DB_FETCH_ROW. */
typedef struct kestal_ctx_db_fetch_row_record {
    uint64_t m_row;    /**< out: the row's handle; 0 before */
    uint64_t m_result; /**< the result's handle */
} kestal_ctx_db_fetch_row_record_t;

/** KESTAL_CTX_CONTROL_DB_GET_ROW_COUNT and KESTAL_CTX_CONTROL_DB_GET_FIELD_COUNT. */
typedef struct kestal_ctx_db_get_count_record {
    uint64_t m_count;  /**< out; 0 before */
    uint64_t m_result; /**< the result's handle */
} kestal_ctx_db_get_count_record_t;

/** KESTAL_CTX_CONTROL_DB_GET_FIELD_INDEX. */
typedef struct kestal_ctx_db_get_field_index_record {
    int32_t m_index;    /**< out: the field's number; -1 before */
    uint32_t m_flags;   /**< the plugin's to define */
    const char *m_name; /**< the field's name */
    uint64_t m_result;  /**< the result's handle */
} kestal_ctx_db_get_field_index_record_t;

/** KESTAL_CTX_CONTROL_DB_GET_FIELD_NAME. */
typedef struct kestal_ctx_db_get_field_name_record {
    const char *m_name; /**< out: the plugin's own text; null before */
    uint32_t m_index;   /**< the field's number */
    uint32_t m_padding; /**< 0 */
    uint64_t m_result;  /**< the result's handle */
} kestal_ctx_db_get_field_name_record_t;

/** KESTAL_CTX_CONTROL_DB_DUMP_RESULT. */
typedef struct kestal_ctx_db_dump_result_record {
    uint64_t m_a;      /**< the plugin's to define, as is m_b */
    uint64_t m_b;      /**< the plugin's to define */
    uint64_t m_result; /**< the result's handle */
} kestal_ctx_db_dump_result_record_t;

/* --- the records that plugins work on */

/** One option of a context: a single allocation, with name and value behind the record. */
typedef struct kestal_ctx_option {
    struct kestal_ctx_option *m_next; /**< the option set next */
    char *m_name;                     /**< null when set without a name or with an empty one */
    uint64_t m_value_size;            /**< in bytes, without the NUL that stands behind the value */
    void *m_value;                    /**< null when the size is 0 */
} kestal_ctx_option_t;

/** A context, as plugins see it. Applications hold the id. */
typedef struct kestal_ctx {
    uint32_t m_id;                      /**< registered with the type "application/ulx_base_ctx" */
    uint32_t m_base_plugin_id;          /**< a counted use of the built-in plugin */
    struct kestal_plugin *m_plugin;     /**< the plugin that serves; null while closed */
    kestal_ctx_option_t *m_option_head; /**< the options in the order set */
    kestal_ctx_option_t *m_option_tail; /**< the last of them */
    char *m_mime_type;                  /**< as opened; null while closed */
    int32_t m_kind;                     /**< the serving plugin's own code; -1 while closed */
    void *m_plugin_state;               /**< the serving plugin's; null while closed */
    uint32_t m_last_error;              /**< KESTAL_CTX_ERROR_... or a code of the plugin's */
    uint64_t m_reserved[2];             /**< free for the serving plugin; zero at creation only */
} kestal_ctx_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_fbinfo_t) == 88, "frame-buffer information");
KESTAL_STATIC_ASSERT(offsetof(kestal_ctx_fbinfo_t, m_descriptor) == 8, "frame-buffer information");
KESTAL_STATIC_ASSERT(offsetof(kestal_ctx_fbinfo_t, m_root) == 16, "frame-buffer information");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_option_t) == 32, "option");
KESTAL_STATIC_ASSERT(offsetof(kestal_ctx_t, m_plugin) == 8, "context");
KESTAL_STATIC_ASSERT(offsetof(kestal_ctx_t, m_kind) == 40, "context");
KESTAL_STATIC_ASSERT(offsetof(kestal_ctx_t, m_last_error) == 56, "context");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_t) == 80, "context");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_db_get_query_record_t) == 24, "database record");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_db_set_query_record_t) == 24, "database record");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_db_get_field_index_record_t) == 24, "database record");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_db_get_field_name_record_t) == 24, "database record");
#endif
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_db_free_result_record_t) == 8, "database record");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_db_fetch_row_record_t) == 16, "database record");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_db_get_count_record_t) == 16, "database record");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx_db_dump_result_record_t) == 24, "database record");

/* --- creation and lifetime */

/**
 * A new closed context without options; loads the built-in plugin, or counts one more use of it. Returns its id, or
 * KESTAL_INVALID_ID when memory is short or no id is to be had.
 */
KESTAL_API uint32_t kestal_new_ctx(void);

/**
 * Opens a context as `mime_type` (null: none, which only a plugin without a hint list or with the pattern "*" takes)
 * with the first willing plugin, newest first. A plugin that refuses with last error 3 lets the next one try; a refusal
 * with any other ends the search. Returns 0, or what the last open returned (-1 when none was asked).
 *
 * After a failure the context is closed, its options are kept, and the last error says why: 9 for a context that is
 * open already (it stays open), 3 when no plugin would, otherwise the plugin's code. kestal_ctx_get_last_error works
 * on open contexts only, so read it from the record:
 *
 *     const kestal_ctx_t *record = kestal_ginstance_search(id, NULL);
 *     uint32_t cause = record == NULL ? KESTAL_CTX_ERROR_NONE : record->m_last_error;
 */
KESTAL_API int32_t kestal_open_ctx(uint32_t id, const char *mime_type);

/** Closes a context, open or not, and drops its options; it can be opened again. Returns 0 whatever the plugin says,
 * or -1 for an unknown id. */
KESTAL_API int32_t kestal_close_ctx(uint32_t id);

/** Closes and releases a context and its use of the built-in plugin. Always returns KESTAL_INVALID_ID, to be stored
 * over the id. */
KESTAL_API uint32_t kestal_destroy_ctx(uint32_t id);

/**
 * A new context opened as "application/ulx_stream" with the options "src" = `source`, "mode" = `mode` (as of fopen)
 * and "debug" = `debug` in decimal. Returns its id, or KESTAL_INVALID_ID with nothing left behind; a caller that
 * wants to know why takes these steps itself (see kestal_open_ctx).
 */
KESTAL_API uint32_t kestal_open_ctx_stream(const char *source, const char *mode, int32_t debug);

/** As kestal_open_ctx_stream, over an open descriptor (option "fd"), which stays the caller's and is not closed. */
KESTAL_API uint32_t kestal_open_ctx_stream_fd(int32_t descriptor, const char *mode, int32_t debug);

/* --- queries */

/** The record of a context that is open and whose plugin is initialised, else null. */
KESTAL_API kestal_ctx_t *kestal_get_valid_ctx(uint32_t id);

/** The serving plugin's name (empty for the built-in one), valid while the context is open; null when it is closed. */
KESTAL_API const char *kestal_get_ctx_plugin_name(uint32_t id);

/** The serving plugin's hint list, or null when it has none or the context is closed. */
KESTAL_API const char *kestal_get_ctx_mime_type_hint(uint32_t id);

/** 0 when the hint list of the plugin that serves an open context matches the type, else -1. */
KESTAL_API int32_t kestal_check_ctx_mime_type(uint32_t id, const char *mime_type);

/** Compares two types byte by byte as strcmp does: negative, 0 or positive. */
KESTAL_API int32_t kestal_compare_mime_type(const char *left, const char *right);

/**
 * 0 when a hint list matches a type, else -1. The list's words, parted by ";" and "|", are patterns over the whole
 * type, whatever the case, in which "*" stands for any run of characters. A null list matches every type.
 */
KESTAL_API int32_t kestal_compare_mime_type_hint(const char *hint_list, const char *mime_type);

/** A short text for a last-error code, such as "out of memory"; "unknown error" for a plugin's own codes. */
KESTAL_API const char *kestal_get_ctx_error_text(uint32_t code);

/* --- options: on open and closed contexts; each of these calls clears the last error */

/**
 * Appends the option `name` with a copy of `size` bytes of `value` (zeros when `value` is null) and a NUL behind them.
 * A null or empty name is one and the same name. Names compare with case here; plugins may do otherwise.
 *
 * With a `replace` other than 0 the first option of that name goes; with 0 options of one name stand side by side,
 * for things like repeated header lines. All of null name, `replace` UINT32_MAX, null value and size 0 drop every
 * option. Returns 0, or -1 with nothing changed for an unknown id or when memory is short (last error 8).
 */
KESTAL_API int32_t kestal_ctx_set_option(uint32_t id, uint32_t replace, const char *name, const void *value,
                                         uint64_t size);

/** kestal_ctx_set_option with a text; null is an empty one. */
KESTAL_API int32_t kestal_ctx_set_option_string(uint32_t id, uint32_t replace, const char *name, const char *text);

/** kestal_ctx_set_option with a formatted text. Returns 0 and sets nothing when formatting fails. */
KESTAL_API int32_t kestal_ctx_set_option_fstring(uint32_t id, uint32_t replace, const char *name, const char *format,
                                                 ...);

/** kestal_ctx_set_option_fstring with an argument list. */
KESTAL_API int32_t kestal_ctx_set_option_vfstring(uint32_t id, uint32_t replace, const char *name, const char *format,
                                                  va_list arguments);

/** kestal_ctx_set_option with a number in decimal. */
KESTAL_API int32_t kestal_ctx_set_option_int_string(uint32_t id, uint32_t replace, const char *name, int32_t value);

/** The first option of that name (null is the unnamed one), or null. */
KESTAL_API const kestal_ctx_option_t *kestal_ctx_get_option(uint32_t id, const char *name);

/** The value of the first option of that name as a text, or `otherwise` when there is none or it has no value. */
KESTAL_API const char *kestal_ctx_get_option_string_ex(uint32_t id, const char *name, const char *otherwise);

/** kestal_ctx_get_option_string_ex with null for an absent value. */
KESTAL_API const char *kestal_ctx_get_option_string(uint32_t id, const char *name);

/* --- forwarded operations
 *
 * Each clears the last error and calls the serving plugin. On an unknown or closed context it returns its failure
 * value, -1 unless stated, and changes nothing; where the plugin has no such operation the last error is 3.
 */

/**
 * The three families of control: a code, then a pointer to the code's record and the record's size as a uint64_t. The
 * result is the plugin's. Whether a plugin offers any of the three is judged by its vbcontrol slot alone: one that has
 * vxcontrol or vcontrol must have that too.
 */
KESTAL_API int32_t kestal_ctx_bcontrol(uint32_t id, uint32_t code, ...);
/** kestal_ctx_bcontrol with an argument list. */
KESTAL_API int32_t kestal_ctx_vbcontrol(uint32_t id, uint32_t code, va_list arguments);
/** The x family: records in and out, as of databases and frame buffers. */
KESTAL_API int32_t kestal_ctx_xcontrol(uint32_t id, uint32_t code, ...);
/** kestal_ctx_xcontrol with an argument list. */
KESTAL_API int32_t kestal_ctx_vxcontrol(uint32_t id, uint32_t code, va_list arguments);
/** The plain family, as of KESTAL_CTX_CONTROL_GET_SIZE. */
KESTAL_API int32_t kestal_ctx_control(uint32_t id, uint32_t code, ...);
/** kestal_ctx_control with an argument list. */
KESTAL_API int32_t kestal_ctx_vcontrol(uint32_t id, uint32_t code, va_list arguments);

/** Waits up to `timeout` ms for something to read, the end and a hang-up included: positive when there is, 0 after the
 * time-out, -1 on failure. */
KESTAL_API int32_t kestal_ctx_is_readable(uint32_t id, int32_t timeout);

/** Reads up to `size` bytes: the number read, 0 at the end, -1 on failure. */
KESTAL_API int64_t kestal_ctx_read(uint32_t id, void *buffer, uint64_t size);

/** Waits up to `timeout` ms until something can be written: positive when it can, 0 after the time-out, -1 on failure. */
KESTAL_API int32_t kestal_ctx_is_writable(uint32_t id, int32_t timeout);

/** Writes up to `size` bytes: the number written, which may be less, or -1 on failure. */
KESTAL_API int64_t kestal_ctx_write(uint32_t id, const void *data, uint64_t size);

/** Moves to `offset` bytes from the start, the current position or the end; `whence` as of lseek. The new position. */
KESTAL_API int64_t kestal_ctx_seek(uint32_t id, int64_t offset, uint32_t whence);

/** Moves to the start: 0, or -1 when the stream cannot. */
KESTAL_API int32_t kestal_ctx_rewind(uint32_t id);

/** Brings what was written to the device. */
KESTAL_API int32_t kestal_ctx_sync(uint32_t id);

/** Asks the plugin for a value of its own, named by `a` and `b`; its size goes to `size` (0 first; may be null). The
 * plugin says who owns it. Null on failure. */
KESTAL_API void *kestal_ctx_get_env(uint32_t id, uint64_t a, uint64_t b, uint64_t *size);

/** Gives the plugin a value of its own, in four words of the plugin's definition. */
KESTAL_API int32_t kestal_ctx_set_env(uint32_t id, uint64_t a, uint64_t b, uint64_t c, uint64_t d);

/** The last error of an open context, as the plugin tells it; -1 on a closed one. Clears nothing first. */
KESTAL_API int32_t kestal_ctx_get_last_error(uint32_t id);

/** Sets the last error of an open context. Clears nothing first. */
KESTAL_API int32_t kestal_ctx_set_last_error(uint32_t id, uint32_t code);

/** Writes a text without its NUL; as kestal_ctx_write. */
KESTAL_API int64_t kestal_ctx_puts(uint32_t id, const char *text);

/** Writes a formatted text; as kestal_ctx_write, but 0 with last error 8 when formatting fails. */
KESTAL_API int64_t kestal_ctx_printf(uint32_t id, const char *format, ...);

/** kestal_ctx_printf with an argument list. */
KESTAL_API int64_t kestal_ctx_vprintf(uint32_t id, const char *format, va_list arguments);

/* --- plugins that can be run as programs */

/** The serving plugin's main entry, or null with last error 3 when it has none. */
KESTAL_API kestal_main_entry_t kestal_ctx_get_main_entry(uint32_t id);

/** 0 when the serving plugin has a main entry, else -1. */
KESTAL_API int32_t kestal_ctx_is_executable_main(uint32_t id);

/** Runs the serving plugin's main entry and returns its result; 1 when there is none. */
KESTAL_API int kestal_ctx_execute_main(uint32_t id, int argc, char **argv);

/* --- databases
 *
 * X-controls to a plugin that serves a database. Each returns its record's first field after the control, whatever the
 * control's own result was, so what was preset is the failure value.
 */

/** Runs a query that has a result; the result's handle, or 0. */
KESTAL_API uint64_t kestal_ctx_db_get_query_puts(uint32_t id, const char *query);
/** kestal_ctx_db_get_query_puts with a formatted query; 0 with last error 8 when formatting fails. */
KESTAL_API uint64_t kestal_ctx_db_get_query(uint32_t id, const char *format, ...);
/** kestal_ctx_db_get_query with an argument list. */
KESTAL_API uint64_t kestal_ctx_db_get_vquery(uint32_t id, const char *format, va_list arguments);

/** Runs a query that has no result; the plugin's status, or -1. */
KESTAL_API int32_t kestal_ctx_db_set_query_puts(uint32_t id, const char *query);
/** kestal_ctx_db_set_query_puts with a formatted query; -1 with last error 8 when formatting fails. */
KESTAL_API int32_t kestal_ctx_db_set_query(uint32_t id, const char *format, ...);
/** kestal_ctx_db_set_query with an argument list. */
KESTAL_API int32_t kestal_ctx_db_set_vquery(uint32_t id, const char *format, va_list arguments);

/** Releases a result. Returns the handle as the plugin leaves it (0 when it is gone), to be stored over the handle. */
KESTAL_API uint64_t kestal_ctx_db_free_result(uint32_t id, uint64_t result);

/** The next row's handle, or 0. */
KESTAL_API uint64_t kestal_ctx_db_fetch_row(uint32_t id, uint64_t result);

/** The number of rows, or 0. */
KESTAL_API uint64_t kestal_ctx_db_get_row_count(uint32_t id, uint64_t result);

/** The number of fields in a row, or 0. */
KESTAL_API uint64_t kestal_ctx_db_get_field_count(uint32_t id, uint64_t result);

/** The number of the field of that name, from 0, or -1. `flags` are the plugin's. */
KESTAL_API int32_t kestal_ctx_db_get_field_index(uint32_t id, uint64_t result, uint32_t flags, const char *name);
/** kestal_ctx_db_get_field_index with a formatted name; -1 with last error 8 when formatting fails. */
KESTAL_API int32_t kestal_ctx_db_get_field_index_f(uint32_t id, uint64_t result, uint32_t flags, const char *format,
                                                   ...);
/** kestal_ctx_db_get_field_index_f with an argument list. */
KESTAL_API int32_t kestal_ctx_db_get_field_index_v(uint32_t id, uint64_t result, uint32_t flags, const char *format,
                                                   va_list arguments);

/** The name of a field, the plugin's own text, or null. */
KESTAL_API const char *kestal_ctx_db_get_field_name(uint32_t id, uint64_t result, uint32_t index);

/** Lets the plugin print a result; `a` and `b` are the plugin's to define. Returns the control's own result. */
KESTAL_API int32_t kestal_ctx_db_dump_result(uint32_t id, uint64_t result, uint64_t a, uint64_t b);

/* --- conveniences */

/** What is known of an open frame buffer: kestal_ctx_xcontrol with KESTAL_CTX_CONTROL_GET_FBINFO. */
KESTAL_API int32_t kestal_ctx_get_fbinfo(uint32_t id, kestal_ctx_fbinfo_t *info);

/**
 * Fetches a location whole: opens `url` as a stream for reading, reads it to its end, and stores one new block and its
 * size to `data` and `size` (each may be null). The block is the caller's, released with kestal_free; it has no
 * terminator. Nothing to read gives a null block and success. For http a plugin that serves it must be loaded.
 *
 * `headers` (may be null) are lines parted by CR or LF, each given to the plugin as an option "httpheader". `limit`
 * bytes or more are a failure, 0 is no limit; so is a wait of more than `timeout` ms for the next bytes (negative: no
 * limit). Returns 0, or -1 with a null block and size 0.
 */
KESTAL_API int32_t kestal_ctx_simple_http_get(const char *url, const char *headers, uint64_t limit, int32_t timeout,
                                              void **data, uint64_t *size);

KESTAL_END_DECLS

#endif
