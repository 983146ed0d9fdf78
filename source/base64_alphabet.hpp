// The characters of Base64, for the portable code and for the instructions.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace kestal {

// The character of each value, and the pad behind them.
using base64_alphabet = char[66];

// Standard, and URL-safe.
inline constexpr base64_alphabet base64_alphabets[2] = {
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=",
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_="};

constexpr size_t base64_pad = 64;

} // namespace kestal
