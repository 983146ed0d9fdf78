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
    const kestal_test::temporary_directory directory;
    directory.file("bare.so", "no library at all\n");
    const std::string full = std::string(plugins) + "/bare.so", broken = directory.path("");
    const std::string behind = ":/nowhere:" + std::string(5000, 'd') + ":" + broken + ":" + plugins;
    const struct {
        const char *path, *search_path;
        int answer;
    } cases[] = {
        {full.c_str(), "/nowhere", 42}, {"bare.so", plugins, 42}, {"bare.so", behind.c_str(), 42},
        {"bare.so", nullptr, -2},       {"bare.so", "", -2},      {"./bare.so", plugins, -2},
        {"libc.so.6", plugins, -1},     {nullptr, plugins, -1},   {"", nullptr, -1},
    };
    char error[300];
    for (const auto &c : cases) {
        void *library = kestal_open_dynamic_library_ex(c.path, c.search_path, mode, error, sizeof error);
        EXPECT_EQ(library == nullptr ? -2 : answer(library), c.answer) << (c.path ? c.path : "null");
        EXPECT_EQ(error[0] == '\0', library != nullptr) << error;
        EXPECT_EQ(kestal_close_dynamic_library(library), nullptr);
    }
    // The error is about the file that was found.
    EXPECT_EQ(kestal_open_dynamic_library_ex("bare.so", broken.c_str(), mode, error, sizeof error), nullptr);
    EXPECT_EQ(std::strncmp(error, broken.c_str(), broken.size()), 0) << error;
    EXPECT_EQ(kestal_open_dynamic_library_ex("bare.so", nullptr, mode, error, 5), nullptr);
    EXPECT_STREQ(error, "bare");
}

} // namespace
