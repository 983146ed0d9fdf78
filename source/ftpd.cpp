#include <kestal_ulx/ftpd.h>

#include <kestal_ulx/address.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/short_lock.h>
#include <kestal_ulx/socket.h>
#include <kestal_ulx/thread.h>

#include "ftpd_command.hpp"
#include "ftpd_data.hpp"
#include "ftpd_login.hpp"
#include "guard.hpp"
#include "list.hpp"
#include "timer.hpp"

#include <atomic>
#include <errno.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <string_view>
#include <sys/eventfd.h>

struct kestal_ftpd {
    int32_t sock;
    int32_t stop; // an event counter, readable for good once the server is stopped
    kestal::socket_address local;
    kestal_ftpd_account_t *account_head;
    kestal_ftpd_account_t *account_tail;
    std::atomic<int32_t> command_ms;
    std::atomic<int32_t> send_ms;
    std::atomic<int32_t> data_ms;
    std::atomic<uint32_t> users; // the owner and every session, which ends with its use: the last one releases
    std::atomic<uint32_t> most_sessions;
};

namespace {

using kestal::ftpd_line;
using kestal::ftpd_session;
using kestal::socket_address;

constexpr int backlog = 128;
constexpr uint32_t owner = 1; // of the users
constexpr int32_t close_ms = 5000;
constexpr uint64_t stack_size = 512 << 10;

// --- the server

// Without a text any address. On an IPv6 socket an IPv4 address is one mapped to IPv6.
bool parse_address(const char *text, int32_t family, uint32_t port, socket_address &address)
{
    if (text == nullptr)
        text = family == AF_INET6 ? "::" : "0.0.0.0";
    char mapped[KESTAL_ADDRESS_TEXT_SIZE];
    if (family == AF_INET6 && kestal_inet_pton(AF_INET, text, nullptr) == 0) {
        kestal_snprintf(mapped, sizeof mapped, "::ffff:%s", text);
        text = mapped;
    }
    return kestal_inet_ptos(family, text, port, &address, sizeof address) == 0 &&
           kestal_sockaddr_set_port(&address, port) == 0;
}

int32_t open_socket(int32_t &family)
{
    for (const int32_t each : {AF_INET6, AF_INET}) {
        family = each;
        const int32_t sock = socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
        if (sock != KESTAL_INVALID_SOCKET)
            return sock;
    }
    return KESTAL_INVALID_SOCKET;
}

// A listening socket, and the address that it got.
int32_t listen_on(const char *text, uint32_t port, socket_address &address)
{
    int32_t family = AF_UNSPEC;
    kestal::owned_descriptor sock(open_socket(family));
    if (sock.get() < 0 || !parse_address(text, family, port, address))
        return KESTAL_INVALID_SOCKET;
    const int32_t both_families = 0;
    if (family == AF_INET6)
        kestal_setsockopt(sock.get(), IPPROTO_IPV6, IPV6_V6ONLY, &both_families, sizeof both_families);
    kestal_set_reuse_address_socket(sock.get(), 1);
    uint32_t size = kestal_sockaddr_size(&address);
    if (kestal_bind(sock.get(), &address, size) != 0 || kestal_listen(sock.get(), backlog) != 0 ||
        kestal_getsockname(sock.get(), &address, &size) != 0)
        return KESTAL_INVALID_SOCKET;
    return sock.release();
}

bool is_stopped(const kestal_ftpd &server)
{
    pollfd stop = {server.stop, POLLIN, 0};
    return poll(&stop, 1, 0) != 0;
}

// Out of descriptors or memory a connection stays in the backlog, and would be found again at once.
void pause_when_exhausted(int error)
{
    if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM)
        kestal_load_balance_long();
    errno = error;
}

