// The input is a list of MIME hints, a NUL, and a type. A list matches when one of its words alone does, and whatever the
// case of the type.
#include "fuzz.hpp"

#include <algorithm>
#include <cctype>

static bool matches(const std::string &list, const std::string &type)
{
    return kestal_compare_mime_type_hint(list.c_str(), type.c_str()) == 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size), list = input.c_str();
    std::string type = input.substr(std::min(list.size() + 1, size)).c_str();
    const bool is_match = matches(list, type);
    bool has_match = false;
    for (size_t begin = 0, end = 0; begin < list.size(); begin = end + 1) {
        end = std::min(list.find_first_of(";|", begin), list.size());
        has_match = has_match || (end > begin && matches(list.substr(begin, end - begin), type));
    }
    require(is_match == has_match || list.find('\\') != std::string::npos); // with "\" a separator is part of a word
    std::transform(type.begin(), type.end(), type.begin(), [](unsigned char c) { return std::toupper(c); });
    require(matches(list, type) == is_match);
    return 0;
}
