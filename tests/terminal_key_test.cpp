#include "descriptors.hpp"

#include <fcntl.h>

namespace {

class terminal_key : public kestal_test::descriptors_counted {};

// A terminal whose keys the test presses.
struct terminal {
    const kestal_test::owned_socket master{posix_openpt(O_RDWR | O_NOCTTY)};
    terminal() { EXPECT_EQ(grantpt(master) + unlockpt(master), 0); }

    kestal_terminal_key_t *open() const { return kestal_open_terminal_key(ptsname(master)); }
    void press(const std::string &bytes) const
    {
        EXPECT_EQ(write(master, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
};

// So many key codes, waited for, each with a "|" behind it.
std::string codes(kestal_terminal_key_t *keys, int count)
{
    std::string all;
    char code[KESTAL_TERMINAL_KEY_SIZE];
    for (; count > 0 && kestal_read_terminal_key(keys, code, sizeof code, -1) > 0; --count)
        all += std::string(code) + "|";
    return all;
}

TEST_F(terminal_key, hands_out_whole_keys)
{
    const terminal tty;
    kestal_terminal_key_t *keys = tty.open();
    ASSERT_NE(keys, nullptr);
    tty.press("aq\r\xC3\xA9\x1B[A\x1B[1;5C\x1B[[B\x1BOP\x1Bx\x1B\x1B[3~\xFF\xC3x\x7F");
    EXPECT_EQ(codes(keys, 15), "a|q|\r|\xC3\xA9|\x1B[A|\x1B[1;5C|\x1B[[B|\x1BOP|\x1Bx|\x1B|\x1B[3~|\xFF|\xC3|x|\x7F|");
    for (const char *part : {"\x1B", "\x1B[", "\x1BO", "\xE2\x82"}) { // nothing follows: the ESC key, and beginnings
        tty.press(part);
        EXPECT_EQ(codes(keys, 1), part + std::string("|"));
    }
    tty.press("\x1B[1\x01\x1B[" + std::string(126, '1') + "x");
    EXPECT_EQ(codes(keys, 4), "\x1B[1|\x01|\x1B[" + std::string(KESTAL_TERMINAL_KEY_SIZE - 3, '1') + "|x|");

    tty.press("\xE2\x82\xAC");
    char code[3];
    EXPECT_EQ(kestal_read_terminal_key(keys, code, sizeof code, -1), 2) << "cut";
    EXPECT_STREQ(code, "\xE2\x82");
    EXPECT_EQ(kestal_read_terminal_key(keys, code, sizeof code, 1), 0);

    kestal_close_terminal_key(keys);
}

TEST_F(terminal_key, ends_with_the_terminal)
{
    kestal_terminal_key_t *keys = terminal().open();
    char code[8];
    EXPECT_EQ(kestal_read_terminal_key(keys, code, sizeof code, -1), -1);
    EXPECT_EQ(kestal_read_terminal_key(keys, code, 0, 0), -1);
    kestal_close_terminal_key(keys);

    EXPECT_EQ(kestal_open_terminal_key("/dev/null"), nullptr);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(kestal_get_terminal_key_descriptor(nullptr), -1);
    EXPECT_EQ(kestal_read_terminal_key(nullptr, code, sizeof code, 0), -1);
    EXPECT_EQ(kestal_close_terminal_key(nullptr), nullptr);
    const terminal other;
    EXPECT_EQ(kestal_test::with_each_allocation_failing([&other] { kestal_close_terminal_key(other.open()); }), 1u);
}

} // namespace
