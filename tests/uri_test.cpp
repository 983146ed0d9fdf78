// URIs, their options and percent coding.
#include "support.hpp"

using kestal_test::owned;

namespace {

class uri : public kestal_test::counted {};

TEST_F(uri, percent_coding)
{
    const struct {
        const char *text;
        uint32_t flags;
        const char *keep, *result;
    } encoded[] = {
        {"aZ9-._~ b/\xC3\xA9", 0, nullptr, "aZ9-._~%20b%2F%C3%A9"},
        {"a b/\xC3\xA9", 0, "/", "a%20b/%C3%A9"},
        {"\x01\x7F\xFF%+@[`{", 0, "", "%01%7F%FF%25%2B%40%5B%60%7B"},
        {"+ a\xFF", 1, "+\xFF", "++a\xFF"},
        {nullptr, 0, nullptr, "<null>"},
    };
    for (const auto &[text, flags, keep, result] : encoded)
        EXPECT_EQ(owned(kestal_encode_percent_string_ex(text, flags, keep)), result);
    for (const auto &[text, result] : {std::pair("a+b%2B%fF", "a+b+\xFF"),
                                       {"%4g%411", "\x04gA1"},
                                       {"%4", "\x04"},
                                       {"%%41%zz%", "%A%zz%"},
                                       {"a%00b", "a"},
                                       {nullptr, "<null>"}})
        EXPECT_EQ(owned(kestal_decode_percent_string(text)), result);
    EXPECT_EQ(owned(kestal_decode_percent_string_ex("a+b%2B", 1)), "a b+");
}

// The parts of a URI in order, "-" where one is absent.
std::string parts(const char *text)
{
    kestal_uri_t *uri = kestal_open_uri(text);
    std::string result;
    for (const char *part :
         {uri->m_scheme_name, uri->m_scheme_qualifier, uri->m_user, uri->m_password, uri->m_host, uri->m_port_text})
        result += (part == nullptr ? "-" : part) + std::string(" ");
    result += std::to_string(uri->m_port);
    for (const char *part : {uri->m_location, uri->m_path_query, uri->m_path, uri->m_decoded_path, uri->m_query})
        result += std::string(" ") + (part == nullptr ? "-" : part);
    EXPECT_STREQ(uri->m_uri, text);
    EXPECT_EQ(kestal_close_uri(uri), 0);
    return result;
}

TEST_F(uri, is_cut_into_parts)
{
    const std::pair<const char *, const char *> cases[] = {
        {"tftp://user:pw@h:69/d/f?x=1", "tftp - user pw h 69 69 user:pw@h:69/d/f?x=1 /d/f?x=1 /d/f /d/f x=1"},
        {"ftp://user:p:w@host:2121/x", "ftp - user p:w host 2121 2121 user:p:w@host:2121/x /x /x /x -"},
        {"ftp@active@x://host/?", "ftp active@x - - host - 0 host/? /? / / "},
        {"@q://", " q - - - - 0  - - / -"},
        {"http://[fe80::1]:8080/", "http - - - fe80::1 8080 8080 [fe80::1]:8080/ / / / -"},
        {"[x:abc/y", "- - - - [x:abc - 0 [x:abc/y /y /y /y -"},
        {"h:", "- - - - h: - 0 h: - - / -"},
        {"x://a@b@h:1:2", "x - a@b - h:1 2 2 a@b@h:1:2 - - / -"},
        {"x:///a%20b%2f", "x - - - - - 0 /a%20b%2f /a%20b%2f /a%20b%2f /a b/ -"},
        {"h:99999999999999999999", "- - - - h 99999999999999999999 0 h:99999999999999999999 - - / -"},
        {"", "- - - - - - 0  - - / -"},
    };
    for (const auto &[text, expected] : cases)
        EXPECT_EQ(parts(text), expected);
    EXPECT_EQ(kestal_open_uri(nullptr), nullptr);
    EXPECT_EQ(kestal_close_uri(nullptr), -1);
}

TEST_F(uri, options_are_parsed_and_found)
{
    kestal_uri_t *opened = kestal_open_uri("h/?a=1&b&&c=x%20y&%44=+=&");
    kestal_uri_option_t *list = std::exchange(opened->m_options, nullptr);
    kestal_close_uri(opened);
    EXPECT_EQ(kestal_parse_uri_option(list, "a+b=c+d", KESTAL_URI_OPTION_FORM), list);
    EXPECT_EQ(kestal_parse_uri_option(list, nullptr, 0), list);
    std::string all;
    for (const kestal_uri_option_t *option = list; option != nullptr; option = option->m_next)
        for (const char *part :
             {option->m_option, option->m_name, option->m_value, option->m_decoded_name, option->m_decoded_value})
            all += part + std::string(";");
    EXPECT_EQ(all, "a=1;a;1;a;1;b;b;;b;;c=x%20y;c;x%20y;c;x y;%44=+=;%44;+=;D;+=;a+b=c+d;a+b;c+d;a b;c d;");
    for (const auto &[pattern, value, decoded] :
         {std::tuple("x|C", "x%20y", "x y"), {"a?b", "c+d", "c d"}, {"e", nullptr, nullptr}}) {
        EXPECT_STREQ(kestal_search_uri_option_value(list, pattern), value);
        EXPECT_STREQ(kestal_search_uri_option_decode_value(list, pattern), decoded);
    }
    EXPECT_EQ(kestal_free_uri_option(list), 0);
}

TEST_F(uri, short_memory_leaves_parts_out)
{
    EXPECT_GT(kestal_test::with_each_allocation_failing([] {
                  if (kestal_uri_t *opened = kestal_open_uri("ftp@q://u:p@h:1/d?a=1&b=2"))
                      kestal_close_uri(opened);
                  owned(kestal_encode_percent_string("a b"));
              }),
              15u);
}

} // namespace
