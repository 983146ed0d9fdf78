// Whole files fetched with the FTP client.
#include "ftp.hpp"
#include "guard.hpp"

#include <kestal_ulx/diagnostics.h>
#include <kestal_ulx/file.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/text.h>

#include <algorithm>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kestal::owned_block;

constexpr uint32_t directory_mode = 0755;

struct request {
    uint32_t flags;
    const char *path;  // remote
    kestal_md5_t *md5; // may be null
    const char *label; // of the progress bar

    bool has(uint32_t flag) const { return (flags & flag) != 0; }
};

void apply_settings(kestal_ftp_t &ftp, uint32_t flags)
{
    if ((flags & KESTAL_FTP_DOWNLOAD_VERBOSE) != 0)
        ftp.m_verbose = 1;
    if ((flags & KESTAL_FTP_DOWNLOAD_NO_TIMEOUT) != 0)
        ftp.m_data_timeout = -1;
}

// Receives the open stream to its end, block by block.
template <typename Store>
bool receive_all(kestal_ftp_t &ftp, const request &wanted, uint64_t size, Store store)
{
    for (;;) {
        const int32_t received = kestal_ftp_recv_stream(&ftp, ftp.m_block, kestal::ftp_block_size, -1);
        if (received <= 0)
            return received == 0;
        const auto length = static_cast<uint64_t>(received);
        if (!store(ftp.m_block, length))
            return false;
        if (wanted.md5 != nullptr)
            kestal_md5_push(wanted.md5, ftp.m_block, length);
        if (wanted.has(KESTAL_FTP_DOWNLOAD_PROGRESS))
            kestal_ftp_download_progress_bar(&ftp, wanted.label, ftp.m_bytes, size);
    }
}

// Transfers the file into `store(data, length)`, which tells whether it went well.
template <typename Store>
bool download(kestal_ftp_t &ftp, const request &wanted, Store store)
{
    apply_settings(ftp, wanted.flags);
    kestal_init_md5(wanted.md5);
    uint64_t size = 0;
    if (kestal_ftp_get_size(&ftp, wanted.path, &size) != 0 && wanted.has(KESTAL_FTP_DOWNLOAD_NEED_SIZE))
        return false;
    if (kestal_ftp_open_stream(&ftp, 0, wanted.path, "r") != 0)
        return false;
    const bool is_whole = receive_all(ftp, wanted, size, store);
    if (wanted.has(KESTAL_FTP_DOWNLOAD_PROGRESS) && ftp.m_bytes > 0)
        kestal_puts("\n");
    if (is_whole)
        return kestal_ftp_close_stream(&ftp) == 0;
    const int error = errno;
    kestal_ftp_abort_stream(&ftp);
    errno = error;
    return false;
}

// --- into a file

// The local file of a download: made when the first bytes come.
class local_file {
public:
    local_file(const char *path, uint32_t mode, bool makes_directories)
        : path_(path), mode_(mode), makes_directories_(makes_directories)
    {}
    ~local_file() { close(); }
    local_file(const local_file &) = delete;
    local_file &operator=(const local_file &) = delete;

    bool is_open() const { return descriptor_ >= 0; }

    bool open()
    {
        if (makes_directories_ && kestal_make_parent_directories(path_, directory_mode) != 0)
            return false;
        constexpr uint32_t flags = KESTAL_FILE_WRITE | KESTAL_FILE_CREATE | KESTAL_FILE_TRUNCATE;
        descriptor_ = kestal_open_file(path_, flags, mode_);
        struct stat status;
        is_regular_ = is_open() && fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode);
        return is_open();
    }

    bool write(const void *data, uint64_t length)
    {
        return (is_open() || open()) && kestal_write_file_all(descriptor_, data, length, -1) == 0;
    }

    // Everything is on the device when it returns true.
    bool finish()
    {
        if (!is_regular_)
            return close();
        const bool is_safe = kestal_sync_file(descriptor_) == 0;
        // File systems without permissions of their own refuse them; the bytes are what counts.
        kestal_set_file_permission(descriptor_, mode_);
        return close() && is_safe;
    }

    void remove()
    {
        if (is_regular_)
            unlink(path_);
    }

