#include <kestal_ulx.h>
#include <string.h>

typedef struct job {
    struct job *m_next;
    int32_t m_priority;
    const char *m_name;
} job_t;

static int32_t by_priority(const void *a, const void *b)
{
    return ((const job_t *)a)->m_priority - ((const job_t *)b)->m_priority;
}

int main(void)
{
    /* A list: the link is a field of the record. */
    job_t jobs[] = {{NULL, 3, "sweep"}, {NULL, 1, "boot"}, {NULL, 2, "serve"}};
    job_t *head = NULL, *tail = NULL;
    for (int i = 0; i < 3; ++i)
        kestal_singly_linked_list_sort_insert(&head, &tail, &jobs[i], KESTAL_LINK(job_t, m_next), by_priority);
    for (const job_t *job = head; job != NULL; job = job->m_next)
        kestal_printf("%d %s\n", job->m_priority, job->m_name);

    /* A table: the key is a hash value of the caller's. Equal keys are possible, so the text is compared too. */
    kestal_hash_t *table = kestal_open_hash(64, NULL);
    for (int i = 0; i < 3; ++i)
        kestal_create_hash_node_to_tail(table, kestal_crc32_ieee_802_3(0, 0, jobs[i].m_name, strlen(jobs[i].m_name)),
                                        &jobs[i]);
    const uint32_t key = kestal_crc32_ieee_802_3(0, 0, "serve", 5);
    for (kestal_hash_node_t *node = NULL; (node = kestal_search_hash_node(table, node, key)) != NULL;)
        if (strcmp(((job_t *)node->m_data)->m_name, "serve") == 0)
            kestal_printf("found: priority %d\n", ((job_t *)node->m_data)->m_priority);
    kestal_close_hash(table);

    /* A value list: names and bytes, copied. */
    kestal_value_t options;
    kestal_init_value(&options);
    kestal_set_value_string(&options, KESTAL_VALUE_REPLACE_BY_NAME, 0, "Host", "device");
    kestal_set_value_int_string(&options, KESTAL_VALUE_REPLACE_BY_NAME, 0, "Port", 8080);
    kestal_printf("%s:%s\n", kestal_get_value_string(&options, 0, "host"),
                  kestal_get_value_string(&options, 0, "port"));
    kestal_destroy_value(&options);
    return kestal_get_alloc_count() == 0 ? 0 : 1;
}
