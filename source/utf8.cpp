#include <kestal_ulx/utf8.h>

namespace {

// What a first byte says: the bytes that follow, the bits it holds itself, and the least code point that needs so many.
struct form {
    uint8_t mask;
    uint8_t mark;
    uint32_t following;
    uint32_t least;
};

constexpr form forms[] = {
    {0x80, 0x00, 0, 0},
    {0xE0, 0xC0, 1, 0x80},
    {0xF0, 0xE0, 2, 0x800},
    {0xF8, 0xF0, 3, 0x10000},
};

const form *form_of(uint8_t first)
{
    for (const form &each : forms) {
        if ((first & each.mask) == each.mark)
            return &each;
    }
    return nullptr;
}

bool is_code_point(uint32_t value)
{
    return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

// The bytes that the first code point takes, or 0 for what is none.
uint32_t decode(const uint8_t *text, uint32_t &code_point)
{
    const form *found = form_of(text[0]);
    if (found == nullptr || text[0] == 0)
        return 0;
    uint32_t value = text[0] & static_cast<uint8_t>(~found->mask);
    for (uint32_t i = 1; i <= found->following; ++i) {
        if ((text[i] & 0xC0) != 0x80)
            return 0;
        value = value << 6 | (text[i] & 0x3Fu);
    }
    if (value < found->least || !is_code_point(value))
        return 0;
    code_point = value;
    return 1 + found->following;
}

} // namespace

uint32_t kestal_decode_utf8(const char *text, uint32_t *code_point)
{
    uint32_t value = 0;
    const uint32_t length = text == nullptr ? 0 : decode(reinterpret_cast<const uint8_t *>(text), value);
    if (code_point != nullptr)
        *code_point = value;
    return length;
}
