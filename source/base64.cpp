#include <kestal_ulx/base64.h>

#include "base64_instructions.hpp"
#include "byte_order.hpp"
#include "guard.hpp"
#include "set_field.hpp"

#include <algorithm>
#include <array>
#include <string.h>

namespace {

using kestal::base64_alphabet;
using kestal::base64_alphabets;
using kestal::set_field;
namespace instructions = kestal::base64_instructions;

// What a character means where it is not worth its 6 bits.
enum : uint8_t { pad = kestal::base64_pad, whitespace, foreign };

// The bit that all of these have and no value has, in eight places.
constexpr uint64_t marks = 0x4040404040404040;

using meanings = std::array<uint8_t, 256>;

constexpr meanings meanings_of(const base64_alphabet &alphabet)
{
    meanings table;
    table.fill(foreign);
    for (const char space : {' ', '\t', '\n', '\v', '\f', '\r'})
        table[static_cast<uint8_t>(space)] = whitespace;
    for (uint8_t value = 0; value <= pad; ++value)
        table[static_cast<uint8_t>(alphabet[value])] = value;
    return table;
}

constexpr meanings meanings_in[2] = {meanings_of(base64_alphabets[0]), meanings_of(base64_alphabets[1])};

// --- bytes to characters

// Encodes whole groups of 3 bytes to 4 characters each.
void encode_groups(const uint8_t *data, size_t size, char *text, bool url_safe)
{
    const base64_alphabet &alphabet = base64_alphabets[url_safe];
    size_t done = instructions::usable() ? instructions::encode(data, size, text, url_safe) : 0;
    text += done / 3 * 4;
    for (; size - done >= 8; done += 6, text += 8) {
        const uint64_t word = kestal::load_big_64(data + done);
#pragma GCC unroll 8
        for (unsigned i = 0; i < 8; ++i)
            text[i] = alphabet[word >> (58 - 6 * i) & 63];
    }
    for (; done < size; done += 3, text += 4) {
        const uint32_t word = static_cast<uint32_t>(data[done] << 16 | data[done + 1] << 8 | data[done + 2]);
        for (unsigned i = 0; i < 4; ++i)
            text[i] = alphabet[word >> (18 - 6 * i) & 63];
    }
}

// Encodes the 1 or 2 bytes of the last group, padded to 4 characters.
void encode_rest(const uint8_t *data, size_t size, char *text, bool url_safe)
{
    const uint8_t group[3] = {data[0], size == 2 ? data[1] : uint8_t{0}, 0};
    encode_groups(group, 3, text, url_safe);
    text[3] = base64_alphabets[url_safe][pad];
    if (size == 1)
        text[2] = base64_alphabets[url_safe][pad];
}

// --- characters to bytes, by way of sextets: what each character is worth, and `pad` where a group is padded

// What a step took from its input and gave; `blocked` when it went no further because the output has no room.
struct progress {
    size_t taken = 0, made = 0;
    bool blocked = false;
};

// Translates characters of the alphabet for as long as there is nothing else. Returns how many, perhaps a few too few.
size_t translate_plain(const uint8_t *text, size_t size, uint8_t *sextets, bool url_safe)
{
    const meanings &meaning = meanings_in[url_safe];
    size_t done = instructions::usable() ? instructions::translate(text, size, sextets, url_safe) : 0;
    for (; size - done >= 8; done += 8) {
        uint64_t word = 0;
#pragma GCC unroll 8
        for (size_t i = 0; i < 8; ++i)
            word = word << 8 | meaning[text[done + i]];
        if ((word & marks) != 0)
            break;
        kestal::store_big_64(sextets + done, word);
    }
    return done;
}

// Translates characters, of which whitespace goes without a trace, up to a foreign one, unless those are skipped.
progress translate(const uint8_t *text, size_t size, uint8_t *sextets, bool url_safe, bool skips_foreign)
{
    progress done;
    while (done.taken < size) {
        const size_t plain = translate_plain(text + done.taken, size - done.taken, sextets + done.made, url_safe);
        done.taken += plain;
        done.made += plain;
        if (done.taken == size)
            break;
        const uint8_t meaning = meanings_in[url_safe][text[done.taken]];
        if (meaning == foreign && !skips_foreign)
            break;
        ++done.taken;
        if (meaning <= pad)
            sextets[done.made++] = meaning;
    }
    return done;
}

// Packs groups of 4 sextets without pads for as long as they come and there is room to spare.
size_t pack_plain(const uint8_t *sextets, size_t size, uint8_t *bytes, size_t room)
{
    size_t done = instructions::usable() ? instructions::pack(sextets, size, bytes, room) : 0;
    bytes += done / 4 * 3;
    room -= done / 4 * 3;
    for (; size - done >= 8 && room >= 8; done += 8, bytes += 6, room -= 6) {
        uint64_t word = kestal::load_big_64(sextets + done);
        if ((word & marks) != 0)
            break;
        word = (word & 0x003F003F003F003F) | (word >> 2 & 0x0FC00FC00FC00FC0);
        word = (word & 0x00000FFF00000FFF) | (word >> 4 & 0x00FFF00000FFF000);
        kestal::store_big_64(bytes, word << 40 >> 24 | word >> 32 << 40);
    }
    return done;
}

// Packs groups of 4 sextets into 3 bytes, and those that a pad, or the end of the `last` input, cuts short into fewer.
// Each needs room for 3 bytes all the same.
progress pack(const uint8_t *sextets, size_t size, uint8_t *bytes, size_t room, bool last)
{
    progress done;
    for (;;) {
        const size_t plain = pack_plain(sextets + done.taken, size - done.taken, bytes + done.made, room - done.made);
        done.taken += plain;
        done.made += plain / 4 * 3;

        const uint8_t *group = sextets + done.taken;
        const size_t most = std::min<size_t>(size - done.taken, 4);
        const size_t length = static_cast<size_t>(std::find(group, group + most, pad) - group);
        const bool padded = length < most;
        if (most == 0 || (length < 4 && !padded && !last))
            return done;
        if (length > 1 && room - done.made < 3) {
            done.blocked = true;
            return done;
        }
        uint32_t word = 0;
        for (size_t i = 0; i < 4; ++i)
            word = word << 6 | (i < length ? group[i] : 0u);
        for (size_t i = 1; i < length; ++i)
            bytes[done.made++] = static_cast<uint8_t>(word >> (24 - 8 * i));
        done.taken += length + (padded ? 1 : 0);
    }
}

// --- streams

// As much input as is worked on at a time: whole groups, and whole vectors of them.
constexpr size_t window_size = 1536;

enum finished : uint32_t { end_marked = 1, end_written, broken };

// Whether a push of `size` bytes may be taken.
bool accepts(const kestal_base64_t *context, const void *data, uint64_t size)
{
    if (context == nullptr || context->m_finished == broken || (data == nullptr && size != 0))
        return false;
    const uint64_t limit = context->m_input_limit;
    const uint64_t fed = kestal_get_buffer_offset(context->m_input) + kestal_get_buffer_size(context->m_input);
    return limit == 0 || (size <= limit && fed <= limit - size);
}

uint64_t room_for_output(const kestal_base64_t &context)
{
    const uint64_t held = kestal_get_buffer_size(context.m_output);
    if (context.m_output_limit == 0)
        return UINT64_MAX;
    return context.m_output_limit > held ? context.m_output_limit - held : 0;
}

// A part of the bytes may have been queued when memory runs short, which nobody could put right later.
bool push_all(kestal_base64_t &context, kestal_buffer_t *buffer, const void *data, size_t size)
{
    if (size == 0 || kestal_push_buffer_ex(buffer, data, size, 0) == size)
        return true;
    context.m_finished = broken;
    return false;
}

// Converts pending input by step(window, size, last, out), whose results go to write(out, size).
template <typename Step, typename Write>
int32_t convert_pending(kestal_base64_t &context, Step step, Write write)
{
    for (;;) {
        uint8_t window[window_size], out[window_size / 3 * 4];
        const size_t size = static_cast<size_t>(kestal_peek_buffer_ex(context.m_input, window, window_size, 0, 0));
        const bool last = context.m_finished != 0 && size == kestal_get_buffer_size(context.m_input);
        const progress done = step(window, size, last, out);
        if (!write(out, done.made))
            return -1;
        if (done.taken == 0)
            return done.blocked ? -1 : 0;
        kestal_pop_buffer_ex(context.m_input, nullptr, done.taken, 0);
    }
}

progress encode_window(const kestal_base64_t &context, const uint8_t *window, size_t size, bool last, char *text)
{
    const bool url_safe = context.m_alphabet != 0;
    const uint64_t room = room_for_output(context) / 4;
    size_t groups = static_cast<size_t>(std::min<uint64_t>(size / 3, room));
    // Newlines take room as well: with lines, each group asks for its own.
    if (context.m_output_limit != 0 && context.m_line_length != 0)
        groups = std::min<size_t>(groups, 1);
    if (groups > 0) {
        encode_groups(window, 3 * groups, text, url_safe);
        return {3 * groups, 4 * groups};
    }
    if (size == 0 || (size < 3 && !last))
        return {};
    if (room == 0)
        return {0, 0, true};
    encode_rest(window, size, text, url_safe);
    return {size, 4};
}

// Writes what ends a line, 1 or 2 characters, and returns its length.
size_t end_line(kestal_base64_t &context, char *text)
{
    size_t length = 0;
    if (context.m_line_continuation != 0)
        text[length++] = '\\';
    text[length++] = '\n';
    context.m_column = 0;
    return length;
}

bool write_text(kestal_base64_t &context, const char *text, size_t size)
{
    if (context.m_line_length == 0)
        return push_all(context, context.m_output, text, size);
    char lines[window_size];
    size_t filled = 0;
    while (size > 0) {
        if (filled > sizeof lines - 4) {
            if (!push_all(context, context.m_output, lines, filled))
                return false;
            filled = 0;
        }
        if (context.m_column >= context.m_line_length)
            filled += end_line(context, lines + filled);
        const size_t part = std::min(size, sizeof lines - filled);
        const size_t fits = static_cast<size_t>(std::min<uint64_t>(part, context.m_line_length - context.m_column));
        memcpy(lines + filled, text, fits);
        text += fits;
        size -= fits;
        filled += fits;
        context.m_column += fits;
    }
    return push_all(context, context.m_output, lines, filled);
}

int32_t encode_pending(kestal_base64_t &context)
{
    return convert_pending(
        context,
        [&context](const uint8_t *window, size_t size, bool last, uint8_t *out) {
            return encode_window(context, window, size, last, reinterpret_cast<char *>(out));
        },
        [&context](const uint8_t *out, size_t size) {
            return write_text(context, reinterpret_cast<const char *>(out), size);
        });
}

int32_t end_encoding(kestal_base64_t &context)
{
    context.m_finished = std::max<uint32_t>(context.m_finished, end_marked);
    if (encode_pending(context) != 0)
        return -1;
    if (context.m_finished == end_marked && context.m_line_length != 0) {
        char text[2];
        if (!push_all(context, context.m_output, text, end_line(context, text)))
            return -1;
    }
    context.m_finished = end_written;
    return 0;
}

// Queues the sextets of up to a window's characters; false when memory is short.
bool queue_sextets(kestal_base64_t &context, const uint8_t *text, size_t size)
{
    uint8_t sextets[window_size];
    const progress done = translate(text, size, sextets, context.m_alphabet != 0, context.m_ignore_invalid != 0);
    if (!push_all(context, context.m_input, sextets, done.made))
        return false;
    // Characters that left no sextet were fed all the same.
    kestal_set_buffer_offset(context.m_input, kestal_get_buffer_offset(context.m_input) + done.taken - done.made);
    if (done.taken < size)
        context.m_finished = end_marked;
    return true;
}

int32_t decode_pending(kestal_base64_t &context)
{
    return convert_pending(
        context,
        [&context](const uint8_t *window, size_t size, bool last, uint8_t *out) {
            const size_t room = static_cast<size_t>(std::min<uint64_t>(room_for_output(context), window_size));
            return pack(window, size, out, room, last);
        },
        [&context](const uint8_t *out, size_t size) { return push_all(context, context.m_output, out, size); });
}

// --- results

// Beyond this, the size worked out for the result might not fit its type.
constexpr uint64_t most_at_once = UINT64_MAX / 2;

// Ends a result, which may be null, and tells its size.
char *give(char *block, uint64_t size, uint64_t *out_size)
{
    if (block != nullptr)
        block[size] = '\0';
    if (out_size != nullptr)
        *out_size = block != nullptr ? size : 0;
    return block;
}

} // namespace

