#include "ftp.hpp"

#include "socket_opener.hpp"
#include "uri.hpp"

#include <kestal_ulx/socket.h>
#include <kestal_ulx/text.h>

#include <errno.h>

namespace {

constexpr int32_t code_ready = 220;

void close_queue(kestal_buffer_t *&queue)
{
    queue = kestal_close_buffer(queue);
}

// What a connection needs but its socket.
bool open_queues(kestal_ftp_t &ftp)
{
    ftp.m_send_queue = kestal_open_buffer_ex(KESTAL_BUFFER_WIPE);
    ftp.m_receive_queue = kestal_open_buffer_ex(0);
    ftp.m_block = static_cast<uint8_t *>(kestal_alloc(kestal::ftp_block_size));
    return ftp.m_send_queue != nullptr && ftp.m_receive_queue != nullptr && ftp.m_block != nullptr;
}

int32_t port_of(const kestal_uri_t &uri, int32_t default_port)
{
    if (uri.m_port > 0)
        return uri.m_port;
    return default_port > 0 ? default_port : KESTAL_FTP_DEFAULT_PORT;
}

void choose_data_mode(kestal_ftp_t &ftp)
{
    if (kestal_compare_ignore_case(ftp.m_uri->m_scheme_qualifier, "active") == 0)
        ftp.m_passive = 0;
    else if (kestal_compare_ignore_case(ftp.m_uri->m_scheme_qualifier, "passive") == 0)
        ftp.m_passive = 1;
}

bool connect_control(kestal_ftp_t &ftp, int32_t default_port)
{
    if (ftp.m_control_socket >= 0)
        return true;
    if (kestal::is_empty(ftp.m_uri->m_host)) {
        errno = EINVAL;
        return false;
    }
    ftp.m_control_socket =
        kestal::open_own_connect_socket(ftp.m_uri->m_host, port_of(*ftp.m_uri, default_port), ftp.m_command_timeout);
    return ftp.m_control_socket >= 0;
}

bool note_peer(kestal_ftp_t &ftp)
{
    kestal::socket_address peer{};
    uint32_t length = sizeof peer;
    if (kestal_getpeername(ftp.m_control_socket, &peer, &length) != 0)
        return false;
    ftp.m_family = kestal::family_of(&peer);
    // Urgent bytes stay in their place among the others.
    const int on = 1;
    kestal_setsockopt(ftp.m_control_socket, SOL_SOCKET, SO_OOBINLINE, &on, sizeof on);
    kestal::keep_ftp_socket_alive(ftp.m_control_socket); // long transfers leave it idle
    return true;
}

bool set_up(kestal_ftp_t &ftp, const char *uri, int32_t default_port)
{
    ftp.m_uri = kestal::open_whole_uri(uri);
    if (ftp.m_uri == nullptr)
        return false;
    choose_data_mode(ftp);
    if (!connect_control(ftp, default_port) || !note_peer(ftp) || !open_queues(ftp))
        return false;
    ftp.m_state = KESTAL_FTP_USABLE | KESTAL_FTP_LINE_COMPLETE;
    if (kestal_ftp_command_puts(&ftp, nullptr) != code_ready)
        return false;
    ftp.m_state |= KESTAL_FTP_GREETED;
    return true;
}

} // namespace

kestal_ftp_t *kestal_open_ftp(void)
{
    auto *ftp = static_cast<kestal_ftp_t *>(kestal_calloc(1, sizeof(kestal_ftp_t)));
    if (ftp == nullptr)
        return nullptr;
    ftp->m_command_timeout = 24000;
    ftp->m_data_timeout = 60000;
    ftp->m_password_attempts = 1;
    ftp->m_passive = 1;
    ftp->m_control_socket = ftp->m_listen_socket = KESTAL_INVALID_SOCKET;
    ftp->m_accepted_socket = ftp->m_data_socket = KESTAL_INVALID_SOCKET;
    ftp->m_reply_code = -1;
    ftp->m_reply_line = static_cast<char *>(kestal_calloc(1, kestal::ftp_line_size));
    ftp->m_select = kestal_open_select();
    return ftp->m_reply_line != nullptr && ftp->m_select != nullptr ? ftp : kestal_close_ftp(ftp);
}

