/* What depends on the C library below: error texts, backtraces, names of protocols. */
#include <errno.h>
#include <kestal_ulx.h>
#include <stdio.h>
#include <string.h>

static char caught[4096];

static int32_t keep(const char *text)
{
    strncat(caught, text == NULL ? "" : text, sizeof caught - strlen(caught) - 1);
    return 0;
}

int main(void)
{
    kestal_set_error_puts_handler(keep, NULL);
    errno = ENOENT;
    kestal_perror("open");
    kestal_dump_backtrace(KESTAL_BACKTRACE_STANDARD_ERROR, 0);
    fputs(caught, stderr);
    int32_t failures = strstr(caught, "No such file or directory") == NULL;
    failures += strstr(caught, "backtrace() is not known to this C library") == NULL;
    failures += kestal_get_protocol_by_name("tcp") != 6;
    failures += kestal_get_alloc_count() != 0;
    return failures;
}
