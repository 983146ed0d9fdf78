// MD5 over texts joined by colons, as HTTP authentication wants it.
#pragma once

#include <kestal_ulx/http_digest.h>
#include <kestal_ulx/md5.h>

#include <algorithm>
#include <string.h>

namespace kestal {

// A digest value that does not outlive its scope.
struct digest_text {
    char characters[KESTAL_HTTP_DIGEST_SIZE];

    ~digest_text() { explicit_bzero(characters, sizeof characters); }
};

// Writes the lower-case digits of MD5(text:more:more...) to `out`, which may be one of the texts. Returns `out`; null when
// that is null.
template <typename... Texts>
char *write_md5_text(char *out, const char *text, Texts... more)
{
    if (out == nullptr)
        return nullptr;
    kestal_md5_t context;
    kestal_init_md5(&context);
    const auto push = [&context](const char *part) { kestal_md5_push(&context, part, part == nullptr ? 0 : strlen(part)); };
    const auto push_next = [&context, push](const char *part) {
        kestal_md5_push(&context, ":", 1);
        push(part);
    };
    push(text);
    (push_next(more), ...);
    std::transform(kestal_md5_digest(&context, nullptr), context.m_text + sizeof context.m_text, out,
                   [](char digit) { return digit >= 'A' ? static_cast<char>(digit | 0x20) : digit; });
    explicit_bzero(&context, sizeof context);
    return out;
}

} // namespace kestal
