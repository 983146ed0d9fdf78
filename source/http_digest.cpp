#include <kestal_ulx/http_digest.h>

#include "http_digest.hpp"

#include <kestal_ulx/md5.h>

#include <string_view>

namespace {

using kestal::digest_text;
using kestal::write_md5_text;
using std::string_view;

bool equals(const char *text, string_view wanted)
{
    return text != nullptr && text == wanted;
}

} // namespace

char *kestal::write_md5_text(char *out, std::initializer_list<const char *> texts)
{
    if (out == nullptr)
        return nullptr;
    kestal_md5_t context;
    kestal_init_md5(&context);
    const char *separator = "";
    for (const char *text : texts) {
        for (const char *part : {separator, text})
            kestal_md5_push(&context, part, part == nullptr ? 0 : strlen(part));
        separator = ":";
    }
    char *place = out;
    for (const char *digit = kestal_md5_digest(&context, nullptr); *digit != '\0'; ++digit)
        *place++ = static_cast<char>(*digit | 0x20); // digits stay as they are
    *place = '\0';
    explicit_bzero(&context, sizeof context);
    return out;
}

char *kestal_http_digest_ha1(const char *algorithm, const char *username, const char *realm, const char *password,
                             const char *nonce, const char *cnonce, char *out)
{
    if (!equals(algorithm, "md5-sess"))
        return write_md5_text(out, {username, realm, password});
    digest_text plain;
    write_md5_text(plain.characters, {username, realm, password});
    return write_md5_text(out, {plain.characters, nonce, cnonce});
}

char *kestal_http_digest_ha2(const char *method, const char *uri, const char *qop, const char *entity_hash, char *out)
{
    return equals(qop, "auth-int") ? write_md5_text(out, {method, uri, entity_hash})
                                   : write_md5_text(out, {method, uri});
}

char *kestal_http_digest_response(const char *ha1, const char *ha2, const char *nonce, const char *nc,
                                  const char *cnonce, const char *qop, char *out)
{
    if (qop == nullptr || *qop == '\0')
        return write_md5_text(out, {ha1, nonce, ha2});
    return write_md5_text(out, {ha1, nonce, nc, cnonce, qop, ha2});
}

char *kestal_http_digest(const char *algorithm, const char *username, const char *realm, const char *password,
                         const char *nonce, const char *cnonce, const char *method, const char *uri, const char *qop,
                         const char *entity_hash, const char *nc, char *out)
{
    digest_text ha1, ha2;
    kestal_http_digest_ha2(method, uri, qop, entity_hash, ha2.characters);
    kestal_http_digest_ha1(algorithm, username, realm, password, nonce, cnonce, ha1.characters);
    return kestal_http_digest_response(ha1.characters, ha2.characters, nonce, nc, cnonce, qop, out);
}
