// Who may log in to an FTP session, and what the session is then.
#pragma once

#include "ftpd_session.hpp"

namespace kestal {

enum class ftpd_login_result { accepted, refused, no_memory };

// Logs in by the server's accounts; anybody when it has none. A null password is the attempt without one.
ftpd_login_result ftpd_log_in(ftpd_session &session, const char *user, const char *password);

// Forgets the account; the thread is again what it was before.
void ftpd_log_out(ftpd_session &session);

} // namespace kestal
