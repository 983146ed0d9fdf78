#include "plugin.hpp"

#include "guard.hpp"
#include "instance.hpp"
#include "lock_guard.hpp"

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/dynamic_library.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/list.h>
#include <kestal_ulx/text.h>
#include <kestal_ulx/thread.h>

#include <string.h>
#include <utility>

namespace {

using kestal::exclusive_spin_guard;
using kestal::shared_spin_guard;

constexpr char plugin_mime_type[] = "application/ulx_base_plugin";
constexpr char default_search_path[] = ".:/lib:/usr/lib:/lib64:/usr/lib64";
constexpr char magic[] = {'W', 'U', 'L', 'P'};

constinit kestal_plugin_info_t registry{};

struct load_request {
    const char *path;
    const char *search_path;
    const char *initialize_name;
    const char *uninitialize_name;
    char *error; // where the caller wants to read why; a size of 0 for nowhere
    uint64_t error_size;
};

void report(const load_request &request, const char *text)
{
    const char *subject = request.path[0] == '\0' ? "built-in plugin" : request.path;
    kestal_snprintf(request.error, request.error_size, "%s: %s", subject, text);
}

bool is_initialized(const kestal_plugin_t &plugin)
{
    return (plugin.m_flags & KESTAL_PLUGIN_INITIALIZED) != 0;
}

kestal_plugin_t *find_plugin(uint32_t id)
{
    auto *plugin = static_cast<kestal_plugin_t *>(kestal::find_ginstance(id, plugin_mime_type));
    return plugin != nullptr && memcmp(plugin->m_magic, magic, sizeof magic) == 0 ? plugin : nullptr;
}

// --- records that no list holds

// A record in one block with its two texts, or null.
kestal_plugin_t *new_plugin(const char *path)
{
    const kestal::owned_block<char> name(kestal_alloc_basename(path), __func__);
    if (!name)
        return nullptr;
    const size_t path_size = strlen(path) + 1, name_size = strlen(name.get()) + 1;
    auto *plugin =
        static_cast<kestal_plugin_t *>(kestal_calloc(1, uint64_t{sizeof(kestal_plugin_t)} + path_size + name_size));
    if (plugin == nullptr)
        return nullptr;
    memcpy(plugin->m_magic, magic, sizeof magic);
    plugin->m_path = static_cast<char *>(memcpy(plugin + 1, path, path_size));
    plugin->m_name = static_cast<char *>(memcpy(plugin->m_path + path_size, name.get(), name_size));
    plugin->m_id = KESTAL_INVALID_ID;
    plugin->m_used_count = 1;
    kestal_init_spin_lock(&plugin->m_lock);
    return plugin;
}

void free_plugin(kestal_plugin_t *plugin)
{
    kestal_close_dynamic_library(plugin->m_library);
    if (plugin->m_id != KESTAL_INVALID_ID)
        kestal_ginstance_delete(plugin->m_id);
    kestal_uninit_spin_lock(&plugin->m_lock);
    memset(plugin->m_magic, 0, sizeof plugin->m_magic);
    kestal_free(plugin);
}

const kestal::builtin_plugin_node *find_builtin(const char *name)
{
    const kestal::builtin_plugin_node *node = kestal::builtin_plugins;
    while (node != nullptr && strcmp(node->name == nullptr ? "" : node->name, name) != 0)
        node = node->next;
    return node;
}

template <typename EntryPoint>
EntryPoint import_entry_point(void *library, const char *name, const char *otherwise)
{
    return reinterpret_cast<EntryPoint>(kestal_import_dynamic_library(library, name == nullptr ? otherwise : name));
}

// Takes the entry points from the built-in list, or from the library; a library may turn out to lack them.
bool find_entry_points(kestal_plugin_t &plugin, const load_request &request)
{
    if (const kestal::builtin_plugin_node *node = find_builtin(plugin.m_name)) {
        plugin.m_flags |= KESTAL_PLUGIN_BUILTIN;
        plugin.m_initialize = node->initialize;
        plugin.m_uninitialize = node->uninitialize;
        return true;
    }
    plugin.m_library = kestal_open_dynamic_library_ex(request.path, request.search_path,
                                                      KESTAL_DYNAMIC_LIBRARY_NOW | KESTAL_DYNAMIC_LIBRARY_LOCAL,
                                                      request.error, request.error_size);
    if (plugin.m_library == nullptr)
        return false;
    plugin.m_initialize = import_entry_point<kestal_plugin_initialize_t>(plugin.m_library, request.initialize_name,
                                                                         "kestal_plugin_initialize");
    plugin.m_uninitialize = import_entry_point<kestal_plugin_uninitialize_t>(
        plugin.m_library, request.uninitialize_name, "kestal_plugin_uninitialize");
    return true;
}

kestal_plugin_t *open_plugin(const load_request &request)
{
    kestal_plugin_t *plugin = new_plugin(request.path);
    if (plugin == nullptr) {
        report(request, "not enough memory");
        return nullptr;
    }
    if (!find_entry_points(*plugin, request)) {
        free_plugin(plugin);
        return nullptr;
    }
    return plugin;
}

// --- the lists: under the registry's exclusive lock

void put_on(kestal_plugin_t *&head, kestal_plugin_t &plugin)
{
    kestal_doubly_linked_list_prepend(&head, nullptr, &plugin, KESTAL_LINKS(kestal_plugin_t, m_previous, m_next));
}

void take_off(kestal_plugin_t *&head, kestal_plugin_t &plugin)
{
    kestal_doubly_linked_list_delete(&head, nullptr, &plugin, KESTAL_LINKS(kestal_plugin_t, m_previous, m_next));
}

bool is_same(const kestal_plugin_t &plugin, const kestal_plugin_t &fresh)
{
    if (fresh.m_library != nullptr && plugin.m_library == fresh.m_library)
        return true;
    return strcmp(plugin.m_name, fresh.m_name) == 0 && (fresh.m_library != nullptr || plugin.m_library == nullptr);
}

kestal_plugin_t *find_same(kestal_plugin_t *plugin, const kestal_plugin_t &fresh)
{
    while (plugin != nullptr && !is_same(*plugin, fresh))
        plugin = plugin->m_next;
    return plugin;
}

// Takes a plugin out of use, under its lock too. It is on record until it is uninitialised: a new load of it must wait
// that long. Its id leads nowhere from now on, but is not free before the record is: who still has the number, like a
// plugin that loaded another, reaches no stranger with it.
void detach(kestal_plugin_t &plugin)
{
    plugin.m_used_count = 0;
    take_off(registry.m_head, plugin);
    put_on(registry.m_leaving, plugin);
    kestal_ginstance_set(plugin.m_id, nullptr, nullptr);
    --plugin.m_holders;
}

// True when nobody holds the detached plugin any more: the caller then finishes it, outside the locks.
bool claim_if_unheld(kestal_plugin_t &plugin)
{
    if (plugin.m_holders != 0)
        return false;
    plugin.m_entry_thread = kestal_get_thread_id();
    return true;
}

void uninitialize(kestal_plugin_t &plugin)
{
    if (is_initialized(plugin))
        plugin.m_uninitialize();
    const exclusive_spin_guard guard(registry.m_lock);
    take_off(registry.m_leaving, plugin);
}

void finish(kestal_plugin_t &plugin)
{
    uninitialize(plugin);
    free_plugin(&plugin);
}

// --- steps of a load

// Puts a fresh record at the head of the list, held by the list and by this thread, which initialises it.
bool add(kestal_plugin_t &fresh, const load_request &request)
{
    if (fresh.m_initialize == nullptr || fresh.m_uninitialize == nullptr) {
        report(request, fresh.m_initialize == nullptr ? "initialize entry point not found"
                                                      : "uninitialize entry point not found");
        return false;
    }
    fresh.m_id = kestal_ginstance_new_ex(&fresh, plugin_mime_type, nullptr);
    if (fresh.m_id == KESTAL_INVALID_ID) {
        report(request, "not enough memory");
        return false;
    }
    fresh.m_entry_thread = kestal_get_thread_id();
    fresh.m_holders = 2;
    put_on(registry.m_head, fresh);
    return true;
}

// Counts one more use of a loaded plugin. Returns it, held, when its initialisation must be waited for, else null.
kestal_plugin_t *join(kestal_plugin_t &loaded, const load_request &request, uint32_t &id)
{
    const exclusive_spin_guard guard(loaded.m_lock);
    if (!is_initialized(loaded) && loaded.m_entry_thread == kestal_get_thread_id()) {
        report(request, "loaded by its own initialize");
        return nullptr;
    }
    ++loaded.m_used_count;
    if (is_initialized(loaded)) {
        id = loaded.m_id;
        return nullptr;
    }
    ++loaded.m_holders;
    return &loaded;
}

// Brings a fresh record into the registry. Returns it when it is to be initialised, another one when that one's
// initialisation is to be waited for, and null when the load is over, with `id` as its result.
kestal_plugin_t *enter(kestal_plugin_t &fresh, const load_request &request, uint32_t &id)
{
    for (;; kestal_load_balance_short()) {
        const exclusive_spin_guard guard(registry.m_lock);
        if (kestal_plugin_t *loaded = find_same(registry.m_head, fresh))
            return join(*loaded, request, id);
        const kestal_plugin_t *leaving = find_same(registry.m_leaving, fresh);
        if (leaving == nullptr)
            return add(fresh, request) ? &fresh : nullptr;
        if (leaving->m_entry_thread == kestal_get_thread_id()) {
            report(request, "being unloaded in this thread");
            return nullptr;
        }
    }
}

// Ends this thread's hold on a plugin in a load.
void let_go(kestal_plugin_t &plugin)
{
    bool claimed = false;
    {
        const exclusive_spin_guard guard(registry.m_lock);
        --plugin.m_holders;
        claimed = claim_if_unheld(plugin);
    }
    if (claimed)
        finish(plugin);
}

// True once the plugin is initialised, false when it was taken out of use before.
bool wait_until_initialized(kestal_plugin_t &plugin)
{
    for (;; kestal_load_balance_short()) {
        const shared_spin_guard guard(plugin.m_lock);
        if (plugin.m_used_count == 0)
            return false;
        if (is_initialized(plugin))
            return true;
    }
}

uint32_t await(kestal_plugin_t &plugin, const load_request &request)
{
    uint32_t id = KESTAL_INVALID_ID;
    if (wait_until_initialized(plugin))
        id = plugin.m_id;
    else
        report(request, "initialize failed in another thread");
    let_go(plugin);
    return id;
}

bool is_valid_interface(const kestal_ctx0_v0_interface_t *interface, uint64_t size)
{
    if (interface == nullptr || size < sizeof(kestal_ctx0_v0_interface_t) || interface->m_version != 1)
        return false;
    return interface->m_revision == 0 || (interface->m_revision == 1 && size >= sizeof(kestal_ctx0_v1_interface_t));
}

uint32_t initialize(kestal_plugin_t &plugin, const load_request &request)
{
    const char *hint = nullptr;
    const kestal_ctx0_v0_interface_t *interface = nullptr;
    uint64_t size = 0;
    const int32_t result = plugin.m_initialize(&hint, &interface, &size);

    uint32_t id = plugin.m_id;
    {
        const exclusive_spin_guard guard(registry.m_lock);
        const exclusive_spin_guard plugin_guard(plugin.m_lock);
        plugin.m_entry_thread = 0;
        if (result == 0) {
            plugin.m_mime_type_hint = hint;
            plugin.m_interface_size = size;
            plugin.m_interface = interface;
            plugin.m_flags |= KESTAL_PLUGIN_INITIALIZED;
            if (is_valid_interface(interface, size))
                plugin.m_flags |= KESTAL_PLUGIN_INTERFACE_VALID;
        } else if (plugin.m_used_count != 0) {
            detach(plugin); // whoever waits for it finds it out of use
        }
        if (plugin.m_used_count == 0)
            id = KESTAL_INVALID_ID;
    }
    if (id == KESTAL_INVALID_ID)
        report(request, result == 0 ? "unloaded while it was loading" : "initialize failed");
    let_go(plugin);
    return id;
}

// Takes every plugin out of use. Returns those that no load holds, chained from the newest on.
kestal_plugin_t *detach_all()
{
    kestal_plugin_t *newest = nullptr;
    kestal_plugin_t **end = &newest;
    const exclusive_spin_guard guard(registry.m_lock);
    while (registry.m_head != nullptr) {
        kestal_plugin_t &plugin = *registry.m_head;
        const exclusive_spin_guard plugin_guard(plugin.m_lock);
        detach(plugin);
        if (!claim_if_unheld(plugin))
            continue;
        *end = &plugin;
        end = &plugin.m_next_to_finish;
    }
    return newest;
}

} // namespace

