// The program kestal-get, run as its users run it.

#include "support.hpp"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using kestal_test::noise;

namespace {

class kestal_get : public testing::Test {
protected:
    // Runs a command line of the shell in which $get is the program; gives its exit status.
    int run(const std::string &command)
    {
        const std::string line =
            "cd " + directory_.path("") + " && get=" KESTAL_GET "; (" + command + ") >out 2>err </dev/null";
        const int status = std::system(line.c_str());
        out_ = file("out");
        err_ = file("err");
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // What a command prints.
    std::string output_of(const std::string &command)
    {
        EXPECT_EQ(run(command), 0) << command << ": " << err_;
        return out_;
    }

    std::string file(const std::string &name) const
    {
        std::ostringstream content;
        content << std::ifstream(directory_.path(name)).rdbuf();
        return content.str();
    }

    // The names in the directory, but for the two of run().
    std::string names() { return output_of("echo $(ls -I out -I err)"); }

    kestal_test::temporary_directory directory_;
    std::string out_;
    std::string err_;
};

TEST_F(kestal_get, copies_and_agrees_with_other_programs)
{
    const std::string bytes = noise(1048576 + 17);
    directory_.file("source", bytes);
    const std::string expected =
        output_of("echo \"size    $(stat -c %s source) bytes\";"
                  "echo \"MD5     $(md5sum <source | cut -d' ' -f1)\";"
                  "echo \"SHA-256 $(sha256sum <source | cut -d' ' -f1)\";"
                  "echo \"CRC-32  $(gzip -c source | tail -c8 | od -An -tx4 -N4 | tr -d ' ')\"");
    EXPECT_EQ(output_of("$get source -o copy"), expected);
    EXPECT_TRUE(file("copy") == bytes);
    EXPECT_TRUE(output_of("cat source | $get - | cat") == bytes);
    EXPECT_EQ(err_, expected);
    // What is opened takes the place of no standard stream, also where there is none.
    EXPECT_TRUE(output_of("$get -q source -o other <&- >&-; cat other") == bytes);
    EXPECT_EQ(err_, "");
}

TEST_F(kestal_get, takes_a_part)
{
    directory_.file("digits", "0123456789");
    const std::pair<const char *, const char *> cases[] = {
        {"$get -q --offset 3 --bytes 4 digits", "3456"},
        {"$get -q --bytes 0 digits", ""},
        {"$get -q --offset 3 - <digits", "3456789"},
        {"cat digits | $get -q --offset 3 --bytes 4 -", "3456"},
        {"cat digits | ($get -q --bytes 4 -; echo; cat)", "0123\n456789"}, // takes no more than it is asked for
        {"$get -q --time 0 digits", ""},
    };
    for (const auto &[command, expected] : cases)
        EXPECT_EQ(output_of(command), expected) << command;
}

TEST_F(kestal_get, ends_streams_that_do_not)
{
    ASSERT_EQ(mkfifo(directory_.path("fifo").c_str(), 0600), 0);
    const int open_end = open(directory_.path("fifo").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(run("$get --time 0.1 fifo -o copy"), 0);
    EXPECT_EQ(run("$get --timeout 0.1 fifo -o other"), 1);
    EXPECT_EQ(err_, "kestal-get: fifo: nothing arrives any more\n");
    // The signal comes when the transfer is under way, which its temporary file shows.
    EXPECT_EQ(run("$get fifo -o other & until ls other.* >/dev/null 2>&1; do :; done; kill -TERM $!; wait $!"),
              128 + SIGTERM);
    EXPECT_EQ(names(), "copy fifo\n");
    close(open_end);
}

TEST_F(kestal_get, says_what_went_wrong_and_leaves_the_old_file)
{
    directory_.file("source", noise(200000));
    directory_.file("old", "old");
    directory_.file("digits", "0123456789");
    std::filesystem::create_directory(directory_.path("folder"));
    const std::pair<const char *, const char *> cases[] = {
        {"$get missing -o old", "missing: cannot be opened: No such file or directory"},
        {"$get gopher://host/x -o old", "gopher://host/x: not supported: no plugin opens such a location"},
        {"$get folder -o old", "folder: cannot be read: Is a directory"},
        {"cat digits | $get --offset 11 - -o old", "-: ends before the offset"},
        {"$get source -o nowhere/copy", "nowhere/copy: No such file or directory"},
        {"$get source -o copy >/dev/full", "standard output: No space left on device"},
        {"ulimit -f 100; $get source -o old", "old: File too large"},
        {"$get", "no LOCATION given; --help tells more"},
    };
    for (const auto &[command, message] : cases) {
        EXPECT_EQ(run(command), 1) << command;
        EXPECT_EQ(err_.rfind(std::string("kestal-get: ") + message, 0), 0u) << command << ": " << err_;
        EXPECT_EQ(file("old"), "old") << command;
        std::filesystem::remove(directory_.path("copy"));
    }
    EXPECT_EQ(names(), "digits folder old source\n");
}

TEST_F(kestal_get, draws_a_bar_on_a_terminal)
{
    directory_.file("source", noise(100000));
    // script(1) gives the program a terminal.
    if (run("command -v script") != 0)
        GTEST_SKIP() << "no script(1) here";
    EXPECT_EQ(run("script -qec \"$get source -o copy\" screen"), 0);
    const std::string screen = file("screen");
    EXPECT_NE(screen.find("[\033[1;32m===="), std::string::npos) << screen;
    EXPECT_NE(screen.find(" 100000 of 100000 bytes"), std::string::npos) << screen;
    EXPECT_NE(screen.find("\nsize    100000 bytes"), std::string::npos) << screen;
}

} // namespace
