// The probes as tests hold them: in memory from the first use on, so that one can be set before it is loaded and read
// after.
#pragma once

#include "probe.h"
#include "support.hpp"

// Sets a probe anew: loaded, it offers this table (which must outlive it) for this hint list.
inline probe_t *set_probe(const char *name, const kestal_ctx0_v0_interface_t &table, const char *hint)
{
    void *library = kestal_open_dynamic_library(name, KESTAL_TEST_PLUGINS, KESTAL_DYNAMIC_LIBRARY_NOW);
    probe_t *probe = static_cast<probe_t *>(kestal_import_dynamic_library(library, "probe"));
    *probe = {nullptr, nullptr, hint, &table, table.m_size, 0, 0};
    return probe;
}

inline uint32_t load_probe(const char *name)
{
    return kestal_load_plugin_ex(name, KESTAL_TEST_PLUGINS, nullptr, nullptr);
}

// An extended table without operations.
inline kestal_ctx0_v1_interface_t empty_table()
{
    kestal_ctx0_v1_interface_t table{};
    table.m_base.m_version = table.m_base.m_revision = 1;
    table.m_base.m_size = sizeof(table);
    return table;
}