uint32_t kestal_load_plugin(const char *path, const char *initialize_name, const char *uninitialize_name)
{
    return kestal_load_plugin_ex(path, default_search_path, initialize_name, uninitialize_name);
}

uint32_t kestal_load_plugin_ex(const char *path, const char *search_path, const char *initialize_name,
                               const char *uninitialize_name)
{
    return kestal_load_plugin_ex2(path, search_path, initialize_name, uninitialize_name, nullptr, 0);
}

uint32_t kestal_load_plugin_ex2(const char *path, const char *search_path, const char *initialize_name,
                                const char *uninitialize_name, char *error, uint64_t error_size)
{
    const load_request request = {path == nullptr ? "" : path, search_path, initialize_name,
                                  uninitialize_name,           error,       error == nullptr ? 0 : error_size};
    if (request.error_size > 0)
        request.error[0] = '\0';
    kestal_plugin_t *fresh = open_plugin(request);
    if (fresh == nullptr)
        return KESTAL_INVALID_ID;

    uint32_t id = KESTAL_INVALID_ID;
    kestal_plugin_t *plugin = enter(*fresh, request, id);
    if (plugin == fresh)
        return initialize(*fresh, request);
    free_plugin(fresh);
    return plugin == nullptr ? id : await(*plugin, request);
}

