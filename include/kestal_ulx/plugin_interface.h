/**
 * @file
 * What the author of a plugin writes: two entry points and a table of operations on stream contexts.
 *
 *     static const kestal_ctx0_v1_interface_t table = {
 *         .m_base = {.m_version = 1, .m_size = sizeof(table), .m_revision = 1, .m_open = open_ctx, .m_read = read_ctx}};
 *
 *     KESTAL_API int32_t kestal_plugin_initialize(const char **hint, const kestal_ctx0_v0_interface_t **interface,
 *                                                 uint64_t *size)
 *     {
 *         *hint = "application/ulx_stream";
 *         *interface = &table.m_base;
 *         *size = sizeof(table);
 *         return 0;
 *     }
 *
 * The library exports this one and kestal_plugin_uninitialize. Both run without any lock held, each once in a plugin's
 * life. initialize may load other plugins, not its own (that load fails), and must not create contexts. Operations run
 * in the thread that uses the context, several contexts at once in several threads. The table, and what initialize
 * stores, stay the plugin's and live until uninitialize returns.
 */
#ifndef KESTAL_ULX_PLUGIN_INTERFACE_H
#define KESTAL_ULX_PLUGIN_INTERFACE_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

struct kestal_ctx;

/** A plugin's program: arguments as of main, result as of main. */
typedef int (*kestal_main_entry_t)(int argc, char **argv);

/**
 * The base table. Each operation receives the context's record; one that a plugin does not have is null. Unless stated,
 * an operation returns 0 for success and -1 for failure, and sets the context's last error when it fails.
 */
typedef struct kestal_ctx0_v0_interface {
    uint32_t m_version;  /**< 1 */
    uint32_t m_size;     /**< size of the whole table in bytes */
    uint32_t m_revision; /**< 0 for this table, 1 for the extended one */
    uint32_t m_padding;  /**< 0 */

    /** 0: this plugin serves the context from now on. -1: refused; last error 3 lets the next plugin try. */
    int32_t (*m_open)(struct kestal_ctx *ctx);
    /** Ends what open began; the context is closed whatever is returned. */
    int32_t (*m_close)(struct kestal_ctx *ctx);
    /** The three control families: a code, then a pointer to its record and the record's size as a uint64_t. A plugin
     * that has one of the other two must have this one too. */
    int32_t (*m_vbcontrol)(struct kestal_ctx *ctx, uint32_t code, va_list arguments);
    /** The extended family. */
    int32_t (*m_vxcontrol)(struct kestal_ctx *ctx, uint32_t code, va_list arguments);
    /** The plain family. */
    int32_t (*m_vcontrol)(struct kestal_ctx *ctx, uint32_t code, va_list arguments);
    /** Waits up to `timeout` ms: positive when there is something to read or the end, 0 when there is not. */
    int32_t (*m_is_readable)(struct kestal_ctx *ctx, int32_t timeout);
    /** The number of bytes read, 0 at the end. */
    int64_t (*m_read)(struct kestal_ctx *ctx, void *buffer, uint64_t size);
    /** Waits up to `timeout` ms: positive when something can be written, 0 when it cannot. */
    int32_t (*m_is_writable)(struct kestal_ctx *ctx, int32_t timeout);
    /** The number of bytes written. */
    int64_t (*m_write)(struct kestal_ctx *ctx, const void *data, uint64_t size);
    /** The new position in bytes from the start; `whence` as of lseek. */
    int64_t (*m_seek)(struct kestal_ctx *ctx, int64_t offset, uint32_t whence);
    /** 0 when all that was written has gone on its way. */
    int32_t (*m_sync)(struct kestal_ctx *ctx);
    /** A value of the plugin's own, named by two words of its definition; its size goes to `size`, which is 0 before
     * and may be null. */
    void *(*m_get_env)(struct kestal_ctx *ctx, uint64_t a, uint64_t b, uint64_t *size);
    /** Sets a value of the plugin's own. */
    int32_t (*m_set_env)(struct kestal_ctx *ctx, uint64_t a, uint64_t b, uint64_t c, uint64_t d);
    /** The context's last error. */
    uint32_t (*m_get_last_error)(struct kestal_ctx *ctx);
    /** Sets it: 0, or -1. */
    int32_t (*m_set_last_error)(struct kestal_ctx *ctx, uint32_t code);
    /** Read from extended tables only. */
    kestal_main_entry_t m_main;
} kestal_ctx0_v0_interface_t;

/** The extended table: the base table, and room that is reserved and null. */
typedef struct kestal_ctx0_v1_interface {
    kestal_ctx0_v0_interface_t m_base; /**< as the base table */
    void *m_reserved[9];               /**< null */
} kestal_ctx0_v1_interface_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(offsetof(kestal_ctx0_v0_interface_t, m_open) == 16, "interface table");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx0_v0_interface_t) == 144, "interface table");
KESTAL_STATIC_ASSERT(sizeof(kestal_ctx0_v1_interface_t) == 216, "extended interface table");
#endif

/**
 * A plugin's first entry point: stores its MIME hint list (null: any type), its interface table and the size of the
 * table in bytes, all of which live until uninitialize returns. 0 for success; any other result fails the load.
 */
typedef int32_t (*kestal_plugin_initialize_t)(const char **mime_type_hint, const kestal_ctx0_v0_interface_t **interface,
                                              uint64_t *interface_size);

/** A plugin's last entry point. The result is ignored. */
typedef int32_t (*kestal_plugin_uninitialize_t)(void);

KESTAL_END_DECLS

#endif
