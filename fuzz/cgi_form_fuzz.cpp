// Form bodies of any content, on standard input: as many options as pieces, each made of the bytes that came.
#include "fuzz.hpp"

#include <cstring>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// The pieces between "&", empty ones left out, each with an "&" behind it.
std::string pieces_of(const std::string &text)
{
    std::string pieces;
    for (const char character : text + "&")
        if (character != '&' || (!pieces.empty() && pieces.back() != '&'))
            pieces += character;
    return pieces;
}

} // namespace

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

    const std::string body(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    std::string options;
    for (const kestal_uri_option_t *option = cgi->m_body_options; option != nullptr; option = option->m_next) {
        options += option->m_option + std::string("&");
        require(strlen(option->m_decoded_value) <= strlen(option->m_value));
    }
    require(size > KESTAL_CGI_BODY_LIMIT || options == pieces_of(body));
    kestal_cgi_search_query_decode_value(cgi, body.substr(0, 64).c_str());
    kestal_close_cgi(cgi);
    require(kestal_get_alloc_count() == blocks);
    return 0;
}
