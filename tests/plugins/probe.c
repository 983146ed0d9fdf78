#include "probe.h"

KESTAL_API probe_t probe;

KESTAL_API int32_t kestal_plugin_initialize(const char **hint, const kestal_ctx0_v0_interface_t **interface,
                                            uint64_t *size)
{
    ++probe.m_initialized;
    *hint = probe.m_hint;
    *interface = probe.m_interface;
    *size = probe.m_interface_size;
    return probe.m_on_initialize == NULL ? 0 : probe.m_on_initialize();
}

KESTAL_API int32_t kestal_plugin_uninitialize(void)
{
    ++probe.m_uninitialized;
    if (probe.m_on_uninitialize != NULL)
        probe.m_on_uninitialize();
    return 0;
}
