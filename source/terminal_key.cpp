#include <kestal_ulx/terminal_key.h>

#include "guard.hpp"

#include <kestal_ulx/memory.h>
#include <kestal_ulx/time_stamp.h>

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <string_view>
#include <termios.h>
#include <unistd.h>

struct kestal_terminal_key {
    int descriptor;
    termios settings; // as they were
    size_t filled;
    char ahead[128]; // read, but not handed out yet
};

namespace {

constexpr char escape = 0x1B;
constexpr int32_t pause_in_key_ms = 50;

// Another job is in the terminal's foreground: changing its settings would stop this program.
bool is_in_background(int descriptor)
{
    const pid_t foreground = tcgetpgrp(descriptor);
    return foreground > 0 && foreground != getpgrp();
}

termios raw(termios settings)
{
    settings.c_iflag &= ~static_cast<tcflag_t>(ICRNL | INLCR | IGNCR | IXON | ISTRIP);
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    return settings;
}

// The length of a key code at the beginning of some bytes, 0 when more of it must come.

size_t character_length(std::string_view bytes)
{
    const auto first = static_cast<unsigned char>(bytes.front());
    const size_t length = first < 0xC2 || first > 0xF4 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    for (size_t i = 1; i < length; ++i) {
        if (i == bytes.size())
            return 0;
        if ((bytes[i] & 0xC0) != 0x80)
            return 1;
    }
    return length;
}

// "ESC [", parameters, and the one byte that ends them.
size_t control_sequence_length(std::string_view bytes)
{
    if (bytes.size() > 2 && bytes[2] == '[') // function keys of the Linux console: "ESC [ [ A"
        return bytes.size() > 3 ? 4 : 0;
    for (size_t i = 2; i < bytes.size(); ++i)
        if (bytes[i] < 0x20 || bytes[i] > 0x3F)
            return bytes[i] > 0x3F && bytes[i] < 0x7F ? i + 1 : i;
    return 0;
}

size_t escape_sequence_length(std::string_view bytes)
{
    if (bytes.size() < 2)
        return 0;
    switch (bytes[1]) {
    case escape:
        return 1;
    case '[':
        return control_sequence_length(bytes);
    case 'O':
        return bytes.size() > 2 ? 3 : 0;
    default: {
        const size_t length = character_length({bytes.data() + 1, bytes.size() - 1});
        return length == 0 ? 0 : 1 + length;
    }
    }
}

size_t key_length(const kestal_terminal_key_t &keys)
{
    if (keys.filled == 0)
        return 0;
    const std::string_view bytes(keys.ahead, keys.filled);
    const size_t length = bytes.front() == escape ? escape_sequence_length(bytes) : character_length(bytes);
    return length == 0 && keys.filled == sizeof keys.ahead ? keys.filled : length;
}

int32_t hand_out(kestal_terminal_key_t &keys, size_t length, char *code, uint64_t size)
{
    const size_t fitting = static_cast<size_t>(std::min<uint64_t>(length, size - 1));
    memcpy(code, keys.ahead, fitting);
    code[fitting] = '\0';
    keys.filled -= length;
    memmove(keys.ahead, keys.ahead + length, keys.filled);
    return static_cast<int32_t>(fitting);
}

// Waits for input: 1, 0 when the time is up, -1 on failure.
int wait_for_input(int descriptor, int32_t timeout_ms)
{
    const uint64_t deadline = kestal_time_stamp_msec() + static_cast<uint64_t>(std::max(timeout_ms, 0));
    pollfd waited{.fd = descriptor, .events = POLLIN, .revents = 0};
    int32_t left = timeout_ms;
    for (;;) {
        const int result = poll(&waited, 1, left);
        if (result >= 0 || errno != EINTR)
            return result;
        const uint64_t now = kestal_time_stamp_msec();
        if (timeout_ms >= 0)
            left = now >= deadline ? 0 : static_cast<int32_t>(deadline - now);
    }
}

bool read_ahead(kestal_terminal_key_t &keys)
{
    const ssize_t size = read(keys.descriptor, keys.ahead + keys.filled, sizeof keys.ahead - keys.filled);
    if (size > 0)
        keys.filled += static_cast<size_t>(size);
    return size > 0 || (size < 0 && (errno == EAGAIN || errno == EINTR));
}

} // namespace

kestal_terminal_key_t *kestal_open_terminal_key(const char *path)
{
    kestal::owned_descriptor terminal(
        open(path == nullptr ? "/dev/tty" : path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    termios settings;
    if (terminal.get() < 0 || tcgetattr(terminal.get(), &settings) != 0)
        return nullptr;
    if (is_in_background(terminal.get())) {
        errno = EAGAIN;
        return nullptr;
    }
    auto *keys = static_cast<kestal_terminal_key_t *>(kestal_alloc(sizeof(kestal_terminal_key_t)));
    if (keys == nullptr)
        return nullptr;
    *keys = {.descriptor = terminal.release(), .settings = settings, .filled = 0, .ahead = {}};
    const termios changed = raw(settings);
    tcsetattr(keys->descriptor, TCSANOW, &changed);
    return keys;
}

kestal_terminal_key_t *kestal_close_terminal_key(kestal_terminal_key_t *keys)
{
    if (keys == nullptr)
        return nullptr;
    if (!is_in_background(keys->descriptor))
        tcsetattr(keys->descriptor, TCSANOW, &keys->settings);
    close(keys->descriptor);
    kestal_free(keys);
    return nullptr;
}

int32_t kestal_get_terminal_key_descriptor(const kestal_terminal_key_t *keys)
{
    return keys == nullptr ? -1 : keys->descriptor;
}

int32_t kestal_read_terminal_key(kestal_terminal_key_t *keys, char *code, uint64_t size, int32_t timeout_ms)
{
    if (keys == nullptr || code == nullptr || size == 0)
        return -1;
    for (;;) {
        if (const size_t length = key_length(*keys); length > 0)
            return hand_out(*keys, length, code, size);
        const bool is_within_key = keys->filled > 0;
        const int result = wait_for_input(keys->descriptor, is_within_key ? pause_in_key_ms : timeout_ms);
        if (result == 0 && is_within_key)
            return hand_out(*keys, keys->filled, code, size);
        if (result <= 0)
            return result;
        if (!read_ahead(*keys))
            return -1;
    }
}
