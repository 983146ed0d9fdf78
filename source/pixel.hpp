// Pixels of a known number of bytes in memory.
#pragma once

#include <bit>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace kestal {

// Pixels of 1, 2 and 4 bytes lie in the machine's byte order, those of 3 from the least significant byte on.
template <size_t bytes>
uint32_t load_pixel(const uint8_t *at)
{
    if constexpr (bytes == 3) {
        return at[0] | uint32_t{at[1]} << 8 | uint32_t{at[2]} << 16;
    } else if constexpr (bytes == 1) {
        return *at;
    } else if constexpr (bytes == 2) {
        uint16_t value;
        memcpy(&value, at, sizeof value);
        return value;
    } else {
        uint32_t value;
        memcpy(&value, at, sizeof value);
        return value;
    }
}

template <size_t bytes>
void store_pixel(uint8_t *at, uint32_t value)
{
    at[0] = static_cast<uint8_t>(value);
    if constexpr (bytes == 3) {
        at[1] = static_cast<uint8_t>(value >> 8);
        at[2] = static_cast<uint8_t>(value >> 16);
    } else if constexpr (bytes == 2) {
        const auto half = static_cast<uint16_t>(value);
        memcpy(at, &half, sizeof half);
    } else if constexpr (bytes == 4) {
        memcpy(at, &value, sizeof value);
    }
}

// The bits of a colour that a pixel of so many bytes holds.
template <size_t bytes>
constexpr uint32_t pixel_mask = bytes == 4 ? UINT32_MAX : (1u << bytes % 4 * 8) - 1;

inline uint32_t load_pixel(const uint8_t *at, size_t bytes)
{
    switch (bytes) {
    case 1:
        return load_pixel<1>(at);
    case 2:
        return load_pixel<2>(at);
    case 3:
        return load_pixel<3>(at);
    default:
        return load_pixel<4>(at);
    }
}

inline void store_pixel(uint8_t *at, size_t bytes, uint32_t value)
{
    switch (bytes) {
    case 1:
        return store_pixel<1>(at, value);
    case 2:
        return store_pixel<2>(at, value);
    case 3:
        return store_pixel<3>(at, value);
    default:
        return store_pixel<4>(at, value);
    }
}

} // namespace kestal
