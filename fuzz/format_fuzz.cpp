// The formatter with any conversion and an argument that fits it, behind any text, into buffers of any size. The input
// is the buffer's size in fives, a byte of flags, one of the conversion, the text and its end, width, precision, argument.
#include <kestal_ulx.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct input {
    const uint8_t *data;
    size_t size;

    template <typename T>
    T number()
    {
        T value{};
        const size_t length = std::min(sizeof value, size);
        std::memcpy(&value, data, length);
        data += length;
        size -= length;
        return value;
    }
    std::string text()
    {
        std::string result;
        while (const char next = number<char>())
            result += next;
        return result;
    }
};

void require(bool condition)
{
    if (!condition)
        abort();
}

template <typename... Arguments>
void format(const std::string &pattern, uint64_t size, Arguments... arguments)
{
    std::vector<char> buffer(size); // exactly: the sanitizer watches its end
    const uint64_t stored = kestal_snprintf(buffer.data(), size, pattern.c_str(), arguments...);
    require(size == 0 ? stored == 0 : stored < size && buffer[stored] == '\0');
    char *whole = kestal_alloc_sprintf(pattern.c_str(), arguments...);
    require(whole == nullptr || stored == 0 || std::memcmp(whole, buffer.data(), stored) == 0);
    kestal_check_free(whole);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    input bytes{data, size};
    const uint64_t room = bytes.number<uint8_t>() * uint64_t{5};
    const uint32_t flags = bytes.number<uint8_t>(), longs = flags >> 6;
    const char conversion = "diuoxXcspPf"[bytes.number<uint8_t>() % 11];

    std::string pattern;
    for (const char letter : bytes.text()) // whatever takes no argument of its own
        if (std::strchr("diuoxXcspPf*", letter) == nullptr)
            pattern += letter;
    pattern += '%';
    for (int i = 0; i < 4; ++i)
        if ((flags >> i & 1) != 0)
            pattern += "#-.0"[i];
    const int32_t width = bytes.number<int32_t>() % 70000;
    const bool star = (flags & 16) != 0;
    pattern += star ? "*" : width >= 0 ? std::to_string(width) : "";
    if ((flags & 32) != 0)
        pattern += "." + std::to_string(bytes.number<uint8_t>());
    pattern += std::string(longs, 'l') + conversion;

    const auto format_with = [&](auto argument) {
        star ? format(pattern, room, width, argument) : format(pattern, room, argument);
    };
    if (std::strchr("spP", conversion) != nullptr)
        format_with(bytes.text().c_str());
    else if (conversion != 'f')
        longs == 0 ? format_with(bytes.number<uint32_t>()) : format_with(bytes.number<uint64_t>());
    else
        longs == 0 ? format_with(bytes.number<double>())
                   : format_with(static_cast<long double>(bytes.number<double>()));
    return 0;
}
