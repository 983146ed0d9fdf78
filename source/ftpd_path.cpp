#include "ftpd_path.hpp"

#include "guard.hpp"

#include <algorithm>
#include <atomic>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

namespace {

using kestal::owned_descriptor;

constexpr int most_links = 40;
constexpr int most_retries = 64;

bool fail_with(int error)
{
    errno = error;
    return false;
}

// The first part of a path, taken off it together with the separators around it; empty at the end.
std::string_view take_part(std::string_view &path)
{
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    const std::string_view part(path.data(), std::min(path.find('/'), path.size()));
    path.remove_prefix(part.size());
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    return part;
}

bool copy_name(std::string_view part, char (&name)[NAME_MAX + 1])
{
    if (part.size() > NAME_MAX)
        return fail_with(ENAMETOOLONG);
    memcpy(name, part.data(), part.size());
    name[part.size()] = '\0';
    return true;
}

std::string_view without_last_part(std::string_view path)
{
    const size_t separator = path.rfind('/');
    return {path.data(), separator == std::string_view::npos ? 0 : separator};
}

bool is_link(int descriptor)
{
    struct stat status;
    return fstat(descriptor, &status) == 0 && S_ISLNK(status.st_mode);
}

// A walk from the home folder down a path, in which the kernel never follows a link by itself.
class descent {
public:
    explicit descent(int home) : home_(home) {}
    ~descent() { leave(); }
    descent(const descent &) = delete;
    descent &operator=(const descent &) = delete;