kestal_base64_t *kestal_open_base64(void)
{
    kestal_base64_t *context = static_cast<kestal_base64_t *>(kestal_calloc(1, sizeof(kestal_base64_t)));
    if (context == nullptr)
        return nullptr;
    context->m_input = kestal_open_buffer_ex(0);
    context->m_output = kestal_open_buffer_ex(0);
    if (context->m_input == nullptr || context->m_output == nullptr)
        return kestal_close_base64(context);
    return context;
}

kestal_base64_t *kestal_close_base64(kestal_base64_t *context)
{
    if (context == nullptr)
        return nullptr;
    kestal_close_buffer(context->m_input);
    kestal_close_buffer(context->m_output);
    kestal_free(context);
    return nullptr;
}

int32_t kestal_set_base64_input_limit(kestal_base64_t *context, uint64_t bytes)
{
    return set_field(context, &kestal_base64_t::m_input_limit, bytes);
}

int32_t kestal_set_base64_output_limit(kestal_base64_t *context, uint64_t bytes)
{
    return set_field(context, &kestal_base64_t::m_output_limit, bytes);
}

int32_t kestal_set_base64_line_length(kestal_base64_t *context, uint64_t characters)
{
    return set_field(context, &kestal_base64_t::m_line_length, characters);
}

int32_t kestal_set_base64_line_continuation(kestal_base64_t *context, uint32_t on)
{
    return set_field(context, &kestal_base64_t::m_line_continuation, on);
}

