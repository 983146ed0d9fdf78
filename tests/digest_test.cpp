#include "support.hpp"

#include <algorithm>

using kestal_test::noise;

namespace {

// The algorithms under one shape, and the answers of others' implementations.
#define FUNCTIONS(NAME, SIZE)                                                                                          \
    using context = kestal_##NAME##_t;                                                                                 \
    static constexpr auto open = kestal_open_##NAME;                                                                   \
    static constexpr auto close = kestal_close_##NAME;                                                                 \
    static constexpr auto init = kestal_init_##NAME;                                                                   \
    static constexpr auto push = kestal_##NAME##_push;                                                                 \
    static constexpr auto push_file = kestal_##NAME##_push_file;                                                       \
    static constexpr auto digest = kestal_##NAME##_digest;                                                             \
    static constexpr auto simple = kestal_simple_##NAME;                                                               \
    static constexpr size_t size = SIZE

struct md5 {
    FUNCTIONS(md5, KESTAL_MD5_DIGEST_SIZE);
    static void set_length(context &at, uint64_t bytes)
    {
        at.m_bit_count[0] = static_cast<uint32_t>(bytes * 8);
        at.m_bit_count[1] = static_cast<uint32_t>(bytes >> 29);
    }
    static constexpr const char *abc = "900150983CD24FB0D6963F7D28E17F72";
    static constexpr const char *every_length = "7DD9E96D52B765455EF296CB758CD215";
    static constexpr const char *behind_512_mib = "43BD3594D00D11365A4A72E32928605E";
    static constexpr const char *def_behind_abc = "E80B5017098950FC58AAD83C8C14978E";
};

struct sha1 {
    FUNCTIONS(sha1, KESTAL_SHA1_DIGEST_SIZE);
    static void set_length(context &at, uint64_t bytes) { at.m_byte_count = bytes; }
    static constexpr const char *abc = "A9993E364706816ABA3E25717850C26C9CD0D89D";
    static constexpr const char *every_length = "82FA681882E216468817EB177E7BD316F8CDCBFE";
    static constexpr const char *behind_512_mib = "BA0DAC59BA21DDD0B1FD19FE08B68B0302C1468B";
    static constexpr const char *def_behind_abc = "E17BE75B08A7E926498DA4BC47F3CB6E1F20B125";
};

struct sha256 {
    FUNCTIONS(sha256, KESTAL_SHA256_DIGEST_SIZE);
    static void set_length(context &at, uint64_t bytes) { at.m_byte_count = bytes; }
    static constexpr const char *abc = "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";
    static constexpr const char *every_length = "B02275D18A1DE3F8DC11A8F5A6BDC8006B6DE6E4DBA31BEE48C075F6A88FFAFA";
    static constexpr const char *behind_512_mib = "94BC1DEFB4C95C0ED8C091202FAAE38C5330AE0AAEC1D61EF79EC3DEE7D42AD6";
    static constexpr const char *def_behind_abc = "E7C14C6EF0DBC9F6023A9DAE7563D3E8D1880B37BBFE252035124725B78B1B76";
};

template <typename Algorithm>
struct digest : kestal_test::counted {
    static std::string of(const std::string &message, size_t piece = SIZE_MAX)
    {
        typename Algorithm::context context;
        Algorithm::init(&context);
        for (size_t done = 0; done < message.size(); done += std::min(piece, message.size() - done))
            EXPECT_EQ(Algorithm::push(&context, &message[done], std::min(piece, message.size() - done)), 0);
        return Algorithm::digest(&context, nullptr);
    }
};

using algorithms = testing::Types<md5, sha1, sha256>;
TYPED_TEST_SUITE(digest, algorithms);

TYPED_TEST(digest, agrees_with_the_standard_however_a_message_is_split)
{
    const std::string message = noise(300);
    kestal_test::on_every_path([&message] {
        EXPECT_EQ(digest<TypeParam>::of("abc"), TypeParam::abc);
        std::string all;
        for (size_t length = 0; length <= message.size(); ++length) {
            const std::string part = message.substr(0, length);
            const std::string whole = digest<TypeParam>::of(part);
            for (const size_t piece : {1u, 3u, 63u, 64u, 65u, 130u})
                ASSERT_EQ(digest<TypeParam>::of(part, piece), whole) << length << " in pieces of " << piece;
            typename TypeParam::context context;
            TypeParam::push(TypeParam::init(&context), part.data(), part.size());
            uint8_t out[TypeParam::size];
            TypeParam::digest(&context, out);
            all.append(reinterpret_cast<char *>(out), sizeof out);
        }
        EXPECT_EQ(digest<TypeParam>::of(all), TypeParam::every_length);

        // The length in bits needs more than 32 of them.
        typename TypeParam::context context;
        TypeParam::set_length(*TypeParam::init(&context), (uint64_t{1} << 29) - 64);
        TypeParam::push(&context, std::string(100, 'x').data(), 100);
        EXPECT_STREQ(TypeParam::digest(&context, nullptr), TypeParam::behind_512_mib);
    });
}

TYPED_TEST(digest, reads_files_and_locations_of_any_length)
{
    const kestal_test::temporary_directory directory;
    const std::string content = noise(100001), path = directory.file("data", content), uri = "file://" + path;
    kestal_test::with_each_allocation_failing([&] {
        auto *context = TypeParam::open();
        if (TypeParam::push_file(context, path.c_str()) == 0) {
            EXPECT_EQ(TypeParam::digest(context, nullptr), digest<TypeParam>::of(content));
        }
        if (TypeParam::simple(uri.c_str(), context) == 0 && context != nullptr) {
            EXPECT_EQ(TypeParam::digest(context, nullptr), digest<TypeParam>::of(content));
        }
        EXPECT_EQ(TypeParam::close(context), nullptr);
    });

    typename TypeParam::context context;
    TypeParam::push(TypeParam::init(&context), "abc", 3);
    EXPECT_EQ(TypeParam::push_file(&context, directory.path("missing").c_str()), -1);
    EXPECT_EQ(TypeParam::push_file(&context, directory.path("").c_str()), -1) << "a directory cannot be read";
    EXPECT_EQ(TypeParam::push_file(&context, directory.file("empty", "").c_str()), 0);
    EXPECT_STREQ(TypeParam::digest(&context, nullptr), TypeParam::abc);
    EXPECT_EQ(TypeParam::simple(directory.path("").c_str(), nullptr), -1);
    EXPECT_EQ(TypeParam::simple(directory.path("missing").c_str(), &context), -1);
    EXPECT_EQ(TypeParam::digest(&context, nullptr), digest<TypeParam>::of("")) << "not initialised";
}

TYPED_TEST(digest, refuses_nulls_and_gives_its_result_again)
{
    typename TypeParam::context context;
    EXPECT_EQ(TypeParam::init(nullptr), nullptr);
    EXPECT_EQ(TypeParam::digest(nullptr, nullptr), nullptr);
    EXPECT_EQ(TypeParam::push(nullptr, "a", 1) + TypeParam::push_file(nullptr, "/dev/null"), -2);
    TypeParam::push(TypeParam::init(&context), "abc", 3);
    EXPECT_EQ(TypeParam::push(&context, nullptr, 1) + TypeParam::push_file(&context, nullptr), -2);
    EXPECT_STREQ(TypeParam::digest(&context, nullptr), TypeParam::abc);
    EXPECT_EQ(TypeParam::push(&context, nullptr, 0), 0);
    EXPECT_STREQ(TypeParam::digest(&context, nullptr), TypeParam::abc);
    // MD5 stays open behind a digest; the others have padded their context itself.
    TypeParam::push(&context, "def", 3);
    EXPECT_STREQ(TypeParam::digest(&context, nullptr), TypeParam::def_behind_abc);
}

} // namespace
