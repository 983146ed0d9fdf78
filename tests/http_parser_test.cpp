#include "http_heads.hpp"
#include "support.hpp"

using kestal_test::shown;
using kestal_test::with_each_allocation_failing;
using parser = kestal_test::http_head;

namespace {

class http_parser : public kestal_test::counted {};

TEST_F(http_parser, classifies_lines)
{
    const std::pair<const char *, const char *> first_lines[] = {
        {"GET /a HTTP", "8000|GET /a HTTP"},
        {"ge /index", "2|ge|/index|| 0.9+"},
        {"GETS /index", "8000|GETS /index"},
        {"GET /a  HT TP/12.34 more", "2|GET|/a| HT TP|12.34 12.34+ more"},
        {"GET /a HTTP/.1", "8000|GET /a HTTP/.1"},
        {"\xC3\xA4T /a HTTP/4294967297.x", "2|\xC3\xA4T|/a|HTTP|4294967297. 1.0+x"},
        {"HTTP/1.1200 200", "3|HTTP|1.1200|200| 1.1200 200+"},
        {"HTTP/2 099two  words ", "3|HTTP|2|099|two  words  2.0 99+"},
        {"HTTP/1.1 20 OK", "8000|HTTP/1.1 20 OK"},
        {"HTTP/1.1 2000 OK", "8000|HTTP/1.1 2000 OK"},
        {"X:  a\t ", "4|X| a\t +"},
        {"X : b", "8000|X : b"},
        {"HTTP/x 200", "8000|HTTP/x 200"},
        {": b", "8000|: b"},
        {"a\x7F: c", "8000|a\x7F: c"},
    };
    for (const auto &[line, expected] : first_lines)
        EXPECT_EQ(shown(parser(std::string(line) + "\r\n\r\n").get), expected + std::string("\n1+\n"));
    EXPECT_EQ(shown(parser("A: b\nGET / HTTP/1.1\nHTTP/1.1 200 OK\nC:d\n\n").get),
              "4|A|b+\n8000|GET / HTTP/1.1\n8000|HTTP/1.1 200 OK\n4|C|d+\n1+\n");
    EXPECT_EQ(shown(parser("GET / HTTP/1.1\nA: b\n").get), "0|GET / HTTP/1.1\n0|A: b\n") << "not before the end";
}

TEST_F(http_parser, joins_folded_lines)
{
    const std::pair<std::string, const char *> heads[] = {
        {"A: b\r\n  c\r\n\t d\r\nE: f\r\n\r\n", "4|A|bcd+\n4|E|f+\n1+\n"},
        {" A: b\r\n c\r\n\r\n", "4|A|bc+\n1+\n"},
        {" \r\nA: b\r\n\r\n", "8000|\n4|A|b+\n1+\n"},
        {" \r\n \r\nA: b\r\n", "1+\n"}, // both together are the empty line
        {std::string("A: b\0c\n d\0\n\0x\n", 15), "4|A|bd+\n1+\n"},
    };
    for (const auto &[head, expected] : heads)
        EXPECT_EQ(shown(parser(head).get), expected);

    parser long_one("A: ");
    for (int i = 0; i < 1000; ++i)
        long_one.push("\r\n fold");
    long_one.push("\r\n\r\n");
    EXPECT_EQ(strlen(kestal_http_parser_get_field(&long_one.get, "a")), 4000u);
}

TEST_F(http_parser, takes_bytes_in_any_pieces)
{
    const std::string heads[] = {
        "GET /a HTTP/1.1\r\nHost: b\r\nX: 1\r\n 2\r\nodd\r\n\r\n",
        "HTTP/1.1 200 OK\nA: \xB0\xA1\xB0\r\nB: \x80\nC: d\n\n",
        "A: b\n\rC: d\n\r\n\r",
        "A: b\r \r\n\r",
    };
    for (const std::string &head : heads) {
        const std::string message = head + "BODY\r\n";
        parser whole;
        ASSERT_EQ(whole.push(message), static_cast<int64_t>(head.size()));
        EXPECT_EQ(whole.push("more") + whole.push(""), 0) << "complete";
        for (size_t first = 1; first < message.size(); ++first)
            for (size_t piece = 1; piece <= message.size() - first; ++piece) {
                parser split;
                size_t taken = 0;
                for (size_t at = 0, size = first; at < message.size(); at += size, size = piece) {
                    const bool was_complete = split.is_complete();
                    const int64_t result = split.push(message.substr(at, size));
                    EXPECT_EQ(result == 0, was_complete);
                    taken += static_cast<size_t>(result);
                }
                EXPECT_EQ(shown(split.get), shown(whole.get));
                // The second byte of a pair is the head's if it comes with the first.
                EXPECT_TRUE(taken == head.size() || (taken + 1 == head.size() && head.back() != head[taken - 1]));
            }
    }
}

TEST_F(http_parser, looks_up_and_writes_out)
{
    parser request("PUT /x HTTP/1.1 extra\r\nB:\r\na: one\r\nodd\r\nA: two\r\n\r\n");
    uint32_t major = 7, minor = 7;
    EXPECT_EQ(kestal_http_parser_get_version(&request.get, &major, &minor), -1) << "always";
    EXPECT_EQ(std::pair(major, minor), std::pair(1u, 1u));
    EXPECT_STREQ(kestal_http_parser_get_method(&request.get), "PUT");
    EXPECT_STREQ(kestal_http_parser_get_request_uri(&request.get), "/x");
    EXPECT_EQ(kestal_http_parser_get_header_type(&request.get), KESTAL_HTTP_NODE_REQUEST);
    EXPECT_STREQ(kestal_http_parser_get_field(&request.get, "A"), "one") << "the first";
    const kestal_http_node_t *field = kestal_search_http_parser(request.get.m_head, "a");
    EXPECT_STREQ(kestal_search_http_parser(field->m_next, "a")->m_text2, "two");
    EXPECT_STREQ(kestal_http_parser_get_field(&request.get, "b"), "");
    for (const char *missing : {"odd", static_cast<const char *>(nullptr)})
        EXPECT_EQ(kestal_http_parser_get_field(&request.get, missing), nullptr);
    EXPECT_EQ(request.output(), "PUT /x HTTP/1.1\r\nB: \r\na: one\r\nA: two\r\n\r\n");

    kestal_reset_http_parser(&request.get);
    EXPECT_EQ(request.output(), "\r\n");
    EXPECT_EQ(kestal_push_printf_http_parser(&request.get, "HTTP/%d.0 %s OK\r\nL: ", 1, "204"), 20);
    const std::string large(200000, 'x'); // more than the formatter does
    request.push(large + "\n\n");
    EXPECT_EQ(request.output(), "HTTP/1.0 204 OK\r\nL: " + large + "\r\n\r\n");
    EXPECT_EQ(kestal_http_parser_get_status_code(&request.get), 204u);
}

TEST_F(http_parser, refuses_what_is_no_parser)
{
    EXPECT_EQ(kestal_get_output_http_parser(nullptr, nullptr), nullptr);
    EXPECT_EQ(kestal_http_parser_get_header_type(nullptr) + kestal_http_parser_get_status_code(nullptr), 0u);
    parser ended, open;
    ended.get.m_flags |= 0x4200;
    kestal_destroy_http_parser(&ended.get);
    EXPECT_EQ(ended.get.m_flags, 0x4200u) << "bits of others stay";
    EXPECT_EQ(kestal_push_http_parser(nullptr, "x", 1) + kestal_push_printf_http_parser(nullptr, "x") +
                  kestal_reset_http_parser(nullptr) + kestal_http_parser_get_version(nullptr, nullptr, nullptr) +
                  ended.push("x") + kestal_push_http_parser(&open.get, nullptr, 1) +
                  kestal_push_printf_http_parser(&open.get, nullptr),
              -7);
    EXPECT_TRUE(ended.has(KESTAL_HTTP_PARSER_ERROR));
}

TEST_F(http_parser, traces)
{
    const kestal_test::caught_console console;
    kestal_http_parser_t *traced = kestal_new_http_parser();
    traced->m_flags |= KESTAL_HTTP_PARSER_VERBOSE;
    kestal_push_http_parser(traced, "G /a\r\nA: b", 10);
    kestal_push_http_parser(traced, " \r\nodd\r\n\r\n", 10);
    kestal_reset_http_parser(traced);
    kestal_push_http_parser(traced, "HTTP/1.0 200 OK\n\n", 17);
    kestal_reset_http_parser(traced);
    kestal_push_http_parser(traced, "B: c\n", 5);
    for (const std::string line : {" and more, as long as it must be to find no room\n", "D: e\n"}) {
        const kestal_test::failing_allocation fails(2); // the first is the trace's own
        kestal_push_http_parser(traced, line.data(), line.size());
    }
    kestal_destroy_http_parser(traced);
    const char *expected[] = {
        "[MESSAGE] push <w:10> bytes (total=<w:10>)",
        "[MESSAGE] push <w:10> bytes (total=<w:14>)",
        "[MESSAGE] request-line (method=\"<w:G>\", uri=\"<w:/a>\", protocol=\"<w:>\", protocol-version=\"<w:>\", "
        "major=<w:0>, minor=<w:9>, extra=\"<w:>\")",
        "[MESSAGE] field (name=\"<w:A>\", value=\"<w:b >\", extra=\"<w:>\")",
        "[WARNING] <r:unknown node> (type=<w:00008000H>, line=\"<w:odd>\")",
        "[MESSAGE] end of header.",
        "[MESSAGE] reset http parser. (<b:no-error>)",
        "[MESSAGE] push <w:17> bytes (total=<w:17>)",
        "[MESSAGE] status-line (protocol=\"<w:HTTP>\", protocol_version=\"<w:1.0>\", status-code=\"<w:200>\", "
        "reason-phrase=\"<w:OK>\", major=<w:1>, minor=<w:0>, status-code-value=<w:200>, extra=\"<w:>\")",
        "[MESSAGE] end of header.",
        "[MESSAGE] reset http parser. (<b:no-error>)",
        "[MESSAGE] push <w:5> bytes (total=<w:5>)",
        "[MESSAGE] push <w:49> bytes (total=<w:49>)",
        "[ERROR] <r:lws merge line failed !> (\"<w:B: c>\" + \"<w:and more, as long as it must be to find "
        "no room>\")",
        "[MESSAGE] push <w:5> bytes (total=<w:5>)",
        "[ERROR] <r:kestal_http_parser_new_node failed !> (\"<w:D: e>\")",
        "[MESSAGE] free http parser. (<r:error>)",
    };
    std::string all;
    for (const char *line : expected)
        all += std::string("kestal_http_parser: ") + line + "\n";
    EXPECT_EQ(kestal_test::colours_named(console.text()), all);
}

TEST_F(http_parser, survives_failing_allocations)
{
    const std::string head = "GET /a HTTP/1.1\r\nHost: b\r\nX: 1\r\n " + std::string(100, '2') + "\r\n\r\n";
    const std::string all = shown(parser(head).get);
    for (const size_t piece : {head.size(), size_t{7}})
        EXPECT_GT(with_each_allocation_failing([&] {
                      parser failing;
                      bool is_refused = false;
                      for (size_t at = 0; at < head.size(); at += piece)
                          is_refused |= failing.push(head.substr(at, piece)) < 0;
                      const bool has_failed = failing.has(KESTAL_HTTP_PARSER_ERROR);
                      EXPECT_TRUE(has_failed || (!is_refused && shown(failing.get) == all)) << "a failure is told";
                      uint64_t size = 1;
                      const char *text = kestal_get_output_http_parser(&failing.get, &size);
                      EXPECT_EQ(size, text == nullptr ? 0 : strlen(text));
                  }),
                  10u);
    EXPECT_EQ(with_each_allocation_failing([] { kestal_free_http_parser(kestal_new_http_parser()); }), 1u);
}

} // namespace
