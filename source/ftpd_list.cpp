#include "ftpd_list.hpp"

#include <kestal_ulx/format.h>
#include <kestal_ulx/text.h>

#include "ftpd_data.hpp"
#include "guard.hpp"

#include <algorithm>
#include <dirent.h>
#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <time.h>

namespace {

constexpr const char *months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr int64_t recent_seconds = 182 * 86400; // back to which the time of day says more than the year
constexpr size_t line_size = PATH_MAX + NAME_MAX + 256;

// "drwxr-xr-x"
void write_mode(mode_t mode, char (&text)[11])
{
    constexpr struct {
        mode_t type;
        char letter;
    } types[] = {{S_IFDIR, 'd'}, {S_IFLNK, 'l'}, {S_IFCHR, 'c'}, {S_IFBLK, 'b'}, {S_IFIFO, 'p'}, {S_IFSOCK, 's'}};
    constexpr struct {
        int place;
        mode_t bit;
        char letter;
    } specials[] = {{3, S_ISUID, 's'}, {6, S_ISGID, 's'}, {9, S_ISVTX, 't'}};

    memcpy(text, "-rwxrwxrwx", sizeof text);
    for (const auto &[type, letter] : types)
        if ((mode & S_IFMT) == type)
            text[0] = letter;
    for (unsigned i = 0; i < 9; ++i)
        if ((mode & (0400u >> i)) == 0)
            text[1 + i] = '-';
    for (const auto &[place, bit, letter] : specials)
        if ((mode & bit) != 0)
            text[place] = text[place] == 'x' ? letter : static_cast<char>(letter - 'a' + 'A');
}

// Neighbours in a folder mostly have one owner: the last name found is kept.
template <typename Known, typename Find>
const char *name_of(Known &known, uint32_t id, Find find)
{
    if (known.is_known && known.id == id)
        return known.name;
    known.is_known = true;
    known.id = id;
    char memory[4096];
    const char *name = find(memory, sizeof memory);
    if (name != nullptr)
        kestal_snprintf(known.name, sizeof known.name, "%s", name);
    else
        kestal_snprintf(known.name, sizeof known.name, "%u", id);
    return known.name;
}

const char *find_user(uint32_t id, char *memory, size_t size)
{
    passwd entry;
    passwd *found = nullptr;
    return getpwuid_r(id, &entry, memory, size, &found) == 0 && found != nullptr ? found->pw_name : nullptr;
}

const char *find_group(uint32_t id, char *memory, size_t size)
{
    group entry;
    group *found = nullptr;
    return getgrgid_r(id, &entry, memory, size, &found) == 0 && found != nullptr ? found->gr_name : nullptr;
}

// What follows the options, words that begin with "-".
const char *skip_options(const char *argument)
{
    while (*argument == '-') {
        argument += strcspn(argument, " \t");
        argument += strspn(argument, " \t");
    }
    return argument;
}

// A line's bytes as far as they can not be mistaken for its end.
void make_printable(char *text, size_t length)
{
    std::replace_if(
        text, text + length, [](char each) { return static_cast<unsigned char>(each) < ' '; }, '?');
}

} // namespace

