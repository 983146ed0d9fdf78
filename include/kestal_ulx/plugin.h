/**
 * @file
 * The plugins' registry: shared objects, or entry points built into the library, that serve stream contexts. A plugin is
 * loaded by path, counted, and known by an id; loading the same library again (the same handle or the same base name)
 * gives the same id and counts one more use, and the last unload uninitialises and releases it. A null path is the
 * library's own built-in plugin. What a plugin consists of is told in plugin_interface.h.
 *
 * Any thread may call. Who loads a plugin that another thread is just initialising, or uninitialising, waits until that
 * is done. Names, hints and tables that calls return live as long as the plugin stays loaded: the caller keeps a use of
 * it, and closes the contexts that it serves before the last unload.
 */
#ifndef KESTAL_ULX_PLUGIN_H
#define KESTAL_ULX_PLUGIN_H

#include <kestal_ulx/base.h>
#include <kestal_ulx/instance.h>
#include <kestal_ulx/plugin_interface.h>
#include <kestal_ulx/spin_lock.h>

KESTAL_BEGIN_DECLS

/* --- the records */

/** initialize has succeeded: contexts may be opened. */
#define KESTAL_PLUGIN_INITIALIZED UINT32_C(0x00000001)
/** The entry points are built into the library. */
#define KESTAL_PLUGIN_BUILTIN UINT32_C(0x00000002)
/** The interface table is of a known version and revision, and whole. */
#define KESTAL_PLUGIN_INTERFACE_VALID UINT32_C(0x00010000)

/** A loaded plugin. */
typedef struct kestal_plugin {
    char m_magic[4];                  /**< "WULP", without a terminator */
    struct kestal_plugin *m_previous; /**< loaded after this one */
    struct kestal_plugin *m_next;     /**< loaded before this one */
    kestal_spin_lock_t m_lock; /**< exclusive to change count, flags and table, shared while a context calls in */
    uint32_t m_flags;          /**< KESTAL_PLUGIN_... */
    uint32_t m_id;             /**< registered with the type "application/ulx_base_plugin" */
    uint64_t m_used_count;     /**< loads not yet matched by unloads */
    void *m_library;           /**< null for a built-in plugin */
    char *m_path;              /**< as it was loaded */
    char *m_name;              /**< base name of the path; empty for the library's own plugin */
    kestal_plugin_initialize_t m_initialize;       /**< the entry point that makes it ready */
    kestal_plugin_uninitialize_t m_uninitialize;   /**< the entry point that ends it */
    const char *m_mime_type_hint;                  /**< this and the next two as initialize stored them */
    uint64_t m_interface_size;                     /**< bytes of the table */
    const kestal_ctx0_v0_interface_t *m_interface; /**< its operations */
    /* Private: how many of the list and of the threads in a load hold the record, the last of which releases it; the
     * thread that runs initialize or uninitialize, or will; and the order in which all are unloaded. */
    uint64_t m_holders;                     /**< private */
    uint64_t m_entry_thread;                /**< private */
    struct kestal_plugin *m_next_to_finish; /**< private */
} kestal_plugin_t;

/** The registry: loaded plugins, the newest first. Whoever holds both locks takes this one before a plugin's. */
typedef struct kestal_plugin_info {
    kestal_spin_lock_t m_lock;  /**< exclusive to load and unload, shared to walk the list */
    kestal_plugin_t *m_head;    /**< the plugin loaded last */
    kestal_plugin_t *m_leaving; /**< private: unlinked, and not yet uninitialised */
} kestal_plugin_info_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(offsetof(kestal_plugin_t, m_lock) == 24, "plugin");
KESTAL_STATIC_ASSERT(offsetof(kestal_plugin_t, m_used_count) == 64, "plugin");
KESTAL_STATIC_ASSERT(offsetof(kestal_plugin_t, m_interface) == 128, "plugin");
#endif

/* --- loading */

/** kestal_load_plugin_ex with the search path ".:/lib:/usr/lib:/lib64:/usr/lib64". */
KESTAL_API uint32_t kestal_load_plugin(const char *path, const char *initialize_name, const char *uninitialize_name);

/**
 * Loads a plugin, or counts one more use of it. `path` is a file name with a "/", a bare name that is looked for along
 * `search_path` (see kestal_open_dynamic_library), or null or empty for the built-in plugin. Null names mean
 * "kestal_plugin_initialize" and "kestal_plugin_uninitialize".
 *
 * Returns the id, or KESTAL_INVALID_ID with nothing left behind when the library or an entry point is not found,
 * initialize fails, or memory is short.
 */
KESTAL_API uint32_t kestal_load_plugin_ex(const char *path, const char *search_path, const char *initialize_name,
                                          const char *uninitialize_name);

/** kestal_load_plugin_ex that says why a load failed: `error` (of `error_size` bytes, may be null) receives a text, cut
 * to fit, or the empty text on success. */
KESTAL_API uint32_t kestal_load_plugin_ex2(const char *path, const char *search_path, const char *initialize_name,
                                           const char *uninitialize_name, char *error, uint64_t error_size);

/** Gives one load back; the last uninitialises and releases the plugin. Always returns KESTAL_INVALID_ID, to be stored
 * over the id. */
KESTAL_API uint32_t kestal_unload_plugin(uint32_t id);

/**
 * Uninitialises and releases every plugin, whatever its count, the newest first; a load that another thread is in then
 * fails. For the end of a program: contexts must be destroyed before. Returns 0.
 */
KESTAL_API int32_t kestal_unload_all_plugin(void);

/* --- queries: null (or the stated failure) for an id that is not a plugin's */

/** The base name of the plugin's path; empty for the library's own plugin. */
KESTAL_API const char *kestal_plugin_get_name(uint32_t id);

/** The plugin's MIME hint list, or null when it has none. */
KESTAL_API const char *kestal_plugin_get_mime_type_hint(uint32_t id);

/** The plugin's interface table, or null when it has none or one of less than 16 bytes. */
KESTAL_API const kestal_ctx0_v0_interface_t *kestal_plugin_get_interface(uint32_t id);

/** The registry, for who walks the list under its lock. Never null. */
KESTAL_API kestal_plugin_info_t *kestal_get_plugin_info(void);

/* --- plugins that are programs */

/** The main entry of the plugin's extended table, or null. */
KESTAL_API kestal_main_entry_t kestal_plugin_get_main_entry(uint32_t id);

/** 0 when the plugin has a main entry, else -1. */
KESTAL_API int32_t kestal_plugin_is_executable_main(uint32_t id);

/** Runs the plugin's main entry and returns its result; 1 when there is none. */
KESTAL_API int kestal_plugin_execute_main(uint32_t id, int argc, char **argv);

/** Loads a plugin as kestal_load_plugin does, runs its main entry and unloads it; 1 when the load fails. */
KESTAL_API int kestal_plugin_execute_main_by_plugin_name(const char *path, int argc, char **argv);

KESTAL_END_DECLS

#endif
