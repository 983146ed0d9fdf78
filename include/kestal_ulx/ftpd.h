/**
 * @file
 * An FTP server (RFC 959, 2428, 3659 in parts): one listening socket, a detached thread for every control connection, and
 * every path confined to the home of the account, whatever links lie there. Without accounts it serves anybody from the
 * process's own home.
 *
 *     kestal_ftpd_t *server = kestal_open_ftpd(NULL, 2121);
 *     kestal_ftpd_add_user(server, NULL, "joe", "secret", "/srv/joe");
 *     while (!stopped)
 *         kestal_ftpd_do(server, 500);
 *     kestal_close_ftpd(server);
 *
 * The server owns its accounts; add them before the first connection is served. Any thread may call kestal_ftpd_stop while
 * others are in kestal_ftpd_do or kestal_ftpd_serve; they must have returned before the server is closed. Commands are upper
 * case. REST is answered 320: clients that insist on 350 do not resume. Files are sent and stored byte for byte in every
 * type. Data connections go to the address of the control connection's peer only.
 */
#ifndef KESTAL_ULX_FTPD_H
#define KESTAL_ULX_FTPD_H

#include <kestal_ulx/base.h>
#include <kestal_ulx/ftpd_account.h>

KESTAL_BEGIN_DECLS

/** A server: its accounts, its listener and its sessions. */
typedef struct kestal_ftpd kestal_ftpd_t;

/** The port of FTP, which -1 stands for. */
#define KESTAL_FTPD_PORT 21

/* What kestal_ftpd_set_timeouts begins with, in milliseconds. */
#define KESTAL_FTPD_COMMAND_TIMEOUT 300000 /**< for the next command */
#define KESTAL_FTPD_SEND_TIMEOUT 60000     /**< for the peer to take a reply */
#define KESTAL_FTPD_DATA_TIMEOUT 60000     /**< for a data connection, and in it for every further byte */

/**
 * Opens a server that listens for IPv6 and IPv4 alike, or, where the system has no IPv6, for IPv4. `address` is an IPv6 or
 * IPv4 text without port, null for any address; `port` in host order, -1 for 21, 0 for a free one. Null when the address
 * does not parse, the port is taken or memory is short.
 */
KESTAL_API kestal_ftpd_t *kestal_open_ftpd(const char *address, int32_t port);

/**
 * Stops the server as kestal_ftpd_stop does, waits at most five seconds until its sessions have given back all that they
 * held, and releases it with its accounts; a session that takes longer keeps what it needs, and the last one out releases
 * it. 0; -1 for null.
 */
KESTAL_API int32_t kestal_close_ftpd(kestal_ftpd_t *server);

/**
 * Waits at most `timeout_ms` (negative: no limit) for one connection and hands it to a detached thread. 0 when that
 * was done; -1 when none came, it could not be served (it is then closed; beyond the limit of sessions or without memory
 * with a reply 421), a signal came (EINTR) or the server has been stopped (ECANCELED).
 */
KESTAL_API int32_t kestal_ftpd_do(kestal_ftpd_t *server, int32_t timeout_ms);

/**
 * Serves one connected control socket in the calling thread, from the greeting to the end, and closes it: for programs
 * that accept connections themselves. 0; -1, with a reply 421 and the socket closed too, when the server is null, stopped
 * or at its limit of sessions, or memory is short.
 */
KESTAL_API int32_t kestal_ftpd_serve(kestal_ftpd_t *server, int32_t sock);

/**
 * Stops the server for good: waiting calls of kestal_ftpd_do return, connections are no longer taken on, and the sessions
 * end where they are, transfers included. Waits at most `timeout_ms` (negative: no limit) until the last one has ended. 0; -1
 * when some are left, or for null.
 */
KESTAL_API int32_t kestal_ftpd_stop(kestal_ftpd_t *server, int32_t timeout_ms);

/** The number of sessions that have not ended; 0 for null. */
KESTAL_API uint32_t kestal_ftpd_get_session_count(const kestal_ftpd_t *server);

/** The listening socket, to wait on beside others (readable: kestal_ftpd_do will not wait); -1 for null. */
KESTAL_API int32_t kestal_ftpd_get_socket(const kestal_ftpd_t *server);

/** The port that the server listens on, in host order; 0 for null. */
KESTAL_API uint32_t kestal_ftpd_get_port(const kestal_ftpd_t *server);

/**
 * Sets how long sessions that begin from now on wait, in milliseconds (negative: no limit): `command_ms` for the next
 * command, `send_ms` for the peer to take a reply, `data_ms` for a data connection to come up, and in it for every
 * further byte. 0; -1 for null.
 */
KESTAL_API int32_t kestal_ftpd_set_timeouts(kestal_ftpd_t *server, int32_t command_ms, int32_t send_ms,
                                            int32_t data_ms);

/**
 * Sets how many sessions there may be at once: who comes then is told 421 and sent away. 0, with which a server begins,
 * is no limit. Sessions that have begun stay. 0; -1 for null.
 */
KESTAL_API int32_t kestal_ftpd_set_session_limit(kestal_ftpd_t *server, uint32_t most);

/**
 * Appends a whole chain of accounts (linked by m_next, which may be one), which the server owns from now on. Order
 * counts: at login the first account that fits decides. 0; -1 for a null argument.
 */
KESTAL_API int32_t kestal_ftpd_add_account(kestal_ftpd_t *server, kestal_ftpd_account_t *account_list);

/**
 * Makes a plain account and adds it to the server; without a server (null) it is the caller's. Stored to
 * `account_out`, which may be null when there is a server. 0; -1, with null stored, when neither is given or memory is
 * short. A null user name is refused; null `password` and `home` are those of a new account.
 */
KESTAL_API int32_t kestal_ftpd_add_user(kestal_ftpd_t *server, kestal_ftpd_account_t **account_out, const char *user,
                                        const char *password, const char *home);

KESTAL_END_DECLS

#endif
