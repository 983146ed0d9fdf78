#include "support.hpp"

#include <cstring>

using kestal_test::counted;
using kestal_test::with_each_allocation_failing;

namespace {

class text : public counted {};

std::string owned(char *text)
{
    const std::string copy = text == nullptr ? "<null>" : text;
    kestal_check_free(text);
    return copy;
}

TEST_F(text, splits_words)
{
    constexpr uint32_t quotes = KESTAL_WORD_QUOTES, escapes = KESTAL_WORD_ESCAPES, empty = KESTAL_WORD_EMPTY;
    const struct {
        const char *text, *separators;
        uint32_t flags;
        std::vector<std::string> words;
    } cases[] = {
        {"", nullptr, 0, {}},
        {nullptr, ",", empty, {}},
        {" GET  /x \t\r\n", nullptr, 0, {"GET", "/x"}},
        {";a;;b|c;", ";|", 0, {"a", "b", "c"}},
        {"one", ",", 0, {"one"}},
        {"", ",", empty, {""}},
        {",a,,b,", ",", empty, {"", "a", "", "b", ""}},
        {"a \"b c\"d 'e \"f' \"\" g", " ", quotes, {"a", "b cd", "e \"f", "", "g"}},
        {"'open end ", " ", quotes, {"open end "}},
        {"\"q", " ", 0, {"\"q"}},
        {"a\\ b \\\\ c\\", " ", escapes, {"a b", "\\", "c\\"}},
        {"a\\,b,\"c\\\",d\",,e", ",", quotes | escapes | empty, {"a,b", "c\",d", "", "e"}},
        {"abc", "", 0, {"abc"}},
    };
    for (const auto &item : cases) {
        SCOPED_TRACE(item.text == nullptr ? "<null>" : item.text);
        kestal_word_t *head = kestal_new_word_list(item.text, item.separators, item.flags);
        std::vector<std::string> words;
        for (const kestal_word_t *word = head; word != nullptr; word = word->m_next)
            words.push_back(word->m_text);
        EXPECT_EQ(words, item.words);
        EXPECT_EQ(kestal_free_word_list(head), nullptr);

        words.clear();
        const char *cursor = item.text;
        while (char *word = kestal_alloc_word(&cursor, item.separators, item.flags))
            words.push_back(owned(word));
        EXPECT_EQ(words, item.words);
    }
}

TEST_F(text, a_word_leaves_the_rest_of_the_line)
{
    const char *cursor = "  key  the value ";
    uint64_t length = 0;
    const char *word = kestal_get_word(&cursor, nullptr, 0, &length);
    EXPECT_EQ(std::string(word, length), "key");
    EXPECT_STREQ(cursor, "  the value ");
    EXPECT_STREQ(kestal_skip_space(cursor), "the value ");
    EXPECT_EQ(kestal_get_word(nullptr, nullptr, 0, &length), nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(kestal_alloc_word(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(kestal_skip_space(nullptr), nullptr);

    EXPECT_EQ(with_each_allocation_failing([] {
                  const char *place = "one two";
                  char *first = kestal_alloc_word(&place, nullptr, 0);
                  EXPECT_STREQ(place, first == nullptr ? "one two" : " two");
                  kestal_check_free(first);
                  kestal_free_word_list(kestal_new_word_list("a b c", nullptr, 0));
              }),
              4u);
}

TEST_F(text, trims_and_compares)
{
    for (const auto &[given, expected] :
         {std::pair("", ""), {" \t\r\n", ""}, {"a", "a"}, {" \va b\f ", "a b"}, {"a ", "a"}}) {
        char copy[16];
        std::strcpy(copy, given);
        EXPECT_EQ(kestal_trim_string(copy), copy);
        EXPECT_STREQ(copy, expected);
    }
    EXPECT_EQ(kestal_trim_string(nullptr), nullptr);

    EXPECT_EQ(kestal_compare_ignore_case("File", "fILE"), 0);
    EXPECT_EQ(kestal_compare_ignore_case(nullptr, ""), 0);
    EXPECT_LT(kestal_compare_ignore_case("file", "files"), 0);
    EXPECT_GT(kestal_compare_ignore_case("b", "A"), 0);
    EXPECT_LT(kestal_compare_ignore_case("[", "a"), 0);
    EXPECT_NE(kestal_compare_ignore_case("\xC4", "\xE4"), 0);
}

TEST_F(text, matches_wildcards)
{
    const struct {
        const char *pattern, *text;
        int32_t result;
    } cases[] = {
        {"", "", 1},
        {"", "a", 0},
        {nullptr, nullptr, 1},
        {"*", nullptr, 1},
        {"*", "", 1},
        {"*", "abc", 1},
        {"?", "", 0},
        {"?", "a", 1},
        {"a?c", "aBc", 1},
        {"a?c", "ac", 0},
        {"A*C", "abbbc", 1},
        {"a*c", "abcd", 0},
        {"*b*", "abc", 1},
        {"*ab", "aab", 1},
        {"a*b*c", "aXbYbZc", 1},
        {"a**", "a", 1},
        {"a\\*", "a*", 1},
        {"a\\*", "ab", 0},
        {"\\?", "?", 1},
        {"\\?", "x", 0},
        {"\\a", "A", 1},
        {"a\\", "a\\", 1},
        {"\\\\", "\\", 1},
        {"*\\", "x\\", 1},
        {"*.tar.?z", "a.tar.tar.xz", 1},
        {"application/ulx_stream*", "APPLICATION/ULX_STREAM_TCP", 1},
        {"*a*a*a*a*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", 0},
    };
    for (const auto &item : cases)
        EXPECT_EQ(kestal_match_wildcard(item.pattern, item.text), item.result) << item.pattern << " : " << item.text;
    EXPECT_EQ(kestal_match_wildcard_ex("a*", "Ab", 1), 0);
    EXPECT_EQ(kestal_match_wildcard_ex("a*", "ab", 1), 1);

    EXPECT_EQ(kestal_match_wildcard_list("x|Y*||z", nullptr, "yes"), 1);
    EXPECT_EQ(kestal_match_wildcard_list("x;y|z", ";|", "z"), 1);
    EXPECT_EQ(kestal_match_wildcard_list("a\\|b|c", nullptr, "a|b"), 1);
    EXPECT_EQ(kestal_match_wildcard_list("a\\|b|c", nullptr, "b"), 0);
    EXPECT_EQ(kestal_match_wildcard_list("||", nullptr, ""), 0);
    EXPECT_EQ(kestal_match_wildcard_list(nullptr, nullptr, ""), 0);
}

TEST_F(text, names_and_numbers)
{
    for (const auto &[path, base] : {std::pair("/a/b/c", "c"),
                                     {"/a/b/c//", "c"},
                                     {"c", "c"},
                                     {"/", "/"},
                                     {"//", "/"},
                                     {"", ""},
                                     {static_cast<const char *>(nullptr), ""},
                                     {"a/", "a"}})
        EXPECT_EQ(owned(kestal_alloc_basename(path)), base);
    for (const auto &[value, expected] : {std::pair(uint64_t{0}, "0"),
                                          {999, "999"},
                                          {1000, "1,000"},
                                          {1234567, "1,234,567"},
                                          {UINT64_MAX, "18,446,744,073,709,551,615"}})
        EXPECT_EQ(owned(kestal_comma_string_alloc(value)), expected);
    EXPECT_EQ(with_each_allocation_failing([] {
                  kestal_check_free(kestal_alloc_basename("a/b"));
                  kestal_check_free(kestal_comma_string_alloc(1000));
              }),
              2u);
}

} // namespace