int32_t kestal_set_base64_ignore_invalid(kestal_base64_t *context, uint32_t on)
{
    return set_field(context, &kestal_base64_t::m_ignore_invalid, on);
}

int32_t kestal_set_base64_alphabet(kestal_base64_t *context, uint32_t url_safe)
{
    return set_field(context, &kestal_base64_t::m_alphabet, url_safe);
}

int32_t kestal_push_encode_base64(kestal_base64_t *context, const void *data, uint64_t size)
{
    if (!accepts(context, data, size))
        return -1;
    if (size == 0)
        return end_encoding(*context);
    if (context->m_finished != 0)
        return -1;
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    int32_t result = 0;
    while (size > 0 && context->m_finished == 0) {
        const size_t part = static_cast<size_t>(std::min<uint64_t>(size, window_size));
        if (!push_all(*context, context->m_input, bytes, part))
            return -1;
        result = encode_pending(*context);
        bytes += part;
        size -= part;
    }
    return result;
}

int32_t kestal_push_decode_base64(kestal_base64_t *context, const void *data, uint64_t size)
{
    if (!accepts(context, data, size))
        return -1;
    const uint8_t *text = static_cast<const uint8_t *>(data);
    if (size == 0)
        context->m_finished = end_marked;
    int32_t result;
    do {
        const size_t part = context->m_finished != 0 ? 0 : static_cast<size_t>(std::min<uint64_t>(size, window_size));
        if (!queue_sextets(*context, text, part))
            return -1;
        text += part;
        size -= part;
        result = decode_pending(*context);
    } while (size > 0 && context->m_finished == 0);
    return result;
}

