/* What depends on the C library below: error texts, backtraces, threads, names of protocols. */
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

static int32_t expect(const char *part)
{
    if (strstr(caught, part) != NULL)
        return 0;
    printf("no \"%s\" in \"%s\"\n", part, caught);
    return 1;
}

static void job(void *lock)
{
    kestal_short_unlock(lock);
}

int main(void)
{
    int32_t failures = 0;
    kestal_set_error_puts_handler(keep, NULL);
    errno = ENOENT;
    kestal_perror("open");
    failures += expect("No such file or directory");
    kestal_dump_backtrace(KESTAL_BACKTRACE_STANDARD_ERROR, 0);
    failures += expect("backtrace() is not known to this C library");

    kestal_short_lock_t lock = 1;
    failures += kestal_detached_thread(job, &lock) != 0;
    kestal_short_lock(&lock);
    failures += kestal_thread_pool_wait(-1) != 0;
    failures += kestal_get_protocol_by_name("tcp") != 6;
    failures += kestal_get_alloc_count() != 0;
    return failures;
}
