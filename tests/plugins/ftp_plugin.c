/* The library's FTP-only plugin, as an application would name it by the library's own file: here that is the test. */
#include <kestal_ulx/builtin_ftp_plugin.h>

#include <dlfcn.h>

int32_t kestal_plugin_initialize_builtin_ftp_plugin(const char **mime_type_hint,
                                                    const kestal_ctx0_v0_interface_t **interface,
                                                    uint64_t *interface_size)
{
    kestal_plugin_initialize_t initialize;
    *(void **)&initialize = dlsym(RTLD_DEFAULT, __func__);
    return initialize(mime_type_hint, interface, interface_size);
}

int32_t kestal_plugin_uninitialize_builtin_ftp_plugin(void)
{
    kestal_plugin_uninitialize_t uninitialize;
    *(void **)&uninitialize = dlsym(RTLD_DEFAULT, __func__);
    return uninitialize();
}
