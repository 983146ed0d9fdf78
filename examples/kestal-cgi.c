/*
 * kestal-cgi: a CGI program with a form, for accounts that a file names, and a file to download. It runs behind any web
 * server that speaks CGI/1.1; the server passes the Authorization header on. What it obeys comes from its environment:
 *
 *     KESTAL_CGI_ACCOUNTS=FILE   an INI file whose section [accounts] has lines "name = password": then nobody else gets in,
 *                                by Digest or Basic credentials. Without this variable everybody does.
 *     KESTAL_CGI_FILE=FILE       what "?download" sends
 *     KESTAL_CGI_LARGE=1         forms of up to 1 MiB, which come in several reads; otherwise they must come in one
 *
 * Tried without a server: REQUEST_METHOD=GET QUERY_STRING='name=you' kestal-cgi
 */
#include <kestal_ulx.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum { LARGE_BODY = 1048576 };

static const char *variable(const kestal_cgi_t *cgi, const char *name)
{
    return kestal_search_argument_variable(cgi->m_argument, name);
}

static void push(kestal_cgi_t *cgi, const char *text)
{
    kestal_push_puts_ex(cgi->m_output, text, 0);
}

/* What a client sent stands in the page as text, whatever it contains. */
static void push_escaped(kestal_cgi_t *cgi, const char *text)
{
    static const char special[] = "&<>\"'";
    static const char *const entities[] = {"&amp;", "&lt;", "&gt;", "&quot;", "&#39;"};
    while (*text != '\0') {
        const size_t plain = strcspn(text, special);
        kestal_push_buffer_ex(cgi->m_output, text, plain, 0);
        text += plain;
        if (*text != '\0')
            push(cgi, entities[strchr(special, *text++) - special]);
    }
}

static void begin_page(kestal_cgi_t *cgi, const char *status, const char *title)
{
    if (status != NULL)
        kestal_cgi_set_response_header(cgi, "Status", status);
    kestal_cgi_set_response_header(cgi, "Content-Type", "text/html; charset=utf-8");
    kestal_cgi_set_response_header(cgi, "Cache-Control", "no-store");
    kestal_cgi_set_response_header(cgi, "X-Content-Type-Options", "nosniff");
    push(cgi, "<!DOCTYPE html>\n<html lang=\"en\">\n<title>");
    push_escaped(cgi, title);
    push(cgi, "</title>\n<h1>");
    push_escaped(cgi, title);
    push(cgi, "</h1>\n");
}

static void show_error(kestal_cgi_t *cgi, const char *status)
{
    begin_page(cgi, status, status);
}

/* The options that came, each as a line; a form for more. */
static void show_form(kestal_cgi_t *cgi)
{
    const char *name = kestal_cgi_search_query_decode_value(cgi, "name");
    begin_page(cgi, NULL, "A form");
    push(cgi, "<p>Hello, ");
    push_escaped(cgi, name == NULL || *name == '\0' ? "whoever you are" : name);
    push(cgi, ".</p>\n<dl>\n");
    const kestal_uri_option_t *lists[] = {cgi->m_query_options, cgi->m_body_options};
    for (int i = 0; i < 2; ++i)
        for (const kestal_uri_option_t *option = lists[i]; option != NULL; option = option->m_next) {
            push(cgi, "<dt>");
            push_escaped(cgi, option->m_decoded_name != NULL ? option->m_decoded_name : option->m_name);
            push(cgi, "</dt><dd>");
            push_escaped(cgi, option->m_decoded_value != NULL ? option->m_decoded_value : option->m_value);
            push(cgi, "</dd>\n");
        }
    push(cgi, "</dl>\n<form method=\"post\">\n"
              "<p><label>Name <input name=\"name\"></label></p>\n"
              "<p><label>Text <textarea name=\"text\"></textarea></label></p>\n"
              "<p><button>Send</button></p>\n</form>\n");
}

static void send_file(kestal_cgi_t *cgi, const char *file)
{
    if (file == NULL || access(file, R_OK) != 0) {
        show_error(cgi, "404 Not Found");
        return;
    }
    kestal_cgi_set_response_header(cgi, "Content-Type", "application/octet-stream");
    kestal_cgi_set_response_header(cgi, "Content-Disposition", "attachment");
    kestal_cgi_set_file_name(cgi, file);
    kestal_cgi_set_outgoing_handler(cgi, kestal_cgi_outgoing_file_handler);
}

/* 0; -1 when accounts are wanted and there are none: an object without accounts lets everybody in. */
static int add_accounts(kestal_cgi_t *cgi)
{
    const char *file = variable(cgi, "KESTAL_CGI_ACCOUNTS");
    if (file == NULL)
        return 0;
    kestal_cgi_set_basic_check(cgi, 1);
    kestal_ini_t *ini = kestal_load_ini(file);
    int result = 0;
    for (const kestal_ini_entry_t *entry = kestal_first_ini_entry(ini); entry != NULL; entry = entry->m_next)
        if (kestal_compare_ignore_case(entry->m_section, "accounts") == 0 &&
            kestal_cgi_add_account(cgi, entry->m_name, entry->m_value) != 0)
            result = -1;
    kestal_close_ini(ini);
    return cgi->m_accounts == NULL ? -1 : result;
}

static void answer(kestal_cgi_t *cgi)
{
    const char *large = variable(cgi, "KESTAL_CGI_LARGE");
    if (large != NULL && strcmp(large, "1") == 0) {
        kestal_cgi_set_whole_body(cgi, 1);
        kestal_cgi_set_body_limit(cgi, LARGE_BODY);
    }
    if (add_accounts(cgi) != 0)
        show_error(cgi, "500 Internal Server Error");
    else if (kestal_cgi_incoming(cgi) != 0)
        show_error(cgi, "400 Bad Request");
    else if (kestal_cgi_digest_check(cgi) != 0)
        begin_page(cgi, NULL, "401 Unauthorized"); /* the status is set already */
    else if (cgi->m_method_index < KESTAL_CGI_METHOD_GET || cgi->m_method_index > KESTAL_CGI_METHOD_POST)
        show_error(cgi, "405 Method Not Allowed");
    else if (kestal_cgi_search_query_value(cgi, "download") != NULL)
        send_file(cgi, variable(cgi, "KESTAL_CGI_FILE"));
    else
        show_form(cgi);
}

int main(int count, char **words)
{
    kestal_cgi_t *cgi = kestal_open_cgi(count, words, NULL);
    if (cgi == NULL)
        return 1;
    answer(cgi);
    const int32_t result = kestal_cgi_outgoing(cgi);
    kestal_close_cgi(cgi);
    return result == 0 ? 0 : 1;
}
