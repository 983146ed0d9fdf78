// INI texts and parameter lists of any content: the same entries however they are split, each of which can be found.
#include "fuzz.hpp"

namespace {

// The entries of a text that comes in pieces, in lines.
std::string parse(const std::string &text, uint32_t flags, size_t step)
{
    kestal_ini_t *ini = kestal_open_ini_ex(flags);
    for (size_t at = 0; at < text.size(); at += step)
        require(kestal_push_ini(ini, text.data() + at, std::min(step, text.size() - at)) == 0);
    require(kestal_end_ini(ini) == 0);
    std::string all;
    for (const kestal_ini_entry_t *entry = kestal_first_ini_entry(ini); entry != nullptr; entry = entry->m_next) {
        require(*entry->m_name != '\0' && kestal_search_ini_entry(ini, entry->m_section, entry->m_name) != nullptr);
        all += std::string(entry->m_section) + "/" + entry->m_name + "=" + entry->m_value + "\n";
    }
    kestal_close_ini(ini);
    return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > 4096) // searching every entry takes the square of their number
        return 0;
    const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
    const uint64_t blocks = kestal_get_alloc_count();
    for (const uint32_t flags : {0u, KESTAL_INI_PARAMETER_LIST})
        require(parse(text, flags, text.size() + 1) == parse(text, flags, 1 + data[0] % 16));
    require(kestal_get_alloc_count() == blocks);
    return 0;
}
