// One CGI request after the other: what is read, who is let in, what is written.
#include "support.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using kestal_test::caught_errors;
using namespace testing::internal; // what captures the standard streams

namespace {

int failures = 0;      // reads and waits to come that fail with...
int failure_error = 0; // this, or find the time run out (0)
void *watched_block = nullptr;
std::string watched_content;

bool must_fail(int32_t timeout)
{
    if (timeout != 60000 || failures == 0)
        return false;
    --failures;
    errno = failure_error;
    return true;
}

} // namespace

extern "C" {
int64_t __real_kestal_read_file(int32_t descriptor, void *data, uint64_t size, int32_t timeout);
int32_t __real_kestal_single_select(int32_t descriptor, uint32_t mask, int32_t timeout);
void __real_free(void *block);

int64_t __wrap_kestal_read_file(int32_t descriptor, void *data, uint64_t size, int32_t timeout)
{
    return must_fail(timeout) ? -1 : __real_kestal_read_file(descriptor, data, size, timeout);
}

int32_t __wrap_kestal_single_select(int32_t descriptor, uint32_t mask, int32_t timeout)
{
    return must_fail(timeout) ? (failure_error == 0 ? 0 : -1) : __real_kestal_single_select(descriptor, mask, timeout);
}

void __wrap_free(void *block)
{
    if (block != nullptr && block == watched_block)
        watched_content.assign(static_cast<const char *>(block), watched_content.size());
    __real_free(block);
}
}

namespace {

class cgi : public kestal_test::counted {};

// A request: its environment, and on standard input a body of which each read brings one piece.
class request {
public:
    explicit request(std::vector<std::string> variables, const std::vector<std::string> &body = {})
        : variables_(std::move(variables))
    {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
        for (const std::string &piece : body)
            EXPECT_EQ(send(pair[0], piece.data(), piece.size(), 0), static_cast<ssize_t>(piece.size()));
        dup2(pair[1], STDIN_FILENO);
        close(pair[0]);
        close(pair[1]);
        for (std::string &variable : variables_)
            environment_.push_back(variable.data());
        environment_.push_back(nullptr);
        opened = kestal_open_cgi(0, nullptr, environment_.data());
    }
    ~request() { kestal_close_cgi(opened); }

    std::string outgoing(int32_t result = 0) const
    {
        CaptureStdout();
        EXPECT_EQ(kestal_cgi_outgoing(opened), result);
        return GetCapturedStdout();
    }
    std::string body() const
    {
        char text[16];
        return {text, static_cast<size_t>(kestal_peek_buffer_ex(opened->m_body, text, sizeof text, 0, 0))};
    }

