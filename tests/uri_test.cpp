#include "support.hpp"

using kestal_test::counted;
using kestal_test::failing_allocation;
using kestal_test::with_each_allocation_failing;

namespace {

class uri : public counted {};

// The parts of a URI in order, "-" where one is absent.
std::vector<std::string> parts(const kestal_uri_t *uri)
{
    std::vector<std::string> result;
    for (const char *part : {uri->m_scheme, uri->m_user, uri->m_password, uri->m_host, uri->m_port_text,
                             uri->m_path_query, uri->m_path, uri->m_decoded_path, uri->m_query})
        result.push_back(part == nullptr ? "-" : part);
    return result;
}

TEST_F(uri, is_cut_into_parts)
{
    const struct {
        const char *text;
        std::vector<std::string> parts;
        int32_t port;
    } cases[] = {
        {"tftp://user:pw@host:69/dir/file?x=1&y=2",
         {"tftp", "user", "pw", "host", "69", "/dir/file?x=1&y=2", "/dir/file", "/dir/file", "x=1&y=2"},
         69},
        {"tftp://host//dir/file", {"tftp", "-", "-", "host", "-", "//dir/file", "//dir/file", "//dir/file", "-"}, 0},
        {"ftp://user:p:w@host:2121/x", {"ftp", "user", "p:w", "host", "2121", "/x", "/x", "/x", "-"}, 2121},
        {"http://[fe80::1]:8080/", {"http", "-", "-", "fe80::1", "8080", "/", "/", "/", "-"}, 8080},
        {"host:abc/x", {"-", "-", "-", "host:abc", "-", "/x", "/x", "/x", "-"}, 0},
        {"udp://:5000", {"udp", "-", "-", "-", "5000", "-", "-", "/", "-"}, 5000},
        {"[::1]:69", {"-", "-", "-", "::1", "69", "-", "-", "/", "-"}, 69},
        {"[::1]", {"-", "-", "-", "::1", "-", "-", "-", "/", "-"}, 0},
        {"[]", {"-", "-", "-", "", "-", "-", "-", "/", "-"}, 0},
        {"[", {"-", "-", "-", "[", "-", "-", "-", "/", "-"}, 0},
        {"x://:@/", {"x", "", "", "", "-", "/", "/", "/", "-"}, 0},
        {"x://@h", {"x", "", "-", "h", "-", "-", "-", "/", "-"}, 0},
        {"x://a@b@h:1:2", {"x", "a@b", "-", "h:1", "2", "-", "-", "/", "-"}, 2},
        {"x://u:21@h:", {"x", "u", "21", "h:", "-", "-", "-", "/", "-"}, 0},
        {"host?q=1", {"-", "-", "-", "host?q=1", "-", "-", "-", "/", "-"}, 0},
        {"x:///a%20b%2?", {"x", "-", "-", "-", "-", "/a%20b%2?", "/a%20b%2", "/a b\x02", ""}, 0},
        {"://h/p://q", {"", "-", "-", "h", "-", "/p://q", "/p://q", "/p://q", "-"}, 0},
        {"h:99999999999999999999", {"-", "-", "-", "h", "99999999999999999999", "-", "-", "/", "-"}, 0},
        {"", {"-", "-", "-", "-", "-", "-", "-", "/", "-"}, 0},
    };
    for (const auto &item : cases) {
        kestal_uri_t *opened = kestal_open_uri(item.text);
        EXPECT_EQ(parts(opened), item.parts) << item.text;
        EXPECT_EQ(opened->m_port, item.port) << item.text;
        EXPECT_STREQ(opened->m_uri, item.text);
        EXPECT_EQ(kestal_close_uri(opened), 0);
    }
    EXPECT_EQ(kestal_open_uri(nullptr), nullptr);
    EXPECT_EQ(kestal_close_uri(nullptr), -1);
}

TEST_F(uri, scheme_has_a_qualifier)
{
    const struct {
        const char *text, *scheme, *name, *qualifier, *location;
    } cases[] = {
        {"ftp@active@x://host/f", "ftp@active@x", "ftp", "active@x", "host/f"},
        {"ftp://host/f", "ftp", "ftp", nullptr, "host/f"},
        {"@q://", "@q", "", "q", ""},
        {"host/f", nullptr, nullptr, nullptr, "host/f"},
    };
    for (const auto &item : cases) {
        kestal_uri_t *opened = kestal_open_uri(item.text);
        EXPECT_STREQ(opened->m_scheme, item.scheme);
        EXPECT_STREQ(opened->m_scheme_name, item.name);
        EXPECT_STREQ(opened->m_scheme_qualifier, item.qualifier);
        EXPECT_STREQ(opened->m_location, item.location);
        kestal_close_uri(opened);
    }
}

TEST_F(uri, options_are_parsed_and_found)
{
    kestal_uri_t *opened = kestal_open_uri("h/?a=1&b&&c=x%20y&%44=+=&");
    kestal_uri_option_t *list = opened->m_options;
    opened->m_options = nullptr;
    kestal_close_uri(opened);
    EXPECT_EQ(kestal_parse_uri_option(list, "a+b=c+d", KESTAL_URI_OPTION_FORM), list);
    EXPECT_EQ(kestal_parse_uri_option(list, nullptr, 0), list);

    const struct {
        const char *option, *name, *value, *decoded_name, *decoded_value;
    } expected[] = {
        {"a=1", "a", "1", "a", "1"},
        {"b", "b", "", "b", ""},
        {"c=x%20y", "c", "x%20y", "c", "x y"},
        {"%44=+=", "%44", "+=", "D", "+="},
        {"a+b=c+d", "a+b", "c+d", "a b", "c d"},
    };
    const kestal_uri_option_t *option = list;
    for (const auto &item : expected) {
        ASSERT_NE(option, nullptr);
        EXPECT_STREQ(option->m_option, item.option);
        EXPECT_STREQ(option->m_name, item.name);
        EXPECT_STREQ(option->m_value, item.value);
        EXPECT_STREQ(option->m_decoded_name, item.decoded_name);
        EXPECT_STREQ(option->m_decoded_value, item.decoded_value);
        option = option->m_next;
    }
    EXPECT_EQ(option, nullptr);

    EXPECT_STREQ(kestal_search_uri_option_value(list, "x|C"), "x%20y");
    EXPECT_STREQ(kestal_search_uri_option_decode_value(list, "x|C"), "x y");
    EXPECT_STREQ(kestal_search_uri_option_value(list, "d"), "+=");
    EXPECT_STREQ(kestal_search_uri_option_value(list, "a?b"), "c+d");
    EXPECT_EQ(kestal_search_uri_option_value(list, "e"), nullptr);
    EXPECT_EQ(kestal_search_uri_option_decode_value(list, nullptr), nullptr);
    EXPECT_EQ(kestal_search_uri_option_node(nullptr, "*"), nullptr);
    EXPECT_EQ(kestal_free_uri_option(list), 0);
    EXPECT_EQ(kestal_free_uri_option(nullptr), 0);
    EXPECT_EQ(kestal_new_uri_option(nullptr, 0), nullptr);
}

TEST_F(uri, short_memory_leaves_parts_out)
{
    EXPECT_GT(with_each_allocation_failing([] {
                  if (kestal_uri_t *opened = kestal_open_uri("ftp@q://u:p@h:1/d?a=1&b=2"))
                      kestal_close_uri(opened);
              }),
              15u);
    kestal_uri_option_t *option = nullptr;
    {
        const failing_allocation decoded_value(3);
        option = kestal_new_uri_option("a=%41", 0);
    }
    EXPECT_EQ(option->m_decoded_value, nullptr);
    EXPECT_STREQ(kestal_search_uri_option_decode_value(option, "a"), "%41");
    kestal_free_uri_option(option);
    {
        const failing_allocation first_piece(1);
        option = kestal_parse_uri_option(nullptr, "a=1&b=2", 0);
    }
    EXPECT_STREQ(option->m_name, "b");
    kestal_free_uri_option(option);
}

} // namespace
