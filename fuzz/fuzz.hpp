// What the fuzz targets share.
#pragma once

#include <kestal_ulx.h>

#include <cstdlib>
#include <string>

inline void require(bool holds)
{
    if (!holds)
        std::abort();
}

// The text in double quotes, where "\" takes the next byte as it is.
inline std::string quoted(const std::string &text)
{
    std::string result;
    for (const char character : text)
        result += (character == '"' || character == '\\' ? "\\" : "") + std::string(1, character);
    return '"' + result + '"';
}