uint32_t kestal_unload_plugin(uint32_t id)
{
    kestal_plugin_t *plugin = nullptr;
    {
        const exclusive_spin_guard guard(registry.m_lock);
        plugin = find_plugin(id);
        if (plugin == nullptr)
            return KESTAL_INVALID_ID;
        const exclusive_spin_guard plugin_guard(plugin->m_lock);
        if (plugin->m_used_count == 0)
            kestal_assert_fail_tag("./source/plugin", __func__, __LINE__,
                                   "s_plugin->m_used_count > ((kestal_uintmax_t)0u)");
        else
            --plugin->m_used_count;
        if (plugin->m_used_count != 0)
            return KESTAL_INVALID_ID;
        detach(*plugin);
        if (!claim_if_unheld(*plugin))
            return KESTAL_INVALID_ID;
    }
    finish(*plugin);
    return KESTAL_INVALID_ID;
}

int32_t kestal_unload_all_plugin(void)
{
    kestal_plugin_t *detached = detach_all();
    for (kestal_plugin_t *plugin = detached; plugin != nullptr; plugin = plugin->m_next_to_finish)
        uninitialize(*plugin);
    // Only now: a plugin that unloads another one by its id must not meet a new owner of that id.
    while (detached != nullptr)
        free_plugin(std::exchange(detached, detached->m_next_to_finish));
    return 0;
}

