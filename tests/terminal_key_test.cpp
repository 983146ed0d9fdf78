#include "descriptors.hpp"

#include <fcntl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace {

class terminal_key : public kestal_test::descriptors_counted {};

// A terminal whose keys the test presses.
struct terminal {
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    terminal() { EXPECT_EQ(grantpt(master) + unlockpt(master), 0); }
    ~terminal()
    {
        if (master >= 0)
            close(master);
    }
    terminal(const terminal &) = delete;
    terminal &operator=(const terminal &) = delete;

    void press(const std::string &bytes) const
    {
        EXPECT_EQ(write(master, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    termios settings() const
    {
        termios settings;
        EXPECT_EQ(tcgetattr(master, &settings), 0);
        return settings;
    }
};

// The codes of all keys pressed, each with a "|" behind it.
std::string codes(kestal_terminal_key_t *keys)
{
    std::string all;
    char code[KESTAL_TERMINAL_KEY_SIZE];
    while (kestal_read_terminal_key(keys, code, sizeof code, 0) > 0)
        all += std::string(code) + "|";
    return all;
}

TEST_F(terminal_key, hands_out_whole_keys)
{
    const terminal tty;
    const termios before = tty.settings();
    kestal_terminal_key_t *keys = kestal_open_terminal_key(ptsname(tty.master));
    ASSERT_NE(keys, nullptr);
    EXPECT_EQ(tty.settings().c_lflag & (ICANON | ECHO | ISIG), static_cast<tcflag_t>(ISIG));
    tty.press("aq\r\xC3\xA9\x1B[A\x1B[1;5C\x1B[[B\x1BOP\x1Bx\x1B\x1B[3~\xFF\xC3x\x7F");
    EXPECT_EQ(codes(keys), "a|q|\r|\xC3\xA9|\x1B[A|\x1B[1;5C|\x1B[[B|\x1BOP|\x1Bx|\x1B|\x1B[3~|\xFF|\xC3|x|\x7F|");
    tty.press("\x1B");
    EXPECT_EQ(codes(keys), "\x1B|") << "the ESC key";
    tty.press("\x1B[");
    EXPECT_EQ(codes(keys), "\x1B[|");
    tty.press("\x1B[1\x01" + std::string(200, '\xE2'));
    EXPECT_TRUE(codes(keys).starts_with("\x1B[1|\x01|\xE2|"));

    char code[3];
    std::thread late([&] { tty.press("\xE2\x82\xAC"); });
    EXPECT_EQ(kestal_read_terminal_key(keys, code, sizeof code, -1), 2) << "cut";
    late.join();
    EXPECT_STREQ(code, "\xE2\x82");
    EXPECT_EQ(kestal_read_terminal_key(keys, code, sizeof code, 1), 0);

    EXPECT_EQ(kestal_close_terminal_key(keys), nullptr);
    EXPECT_EQ(tty.settings().c_lflag, before.c_lflag);
    EXPECT_EQ(tty.settings().c_iflag, before.c_iflag);
}

TEST_F(terminal_key, ends_with_the_terminal)
{
    terminal tty;
    kestal_terminal_key_t *keys = kestal_open_terminal_key(ptsname(tty.master));
    close(std::exchange(tty.master, -1));
    char code[8];
    EXPECT_EQ(kestal_read_terminal_key(keys, code, sizeof code, -1), -1);
    EXPECT_EQ(kestal_read_terminal_key(keys, code, 0, 0), -1);
    kestal_close_terminal_key(keys);

    EXPECT_EQ(kestal_open_terminal_key("/dev/null"), nullptr);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(kestal_open_terminal_key("/nowhere"), nullptr);
    EXPECT_EQ(kestal_get_terminal_key_descriptor(nullptr), -1);
    EXPECT_EQ(kestal_read_terminal_key(nullptr, code, sizeof code, 0), -1);
    EXPECT_EQ(kestal_close_terminal_key(nullptr), nullptr);
    const terminal other;
    EXPECT_EQ(kestal_test::with_each_allocation_failing(
                  [&] { kestal_close_terminal_key(kestal_open_terminal_key(ptsname(other.master))); }),
              1u);
}

} // namespace
