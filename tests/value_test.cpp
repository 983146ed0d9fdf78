#include "support.hpp"

using kestal_test::counted;
using kestal_test::with_each_allocation_failing;

namespace {

constexpr uint32_t append = KESTAL_VALUE_APPEND, by_name = KESTAL_VALUE_REPLACE_BY_NAME,
                   by_data = KESTAL_VALUE_REPLACE_BY_DATA, if_absent = KESTAL_VALUE_ADD_IF_ABSENT;

const char *bytes(const kestal_value_node_t *node)
{
    return static_cast<const char *>(node->m_data);
}

class value : public counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        ASSERT_EQ(kestal_init_value(&list_), &list_);
        EXPECT_EQ(list_.m_flags, 0x81u); // a fresh list counts as changed
    }
    void TearDown() override
    {
        EXPECT_EQ(kestal_free_value(&list_), 0);
        counted::TearDown();
    }

    // "name=data" of every entry, blank between; "-" for no name, "." for each zero byte. Checks every link.
    std::string text() const
    {
        std::string all;
        const kestal_value_node_t *before = nullptr;
        for (const kestal_value_node_t *node = list_.m_head; node != nullptr; before = node, node = node->m_next) {
            EXPECT_EQ(node->m_previous, before);
            all += std::string(before == nullptr ? "" : " ") + (node->m_name == nullptr ? "-" : node->m_name) + "=";
            for (uint64_t i = 0; i < node->m_size; ++i)
                all += bytes(node)[i] == '\0' ? '.' : bytes(node)[i];
            EXPECT_TRUE(node->m_size == 0 ? node->m_data == nullptr : bytes(node)[node->m_size] == '\0');
        }
        EXPECT_EQ(list_.m_tail, before);
        return all;
    }
    // Whether the list was modified since the last question.
    bool modified() { return (std::exchange(list_.m_flags, KESTAL_VALUE_VALID) & KESTAL_VALUE_MODIFIED) != 0; }
    int32_t set(uint32_t mode, const char *name, const char *string, uint32_t exact = 1)
    {
        return kestal_set_value_string(&list_, mode, exact, name, string);
    }

    kestal_value_t list_;
};

TEST_F(value, appending_allows_duplicates)
{
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(set(append, "a", "x"), 0);
    EXPECT_EQ(kestal_set_value(&list_, append | 4, 1, nullptr, "yz", 2), 0); // only the low two bits of the mode count
    EXPECT_EQ(kestal_set_value(&list_, append, 1, "", nullptr, 3), 0);
    EXPECT_EQ(set(append, "none", nullptr), 0);
    EXPECT_EQ(kestal_set_value_int_string(&list_, append, 1, "least", INT32_MIN), 0);
    EXPECT_EQ(kestal_set_value(&list_, append, 1, "huge", "x", UINT64_MAX), -1);
    EXPECT_EQ(text(), "a=x. a=x. -=yz =... none= least=-2147483648.");
}

TEST_F(value, replacing_by_name_keeps_the_place)
{
    kestal_multiple_set_value_string(&list_, append, 1, "a|Key|z", "old");
    modified();
    EXPECT_EQ(set(by_name, "Key", "old"), 0);
    EXPECT_FALSE(modified());
    const kestal_value_node_t *node = kestal_get_value_node_by_name(&list_, 1, "Key");
    EXPECT_EQ(set(by_name, "KEY", "new", 0), 0); // the same size: same node, old spelling
    EXPECT_TRUE(modified());
    EXPECT_EQ(kestal_set_value(&list_, by_name, 1, "Key", "full", 4), 0); // no terminator of its own, text() sees one
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 1, "Key"), node);
    EXPECT_EQ(text(), "a=old. Key=full z=old.");
    EXPECT_EQ(kestal_set_value(&list_, by_name, 1, "Key", nullptr, 4), 0);
    EXPECT_EQ(text(), "a=old. Key=.... z=old.");
    modified();
    EXPECT_EQ(set(by_name, "KEY", "longer", 0), 0);
    EXPECT_TRUE(modified());
    node = kestal_get_value_node_by_name(&list_, 1, "KEY");
    EXPECT_EQ(set(by_name, node->m_name, bytes(node) + 4), 0); // what is given may lie in the entry that goes
    EXPECT_EQ(set(by_name, "z", nullptr), 0);
    EXPECT_EQ(text(), "a=old. KEY=er. z=");
}

