#include <kestal_ulx/cgi.h>

#include "cgi.hpp"
#include "guard.hpp"

#include <kestal_ulx/file.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/text.h>

#include <algorithm>
#include <errno.h>
#include <limits>
#include <unistd.h>

namespace {

using kestal::cgi_variable;
using kestal::object_of;
using kestal::owned_block;

constexpr int32_t read_timeout = 60000; // ms

void take_method(kestal_cgi_t &cgi)
{
    const char *given = cgi_variable(cgi, "REQUEST_METHOD");
    uint32_t index = 0;
    while (cgi.m_methods[index] != nullptr && kestal_compare_ignore_case(cgi.m_methods[index], given) != 0)
        ++index;
    cgi.m_method_index = index;
    cgi.m_method = cgi.m_methods[index] != nullptr ? cgi.m_methods[index] : given;
}

// A number beyond 64 bits is the largest one: so many bytes never come, and the request fails.
void take_content_length(kestal_cgi_t &cgi)
{
    constexpr uint64_t most = std::numeric_limits<uint64_t>::max();
    cgi.m_has_content_length = 0;
    cgi.m_content_length = 0;
    const char *digit = cgi_variable(cgi, "CONTENT_LENGTH");
    if (kestal::is_empty(digit))
        return;
    uint64_t length = 0;
    for (; *digit != '\0'; ++digit) {
        if (*digit < '0' || *digit > '9')
            return;
        const uint64_t value = static_cast<uint64_t>(*digit - '0');
        length = length > (most - value) / 10 ? most : length * 10 + value;
    }
    cgi.m_has_content_length = 1;
    cgi.m_content_length = length;
}

bool has_body(const kestal_cgi_t &cgi)
{
    if (cgi.m_has_content_length != 0 && cgi.m_content_length == 0)
        return false;
    if (cgi.m_method_index == KESTAL_CGI_METHOD_GET)
        return cgi.m_has_content_length != 0;
    return cgi.m_method_index != KESTAL_CGI_METHOD_HEAD;
}

bool hand_over(kestal_cgi_t &cgi, uint64_t size)
{
    for (uint64_t done = 0; cgi.m_incoming_handler != nullptr && done < size;) {
        const int64_t taken = cgi.m_incoming_handler(&cgi, cgi.m_block + done, size - done);
        if (taken <= 0)
            return false;
        done += std::min(static_cast<uint64_t>(taken), size - done);
    }
    return true;
}

bool keep(kestal_cgi_t &cgi, uint64_t size)
{
    if (cgi.m_body == nullptr)
        return true;
    const uint64_t limit = cgi.m_body_limit != 0 ? cgi.m_body_limit : KESTAL_CGI_BODY_LIMIT;
    if (kestal_get_buffer_size(cgi.m_body) >= limit) {
        kestal_error_printf("overflow entity body size (%llu>=%lu) !\n", cgi.m_received, limit);
        return true;
    }
    return kestal_push_buffer_ex(cgi.m_body, cgi.m_block, size, 0) == size;
}

// With a content length a single read must bring all of it, unless the whole body is asked for: callers rely on it.
bool read_body(kestal_cgi_t &cgi)
{
    const bool has_length = cgi.m_has_content_length != 0;
    uint64_t wanted = has_length ? cgi.m_content_length : std::numeric_limits<uint64_t>::max();
    for (;;) {
        const int64_t count =
            kestal_read_file(STDIN_FILENO, cgi.m_block, std::min(wanted, uint64_t{sizeof cgi.m_block}), read_timeout);
        if (count <= 0)
            return !has_length && (count == 0 || errno == ETIMEDOUT);
        const auto size = static_cast<uint64_t>(count);
        if (!hand_over(cgi, size))
            return false;
        cgi.m_received += size;
        if (!keep(cgi, size))
            return false;
        if (has_length && size >= wanted)
            return true;
        if (object_of(cgi).reads_whole_body != 0)
            wanted -= size;
    }
}

bool parse_form(kestal_cgi_t &cgi)
{
    kestal_free_uri_option(cgi.m_body_options);
    cgi.m_body_options = nullptr;
    const uint64_t size = kestal_get_buffer_size(cgi.m_body);
    const owned_block<char> text(kestal_alloc_tag(size + 1, "kestal_cgi_incoming", __LINE__), "kestal_cgi_incoming");
    if (!text)
        return false;
    kestal_peek_buffer_ex(cgi.m_body, text.get(), size, 0, 1);
    text[static_cast<size_t>(size)] = '\0';
    cgi.m_body_options = kestal_parse_uri_option(nullptr, text.get(), KESTAL_URI_OPTION_FORM);
    return true;
}

} // namespace

int32_t kestal_cgi_incoming(kestal_cgi_t *cgi)
{
    if (cgi == nullptr)
        return -1;
    take_method(*cgi);
    cgi->m_query_string = cgi_variable(*cgi, "QUERY_STRING");
    kestal_free_uri_option(cgi->m_query_options);
    cgi->m_query_options = kestal_parse_uri_option(nullptr, cgi->m_query_string, 0);
    cgi->m_user_agent = cgi_variable(*cgi, "HTTP_USER_AGENT");
    cgi->m_content_type = cgi_variable(*cgi, "CONTENT_TYPE");
    take_content_length(*cgi);

    if (!has_body(*cgi))
        return 0;
    if (!read_body(*cgi))
        return -1;
    return cgi->m_method_index == KESTAL_CGI_METHOD_POST && !parse_form(*cgi) ? -1 : 0;
}
