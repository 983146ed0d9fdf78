// Files over an open data connection. Each call gives null, or the reply that tells what failed.
#pragma once

#include "ftpd_session.hpp"

namespace kestal {

// Sends a file from its current place to its end.
const char *ftpd_send_file(ftpd_session &session, int32_t sock, int file);

// Stores what comes, to the end of the connection, from the file's current place on.
const char *ftpd_receive_file(ftpd_session &session, int32_t sock, int file);

} // namespace kestal
