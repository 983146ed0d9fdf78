#include "stream_ftp.hpp"

#include "guard.hpp"

#include <kestal_ulx/file.h>

#include <poll.h>

namespace kestal {

namespace {

constexpr int32_t done_reply = 250; // what some servers close a transfer with
constexpr int32_t client_timeout = -1;

// Owns a client.
class owned_client {
public:
    owned_client() : client_(kestal_open_ftp()) {}
    ~owned_client()
    {
        const int error = errno;
        kestal_close_ftp(client_);
        errno = error;
    }
    owned_client(const owned_client &) = delete;
    owned_client &operator=(const owned_client &) = delete;

    kestal_ftp_t *get() const { return client_; }
    kestal_ftp_t *operator->() const { return client_; }
    kestal_ftp_t *release() { return std::exchange(client_, nullptr); }

private:
    kestal_ftp_t *client_;
};

// The system's error for a reply that refuses; the one at hand when there was no reply.
int error_of_reply(int32_t code, bool is_upload)
{
    switch (code) {
    case -1:
        return errno;
    case 530: // not logged in
    case 532:
        return EACCES;
    case 450: // no such file, or none that may be touched
    case 550:
    case 553:
        return is_upload ? EACCES : ENOENT;
    case 452:
    case 552:
        return ENOSPC;
    case 554: // no such offset
        return EINVAL;
    case 421:
        return ECONNREFUSED;
    case 425:
    case 426:
    case 451:
        return ECONNABORTED;
    }
    if (code / 100 <= 2) // the server agreed: what failed is at this end, such as connecting for the data
        return errno == 0 || errno == EAGAIN || errno == EINPROGRESS ? EPROTO : errno;
    return code / 10 == 50 || code / 100 == 3 ? EOPNOTSUPP : EPROTO; // a command that the server does not know
}

bool log_in(kestal_ftp_t &client, const stream_request &request, int32_t connect_timeout)
{
    client.m_verbose = request.is_debugging ? 1 : 0;
    const int32_t command_timeout = std::exchange(client.m_command_timeout, connect_timeout);
    if (kestal_ftp_connect(&client, request.source, 0) != 0)
        return false;
    client.m_command_timeout = command_timeout;
    return kestal_ftp_login(&client, nullptr, nullptr, (request.flags & KESTAL_FILE_IMAGE) != 0 ? "I" : "A") == 0;
}

// Opens the data stream. Appending names the place where it goes on.
bool open_stream(kestal_ftp_t &client, ftp_transfer &transfer, const stream_request &request)
{
    const char *path = client.m_uri->m_decoded_path;
    if (path == nullptr)
        return false;
    path += path[0] == '/' ? 1 : 0;
    kestal_ftp_get_size(&client, path, &transfer.size);
    const bool is_appending = (request.flags & KESTAL_FILE_APPEND) != 0;
    transfer.position = is_appending ? transfer.size : static_cast<uint64_t>(request.offset);
    const char *mode = is_appending ? "a" : transfer.is_upload ? "w" : "r";
    return kestal_ftp_open_stream(&client, transfer.position, path, mode) == 0;
}

// Hears from the server how the transfer ended.
void end_stream(ftp_transfer &transfer)
{
    transfer.result = kestal_ftp_close_stream(transfer.client);
    if (transfer.client->m_reply_code == done_reply)
        transfer.result = 0;
    transfer.is_over = true;
    transfer.is_incomplete = false;
}

} // namespace

ftp_transfer &ftp_transfer_of(const kestal_ctx_t &ctx)
{
    return *static_cast<ftp_transfer *>(ctx.m_plugin_state);
}

uint32_t open_ftp_transfer(kestal_ctx_t &ctx, const stream_request &request, int32_t connect_timeout)
{
    if (request.offset < 0)
        return KESTAL_CTX_ERROR_BAD_ARGUMENT;
    owned_block<ftp_transfer> transfer(kestal_alloc(sizeof(ftp_transfer)), __func__);
    if (!transfer)
        return KESTAL_CTX_ERROR_NO_MEMORY;
    *transfer.get() = {};
    transfer->is_upload = (request.flags & KESTAL_FILE_WRITE) != 0;
    owned_client client;
    if (client.get() == nullptr)
        return KESTAL_CTX_ERROR_REMOTE;
    errno = 0;
    if (!log_in(*client.get(), request, connect_timeout) || !open_stream(*client.get(), *transfer.get(), request)) {
        errno = error_of_reply(client->m_reply_code, transfer->is_upload);
        return KESTAL_CTX_ERROR_REMOTE;
    }
    transfer->client = client.release();
    ctx.m_plugin_state = transfer.release();
    return KESTAL_CTX_ERROR_NONE;
}

int32_t close_ftp_transfer(kestal_ctx_t &ctx)
{
    const owned_block<ftp_transfer> transfer(std::exchange(ctx.m_plugin_state, nullptr), __func__);
    if (transfer->is_incomplete) {
        kestal_ftp_abort_stream(transfer->client);
        transfer->result = -1;
    } else if (!transfer->is_over) {
        end_stream(*transfer.get());
    }
    kestal_close_ftp(transfer->client);
    return transfer->result;
}

int64_t read_ftp_transfer(kestal_ctx_t &ctx, void *buffer, uint64_t size)
{
    ftp_transfer &transfer = ftp_transfer_of(ctx);
    if (transfer.is_upload) {
        ctx.m_last_error = KESTAL_CTX_ERROR_NOT_SUPPORTED;
        return -1;
    }
    if (size == 0)
        return 0;
    if (!transfer.is_over) {
        const int32_t length = kestal_ftp_recv_stream(transfer.client, buffer, size, client_timeout);
        if (length > 0)
            transfer.position += static_cast<uint64_t>(length);
        transfer.is_incomplete = length < 0 || transfer.position < transfer.size || transfer.size == 0;
        if (length != 0)
            return length;
        end_stream(transfer);
    }
    if (transfer.result != 0)
        errno = error_of_reply(transfer.client->m_reply_code, false);
    return transfer.result;
}

int64_t write_ftp_transfer(kestal_ctx_t &ctx, const void *data, uint64_t size)
{
    ftp_transfer &transfer = ftp_transfer_of(ctx);
    if (!transfer.is_upload) {
        ctx.m_last_error = KESTAL_CTX_ERROR_NOT_SUPPORTED;
        return -1;
    }
    const int32_t length = kestal_ftp_send_stream(transfer.client, data, size, client_timeout);
    transfer.is_incomplete = transfer.is_incomplete || length < 0;
    return length;
}

// --- the kind

namespace {

uint32_t open_ftp(kestal_ctx_t &ctx, stream_request &request)
{
    constexpr int32_t connect_timeout = 24000;
    return request.has_descriptor ? KESTAL_CTX_ERROR_NOT_SUPPORTED : open_ftp_transfer(ctx, request, connect_timeout);
}

int32_t get_size(kestal_ctx_t &ctx, uint64_t &size)
{
    size = ftp_transfer_of(ctx).size;
    return 0;
}

// A stream that has ended is ready, too.
int32_t wait_for_data(kestal_ctx_t &ctx, short events, int32_t timeout)
{
    const ftp_transfer &transfer = ftp_transfer_of(ctx);
    return transfer.is_over ? 1 : wait_for_descriptor(transfer.client->m_data_socket, events, timeout);
}

int32_t is_readable(kestal_ctx_t &ctx, int32_t timeout)
{
    return wait_for_data(ctx, POLLIN, timeout);
}

int32_t is_writable(kestal_ctx_t &ctx, int32_t timeout)
{
    return wait_for_data(ctx, POLLOUT, timeout);
}

} // namespace

constinit const stream_kind ftp_kind = {.code = KESTAL_CTX_KIND_STREAM_FTP,
                                        .types = {"application/ulx_stream_ftp"},
                                        .scheme = "ftp",
                                        .open = open_ftp,
                                        .close = close_ftp_transfer,
                                        .get_size = get_size,
                                        .is_readable = is_readable,
                                        .read = read_ftp_transfer,
                                        .is_writable = is_writable,
                                        .write = write_ftp_transfer};

} // namespace kestal