private:
    bool close()
    {
        const bool was_open = is_open();
        const int32_t result = was_open ? kestal_close_file(descriptor_) : 0;
        descriptor_ = -1;
        return result == 0;
    }

    const char *path_;
    uint32_t mode_;
    bool makes_directories_;
    bool is_regular_ = false;
    int32_t descriptor_ = -1;
};

bool download_to(kestal_ftp_t &ftp, const request &wanted, const char *local_path, uint32_t mode)
{
    local_file file(local_path, mode, wanted.has(KESTAL_FTP_DOWNLOAD_MAKE_DIRECTORIES));
    bool is_done = download(ftp, wanted, [&](const void *data, uint64_t length) { return file.write(data, length); });
    if (is_done && !file.is_open()) // nothing came: an empty file
        is_done = file.open();
    const int error = errno;
    is_done = file.finish() && is_done;
    if (is_done)
        return true;
    if (wanted.has(KESTAL_FTP_DOWNLOAD_REMOVE))
        file.remove();
    errno = error;
    return false;
}

// --- with a client of its own

template <typename Download>
int32_t download_simply(uint32_t flags, const char *uri, const char *user, const char *password, Download download)
{
    kestal_ftp_t *ftp = kestal_open_ftp();
    if (ftp == nullptr)
        return -1;
    apply_settings(*ftp, flags);
    int32_t result = -1;
    if (kestal_ftp_connect(ftp, uri, 0) == 0 && kestal_ftp_login(ftp, user, password, "I") == 0)
        result = download(ftp);
    kestal_close_ftp(ftp);
    return result;
}

// --- progress

struct unit {
    uint64_t above; // bits per second
    uint64_t divisor;
    const char *text;
};

constexpr unit units[] = {{999999999, 1000000000, "G"}, {999999, 1000000, "M"}, {999, 1000, "K"}, {0, 1, " "}};

} // namespace

int32_t kestal_ftp_download_to_file_with_md5(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path,
                                             const char *local_path, uint32_t file_mode, kestal_md5_t *md5)
{
    const char *path = ftp == nullptr ? nullptr : kestal::ftp_path_or_default(*ftp, remote_path);
    if (path == nullptr)
        return kestal::fail_with(EINVAL);
    const owned_block<char> base(kestal_alloc_basename(path), __func__);
    if (!base)
        return -1;
    const char *local = kestal::is_empty(local_path) ? base.get() : local_path;
    return download_to(*ftp, {flags, path, md5, local}, local, file_mode) ? 0 : -1;
}

int32_t kestal_ftp_download_to_file(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path, const char *local_path,
                                    uint32_t file_mode)
{
    return kestal_ftp_download_to_file_with_md5(ftp, flags, remote_path, local_path, file_mode, nullptr);
}

int32_t kestal_ftp_download_to_buffer_with_md5(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path,
                                               kestal_buffer_t *buffer, kestal_md5_t *md5)
{
    const char *path = ftp == nullptr ? nullptr : kestal::ftp_path_or_default(*ftp, remote_path);
    if (path == nullptr || buffer == nullptr)
        return kestal::fail_with(EINVAL);
    const auto push = [=](const void *data, uint64_t length) {
        return kestal_push_buffer_ex(buffer, data, length, 0) == length;
    };
    return download(*ftp, {flags, path, md5, path}, push) ? 0 : -1;
}

int32_t kestal_ftp_download_to_buffer(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path,
                                      kestal_buffer_t *buffer)
{
    return kestal_ftp_download_to_buffer_with_md5(ftp, flags, remote_path, buffer, nullptr);
}

