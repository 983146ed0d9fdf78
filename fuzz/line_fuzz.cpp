// The lines that come out of a buffer are the same however a text is split into pushes.
#include "fuzz.hpp"

#include <fuzzer/FuzzedDataProvider.h>

// Adds the whole lines, each with a NUL behind it.
static void pop_lines(kestal_buffer_t *buffer, std::string &lines)
{
    while (char *line = kestal_pop_buffer_line(buffer)) {
        lines.append(line).push_back('\0');
        kestal_free(line);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    kestal_buffer_t *split = kestal_open_buffer_ex(0), *whole = kestal_open_buffer_ex(0);
    std::string lines, expected;
    while (input.remaining_bytes() > 0) {
        const std::string piece = input.ConsumeRandomLengthString(input.ConsumeBool() ? 9 : 5000).c_str();
        kestal_push_puts_ex(split, piece.c_str(), input.PickValueInArray({0u, KESTAL_BUFFER_EXACT}));
        kestal_push_puts_ex(whole, piece.c_str(), 0);
        if (input.ConsumeBool())
            pop_lines(split, lines);
    }
    pop_lines(split, lines);
    pop_lines(whole, expected);
    require(lines == expected && kestal_get_buffer_size(split) == kestal_get_buffer_size(whole));
    kestal_close_buffer(split);
    kestal_close_buffer(whole);
    return 0;
}
