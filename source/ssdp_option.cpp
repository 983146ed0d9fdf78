#include "ssdp.hpp"

#include <kestal_ulx/format.h>

#include <algorithm>
#include <stdlib.h>
#include <string.h>

namespace {

// A number as an option holds it.
struct integer_text {
    explicit integer_text(int32_t integer) { size = kestal_snprintf(text, sizeof text, "%d", integer); }
    char text[16];
    uint64_t size;
};

uint64_t length_of(const char *text)
{
    return text == nullptr ? 0 : strlen(text);
}

} // namespace

int32_t kestal_ssdp_set_option(kestal_ssdp_t *ssdp, uint32_t mode, uint32_t exact, const char *name, const void *data,
                               uint64_t size)
{
    if (ssdp == nullptr)
        return -1;
    kestal::trace(
        *ssdp,
        "ssdp: [MESSAGE] \033[1;32mset option\033[0m (name=\"\033[1;37m%s\033[0m\", data=\033[1;37m%p\033[0m, "
        "size=\033[1;37m%lu\033[0m)\n",
        name, data, size);
    return kestal_set_value(&ssdp->m_options, mode, exact, name, data, size);
}

int32_t kestal_ssdp_set_option_string(kestal_ssdp_t *ssdp, uint32_t mode, uint32_t exact, const char *name,
                                      const char *string)
{
    return kestal_ssdp_set_option(ssdp, mode, exact, name, string, length_of(string));
}

int32_t kestal_ssdp_set_option_int(kestal_ssdp_t *ssdp, uint32_t mode, uint32_t exact, const char *name,
                                   int32_t integer)
{
    const integer_text number(integer);
    return kestal_ssdp_set_option(ssdp, mode, exact, name, number.text, number.size);
}

int32_t kestal_ssdp_remove_option(kestal_ssdp_t *ssdp, uint32_t exact, const char *name, const void *data,
                                  uint64_t size)
{
    return ssdp == nullptr ? -1 : kestal_remove_value(&ssdp->m_options, exact, name, data, size);
}

int32_t kestal_ssdp_remove_option_by_name(kestal_ssdp_t *ssdp, uint32_t exact, const char *name)
{
    return ssdp == nullptr ? -1 : kestal_remove_value_by_name(&ssdp->m_options, exact, name);
}

int32_t kestal_ssdp_remove_option_by_string(kestal_ssdp_t *ssdp, uint32_t exact, const char *name, const char *string)
{
    return kestal_ssdp_remove_option(ssdp, exact, name, string, length_of(string));
}

int32_t kestal_ssdp_remove_option_by_int(kestal_ssdp_t *ssdp, uint32_t exact, const char *name, int32_t integer)
{
    const integer_text number(integer);
    return kestal_ssdp_remove_option(ssdp, exact, name, number.text, number.size);
}

kestal_value_node_t *kestal_ssdp_get_option_node(kestal_ssdp_t *ssdp, uint32_t exact, const char *name)
{
    return ssdp == nullptr ? nullptr : kestal_get_value_node_by_name(&ssdp->m_options, exact, name);
}

void *kestal_ssdp_get_option(kestal_ssdp_t *ssdp, uint32_t exact, const char *name, uint64_t *size)
{
    return kestal_get_value_by_name(ssdp == nullptr ? nullptr : &ssdp->m_options, exact, name, size);
}

const char *kestal_ssdp_get_option_string(kestal_ssdp_t *ssdp, uint32_t exact, const char *name)
{
    return static_cast<const char *>(kestal_ssdp_get_option(ssdp, exact, name, nullptr));
}

int32_t kestal_ssdp_get_option_int(kestal_ssdp_t *ssdp, uint32_t exact, const char *name, int32_t default_integer)
{
    const kestal_value_node_t *node = kestal_ssdp_get_option_node(ssdp, exact, name);
    if (node == nullptr)
        return default_integer;
    const long long number = node->m_size == 0 ? 0 : strtoll(static_cast<const char *>(node->m_data), nullptr, 10);
    return static_cast<int32_t>(std::clamp<long long>(number, INT32_MIN, INT32_MAX));
}
