// Base64 on 16 characters at a time: x86 SSSE3. Each call stops where a vector no longer fits or holds something else
// than plain data; the portable code goes on from there.
#pragma once

#include "base64_alphabet.hpp"
#include "processor.hpp"

#include <bit>
#include <stddef.h>
#include <stdint.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace kestal::base64_instructions {

#if defined(__x86_64__)

inline bool usable()
{
    return processor::has(processor::ssse3);
}

[[gnu::target("ssse3"), gnu::always_inline]] inline __m128i load_vector(const void *from)
{
    return _mm_loadu_si128(static_cast<const __m128i *>(from));
}

// Encodes groups of 3 bytes. Returns how many bytes it took.
[[gnu::target("ssse3")]] inline size_t encode(const uint8_t *data, size_t size, char *text, bool url_safe)
{
    const base64_alphabet &alphabet = base64_alphabets[url_safe];
    // Each 32-bit lane gets a group, bytes 1 0 2 1, so that two multiplications bring every sextet to its place.
    const __m128i groups = _mm_set_epi8(10, 11, 9, 10, 7, 8, 6, 7, 4, 5, 3, 4, 1, 2, 0, 1);
    // What is to be added to a sextet: at 13 for capitals, 0 for small letters, 1 to 10 for digits, 11 and 12.
    const char digit = '0' - 52;
    const __m128i shifts =
        _mm_set_epi8(0, 0, 'A', static_cast<char>(alphabet[63] - 63), static_cast<char>(alphabet[62] - 62), digit,
                     digit, digit, digit, digit, digit, digit, digit, digit, digit, 'a' - 26);
    size_t taken = 0;
    for (; size - taken >= 16; taken += 12, text += 16) {
        const __m128i bytes = _mm_shuffle_epi8(load_vector(data + taken), groups);
        const __m128i first_third = _mm_and_si128(bytes, _mm_set1_epi32(0x0FC0FC00));
        const __m128i second_fourth = _mm_and_si128(bytes, _mm_set1_epi32(0x003F03F0));
        const __m128i sextets = _mm_or_si128(_mm_mulhi_epu16(first_third, _mm_set1_epi32(0x04000040)),
                                             _mm_mullo_epi16(second_fourth, _mm_set1_epi32(0x01000010)));
        const __m128i capital = _mm_cmpgt_epi8(_mm_set1_epi8(26), sextets);
        const __m128i kind =
            _mm_or_si128(_mm_subs_epu8(sextets, _mm_set1_epi8(51)), _mm_and_si128(capital, _mm_set1_epi8(13)));
        const __m128i characters = _mm_add_epi8(sextets, _mm_shuffle_epi8(shifts, kind));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(text), characters);
    }
    return taken;
}

// What tells the characters of an alphabet, in the rows and columns of the character table (16 characters a row).
struct character_table {
    uint8_t rows_in_column[16]{}; // a bit for each row that has one in this column
    uint8_t bit_of_row[16]{};
    int8_t shift_of_row[16]{}; // from character to value, but for the last character
    int8_t last_shift;         // what the last character needs beyond its row's

    explicit constexpr character_table(const base64_alphabet &alphabet)
    {
        for (int value = 63; value >= 0; --value) {
            const uint8_t character = static_cast<uint8_t>(alphabet[value]), row = character / 16;
            bit_of_row[row] = static_cast<uint8_t>(1 << row);
            rows_in_column[character % 16] |= bit_of_row[row];
            if (value < 63)
                shift_of_row[row] = static_cast<int8_t>(value - character);
        }
        last_shift = static_cast<int8_t>(63 - alphabet[63] - shift_of_row[alphabet[63] / 16]);
    }
};

inline constexpr character_table character_tables[2] = {character_table(base64_alphabets[0]),
                                                        character_table(base64_alphabets[1])};

// Turns characters into sextets up to the first foreign one. Returns how many; `size` bytes of sextets may be touched.
[[gnu::target("ssse3")]] inline size_t translate(const uint8_t *text, size_t size, uint8_t *sextets, bool url_safe)
{
    const character_table &table = character_tables[url_safe];
    const __m128i rows_in_column = load_vector(table.rows_in_column);
    const __m128i bit_of_row = load_vector(table.bit_of_row);
    const __m128i shift_of_row = load_vector(table.shift_of_row);
    const __m128i last_character = _mm_set1_epi8(base64_alphabets[url_safe][63]);
    const __m128i last_shift = _mm_set1_epi8(table.last_shift);
    size_t done = 0;
    for (; size - done >= 16; done += 16) {
        const __m128i characters = load_vector(text + done);
        const __m128i rows = _mm_and_si128(_mm_srli_epi32(characters, 4), _mm_set1_epi8(15));
        const __m128i shift = _mm_add_epi8(_mm_shuffle_epi8(shift_of_row, rows),
                                           _mm_and_si128(_mm_cmpeq_epi8(characters, last_character), last_shift));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(sextets + done), _mm_add_epi8(characters, shift));

        // A character above 127 finds no row.
        const __m128i found =
            _mm_and_si128(_mm_shuffle_epi8(rows_in_column, characters), _mm_shuffle_epi8(bit_of_row, rows));
        const int foreign = _mm_movemask_epi8(_mm_cmpeq_epi8(found, _mm_setzero_si128()));
        if (foreign != 0)
            return done + static_cast<size_t>(std::countr_zero(static_cast<uint32_t>(foreign)));
    }
    return done;
}

// Packs sextets into bytes up to a vector that holds something else. Returns how many; `room` bytes may be touched.
[[gnu::target("ssse3")]] inline size_t pack(const uint8_t *sextets, size_t size, uint8_t *bytes, size_t room)
{
    const __m128i order = _mm_set_epi8(-1, -1, -1, -1, 12, 13, 14, 8, 9, 10, 4, 5, 6, 0, 1, 2);
    size_t taken = 0;
    for (; size - taken >= 16 && room >= 16; taken += 16, bytes += 12, room -= 12) {
        const __m128i values = load_vector(sextets + taken);
        if (_mm_movemask_epi8(_mm_cmpgt_epi8(values, _mm_set1_epi8(63))) != 0)
            break;
        const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
        const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(bytes), _mm_shuffle_epi8(groups, order));
    }
    return taken;
}

#else

inline bool usable()
{
    return false;
}

inline size_t encode(const uint8_t *, size_t, char *, bool)
{
    return 0;
}

inline size_t translate(const uint8_t *, size_t, uint8_t *, bool)
{
    return 0;
}

inline size_t pack(const uint8_t *, size_t, uint8_t *, size_t)
{
    return 0;
}

#endif

} // namespace kestal::base64_instructions
