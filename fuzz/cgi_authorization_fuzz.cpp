// Any authorization header must be judged without harm, and whatever names and passwords a client has, the header that it
// makes of them lets in with the right password and with no other one.
#include "fuzz.hpp"

#include <string>
#include <vector>

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

std::string digest_header(const account &used, const std::string &realm, const std::string &nonce,
                          const std::string &uri)
{
    char response[KESTAL_HTTP_DIGEST_SIZE];
    kestal_http_digest("md5", used.name.c_str(), realm.c_str(), used.password.c_str(), nonce.c_str(), "c", "GET",
                       uri.c_str(), "auth", nullptr, "00000001", response);
    return "Digest username=" + quoted(used.name) + ", realm=" + quoted(realm) + ",nonce=" + quoted(nonce) +
           ", uri=" + quoted(uri) + ", qop=auth, nc=00000001, cnonce=c, response=" + quoted(response);
}

std::string basic_header(const account &used)
{
    const std::string text = used.name + ":" + used.password;
    char *encoded = kestal_encode_base64(text.data(), text.size(), nullptr);
    const std::string header = std::string("Basic ") + encoded;
    kestal_free(encoded);
    return header;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<std::string> texts(1);
    for (size_t i = 0; i < size; ++i)
        if (data[i] == '\0')
            texts.emplace_back();
        else
            texts.back() += static_cast<char>(data[i]);
    texts.resize(5);
    account known = {texts[0], texts[1]};
    for (const uint32_t checks_basic : {0u, 1u})
        is_allowed(texts[0], known, checks_basic);

    const account wrong = {known.name, known.password + "x"};
    require(is_allowed(digest_header(known, texts[2], texts[3], texts[4]), known, 0));
    require(!is_allowed(digest_header(wrong, texts[2], texts[3], texts[4]), known, 0));
    // Basic credentials have no colon in the name, and lose blanks before the password.
    if (known.name.find(':') != std::string::npos || known.password.starts_with(' '))
        return 0;
    require(is_allowed(basic_header(known), known, 1));
    require(!is_allowed(basic_header(wrong), known, 1) && is_allowed(basic_header(wrong), known, 0));
    return 0;
}
