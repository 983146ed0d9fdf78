// Words at any address, in the byte order that a format asks for.
#pragma once

#include <bit>
#include <stdint.h>
#include <string.h>

namespace kestal {

inline uint32_t swap_bytes(uint32_t word)
{
    return __builtin_bswap32(word);
}

inline uint64_t swap_bytes(uint64_t word)
{
    return __builtin_bswap64(word);
}

template <typename Word, std::endian order>
Word load_word(const uint8_t *from)
{
    Word word;
    memcpy(&word, from, sizeof word);
    return std::endian::native == order ? word : swap_bytes(word);
}

template <typename Word, std::endian order>
void store_word(uint8_t *to, Word word)
{
    if (std::endian::native != order)
        word = swap_bytes(word);
    memcpy(to, &word, sizeof word);
}

inline uint32_t load_little_32(const uint8_t *from)
{
    return load_word<uint32_t, std::endian::little>(from);
}

inline uint64_t load_little_64(const uint8_t *from)
{
    return load_word<uint64_t, std::endian::little>(from);
}

inline uint32_t load_big_32(const uint8_t *from)
{
    return load_word<uint32_t, std::endian::big>(from);
}

inline uint64_t load_big_64(const uint8_t *from)
{
    return load_word<uint64_t, std::endian::big>(from);
}

inline void store_little_32(uint8_t *to, uint32_t word)
{
    store_word<uint32_t, std::endian::little>(to, word);
}

inline void store_little_64(uint8_t *to, uint64_t word)
{
    store_word<uint64_t, std::endian::little>(to, word);
}

inline void store_big_32(uint8_t *to, uint32_t word)
{
    store_word<uint32_t, std::endian::big>(to, word);
}

inline void store_big_64(uint8_t *to, uint64_t word)
{
    store_word<uint64_t, std::endian::big>(to, word);
}

} // namespace kestal
