// Texts of callers, which may be null.
#pragma once

namespace kestal {

inline bool is_empty(const char *text)
{
    return text == nullptr || *text == '\0';
}

inline const char *or_empty(const char *text)
{
    return text == nullptr ? "" : text;
}

} // namespace kestal