void leave(kestal_ftpd *server)
{
    if (server->users.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    while (server->account_head != nullptr) {
        kestal_ftpd_account_t *account = server->account_head;
        server->account_head = account->m_next;
        kestal_ftpd_free_account(account);
    }
    if (server->stop >= 0)
        close(server->stop);
    kestal_free(server);
}

void close_listener(kestal_ftpd &server)
{
    if (server.sock != KESTAL_INVALID_SOCKET)
        kestal_close_socket(std::exchange(server.sock, KESTAL_INVALID_SOCKET));
}

// --- sessions

// While it lives, a transfer to a client that has gone fails without a signal to the process.
class pipe_signal_blocked {
public:
    pipe_signal_blocked()
    {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &previous_);
    }
    ~pipe_signal_blocked()
    {
        const timespec at_once = {};
        if (sigismember(&previous_, SIGPIPE) == 0)
            sigtimedwait(&pipe_, nullptr, &at_once);
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    pipe_signal_blocked(const pipe_signal_blocked &) = delete;
    pipe_signal_blocked &operator=(const pipe_signal_blocked &) = delete;

private:
    sigset_t pipe_;
    sigset_t previous_;
};

// One use of the server, counted from before the session's thread begins.
struct visit {
    kestal_ftpd *server;
    ftpd_session *session;
};

// Null when there are as many as may be, or without memory.
visit *new_visit(kestal_ftpd *server, int32_t sock)
{
    const uint32_t most = server->most_sessions.load(std::memory_order_relaxed);
    if (server->users.fetch_add(1, std::memory_order_relaxed) - owner >= most) {
        leave(server);
        return nullptr;
    }
    const kestal::ftpd_timeouts timeouts = {server->command_ms.load(std::memory_order_relaxed),
                                            server->send_ms.load(std::memory_order_relaxed),
                                            server->data_ms.load(std::memory_order_relaxed)};
    auto *fresh = static_cast<visit *>(kestal_alloc(sizeof(visit)));
    ftpd_session *session =
        fresh == nullptr ? nullptr : kestal::ftpd_new_session(server->account_head, timeouts, sock, server->stop);
    if (session == nullptr) {
        kestal_check_free(fresh);
        leave(server);
        return nullptr;
    }
    *fresh = {server, session};
    return fresh;
}

void turn_away(int32_t sock)
{
    constexpr std::string_view reply = "421 Service not available !\r\n";
    kestal_sys_send(sock, reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    kestal_close_socket(sock);
}

void end_visit(visit *ended)
{
    kestal_ftpd *server = ended->server;
    ftpd_forget_data(*ended->session);
    ftpd_log_out(*ended->session);
    ftpd_free_session(ended->session);
    kestal_free(ended);
    leave(server);
}

void set_up(int32_t sock)
{
    const int32_t on = 1;
    kestal_setsockopt(sock, SOL_SOCKET, SO_OOBINLINE, &on, sizeof on);
    kestal_setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    kestal_setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // 226 follows close upon 150
    kestal_set_linger_socket(sock, 1, 0);
}

// The life of a session.
void run_visit(void *argument)
{
    auto *given = static_cast<visit *>(argument);
    ftpd_session &session = *given->session;
    const pipe_signal_blocked guard;
    set_up(session.control);
    bool goes_on = ftpd_reply(session, 220, "KESTAL FTP Server");
    while (goes_on && !session.is_over) {
        const ftpd_line line = ftpd_next_line(session);
        goes_on = line.text != nullptr && ftpd_execute(session, line);
    }
    end_visit(given);
}

} // namespace

kestal_ftpd_t *kestal_open_ftpd(const char *address, int32_t port)
{
    auto *server = static_cast<kestal_ftpd *>(kestal_calloc(1, sizeof(kestal_ftpd)));
    if (server == nullptr)
        return nullptr;
    server->users = owner;
    server->most_sessions = UINT32_MAX;
    server->command_ms = KESTAL_FTPD_COMMAND_TIMEOUT;
    server->send_ms = KESTAL_FTPD_SEND_TIMEOUT;
    server->data_ms = KESTAL_FTPD_DATA_TIMEOUT;
    server->stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    server->sock = listen_on(address, static_cast<uint32_t>(port == -1 ? KESTAL_FTPD_PORT : port), server->local);
    if (server->stop >= 0 && server->sock != KESTAL_INVALID_SOCKET)
        return server;
    close_listener(*server);
    leave(server);
    return nullptr;
}

int32_t kestal_close_ftpd(kestal_ftpd_t *server)
{
    if (server == nullptr)
        return -1;
    close_listener(*server);
    kestal_ftpd_stop(server, close_ms);
    leave(server);
    return 0;
}

int32_t kestal_ftpd_do(kestal_ftpd_t *server, int32_t timeout_ms)
{
    if (server == nullptr)
        return -1;
    pollfd both[] = {{server->stop, POLLIN, 0}, {server->sock, POLLIN, 0}};
    const int ready = poll(both, std::size(both), timeout_ms);
    if (ready <= 0 || both[0].revents != 0) {
        if (ready >= 0)
            errno = ready == 0 ? ETIMEDOUT : ECANCELED;
        return -1;
    }
    const int32_t sock = accept4(server->sock, nullptr, nullptr, SOCK_CLOEXEC);
    if (sock == KESTAL_INVALID_SOCKET) {
        pause_when_exhausted(errno);
        return -1;
    }
    visit *fresh = new_visit(server, sock);
    if (fresh == nullptr) {
        turn_away(sock);
        return -1;
    }
    if (kestal_detached_thread_ex(run_visit, fresh, stack_size) == 0)
        return 0;
    fresh->session->has_ended = true; // nothing was said: no farewell
    end_visit(fresh);
    return -1;
}

int32_t kestal_ftpd_serve(kestal_ftpd_t *server, int32_t sock)
{
    visit *fresh = server == nullptr || is_stopped(*server) ? nullptr : new_visit(server, sock);
    if (fresh == nullptr) {
        turn_away(sock);
        return -1;
    }
    run_visit(fresh);
    return 0;
}

int32_t kestal_ftpd_stop(kestal_ftpd_t *server, int32_t timeout_ms)
{
    if (server == nullptr)
        return -1;
    eventfd_write(server->stop, 1);
    const kestal::timer due(timeout_ms < 0 ? 0 : static_cast<uint64_t>(timeout_ms));
    while (kestal_ftpd_get_session_count(server) != 0) {
        if (timeout_ms >= 0 && due.expired())
            return -1;
        kestal_load_balance_short();
    }
    return 0;
}

uint32_t kestal_ftpd_get_session_count(const kestal_ftpd_t *server)
{
    return server == nullptr ? 0 : server->users.load(std::memory_order_acquire) - owner;
}

int32_t kestal_ftpd_get_socket(const kestal_ftpd_t *server)
{
    return server == nullptr ? KESTAL_INVALID_SOCKET : server->sock;
}

uint32_t kestal_ftpd_get_port(const kestal_ftpd_t *server)
{
    return server == nullptr ? 0 : kestal_sockaddr_get_port(&server->local);
}

int32_t kestal_ftpd_set_timeouts(kestal_ftpd_t *server, int32_t command_ms, int32_t send_ms, int32_t data_ms)
{
    if (server == nullptr)
        return -1;
    server->command_ms.store(command_ms, std::memory_order_relaxed);
    server->send_ms.store(send_ms, std::memory_order_relaxed);
    server->data_ms.store(data_ms, std::memory_order_relaxed);
    return 0;
}

int32_t kestal_ftpd_set_session_limit(kestal_ftpd_t *server, uint32_t most)
{
    if (server == nullptr)
        return -1;
    server->most_sessions.store(most == 0 ? UINT32_MAX : most, std::memory_order_relaxed);
    return 0;
}

int32_t kestal_ftpd_add_account(kestal_ftpd_t *server, kestal_ftpd_account_t *account_list)
{
    if (server == nullptr || account_list == nullptr)
        return -1;
    const kestal::doubly_linked_list accounts(&server->account_head, &server->account_tail,
                                              KESTAL_LINKS(kestal_ftpd_account_t, m_prev, m_next));
    while (account_list != nullptr) {
        kestal_ftpd_account_t *next = account_list->m_next;
        accounts.append(account_list);
        account_list = next;
    }
    return 0;
}

int32_t kestal_ftpd_add_user(kestal_ftpd_t *server, kestal_ftpd_account_t **account_out, const char *user,
                             const char *password, const char *home)
{
    if (account_out != nullptr)
        *account_out = nullptr;
    if (user == nullptr || (server == nullptr && account_out == nullptr))
        return -1;
    kestal_ftpd_account_t *account = kestal_ftpd_new_account(user, 0);
    if (account == nullptr)
        return -1;
    if (kestal_ftpd_account_set_plain_password(account, password) != 0 ||
        kestal_ftpd_account_set_path_home(account, home) != 0) {
        kestal_ftpd_free_account(account);
        return -1;
    }
    if (server != nullptr)
        kestal_ftpd_add_account(server, account);
    if (account_out != nullptr)
        *account_out = account;
    return 0;
}