namespace kestal {

ftpd_listing::~ftpd_listing()
{
    if (folder_ >= 0)
        close(folder_);
}

bool ftpd_listing::open(const char *argument)
{
    written_ = skip_options(argument);
    if (!path_.assign(session_.current, written_)) {
        errno = ENAMETOOLONG;
        return false;
    }
    folder_ = open_beneath(session_.home, path_.beneath(), O_RDONLY | O_DIRECTORY | O_NONBLOCK);
    if (folder_ >= 0) {
        is_folder_ = true;
        prefix_ = written_;
        return true;
    }
    if (errno == EACCES)
        return false;
    const name_beneath file(session_.home, path_);
    struct stat status;
    if (file.folder() < 0)
        return false;
    name_ = file.name();
    if (fstatat(file.folder(), name_, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return strpbrk(name_, "*?") != nullptr && open_pattern();
    folder_ = openat(file.folder(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    return folder_ >= 0;
}

// The last part of the path is a pattern for the names of the folder before it.
bool ftpd_listing::open_pattern()
{
    const size_t separator = written_.rfind('/');
    prefix_ = {written_.data(), separator == std::string_view::npos ? 0 : separator + 1};
    virtual_path folder;
    folder.assign(path_.text(), "..");
    folder_ = open_beneath(session_.home, folder.beneath(), O_RDONLY | O_DIRECTORY | O_NONBLOCK);
    is_folder_ = true;
    pattern_ = name_;
    return folder_ >= 0;
}

const char *ftpd_listing::send(int32_t sock)
{
    sock_ = sock;
    const bool is_sent = is_folder_ ? send_folder() : send_entry(folder_, name_);
    return is_sent && flush() ? nullptr : "Data send error !";
}

bool ftpd_listing::send_folder()
{
    DIR *folder = fdopendir(folder_);
    if (folder == nullptr)
        return false;
    folder_ = -1;
    bool goes_on = true;
    for (const dirent *entry; goes_on && (entry = readdir(folder)) != nullptr;) {
        const char *name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
            continue;
        // As in a shell, a pattern has to say that it means hidden names.
        if (pattern_ != nullptr &&
            ((name[0] == '.' && pattern_[0] != '.') || kestal_match_wildcard_ex(pattern_, name, 1) == 0))
            continue;
        goes_on = send_entry(dirfd(folder), name);
    }
    closedir(folder);
    return goes_on;
}

bool ftpd_listing::send_entry(int folder, const char *name)
{
    char line[line_size];
    size_t length = 0;
    struct stat status;
    if (!is_long_) {
        const bool is_joined = prefix_.empty() || prefix_.ends_with('/');
        length = static_cast<size_t>(is_folder_ ? kestal_snprintf(line, sizeof line - 2, "%.*s%s%s",
                                                                  static_cast<int>(prefix_.size()), prefix_.data(),
                                                                  is_joined ? "" : "/", name)
                                                : kestal_snprintf(line, sizeof line - 2, "%s", written_.data()));
    } else if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0)
        length = format_line(line, sizeof line - 2, folder, name, status);
    else
        return true; // gone meanwhile
    make_printable(line, length);
    line[length] = '\r';
    line[length + 1] = '\n';
    return put(line, length + 2);
}

size_t ftpd_listing::format_line(char *line, size_t size, int folder, const char *name, const struct stat &status)
{
    char mode[11];
    write_mode(status.st_mode, mode);
    const char *owner = name_of(owner_, status.st_uid,
                                [&](char *memory, size_t room) { return find_user(status.st_uid, memory, room); });
    const char *owners = name_of(group_, status.st_gid,
                                 [&](char *memory, size_t room) { return find_group(status.st_gid, memory, room); });
    tm when = {};
    const time_t changed = status.st_mtime;
    gmtime_r(&changed, &when);

    uint64_t length = kestal_snprintf(
        line, size, "%s%4u %-8s %-8s %8llu %s %2u", mode, static_cast<uint32_t>(status.st_nlink), owner, owners,
        static_cast<uint64_t>(status.st_size), months[when.tm_mon], static_cast<uint32_t>(when.tm_mday));
    const int64_t age = static_cast<int64_t>(time(nullptr)) - changed;
    const auto hour = static_cast<uint32_t>(when.tm_hour);
    if (age < -86400 || age > recent_seconds)
        length += kestal_snprintf(line + length, size - length, " %5u", static_cast<uint32_t>(when.tm_year + 1900));
    else
        length += kestal_snprintf(line + length, size - length, " %02u:%02u", hour, static_cast<uint32_t>(when.tm_min));
    length += kestal_snprintf(line + length, size - length, " %s", name);
    if (!S_ISLNK(status.st_mode))
        return static_cast<size_t>(length);
    char target[PATH_MAX];
    const ssize_t target_length = readlinkat(folder, name, target, sizeof target);
    if (target_length > 0)
        length += kestal_snprintf(line + length, size - length, " -> %.*s", static_cast<int>(target_length), target);
    return static_cast<size_t>(length);
}

bool ftpd_listing::put(const char *line, size_t length)
{
    if (used_ + length > sizeof session_.data_buffer && !flush())
        return false;
    if (length > sizeof session_.data_buffer)
        return ftpd_send_data(session_, sock_, line, length);
    memcpy(session_.data_buffer + used_, line, length);
    used_ += length;
    return true;
}

bool ftpd_listing::flush()
{
    const size_t length = std::exchange(used_, 0);
    return ftpd_send_data(session_, sock_, session_.data_buffer, length);
}

} // namespace kestal
