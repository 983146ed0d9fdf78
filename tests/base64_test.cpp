#include "support.hpp"

#include "../source/processor.hpp"

#include <algorithm>
#include <type_traits>

using namespace kestal::processor;

namespace {

class base64 : public kestal_test::counted {
protected:
    void TearDown() override
    {
        allow_only(every_feature);
        counted::TearDown();
    }
};

// The text of a block that a call returned, which it frees.
std::string taken(char *block, uint64_t size)
{
    EXPECT_NE(block, nullptr);
    if (block == nullptr)
        return "nothing";
    EXPECT_EQ(block[size], '\0');
    const std::string text(block, size);
    kestal_free(block);
    return text;
}

std::string encode(const std::string &data)
{
    uint64_t size = 99;
    char *block = kestal_encode_base64(data.data(), data.size(), &size);
    return taken(block, size);
}

std::string decode(const std::string &text)
{
    uint64_t size = 99;
    char *block = kestal_decode_base64(text.data(), text.size(), &size);
    return taken(block, size);
}

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
    int32_t push(const std::string &data) { return push_(context_, data.data(), data.size()); }
    int32_t end() { return push_(context_, nullptr, 0); }
    std::string get()
    {
        uint64_t size = 99;
        char *block = kestal_get_base64(context_, &size);
        return taken(block, size);
    }
    std::string all_of(const std::string &input, size_t piece = SIZE_MAX)
    {
        for (size_t done = 0; done < input.size(); done += std::min(piece, input.size() - done))
            EXPECT_EQ(push(input.substr(done, piece)), 0);
        EXPECT_EQ(end(), 0);
        return get();
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
    std::string data;
    for (uint32_t i = 0, state = 1; i < 4000; ++i)
        data += static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    for (const uint32_t path : {0u, every_feature}) {
        allow_only(path);
        for (size_t length = 0; length <= data.size(); length += length < 200 ? 1 : 1237) {
            const std::string part = data.substr(data.size() - length);
            const std::string text = bit_by_bit(part, false), url_text = bit_by_bit(part, true);
            ASSERT_EQ(encode(part), text);
            ASSERT_EQ(decode(text), part);
            for (const size_t piece : {1u, 5u, 1537u}) {
                ASSERT_EQ(encoder().all_of(part, piece), text) << length << " in " << piece;
                ASSERT_EQ(decoder().all_of(text, piece), part) << length << " in " << piece;
                ASSERT_EQ(encoder().set(kestal_set_base64_alphabet, 1).all_of(part, piece), url_text);
                ASSERT_EQ(decoder().set(kestal_set_base64_alphabet, 1).all_of(url_text, piece), part);
                const std::string lines = encoder().set(kestal_set_base64_line_length, piece).all_of(part, piece);
                ASSERT_EQ(decoder().all_of(lines, piece), part) << length << " in lines of " << piece;
            }
        }
    }
}

TEST_F(base64, decodes_what_the_world_sends)
{
    const std::string high = "Zm9v\x80YmFy";
    const struct {
        std::string text, expected;
    } cases[] = {
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
        {"AAECAwQFBgcICQoLDA0ODxAREhMU\nFRYXGBkaGxwdHh8=", "\0\1\2\3\4\5\6\7\10\t\n\v\f\r\16\17\20\21\22\23\24\25\26"},
    };
    for (const uint32_t path : {0u, every_feature}) {
        allow_only(path);
        for (const auto &[text, expected] : cases) {
            const bool counting = text.starts_with("AAEC");
            std::string bytes = expected;
            if (counting)
                for (bytes.clear(); bytes.size() < 32;)
                    bytes += static_cast<char>(bytes.size());
            EXPECT_EQ(decode(text), bytes) << text;
            EXPECT_EQ(decoder().all_of(text, 1), bytes) << text;
        }
        EXPECT_EQ(decoder().set(kestal_set_base64_ignore_invalid, 1).all_of("Zm*9v" + high), "foofoobar");
        EXPECT_EQ(encoder().set(kestal_set_base64_alphabet, 1).all_of("\xFB\xFF\xFE"), "-__-");
    }
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
    for (const auto &[length, continuation, data, text] : cases) {
        for (const size_t piece : {1u, 100u}) {
            encoder lines;
            lines.set(kestal_set_base64_line_length, length).set(kestal_set_base64_line_continuation, continuation);
            EXPECT_EQ(lines.all_of(data, piece), text);
            EXPECT_EQ(lines.end(), 0);
            EXPECT_EQ(lines.get(), "") << "the last line was ended twice";
        }
    }
}

TEST_F(base64, limits_hold_and_lose_nothing)
{
    encoder fed;
    fed.set(kestal_set_base64_input_limit, 5u);
    EXPECT_EQ(fed.push("foob"), 0);
    EXPECT_EQ(fed.push("ar"), -1);
    EXPECT_EQ(fed.push("a"), 0);
    EXPECT_EQ(fed.end(), 0);
    EXPECT_EQ(fed.get(), "Zm9vYmE=");

    encoder full;
    full.set(kestal_set_base64_output_limit, 10u);
    EXPECT_EQ(full.push("foobarfoobarfo"), -1);
    EXPECT_EQ(full.get(), "Zm9vYmFy");
    EXPECT_EQ(full.push("o"), -1);
    EXPECT_EQ(full.get(), "Zm9vYmFy");
    EXPECT_EQ(full.end(), 0);
    EXPECT_EQ(full.get(), "Zm9v");

    encoder lines; // newlines take room too, but ask for none
    lines.set(kestal_set_base64_output_limit, 8u).set(kestal_set_base64_line_length, 2u);
    EXPECT_EQ(lines.push("foobarf"), -1);
    EXPECT_EQ(lines.get(), "Zm\n9v");
    EXPECT_EQ(lines.end(), -1);
    EXPECT_EQ(lines.get(), "\nYm\nFy");
    EXPECT_EQ(lines.end(), 0);
    EXPECT_EQ(lines.get(), "\nZg\n==\n");

    decoder sparse; // what leaves nothing behind counts as fed
    sparse.set(kestal_set_base64_input_limit, 8u);
    EXPECT_EQ(sparse.push("Z m 9 v"), 0);
    EXPECT_EQ(sparse.push("  "), -1);

    decoder narrow;
    narrow.set(kestal_set_base64_output_limit, 6u);
    EXPECT_EQ(narrow.push("Zm9v YmFy Zg== Zm9v"), -1);
    EXPECT_EQ(narrow.get(), "foobar");
    EXPECT_EQ(narrow.push("Zm8="), -1);
    EXPECT_EQ(narrow.get(), "ffoo");
    EXPECT_EQ(narrow.end(), 0);
    EXPECT_EQ(narrow.get(), "fo");
}

TEST_F(base64, an_end_is_an_end)
{
    encoder encoding;
    EXPECT_EQ(encoding.all_of("foo"), "Zm9v");
    EXPECT_EQ(encoding.push("bar"), -1);
    EXPECT_EQ(encoding.end(), 0);
    EXPECT_EQ(encoding.get(), "");

    decoder decoding;
    EXPECT_EQ(decoding.push("Zm8*"), 0);
    EXPECT_EQ(decoding.get(), "fo");
    EXPECT_EQ(decoding.push("Zm9v"), 0);
    EXPECT_EQ(decoding.end(), 0);
    EXPECT_EQ(decoding.get(), "");
}

TEST_F(base64, refuses_nulls_and_absurd_sizes)
{
    uint64_t size = 99;
    EXPECT_EQ(kestal_encode_base64(nullptr, 1, &size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(kestal_decode_base64(nullptr, 1, nullptr), nullptr);
    EXPECT_EQ(kestal_encode_base64("", UINT64_MAX, &size), nullptr);
    EXPECT_EQ(kestal_decode_base64("", UINT64_MAX, &size), nullptr);
    EXPECT_EQ(taken(kestal_encode_base64(nullptr, 0, nullptr), 0), "");
    EXPECT_EQ(kestal_close_base64(nullptr), nullptr);
    EXPECT_EQ(kestal_push_encode_base64(nullptr, "", 0), -1);
    EXPECT_EQ(kestal_push_decode_base64(nullptr, "", 0), -1);
    EXPECT_EQ(kestal_get_base64(nullptr, &size), nullptr);
    EXPECT_EQ(kestal_set_base64_line_length(nullptr, 1), -1);
    encoder open;
    EXPECT_EQ(kestal_push_encode_base64(nullptr, nullptr, 1), -1);
    EXPECT_EQ(open.all_of(""), "");
}

TEST_F(base64, short_memory_fails_cleanly)
{
    const std::string data(10000, 'x');
    const auto convert = [&data](auto push, const std::string &input, const std::string &expected) {
        kestal_base64_t *context = kestal_open_base64();
        const bool whole = push(context, input.data(), input.size()) == 0 && push(context, nullptr, 0) == 0;
        uint64_t size = 0;
        char *block = kestal_get_base64(context, &size);
        EXPECT_TRUE(block == nullptr || whole) << "a conversion with a gap was given out";
        EXPECT_TRUE(block == nullptr || std::string(block, size) == expected);
        kestal_check_free(block);
        kestal_close_base64(context);
    };
    const std::string text = encode(data);
    EXPECT_GT(kestal_test::with_each_allocation_failing([&] { convert(kestal_push_encode_base64, data, text); }), 4u);
    EXPECT_GT(kestal_test::with_each_allocation_failing([&] { convert(kestal_push_decode_base64, text, data); }), 4u);
    EXPECT_EQ(kestal_test::with_each_allocation_failing([&] {
                  kestal_check_free(kestal_encode_base64("foo", 3, nullptr));
                  kestal_check_free(kestal_decode_base64("Zm9v", 4, nullptr));
              }),
              2u);
}

} // namespace
