// Cuts any text as a URI and checks what must hold for every one; percent coding must come back to where it began.
#include "fuzz.hpp"

#include <cstring>

namespace {

void check_uri(const std::string &text)
{
    kestal_uri_t *uri = kestal_open_uri(text.c_str());
    require(uri != nullptr && text == uri->m_uri && uri->m_port >= 0 && uri->m_decoded_path != nullptr);
    require((uri->m_scheme == nullptr ? "" : uri->m_scheme + std::string("://")) + uri->m_location == text);
    require(uri->m_path_query == nullptr || std::string(uri->m_location).ends_with(uri->m_path_query));
    require(uri->m_query == nullptr || std::string(uri->m_path) + "?" + uri->m_query == uri->m_path_query);
    for (const kestal_uri_option_t *option = uri->m_options; option != nullptr; option = option->m_next)
        require(*option->m_option != '\0' && strlen(option->m_decoded_value) <= strlen(option->m_value));
    kestal_search_uri_option_value(uri->m_options, text.c_str());
    kestal_close_uri(uri);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    check_uri(text);
    for (const uint32_t flags : {0u, KESTAL_PERCENT_FORM}) {
        char *encoded = kestal_encode_percent_string_ex(text.c_str(), flags, nullptr);
        char *back = kestal_decode_percent_string_ex(encoded, flags);
        require(text == back);
        kestal_free(encoded);
        kestal_free(back);
    }
    return 0;
}
