// What the parts of the CGI module share.
#pragma once

#include "caller_text.hpp"

#include <kestal_ulx/cgi.h>

// What an object keeps behind its public fields.
struct kestal_cgi_object : kestal_cgi {
    uint32_t checks_basic;
    uint32_t checks_headers;
    uint32_t lacks_account; // one could not be added
    uint32_t reads_whole_body;
    void *context;
};

// Sets the headers of the answer to a request whose credentials are missing or wrong. 0, or -1 when memory is short.
int32_t kestal_cgi_unauthorization(kestal_cgi_t *cgi);

namespace kestal {

inline kestal_cgi_object &object_of(kestal_cgi_t &cgi)
{
    return static_cast<kestal_cgi_object &>(cgi);
}

// A variable of the request's environment; null when there is none.
inline const char *cgi_variable(const kestal_cgi_t &cgi, const char *name)
{
    return kestal_search_argument_variable(cgi.m_argument, name);
}

} // namespace kestal
