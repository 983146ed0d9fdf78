#define _GNU_SOURCE
#include <kestal_ulx.h>
#include <stdlib.h>
#include <unistd.h>

int main(void)
{
    char name[] = "/tmp/kestal-guide-XXXXXX";
    close(mkstemp(name));

    /* Whatever a location names is read and written by the same calls. */
    uint32_t stream = kestal_open_ctx_stream(name, "wb", 0);
    kestal_ctx_printf(stream, "key %d\n", 42);
    stream = kestal_destroy_ctx(stream);

    char location[64], text[64];
    kestal_snprintf(location, sizeof location, "file://%s", name);
    stream = kestal_open_ctx_stream(location, "rb", 0);
    const int64_t length = kestal_ctx_read(stream, text, sizeof text - 1);
    text[length > 0 ? length : 0] = 0;
    kestal_printf("read %ld bytes: %s", length, text);
    stream = kestal_destroy_ctx(stream);

    kestal_md5_t digest;
    kestal_init_md5(&digest);
    kestal_simple_md5(location, &digest);
    kestal_printf("md5 %s\n", kestal_md5_digest(&digest, NULL));
    unlink(name);

    /* The steps one by one, to hear why an open fails. */
    stream = kestal_new_ctx();
    kestal_ctx_set_option_string(stream, 1, "src", name);
    kestal_ctx_set_option_string(stream, 1, "mode", "rb");
    if (kestal_open_ctx(stream, "application/ulx_stream") != 0) {
        const kestal_ctx_t *context = kestal_ginstance_search(stream, NULL);
        kestal_printf("gone: %s\n", kestal_get_ctx_error_text(context->m_last_error));
    }
    stream = kestal_destroy_ctx(stream);
    return stream == KESTAL_INVALID_ID ? 0 : 1;
}
