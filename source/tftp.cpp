#include <kestal_ulx/tftp.h>

#include <kestal_ulx/address.h>
#include <kestal_ulx/assertion.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/resolver.h>
#include <kestal_ulx/socket.h>

#include "deadline.hpp"
#include "failure.hpp"
#include "guard.hpp"
#include "uri.hpp"

#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>

namespace {

using kestal::deadline;
using kestal::fail_with;
using kestal::owned_block;
using kestal::owned_descriptor;

constexpr char local_machine[] = "tftp://localhost";
constexpr int32_t resolver_timeout_ms = 60000;
constexpr int32_t hop_limit = 64;
constexpr int32_t receive_buffer_size = 0x100000;
constexpr uint32_t most_waiting = 4096; // packets, more than a socket holds
constexpr uint32_t most_repeats = 64;   // of blocks, that a read gives new time for

enum opcode : uint16_t { read_request = 1, write_request, data, acknowledgement, refusal };
constexpr int32_t header_size = 4; // opcode, and a block number or an error code

struct peer_address {
    sockaddr_storage address;
    uint32_t length;
};

// A transfer, and what it keeps to itself.
struct own_transfer : kestal_tftp_t {
    bool has_requested; // through the socket's port
    peer_address peer;  // whose blocks are taken, over datagrams; length 0: nobody has sent one yet
};

own_transfer &own(kestal_tftp_t &tftp)
{
    return static_cast<own_transfer &>(tftp);
}

void store_16(uint8_t *to, uint32_t number)
{
    to[0] = static_cast<uint8_t>(number >> 8);
    to[1] = static_cast<uint8_t>(number);
}

uint32_t load_16(const uint8_t *from)
{
    return static_cast<uint32_t>(from[0] << 8 | from[1]);
}

// --- opening

int32_t port_of(const kestal_uri_t &uri, const char *protocol)
{
    if (uri.m_port > 0)
        return uri.m_port;
    const int32_t port = kestal_get_service_by_name("tftp", protocol);
    return port > 0 ? port : KESTAL_TFTP_PORT;
}

bool set_options(int32_t sock, const kestal_tftp_t &tftp, int32_t family)
{
    if (tftp.m_stream == 0 && kestal_hops_socket(sock, hop_limit, 0) < 0)
        return false;
    const int on = 1;
    if (family == AF_INET6 &&
        kestal_setsockopt(sock, kestal_get_protocol_by_name("ipv6"), IPV6_V6ONLY, &on, sizeof on) != 0)
        return false;
    return kestal_set_rx_socket_buffer_size(sock, receive_buffer_size) == 0;
}

// The socket for one of the server's addresses, which the transfer then uses; -1 when that address does not work.
int32_t open_socket(kestal_tftp_t &tftp, const kestal_resolver_t &server, int32_t timeout_ms)
{
    const bool is_stream = tftp.m_stream != 0;
    owned_descriptor sock(socket(server.m_family, (is_stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC,
                                 kestal_get_protocol_by_name(is_stream ? "tcp" : "udp")));
    if (sock.get() < 0 || !set_options(sock.get(), tftp, server.m_family))
        return -1;
    tftp.m_local_address = {}; // all zero is the any-address, port 0
    tftp.m_local_address.ss_family = static_cast<sa_family_t>(server.m_family);
    tftp.m_local_address_length = server.m_address_length;
    if (kestal_bind(sock.get(), &tftp.m_local_address, tftp.m_local_address_length) != 0)
        return -1;
    memcpy(&tftp.m_server_address, server.m_address, server.m_address_length);
    tftp.m_server_address_length = server.m_address_length;
    if (is_stream && kestal_connect(sock.get(), server.m_address, server.m_address_length, timeout_ms) != 0)
        return -1;
    return sock.release();
}

void open_first_socket(kestal_tftp_t &tftp, int32_t timeout_ms)
{
    const int32_t port = port_of(*tftp.m_uri, tftp.m_stream != 0 ? "tcp" : "udp");
    kestal_resolver_t *servers =
        kestal_open_resolver_ex(tftp.m_uri->m_host, static_cast<uint32_t>(port), resolver_timeout_ms);
    if (servers == nullptr)
        errno = EHOSTUNREACH;
    for (const kestal_resolver_t *server = servers; server != nullptr && tftp.m_socket < 0; server = server->m_next)
        if (server->m_family == AF_INET || server->m_family == AF_INET6)
            tftp.m_socket = open_socket(tftp, *server, timeout_ms);
    const int error = errno;
    kestal_close_resolver(servers);
    errno = error;
}

// --- packets

// Sends a whole packet to an address; over a stream that is the connection's, whatever is given.
bool send_packet(const kestal_tftp_t &tftp, const uint8_t *packet, uint64_t size, const void *address,
                 uint32_t address_length, int32_t timeout_ms)
{
    if (tftp.m_stream != 0) {
        address = nullptr;
        address_length = 0;
    }
    const deadline end(timeout_ms);
    for (;;) {
        const int32_t sent =
            kestal_sys_sendto(tftp.m_socket, packet, size, MSG_NOSIGNAL | MSG_DONTWAIT, address, address_length);
        if (sent >= 0)
            return static_cast<uint64_t>(sent) == size;
        if (errno != EINTR && (errno != EAGAIN || !kestal::wait_for_events(tftp.m_socket, POLLOUT, end)))
            return false;
    }
}

// The size of the packet received, or -1. The first look comes before any wait: what a caller waited for is there.
int32_t receive_packet(kestal_tftp_t &tftp, peer_address &sender, const deadline &end)
{
    for (;;) {
        sender.length = sizeof sender.address;
        const int32_t size = kestal_sys_recvfrom(tftp.m_socket, tftp.m_packet, KESTAL_TFTP_PACKET_SIZE, MSG_DONTWAIT,
                                                 &sender.address, &sender.length);
        if (size >= 0 || (errno != EINTR && (errno != EAGAIN || !kestal::wait_for_events(tftp.m_socket, POLLIN, end))))
            return size;
    }
}

// What came late for the transfer before, and what is still to come, must not be taken for data of the next one: that
// one has a port of its own.
void leave_port(kestal_tftp_t &tftp)
{
    if (own(tftp).has_requested) {
        constexpr sockaddr nobody = {.sa_family = AF_UNSPEC, .sa_data = {}};
        char interface[IFNAMSIZ];
        uint32_t length = sizeof interface;
        const bool is_known = kestal_getsockopt(tftp.m_socket, SOL_SOCKET, SO_BINDTODEVICE, interface, &length) == 0;
        kestal_connect(tftp.m_socket, &nobody, sizeof nobody, -1); // gives back the port that the system chose
        if (is_known && length > 0)                                // and has let go of the network interface
            kestal_setsockopt(tftp.m_socket, SOL_SOCKET, SO_BINDTODEVICE, interface, length);
        kestal_bind(tftp.m_socket, &tftp.m_local_address, tftp.m_local_address_length);
    }
    own(tftp).peer.length = 0;
    for (uint32_t i = 0; i < most_waiting; ++i)
        if (kestal_sys_recvfrom(tftp.m_socket, tftp.m_packet, 1, MSG_DONTWAIT, nullptr, nullptr) < 0)
            return;
}

// Whether another host or port than the one that sends the blocks has sent a packet.
bool is_stranger(const peer_address &sender, const peer_address &peer)
{
    return peer.length != 0 && (kestal_compare_sockaddr_address(&sender.address, &peer.address) != 0 ||
                                kestal_sockaddr_get_port(&sender.address) != kestal_sockaddr_get_port(&peer.address));
}

const char *path_of(const kestal_uri_t &uri)
{
    const char *path = uri.m_decoded_path;
    return path == nullptr ? nullptr : path + strspn(path, "/");
}

int32_t __kestal_tftp_request(kestal_tftp_t *s_tftp, opcode request, const char *filename, const char *mode,
                              int32_t timeout_ms)
{
    if (s_tftp->m_socket == KESTAL_INVALID_SOCKET)
        return fail_with(EBADF);
    own(*s_tftp).has_requested = true;
    if (filename == nullptr && s_tftp->m_uri == nullptr)
        kestal_assert_fail_tag("./source/tftp", __func__, __LINE__, "s_tftp->m_uri != ((kestal_uri_t *)0)");
    else if (filename == nullptr)
        filename = path_of(*s_tftp->m_uri);
    if (filename == nullptr)
        return fail_with(EINVAL);
    if (mode == nullptr)
        mode = "octet";
    const size_t name_size = strlen(filename) + 1;
    const size_t mode_size = strlen(mode) + 1;
    const size_t size = 2 + name_size + mode_size;
    const owned_block<uint8_t> packet(kestal_alloc(size), __func__);
    if (!packet)
        return fail_with(ENOMEM);
    store_16(packet.get(), request);
    memcpy(packet.get() + 2, filename, name_size);
    memcpy(packet.get() + 2 + name_size, mode, mode_size);
    return send_packet(*s_tftp, packet.get(), size, &s_tftp->m_server_address, s_tftp->m_server_address_length,
                       timeout_ms)
               ? 0
               : -1;
}

bool __kestal_tftp_reply(const kestal_tftp_t &tftp, uint32_t block, const peer_address &to, int32_t timeout_ms)
{
    const owned_block<uint8_t> packet(kestal_alloc(header_size), __func__);
    if (!packet) {
        errno = ENOMEM;
        return false;
    }
    store_16(packet.get(), acknowledgement);
    store_16(packet.get() + 2, block);
    return send_packet(tftp, packet.get(), header_size, &to.address, to.length, timeout_ms);
}

// What the server refuses with, as the system's error; any packet that has no place in a read transfer is EPROTO.
int error_of(const uint8_t *packet)
{
    constexpr int errors[] = {EPROTO, ENOENT, EACCES, ENOSPC, EPROTO, EPROTO, EEXIST, EPERM};
    const uint32_t code = load_16(packet + 2);
    return load_16(packet) == refusal && code < sizeof errors / sizeof errors[0] ? errors[code] : EPROTO;
}

int32_t end_failed(kestal_tftp_t &tftp, int error)
{
    tftp.m_state = KESTAL_TFTP_FAILED;
    return fail_with(error);
}

// The block that was to come, whose data the packet holds; a short one is the last.
int32_t take_block(kestal_tftp_t &tftp, uint32_t block, const peer_address &sender)
{
    tftp.m_block = block;
    own(tftp).peer = sender;
    if (tftp.m_data_length < KESTAL_TFTP_BLOCK_SIZE)
        tftp.m_state = KESTAL_TFTP_COMPLETE;
    return static_cast<int32_t>(tftp.m_data_length);
}

} // namespace

kestal_tftp_t *kestal_open_tftp(uint32_t stream, const char *uri, int32_t timeout_ms)
{
    auto *tftp = static_cast<own_transfer *>(kestal_calloc(1, sizeof(own_transfer)));
    if (tftp == nullptr)
        return nullptr;
    tftp->m_stream = stream == 1 ? 1 : 0;
    tftp->m_socket = KESTAL_INVALID_SOCKET;
    tftp->m_state = KESTAL_TFTP_FAILED;
    tftp->m_packet = tftp->m_packet_buffer;
    tftp->m_data = tftp->m_packet_buffer + header_size;
    tftp->m_uri = kestal::open_whole_uri(uri == nullptr ? local_machine : uri);
    if (tftp->m_uri != nullptr)
        open_first_socket(*tftp, timeout_ms);
    if (tftp->m_socket == KESTAL_INVALID_SOCKET) {
        const int error = errno;
        kestal_close_tftp(tftp);
        errno = error;
        return nullptr;
    }
    return tftp;
}

int32_t kestal_tftp_read_request(kestal_tftp_t *tftp, const char *filename, const char *mode, int32_t timeout_ms)
{
    if (tftp == nullptr)
        return -1;
    if (tftp->m_stream == 0 && tftp->m_socket != KESTAL_INVALID_SOCKET)
        leave_port(*tftp);
    tftp->m_block = 0;
    tftp->m_state = KESTAL_TFTP_RECEIVING;
    return __kestal_tftp_request(tftp, read_request, filename, mode, timeout_ms);
}

int32_t kestal_tftp_write_request(kestal_tftp_t *tftp, const char *filename, const char *mode, int32_t timeout_ms)
{
    return tftp == nullptr ? -1 : __kestal_tftp_request(tftp, write_request, filename, mode, timeout_ms);
}

int32_t kestal_tftp_read_data(kestal_tftp_t *tftp, int32_t timeout_ms)
{
    if (tftp == nullptr)
        return -1;
    if (tftp->m_state == KESTAL_TFTP_COMPLETE)
        return 0;
    if (tftp->m_state == KESTAL_TFTP_FAILED)
        return fail_with(EINVAL);
    if (tftp->m_socket == KESTAL_INVALID_SOCKET) {
        tftp->m_data_length = 0;
        return end_failed(*tftp, EBADF);
    }
    deadline end(timeout_ms);
    uint32_t repeats = 0;
    for (uint32_t passed_over = 0;; ++passed_over) {
        peer_address sender;
        // What is there already is taken after the time too, unless there is no end of it.
        const bool is_late = (passed_over > most_waiting || repeats > most_repeats) && end.left() == 0;
        const int32_t size = is_late ? fail_with(ETIMEDOUT) : receive_packet(*tftp, sender, end);
        if (size >= 0 && tftp->m_stream == 0 && is_stranger(sender, own(*tftp).peer))
            continue;
        if (size < header_size) {
            tftp->m_data_length = 0;
            return end_failed(*tftp, size < 0 ? errno : EPROTO);
        }
        tftp->m_packet[size] = '\0';
        tftp->m_data_length = static_cast<uint64_t>(size - header_size);
        if (load_16(tftp->m_packet) != data || tftp->m_data_length > KESTAL_TFTP_BLOCK_SIZE)
            return end_failed(*tftp, error_of(tftp->m_packet));
        const uint32_t block = load_16(tftp->m_packet + 2);
        if (!__kestal_tftp_reply(*tftp, block, sender, timeout_ms))
            return end_failed(*tftp, errno);
        if (block == ((tftp->m_block + 1) & 0xFFFF))
            return take_block(*tftp, block, sender);
        if (tftp->m_stream != 0)
            return end_failed(*tftp, EPROTO);
        // An acknowledgement was lost, and the server is there.
        if (++repeats <= most_repeats)
            end = deadline(timeout_ms);
    }
}

int32_t kestal_close_tftp(kestal_tftp_t *tftp)
{
    if (tftp == nullptr)
        return -1;
    if (tftp->m_socket != KESTAL_INVALID_SOCKET)
        kestal_close_socket(tftp->m_socket);
    if (tftp->m_uri != nullptr)
        kestal_close_uri(tftp->m_uri);
    kestal_free(tftp);
    return 0;
}
