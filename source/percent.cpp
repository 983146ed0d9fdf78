#include <kestal_ulx/percent.h>

#include <kestal_ulx/memory.h>

#include <array>
#include <string.h>

namespace {

constexpr char hex_digits[] = "0123456789ABCDEF";

// Which bytes a call leaves as they are.
using byte_set = std::array<bool, 256>;

constexpr byte_set unreserved = [] {
    byte_set set{};
    for (const char *at = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~"; *at != '\0'; ++at)
        set[static_cast<unsigned char>(*at)] = true;
    return set;
}();

// The value of a hexadecimal digit, or -1.
constexpr std::array<int8_t, 256> hex_values = [] {
    std::array<int8_t, 256> values{};
    values.fill(-1);
    for (int8_t value = 0; value < 16; ++value) {
        const char digit = hex_digits[value];
        values[static_cast<unsigned char>(digit)] = value;
        if (value >= 10)
            values[static_cast<unsigned char>(digit - 'A' + 'a')] = value;
    }
    return values;
}();

int hex_value(char digit)
{
    return hex_values[static_cast<unsigned char>(digit)];
}

} // namespace

char *kestal_encode_percent_string_ex(const char *text, uint32_t flags, const char *keep)
{
    if (text == nullptr)
        return nullptr;
    byte_set kept = unreserved;
    for (; keep != nullptr && *keep != '\0'; ++keep)
        kept[static_cast<unsigned char>(*keep)] = true;
    const bool is_form = (flags & KESTAL_PERCENT_FORM) != 0;
    if (is_form)
        kept[' '] = true;

    uint64_t length = 0;
    for (const char *at = text; *at != '\0'; ++at)
        length += kept[static_cast<unsigned char>(*at)] ? 1u : 3u;
    char *result = static_cast<char *>(kestal_alloc(length + 1));
    if (result == nullptr)
        return nullptr;
    char *to = result;
    for (; *text != '\0'; ++text) {
        const unsigned char byte = static_cast<unsigned char>(*text);
        if (kept[byte]) {
            *to++ = is_form && byte == ' ' ? '+' : *text;
            continue;
        }
        *to++ = '%';
        *to++ = hex_digits[byte >> 4];
        *to++ = hex_digits[byte & 15];
    }
    *to = '\0';
    return result;
}

char *kestal_encode_percent_string(const char *text)
{
    return kestal_encode_percent_string_ex(text, 0, nullptr);
}

char *kestal_decode_percent_string_ex(const char *text, uint32_t flags)
{
    if (text == nullptr)
        return nullptr;
    char *result = static_cast<char *>(kestal_alloc(strlen(text) + 1));
    if (result == nullptr)
        return nullptr;
    const bool is_form = (flags & KESTAL_PERCENT_FORM) != 0;
    char *to = result;
    while (*text != '\0') {
        if (*text != '%' || hex_value(text[1]) < 0) {
            *to++ = is_form && *text == '+' ? ' ' : *text;
            ++text;
            continue;
        }
        int value = hex_value(text[1]);
        text += 2;
        if (hex_value(*text) >= 0)
            value = value * 16 + hex_value(*text++);
        *to++ = static_cast<char>(value);
    }
    *to = '\0';
    return result;
}

char *kestal_decode_percent_string(const char *text)
{
    return kestal_decode_percent_string_ex(text, 0);
}
