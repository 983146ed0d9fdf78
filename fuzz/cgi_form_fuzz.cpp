// Form bodies of any content, on standard input: all of them is read, and each option decodes to no more than came.
#include "fuzz.hpp"

#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const int input = memfd_create("body", 0);
    require(input >= 0 && write(input, data, size) == static_cast<ssize_t>(size) && lseek(input, 0, SEEK_SET) == 0);
    require(dup2(input, STDIN_FILENO) == STDIN_FILENO);
    close(input);

    const uint64_t blocks = kestal_get_alloc_count();
    std::string method = "REQUEST_METHOD=POST", length = "CONTENT_LENGTH=" + std::to_string(size);
    char *environment[] = {method.data(), length.data(), nullptr};
    kestal_cgi_t *cgi = kestal_open_cgi(0, nullptr, environment);
    kestal_cgi_set_whole_body(cgi, 1);
    require(kestal_cgi_incoming(cgi) == 0 && cgi->m_received == size);
    for (const kestal_uri_option_t *option = cgi->m_body_options; option != nullptr; option = option->m_next) {
        require(*option->m_option != '\0' && strlen(option->m_decoded_value) <= strlen(option->m_value));
        kestal_cgi_search_query_decode_value(cgi, option->m_name);
    }
    kestal_close_cgi(cgi);
    require(kestal_get_alloc_count() == blocks);
    return 0;
}
