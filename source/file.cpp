#include <kestal_ulx/file.h>

#include "deadline.hpp"
#include "failure.hpp"
#include "guard.hpp"

#include <algorithm>
#include <array>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kestal::fail_with;

constexpr uint32_t largest_permission = 07777u;

// The flags of the letter that a mode begins with; 0 for any other letter.
uint32_t base_flags(char letter)
{
    switch (letter) {
    case 'r':
        return KESTAL_FILE_READ;
    case 'w':
        return KESTAL_FILE_WRITE | KESTAL_FILE_CREATE | KESTAL_FILE_TRUNCATE;
    case 'a':
        return KESTAL_FILE_WRITE | KESTAL_FILE_CREATE | KESTAL_FILE_APPEND;
    default:
        return 0;
    }
}

// The letters that may follow, and what each adds.
struct modifier {
    char letter;
    uint32_t flags;
};

constexpr std::array modifiers = {
    modifier{'+', KESTAL_FILE_READ | KESTAL_FILE_WRITE},
    modifier{'b', KESTAL_FILE_IMAGE},
    modifier{'t', KESTAL_FILE_TEXT},
    modifier{'x', KESTAL_FILE_EXCLUSIVE},
    modifier{'n', KESTAL_FILE_NONBLOCK},
    modifier{'e', 0},
};

int system_flags(uint32_t flags)
{
    const bool reads = (flags & KESTAL_FILE_READ) != 0, writes = (flags & KESTAL_FILE_WRITE) != 0;
    int result = (reads && writes ? O_RDWR : writes ? O_WRONLY : O_RDONLY) | O_CLOEXEC | O_NOCTTY;
    constexpr struct {
        uint32_t flag;
        int system;
    } table[] = {
        {KESTAL_FILE_CREATE, O_CREAT},   {KESTAL_FILE_TRUNCATE, O_TRUNC},    {KESTAL_FILE_APPEND, O_APPEND},
        {KESTAL_FILE_EXCLUSIVE, O_EXCL}, {KESTAL_FILE_NONBLOCK, O_NONBLOCK},
    };
    for (const auto &entry : table)
        if ((flags & entry.flag) != 0)
            result |= entry.system;
    return result;
}

size_t one_transfer(uint64_t size)
{
    return static_cast<size_t>(std::min(size, uint64_t{SSIZE_MAX}));
}

// A ready pipe takes PIPE_BUF bytes at once; a longer write to a blocking one could outlast any time-out.
size_t one_write(int descriptor, uint64_t size, int32_t timeout)
{
    struct stat status;
    if (timeout < 0 || fstat(descriptor, &status) != 0 || S_ISREG(status.st_mode))
        return one_transfer(size);
    return static_cast<size_t>(std::min(size, uint64_t{PIPE_BUF}));
}

// Transfers when the descriptor is ready, again and again until the transfer is no longer put off. Without a time-out
// the transfer itself may do the waiting.
template <typename Transfer>
int64_t transfer_in_time(int descriptor, short events, int32_t timeout, Transfer transfer)
{
    const kestal::deadline end(timeout);
    bool wait = timeout >= 0;
    for (;;) {
        if (wait && !kestal::wait_for_events(descriptor, events, end))
            return -1;
        const ssize_t done = transfer();
        if (done >= 0 || (errno != EINTR && errno != EAGAIN))
            return done;
        wait = wait || errno == EAGAIN;
    }
}

// Whether the directory stands, made now if it was missing.
bool make_directory(const char *path, uint32_t permission)
{
    struct stat status;
    if (stat(path, &status) != 0)
        return mkdir(path, static_cast<mode_t>(permission & largest_permission)) == 0 || errno == EEXIST;
    return S_ISDIR(status.st_mode) || fail_with(ENOTDIR) == 0;
}

} // namespace

