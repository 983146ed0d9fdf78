#include <kestal_ulx.h>

static void *put_away(void *argument)
{
    kestal_printf("put away: %s\n", (char *)argument);
    return kestal_free(argument);
}

int main(void)
{
    kestal_destroy_stack_t *undo = NULL;
    char *name = kestal_strdup("first");
    undo = kestal_add_destroy_stack(undo, put_away, name);
    char *text = kestal_alloc_sprintf("%s of %lu bytes", "second", (uint64_t)4096); /* %lu is 64 bits everywhere */
    undo = kestal_add_destroy_stack(undo, put_away, text);

    kestal_printf("live blocks: %lu\n", kestal_get_alloc_count());
    kestal_call_destroy_stack(undo); /* from the last step to the first */
    kestal_free_destroy_stack(undo);
    kestal_printf("live blocks: %lu\n", kestal_get_alloc_count());
    return 0;
}
