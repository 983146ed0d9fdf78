#include "support.hpp"

#include <algorithm>
#include <type_traits>

using kestal_test::on_every_path;
using kestal_test::owned;
using kestal_test::with_each_allocation_failing;

namespace {

class base64 : public kestal_test::counted {};

// One way through the codec: by default with the settings of a fresh context.
class stream {
public:
    using push_function = int32_t (*)(kestal_base64_t *, const void *, uint64_t);

    explicit stream(push_function function) : push_(function) {}
    ~stream() { EXPECT_EQ(kestal_close_base64(context_), nullptr); }
    stream(const stream &) = delete;
    stream &operator=(const stream &) = delete;

    template <typename Value>
    stream &set(int32_t (*setter)(kestal_base64_t *, Value), std::type_identity_t<Value> value)
    {
        EXPECT_EQ(setter(context_, value), 0);
        return *this;
    }
    std::string get()
    {
        uint64_t size = 99;
        char *block = kestal_get_base64(context_, &size);
        EXPECT_TRUE(block != nullptr && block[size] == '\0');
        return owned(block, size);
    }
    // The input in pieces, and the end.
    std::string all_of(const std::string &input, size_t piece = SIZE_MAX)
    {
        for (size_t done = 0; done < input.size(); done += std::min(piece, input.size() - done))
            EXPECT_EQ(push_(context_, &input[done], std::min(piece, input.size() - done)), 0);
        EXPECT_EQ(push_(context_, nullptr, 0), 0);
        return get();
    }
    // What comes of one push after the other, "" for the end: each result with what was given out behind it.
    std::string results(std::initializer_list<std::string> pushes)
    {
        std::string all;
        for (const std::string &input : pushes) {
            all += std::to_string(push_(context_, input.data(), input.size())) + " ";
            all += get() + ";";
        }
        return all;
    }

private:
    push_function push_;
    kestal_base64_t *context_ = kestal_open_base64();
};

struct encoder : stream {
    encoder() : stream(kestal_push_encode_base64) {}
};

struct decoder : stream {
    decoder() : stream(kestal_push_decode_base64) {}
};

template <typename Function>
std::string at_once(Function function, const std::string &input)
{
    uint64_t size = 0;
    char *block = function(input.data(), input.size(), &size);
    return owned(block, size);
}

std::string encode(const std::string &data)
{
    return at_once(kestal_encode_base64, data);
}

std::string decode(const std::string &text)
{
    return at_once(kestal_decode_base64, text);
}

std::string bit_by_bit(const std::string &data, bool url_safe)
{
    const std::string alphabet =
        std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789") + (url_safe ? "-_" : "+/");
    std::string text;
    for (size_t bit = 0; bit < data.size() * 8; bit += 6) {
        size_t value = 0;
        for (size_t i = bit; i < bit + 6; ++i) {
            const unsigned byte = i / 8 < data.size() ? static_cast<uint8_t>(data[i / 8]) : 0u;
            value = value << 1 | (byte >> (7 - i % 8) & 1u);
        }
        text += alphabet[value];
    }
    while (text.size() % 4 != 0)
        text += '=';
    return text;
}

TEST_F(base64, every_length_alphabet_and_split_agrees)
{
    const std::string data = kestal_test::noise(4000);
    on_every_path([&data] {
        for (size_t length = 0; length <= data.size(); length += length < 200 ? 1 : 1237) {
            const std::string part = data.substr(data.size() - length);
            const std::string text = bit_by_bit(part, false), url_text = bit_by_bit(part, true);
            ASSERT_EQ(encode(part), text);
            ASSERT_EQ(decode(text), part);
            for (const size_t piece : {1u, 5u, 1537u}) {
                SCOPED_TRACE(testing::Message() << length << " in " << piece);
                ASSERT_EQ(encoder().all_of(part, piece), text);
                ASSERT_EQ(decoder().all_of(text, piece), part);
                ASSERT_EQ(encoder().set(kestal_set_base64_alphabet, 1).all_of(part, piece), url_text);
                ASSERT_EQ(decoder().set(kestal_set_base64_alphabet, 1).all_of(url_text, piece), part);
                const std::string lines = encoder().set(kestal_set_base64_line_length, piece).all_of(part, piece);
                ASSERT_EQ(decoder().all_of(lines, piece), part);
            }
        }
    });
}

TEST_F(base64, decodes_what_the_world_sends)
{
    const std::string high = "Zm9v\x80YmFy";
    const std::pair<std::string, const char *> cases[] = {
        {"Zg==", "f"},
        {"Zm8=", "fo"},
        {"Zm9v", "foo"},
        {"Zg", "f"},
        {"Zm8", "fo"},
        {"Z", ""},
        {" Z\tm\r\n9\v\fv ", "foo"},
        {"Zm9v*YmFy", "foo"},  // a foreign character ends the input
        {"Zm9vYm*Fy", "foob"}, // and with it a group
        {high, "foo"},         // as does a byte above 127
        {std::string("Zm9v\0YmFy", 9), "foo"},
        {"Zm9v-_", "foo"},          // the other alphabet is foreign
        {"Zg==Zm8=Zm9v", "ffofoo"}, // a pad ends its group alone
        {"====Zm9v", "foo"},
        {"Z=Zm9v", "foo"},
        {"QUJDREVGR0hJSktMTU5PUFFSU1RV\nVldYWVowMTIzNDU=", "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345"},
    };
    on_every_path([&] {
        for (const auto &[text, expected] : cases) {
            EXPECT_EQ(decode(text), expected) << text;
            EXPECT_EQ(decoder().all_of(text, 1), expected) << text;
        }
        EXPECT_EQ(decoder().set(kestal_set_base64_ignore_invalid, 1).all_of("Zm*9v" + high), "foofoobar");
        EXPECT_EQ(encoder().set(kestal_set_base64_alphabet, 1).all_of("\xFB\xFF\xFE"), "-__-");
    });
}

TEST_F(base64, writes_lines)
{
    const struct {
        uint64_t length;
        uint32_t continuation;
        const char *data, *text;
    } cases[] = {
        {4, 0, "foobar", "Zm9v\nYmFy\n"}, {4, 1, "foobar", "Zm9v\\\nYmFy\\\n"}, {3, 0, "foob", "Zm9\nvYg\n==\n"},
        {100, 0, "foobar", "Zm9vYmFy\n"}, {0, 1, "foobar", "Zm9vYmFy"},         {4, 0, "", "\n"},
    };
    for (const auto &[length, continuation, data, text] : cases)
        for (const size_t piece : {1u, 100u}) {
            encoder lines;
            lines.set(kestal_set_base64_line_length, length).set(kestal_set_base64_line_continuation, continuation);
            EXPECT_EQ(lines.all_of(data, piece), text);
            EXPECT_EQ(lines.results({""}), "0 ;") << "the last line was ended twice";
        }
}

TEST_F(base64, limits_hold_and_lose_nothing_and_an_end_is_an_end)
{
    EXPECT_EQ(encoder().set(kestal_set_base64_input_limit, 5).results({"foob", "ar", "a", ""}),
              "0 Zm9v;-1 ;0 ;0 YmE=;");
    EXPECT_EQ(encoder().set(kestal_set_base64_output_limit, 10).results({"foobarfoobarfo", "o", ""}),
              "-1 Zm9vYmFy;-1 Zm9vYmFy;0 Zm9v;");
    encoder lines; // newlines take room too, but ask for none
    lines.set(kestal_set_base64_output_limit, 8).set(kestal_set_base64_line_length, 2);
    EXPECT_EQ(lines.results({"foobarf", "", ""}), "-1 Zm\n9v;-1 \nYm\nFy;0 \nZg\n==\n;");
    EXPECT_EQ(encoder().results({"foo", "", "bar", ""}), "0 Zm9v;0 ;-1 ;0 ;");

    // What leaves nothing behind counts as fed.
    EXPECT_EQ(decoder().set(kestal_set_base64_input_limit, 8).results({"Z m 9 v", "  "}), "0 foo;-1 ;");
    EXPECT_EQ(decoder().set(kestal_set_base64_output_limit, 6).results({"Zm9v YmFy Zg== Zm9v", "Zm8=", ""}),
              "-1 foobar;-1 ffoo;0 fo;");
    EXPECT_EQ(decoder().results({"Zm8*", "Zm9v", ""}), "0 fo;0 ;0 ;");
}

TEST_F(base64, refuses_nulls_and_absurd_sizes)
{
    uint64_t size = 99;
    EXPECT_EQ(kestal_encode_base64(nullptr, 1, &size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(kestal_decode_base64(nullptr, 1, nullptr), nullptr);
    EXPECT_EQ(kestal_encode_base64("", UINT64_MAX, &size), nullptr);
    EXPECT_EQ(kestal_decode_base64("", UINT64_MAX, &size), nullptr);
    EXPECT_EQ(owned(kestal_encode_base64(nullptr, 0, nullptr)), "");
    EXPECT_EQ(kestal_close_base64(nullptr), nullptr);
    EXPECT_EQ(kestal_push_encode_base64(nullptr, "", 0) + kestal_push_decode_base64(nullptr, "", 0), -2);
    EXPECT_EQ(kestal_get_base64(nullptr, &size), nullptr);
    EXPECT_EQ(kestal_set_base64_line_length(nullptr, 1), -1);
}

TEST_F(base64, short_memory_fails_cleanly)
{
    const std::string data(10000, 'x'), text = encode(data);
    const auto convert = [](auto push, const std::string &input, const std::string &expected) {
        kestal_base64_t *context = kestal_open_base64();
        const bool whole = push(context, input.data(), input.size()) == 0 && push(context, nullptr, 0) == 0;
        uint64_t size = 0;
        char *block = kestal_get_base64(context, &size);
        EXPECT_TRUE(block == nullptr || whole) << "a conversion with a gap was given out";
        EXPECT_TRUE(block == nullptr || std::string(block, size) == expected);
        kestal_check_free(block);
        kestal_close_base64(context);
    };
    EXPECT_GT(with_each_allocation_failing([&] { convert(kestal_push_encode_base64, data, text); }), 4u);
    EXPECT_GT(with_each_allocation_failing([&] { convert(kestal_push_decode_base64, text, data); }), 4u);
    EXPECT_EQ(with_each_allocation_failing([] { encode("foo"), decode("Zm9v"); }), 2u);
}

} // namespace
