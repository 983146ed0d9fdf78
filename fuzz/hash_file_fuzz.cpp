// Hash files of any content: what is loaded is well formed, and, written as a hash file again, is loaded the same.
// Bytes of 0x80 and above are made smaller, since such a byte keeps a line end in the value.
#include "fuzz.hpp"

#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// The entries of a file with this content, as a hash file.
std::string load(const std::string &content)
{
    const int file = memfd_create("hash", 0);
    require(file >= 0 && write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    const uint64_t blocks = kestal_get_alloc_count();
    kestal_hash_file_t *head = kestal_load_hash_file(("/proc/self/fd/" + std::to_string(file)).c_str());
    std::string entries;
    for (const kestal_hash_file_t *entry = head; entry != nullptr; entry = entry->m_next) {
        const std::string key = entry->m_key, value = entry->m_value;
        require(!key.empty() && key[0] != '#' && key.find_first_of(" \t\r\n") == std::string::npos);
        require(value.find_first_of("\r\n") == std::string::npos);
        entries += key + " " + value + "\n";
    }
    kestal_free_hash_file(head);
    require(kestal_get_alloc_count() == blocks);
    close(file);
    return entries;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string content(reinterpret_cast<const char *>(data), size);
    for (char &byte : content)
        byte = static_cast<char>(byte & 0x7F);
    const std::string entries = load(content);
    require(load(entries) == entries);
    return 0;
}
