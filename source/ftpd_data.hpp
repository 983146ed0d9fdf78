// The data connections of an FTP session: announced by PASV and its like or by PORT and EPRT, good for one transfer, and
// only ever to the address of the client.
#pragma once

#include "ftpd_session.hpp"

namespace kestal {

enum class ftpd_listen_result { done, no_socket, no_bind, no_name, no_listen };

// Listens for a data connection on the address that the client has reached, at a port that is stored to data_address.
ftpd_listen_result ftpd_listen(ftpd_session &session);

// Notes where the client listens. `is_extended`: written as for EPRT, else as for PORT. False for what can not be read, and
// for any place but the client's.
bool ftpd_set_target(ftpd_session &session, const char *text, bool is_extended);

// Forgets what was announced.
void ftpd_forget_data(ftpd_session &session);

// Makes the connection that was announced: a non-blocking socket, the caller's; else -1, and in `failure` the reply.
int32_t ftpd_open_data(ftpd_session &session, const char *&failure);

// Sends all; false when the connection fails, stalls, or the transfer is to end.
bool ftpd_send_data(ftpd_session &session, int32_t sock, const void *data, size_t size);

} // namespace kestal
