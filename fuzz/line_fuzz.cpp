// The first byte seeds how the rest is split into pushes, and of which kind they are. The lines that come out must be
// those of a plain reading of the whole text.
#include <kestal_ulx.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

void require(bool holds)
{
    if (!holds)
        abort();
}

struct reading {
    std::vector<std::string> lines;
    std::string rest;
};

reading read_plainly(const std::string &text)
{
    reading result;
    size_t begin = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        if (static_cast<unsigned char>(text[at]) >= 0x80) {
            ++at;
            continue;
        }
        if (text[at] != '\r' && text[at] != '\n')
            continue;
        result.lines.push_back(text.substr(begin, at - begin));
        if (at + 1 < text.size() && text[at + 1] == (text[at] == '\r' ? '\n' : '\r'))
            ++at;
        begin = at + 1;
    }
    result.rest = text.substr(begin);
    return result;
}

void pop_lines(kestal_buffer_t *buffer, reading &result, std::minstd_rand &random)
{
    while (random() % 4 != 0) {
        char *line = kestal_pop_buffer_line(buffer);
        if (line == nullptr)
            return;
        result.lines.emplace_back(line);
        kestal_free(line);
    }
}

void push(kestal_buffer_t *buffer, const std::string &piece, uint32_t kind)
{
    if (kind != KESTAL_BUFFER_ADOPT) {
        require(kestal_push_buffer_ex(buffer, piece.data(), piece.size(), kind) == piece.size());
        return;
    }
    void *block = kestal_alloc(piece.size());
    memcpy(block, piece.data(), piece.size());
    require(kestal_push_buffer_ex(buffer, block, piece.size(), kind) == piece.size());
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
    reading result;
    for (size_t at = 0; at < text.size();) {
        const std::string piece = text.substr(at, 1 + random() % (random() % 8 == 0 ? 5000 : 9));
        constexpr uint32_t kinds[] = {0, 0, KESTAL_BUFFER_EXACT, KESTAL_BUFFER_ADOPT};
        push(buffer, piece, kinds[random() % 4]);
        at += piece.size();
        pop_lines(buffer, result, random);
    }
    while (char *line = kestal_pop_buffer_line(buffer)) {
        result.lines.emplace_back(line);
        kestal_free(line);
    }
    const uint64_t length = kestal_get_buffer_size(buffer);
    result.rest.resize(length);
    require(kestal_pop_buffer_ex(buffer, result.rest.data(), length, 1) == length);
    kestal_close_buffer(buffer);

    const reading expected = read_plainly(text);
    require(result.lines == expected.lines && result.rest == expected.rest);
    return 0;
}
