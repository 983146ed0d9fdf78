// Hash files of any content, loaded whole and held against a plain reading of the same bytes. Double-byte characters
// are left to the line scanner's own target: bytes of 0x80 and above are made smaller.
#include <kestal_ulx.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

void require(bool condition)
{
    if (!condition)
        abort();
}

using entries = std::vector<std::pair<std::string, std::string>>;

bool is_end(char byte)
{
    return byte == '\r' || byte == '\n';
}

// The lines that have an end; a CR LF or LF CR is one.
std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::string line;
    for (size_t i = 0; i < text.size(); ++i) {
        if (!is_end(text[i])) {
            line += text[i];
            continue;
        }
        lines.push_back(line.c_str()); // up to its first NUL
        line.clear();
        if (i + 1 < text.size() && is_end(text[i + 1]) && text[i + 1] != text[i])
            ++i;
    }
    return lines;
}

entries expected(const std::string &text)
{
    constexpr char space[] = " \t\n\v\f\r";
    entries all;
    for (const std::string &line : lines_of(text)) {
        const size_t key = line.find_first_not_of(space);
        if (key == std::string::npos || line[key] == '#')
            continue;
        const size_t key_end = std::min(line.find_first_of(" \t\r\n", key), line.size());
        const size_t value = std::min(line.find_first_not_of(space, std::min(key_end + 1, line.size())), line.size());
        all.emplace_back(line.substr(key, key_end - key), line.substr(value));
    }
    return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    for (char &byte : text)
        byte = static_cast<char>(byte & 0x7F);
    const int file = memfd_create("hash", 0);
    require(file >= 0 && write(file, text.data(), size) == static_cast<ssize_t>(size));

    const uint64_t blocks = kestal_get_alloc_count();
    kestal_hash_file_t *head = kestal_load_hash_file(("/proc/self/fd/" + std::to_string(file)).c_str());
    entries loaded;
    for (const kestal_hash_file_t *entry = head; entry != nullptr; entry = entry->m_next)
        loaded.emplace_back(entry->m_key, entry->m_value);
    kestal_free_hash_file(head);
    require(kestal_get_alloc_count() == blocks);
    require(loaded == expected(text));
    close(file);
    return 0;
}
