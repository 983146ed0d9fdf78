// A head must come out the same however it was split into pushes, and what is written out must be read again as it was.
#include "fuzz.hpp"
#include "http_heads.hpp"

#include <algorithm>
#include <fuzzer/FuzzedDataProvider.h>

using kestal_test::http_head;
using kestal_test::shown;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const size_t piece_limit = input.ConsumeIntegralInRange<size_t>(1, 40);
    const std::string seed = input.ConsumeBytesAsString(4);
    const std::string message = input.ConsumeRemainingBytesAsString();

    http_head whole;
    const int64_t taken = whole.push(message);
    require(taken >= 0 && taken <= static_cast<int64_t>(message.size()));
    require(whole.is_complete() || taken == static_cast<int64_t>(message.size()));

    http_head split;
    int64_t taken_in_pieces = 0;
    for (size_t at = 0, turn = 0, length; at < message.size(); at += length, ++turn) {
        const size_t variation = seed.empty() ? 0 : static_cast<uint8_t>(seed[turn % seed.size()]) + turn / 7;
        length = std::min(1 + variation % piece_limit, message.size() - at);
        taken_in_pieces += split.push(message.substr(at, length));
    }
    require(shown(whole.get) == shown(split.get));
    // The second byte of the last line's end is taken only together with the first.
    require(taken == taken_in_pieces || taken == taken_in_pieces + 1);

    // Where double-byte characters do not meet line ends, what is written is read again as it was.
    const std::string text = whole.output();
    http_head again;
    require(again.push(text) >= 0);
    if (std::any_of(text.begin(), text.end(), [](char byte) { return static_cast<signed char>(byte) < 0; }))
        return 0;
    require(again.is_complete() && again.output() == text);
    return 0;
}
