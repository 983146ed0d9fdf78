#include "support.hpp"

#include <algorithm>
#include <functional>
#include <sstream>

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
    value() { kestal_init_value(&list_); }
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
    // Makes these the entries, and the list unmodified.
    void reset(const std::string &text)
    {
        kestal_reset_value(&list_);
        std::istringstream entries(text);
        for (std::string name, data; std::getline(entries, name, '=') && std::getline(entries, data, ' ');)
            set(append, 1, name == "-" ? nullptr : name.c_str(), data);
        modified();
    }
    // Whether the list was modified since the last question.
    bool modified() { return (std::exchange(list_.m_flags, KESTAL_VALUE_VALID) & KESTAL_VALUE_MODIFIED) != 0; }
    // Sets data in which each "." stands for a zero byte.
    int32_t set(uint32_t mode, uint32_t exact, const char *name, std::string data)
    {
        std::replace(data.begin(), data.end(), '.', '\0');
        return kestal_set_value(&list_, mode, exact, name, data.data(), data.size());
    }

    kestal_value_t list_;
};

TEST_F(value, entries_are_set_replaced_and_removed)
{
    kestal_value_t *const list = &list_;
    const auto data_at = [&](size_t at) { return bytes(list_.m_head) + at; };
    const struct {
        const char *before;
        std::function<int32_t()> edit;
        const char *after;
    } cases[] = {
        {"a=x.", [&] { return set(append | 4, 1, nullptr, "yz"); }, "a=x. -=yz"}, // only the low two bits count
        {"a=x.", [&] { return kestal_set_value_string(list, append, 1, "", nullptr); }, "a=x. ="},
        {"a=1. B=2. c=1.", [&] { return set(by_name, 1, "B", "2."); }, "a=1. B=2. c=1."},
        {"a=1. B=2. c=1.", [&] { return set(by_name, 0, "b", "3."); }, "a=1. B=3. c=1."}, // the old spelling
        {"a=1. B=2. c=1.", [&] { return set(by_name, 1, "B", "zz"); }, "a=1. B=zz c=1."}, // text() sees another zero
        {"a=1. B=2. c=1.", [&] { return set(by_name, 0, "b", "long."); }, "a=1. b=long. c=1."},
        {"a=1. B=2. c=1.", [&] { return set(by_name, 1, "b", "3."); }, "a=1. B=2. c=1. b=3."},
        {"a=1. B=2. c=1.", [&] { return kestal_set_value(list, by_name, 1, "B", nullptr, 2); }, "a=1. B=.. c=1."},
        {"a=1. b=2. c=2.", [&] { return set(by_data, 1, "B", "2."); }, "a=1. B=2. c=2."},
        {"a=1. b=2.", [&] { return set(if_absent, 0, "B", "2."); }, "a=1. b=2."},
        {"a=1. b=2.", [&] { return set(if_absent, 1, "b", "3."); }, "a=1. b=2. b=3."},
        {"a=x.", [&] { return kestal_multiple_set_value(list, append, 1, "b||c|", "y", 1); }, "a=x. b=y c=y"},
        {"a=x.", [&] { return kestal_multiple_set_value_int_string(list, by_name, 0, "A|B", 10); }, "A=10. B=10."},
        // What is given may lie in an entry that goes.
        {"k=a|b.", [&] { return kestal_set_value_string(list, by_name, 1, list->m_head->m_name, data_at(2)); }, "k=b."},
        {"k=a|K|b.", [&] { return kestal_multiple_set_value_string(list, by_name, 0, data_at(0), "x"); },
         "K=x. a=x. b=x."},
        {"a=x. b=x. A=x.", [&] { return kestal_remove_value_by_name(list, 0, list->m_head->m_name); }, "b=x."},
        {"a=x b=x. c=x", [&] { return kestal_remove_value_by_string(list, "x"); }, "b=x."},
        {"a=x. b=y. c=x.", [&] { return kestal_multiple_remove_value(list, 1, "a|b", "x", 2); }, "b=y. c=x."},
        {"a=x. b=y. c=x.", [&] { return kestal_multiple_remove_value_by_name(list, 0, "C|none|A"); }, "b=y."},
    };
    for (const auto &[before, edit, after] : cases) {
        reset(before);
        ASSERT_EQ(text(), before);
        EXPECT_EQ(edit(), 0) << before << " to " << after;
        EXPECT_EQ(text(), after) << "from " << before;
        EXPECT_EQ(modified(), std::string_view(after) != before) << before << " to " << after;
    }
    reset("a=1.");
    const void *block = list->m_head->m_data;
    EXPECT_EQ(set(by_name, 1, "a", "2."), 0);
    EXPECT_EQ(list->m_head->m_data, block); // the same size is overwritten where it stands
    EXPECT_EQ(kestal_set_value(list, append, 1, "huge", "x", UINT64_MAX), -1);
    EXPECT_EQ(kestal_multiple_set_value(list, append, 1, nullptr, "y", 1), -1);
}

