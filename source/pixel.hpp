// Pixels of a known number of bytes in memory.
#pragma once

#include <bit>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <type_traits>

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

// Calls body(bytes) with the bytes of a pixel as a number that is known when it is compiled.
template <typename Body>
auto with_pixel_bytes(size_t bytes, Body body)
{
    switch (bytes) {
    case 1:
        return body(std::integral_constant<size_t, 1>{});
    case 2:
        return body(std::integral_constant<size_t, 2>{});
    case 3:
        return body(std::integral_constant<size_t, 3>{});
    default:
        return body(std::integral_constant<size_t, 4>{});
    }
}

inline uint32_t load_pixel(const uint8_t *at, size_t bytes)
{
    return with_pixel_bytes(bytes, [=](auto size) { return load_pixel<size>(at); });
}

inline void store_pixel(uint8_t *at, size_t bytes, uint32_t value)
{
    with_pixel_bytes(bytes, [=](auto size) { store_pixel<size>(at, value); });
}

// The bits of a colour that a pixel of so many bytes holds.
constexpr uint32_t pixel_mask(size_t bytes)
{
    return UINT32_MAX >> (32 - 8 * bytes);
}

} // namespace kestal
