// Any authorization header must be judged without harm, and whatever names and passwords a client has, the Digest header that
// it makes of them lets in with the right password and with no other one.
#include "fuzz.hpp"

#include <algorithm>

namespace {

struct account {
    std::string name, password;
};

// Whether the header opens the account to a GET.
bool is_allowed(const std::string &header, const account &known, uint32_t checks_basic)
{
    const uint64_t blocks = kestal_get_alloc_count();
    std::string method = "REQUEST_METHOD=GET", authorization = "HTTP_AUTHORIZATION=" + header;
    char *environment[] = {method.data(), authorization.data(), nullptr};
    kestal_cgi_t *cgi = kestal_open_cgi(0, nullptr, environment);
    kestal_cgi_add_account(cgi, known.name.c_str(), known.password.c_str());
    kestal_cgi_set_basic_check(cgi, checks_basic);
    require(kestal_cgi_incoming(cgi) == 0);
    const bool result = kestal_cgi_digest_check(cgi) == 0;
    require(result == (cgi->m_response_headers == nullptr));
    kestal_close_cgi(cgi);
    require(kestal_get_alloc_count() == blocks);
    return result;
}

std::string digest_header(const account &used)
{
    char response[KESTAL_HTTP_DIGEST_SIZE];
    kestal_http_digest("md5", used.name.c_str(), "r", used.password.c_str(), "n", "c", "GET", "/u", "auth", nullptr,
                       "1", response);
    return "Digest username=" + quoted(used.name) +
           ", realm=r,nonce=n, uri=/u, qop=auth, nc=1, cnonce=c, response=" + response;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The input is a name or a header, a zero byte, and a password.
    const std::string input(reinterpret_cast<const char *>(data), size), name = input.c_str();
    const account known = {name, input.c_str() + std::min(name.size() + 1, size)};
    is_allowed(name, known, size % 2);
    const account wrong = {known.name, known.password + "x"};
    require(is_allowed(digest_header(known), known, 0) && !is_allowed(digest_header(wrong), known, 0));
    return 0;
}
