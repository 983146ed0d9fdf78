#include "support.hpp"

using kestal_test::temporary_directory;
using kestal_test::with_each_allocation_failing;

namespace {

class hash_file : public kestal_test::counted {
protected:
    // The entries of a file with this content, as "key=value;".
    std::string load(const std::string &content)
    {
        kestal_hash_file_t *head = kestal_load_hash_file(directory_.file("hash", content).c_str());
        std::string entries;
        for (const kestal_hash_file_t *entry = head; entry != nullptr; entry = entry->m_next)
            entries += std::string(entry->m_key) + "=" + entry->m_value + ";";
        EXPECT_EQ(kestal_free_hash_file(head), 0);
        return entries;
    }

    temporary_directory directory_;
};

TEST_F(hash_file, makes_an_entry_of_each_line)
{
    const std::pair<const char *, const char *> cases[] = {
        {"a b\nc d\r\ne f\rg h\n\r", "a=b;c=d;e=f;g=h;"},
        {"  \t key \t two  words \t\nonly\nonly \n", "key=two  words \t;only=;only=;"},
        {"# c\n  #d e\n\n \t\nk #v\n", "k=#v;"},
        {"a 1\na 2\nunfinished c", "a=1;a=2;"},
        {"k \xB0\n2\n", "k=\xB0\n2;"}, // the second half of a double-byte character ends no line
    };
    for (const auto &[content, entries] : cases)
        EXPECT_EQ(load(content), entries) << content;
    EXPECT_EQ(kestal_load_hash_file(directory_.path("absent").c_str()), nullptr);
    EXPECT_EQ(kestal_load_hash_file(nullptr), nullptr);
    EXPECT_EQ(kestal_free_hash_file(nullptr), 0);
}

TEST_F(hash_file, reads_a_mebibyte_and_all_or_nothing)
{
    const std::string line = "key-of-15-chars value-of-47-chars-xxxxxxxxxxxxxxxxxxxxxxxxxxxxx\n";
    std::string content;
    while (content.size() < 1500000)
        content += line;
    // Chunks of 32,768 bytes up to the first that passes 1,048,576.
    const size_t lines = (1048576 + 32768) / line.size();
    EXPECT_EQ(load(content).size(), lines * line.size());

    EXPECT_GT(with_each_allocation_failing([this] {
                  const std::string entries = load("a b\nc d\n# no\ne f\n");
                  EXPECT_TRUE(entries.empty() || entries == "a=b;c=d;e=f;") << entries;
              }),
              8u);
}

} // namespace
