#include <kestal_ulx.h>

typedef struct {
    kestal_lock_t m_lock;
    kestal_lock_condition_t m_filled;
    kestal_buffer_t *m_queue; /* guarded by m_lock */
} mailbox_t;

static void read_mail(kestal_service_t *service, void *argument)
{
    mailbox_t *box = argument;
    kestal_ack_service(service); /* from here on the opener goes on */
    kestal_lock(&box->m_lock);
    while (kestal_break_service(service) == 0 || kestal_get_buffer_size(box->m_queue) != 0) {
        char *line = kestal_pop_buffer_line(box->m_queue);
        if (line == NULL) {
            kestal_lock_condition_wait_timeout(&box->m_filled, &box->m_lock, 100);
            continue;
        }
        kestal_printf("read: %s\n", line);
        kestal_free(line);
    }
    kestal_unlock(&box->m_lock);
}

int main(void)
{
    mailbox_t box = {.m_queue = kestal_open_buffer_ex(0)};
    kestal_init_lock(&box.m_lock);
    kestal_init_lock_condition(&box.m_filled);

    kestal_service_t *service = kestal_open_service_ex("reader", read_mail, &box, 0);
    if (service == NULL)
        return 1;
    for (int i = 1; i <= 3; ++i) {
        kestal_lock(&box.m_lock);
        kestal_push_printf(box.m_queue, "letter %d\n", i);
        kestal_lock_condition_wakeup(&box.m_filled);
        kestal_unlock(&box.m_lock);
    }
    const int32_t closed = kestal_close_service(service); /* asks it to end, and waits until it has */
    kestal_printf("closed: %d\n", closed);

    kestal_uninit_lock_condition(&box.m_filled);
    kestal_uninit_lock(&box.m_lock);
    kestal_close_buffer(box.m_queue);
    return kestal_thread_pool_wait(-1);
}