    int open(const char *path, int flags, mode_t mode)
    {
        if (!put_in_front(path))
            return -1;
        char name[NAME_MAX + 1];
        for (;;) {
            const std::string_view part = take_part(rest_);
            if (part.empty())
                return openat(folder(), ".", flags | O_CLOEXEC, mode);
            if (!copy_name(part, name))
                return -1;
            if (part == ".")
                continue;
            if (part == "..") {
                if (!step_up())
                    return -1;
                continue;
            }
            const owned_descriptor found(openat(folder(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
            const bool is_last = rest_.empty();
            if (found.get() >= 0 && is_link(found.get()) && !(is_last && (flags & O_NOFOLLOW) != 0)) {
                if (!follow(found.get()))
                    return -1;
            } else if (is_last)
                return openat(folder(), name, flags | O_NOFOLLOW | O_CLOEXEC, mode);
            else if (!step_down(name))
                return -1;
        }
    }

private:
    int folder() const { return folder_ < 0 ? home_ : folder_; }

    void leave()
    {
        if (folder_ >= 0)
            close(folder_);
        folder_ = -1;
    }

    bool step_down(const char *name)
    {
        const size_t length = strlen(name);
        if (depth_ + 1 + length > sizeof entered_)
            return fail_with(ENAMETOOLONG);
        const int next = openat(folder(), name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0)
            return false;
        leave();
        folder_ = next;
        entered_[depth_] = '/';
        memcpy(entered_ + depth_ + 1, name, length);
        depth_ += 1 + length;
        return true;
    }

    // Up is down again from the home: the folder may have been moved out of it meanwhile.
    bool step_up()
    {
        if (depth_ == 0)
            return fail_with(EXDEV);
        char copy[sizeof entered_];
        memcpy(copy, entered_, depth_);
        std::string_view again = without_last_part({copy, depth_});
        leave();
        depth_ = 0;
        while (!again.empty()) {
            char name[NAME_MAX + 1];
            if (!copy_name(take_part(again), name) || !step_down(name))
                return false;
        }
        return true;
    }

    bool follow(int link)
    {
        char target[PATH_MAX];
        const ssize_t length = readlinkat(link, "", target, sizeof target - 1);
        if (length <= 0)
            return false;
        target[length] = '\0';
        if (target[0] == '/')
            return fail_with(EXDEV);
        return ++links_ > most_links ? fail_with(ELOOP) : put_in_front(target);
    }

    // Puts a path, such as a link's target, in front of what is still to be walked.
    bool put_in_front(const char *path)
    {
        const size_t length = strlen(path);
        if (length + 1 + rest_.size() > sizeof to_walk_)
            return fail_with(ENAMETOOLONG);
        char *behind = to_walk_ + length + 1;
        if (!rest_.empty())
            memmove(behind, rest_.data(), rest_.size());
        memcpy(to_walk_, path, length);
        to_walk_[length] = '/';
        rest_ = {to_walk_, rest_.empty() ? length : length + 1 + rest_.size()};
        return true;
    }

    int home_;
    int folder_ = -1; // what entered_ names; -1: the home
    int links_ = 0;
    size_t depth_ = 0;
    char entered_[PATH_MAX]; // "/a/b": none of them a link
    char to_walk_[2 * PATH_MAX];
    std::string_view rest_; // in to_walk_
};

bool kernel_confines()
{
    static constinit std::atomic<int> answer{-1};
    int known = answer.load(std::memory_order_relaxed);
    if (known < 0) {
        const owned_descriptor probe(kestal::open_beneath_by_kernel(AT_FDCWD, ".", O_PATH, 0));
        known = probe.get() >= 0;
        answer.store(known, std::memory_order_relaxed);
    }
    return known != 0;
}

} // namespace

namespace kestal {

bool virtual_path::assign(const char *current, std::string_view argument)
{
    length_ = 1;
    text_[1] = '\0';
    return (argument.starts_with('/') || append(current)) && append(argument);
}

bool virtual_path::append(std::string_view parts)
{
    while (!parts.empty())
        if (!step(take_part(parts)))
            return false;
    return true;
}

bool virtual_path::step(std::string_view part)
{
    if (part.empty() || part == ".")
        return true;
    if (part == "..") {
        length_ = std::max<size_t>(without_last_part({text_, length_}).size(), 1);
        text_[length_] = '\0';
        return true;
    }
    const size_t separator = is_home() ? 0 : 1;
    if (length_ + separator + part.size() >= sizeof text_)
        return false;
    text_[length_] = '/';
    length_ += separator;
    memcpy(text_ + length_, part.data(), part.size());
    length_ += part.size();
    text_[length_] = '\0';
    return true;
}

#if defined(RESOLVE_BENEATH) && defined(SYS_openat2)
int open_beneath_by_kernel(int home, const char *path, int flags, mode_t mode)
{
    open_how how = {};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    if ((flags & O_PATH) == 0)
        how.flags |= O_LARGEFILE; // which the C library adds to its own calls
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    int opened = -1;
    errno = EAGAIN; // something moved while the kernel looked
    for (int i = 0; opened < 0 && errno == EAGAIN && i < most_retries; ++i)
        opened = static_cast<int>(syscall(SYS_openat2, home, path, &how, sizeof how));
    return opened;
}
#else
int open_beneath_by_kernel(int, const char *, int, mode_t)
{
    errno = ENOSYS;
    return -1;
}
#endif

int open_beneath_by_steps(int home, const char *path, int flags, mode_t mode)
{
    descent walk(home);
    return walk.open(path, flags, mode);
}

int open_beneath(int home, const char *path, int flags, mode_t mode)
{
    return kernel_confines() ? open_beneath_by_kernel(home, path, flags, mode)
                             : open_beneath_by_steps(home, path, flags, mode);
}

name_beneath::name_beneath(int home, const virtual_path &path) : name_(strrchr(path.text(), '/') + 1)
{
    if (path.is_home()) {
        errno = EBUSY;
        return;
    }
    char folder[PATH_MAX] = ".";
    const std::string_view above = without_last_part(path.text());
    if (!above.empty()) {
        memcpy(folder, above.data() + 1, above.size() - 1);
        folder[above.size() - 1] = '\0';
    }
    folder_ = open_beneath(home, folder, O_PATH | O_DIRECTORY);
}

name_beneath::~name_beneath()
{
    if (folder_ >= 0)
        close(folder_);
}

} // namespace kestal
