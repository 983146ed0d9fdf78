/*
 * kestal-echo: sends back what it receives, over TCP (RFC 862) and UDP, to any number of peers from one thread.
 *
 *     kestal-echo                              port 7007 of the loopback, until Ctrl-C
 *     kestal-echo --address 0.0.0.0 --tcp 7 --udp 7 --idle 300 --most 10000
 *
 * Each connection is one event with two buffers. Received bytes wait in the input buffer until the output buffer has room;
 * at the high watermark the loop stops reading from that peer, so that one that does not read costs two buffers of at most
 * 80 KiB and no more.
 */
#define _GNU_SOURCE
#include <kestal_ulx.h>

#include <errno.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

enum { WATERMARK = 65536, CHUNK = 16384, DATAGRAM = 65536, DATAGRAMS_A_TURN = 64, PRIVILEGED_PORTS = 1024 };

#define IO_FLAGS (MSG_DONTWAIT | MSG_NOSIGNAL)

static const char *const help = "usage: kestal-echo [OPTION...]\n"
                                "Send back what arrives over TCP and UDP. Ends on SIGINT or SIGTERM.\n\n"
                                "  --address ADDRESS    listen on this local address instead of 127.0.0.1\n"
                                "  --tcp PORT           the port for connections (7007); 0 is a free one\n"
                                "  --udp PORT           the port for datagrams (7007); 0 is a free one\n"
                                "  --idle SECONDS       close a connection on which nothing has moved so long (60)\n"
                                "  --most CONNECTIONS   so many connections at once (10000)\n"
                                "  --help               print this text\n";

typedef struct {
    kestal_event_base_t *base;
    kestal_event_t listener;
    kestal_event_t datagrams;
    const char *address;
    int32_t tcp_port;
    int32_t udp_port;
    int32_t idle_ms;
    int32_t connections;
    int32_t most;
} server_t;

/* Lives until its event is unassigned. */
typedef struct {
    kestal_event_t event;
    server_t *server;
    int32_t has_ended; /* the peer will send no more */
} connection_t;

static int is_assignment(uint32_t what)
{
    return (what & (KESTAL_EVENT_ASSIGNED | KESTAL_EVENT_UNASSIGNED)) != 0;
}

static int is_passing(int error)
{
    return error == EAGAIN || error == EINTR;
}

/* --- connections */

/* Puts what the peer sent into the input buffer. 0; -1 when the connection is lost. */
static int receive(connection_t *connection)
{
    kestal_event_t *event = &connection->event;
    char chunk[CHUNK];
    const int32_t received = kestal_sys_recv(event->m_descriptor, chunk, sizeof chunk, IO_FLAGS);
    if (received < 0)
        return is_passing(errno) ? 0 : -1;
    if (received > 0) {
        const uint64_t size = (uint64_t)received;
        return kestal_event_push_buffer(event, KESTAL_EVENT_BUFFER_INPUT, chunk, size) == received ? 0 : -1;
    }
    connection->has_ended = 1;
    /* The end would be reported again and again: nobody waits for it while the buffer holds something. */
    kestal_event_set_buffer_watermark(event, KESTAL_EVENT_BUFFER_INPUT, 0, 1);
    return 0;
}

/* Moves bytes on to the output buffer while it has room. 0; -1 without memory. */
static int pass_on(kestal_event_t *event)
{
    char chunk[CHUNK];
    while (kestal_event_get_buffer_size(event, KESTAL_EVENT_BUFFER_OUTPUT) < WATERMARK) {
        const int32_t taken = kestal_event_pop_buffer(event, KESTAL_EVENT_BUFFER_INPUT, chunk, sizeof chunk);
        if (taken <= 0)
            return 0;
        if (kestal_event_push_buffer(event, KESTAL_EVENT_BUFFER_OUTPUT, chunk, (uint64_t)taken) != taken)
            return -1;
    }
    return 0;
}

