// How a call fails that has found the cause itself.
#pragma once

#include <errno.h>
#include <stdint.h>

namespace kestal {

// Sets errno; -1.
inline int32_t fail_with(int error)
{
    errno = error;
    return -1;
}

} // namespace kestal
