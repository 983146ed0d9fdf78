/* The probe: a plugin that does what a test sets. Each module built from probe.c has a probe of its own, which the test
 * imports by the name "probe" from a handle that it opens beside the loader's. */
#ifndef KESTAL_TEST_PROBE_H
#define KESTAL_TEST_PROBE_H

#include <kestal_ulx/plugin_interface.h>

typedef struct probe {
    int32_t (*m_on_initialize)(void); /* null: succeeds */
    void (*m_on_uninitialize)(void);
    const char *m_hint;
    const kestal_ctx0_v0_interface_t *m_interface;
    uint64_t m_interface_size;
    int32_t m_initialized; /* calls of initialize and uninitialize; the loader makes them one at a time */
    int32_t m_uninitialized;
} probe_t;

#endif