/* Sends what the peer takes. 0; -1 when the connection is lost. */
static int give_back(kestal_event_t *event)
{
    char chunk[CHUNK];
    for (;;) {
        const int32_t size = kestal_event_peek_buffer(event, KESTAL_EVENT_BUFFER_OUTPUT, chunk, sizeof chunk, 0);
        if (size <= 0)
            return 0;
        const int32_t sent = kestal_sys_send(event->m_descriptor, chunk, (uint64_t)size, IO_FLAGS);
        if (sent < 0)
            return is_passing(errno) ? 0 : -1;
        kestal_event_pop_buffer(event, KESTAL_EVENT_BUFFER_OUTPUT, NULL, (uint64_t)sent);
    }
}

/* -1 when there is nothing left to do for the connection. */
static int serve(connection_t *connection, uint32_t what)
{
    kestal_event_t *event = &connection->event;
    if ((what & KESTAL_EVENT_TIMEOUT) != 0)
        return -1;
    if ((what & KESTAL_EVENT_READ) != 0 && receive(connection) != 0)
        return -1;
    if (pass_on(event) != 0 || give_back(event) != 0 || pass_on(event) != 0)
        return -1;
    if (connection->has_ended && kestal_event_get_buffer_size(event, KESTAL_EVENT_BUFFER_INPUT) == 0) {
        /* Nor without it. */
        kestal_event_disable_buffer(event, KESTAL_EVENT_BUFFER_INPUT);
        if (kestal_event_get_buffer_size(event, KESTAL_EVENT_BUFFER_OUTPUT) == 0)
            return -1;
    }
    return 0;
}

static void drop(connection_t *connection)
{
    server_t *server = connection->server;
    kestal_close_socket(connection->event.m_descriptor);
    kestal_free(connection);
    if (server->connections-- == server->most)
        kestal_add_event(&server->listener, -1);
}

static void handle_connection(kestal_event_t *event, int32_t descriptor, uint32_t what, void *context)
{
    (void)descriptor;
    if ((what & KESTAL_EVENT_UNASSIGNED) != 0)
        drop(context);
    else if (!is_assignment(what) && serve(context, what) != 0)
        kestal_unassign_event(event);
}

static void take_on(server_t *server, int32_t sock)
{
    connection_t *connection = kestal_calloc(1, sizeof *connection);
    if (connection == NULL) {
        kestal_close_socket(sock);
        return;
    }
    connection->server = server;
    ++server->connections;
    kestal_event_t *event = &connection->event;
    kestal_assign_event(server->base, event, sock, KESTAL_EVENT_PERSIST, handle_connection, connection);
    kestal_event_set_buffer_watermark(event, KESTAL_EVENT_BUFFER_INPUT, 0, WATERMARK);
    if (kestal_event_enable_buffer(event, KESTAL_EVENT_BUFFER_INPUT | KESTAL_EVENT_BUFFER_OUTPUT) != 0 ||
        kestal_add_event(event, server->idle_ms) != 0)
        kestal_unassign_event(event);
}

/* A server that is full does not listen: the backlog holds who comes, and drop goes on when somebody has left. */
static void handle_listener(kestal_event_t *event, int32_t descriptor, uint32_t what, void *context)
{
    server_t *server = context;
    if (is_assignment(what))
        return;
    while (server->connections < server->most) {
        const int32_t sock = kestal_accept(descriptor, NULL, NULL, -1);
        if (sock >= 0) {
            take_on(server, sock);
            continue;
        }
        if ((errno == EMFILE || errno == ENFILE) && server->connections > 0)
            server->most = server->connections; /* as many as there are descriptors for */
        else
            return;
    }
    kestal_del_event(event);
}

/* --- datagrams */

static void handle_datagrams(kestal_event_t *event, int32_t descriptor, uint32_t what, void *context)
{
    static char data[DATAGRAM];
    (void)event;
    (void)context;
    for (int i = 0; i < DATAGRAMS_A_TURN && !is_assignment(what); ++i) {
        struct sockaddr_storage peer;
        uint32_t length = sizeof peer;
        const int32_t size = kestal_sys_recvfrom(descriptor, data, sizeof data, IO_FLAGS, &peer, &length);
        if (size < 0)
            return;
        /* Never to a server: two echoing servers would go on for ever. */
        if (kestal_sockaddr_get_port(&peer) >= PRIVILEGED_PORTS)
            kestal_sys_sendto(descriptor, data, (uint64_t)size, IO_FLAGS, &peer, length);
    }
}

/* --- the server */

