#include "ssdp.hpp"

#include "caller_text.hpp"
#include "list.hpp"

#include <kestal_ulx/address.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/multicast.h>
#include <kestal_ulx/socket.h>

#include <errno.h>
#include <netinet/in.h>
#include <string.h>

namespace {

using kestal::or_empty;
using kestal::trace;
using kestal::trace_error;

constexpr size_t longest_message = 1536; // bytes; of a longer datagram the beginning
constexpr int32_t quiet_ms = 1800000;

// What the two families differ in.
struct family {
    uint32_t kind;
    int32_t domain;
    const char *any_address;
    const char *port_option;
    const char *group_option;
};

constexpr family families[] = {
    {KESTAL_SSDP_FAMILY_IPV4, AF_INET, "0.0.0.0", "multicast_ipv4_port", "multicast_ipv4_address"},
    {KESTAL_SSDP_FAMILY_IPV6, AF_INET6, "::", "multicast_ipv6_port", "multicast_ipv6_address"},
};

const family &family_of(const kestal_ssdp_socket_t &socket)
{
    return families[socket.m_family == KESTAL_SSDP_FAMILY_IPV6 ? 1 : 0];
}

// An address for a trace.
struct address_text {
    explicit address_text(const void *address) { kestal_inet_stopp(address, text, sizeof text, &port); }
    char text[KESTAL_ADDRESS_TEXT_SIZE] = "";
    uint32_t port = 0;
};

kestal::doubly_linked_list sockets_of(kestal_ssdp_t &ssdp)
{
    return {&ssdp.m_head, &ssdp.m_tail, KESTAL_LINKS(kestal_ssdp_socket_t, m_previous, m_next)};
}

void report_empty(kestal_ssdp_t &ssdp, const char *option)
{
    trace_error(ssdp, "ssdp: [WARNING] \033[1;31m%s option is empty !\033[0m\n", option);
}

void report_invalid(kestal_ssdp_t &ssdp, const char *option, const char *value)
{
    trace_error(ssdp, "ssdp: [WARNING] \033[1;31minvalid %s option !\033[0m (value=\"\033[1;37m%s\033[0m\")\n", option,
                value);
}

// --- groups

void join_group(kestal_ssdp_socket_t &socket, const char *group, uint32_t interface_index, bool join)
{
    const family &its = family_of(socket);
    if (*group == '\0') {
        report_empty(*socket.m_ssdp, its.group_option);
        return;
    }
    sockaddr_storage address;
    if (kestal_inet_ptos(its.domain, group, 0, &address, sizeof address) != 0) {
        report_invalid(*socket.m_ssdp, its.group_option, group);
        return;
    }
    const int32_t result = kestal_multicast_join(socket.m_socket, &address, nullptr, interface_index, join ? 1 : 0);
    if (!join || (result != 0 && errno != EADDRINUSE)) // in use: it was a member already
        return;
    const address_text bound(&socket.m_bind_address);
    trace(*socket.m_ssdp,
          "ssdp: [MESSAGE] \033[1;34mmulticast join.\033[0m(bind_address=\"\033[1;37m%s\033[0m\", "
          "bind_port=\033[1;37m%d\033[0m, multicast_zone=\"\033[1;37m%s\033[0m\", "
          "network_interface_index=\033[1;37m%u\033[0m\n",
          bound.text, bound.port, group, interface_index);
}

void join_groups(kestal_ssdp_socket_t &socket, uint32_t interface_index, bool join)
{
    kestal::each_value(*socket.m_ssdp, family_of(socket).group_option,
                       [&](const char *group) { join_group(socket, group, interface_index, join); });
}

// --- messages

void trace_failure(kestal_ssdp_socket_t &socket, const sockaddr_storage &sender)
{
    const address_text bound(&socket.m_bind_address), from(&sender);
    trace_error(*socket.m_ssdp,
                "ssdp: [ERROR] \033[1;31mrecv multicast event failed !\033[0m (\033[1;37m%ld\033[0m bytes, "
                "bind_address=\"\033[1;37m%s\033[0m\", bind_port=\033[1;37m%d\033[0m, "
                "from_address=\"\033[1;37m%s\033[0m\", from_port=\033[1;37m%d\033[0m)\n",
                int64_t{-1}, bound.text, bound.port, from.text, from.port);
}

void trace_message(kestal_ssdp_socket_t &socket, const char *datagram, int64_t size, const sockaddr_storage &sender)
{
    kestal_ssdp_t &ssdp = *socket.m_ssdp;
    kestal_http_parser_t *parser = ssdp.m_http_parser;
    const address_text bound(&socket.m_bind_address), from(&sender);
    const char *head = kestal_get_output_http_parser(parser, nullptr);
    switch (kestal_http_parser_get_header_type(parser)) {
    case KESTAL_HTTP_NODE_REQUEST:
        trace(ssdp,
              "ssdp: [MESSAGE] \033[1;34mrecv multicast event.\033[0m (method=\"\033[1;37m%s\033[0m\", "
              "\033[1;37m%ld\033[0m bytes, bind_address=\"\033[1;37m%s\033[0m\", bind_port=\033[1;37m%d\033[0m, "
              "from_address=\"\033[1;37m%s\033[0m\", from_port=\033[1;37m%d\033[0m) {\n%s}\n",
              or_empty(kestal_http_parser_get_method(parser)), size, bound.text, bound.port, from.text, from.port,
              or_empty(head));
        break;
    case KESTAL_HTTP_NODE_STATUS:
        trace(ssdp,
              "ssdp: [MESSAGE] \033[1;34mrecv multicast event.\033[0m (status-code=\033[1;37m%03u\033[0m, "
              "\033[1;37m%ld\033[0m bytes, bind_address=\"\033[1;37m%s\033[0m\", bind_port=\033[1;37m%d\033[0m, "
              "from_address=\"\033[1;37m%s\033[0m\", from_port=\033[1;37m%d\033[0m) {\n%s}\n",
              kestal_http_parser_get_status_code(parser), size, bound.text, bound.port, from.text, from.port,
              or_empty(head));
        break;
    default:
        trace_error(ssdp,
                    "ssdp: [WARNING] \033[1;31mrecv multicast event.\033[0m (\033[1;31munknown-header\033[0m, "
                    "\033[1;37m%ld\033[0m bytes, bind_address=\"\033[1;37m%s\033[0m\", bind_port=\033[1;37m%d\033[0m, "
                    "from_address=\"\033[1;37m%s\033[0m\", from_port=\033[1;37m%d\033[0m) {\n%s}\n",
                    size, bound.text, bound.port, from.text, from.port, datagram);
        break;
    }
}

void receive(kestal_ssdp_socket_t &socket)
{
    kestal_ssdp_t &ssdp = *socket.m_ssdp;
    char datagram[longest_message + 1];
    sockaddr_storage sender{};
    uint32_t length = sizeof sender;
    const int32_t size =
        kestal_sys_recvfrom(socket.m_socket, datagram, longest_message, MSG_DONTWAIT, &sender, &length);
    if (size < 0) {
        if (errno != EAGAIN && errno != EINTR)
            trace_failure(socket, sender);
        return;
    }
    datagram[size] = '\0';
    kestal_reset_http_parser(ssdp.m_http_parser);
    kestal_push_http_parser(ssdp.m_http_parser, datagram, static_cast<uint64_t>(size));
    if (kestal::is_verbose(ssdp))
        trace_message(socket, datagram, size, sender);
    if (ssdp.m_handler != nullptr)
        ssdp.m_handler(&ssdp, ssdp.m_http_parser, &sender, ssdp.m_handler_context);
}

void handle_socket(kestal_event_t *, int32_t, uint32_t what, void *context)
{
    auto &socket = *static_cast<kestal_ssdp_socket_t *>(context);
    if ((what & KESTAL_EVENT_READ) != 0) {
        receive(socket);
        return;
    }
    if ((what & KESTAL_EVENT_UNASSIGNED) != 0) {
        kestal_close_socket(socket.m_socket);
        socket.m_socket = KESTAL_INVALID_SOCKET;
    }
    const char *const happened = (what & KESTAL_EVENT_UNASSIGNED) != 0 ? "unassign"
                                 : (what & KESTAL_EVENT_ASSIGNED) != 0 ? "assign"
                                                                       : "timeout";
    const address_text bound(&socket.m_bind_address);
    trace(*socket.m_ssdp,
          "ssdp: [MESSAGE] \033[1;34m%s multicast event.\033[0m (bind_address=\"\033[1;37m%s\033[0m\", "
          "bind_port=\033[1;37m%d\033[0m)\n",
          happened, bound.text, bound.port);
}

// --- sockets

void free_socket(kestal_ssdp_socket_t *socket)
{
    if (socket->m_event.m_base != nullptr)
        kestal_unassign_event(&socket->m_event); // its handler closes the socket
    else if (socket->m_socket != KESTAL_INVALID_SOCKET)
        kestal_close_socket(socket->m_socket);
    kestal_free_tag(socket, "__kestal_ssdp_free_event", __LINE__);
}

// A port of 1 to 65535, or 0.
uint32_t read_port(const char *text)
{
    uint32_t port = 0;
    for (; *text >= '0' && *text <= '9' && port <= UINT16_MAX; ++text)
        port = port * 10 + static_cast<uint32_t>(*text - '0');
    return *text == '\0' && port <= UINT16_MAX ? port : 0;
}

// Opens a record's socket and has it served. The step that failed, or null.
const char *prepare_socket(kestal_ssdp_socket_t &socket, uint32_t port)
{
    const family &its = family_of(socket);
    if (kestal_inet_ptos(its.domain, its.any_address, port, &socket.m_bind_address, sizeof socket.m_bind_address) != 0)
        return "kestal_inet_ptos";
    socket.m_socket = ::socket(its.domain, SOCK_DGRAM | SOCK_CLOEXEC, kestal_get_protocol_by_name("udp"));
    if (socket.m_socket == KESTAL_INVALID_SOCKET)
        return "socket open";
    const int32_t on = 1;
    if (its.domain == AF_INET6)
        kestal_setsockopt(socket.m_socket, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    kestal_set_reuse_address_socket(socket.m_socket, 1);
    if (kestal_bind(socket.m_socket, &socket.m_bind_address, kestal_sockaddr_size(&socket.m_bind_address)) != 0)
        return "bind";
    join_groups(socket, 0, true);
    if (kestal_assign_event(socket.m_ssdp->m_event_base, &socket.m_event, socket.m_socket,
                            KESTAL_EVENT_READ | KESTAL_EVENT_PERSIST, handle_socket, &socket) != 0)
        return "assign event";
    return kestal_add_event(&socket.m_event, quiet_ms) != 0 ? "add event" : nullptr;
}

void open_socket(kestal_ssdp_t &ssdp, const family &its, const char *value)
{
    if (*value == '\0') {
        report_empty(ssdp, its.port_option);
        return;
    }
    const uint32_t port = read_port(value);
    if (port == 0) {
        report_invalid(ssdp, its.port_option, value);
        return;
    }
    auto *socket = static_cast<kestal_ssdp_socket_t *>(
        kestal_calloc_tag(1, sizeof(kestal_ssdp_socket_t), "__kestal_ssdp_new_event", __LINE__));
    if (socket == nullptr)
        return;
    socket->m_ssdp = &ssdp;
    socket->m_family = its.kind;
    socket->m_socket = KESTAL_INVALID_SOCKET;
    const char *failed_step = prepare_socket(*socket, port);
    if (failed_step == nullptr) {
        sockets_of(ssdp).append(socket);
        return;
    }
    trace_error(ssdp, "ssdp: [ERROR] \033[1;31m%s option: %s failed  !\033[0m (value=\"\033[1;37m%s\033[0m\")\n",
                its.port_option, failed_step, value);
    free_socket(socket);
}

} // namespace

void kestal::open_ssdp_sockets(kestal_ssdp_t &ssdp)
{
    for (const kestal_value_node_t *node = ssdp.m_options.m_head; node != nullptr; node = node->m_next)
        for (const family &each : families)
            if (node->m_name != nullptr && strcasecmp(node->m_name, each.port_option) == 0)
                open_socket(ssdp, each, text_of(*node));
}

void kestal::close_ssdp_sockets(kestal_ssdp_t &ssdp)
{
    while (kestal_ssdp_socket_t *socket = ssdp.m_head) {
        sockets_of(ssdp).remove(socket);
        free_socket(socket);
    }
}

void kestal::join_ssdp_groups(kestal_ssdp_t &ssdp, uint32_t interface_index, bool join)
{
    for (kestal_ssdp_socket_t *socket = ssdp.m_head; socket != nullptr; socket = socket->m_next)
        join_groups(*socket, interface_index, join);
}