char *kestal_get_base64(kestal_base64_t *context, uint64_t *out_size)
{
    if (context == nullptr || context->m_finished == broken)
        return give(nullptr, 0, out_size);
    const uint64_t size = kestal_get_buffer_size(context->m_output);
    char *block = static_cast<char *>(kestal_alloc(size + 1));
    if (block != nullptr)
        kestal_pop_buffer_ex(context->m_output, block, size, 0);
    return give(block, size, out_size);
}

char *kestal_encode_base64(const void *data, uint64_t size, uint64_t *out_size)
{
    if ((data == nullptr && size != 0) || size > most_at_once)
        return give(nullptr, 0, out_size);
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    const uint64_t length = (size + 2) / 3 * 4;
    char *text = static_cast<char *>(kestal_alloc(length + 1));
    if (text == nullptr)
        return give(nullptr, 0, out_size);
    const size_t rest = static_cast<size_t>(size % 3);
    const size_t whole = static_cast<size_t>(size) - rest;
    encode_groups(bytes, whole, text, false);
    if (rest > 0)
        encode_rest(bytes + whole, rest, text + whole / 3 * 4, false);
    return give(text, length, out_size);
}

char *kestal_decode_base64(const char *text, uint64_t size, uint64_t *out_size)
{
    if ((text == nullptr && size != 0) || size > most_at_once)
        return give(nullptr, 0, out_size);
    const uint64_t most = size / 4 * 3 + 3;
    char *block = static_cast<char *>(kestal_alloc(most + 1));
    if (block == nullptr)
        return give(nullptr, 0, out_size);
    const uint8_t *characters = reinterpret_cast<const uint8_t *>(text);
    uint8_t *bytes = reinterpret_cast<uint8_t *>(block);
    const uint8_t *end = bytes + most;
    uint8_t sextets[window_size];
    size_t pending = 0;
    for (bool last = false; !last;) {
        const size_t part = static_cast<size_t>(std::min<uint64_t>(size, window_size - pending));
        const progress translated = translate(characters, part, sextets + pending, false, false);
        characters += part;
        size -= part;
        last = size == 0 || translated.taken < part;
        pending += translated.made;
        const progress packed = pack(sextets, pending, bytes, static_cast<size_t>(end - bytes), last);
        bytes += packed.made;
        pending -= packed.taken;
        memmove(sextets, sextets + packed.taken, pending);
    }
    return give(block, static_cast<uint64_t>(bytes - reinterpret_cast<uint8_t *>(block)), out_size);
}
