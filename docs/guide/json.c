#include <kestal_ulx.h>
#include <string.h>

/* Stores a new value, and gives up the caller's own reference to it. */
static void put(kestal_json_t *object, const char *key, kestal_json_t *value)
{
    kestal_json_object_set_value(object, key, strlen(key), value);
    kestal_free_json(value);
}

static void be_quiet(const char *file, const char *function, uint64_t line, const char *message)
{
    (void)file;
    (void)function;
    (void)line;
    (void)message;
}

int main(void)
{
    kestal_set_assert_handler(be_quiet, NULL);
    kestal_json_t *device = kestal_new_json_object();
    put(device, "name", kestal_new_json_string("router", 6));
    put(device, "ports", kestal_new_json_integer(4));
    put(device, "on", kestal_new_json_true());

    kestal_json_t *copy = kestal_dup_json(device, 1);
    kestal_printf("equal: %d\n", kestal_compare_json(device, copy) == 0);
    kestal_json_integer_set_value(kestal_json_object_get_value(copy, "ports", 5), 8);
    kestal_printf("equal: %d\n", kestal_compare_json(device, copy) == 0);

    const kestal_hash_t *members = kestal_json_object_get_hash(copy);
    for (const kestal_hash_node_t *node = members->m_head; node != NULL; node = node->m_next) {
        const void *key;
        uint64_t size;
        const kestal_json_t *value = kestal_json_object_get_pair(node, &key, &size);
        kestal_printf("%.*s: type %03x\n", (int)size, (const char *)key, kestal_json_type(value));
    }
    kestal_free_json(copy);
    kestal_free_json(device);
    return kestal_get_alloc_count() == 0 ? 0 : 1;
}
