// MIME hint lists and types of any content: the input is a list, a NUL, and a type. A list matches when any of its words
// alone does, whatever the case of the type.
#include <kestal_ulx.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>

namespace {

bool matches(const std::string &list, const std::string &type)
{
    return kestal_compare_mime_type_hint(list.c_str(), type.c_str()) == 0;
}

bool any_word_matches(const std::string &list, const std::string &type)
{
    bool any = false;
    for (size_t begin = 0, end = 0; begin < list.size() && !any; begin = end + 1) {
        end = std::min(list.find_first_of(";|", begin), list.size());
        any = end > begin && matches(list.substr(begin, end - begin), type);
    }
    return any;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size);
    const std::string list = input.c_str();
    std::string type = input.substr(std::min(list.size() + 1, size)).c_str();
    const bool is_match = matches(list, type);
    // With "\" a separator may belong to a word.
    if (list.find('\\') == std::string::npos && is_match != any_word_matches(list, type))
        abort();
    std::transform(type.begin(), type.end(), type.begin(), [](unsigned char c) { return std::toupper(c); });
    if (matches(list, type) != is_match)
        abort();
    return 0;
}
