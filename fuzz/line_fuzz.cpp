// The lines that come out, however a text is split into pushes and of which kind they are, must be those of one push.
#include <kestal_ulx.h>

#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>

namespace {

void pop_lines(kestal_buffer_t *buffer, std::vector<std::string> &lines)
{
    while (char *line = kestal_pop_buffer_line(buffer)) {
        lines.emplace_back(line);
        kestal_free(line);
    }
}

// What is left in a buffer, which is closed.
std::string close(kestal_buffer_t *buffer)
{
    std::string rest(kestal_get_buffer_size(buffer), '\0');
    kestal_pop_buffer_ex(buffer, rest.data(), rest.size(), 1);
    kestal_close_buffer(buffer);
    return rest;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    kestal_buffer_t *split = kestal_open_buffer_ex(0), *whole = kestal_open_buffer_ex(KESTAL_BUFFER_EXACT);
    std::vector<std::string> lines, expected;
    std::string text;
    while (input.remaining_bytes() > 0) {
        const std::string piece = input.ConsumeRandomLengthString(input.ConsumeBool() ? 9 : 5000).c_str();
        const uint32_t kind = input.PickValueInArray({0u, KESTAL_BUFFER_EXACT, KESTAL_BUFFER_ADOPT});
        char *bytes = kestal_strdup(piece.c_str());
        if (kestal_push_puts_ex(split, bytes, kind) == 0 || kind != KESTAL_BUFFER_ADOPT)
            kestal_free(bytes);
        text += piece;
        if (input.ConsumeBool())
            pop_lines(split, lines);
    }
    pop_lines(split, lines);
    kestal_push_puts_ex(whole, text.c_str(), 0);
    pop_lines(whole, expected);
    if (lines != expected || close(split) != close(whole))
        abort();
    return 0;
}
