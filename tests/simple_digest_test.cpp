#include "support.hpp"

using kestal_test::temporary_directory;
using kestal_test::with_each_allocation_failing;

namespace {

class simple_digest : public kestal_test::counted {};

TEST_F(simple_digest, digests_a_source_longer_than_its_chunk)
{
    const temporary_directory directory;
    const std::string path = directory.file("as", std::string(1000000, 'a'));
    const std::string uri = "file://" + path;
    kestal_md5_t md5;
    kestal_sha1_t sha1;
    kestal_sha256_t sha256;
    for (const std::string &source : {path, uri}) {
        ASSERT_EQ(kestal_simple_md5(source.c_str(), &md5), 0);
        EXPECT_STREQ(kestal_md5_digest(&md5, nullptr), "7707D6AE4E027C70EEA2A935C2296F21");
        ASSERT_EQ(kestal_simple_sha1(source.c_str(), &sha1), 0);
        EXPECT_STREQ(kestal_sha1_digest(&sha1, nullptr), "34AA973CD4C4DAA4F61EEB2BDBAD27316534016F");
        ASSERT_EQ(kestal_simple_sha256(source.c_str(), &sha256), 0);
        EXPECT_STREQ(kestal_sha256_digest(&sha256, nullptr),
                     "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0");
    }
    EXPECT_EQ(kestal_simple_md5(path.c_str(), nullptr), 0); // only drained

    EXPECT_EQ(kestal_simple_md5(directory.path("absent").c_str(), &md5), -1);
    EXPECT_STREQ(kestal_md5_digest(&md5, nullptr), "D41D8CD98F00B204E9800998ECF8427E"); // initialised all the same
    EXPECT_EQ(kestal_simple_sha1(directory.path("").c_str(), &sha1), -1);               // opens, but does not read
    EXPECT_EQ(kestal_simple_sha256(nullptr, &sha256), -1);

    EXPECT_GT(with_each_allocation_failing([&] {
                  if (kestal_simple_md5(path.c_str(), &md5) == 0) {
                      EXPECT_STREQ(kestal_md5_digest(&md5, nullptr), "7707D6AE4E027C70EEA2A935C2296F21");
                  }
              }),
              5u);
}

} // namespace