kestal_ftp_t *kestal_close_ftp(kestal_ftp_t *ftp)
{
    if (ftp == nullptr)
        return nullptr;
    kestal_ftp_disconnect(ftp);
    kestal_check_free(ftp->m_reply_line);
    kestal_close_select(ftp->m_select);
    kestal_free(ftp);
    return nullptr;
}

int32_t kestal_ftp_set_option(kestal_ftp_t *ftp, int32_t option, int32_t value)
{
    if (ftp == nullptr)
        return -1;
    switch (option) {
    case KESTAL_FTP_OPTION_VERBOSE:
        ftp->m_verbose = value;
        return 0;
    case KESTAL_FTP_OPTION_COMMAND_TIMEOUT:
        ftp->m_command_timeout = value;
        return 0;
    case KESTAL_FTP_OPTION_DATA_TIMEOUT:
        ftp->m_data_timeout = value;
        return 0;
    case KESTAL_FTP_OPTION_ASK_USER:
        ftp->m_ask_user = value;
        return 0;
    case KESTAL_FTP_OPTION_ASK_PASSWORD:
        ftp->m_ask_password = value;
        return 0;
    case KESTAL_FTP_OPTION_PASSWORD_ATTEMPTS:
        ftp->m_password_attempts = value;
        return 0;
    case KESTAL_FTP_OPTION_PASSIVE:
        ftp->m_passive = value;
        return 0;
    case KESTAL_FTP_OPTION_SAME_HOST:
        ftp->m_same_host = value;
        return 0;
    default:
        return -1;
    }
}

int32_t kestal_ftp_connect(kestal_ftp_t *ftp, const char *uri, int32_t default_port)
{
    return kestal_ftp_set_connect_socket(ftp, KESTAL_INVALID_SOCKET, uri, default_port);
}

int32_t kestal_ftp_set_connect_socket(kestal_ftp_t *ftp, int32_t sock, const char *uri, int32_t default_port)
{
    if (ftp == nullptr)
        return -1;
    kestal_ftp_disconnect(ftp);
    ftp->m_control_socket = sock;
    if (set_up(*ftp, uri, default_port))
        return 0;
    const int error = errno;
    kestal_ftp_disconnect(ftp);
    return kestal::fail_with(error);
}

int32_t kestal_ftp_check(kestal_ftp_t *ftp)
{
    if (ftp == nullptr)
        return -1;
    kestal::step_ftp(*ftp, 0);
    return (ftp->m_state & KESTAL_FTP_USABLE) != 0 ? 0 : kestal::fail_with(ENOTCONN);
}

int32_t kestal_ftp_disconnect(kestal_ftp_t *ftp)
{
    if (ftp == nullptr)
        return -1;
    kestal_ftp_disconnect_data(ftp);
    kestal::close_ftp_socket(ftp->m_control_socket);
    close_queue(ftp->m_send_queue);
    close_queue(ftp->m_receive_queue);
    ftp->m_block = static_cast<uint8_t *>(kestal_check_free(ftp->m_block));
    if (ftp->m_uri != nullptr)
        kestal_close_uri(ftp->m_uri);
    ftp->m_uri = nullptr;
    ftp->m_state = 0;
    ftp->m_family = AF_UNSPEC;
    return 0;
}

int32_t kestal_ftp_disconnect_data(kestal_ftp_t *ftp)
{
    if (ftp == nullptr)
        return -1;
    kestal::close_ftp_socket(ftp->m_data_socket);
    kestal::close_ftp_socket(ftp->m_accepted_socket);
    kestal::close_ftp_socket(ftp->m_listen_socket);
    return 0;
}