const char *kestal_plugin_get_name(uint32_t id)
{
    const kestal_plugin_t *plugin = find_plugin(id);
    return plugin == nullptr ? nullptr : plugin->m_name;
}

const char *kestal_plugin_get_mime_type_hint(uint32_t id)
{
    kestal_plugin_t *plugin = find_plugin(id);
    if (plugin == nullptr)
        return nullptr;
    const shared_spin_guard guard(plugin->m_lock);
    return plugin->m_mime_type_hint;
}

const kestal_ctx0_v0_interface_t *kestal_plugin_get_interface(uint32_t id)
{
    kestal_plugin_t *plugin = find_plugin(id);
    if (plugin == nullptr)
        return nullptr;
    const shared_spin_guard guard(plugin->m_lock);
    constexpr uint64_t header_size = offsetof(kestal_ctx0_v0_interface_t, m_open);
    return plugin->m_interface_size < header_size ? nullptr : plugin->m_interface;
}

kestal_plugin_info_t *kestal_get_plugin_info(void)
{
    return &registry;
}

kestal_main_entry_t kestal_plugin_get_main_entry(uint32_t id)
{
    const kestal_ctx0_v0_interface_t *interface = kestal_plugin_get_interface(id);
    if (interface == nullptr || interface->m_version != 1 || interface->m_revision == 0)
        return nullptr;
    // Reported, and read all the same: the entry stands where the base table has room for it.
    if (interface->m_size < sizeof(kestal_ctx0_v1_interface_t))
        kestal_assert_fail_tag("./source/plugin", __func__, __LINE__,
                               "s_interface_header->m_size >= sizeof(kestal_ctx0_v1_interface_t)");
    return interface->m_main;
}

int32_t kestal_plugin_is_executable_main(uint32_t id)
{
    return kestal_plugin_get_main_entry(id) == nullptr ? -1 : 0;
}

int kestal_plugin_execute_main(uint32_t id, int argc, char **argv)
{
    const kestal_main_entry_t entry = kestal_plugin_get_main_entry(id);
    return entry == nullptr ? 1 : entry(argc, argv);
}

int kestal_plugin_execute_main_by_plugin_name(const char *path, int argc, char **argv)
{
    const uint32_t id = kestal_load_plugin(path, nullptr, nullptr);
    if (id == KESTAL_INVALID_ID)
        return 1;
    const int result = kestal_plugin_execute_main(id, argc, argv);
    kestal_unload_plugin(id);
    return result;
}