int32_t kestal_parse_file_mode(const char *mode, uint32_t *flags, uint32_t *permission)
{
    uint32_t result = mode == nullptr ? 0 : base_flags(*mode);
    if (result == 0)
        return fail_with(EINVAL);
    uint32_t seen = 0;
    for (++mode; *mode != '\0' && !(*mode >= '0' && *mode <= '7'); ++mode) {
        const auto found = std::ranges::find(modifiers, *mode, &modifier::letter);
        const uint32_t bit = 1u << (found - modifiers.begin());
        if (found == modifiers.end() || (seen & bit) != 0)
            return fail_with(EINVAL);
        seen |= bit;
        result |= found->flags;
    }
    uint32_t bits = *mode == '\0' ? KESTAL_FILE_PERMISSION : 0;
    for (; *mode >= '0' && *mode <= '7' && bits <= largest_permission; ++mode)
        bits = bits * 8u + static_cast<uint32_t>(*mode - '0');
    constexpr uint32_t both_kinds = KESTAL_FILE_IMAGE | KESTAL_FILE_TEXT;
    if (*mode != '\0' || bits > largest_permission || (result & both_kinds) == both_kinds)
        return fail_with(EINVAL);
    if (flags != nullptr)
        *flags = result;
    if (permission != nullptr)
        *permission = bits;
    return 0;
}

int32_t kestal_open_file(const char *path, uint32_t flags, uint32_t permission)
{
    if (path == nullptr || (flags & (KESTAL_FILE_READ | KESTAL_FILE_WRITE)) == 0)
        return fail_with(EINVAL);
    int descriptor = -1;
    do
        descriptor = open(path, system_flags(flags), static_cast<mode_t>(permission & largest_permission));
    while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

int32_t kestal_close_file(int32_t descriptor)
{
    // A signal during close leaves the descriptor closed all the same: no second attempt.
    return close(descriptor) == 0 || errno == EINTR ? 0 : -1;
}

int64_t kestal_read_file(int32_t descriptor, void *data, uint64_t size, int32_t timeout)
{
    return transfer_in_time(descriptor, POLLIN, timeout, [=] { return read(descriptor, data, one_transfer(size)); });
}

int64_t kestal_write_file(int32_t descriptor, const void *data, uint64_t size, int32_t timeout)
{
    const size_t length = one_write(descriptor, size, timeout);
    return transfer_in_time(descriptor, POLLOUT, timeout, [=] { return write(descriptor, data, length); });
}

int64_t kestal_read_file_all(int32_t descriptor, void *data, uint64_t size, int32_t timeout)
{
    uint64_t done = 0;
    int64_t last = 1;
    while (done < size && last > 0) {
        last = kestal_read_file(descriptor, static_cast<char *>(data) + done, size - done, timeout);
        if (last > 0)
            done += static_cast<uint64_t>(last);
    }
    if (last < 0 && done == 0)
        return -1;
    if (last == 0)
        errno = 0;
    return static_cast<int64_t>(done);
}

int32_t kestal_write_file_all(int32_t descriptor, const void *data, uint64_t size, int32_t timeout)
{
    const char *next = static_cast<const char *>(data);
    while (size > 0) {
        const int64_t done = kestal_write_file(descriptor, next, size, timeout);
        if (done < 0)
            return -1;
        next += done;
        size -= static_cast<uint64_t>(done);
    }
    return 0;
}

int64_t kestal_seek_file(int32_t descriptor, int64_t offset, int32_t whence)
{
    return lseek(descriptor, offset, whence);
}

int64_t kestal_get_file_size(int32_t descriptor)
{
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return -1;
    if (S_ISREG(status.st_mode))
        return status.st_size;
    if (!S_ISBLK(status.st_mode))
        return fail_with(ESPIPE);
    const off_t here = lseek(descriptor, 0, SEEK_CUR);
    const off_t size = here < 0 ? -1 : lseek(descriptor, 0, SEEK_END);
    return size < 0 || lseek(descriptor, here, SEEK_SET) < 0 ? -1 : size;
}

int32_t kestal_sync_file(int32_t descriptor)
{
    return fsync(descriptor) == 0 || errno == EINVAL || errno == EROFS ? 0 : -1;
}

int32_t kestal_set_file_permission(int32_t descriptor, uint32_t permission)
{
    return fchmod(descriptor, static_cast<mode_t>(permission & largest_permission));
}

int32_t kestal_make_parent_directories(const char *path, uint32_t permission)
{
    if (path == nullptr)
        return fail_with(EINVAL);
    const kestal::owned_block<char> directory(kestal_strdup(path), __func__);
    if (!directory)
        return fail_with(ENOMEM);
    char *end = strrchr(directory.get(), '/');
    if (end == nullptr || end == directory.get())
        return 0;
    *end = '\0';
    for (char *slash = directory.get(); slash != nullptr;) {
        slash = strchr(slash + 1, '/');
        if (slash != nullptr)
            *slash = '\0';
        if (!make_directory(directory.get(), permission))
            return -1;
        if (slash != nullptr)
            *slash = '/';
    }
    return 0;
}