TEST_F(value, replacing_by_data_and_adding_if_absent)
{
    set(append, "a", "1");
    kestal_multiple_set_value_string(&list_, append, 1, "b|c", "2");
    EXPECT_EQ(set(by_data, "B", "2"), 0);
    EXPECT_EQ(set(by_data, "d", "3"), 0);
    EXPECT_TRUE(modified());
    EXPECT_EQ(set(if_absent, "d", "3"), 0);
    EXPECT_EQ(set(if_absent, "b", "2", 0), 0);
    EXPECT_FALSE(modified());
    EXPECT_EQ(set(if_absent, "b", "2"), 0);
    EXPECT_EQ(set(if_absent, "d", "4"), 0);
    EXPECT_TRUE(modified());
    EXPECT_EQ(text(), "a=1. B=2. c=2. d=3. b=2. d=4.");
}

TEST_F(value, names_may_be_alternatives)
{
    EXPECT_EQ(kestal_multiple_set_value_string(&list_, append, 1, "one|two||three|", "x"), 0);
    EXPECT_EQ(kestal_multiple_set_value_int_string(&list_, by_name, 1, "two|four", 7), 0);
    EXPECT_EQ(kestal_multiple_set_value(&list_, append, 1, "|", "y", 1), 0);
    EXPECT_EQ(kestal_multiple_set_value(&list_, append, 1, nullptr, "y", 1), -1);
    EXPECT_EQ(text(), "one=x. two=7. three=x. four=7.");
    const kestal_value_node_t *node = kestal_multiple_search_value_node_by_name(list_.m_head, 0, "FOUR|THREE");
    EXPECT_STREQ(node->m_name, "three");
    EXPECT_STREQ(kestal_multiple_search_value_node_by_name(node->m_next, 0, "FOUR|THREE")->m_name, "four");
    EXPECT_EQ(kestal_multiple_search_value_node_by_name(list_.m_head, 1, "FOUR|thre|"), nullptr);
    EXPECT_EQ(kestal_multiple_search_value_node_by_name(list_.m_head, 1, nullptr), nullptr);
    EXPECT_STREQ(kestal_multiple_search_value_node(list_.m_head, 1, "one|four", "7", 2)->m_name, "four");
    EXPECT_EQ(kestal_multiple_remove_value(&list_, 1, "one|two|four", "7", 2), 0);
    EXPECT_EQ(kestal_multiple_remove_value_by_name(&list_, 0, "ONE|none"), 0);
    EXPECT_EQ(text(), "three=x.");
}

