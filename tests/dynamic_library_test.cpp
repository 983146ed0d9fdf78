#include "support.hpp"

#include <cstring>
#include <unistd.h>

namespace {

class dynamic_library : public kestal_test::counted {
protected:
    static constexpr const char *plugins = KESTAL_TEST_PLUGINS;
    static constexpr uint32_t mode = KESTAL_DYNAMIC_LIBRARY_NOW | KESTAL_DYNAMIC_LIBRARY_LOCAL;

    static int answer(void *library)
    {
        void *address = kestal_import_dynamic_library(library, "bare_answer");
        return address == nullptr ? -1 : reinterpret_cast<int (*)()>(address)();
    }
};

TEST_F(dynamic_library, is_found_along_the_search_path_or_by_its_own)
{
    const kestal_test::temporary_directory empty;
    const std::string full = std::string(plugins) + "/bare.so";
    const std::string behind = ":" + empty.path(".") + ":" + plugins; // an empty element names no directory
    const std::string too_long = std::string(5000, 'd') + ":" + plugins;
    const struct {
        const char *path, *search_path;
        bool found;
    } cases[] = {
        {full.c_str(), nullptr, true},
        {full.c_str(), empty.path("").c_str(), true},
        {"bare.so", plugins, true},
        {"bare.so", behind.c_str(), true},
        {"bare.so", too_long.c_str(), true},
        {"bare.so", nullptr, false},
        {"bare.so", "", false},
        {"./bare.so", plugins, false}, // a path with "/" is not searched for
        {"libc.so.6", plugins, true},
        {"bare", plugins, false},
    };
    for (const auto &c : cases) {
        void *library = kestal_open_dynamic_library(c.path, c.search_path, mode);
        EXPECT_EQ(library != nullptr, c.found) << c.path << " along " << (c.search_path ? c.search_path : "null");
        if (library != nullptr) {
            EXPECT_EQ(answer(library), std::strstr(c.path, "bare") != nullptr ? 42 : -1);
        }
        EXPECT_EQ(kestal_close_dynamic_library(library), nullptr);
    }
    EXPECT_EQ(kestal_import_dynamic_library(nullptr, "bare_answer"), nullptr);
}

TEST_F(dynamic_library, the_same_library_gives_the_same_handle_and_a_null_path_the_program)
{
    void *first = kestal_open_dynamic_library("bare.so", plugins, mode);
    void *second = kestal_open_dynamic_library("bare.so", plugins, KESTAL_DYNAMIC_LIBRARY_LAZY);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    kestal_close_dynamic_library(first);
    EXPECT_EQ(answer(second), 42);
    EXPECT_EQ(kestal_import_dynamic_library(second, "no_such_name"), nullptr);
    EXPECT_EQ(kestal_import_dynamic_library(second, nullptr), nullptr);

    for (const char *path : {static_cast<const char *>(nullptr), ""}) {
        void *program = kestal_open_dynamic_library(path, plugins, mode);
        ASSERT_NE(program, nullptr);
        EXPECT_EQ(answer(program), -1) << "a local library's names are not the program's";
        EXPECT_NE(kestal_import_dynamic_library(program, "kestal_alloc_tag"), nullptr);
        kestal_close_dynamic_library(program);
    }
    kestal_close_dynamic_library(second);
}

TEST_F(dynamic_library, the_error_is_about_the_file_that_was_found)
{
    const kestal_test::temporary_directory directory;
    directory.file("bare.so", "no library at all\n");
    const std::string broken_only = directory.path("");
    const std::string broken_first = broken_only + ":" + plugins;
    char error[300] = "old";

    EXPECT_EQ(kestal_open_dynamic_library_ex("bare.so", broken_only.c_str(), mode, error, sizeof error), nullptr);
    EXPECT_EQ(std::strncmp(error, broken_only.c_str(), broken_only.size()), 0) << error;
    char cut[5] = "old";
    EXPECT_EQ(kestal_open_dynamic_library_ex("bare.so", nullptr, mode, cut, sizeof cut), nullptr);
    EXPECT_STREQ(cut, "bare");

    void *library = kestal_open_dynamic_library_ex("bare.so", broken_first.c_str(), mode, error, sizeof error);
    EXPECT_EQ(answer(library), 42) << "a broken file does not end the search";
    EXPECT_STREQ(error, "");
    kestal_close_dynamic_library(library);
}

} // namespace
