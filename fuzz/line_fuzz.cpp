// The first byte seeds how the rest is split into pushes, and of which kind they are. The lines that come out must be
// those of a plain reading of the whole text.
#include <kestal_ulx.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

using texts = std::vector<std::string>;

// The lines, and behind them what is left.
texts read_plainly(const std::string &text)
{
    texts result;
    size_t begin = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        if (static_cast<unsigned char>(text[at]) >= 0x80) {
            ++at;
            continue;
        }
        if (text[at] != '\r' && text[at] != '\n')
            continue;
        result.push_back(text.substr(begin, at - begin));
        if (at + 1 < text.size() && text[at + 1] == (text[at] == '\r' ? '\n' : '\r'))
            ++at;
        begin = at + 1;
    }
    result.push_back(text.substr(begin));
    return result;
}

bool pop_line(kestal_buffer_t *buffer, texts &result)
{
    char *line = kestal_pop_buffer_line(buffer);
    if (line != nullptr)
        result.emplace_back(line);
    kestal_check_free(line);
    return line != nullptr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    std::minstd_rand random(data[0] + 1u);
    std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    for (char &byte : text)
        byte = byte == '\0' ? '0' : byte; // so that lines compare as texts
    kestal_buffer_t *buffer = kestal_open_buffer_ex(0);
    texts result;
    for (size_t at = 0; at < text.size();) {
        const std::string piece = text.substr(at, 1 + random() % (random() % 8 == 0 ? 5000 : 9));
        constexpr uint32_t kinds[] = {0, KESTAL_BUFFER_EXACT, KESTAL_BUFFER_ADOPT};
        const uint32_t kind = kinds[random() % 3];
        kestal_push_puts_ex(buffer, kind == KESTAL_BUFFER_ADOPT ? kestal_strdup(piece.c_str()) : piece.c_str(), kind);
        at += piece.size();
        while (random() % 4 != 0 && pop_line(buffer, result))
            ;
    }
    while (pop_line(buffer, result))
        ;
    result.emplace_back(kestal_get_buffer_size(buffer), '\0');
    kestal_pop_buffer_ex(buffer, result.back().data(), result.back().size(), 1);
    kestal_close_buffer(buffer);
    if (result != read_plainly(text))
        abort();
    return 0;
}
