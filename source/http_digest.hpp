// Digest texts over several texts, as HTTP authentication wants them.
#pragma once

#include <kestal_ulx/http_digest.h>

#include <initializer_list>
#include <string.h>

namespace kestal {

// A digest value that does not outlive its scope.
struct digest_text {
    char characters[KESTAL_HTTP_DIGEST_SIZE];

    ~digest_text() { explicit_bzero(characters, sizeof characters); }
};

// Writes the lower-case digits of the MD5 of texts (null: empty) joined by colons to `out`, which may be one of them.
// Returns `out`; null when that is null.
char *write_md5_text(char *out, std::initializer_list<const char *> texts);

} // namespace kestal