TEST_F(value, entries_are_found)
{
    set(append, "Name", "text");
    kestal_set_value(&list_, append, 1, nullptr, "text", 4);
    kestal_set_value(&list_, append, 1, "name", "bare", 4);
    kestal_set_value(&list_, append, 1, "zero", nullptr, 2);
    const kestal_value_node_t *first = list_.m_head, *unnamed = first->m_next, *third = unnamed->m_next;
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 0, "nAME"), first);
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 1, "name"), third);
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 1, "nam"), nullptr);
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 0, "names"), nullptr);
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 0, nullptr), unnamed);
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 0, ""), nullptr);
    EXPECT_EQ(kestal_get_value_node_by_data(&list_, "text", 5), first);
    EXPECT_EQ(kestal_get_value_node_by_string(&list_, "text"), unnamed); // the first holds its terminator too
    EXPECT_EQ(kestal_get_value_node_by_data(&list_, "\0", 2), list_.m_tail);
    EXPECT_EQ(kestal_get_value_node_by_data(&list_, nullptr, 2), list_.m_tail);
    EXPECT_NE(kestal_compare_data(nullptr, 2, "\0x", 2), 0);
    EXPECT_EQ(kestal_get_value_node(&list_, 0, "NAME", "bare", 4), third);
    EXPECT_EQ(kestal_search_value_node_by_name(unnamed, 0, "NAME"), third);
    EXPECT_EQ(kestal_search_value_node_by_data(unnamed, "text", 4), unnamed);
    EXPECT_EQ(kestal_search_value_node_by_string(third, "text"), nullptr);
    EXPECT_EQ(kestal_search_value_node(first, 1, nullptr, "text", 4), unnamed);

    uint64_t size = 99;
    EXPECT_EQ(kestal_get_value_by_name(&list_, 1, "name", &size), third->m_data);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(kestal_get_value_by_name(&list_, 1, "absent", &size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_STREQ(kestal_get_value_string(&list_, 1, "Name"), "text");
    EXPECT_EQ(kestal_get_value_string(&list_, 1, "name"), nullptr); // its zero byte stands behind its size
    EXPECT_STREQ(kestal_get_value_string_ex(&list_, 1, "absent", "default"), "default");
}

TEST_F(value, removing)
{
    kestal_multiple_set_value_string(&list_, append, 1, "a|b|A|c|b", "x");
    kestal_multiple_set_value(&list_, append, 1, "d|e", "x", 1);
    modified();
    EXPECT_EQ(kestal_remove_value_by_name(&list_, 1, "absent"), 0);
    EXPECT_FALSE(modified());
    EXPECT_EQ(kestal_remove_value_by_name(&list_, 0, list_.m_head->m_name), 0); // the name goes with the first match
    EXPECT_TRUE(modified());
    EXPECT_EQ(text(), "b=x. c=x. b=x. d=x e=x");
    EXPECT_EQ(kestal_remove_value_by_string(&list_, "x"), 0);
    EXPECT_EQ(kestal_remove_value(&list_, 1, "b", "x", 2), 0);
    EXPECT_EQ(text(), "c=x.");
    EXPECT_EQ(kestal_remove_value_by_data(&list_, "x", 2), 0);
    set(append, "a", "1");
    modified();
    EXPECT_EQ(kestal_reset_value(&list_), 0);
    EXPECT_EQ(text(), "");
    EXPECT_FALSE(modified());
}

TEST_F(value, an_invalid_list_is_refused_everywhere)
{
    kestal_value_t destroyed{};
    kestal_init_value(&destroyed);
    kestal_set_value_string(&destroyed, append, 1, "a", "x");
    EXPECT_EQ(kestal_destroy_value(&destroyed), 0);
    for (kestal_value_t *list : {&destroyed, static_cast<kestal_value_t *>(nullptr)}) {
        EXPECT_EQ(kestal_destroy_value(list), -1);
        EXPECT_EQ(kestal_reset_value(list), -1);
        EXPECT_EQ(kestal_set_value_string(list, append, 1, "a", "x"), -1);
        EXPECT_EQ(kestal_multiple_set_value_string(list, append, 1, "", "x"), -1);
        EXPECT_EQ(kestal_remove_value_by_name(list, 1, "a"), -1);
        EXPECT_EQ(kestal_get_value_node_by_string(list, "x"), nullptr);
        EXPECT_EQ(kestal_get_value_string_ex(list, 1, "a", "default"), nullptr);
    }
    EXPECT_EQ(kestal_init_value(nullptr), nullptr);
    EXPECT_EQ(kestal_free_value_node(nullptr), nullptr);
}

TEST_F(value, failing_allocations_change_nothing)
{
    const auto scenario = [this] {
        if (set(append, "a", "x") == 0 && set(append, "b", "y") == 0) {
            modified();
            const bool done = set(by_name, "a", "longer") == 0;
            EXPECT_EQ(text(), done ? "a=longer. b=y." : "a=x. b=y.");
            EXPECT_EQ(modified(), done);
        }
        kestal_reset_value(&list_);
        if (kestal_value_t *allocated = kestal_new_value()) {
            EXPECT_EQ(allocated->m_flags, 0x181u);
            EXPECT_EQ(kestal_destroy_value(allocated), 0);
        }
    };
    EXPECT_EQ(with_each_allocation_failing(scenario), 7u);
}

} // namespace
