#include <kestal_ulx/cgi.h>

#include "cgi.hpp"
#include "guard.hpp"
#include "http_digest.hpp"

#include <kestal_ulx/base64.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/ini.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/text.h>

#include <string.h>
#include <string_view>
#include <time.h>

namespace {

using kestal::cgi_variable;
using kestal::digest_text;
using kestal::is_empty;
using kestal::object_of;
using kestal::owned_block;
using kestal::write_md5_text;
using std::string_view;

constexpr const char *realm_variables[] = {"SERVER_ADMIN", "SERVER_ADDR", "SERVER_NAME"};
constexpr char fallback_realm[] = "kestal-ulx@localhost";

const char *skip_blanks(const char *text)
{
    return text + strspn(text, " ");
}

const char *realm_of(const kestal_cgi_t &cgi)
{
    for (const char *name : realm_variables)
        if (const char *value = cgi_variable(cgi, name); !is_empty(value))
            return value;
    return fallback_realm;
}

const kestal_cgi_account_t *find_account(const kestal_cgi_t &cgi, const char *username, const char *password)
{
    const kestal_cgi_account_t *account = cgi.m_accounts;
    while (account != nullptr && (strcmp(account->m_username, username) != 0 ||
                                  (password != nullptr && strcmp(account->m_password, password) != 0)))
        account = account->m_next;
    return account;
}

// Decoded credentials: overwritten when they go.
class decoded_credentials {
public:
    explicit decoded_credentials(const char *encoded)
        : text_(kestal_decode_base64(encoded, strlen(encoded), &size_), "kestal_cgi_digest_check")
    {}
    ~decoded_credentials()
    {
        if (text_)
            explicit_bzero(text_.get(), static_cast<size_t>(size_));
    }

    char *text() const { return text_.get(); }

private:
    uint64_t size_ = 0;
    owned_block<char> text_;
};

bool check_basic(kestal_cgi_t &cgi, const char *encoded)
{
    const decoded_credentials credentials(encoded);
    char *colon = credentials.text() == nullptr ? nullptr : strchr(credentials.text(), ':');
    if (colon == nullptr)
        return false;
    if (object_of(cgi).checks_basic == 0)
        return true; // whatever the accounts are: callers rely on it
    *colon = '\0';
    return find_account(cgi, credentials.text(), skip_blanks(colon + 1)) != nullptr;
}

class parameter_list {
public:
    explicit parameter_list(const char *text) : ini_(kestal_parse_ini_parameters(text)) {}
    ~parameter_list() { kestal_close_ini(ini_); }
    parameter_list(const parameter_list &) = delete;
    parameter_list &operator=(const parameter_list &) = delete;

    explicit operator bool() const { return ini_ != nullptr; }
    const char *operator[](const char *name) const { return kestal_search_ini_value(ini_, nullptr, name); }

private:
    kestal_ini_t *ini_;
};

bool is_opaque_of(const char *opaque, const char *realm)
{
    digest_text expected;
    return realm != nullptr && strcmp(write_md5_text(expected.characters, {realm}), opaque) == 0;
}

bool check_digest(const kestal_cgi_t &cgi, const char *text)
{
    const parameter_list given(text);
    if (!given)
        return false;
    const char *realm = given["realm"];
    if (const char *opaque = given["opaque"]; opaque != nullptr && !is_opaque_of(opaque, realm))
        return false;
    const char *username = given["username"];
    const kestal_cgi_account_t *account = find_account(cgi, username == nullptr ? "" : username, nullptr);
    if (account == nullptr)
        return false;
    digest_text expected;
    kestal_http_digest("md5", username, realm, account->m_password, given["nonce"], given["cnonce"], cgi.m_method,
                       given["uri"], given["qop"], nullptr, given["nc"], expected.characters);
    const char *response = given["response"];
    return response != nullptr && strcmp(response, expected.characters) == 0;
}

bool check(kestal_cgi_t &cgi)
{
    const char *authorization = cgi_variable(cgi, "HTTP_AUTHORIZATION");
    uint64_t length = 0;
    const char *word = kestal_get_word(&authorization, " ", 0, &length);
    if (word == nullptr)
        return false;
    const auto is_scheme = [scheme = string_view(word, static_cast<size_t>(length))](string_view name) {
        return scheme.size() == name.size() && strncasecmp(scheme.data(), name.data(), name.size()) == 0;
    };
    const char *credentials = skip_blanks(authorization);
    if (is_scheme("basic"))
        return check_basic(cgi, credentials);
    return is_scheme("digest") && check_digest(cgi, credentials);
}

} // namespace

int32_t kestal_cgi_digest_check(kestal_cgi_t *cgi)
{
    if (cgi == nullptr)
        return -1;
    const bool is_open = cgi->m_accounts == nullptr && object_of(*cgi).lacks_account == 0;
    if (is_open || check(*cgi))
        return 0;
    kestal_cgi_unauthorization(cgi);
    return -1;
}

int32_t kestal_cgi_unauthorization(kestal_cgi_t *cgi)
{
    const char *realm = realm_of(*cgi);
    const time_t minute = time(nullptr) / 60 * 60;
    tm utc{};
    char stamp[32] = "";
    if (gmtime_r(&minute, &utc) != nullptr)
        strftime(stamp, sizeof stamp, "%Y%m%d%H%M%S", &utc);
    digest_text opaque, nonce;
    write_md5_text(opaque.characters, {realm});
    write_md5_text(nonce.characters, {opaque.characters, stamp});
    if (kestal_cgi_set_response_header(cgi, "Status", "401 Unauthorized") != 0)
        return -1;
    const owned_block<char> challenge(
        kestal_alloc_sprintf("%s realm=\"%s\", qop=\"%s\", nonce=\"%s\", opaque=\"%s\", algorithm=\"%s\"", "Digest",
                             realm, "auth", nonce.characters, opaque.characters, "md5"),
        "kestal_cgi_unauthorization");
    return challenge ? kestal_cgi_set_response_header(cgi, "WWW-Authenticate", challenge.get()) : -1;
}
