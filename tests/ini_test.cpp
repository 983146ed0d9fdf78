// INI texts and parameter lists.
#include "support.hpp"

namespace {

class ini : public kestal_test::counted {};

// All entries as "section/name=value" lines; the object is closed.
std::string entries(kestal_ini_t *opened)
{
    std::string all;
    const kestal_ini_entry_t *previous = nullptr;
    for (const auto *entry = kestal_first_ini_entry(opened); entry != nullptr; entry = entry->m_next) {
        EXPECT_EQ(entry->m_previous, std::exchange(previous, entry));
        all += std::string(entry->m_section) + "/" + entry->m_name + "=" + entry->m_value + "\n";
    }
    EXPECT_EQ(kestal_close_ini(opened), nullptr);
    return all;
}

TEST_F(ini, reads_the_same_however_it_is_split)
{
    using namespace std::string_literals;
    const std::string text = "\xEF\xBB\xBFtop = 1\r\n; comment\r  # comment\n\n"
                             "[ one ] ; x\n a=b=c ; d\n a b\t=\t x;y#z #w\r"
                             "colour = #fff\nflag ; set\n= nameless\n[never closed\nempty =\n"
                             "[Two]\nq = \" a \\\"b\\\" \\\\ ; c \" junk\ns = 'a \\' b'\nopen = \"to the end ;\n"
                             "nul = a\0b\n[two]\nlast = \xED\x95\x9C\xEA\xB8\x80"s;
    const char expected[] = "/top=1\none/a=b=c\none/a b=x;y#z\none/colour=#fff\none/flag=\none/empty=\n"
                            "Two/q= a \"b\" \\ ; c \nTwo/s=a \\\nTwo/open=to the end ;\nTwo/nul=a\n"
                            "two/last=\xED\x95\x9C\xEA\xB8\x80\n";
    for (const size_t step : {text.size(), size_t{1}}) {
        kestal_ini_t *opened = kestal_open_ini();
        for (size_t at = 0; at < text.size(); at += step)
            EXPECT_EQ(kestal_push_ini(opened, text.data() + at, std::min(step, text.size() - at)), 0);
        EXPECT_EQ(kestal_search_ini_value(opened, "two", "last"), nullptr);
        EXPECT_EQ(kestal_end_ini(opened), 0);
        EXPECT_EQ(entries(opened), expected);
    }
}

TEST_F(ini, finds_the_last_of_a_name)
{
    const kestal_test::temporary_directory folder;
    kestal_ini_t *opened = kestal_load_ini(folder.file("ini", "a=0\n[S]\nA=1\nb=2\n[t]\na=3\n[s]\na=4").c_str());
    for (const auto &[section, name, value] :
         {std::tuple("S", "a", "4"), {"s", "B", "2"}, {"T", "a", "3"}, {nullptr, "a", "0"}, {"t", "b", nullptr}})
        EXPECT_STREQ(kestal_search_ini_value(opened, section, name), value);
    kestal_close_ini(opened);
    EXPECT_EQ(kestal_load_ini(folder.file("large", std::string(KESTAL_INI_LIMIT + 1, '\n')).c_str()), nullptr);
}

TEST_F(ini, splits_parameter_lists)
{
    for (const auto &[text, expected] :
         {std::pair("a=\"\\\"q\\\\\" , junk\", b=it's 'so, c=;d", "/a=\"q\\\n/junk\"=\n/b=it's 'so\n/c=;d\n"),
          {" a\r\n = \r\n\tb c\t,=x,\"y\"=z,d==,e=\"open, \\", "/a=b c\n/\"y\"=z\n/d==\n/e=open, \\\n"},
          {"a=1,[s],A=\"2\"x=3,,b=,c", "/a=1\n/[s]=\n/A=2\n/b=\n/c=\n"},
          {nullptr, ""}})
        EXPECT_EQ(entries(kestal_parse_ini_parameters(text)), expected);
}

TEST_F(ini, ends_at_its_limit_and_without_memory)
{
    kestal_ini_t *opened = kestal_open_ini();
    EXPECT_EQ(kestal_set_ini_limit(opened, 8), 0);
    EXPECT_EQ(kestal_push_ini_string(opened, "a=1\nb=2"), 0);
    EXPECT_EQ(kestal_push_ini_string(opened, "\n\n"), -1);
    kestal_set_ini_limit(opened, 0);
    EXPECT_EQ(kestal_push_ini_string(opened, "c") + kestal_end_ini(opened), -2) << "for good";
    EXPECT_EQ(entries(opened), "/a=1\n");
    EXPECT_EQ(kestal_push_ini(nullptr, "a", 1) + kestal_end_ini(nullptr) + kestal_set_ini_limit(nullptr, 0), -3);
    const kestal_test::temporary_directory folder;
    const std::string path = folder.file("ini", "[s]\n" + std::string(5000, 'a') + "=b\n");
    EXPECT_GE(kestal_test::with_each_allocation_failing([&] {
                  kestal_close_ini(kestal_load_ini(path.c_str()));
                  kestal_close_ini(kestal_parse_ini_parameters("a=\"b\", c=d"));
              }),
              8u);
}

} // namespace
