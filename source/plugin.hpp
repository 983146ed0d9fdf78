// What the loader and the built-in plugins know of each other.
#pragma once

#include <kestal_ulx/plugin.h>

namespace kestal {

// A plugin whose entry points are built in: loading its name takes them instead of a library.
struct builtin_plugin_node {
    const builtin_plugin_node *next;
    const char *name; // null is the empty name, that of the library's own plugin
    kestal_plugin_initialize_t initialize;
    kestal_plugin_uninitialize_t uninitialize;
};

// The built-in plugins, defined where they are: above the loader.
extern const builtin_plugin_node *const builtin_plugins;

} // namespace kestal
