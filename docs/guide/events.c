#include <kestal_ulx.h>
#include <sys/socket.h>

/* Sends back what arrives; the peer's end ends the loop. */
static void echo(kestal_event_t *event, int32_t descriptor, uint32_t what, void *context)
{
    (void)context;
    if ((what & KESTAL_EVENT_READ) == 0)
        return;
    char data[64];
    const int32_t size = kestal_sys_recv(descriptor, data, sizeof data, MSG_DONTWAIT);
    if (size > 0)
        kestal_sys_send(descriptor, data, (uint64_t)size, MSG_NOSIGNAL);
    else if (size == 0)
        kestal_event_base_exit_loop(event->m_base, 0);
}

/* The other side: asks, and says good-bye when the answer is there. */
static void ask(kestal_event_t *event, int32_t descriptor, uint32_t what, void *context)
{
    (void)context;
    if ((what & KESTAL_EVENT_TIMEOUT) != 0) {
        kestal_printf("time to ask\n");
        kestal_send(descriptor, "hello", 5, 1000);
        kestal_add_event(event, -1); /* the answer may take its time */
    }
    if ((what & KESTAL_EVENT_READ) != 0) {
        char data[64] = "";
        kestal_recv(descriptor, data, sizeof data - 1, 1000);
        kestal_printf("answer: %s\n", data);
        kestal_shutdown_socket(descriptor, 1);
    }
}

int main(void)
{
    kestal_socket_pair_t ends;
    kestal_event_base_t *base = kestal_new_event_base();
    if (base == NULL || kestal_socket_pair(AF_UNIX, SOCK_STREAM, 0, &ends) != 0)
        return 1;

    kestal_event_t server;
    kestal_assign_event(base, &server, ends.m_socket[1], KESTAL_EVENT_READ | KESTAL_EVENT_PERSIST, echo, NULL);
    kestal_add_event(&server, -1);
    kestal_event_t client;
    kestal_assign_event(base, &client, ends.m_socket[0], KESTAL_EVENT_READ | KESTAL_EVENT_PERSIST, ask, NULL);
    kestal_add_event(&client, 300); /* ms without anything: then the handler is told so */

    const int32_t result = kestal_event_base_dispatch(base);
    kestal_unassign_event(&client);
    kestal_unassign_event(&server);
    kestal_free_event_base(base);
    kestal_close_socket(ends.m_socket[0]);
    kestal_close_socket(ends.m_socket[1]);
    return result;
}
