#include "support.hpp"

using kestal_test::noise;
using kestal_test::on_every_path;
using kestal_test::owned;
using kestal_test::with_each_allocation_failing;

namespace {

class base64 : public kestal_test::counted {};

using strings = std::vector<std::string>;
using push_function = int32_t (*)(kestal_base64_t *, const void *, uint64_t);
constexpr push_function encoding = kestal_push_encode_base64, decoding = kestal_push_decode_base64;

struct settings {
    uint32_t alphabet = 0, ignore_invalid = 0, line_continuation = 0;
    uint64_t line_length = 0, input_limit = 0, output_limit = 0;
};

// What is given out behind one push after the other, of which "" is the end; "-1 " before it where the push failed.
strings results(push_function push, const settings &with, const strings &pushes)
{
    strings all;
    kestal_base64_t *context = kestal_open_base64();
    kestal_set_base64_alphabet(context, with.alphabet);
    kestal_set_base64_ignore_invalid(context, with.ignore_invalid);
    kestal_set_base64_line_continuation(context, with.line_continuation);
    kestal_set_base64_line_length(context, with.line_length);
    kestal_set_base64_input_limit(context, with.input_limit);
    kestal_set_base64_output_limit(context, with.output_limit);
    for (const std::string &input : pushes) {
        all.emplace_back(push(context, input.data(), input.size()) == 0 ? "" : "-1 ");
        uint64_t size = 99;
        char *block = kestal_get_base64(context, &size);
        EXPECT_EQ(block == nullptr ? 0 : block[size], '\0');
        all.back() += owned(block, size);
    }
    EXPECT_EQ(kestal_close_base64(context), nullptr);
    return all;
}

// The input in pieces, and the end.
std::string converted(push_function push, const settings &with, const std::string &input, size_t piece = SIZE_MAX)
{
    strings pushes;
    for (size_t done = 0; done < input.size(); done += std::min(piece, input.size() - done))
        pushes.push_back(input.substr(done, piece));
    pushes.emplace_back();
    std::string all;
    for (const std::string &given : results(push, with, pushes))
        all += given;
    return all;
}

template <typename Function>
std::string at_once(Function function, const std::string &input)
{
    uint64_t size = 0;
    char *block = function(input.data(), input.size(), &size);
    return owned(block, size);
}

std::string bit_by_bit(const std::string &data, const std::string &last_of_alphabet)
{
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789" + last_of_alphabet;
    std::string text((data.size() + 2) / 3 * 4, '=');
    for (size_t bit = 0; bit < data.size() * 8; bit += 6) {
        size_t value = 0;
        for (size_t i = bit; i < bit + 6; ++i)
            value = value << 1 | (i / 8 < data.size() && (data[i / 8] >> (7 - i % 8) & 1) != 0);
        text[bit / 6] = alphabet[value];
    }
    return text;
}

TEST_F(base64, every_length_alphabet_and_split_agrees)
{
    on_every_path([data = noise(4000)] {
        for (size_t length = 0; length <= data.size(); length += length < 200 ? 1 : 1237) {
            const std::string part = data.substr(data.size() - length), text = bit_by_bit(part, "+/");
            ASSERT_EQ(at_once(kestal_encode_base64, part), text);
            ASSERT_EQ(at_once(kestal_decode_base64, text), part);
            for (const size_t piece : {1u, 5u, 1537u}) {
                SCOPED_TRACE(testing::Message() << length << " in " << piece);
                ASSERT_EQ(converted(encoding, {}, part, piece), text);
                ASSERT_EQ(converted(encoding, {.alphabet = 1}, part, piece), bit_by_bit(part, "-_"));
                ASSERT_EQ(converted(decoding, {.alphabet = 1}, bit_by_bit(part, "-_"), piece), part);
                const std::string lines = converted(encoding, {.line_length = piece}, part, piece);
                ASSERT_EQ(converted(decoding, {}, lines, piece), part);
            }
        }
    });
}

TEST_F(base64, decodes_what_the_world_sends)
{
    const std::string high = "Zm9v\x80YmFy";
    const std::pair<std::string, const char *> cases[] = {
        {"Zg", "f"},
        {"Z", ""},
        {" Z\tm\r\n9\v\fv ", "foo"},
        {"Zm9vYm*Fy", "foob"},      // a foreign character ends the input, and with it a group
        {high, "foo"},              // as does a byte above 127
        {"Zm9v-_", "foo"},          // the other alphabet is foreign
        {"Zg==Zm8=Zm9v", "ffofoo"}, // a pad ends its group alone
        {"Z=Zm9v", "foo"},
        {"QUJDREVGR0hJSktMTU5PUFFSU1RV\nVldYWVowMTIzNDU=", "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345"},
    };
    on_every_path([&] {
        for (const auto &[text, expected] : cases) {
            EXPECT_EQ(at_once(kestal_decode_base64, text), expected) << text;
            EXPECT_EQ(converted(decoding, {}, text, 1), expected) << text;
        }
        EXPECT_EQ(converted(decoding, {.ignore_invalid = 1}, "Zm*9v" + high), "foofoobar");
    });
}

TEST_F(base64, writes_lines)
{
    const struct {
        settings with;
        const char *data, *text;
    } cases[] = {
        {{.line_length = 4}, "foobar", "Zm9v\nYmFy\n"},
        {{.line_continuation = 1, .line_length = 4}, "foobar", "Zm9v\\\nYmFy\\\n"},
        {{.line_length = 3}, "foob", "Zm9\nvYg\n==\n"},
        {{.line_continuation = 1}, "foobar", "Zm9vYmFy"},
        {{.line_length = 4}, "", "\n"},
    };
    for (const auto &[with, data, text] : cases)
        for (const size_t piece : {1u, 100u})
            EXPECT_EQ(converted(encoding, with, data, piece), text);
}

TEST_F(base64, limits_hold_and_lose_nothing_and_an_end_is_an_end)
{
    EXPECT_EQ(results(encoding, {.input_limit = 5}, {"foob", "ar", "a", ""}), (strings{"Zm9v", "-1 ", "", "YmE="}));
    EXPECT_EQ(results(encoding, {.output_limit = 10}, {"foobarfoobarfo", "o", ""}),
              (strings{"-1 Zm9vYmFy", "-1 Zm9vYmFy", "Zm9v"}));
    // Newlines take room too, but ask for none.
    EXPECT_EQ(results(encoding, {.line_length = 2, .output_limit = 8}, {"foobarf", "", "", ""}),
              (strings{"-1 Zm\n9v", "-1 \nYm\nFy", "\nZg\n==\n", ""}));
    EXPECT_EQ(results(encoding, {}, {"foo", "", "bar", ""}), (strings{"Zm9v", "", "-1 ", ""}));

    // What leaves nothing behind counts as fed.
    EXPECT_EQ(results(decoding, {.input_limit = 8}, {"Z m 9 v", "  "}), (strings{"foo", "-1 "}));
    EXPECT_EQ(results(decoding, {.output_limit = 6}, {"Zm9v YmFy Zg== Zm9v", "Zm8=", ""}),
              (strings{"-1 foobar", "-1 ffoo", "fo"}));
    EXPECT_EQ(results(decoding, {}, {"Zm8*", "Zm9v", ""}), (strings{"fo", "", ""}));
}

TEST_F(base64, refuses_nulls_and_absurd_sizes)
{
    uint64_t size = 99;
    EXPECT_EQ(kestal_encode_base64(nullptr, 1, &size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(kestal_decode_base64(nullptr, 1, nullptr), nullptr);
    EXPECT_EQ(kestal_encode_base64("", UINT64_MAX, &size), nullptr);
    EXPECT_EQ(kestal_decode_base64("", UINT64_MAX, &size), nullptr);
}

TEST_F(base64, short_memory_leaves_no_gap)
{
    const std::string data = noise(10000), text = bit_by_bit(data, "+/");
    const auto convert = [](push_function push, const std::string &input, const std::string &expected) {
        std::string given;
        for (const std::string &each : results(push, {}, {input, ""}))
            given += each == "-1 " ? "" : each;
        EXPECT_TRUE(expected.starts_with(given));
    };
    EXPECT_GT(with_each_allocation_failing([&] { convert(encoding, data, text), convert(decoding, text, data); }), 9u);
}

} // namespace
