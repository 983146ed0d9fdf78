// A file of an FTP server as a stream: what the plugins that serve such streams do alike. The context's state is theirs
// from opening to closing.
#pragma once

#include "stream_kind.hpp"

#include <kestal_ulx/ftp.h>

namespace kestal {

// A context's state.
struct ftp_transfer {
    kestal_ftp_t *client;
    uint64_t size;     // of the remote file when it was opened; 0 when unknown
    uint64_t position; // in the file, of what is read next
    bool is_upload;
    bool is_incomplete; // to be aborted
    bool is_over;       // the server has told how it ended
    int32_t result;     // then: 0, or -1
};

ftp_transfer &ftp_transfer_of(const kestal_ctx_t &ctx);

// Connects within `connect_timeout` ms (negative: no limit), logs in and opens the stream that the request asks for. The
// last error, and its cause in errno.
uint32_t open_ftp_transfer(kestal_ctx_t &ctx, const stream_request &request, int32_t connect_timeout);

// Ends the stream: aborts it when it is incomplete. The result is -1 unless all was well.
int32_t close_ftp_transfer(kestal_ctx_t &ctx);

// 0 is the end of the file, for which the server has vouched.
int64_t read_ftp_transfer(kestal_ctx_t &ctx, void *buffer, uint64_t size);
int64_t write_ftp_transfer(kestal_ctx_t &ctx, const void *data, uint64_t size);

} // namespace kestal