TEST_F(value, entries_are_found)
{
    reset("Name=text. -=text name=bare zero=..");
    const kestal_value_node_t *first = list_.m_head, *second = first->m_next, *third = second->m_next;
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 0, "nAME"), first);
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 1, "name"), third);
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 0, "names"), nullptr);
    EXPECT_EQ(kestal_get_value_node_by_name(&list_, 0, nullptr), second);
    EXPECT_EQ(kestal_get_value_node_by_data(&list_, nullptr, 2), list_.m_tail);
    EXPECT_EQ(kestal_get_value_node_by_string(&list_, "text"), second); // the first holds its terminator too
    EXPECT_EQ(kestal_get_value_node(&list_, 0, "NAME", "bare", 4), third);
    EXPECT_EQ(kestal_search_value_node_by_name(second, 0, "NAME"), third);
    EXPECT_EQ(kestal_search_value_node_by_data(second, "text", 4), second);
    EXPECT_EQ(kestal_search_value_node_by_string(third, "text"), nullptr);
    EXPECT_EQ(kestal_search_value_node(first, 1, nullptr, "text", 4), second);
    EXPECT_EQ(kestal_multiple_search_value_node_by_name(second, 0, "ZERO||NAME"), third);
    EXPECT_EQ(kestal_multiple_search_value_node(first, 1, "zero|Name|name", "bare", 4), third);
    uint64_t size = 99;
    EXPECT_EQ(kestal_get_value_by_name(&list_, 1, "name", &size), third->m_data);
    EXPECT_EQ(size, 4u);
    EXPECT_STREQ(kestal_get_value_string(&list_, 1, "Name"), "text");
    EXPECT_EQ(kestal_get_value_string(&list_, 1, "name"), nullptr); // its zero byte stands behind its size
    EXPECT_STREQ(kestal_get_value_string_ex(&list_, 1, "absent", "default"), "default");
}

TEST_F(value, an_invalid_list_is_refused_everywhere)
{
    kestal_value_t destroyed;
    EXPECT_EQ(kestal_destroy_value(kestal_init_value(&destroyed)), 0);
    for (kestal_value_t *list : {&destroyed, kestal_init_value(nullptr)}) {
        EXPECT_EQ(kestal_destroy_value(list), -1);
        EXPECT_EQ(kestal_set_value_string(list, append, 1, "a", "x"), -1);
        EXPECT_EQ(kestal_multiple_set_value_string(list, append, 1, "", "x"), -1);
        EXPECT_EQ(kestal_remove_value_by_name(list, 1, "a"), -1);
        EXPECT_EQ(kestal_get_value_node_by_string(list, "x"), nullptr);
        EXPECT_EQ(kestal_get_value_string_ex(list, 1, "a", "default"), nullptr);
    }
}

TEST_F(value, failing_allocations_change_nothing)
{
    const auto scenario = [this] {
        reset("a=x. b=y.");
        if (text() == "a=x. b=y.") {
            const bool done = set(by_name, 1, "a", "longer.") == 0;
            EXPECT_EQ(text(), done ? "a=longer. b=y." : "a=x. b=y.");
            EXPECT_EQ(modified(), done);
        }
        kestal_reset_value(&list_);
        kestal_value_t *allocated = kestal_new_value();
        EXPECT_EQ(kestal_destroy_value(allocated), allocated == nullptr ? -1 : 0);
    };
    EXPECT_EQ(with_each_allocation_failing(scenario), 6u);
}

} // namespace
