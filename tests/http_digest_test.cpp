// The values of HTTP digest authentication.
#include "support.hpp"

namespace {

constexpr char realm[] = "testrealm@host.com";
constexpr char nonce[] = "dcd98b7102dd2f0e8b11d0f600bfb0c093";

std::string response(const char *algorithm, const char *qop, const char *entity, const char *password)
{
    char out[KESTAL_HTTP_DIGEST_SIZE];
    EXPECT_EQ(kestal_http_digest(algorithm, "Mufasa", realm, password, nonce, "0a4f113b", "GET", "/dir/index.html", qop,
                                 entity, "00000001", out),
              out);
    return out;
}

TEST(http_digest, values)
{
    // The worked example of RFC 2617 section 3.5; the others by other people's MD5 (openssl).
    EXPECT_EQ(response("md5", "auth", nullptr, "Circle Of Life"), "6629fae49393a05397450978507c4ef1");
    EXPECT_EQ(response("MD5-sess", "auth", "x", "Circle Of Life"), "6629fae49393a05397450978507c4ef1");
    EXPECT_EQ(response(nullptr, nullptr, nullptr, "Circle Of Life"), "670fd8c2df070c60b045671b8b24ff02");
    EXPECT_EQ(response("md5-sess", "auth", nullptr, "Circle Of Life"), "8e3825c57e897f5a0dec6c2d4e5059d0");
    for (const auto &[qop, password, expected] :
         {std::tuple("auth-int", "Circle Of Life", "5e6610ecf9ba3017a4870ad48e3ad30b"),
          {"AUTH-INT", nullptr, "e3acc46e9a50aed8c4c70aa095f7a640"}})
        EXPECT_EQ(response("md5", qop, "d41d8cd98f00b204e9800998ecf8427e", password), expected);
}

TEST(http_digest, null_texts_count_as_empty_and_out_may_be_an_input)
{
    char text[KESTAL_HTTP_DIGEST_SIZE] = "939e7578ed9e3c518a452acee763bce9";
    EXPECT_EQ(kestal_http_digest_response(text, "39aff3a2bab6126f332b942af96d3366", nonce, "00000001", "0a4f113b",
                                          "auth", text),
              text);
    EXPECT_STREQ(text, "6629fae49393a05397450978507c4ef1");
    EXPECT_STREQ(kestal_http_digest_ha2(nullptr, nullptr, nullptr, nullptr, text), "853ae90f0351324bd73ea615e6487517");
    EXPECT_EQ(kestal_http_digest("", "", "", "", "", "", "", "", "", "", "", nullptr), nullptr);
}

} // namespace
