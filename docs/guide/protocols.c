#define _GNU_SOURCE
#include <kestal_ulx.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static void serve(kestal_service_t *service, void *server)
{
    kestal_ack_service(service);
    while (kestal_break_service(service) == 0)
        kestal_ftpd_do(server, 50);
}

/* Fetches a file from an FTP server of our own. */
static int fetch(const char *home)
{
    kestal_ftpd_t *server = kestal_open_ftpd("127.0.0.1", 0);
    kestal_ftpd_add_user(server, NULL, "joe", "secret", home);
    kestal_service_t *service = kestal_open_service_ex("ftpd", serve, server, 0);

    char *uri = kestal_alloc_sprintf("ftp://127.0.0.1:%u/hello.txt", kestal_ftpd_get_port(server));
    kestal_buffer_t *content = kestal_open_buffer_ex(0);
    const int32_t result = kestal_ftp_simple_download_to_buffer(0, uri, "joe", "secret", content);
    char *line = kestal_pop_buffer_line(content);
    kestal_printf("downloaded: %s\n", line);

    kestal_check_free(line);
    kestal_close_buffer(content);
    kestal_free(uri);
    kestal_close_service(service);
    kestal_close_ftpd(server);
    return result;
}

/* Reads the head of a request that arrives in pieces. */
static void parse(void)
{
    const char *pieces[] = {"GET /status?all=1 HT", "TP/1.1\r\nHost: dev", "ice\r\n\r\nthe body"};
    kestal_http_parser_t parser;
    kestal_init_http_parser(&parser);
    for (int i = 0; i < 3; ++i) {
        const int64_t taken = kestal_push_http_parser(&parser, pieces[i], strlen(pieces[i]));
        if ((parser.m_flags & KESTAL_HTTP_PARSER_COMPLETE) != 0)
            kestal_printf("%s %s, host %s, then: %s\n", kestal_http_parser_get_method(&parser),
                          kestal_http_parser_get_request_uri(&parser), kestal_http_parser_get_field(&parser, "host"),
                          pieces[i] + taken);
    }
    kestal_destroy_http_parser(&parser);
}

int main(void)
{
    char home[] = "/tmp/kestal-guide-XXXXXX", path[64];
    if (mkdtemp(home) == NULL)
        return 1;
    snprintf(path, sizeof path, "%s/hello.txt", home);
    FILE *file = fopen(path, "w");
    fputs("hello from the server\n", file);
    fclose(file);
    const int result = fetch(home);
    unlink(path);
    rmdir(home);
    parse();
    return result;
}
