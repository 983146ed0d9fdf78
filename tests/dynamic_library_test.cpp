#include "support.hpp"

#include <cstring>

namespace {

constexpr const char *plugins = KESTAL_TEST_PLUGINS;
constexpr uint32_t mode = KESTAL_DYNAMIC_LIBRARY_NOW | KESTAL_DYNAMIC_LIBRARY_LOCAL;

// What the library's function says; -1 where the library has no such function.
int answer(void *library)
{
    void *address = kestal_import_dynamic_library(library, "bare_answer");
    return address == nullptr ? -1 : reinterpret_cast<int (*)()>(address)();
}

TEST(dynamic_library, is_found_along_the_search_path_or_by_itself)
{
    const std::string full = std::string(plugins) + "/bare.so";
    const std::string behind = ":/nowhere:" + std::string(5000, 'd') + ":" + plugins;
    const struct {
        const char *path, *search_path;
        int answer;
    } cases[] = {
        {full.c_str(), "/nowhere", 42}, {"bare.so", plugins, 42}, {"bare.so", behind.c_str(), 42},
        {"bare.so", nullptr, -2},       {"bare.so", "", -2},      {"./bare.so", plugins, -2},
        {"libc.so.6", plugins, -1},     {nullptr, plugins, -1},   {"", nullptr, -1},
    };
    for (const auto &c : cases) {
        void *library = kestal_open_dynamic_library(c.path, c.search_path, mode);
        EXPECT_EQ(library == nullptr ? -2 : answer(library), c.answer) << (c.path ? c.path : "null");
        EXPECT_EQ(kestal_close_dynamic_library(library), nullptr);
    }
    EXPECT_EQ(answer(nullptr), -1);
}

TEST(dynamic_library, opens_of_one_library_give_one_handle)
{
    void *first = kestal_open_dynamic_library("bare.so", plugins, mode);
    void *second = kestal_open_dynamic_library("bare.so", plugins, KESTAL_DYNAMIC_LIBRARY_LAZY);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    kestal_close_dynamic_library(first);
    EXPECT_EQ(answer(second), 42);
    EXPECT_EQ(kestal_import_dynamic_library(second, nullptr), nullptr);
    kestal_close_dynamic_library(second);
}

TEST(dynamic_library, the_error_is_about_the_file_that_was_found)
{
    const kestal_test::temporary_directory directory;
    directory.file("bare.so", "no library at all\n");
    const std::string broken = directory.path("");
    char error[300], cut[5];
    EXPECT_EQ(kestal_open_dynamic_library_ex("bare.so", broken.c_str(), mode, error, sizeof error), nullptr);
    EXPECT_EQ(std::strncmp(error, broken.c_str(), broken.size()), 0) << error;
    EXPECT_EQ(kestal_open_dynamic_library_ex("bare.so", nullptr, mode, cut, sizeof cut), nullptr);
    EXPECT_STREQ(cut, "bare");

    void *library = kestal_open_dynamic_library_ex("bare.so", (broken + ":" + plugins).c_str(), mode, error, 300);
    EXPECT_EQ(answer(library), 42) << "a broken file does not end the search";
    EXPECT_STREQ(error, "");
    kestal_close_dynamic_library(library);
}

} // namespace