static int listen_on(server_t *server, kestal_event_t *event, const char *kind, int32_t sock,
                     kestal_event_handler_t handler)
{
    if (sock < 0) {
        fprintf(stderr, "kestal-echo: cannot open %s socket: %s\n", kind, strerror(errno));
        return -1;
    }
    struct sockaddr_storage own;
    uint32_t length = sizeof own;
    char text[128] = "";
    uint32_t port = 0;
    kestal_getsockname(sock, &own, &length);
    kestal_inet_stopp(&own, text, sizeof text, &port);
    kestal_set_non_block_socket(sock, 1);
    kestal_assign_event(server->base, event, sock, KESTAL_EVENT_READ | KESTAL_EVENT_PERSIST, handler, server);
    printf("%s %s port %u\n", kind, text, (unsigned)port);
    fflush(stdout);
    return kestal_add_event(event, -1);
}

static int watch_signal(server_t *server, int32_t number)
{
    kestal_event_t *event = kestal_new_event(server->base, number, KESTAL_EVENT_SIGNAL | KESTAL_EVENT_PERSIST,
                                             kestal_event_default_handler_exit, NULL);
    return event == NULL ? -1 : kestal_add_event(event, -1);
}

static int run(server_t *server)
{
    if (watch_signal(server, SIGINT) != 0 || watch_signal(server, SIGTERM) != 0)
        return -1;
    if (listen_on(server, &server->listener, "tcp", kestal_open_listen_socket(server->address, server->tcp_port),
                  handle_listener) != 0 ||
        listen_on(server, &server->datagrams, "udp", kestal_open_udp_socket(server->address, server->udp_port),
                  handle_datagrams) != 0)
        return -1;
    int32_t result;
    do
        result = kestal_event_base_dispatch(server->base);
    while (result == -1 && errno == EINTR && kestal_event_base_get_exit(server->base) == 0);
    return result;
}

/* The connections go with the base: each is told so. */
static void close_all(server_t *server)
{
    const int32_t sockets[] = {server->listener.m_descriptor, server->datagrams.m_descriptor};
    kestal_free_event_base(server->base);
    for (int i = 0; i < 2; ++i)
        if (sockets[i] >= 0)
            kestal_close_socket(sockets[i]);
}

static void raise_descriptor_limit(void)
{
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

static int read_number(const char *text, int32_t least, int32_t most, int32_t *number)
{
    char *end;
    const long value = strtol(text, &end, 10);
    *number = (int32_t)value;
    return end != text && *end == '\0' && value >= least && value <= most ? 0 : -1;
}

static int read_option(server_t *server, const char *name, const char *value)
{
    if (strcmp(name, "--address") == 0) {
        server->address = value;
        return 0;
    }
    if (strcmp(name, "--tcp") == 0)
        return read_number(value, 0, UINT16_MAX, &server->tcp_port);
    if (strcmp(name, "--udp") == 0)
        return read_number(value, 0, UINT16_MAX, &server->udp_port);
    if (strcmp(name, "--most") == 0)
        return read_number(value, 1, INT32_MAX, &server->most);
    if (strcmp(name, "--idle") != 0 || read_number(value, 1, INT32_MAX / 1000, &server->idle_ms) != 0)
        return -1;
    server->idle_ms *= 1000;
    return 0;
}

static int read_options(server_t *server, int count, char **words)
{
    for (int i = 1; i + 1 < count; i += 2)
        if (read_option(server, words[i], words[i + 1]) != 0)
            return -1;
    return count % 2 == 1 ? 0 : -1;
}

int main(int count, char **words)
{
    server_t server = {.address = "127.0.0.1", .tcp_port = 7007, .udp_port = 7007, .idle_ms = 60000, .most = 10000};
    server.listener.m_descriptor = server.datagrams.m_descriptor = -1;
    if (count == 2 && strcmp(words[1], "--help") == 0)
        return fputs(help, stdout) < 0 || fflush(stdout) != 0;
    if (read_options(&server, count, words) != 0) {
        fputs(help, stderr);
        return 2;
    }
    raise_descriptor_limit();
    kestal_init_network();
    server.base = kestal_new_event_base();
    const int result = server.base == NULL ? -1 : run(&server);
    close_all(&server);
    kestal_uninit_network();
    return result == 0 ? 0 : 1;
}
