// Base64: arbitrary text decoded at once and as a stream in any pieces, on the processor's instructions and without them,
// gives the same bytes; what is encoded, in any lines, decodes to itself.
#include "fuzz.hpp"

#include "../source/processor.hpp"

#include <algorithm>
#include <string>

namespace {

std::string taken(char *block, uint64_t size)
{
    require(block != nullptr && block[size] == '\0');
    const std::string text(block, size);
    kestal_free(block);
    return text;
}

struct settings {
    uint32_t alphabet, ignore_invalid, line_continuation;
    uint64_t line_length, output_limit;
    size_t piece;
};

using push_function = int32_t (*)(kestal_base64_t *, const void *, uint64_t);

// The output of a stream, got as often as its limit asks for.
std::string converted(push_function push, const settings &with, const std::string &input)
{
    std::string output;
    kestal_base64_t *context = kestal_open_base64();
    kestal_set_base64_alphabet(context, with.alphabet);
    kestal_set_base64_ignore_invalid(context, with.ignore_invalid);
    kestal_set_base64_line_length(context, with.line_length);
    kestal_set_base64_line_continuation(context, with.line_continuation);
    kestal_set_base64_output_limit(context, with.output_limit);
    const auto get = [&] {
        uint64_t size = 0;
        char *block = kestal_get_base64(context, &size);
        output += taken(block, size);
    };
    for (size_t done = 0; done < input.size(); done += with.piece) {
        if (push(context, &input[done], std::min(with.piece, input.size() - done)) != 0)
            get();
    }
    while (push(context, nullptr, 0) != 0)
        get();
    get();
    kestal_close_base64(context);
    return output;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    const settings with{data[0] & 1u, data[0] & 2u, data[0] & 4u, data[1], data[2] == 0 ? 0u : data[2] + 4u,
                        data[3] + 1u};
    const std::string input(reinterpret_cast<const char *>(data + 4), size - 4);

    settings whole = with;
    whole.piece = SIZE_MAX / 2;
    whole.output_limit = 0;
    kestal::processor::allow_only(0);
    const std::string decoded = converted(kestal_push_decode_base64, whole, input);
    const std::string encoded = converted(kestal_push_encode_base64, whole, input);
    for (const uint32_t features : {0u, kestal::processor::every_feature}) {
        kestal::processor::allow_only(features);
        require(converted(kestal_push_decode_base64, with, input) == decoded);
        require(converted(kestal_push_encode_base64, with, input) == encoded);
        settings back = with;
        back.ignore_invalid = 1; // backslashes
        require(converted(kestal_push_decode_base64, back, encoded) == input);
        uint64_t length = 0;
        char *block = kestal_decode_base64(input.data(), input.size(), &length);
        const std::string at_once = taken(block, length);
        if (with.alphabet == 0 && with.ignore_invalid == 0)
            require(at_once == decoded);
    }
    return 0;
}
