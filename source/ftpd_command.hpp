// The commands of the FTP server and their replies.
#pragma once

#include "ftpd_session.hpp"

namespace kestal {

// Carries out one line: false when a reply could not be sent.
bool ftpd_execute(ftpd_session &session, const ftpd_line &line);

} // namespace kestal
