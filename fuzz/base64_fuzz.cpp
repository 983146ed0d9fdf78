// Base64: arbitrary text decoded as a stream in any pieces, on the processor's instructions and without them, gives the same
// bytes; what is encoded, in any lines, decodes to itself.
#include "fuzz.hpp"

#include "../source/processor.hpp"

#include <algorithm>
#include <string>

namespace {

using push_function = int32_t (*)(kestal_base64_t *, const void *, uint64_t);

// The output of a stream with these settings, got as often as its limit asks for.
std::string converted(push_function push, const uint8_t *settings, const std::string &input, size_t piece)
{
    std::string output;
    kestal_base64_t *context = kestal_open_base64();
    kestal_set_base64_alphabet(context, settings[0] & 1u);
    kestal_set_base64_ignore_invalid(context, settings[0] & 2u);
    kestal_set_base64_line_continuation(context, settings[0] & 2u); // its backslashes are foreign
    kestal_set_base64_line_length(context, settings[1]);
    kestal_set_base64_output_limit(context, settings[2] == 0 ? 0u : settings[2] + 4u);
    bool ended = false;
    for (size_t done = 0; !ended;) {
        const size_t part = std::min(piece, input.size() - done);
        const bool pushed = push(context, part == 0 ? nullptr : &input[done], part) == 0;
        done += part;
        ended = pushed && part == 0;
        if (pushed && !ended)
            continue;
        uint64_t length = 0;
        char *block = kestal_get_base64(context, &length);
        output.append(block, length);
        kestal_free(block);
    }
    kestal_close_base64(context);
    return output;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    const std::string input(reinterpret_cast<const char *>(data + 4), size - 4);
    kestal::processor::allow_only(0);
    const std::string decoded = converted(kestal_push_decode_base64, data, input, SIZE_MAX);
    for (const uint32_t features : {0u, kestal::processor::every_feature}) {
        kestal::processor::allow_only(features);
        require(converted(kestal_push_decode_base64, data, input, data[3] + 1u) == decoded);
        const std::string encoded = converted(kestal_push_encode_base64, data, input, data[3] + 1u);
        require(converted(kestal_push_decode_base64, data, encoded, data[3] + 1u) == input);
        uint64_t length = 0;
        char *at_once = kestal_decode_base64(input.data(), input.size(), &length);
        require((data[0] & 3u) != 0 || std::string(at_once, length) == decoded);
        kestal_free(at_once);
    }
    return 0;
}
