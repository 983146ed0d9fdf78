#include "support.hpp"

using kestal_test::owned;
using kestal_test::with_each_allocation_failing;

namespace {

class text : public kestal_test::counted {};

TEST_F(text, splits_words)
{
    constexpr uint32_t quotes = KESTAL_WORD_QUOTES, escapes = KESTAL_WORD_ESCAPES, empty = KESTAL_WORD_EMPTY;
    const struct {
        const char *text, *separators;
        uint32_t flags;
        std::string words; // each with a "|" behind it
    } cases[] = {
        {nullptr, ",", empty, ""},
        {" GET  /x \t\r\n", nullptr, 0, "GET|/x|"},
        {";a;;b-c;", ";-", 0, "a|b|c|"},
        {",a,,b,", ",", empty, "|a||b||"},
        {"a \"b c\"d 'e \"f' \"\" g", " ", quotes, "a|b cd|e \"f||g|"},
        {"'open end ", " ", quotes, "open end |"},
        {"a\\ b \\\\ c\\", " ", escapes, "a b|\\|c\\|"},
        {"a\\,b,\"c\\\",d\",,e", ",", quotes | escapes | empty, "a,b|c\",d||e|"},
    };
    for (const auto &[given, separators, flags, words] : cases) {
        kestal_word_t *head = kestal_new_word_list(given, separators, flags);
        std::string listed, walked;
        for (const kestal_word_t *word = head; word != nullptr; word = word->m_next)
            listed += word->m_text + std::string("|");
        EXPECT_EQ(listed, words);
        EXPECT_EQ(kestal_free_word_list(head), nullptr);
        for (const char *cursor = given; char *word = kestal_alloc_word(&cursor, separators, flags);)
            walked += owned(word) + "|";
        EXPECT_EQ(walked, words);
    }
    EXPECT_EQ(with_each_allocation_failing([] {
                  const char *place = " one  two";
                  const std::string first = owned(kestal_alloc_word(&place, nullptr, 0));
                  EXPECT_STREQ(place, first == "one" ? "  two" : " one  two");
                  kestal_free_word_list(kestal_new_word_list("a b c", nullptr, 0));
                  owned(kestal_alloc_basename("a/b"));
                  owned(kestal_comma_string_alloc(1000));
              }),
              6u);
}

TEST_F(text, trims_compares_and_names)
{
    for (auto [given, expected] : {std::pair<std::string, std::string>("", ""), {" \t\r\n", ""}, {" \va b\f ", "a b"}})
        EXPECT_STREQ(kestal_trim_string(given.data()), expected.c_str());
    EXPECT_EQ(kestal_trim_string(nullptr), nullptr);
    EXPECT_EQ(kestal_compare_ignore_case("File", "fILE") | kestal_compare_ignore_case(nullptr, ""), 0);
    EXPECT_LT(kestal_compare_ignore_case("[", "a"), 0);

    std::string results;
    for (const char *path : {"/a/b/c", "d/e//", "f", "//", "", static_cast<const char *>(nullptr)})
        results += owned(kestal_alloc_basename(path)) + ";";
    for (const uint64_t value : {uint64_t{999}, uint64_t{1000}, UINT64_MAX})
        results += owned(kestal_comma_string_alloc(value)) + ";";
    EXPECT_EQ(results, "c;e;f;/;;;999;1,000;18,446,744,073,709,551,615;");
}

TEST_F(text, matches_wildcards)
{
    const auto result = [](const std::string &both) { // pattern=text
        const size_t at = both.find('=');
        return kestal_match_wildcard(both.substr(0, at).c_str(), both.substr(at + 1).c_str());
    };
    for (const char *both : {"=", "*=", "a?c=aBc", "A*C=abbbc", "a*b*c=aXbYbZc", "a\\*=a*", "\\a=A", "a\\=a\\"})
        EXPECT_EQ(result(both), 1) << both;
    for (const char *both : {"=a", "?=", "a?c=ac", "a*c=abcd", "a\\*=ab", "\\=x",
                             "*a*a*a*a*a*a*a*b=aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"})
        EXPECT_EQ(result(both), 0) << both;
    EXPECT_EQ(kestal_match_wildcard(nullptr, nullptr), 1);
    EXPECT_EQ(kestal_match_wildcard_ex("a*", "Ab", 1), 0);
    for (const auto &[patterns, tested, matched] :
         {std::tuple("x|Y*||z", "yes", 1), {"a\\|b|c", "a|b", 1}, {"a\\|b|c", "b", 0}, {"||", "", 0}})
        EXPECT_EQ(kestal_match_wildcard_list(patterns, nullptr, tested), matched) << patterns;
    EXPECT_EQ(kestal_match_wildcard_list("x;y|z", ";|", "z"), 1);
}

} // namespace
