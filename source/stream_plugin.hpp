// What the plugins that are built into the library share: operations that are the same for all, and the plugin libraries
// that come with them.
#pragma once

#include <kestal_ulx/interface.h>
#include <kestal_ulx/plugin.h>

#include "guard.hpp"

namespace kestal {

// --- operations

template <typename Result>
Result refuse(kestal_ctx_t &ctx, Result failure)
{
    ctx.m_last_error = KESTAL_CTX_ERROR_NOT_SUPPORTED;
    return failure;
}

inline void *refuse_get_env(kestal_ctx_t *ctx, uint64_t, uint64_t, uint64_t *size)
{
    if (size != nullptr)
        *size = 0;
    return refuse(*ctx, static_cast<void *>(nullptr));
}

inline int32_t refuse_set_env(kestal_ctx_t *ctx, uint64_t, uint64_t, uint64_t, uint64_t)
{
    return refuse(*ctx, -1);
}

inline uint32_t get_last_error(kestal_ctx_t *ctx)
{
    return ctx->m_last_error;
}

inline int32_t set_last_error(kestal_ctx_t *ctx, uint32_t code)
{
    ctx->m_last_error = code;
    return 0;
}

// Opens by a function that gives the last error (0: open).
template <uint32_t (*Open)(kestal_ctx_t &ctx)>
int32_t open_by(kestal_ctx_t *ctx)
{
    ctx->m_last_error = Open(*ctx);
    return ctx->m_last_error == KESTAL_CTX_ERROR_NONE ? 0 : -1;
}

// A plugin's table: what is the same for all, and what fill(base table) sets.
template <typename Fill>
constexpr kestal_ctx0_v1_interface_t table_with(Fill fill)
{
    kestal_ctx0_v1_interface_t table = {};
    table.m_base.m_version = 1;
    table.m_base.m_size = sizeof table;
    table.m_base.m_revision = 1;
    table.m_base.m_get_env = refuse_get_env;
    table.m_base.m_set_env = refuse_set_env;
    table.m_base.m_get_last_error = get_last_error;
    table.m_base.m_set_last_error = set_last_error;
    fill(table.m_base);
    return table;
}

// --- the plugin libraries that come with a plugin, counted by its initialisations

class preloaded_plugins {
public:
    // A library that is not there is left out: streams over it are simply not supported.
    void load()
    {
        const short_lock_guard guard(lock_);
        ++use_count_;
        for (entry &plugin : plugins_)
            if (plugin.id == KESTAL_INVALID_ID)
                plugin.id = kestal_load_plugin(plugin.path, plugin.initialize_name, plugin.uninitialize_name);
    }

    // The last use unloads them.
    void unload()
    {
        const short_lock_guard guard(lock_);
        if (use_count_ == 0 || --use_count_ > 0)
            return;
        for (entry &plugin : plugins_)
            if (plugin.id != KESTAL_INVALID_ID)
                plugin.id = kestal_unload_plugin(plugin.id);
    }

private:
    struct entry {
        const char *path;
        const char *initialize_name;
        const char *uninitialize_name;
        uint32_t id;
    };

    kestal_short_lock_t lock_ = 0;
    uint32_t use_count_ = 0;
    entry plugins_[1] = {{"kestal_plugin_curl.so", nullptr, nullptr, KESTAL_INVALID_ID}};
};

// Answers an initialisation; the plugin libraries come with it.
inline int32_t initialize_plugin(const char *hint_list, const kestal_ctx0_v1_interface_t &table,
                                 preloaded_plugins &preloaded, const char **mime_type_hint,
                                 const kestal_ctx0_v0_interface_t **interface, uint64_t *interface_size)
{
    if (interface == nullptr || interface_size == nullptr)
        return -1;
    if (mime_type_hint != nullptr)
        *mime_type_hint = hint_list;
    *interface = &table.m_base;
    *interface_size = sizeof table;
    preloaded.load();
    return 0;
}

} // namespace kestal
