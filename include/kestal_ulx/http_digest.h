/**
 * @file
 * The values of HTTP digest authentication (RFC 2617 section 3.2.2; without a quality of protection, RFC 2069), for both
 * sides of a connection: the client sends the response, the server computes what it must have been.
 *
 * All texts may be null and count as empty then; they may be the `out` of the call itself. `out` takes 33 bytes: 32
 * lower-case hexadecimal digits and a NUL. Nothing is allocated and no state is kept; what a password was worked
 * up in is overwritten. Each call returns `out`, null when that is null.
 */
#ifndef KESTAL_ULX_HTTP_DIGEST_H
#define KESTAL_ULX_HTTP_DIGEST_H

#include <kestal_ulx/base.h>

KESTAL_BEGIN_DECLS

/** The bytes that a digest value takes with its NUL. */
#define KESTAL_HTTP_DIGEST_SIZE 33

/**
 * HA1, the digest of user, realm and password: MD5(username:realm:password). With the algorithm "md5-sess", in just
 * these letters, that of the session: MD5(HA1:nonce:cnonce). Any other algorithm, "MD5-sess" too, counts as plain MD5.
 */
KESTAL_API char *kestal_http_digest_ha1(const char *algorithm, const char *username, const char *realm,
                                        const char *password, const char *nonce, const char *cnonce, char *out);

/**
 * HA2, the digest of the request: MD5(method:uri), with the quality of protection "auth-int", in just these letters,
 * MD5(method:uri:entity_hash).
 */
KESTAL_API char *kestal_http_digest_ha2(const char *method, const char *uri, const char *qop, const char *entity_hash,
                                        char *out);

/**
 * The response: MD5(ha1:nonce:nc:cnonce:qop:ha2), where `nc` is the nonce count as eight hexadecimal digits and `qop` the
 * quality of protection; without the latter MD5(ha1:nonce:ha2).
 */
KESTAL_API char *kestal_http_digest_response(const char *ha1, const char *ha2, const char *nonce, const char *nc,
                                             const char *cnonce, const char *qop, char *out);

/** The response from all that goes into it: HA1, HA2 and the response as the calls above compute them. */
KESTAL_API char *kestal_http_digest(const char *algorithm, const char *username, const char *realm,
                                    const char *password, const char *nonce, const char *cnonce, const char *method,
                                    const char *uri, const char *qop, const char *entity_hash, const char *nc,
                                    char *out);

KESTAL_END_DECLS

#endif
