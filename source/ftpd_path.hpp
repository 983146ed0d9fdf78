// Paths of an FTP session: what a client writes, joined and normalised under its "/", and the files that stand for it,
// opened so that no link and no race leads out of the home folder.
#pragma once

#include <fcntl.h>
#include <limits.h>
#include <string_view>

namespace kestal {

// A normalised path as the client sees it: begins with "/", without empty, "." and ".." parts.
class virtual_path {
public:
    // Joins what the client wrote to its current folder. False when the result is too long.
    bool assign(const char *current, std::string_view argument);

    const char *text() const { return text_; }
    // The same path relative to the home folder; "." for the home itself.
    const char *beneath() const { return is_home() ? "." : text_ + 1; }
    bool is_home() const { return text_[1] == '\0'; }

private:
    bool append(std::string_view parts);
    bool step(std::string_view part);

    char text_[PATH_MAX] = "/";
    size_t length_ = 1;
};

// Opens a relative path beneath the folder `home`, following links that stay in it. -1, errno EXDEV, for what leads out
// of it; else as openat. The descriptor is close-on-exec.
int open_beneath(int home, const char *path, int flags, mode_t mode = 0);

// The two ways of doing so: by the kernel (ENOSYS where it can not), and part by part.
int open_beneath_by_kernel(int home, const char *path, int flags, mode_t mode);
int open_beneath_by_steps(int home, const char *path, int flags, mode_t mode);

// A name in an open folder of the home: what the calls that do not follow the last link (unlinkat and the like) take.
// Lives no longer than the path.
class name_beneath {
public:
    // folder() is -1, and errno tells why, when the folder can not be opened, and for the home itself.
    name_beneath(int home, const virtual_path &path);
    ~name_beneath();
    name_beneath(const name_beneath &) = delete;
    name_beneath &operator=(const name_beneath &) = delete;

    int folder() const { return folder_; }
    const char *name() const { return name_; }

private:
    int folder_ = -1;
    const char *name_;
};

} // namespace kestal
