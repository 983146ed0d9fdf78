#include "ftpd_transfer.hpp"

#include <kestal_ulx/memory.h>
#include <kestal_ulx/socket.h>

#include "ftpd_data.hpp"
#include "guard.hpp"

#include <errno.h>
#include <poll.h>
#include <span>
#include <sys/sendfile.h>

namespace {

using kestal::ftpd_session;

constexpr const char *read_failure = "Data read error !";
constexpr const char *send_failure = "Data send error !";
constexpr size_t piece_size = 4 << 20; // moved between two looks at the control connection
constexpr size_t receive_size = 256 << 10;

bool is_passing(int error)
{
    return error == EAGAIN || error == EINTR;
}

// For files that the kernel can not send by itself.
const char *send_by_buffer(ftpd_session &session, int32_t sock, int file)
{
    for (;;) {
        const ssize_t count = read(file, session.data_buffer, sizeof session.data_buffer);
        if (count == 0)
            return nullptr;
        if (count < 0)
            return read_failure;
        if (!ftpd_send_data(session, sock, session.data_buffer, static_cast<size_t>(count)))
            return send_failure;
    }
}

bool write_all(int file, std::span<const char> bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(file, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR)
            return false;
        if (count > 0)
            bytes = bytes.last(bytes.size() - static_cast<size_t>(count));
    }
    return true;
}

} // namespace

namespace kestal {

const char *ftpd_send_file(ftpd_session &session, int32_t sock, int file)
{
    size_t sent = 0;
    for (;;) {
        const ssize_t count = sendfile(sock, file, nullptr, piece_size);
        if (count == 0)
            return nullptr;
        if (count > 0) {
            sent += static_cast<size_t>(count);
            if (sent < piece_size)
                continue;
            sent = 0;
            if (ftpd_is_interrupted(session))
                return send_failure;
            continue;
        }
        if (errno == EINVAL || errno == ENOSYS)
            return send_by_buffer(session, sock, file);
        if (errno == EIO)
            return read_failure;
        if (!is_passing(errno) || ftpd_wait_data(session, sock, POLLOUT) != ftpd_wait_result::ready)
            return send_failure;
    }
}

const char *ftpd_receive_file(ftpd_session &session, int32_t sock, int file)
{
    const owned_block<char> large(kestal_alloc(receive_size), __func__);
    const std::span<char> buffer = large ? std::span(large.get(), receive_size) : std::span(session.data_buffer);
    size_t stored = 0;
    for (;;) {
        const int32_t count = kestal_sys_recv(sock, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count == 0)
            return nullptr;
        if (count > 0) {
            if (!write_all(file, buffer.first(static_cast<size_t>(count))))
                return send_failure;
            stored += static_cast<size_t>(count);
            if (stored < piece_size)
                continue;
            stored = 0;
            if (ftpd_is_interrupted(session))
                return read_failure;
        } else if (!is_passing(errno) || ftpd_wait_data(session, sock, POLLIN) != ftpd_wait_result::ready)
            return read_failure;
    }
}

} // namespace kestal
