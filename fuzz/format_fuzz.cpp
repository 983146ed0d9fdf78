// The formatter with any format, the arguments that fit it, and buffers of any size. The input is the buffer's size in
// fives, the length of the format, the format, and the bytes of the arguments. The format goes through in pieces of one
// conversion each, so that each piece can be given arguments of the right types.
#include <kestal_ulx.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

class input {
public:
    input(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    template <typename T>
    T number()
    {
        T value{};
        const size_t length = std::min(sizeof value, size_);
        std::memcpy(&value, data_, length);
        skip(length);
        return value;
    }

    std::string text(size_t limit)
    {
        const size_t length = std::min(limit, size_);
        std::string value(reinterpret_cast<const char *>(data_), length);
        skip(length);
        return value.c_str(); // up to its first NUL
    }

private:
    void skip(size_t length)
    {
        data_ += length;
        size_ -= length;
    }

    const uint8_t *data_;
    size_t size_;
};

enum class kind { none, word, wide, text, real, long_real };

// Plain text with at most one conversion behind it, and what that takes: a width, an argument, both or neither.
struct piece {
    std::string pattern;
    bool star = false;
    kind argument = kind::none;
};

void require(bool condition)
{
    if (!condition)
        abort();
}

kind argument_of(char letter, unsigned longs)
{
    if (letter != '\0' && std::strchr("pPs", letter) != nullptr)
        return kind::text;
    if (letter != '\0' && std::strchr("diuoxXc", letter) != nullptr)
        return longs > 0 ? kind::wide : kind::word;
    if (letter == 'f' && longs < 2)
        return longs == 0 ? kind::real : kind::long_real;
    return kind::none;
}

std::vector<piece> split(const std::string &format)
{
    std::vector<piece> pieces;
    for (const char *next = format.c_str(); *next != '\0';) {
        const char *start = next;
        piece part;
        while (*next != '\0' && *next != '%')
            ++next;
        if (*next == '%') {
            ++next;
            for (const char flag : {'#', '-', '.', '0'})
                next += *next == flag;
            part.star = *next == '*';
            next += part.star ? 1 : std::strspn(next, "0123456789");
            if (*next == '.')
                next += 1 + std::strspn(next + 1, "0123456789");
            unsigned longs = 0;
            for (; longs < 2 && *next == 'l'; ++longs)
                ++next;
            part.argument = argument_of(*next, longs);
            next += *next != '\0';
        }
        part.pattern.assign(start, next);
        pieces.push_back(part);
    }
    return pieces;
}

template <typename... Arguments>
void format(const std::string &pattern, uint64_t size, Arguments... arguments)
{
    std::vector<char> buffer(size); // exactly: the sanitizer watches its end
    const uint64_t stored = kestal_snprintf(buffer.data(), size, pattern.c_str(), arguments...);
    require(size == 0 ? stored == 0 : stored < size && buffer[stored] == '\0');
    char *whole = kestal_alloc_sprintf(pattern.c_str(), arguments...);
    if (whole != nullptr && stored > 0)
        require(std::memcmp(whole, buffer.data(), stored) == 0);
    kestal_check_free(whole);
}

template <typename T>
void format_one(const piece &part, uint64_t size, input &bytes, T argument)
{
    if (part.star)
        format(part.pattern, size, bytes.number<int32_t>() % 70000, argument);
    else
        format(part.pattern, size, argument);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    input bytes(data, size);
    const uint64_t room = bytes.number<uint8_t>() * uint64_t{5};
    const std::string pattern = bytes.text(bytes.number<uint8_t>());
    for (const piece &part : split(pattern)) {
        switch (part.argument) {
        case kind::none:
            format_one(part, room, bytes, 0);
            break;
        case kind::word:
            format_one(part, room, bytes, bytes.number<uint32_t>());
            break;
        case kind::wide:
            format_one(part, room, bytes, bytes.number<uint64_t>());
            break;
        case kind::text:
            format_one(part, room, bytes, bytes.text(40).c_str());
            break;
        case kind::real:
            format_one(part, room, bytes, bytes.number<double>());
            break;
        case kind::long_real:
            format_one(part, room, bytes, static_cast<long double>(bytes.number<double>()));
            break;
        }
    }
    return 0;
}