    kestal_cgi_t *opened;

private:
    std::vector<std::string> variables_;
    std::vector<char *> environment_;
};

TEST_F(cgi, reads_the_request)
{
    const struct {
        const char *method, *length;
        std::vector<std::string> body;
        int32_t result;
        uint32_t index, whole;
        const char *kept;
    } cases[] = {
        {"get", nullptr, {"unread"}, 0, KESTAL_CGI_METHOD_GET, 0, ""},
        {"GET", "3", {"abc"}, 0, KESTAL_CGI_METHOD_GET, 0, "abc"},
        {"Head", "3", {"abc"}, 0, KESTAL_CGI_METHOD_HEAD, 0, ""},
        {"delete", nullptr, {"ab", "cd", "e"}, 0, KESTAL_CGI_METHOD_DELETE, 0, "abcde"},
        {"Put", "0", {"abc"}, 0, KESTAL_CGI_METHOD_PUT, 0, ""},
        {"Patch", "12x", {"ab"}, 0, KESTAL_CGI_METHOD_OTHER, 0, "ab"},
        {"POST", "4", {"ab", "cd"}, -1, KESTAL_CGI_METHOD_POST, 0, "abcd"}, // not in a single read
        {"POST", "4", {"ab", "cd", "ef"}, 0, KESTAL_CGI_METHOD_POST, 1, "abcd"},
        {"POST", "4", {"ab", "c"}, -1, KESTAL_CGI_METHOD_POST, 1, "abc"},
        {"POST", "18446744073709551616", {"ab"}, -1, KESTAL_CGI_METHOD_POST, 0, "ab"},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(std::string(each.method) + " " + each.kept);
        std::vector<std::string> variables = {"CONTENT_TYPE=text/plain", std::string("REQUEST_METHOD=") + each.method};
        if (each.length != nullptr)
            variables.push_back(std::string("CONTENT_LENGTH=") + each.length);
        const request made(variables, each.body);
        kestal_cgi_set_whole_body(made.opened, each.whole);
        EXPECT_EQ(kestal_cgi_incoming(made.opened), each.result);
        EXPECT_EQ(made.opened->m_method_index, each.index);
        EXPECT_EQ(made.body(), each.kept);
        EXPECT_EQ(made.opened->m_received, strlen(each.kept));
        EXPECT_STREQ(made.opened->m_content_type, "text/plain");
    }
    for (const auto &[variable, error, result] :
         {std::tuple("HTTP_USER_AGENT=me", ETIMEDOUT, 0), {"CONTENT_LENGTH=3", ETIMEDOUT, -1}, {"X=", EIO, -1}}) {
        const request silent({"REQUEST_METHOD=put", variable});
        failures = 1;
        failure_error = error;
        EXPECT_EQ(kestal_cgi_incoming(silent.opened), result) << variable;
        EXPECT_STREQ(silent.opened->m_method, "PUT");
    }
}

TEST_F(cgi, hands_the_body_over_and_keeps_no_more_than_the_limit)
{
    for (const size_t surplus : {0u, 1u}) {
        const request made({"REQUEST_METHOD=PUT"}, {"abc", "defg", std::string(3 + surplus, 'x')});
        std::string taken;
        kestal_cgi_set_context(made.opened, &taken);
        // Takes up to 3 bytes at a time into the string that is the context; nothing when that is full.
        kestal_cgi_set_incoming_handler(made.opened, [](kestal_cgi_t *opened, const void *data, uint64_t size) {
            auto &all = *static_cast<std::string *>(kestal_cgi_get_context(opened));
            const size_t count = std::min({size_t{3}, static_cast<size_t>(size), 10 - all.size()});
            all.append(static_cast<const char *>(data), count);
            return static_cast<int64_t>(count);
        });
        kestal_cgi_set_body_limit(made.opened, 7);
        const caught_errors errors;
        EXPECT_EQ(kestal_cgi_incoming(made.opened), surplus == 0 ? 0 : -1);
        EXPECT_EQ(taken, "abcdefgxxx");
        EXPECT_EQ(made.body(), "abcdefg");
        EXPECT_EQ(errors.text(), surplus == 0 ? "overflow entity body size (10>=7) !\n" : "");
    }
}

TEST_F(cgi, checks_credentials)
{
    // GET with the realm "r" and the nonce "n".
    const auto response = [](const char *password, const char *qop) {
        char digits[KESTAL_HTTP_DIGEST_SIZE];
        kestal_http_digest("md5", "me", "r", password, "n", "c", "GET", "/u", qop, nullptr, "1", digits);
        return "response=" + std::string(digits);
    };
    const std::string common = "Digest username=\"me\", realm=\"r\", nonce=\"n\", uri=\"/u\", ";
    const std::string with_qop = common + "qop=auth, nc=1, cnonce=\"c\", " + response("b:c", "auth");
    const std::string without = common + response("b:c", "");
    const struct {
        std::string header;
        int32_t result, strict_result;
    } cases[] = {
        {"  dIGEST   " + without.substr(7) + ",algorithm=SHA-256", 0, 0},
        {without + ", response=x", -1, -1},
        {without.substr(0, without.size() - 1) + "x", -1, -1},
        {common + response("a", ""), -1, -1}, // the account added first
        {common.substr(0, common.size() - 2), -1, -1},
        {with_qop + ", opaque=4b43b0aee35624cd95b910189b3dc231", 0, 0},   // of "r"
        {with_qop + ", opaque=03c7c0ace395d80182db07ae2c30f034", -1, -1}, // of "s"
        {"Digest username=me,nonce=n,uri=/u,opaque=d41d8cd98f00b204e9800998ecf8427e,"
         "response=550fce030cc3fe7e349d33ba04bdda30",
         -1, -1},                     // no realm
        {"Basic bWU6Yjpj", 0, 0},     // me:b:c
        {"basic   bWU6YTpi", 0, -1},  // me:a:b
        {"BASIC bWU6ICBiOmM=", 0, 0}, // blanks before the password
        {"Basic bWU=", -1, -1},       // me
        {"Bearer Basic bWU6Yjpj", -1, -1},
        {"  ", -1, -1},
    };
    for (const auto &[header, result, strict_result] : cases)
        for (const uint32_t strict : {0u, 1u}) {
            const request made({"REQUEST_METHOD=get", "HTTP_AUTHORIZATION=" + header});
            EXPECT_EQ(kestal_cgi_incoming(made.opened), 0);
            EXPECT_EQ(kestal_cgi_digest_check(made.opened), 0) << "without accounts";
            for (const auto &[name, password] : {std::pair("me", "a"), {"other", nullptr}, {"me", "b:c"}, {"me", "a"}})
                EXPECT_EQ(kestal_cgi_add_account(made.opened, name, password), 0);
            kestal_cgi_set_basic_check(made.opened, strict);
            EXPECT_EQ(kestal_cgi_digest_check(made.opened), strict != 0 ? strict_result : result) << header;
            EXPECT_EQ(made.opened->m_response_headers == nullptr, (strict != 0 ? strict_result : result) == 0);
        }
}

TEST_F(cgi, challenges_with_a_nonce_of_the_minute)
{
    setenv("TZ", "KST-9", 1);
    const request made({"SERVER_ADMIN=", "SERVER_NAME=name", "SERVER_ADDR=addr"});
    kestal_cgi_add_account(made.opened, nullptr, nullptr);
    const time_t before = time(nullptr);
    EXPECT_EQ(kestal_cgi_digest_check(made.opened), -1);
    const kestal_cgi_response_header_t *status = made.opened->m_response_headers, *given = status->m_next;
    EXPECT_EQ(std::string(status->m_name) + ": " + status->m_value, "Status: 401 Unauthorized");
    EXPECT_STREQ(given->m_name, "WWW-Authenticate");
    const std::string opaque = "3ef9a0d7fab5d2bcabf0978c0a35244e"; // of "addr"
    bool is_of_the_time = false;
    for (time_t at = before / 60 * 60; at <= time(nullptr); at += 60) {
        char minute[15], nonce[KESTAL_HTTP_DIGEST_SIZE];
        strftime(minute, sizeof minute, "%Y%m%d%H%M00", gmtime(&at));
        kestal_http_digest_ha2(opaque.c_str(), minute, nullptr, nullptr, nonce);
        is_of_the_time |= given->m_value == "Digest realm=\"addr\", qop=\"auth\", nonce=\"" + std::string(nonce) +
                                                "\", opaque=\"" + opaque + "\", algorithm=\"md5\"";
    }
    EXPECT_TRUE(is_of_the_time) << given->m_value;
    unsetenv("TZ");
}

TEST_F(cgi, writes_the_answer)
{
    const std::string body = "\x1B[1mbody" + std::string(70000, '\0');
    const auto answer = [&body](const std::vector<std::pair<const char *, const char *>> &headers) {
        const request made({});
        for (const auto &[name, value] : headers)
            EXPECT_EQ(kestal_cgi_set_response_header(made.opened, name, value), 0);
        kestal_push_buffer_ex(made.opened->m_output, body.data(), body.size(), 0);
        return made.outgoing();
    };
    EXPECT_EQ(answer({}), body);
    EXPECT_EQ(answer({{"SERVER", "me"}, {"X", "1"}, {"X", nullptr}, {"content-length", "\x1B[1mx"}, {"Date", "now"}}),
              "SERVER: me\r\nX: 1\r\nX: \r\ncontent-length: \x1B[1mx\r\nDate: now\r\n\r\n" + body);
    const time_t earliest = time(nullptr);
    const std::string written = answer({{"X", ""}});
    const std::string before = std::string("X: \r\nServer: kestal_ulx/") + kestal_get_ulx_version_string() +
                               " \r\nContent-Length: 70008\r\nDate: ";
    EXPECT_TRUE(written.starts_with(before)) << written;
    tm date{};
    const char *rest = strptime(written.c_str() + before.size(), "%a, %d %b %Y %H:%M:%S GMT\r\n\r\n", &date);
    EXPECT_TRUE(rest != nullptr && std::string_view(rest).starts_with("\x1B[1mbody"));
    EXPECT_TRUE(timegm(&date) >= earliest && timegm(&date) <= time(nullptr));
    EXPECT_GE(written[before.size() + 5], '1') << "a day of the month is not padded";

    const request made({});
    kestal_push_puts_ex(made.opened->m_error_output, "to standard error", 0);
    CaptureStderr();
    EXPECT_EQ(made.outgoing(), "");
    EXPECT_EQ(GetCapturedStderr(), "to standard error");
    kestal_cgi_set_response_header(made.opened, "X", "");
    CaptureStdout(); // so that what stands behind the descriptor comes back
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    dup2(full, STDOUT_FILENO);
    EXPECT_EQ(kestal_cgi_outgoing(made.opened), -1);
    close(full);
    GetCapturedStdout();
    clearerr(stdout);
    kestal_cgi_set_outgoing_handler(made.opened, [](kestal_cgi_t *) { return fputs("handler", stdout) < 0 ? 0 : 7; });
    EXPECT_EQ(made.outgoing(7), "X: \r\nhandler");
}

TEST_F(cgi, refuses_headers_that_would_be_more_than_one_when_asked_to)
{
    const request made({});
    for (const uint32_t checked : {0u, 1u}) {
        EXPECT_EQ(kestal_cgi_set_header_check(made.opened, checked), 0);
        for (const auto &[name, value, is_good] : {std::tuple("X-1", "\ta \xC3\xA9~", true),
                                                   {"X", "a\r\nSet-Cookie: b", false},
                                                   {"X", "\x7F", false},
                                                   {"X: a\r\nY", "b", false},
                                                   {"", "b", false}})
            EXPECT_EQ(kestal_cgi_set_response_header(made.opened, name, value), is_good || checked == 0 ? 0 : -1);
    }
}

TEST_F(cgi, sends_files)
{
    const kestal_test::temporary_directory folder;
    const std::string content = "\x1B[1m" + kestal_test::noise(200000);
    const std::string path = folder.file("file", content), missing = folder.path("missing");
    const std::string length = "Content-Length: " + std::to_string(content.size()) + "\r\n\r\n";
    for (const auto &[name, times, error, result, output, message] :
         {std::tuple(path.c_str(), 15, EINTR, 0, length + content, std::string()),
          {path.c_str(), 16, EINTR, -1, length, "read error !\n"},
          {path.c_str(), 1, 0, -1, length, "read timeout !\n"},
          {missing.c_str(), 0, 0, -1, "\r\n", "can not open file \"" + missing + "\" !\n"},
          {nullptr, 0, 0, -1, "", "filename not given !\n"}}) {
        const request made({});
        kestal_cgi_set_response_header(made.opened, "X", "1");
        kestal_cgi_set_outgoing_handler(made.opened, kestal_cgi_outgoing_file_handler);
        kestal_cgi_set_file_name(made.opened, name);
        failures = times;
        failure_error = error;
        const caught_errors errors;
        EXPECT_EQ(made.outgoing(result), "X: 1\r\n" + output);
        EXPECT_EQ(errors.text(), message);
        EXPECT_EQ(failures, 0);
    }
}

TEST_F(cgi, accounts_are_overwritten_before_they_are_freed)
{
    request made({});
    kestal_cgi_add_account(made.opened, "name", "secret");
    watched_content.assign(sizeof(kestal_cgi_account_t) + 12, 'x');
    watched_block = made.opened->m_accounts;
    kestal_close_cgi(std::exchange(made.opened, nullptr));
    watched_block = nullptr;
    EXPECT_EQ(watched_content, std::string(watched_content.size(), '\0'));
}

TEST_F(cgi, null_and_short_memory_are_failures)
{
    EXPECT_EQ(kestal_close_cgi(nullptr) + kestal_cgi_incoming(nullptr) + kestal_cgi_digest_check(nullptr) +
                  kestal_cgi_outgoing(nullptr) + kestal_cgi_outgoing_file_handler(nullptr) +
                  kestal_cgi_add_account(nullptr, "", "") + kestal_cgi_set_response_header(nullptr, "", "") +
                  kestal_cgi_set_body_limit(nullptr, 0) + kestal_cgi_set_header_check(nullptr, 1),
              -9);
    for (const auto search : {kestal_cgi_search_query_value, kestal_cgi_search_query_decode_value})
        EXPECT_EQ(search(nullptr, "*"), nullptr);
    const uint64_t met = kestal_test::with_each_allocation_failing([] {
        const request made(
            {"REQUEST_METHOD=POST", "QUERY_STRING=a=1", "HTTP_AUTHORIZATION=Digest username=a,response=b"}, {"b=2"});
        if (made.opened == nullptr)
            return;
        kestal_cgi_add_account(made.opened, "a", "b");
        kestal_cgi_incoming(made.opened);
        EXPECT_EQ(kestal_cgi_digest_check(made.opened), -1) << "nobody gets in for an account that is missing";
        kestal_push_puts_ex(made.opened->m_output, "answer", 0);
        made.outgoing();
    });
    EXPECT_GE(met, 15u);
}

} // namespace
