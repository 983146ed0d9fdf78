// Folder listings of LIST and NLST.
#pragma once

#include "ftpd_path.hpp"
#include "ftpd_session.hpp"

#include <sys/stat.h>

namespace kestal {

// What one LIST or NLST shows: a folder, those of its names that fit a pattern, or one file.
class ftpd_listing {
public:
    ftpd_listing(ftpd_session &session, bool is_long) : session_(session), is_long_(is_long) {}
    ~ftpd_listing();
    ftpd_listing(const ftpd_listing &) = delete;
    ftpd_listing &operator=(const ftpd_listing &) = delete;

    // Finds what the argument, options and a path, names. False, errno telling why, when there is no such thing.
    bool open(const char *argument);
    const char *path() const { return path_.text(); }

    // Sends the lines. Null, or the reply that tells what failed.
    const char *send(int32_t sock);

private:
    struct id_name {
        bool is_known = false;
        uint32_t id = 0;
        char name[33] = {};
    };

    bool open_pattern();
    bool send_folder();
    bool send_entry(int folder, const char *name);
    size_t format_line(char *line, size_t size, int folder, const char *name, const struct stat &status);
    bool put(const char *line, size_t length);
    bool flush();

    ftpd_session &session_;
    bool is_long_;
    int32_t sock_ = -1;
    int folder_ = -1;
    bool is_folder_ = false;   // else the one file of that name
    std::string_view prefix_;  // what stands before the names of NLST
    std::string_view written_; // the path as the client wrote it
    const char *pattern_ = nullptr;
    virtual_path path_;
    const char *name_ = nullptr; // its last part
    size_t used_ = 0;            // of the session's data buffer
    id_name owner_;
    id_name group_;
};

} // namespace kestal
