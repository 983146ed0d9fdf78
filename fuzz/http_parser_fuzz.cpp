// A head must come out the same however it was split into pushes, and what is written out must be read again as it was.
#include "fuzz.hpp"

#include <algorithm>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>

namespace {

// A parser that destroys itself.
struct parser {
    kestal_http_parser_t get;
    parser() { kestal_init_http_parser(&get); }
    ~parser() { kestal_destroy_http_parser(&get); }

    int64_t push(const std::string &bytes) { return kestal_push_http_parser(&get, bytes.data(), bytes.size()); }
    bool is_complete() const { return (get.m_flags & KESTAL_HTTP_PARSER_COMPLETE) != 0; }
    std::string output() { return kestal_get_output_http_parser(&get, nullptr); }
};

bool is_same_text(const char *a, const char *b)
{
    return a == nullptr || b == nullptr ? a == b : strcmp(a, b) == 0;
}

void require_same(const kestal_http_parser_t &a, const kestal_http_parser_t &b)
{
    const kestal_http_node_t *left = a.m_head, *right = b.m_head;
    for (; left != nullptr && right != nullptr; left = left->m_next, right = right->m_next) {
        require(left->m_type == right->m_type && strcmp(left->m_start, right->m_start) == 0);
        require(left->m_size == strlen(left->m_start) && left->m_size == right->m_size);
        require(is_same_text(left->m_text1, right->m_text1) && is_same_text(left->m_text2, right->m_text2) &&
                is_same_text(left->m_text3, right->m_text3) && is_same_text(left->m_text4, right->m_text4));
        require(strcmp(left->m_extra, right->m_extra) == 0);
    }
    require(left == nullptr && right == nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const size_t piece_limit = input.ConsumeIntegralInRange<size_t>(1, 40);
    const std::string seed = input.ConsumeBytesAsString(4);
    const std::string message = input.ConsumeRemainingBytesAsString();

    parser whole;
    const int64_t taken = whole.push(message);
    require(taken >= 0 && taken <= static_cast<int64_t>(message.size()));
    require(whole.is_complete() || taken == static_cast<int64_t>(message.size()));

    parser split;
    int64_t taken_in_pieces = 0;
    for (size_t at = 0, turn = 0, length; at < message.size(); at += length, ++turn) {
        const size_t variation = seed.empty() ? 0 : static_cast<uint8_t>(seed[turn % seed.size()]) + turn / 7;
        length = std::min(1 + variation % piece_limit, message.size() - at);
        taken_in_pieces += split.push(message.substr(at, length));
    }
    require_same(whole.get, split.get);
    // The second byte of the last line's end is taken only together with the first.
    require(taken == taken_in_pieces || taken == taken_in_pieces + 1);

    // Where double-byte characters do not meet line ends, what is written is read again as it was.
    const std::string text = whole.output();
    parser again;
    require(again.push(text) >= 0);
    if (std::any_of(text.begin(), text.end(), [](char byte) { return static_cast<signed char>(byte) < 0; }))
        return 0;
    require(again.is_complete() && again.output() == text);
    require(is_same_text(kestal_http_parser_get_field(&whole.get, "host"),
                         kestal_http_parser_get_field(&again.get, "Host")));
    return 0;
}
