// MIME hint lists and types of any content: the input is a list, a NUL, and a type. A list matches when any of its words
// alone does, whatever the case of the type, and adding a word never loses a match.
#include <kestal_ulx.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>

namespace {

void require(bool condition)
{
    if (!condition)
        abort();
}

bool matches(const std::string &list, const std::string &type)
{
    const int32_t result = kestal_compare_mime_type_hint(list.c_str(), type.c_str());
    require(result == 0 || result == -1);
    return result == 0;
}

bool any_word_matches(const std::string &list, const std::string &type)
{
    for (size_t begin = 0; begin <= list.size();) {
        const size_t end = std::min(list.find_first_of(";|", begin), list.size());
        if (end > begin && matches(list.substr(begin, end - begin), type))
            return true;
        begin = end + 1;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size);
    const std::string list = input.c_str();
    const std::string type = input.substr(std::min(list.size() + 1, size)).c_str();
    const bool is_match = matches(list, type);
    // With "\" a separator may belong to a word.
    if (list.find('\\') == std::string::npos)
        require(is_match == any_word_matches(list, type));
    require(!is_match || list.back() == '\\' || matches(list + ";other", type));
    std::string upper = type;
    std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
    require(matches(list, upper) == is_match);
    return 0;
}