int32_t kestal_ftp_download_to_ini_with_md5(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path,
                                            kestal_ini_t *ini, kestal_md5_t *md5)
{
    const char *path = ftp == nullptr ? nullptr : kestal::ftp_path_or_default(*ftp, remote_path);
    if (path == nullptr || ini == nullptr)
        return kestal::fail_with(EINVAL);
    const auto push = [=](const void *data, uint64_t length) { return kestal_push_ini(ini, data, length) == 0; };
    return download(*ftp, {flags, path, md5, path}, push) && kestal_end_ini(ini) == 0 ? 0 : -1;
}

int32_t kestal_ftp_download_to_ini(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path, kestal_ini_t *ini)
{
    return kestal_ftp_download_to_ini_with_md5(ftp, flags, remote_path, ini, nullptr);
}

int32_t kestal_ftp_simple_download_to_file_with_md5(uint32_t flags, const char *uri, const char *user,
                                                    const char *password, const char *local_path, uint32_t file_mode,
                                                    kestal_md5_t *md5)
{
    return download_simply(flags, uri, user, password, [=](kestal_ftp_t *ftp) {
        return kestal_ftp_download_to_file_with_md5(ftp, flags, nullptr, local_path, file_mode, md5);
    });
}

int32_t kestal_ftp_simple_download_to_file(uint32_t flags, const char *uri, const char *user, const char *password,
                                           const char *local_path, uint32_t file_mode)
{
    return kestal_ftp_simple_download_to_file_with_md5(flags, uri, user, password, local_path, file_mode, nullptr);
}

int32_t kestal_ftp_simple_download_to_buffer_with_md5(uint32_t flags, const char *uri, const char *user,
                                                      const char *password, kestal_buffer_t *buffer, kestal_md5_t *md5)
{
    return download_simply(flags, uri, user, password, [=](kestal_ftp_t *ftp) {
        return kestal_ftp_download_to_buffer_with_md5(ftp, flags, nullptr, buffer, md5);
    });
}

int32_t kestal_ftp_simple_download_to_buffer(uint32_t flags, const char *uri, const char *user, const char *password,
                                             kestal_buffer_t *buffer)
{
    return kestal_ftp_simple_download_to_buffer_with_md5(flags, uri, user, password, buffer, nullptr);
}

int32_t kestal_ftp_simple_download_to_ini_with_md5(uint32_t flags, const char *uri, const char *user,
                                                   const char *password, kestal_ini_t *ini, kestal_md5_t *md5)
{
    return download_simply(flags, uri, user, password, [=](kestal_ftp_t *ftp) {
        return kestal_ftp_download_to_ini_with_md5(ftp, flags, nullptr, ini, md5);
    });
}

int32_t kestal_ftp_simple_download_to_ini(uint32_t flags, const char *uri, const char *user, const char *password,
                                          kestal_ini_t *ini)
{
    return kestal_ftp_simple_download_to_ini_with_md5(flags, uri, user, password, ini, nullptr);
}

int32_t kestal_ftp_download_progress_bar(kestal_ftp_t *ftp, const char *label, uint64_t done, uint64_t total)
{
    if (ftp == nullptr)
        return -1;
    // Hundredths of a bit per second.
    const uint64_t rate = kestal::scale(ftp->m_bytes, 8 * 1000 * 100, std::max<uint64_t>(ftp->m_elapsed, 1));
    const unit &unit =
        *std::ranges::find_if(units, [=](const auto &each) { return rate / 100 > each.above || each.above == 0; });
    const uint64_t scaled = rate / unit.divisor;
    const uint64_t left = total > done ? total - done : 0;
    // Nothing has come yet: as long as can be shown.
    constexpr uint64_t unknown = 99 * 60 + 59;
    const uint64_t seconds = left == 0 ? 0 : rate == 0 ? unknown : kestal::scale(left, 800, rate);
    return kestal_progress_bar(done, total, nullptr, label, "%10lu, %3lu.%02lu%sbps, ETA %02lu:%02lu", done,
                               scaled / 100, scaled % 100, unit.text, seconds / 60, seconds % 60);
}
