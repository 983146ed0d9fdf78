#include <kestal_ulx.h>

int main(void)
{
    /* A byte queue: lines come out whole, however the bytes came in. */
    kestal_buffer_t *queue = kestal_open_buffer_ex(0);
    kestal_push_puts_ex(queue, "first li", 0);
    kestal_push_puts_ex(queue, "ne\r\nsecond\nno end yet", 0);
    for (char *line; (line = kestal_pop_buffer_line(queue)) != NULL; kestal_free(line))
        kestal_printf("line: %s\n", line);
    kestal_printf("left: %lu bytes\n", kestal_get_buffer_size(queue));
    kestal_close_buffer(queue);

    /* A location in its parts. */
    kestal_uri_t *uri = kestal_open_uri("ftp://joe:secret@[::1]:2121/pub/a%20b.txt?offset=100");
    kestal_printf("%s, %s, port %d, %s, offset %s\n", uri->m_scheme, uri->m_host, uri->m_port, uri->m_decoded_path,
                  kestal_search_uri_option_value(uri->m_options, "offset"));
    kestal_close_uri(uri);

    /* Settings, fed as they arrive. */
    kestal_ini_t *ini = kestal_open_ini();
    kestal_push_ini_string(ini, "[net]\nname = dev");
    kestal_push_ini_string(ini, "ice ; a comment\n");
    kestal_end_ini(ini);
    kestal_printf("name: %s\n", kestal_search_ini_value(ini, "net", "name"));
    kestal_close_ini(ini);

    kestal_printf("matches: %d\n", kestal_match_wildcard("*.txt", "Readme.TXT"));
    return kestal_get_alloc_count() == 0 ? 0 : 1;
}
