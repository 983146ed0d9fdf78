// What the rooms of the SSDP listener share.
#pragma once

#include <kestal_ulx/output.h>
#include <kestal_ulx/ssdp.h>

namespace kestal {

inline bool is_verbose(kestal_ssdp_t &ssdp)
{
    return kestal_ssdp_get_option_int(&ssdp, 0, "verbose", 0) != 0;
}

// Messages go to standard output, errors and warnings to the error sink.

template <typename... Arguments>
void trace(kestal_ssdp_t &ssdp, const char *format, Arguments... arguments)
{
    if (is_verbose(ssdp))
        kestal_printf(format, arguments...);
}

template <typename... Arguments>
void trace_error(kestal_ssdp_t &ssdp, const char *format, Arguments... arguments)
{
    if (is_verbose(ssdp))
        kestal_error_printf(format, arguments...);
}

inline const char *text_of(const kestal_value_node_t &value)
{
    return value.m_size == 0 ? "" : static_cast<const char *>(value.m_data);
}

// Calls visit(text) for each value of an option, in order.
template <typename Visit>
void each_value(kestal_ssdp_t &ssdp, const char *name, Visit visit)
{
    const kestal_value_node_t *node = kestal_ssdp_get_option_node(&ssdp, 0, name);
    for (; node != nullptr; node = kestal_search_value_node_by_name(node->m_next, 0, name))
        visit(text_of(*node));
}

// Opens a socket for each value of the port options, in the order of the options, and appends it to the list.
void open_ssdp_sockets(kestal_ssdp_t &ssdp);

void close_ssdp_sockets(kestal_ssdp_t &ssdp);

// Has every socket join (or leave) its groups on an interface.
void join_ssdp_groups(kestal_ssdp_t &ssdp, uint32_t interface_index, bool join);

// Handles the scan event: looks for interfaces that are new or changed.
void handle_ssdp_scan(kestal_event_t *event, int32_t descriptor, uint32_t what, void *context);

// Opens the terminal, whose keys ESC and q are to end the run.
void open_ssdp_keys(kestal_ssdp_t &ssdp);

} // namespace kestal
