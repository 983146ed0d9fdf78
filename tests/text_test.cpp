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
        {nullptr, ",", empty, {}},
        {" GET  /x \t\r\n", nullptr, 0, {"GET", "/x"}},
        {";a;;b|c;", ";|", 0, {"a", "b", "c"}},
        {"", ",", empty, {""}},
        {",a,,b,", ",", empty, {"", "a", "", "b", ""}},
        {"a \"b c\"d 'e \"f' \"\" g", " ", quotes, {"a", "b cd", "e \"f", "", "g"}},
        {"'open end ", " ", quotes, {"open end "}},
        {"\"a\\", "", 0, {"\"a\\"}},
        {"a\\ b \\\\ c\\", " ", escapes, {"a b", "\\", "c\\"}},
        {"a\\,b,\"c\\\",d\",,e", ",", quotes | escapes | empty, {"a,b", "c\",d", "", "e"}},
    };
    for (const auto &item : cases) {
        kestal_word_t *head = kestal_new_word_list(item.text, item.separators, item.flags);
        std::vector<std::string> listed, walked;
        for (const kestal_word_t *word = head; word != nullptr; word = word->m_next)
            listed.push_back(word->m_text);
        EXPECT_EQ(listed, item.words);
        EXPECT_EQ(kestal_free_word_list(head), nullptr);
        for (const char *cursor = item.text; char *word = kestal_alloc_word(&cursor, item.separators, item.flags);)
            walked.push_back(owned(word));
        EXPECT_EQ(walked, item.words);
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
    const auto result = [](const std::string &both) { // pattern=text
        const size_t at = both.find('=');
        return kestal_match_wildcard(both.substr(0, at).c_str(), both.substr(at + 1).c_str());
    };
    for (const char *both : {"=", "*=", "*=abc", "?=a", "a?c=aBc", "A*C=abbbc", "*b*=abc", "*ab=aab", "a*b*c=aXbYbZc",
                             "a**=a", "a\\*=a*", "\\?=?", "\\a=A", "a\\=a\\", "\\\\=\\", "*.tar.?z=a.tar.tar.xz"})
        EXPECT_EQ(result(both), 1) << both;
    for (const char *both : {"=a", "?=", "a?c=ac", "a*c=abcd", "a\\*=ab", "\\?=x", "\\=x",
                             "*a*a*a*a*a*a*a*b=aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"})
        EXPECT_EQ(result(both), 0) << both;
    EXPECT_EQ(kestal_match_wildcard(nullptr, nullptr), 1);
    EXPECT_EQ(kestal_match_wildcard_ex("a*", "Ab", 1), 0);
    EXPECT_EQ(kestal_match_wildcard_ex("a*", "ab", 1), 1);

    EXPECT_EQ(kestal_match_wildcard_list("x|Y*||z", nullptr, "yes"), 1);
    EXPECT_EQ(kestal_match_wildcard_list("x;y|z", ";|", "z"), 1);
    EXPECT_EQ(kestal_match_wildcard_list("a\\|b|c", nullptr, "a|b"), 1);
    EXPECT_EQ(kestal_match_wildcard_list("a\\|b|c", nullptr, "b"), 0);
    EXPECT_EQ(kestal_match_wildcard_list("||", nullptr, ""), 0);
}

TEST_F(text, names_and_numbers)
{
    std::string names;
    for (const char *path : {"/a/b/c", "d/e//", "f", "//", "", static_cast<const char *>(nullptr)})
        names += owned(kestal_alloc_basename(path)) + ",";
    EXPECT_EQ(names, "c,e,f,/,,,");
    EXPECT_EQ(owned(kestal_comma_string_alloc(0)), "0");
    EXPECT_EQ(owned(kestal_comma_string_alloc(999)), "999");
    EXPECT_EQ(owned(kestal_comma_string_alloc(1000)), "1,000");
    EXPECT_EQ(owned(kestal_comma_string_alloc(UINT64_MAX)), "18,446,744,073,709,551,615");
    EXPECT_EQ(with_each_allocation_failing([] {
                  kestal_check_free(kestal_alloc_basename("a/b"));
                  kestal_check_free(kestal_comma_string_alloc(1000));
              }),
              2u);
}

} // namespace
