// What the fuzz targets share.
#pragma once

#include <kestal_ulx.h>

#include <cstdlib>

inline void require(bool holds)
{
    if (!holds)
        std::abort();
}
