#include <kestal_ulx/version.h>

#include <string_view>

static_assert(std::string_view(KESTAL_ULX_VERSION_STRING) == KESTAL_PROJECT_VERSION,
              "the header's version is not the project's");

const char *kestal_get_ulx_version_string(void)
{
    return KESTAL_ULX_VERSION_STRING;
}
