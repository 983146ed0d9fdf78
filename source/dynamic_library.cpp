#include <kestal_ulx/dynamic_library.h>

#include <algorithm>
#include <dlfcn.h>
#include <limits.h>
#include <string.h>
#include <string_view>
#include <unistd.h>

namespace {

// Where the caller wants to read why an open failed. Keeps the first text: the one about the file most wanted.
class error_text {
public:
    error_text(char *buffer, uint64_t size) : buffer_(size > 0 ? buffer : nullptr), size_(size)
    {
        if (buffer_ != nullptr)
            buffer_[0] = '\0';
    }

    void keep_first(const char *text)
    {
        if (buffer_ == nullptr || buffer_[0] != '\0' || text == nullptr)
            return;
        const size_t length = strnlen(text, static_cast<size_t>(size_ - 1));
        memcpy(buffer_, text, length);
        buffer_[length] = '\0';
    }

    void clear()
    {
        if (buffer_ != nullptr)
            buffer_[0] = '\0';
    }

private:
    char *buffer_;
    uint64_t size_;
};

int loader_mode(uint32_t flags)
{
    const bool lazy = (flags & KESTAL_DYNAMIC_LIBRARY_LAZY) != 0 && (flags & KESTAL_DYNAMIC_LIBRARY_NOW) == 0;
    const bool global = (flags & KESTAL_DYNAMIC_LIBRARY_GLOBAL) != 0;
    return (lazy ? RTLD_LAZY : RTLD_NOW) | (global ? RTLD_GLOBAL : RTLD_LOCAL);
}

void *open_file(const char *path, int mode, error_text &error)
{
    void *library = dlopen(path, mode);
    if (library == nullptr)
        error.keep_first(dlerror());
    return library;
}

// Tries one directory; a file that is not there leaves no error, so that the text is about one that is.
void *open_in_directory(std::string_view directory, std::string_view file, int mode, error_text &error)
{
    char path[PATH_MAX];
    if (directory.empty() || directory.size() + file.size() + 2 > sizeof path)
        return nullptr;
    char *end = std::copy(directory.begin(), directory.end(), path);
    *end++ = '/';
    end = std::copy(file.begin(), file.end(), end);
    *end = '\0';
    return access(path, F_OK) == 0 ? open_file(path, mode, error) : nullptr;
}

void *open_along(const char *search_path, const char *file, int mode, error_text &error)
{
    for (const char *directory = search_path; *directory != '\0';) {
        const size_t length = strcspn(directory, ":");
        if (void *library = open_in_directory({directory, length}, file, mode, error))
            return library;
        directory += length;
        directory += *directory == ':' ? 1 : 0;
    }
    return nullptr;
}

} // namespace

void *kestal_open_dynamic_library(const char *path, const char *search_path, uint32_t flags)
{
    return kestal_open_dynamic_library_ex(path, search_path, flags, nullptr, 0);
}

void *kestal_open_dynamic_library_ex(const char *path, const char *search_path, uint32_t flags, char *error,
                                     uint64_t error_size)
{
    error_text why(error, error_size);
    const int mode = loader_mode(flags);
    if (path == nullptr || path[0] == '\0')
        return open_file(nullptr, mode, why);

    void *library = nullptr;
    if (search_path != nullptr && strchr(path, '/') == nullptr)
        library = open_along(search_path, path, mode, why);
    if (library == nullptr)
        library = open_file(path, mode, why);
    if (library != nullptr)
        why.clear();
    return library;
}

void *kestal_import_dynamic_library(void *library, const char *name)
{
    return library == nullptr || name == nullptr ? nullptr : dlsym(library, name);
}

void *kestal_close_dynamic_library(void *library)
{
    if (library != nullptr)
        dlclose(library);
    return nullptr;
}
