/**
 * @file
 * FTP client (RFC 959, RFC 2428, RFC 3659) for scripted transfers: connect to the server that a URI names, log in, send
 * commands and read their replies, move files over passive or active data connections, download into a file, an INI
 * object or a buffer while an MD5 context is fed. FTP protects nothing: passwords and data travel as they are.
 *
 *     kestal_ftp_t *ftp = kestal_open_ftp();
 *     if (kestal_ftp_connect(ftp, "ftp://host/dir/file", 0) == 0 && kestal_ftp_login(ftp, NULL, NULL, "I") == 0)
 *         kestal_ftp_download_to_file(ftp, 0, "dir/file", "file", 0644);
 *     kestal_close_ftp(ftp);
 *
 * The client owns its sockets, its queues and the texts that it returns, which hold until its next command. One thread
 * at a time. Operations block for at most their time-outs and leave the connection as it is when they fail, unless
 * their comment says otherwise; errno tells the cause where a system call failed. Nothing raises SIGPIPE.
 */
#ifndef KESTAL_ULX_FTP_H
#define KESTAL_ULX_FTP_H

#include <kestal_ulx/buffer.h>
#include <kestal_ulx/ini.h>
#include <kestal_ulx/md5.h>
#include <kestal_ulx/select.h>
#include <kestal_ulx/uri.h>

KESTAL_BEGIN_DECLS

/** The port of a server whose location names none. */
#define KESTAL_FTP_DEFAULT_PORT 21

/** State: the control connection is usable. */
#define KESTAL_FTP_USABLE 0x0001u
/** State: the server's greeting was received. */
#define KESTAL_FTP_GREETED 0x0004u
/** State: the last step of the engine sent something. */
#define KESTAL_FTP_SENT 0x0010u
/** State: the last step of the engine received something. */
#define KESTAL_FTP_RECEIVED 0x0020u
/** State of the reply reader: the current line is complete, the next byte begins another. */
#define KESTAL_FTP_LINE_COMPLETE 0x1000u
/** State of the reply reader: the line ended with CR; a LF that follows belongs to it. */
#define KESTAL_FTP_LINE_CR 0x4000u

/** Download flag: sets the client's verbose setting. */
#define KESTAL_FTP_DOWNLOAD_VERBOSE 0x01u
/** Download flag: draws the progress bar after every block, and ends its line at last. */
#define KESTAL_FTP_DOWNLOAD_PROGRESS 0x08u
/** Download flag: sets the client's data time-out to none. */
#define KESTAL_FTP_DOWNLOAD_NO_TIMEOUT 0x10u
/** Download flag: removes the local file when the transfer failed. */
#define KESTAL_FTP_DOWNLOAD_REMOVE 0x20u
/** Download flag: makes the missing directories on the way to the local file (mode 0755). */
#define KESTAL_FTP_DOWNLOAD_MAKE_DIRECTORIES 0x40u
/** Download flag: fails when the server does not tell the file's size; otherwise the size then counts as 0. */
#define KESTAL_FTP_DOWNLOAD_NEED_SIZE 0x80u

/** The settings of a client that kestal_ftp_set_option sets; each is the field of that name. */
enum {
    KESTAL_FTP_OPTION_VERBOSE = 1,
    KESTAL_FTP_OPTION_COMMAND_TIMEOUT = 2,
    KESTAL_FTP_OPTION_DATA_TIMEOUT = 3,
    KESTAL_FTP_OPTION_ASK_USER = 4,
    KESTAL_FTP_OPTION_ASK_PASSWORD = 5,
    KESTAL_FTP_OPTION_PASSWORD_ATTEMPTS = 6,
    KESTAL_FTP_OPTION_PASSIVE = 7,
    KESTAL_FTP_OPTION_SAME_HOST = 8
};

/** A client: the settings may be written at any time, everything behind them is to be read only. */
typedef struct kestal_ftp {
    int32_t m_verbose;           /**< not 0: every reply line is echoed to standard output; 0 */
    int32_t m_command_timeout;   /**< for connecting and each reply line, in ms, -1 for none; 24000. A reply of many
                                      lines has 64 times as long, and a minute at least */
    int32_t m_data_timeout;      /**< for data connections and each read or write of them, in ms, -1 for none; 60000 */
    int32_t m_ask_user;          /**< not 0: an unknown user is asked for with "Username: "; 0 */
    int32_t m_ask_password;      /**< not 0: an unknown password is asked for with "Password: ", with retries; 0 */
    int32_t m_password_attempts; /**< the most passwords sent when they are asked for, -1 for no limit; 1 */
    int32_t m_passive;           /**< 1: the client opens data connections, 0: the server does; 1 */
    kestal_uri_t *m_uri;         /**< the server, null when not connected */
    uint32_t m_state;            /**< KESTAL_FTP_USABLE and its like */
    int32_t m_family;            /**< address family of the control connection's peer, AF_ value */
    int32_t m_control_socket;    /**< the sockets: -1 when closed */
    int32_t m_listen_socket;     /**< waits for the server's data connection (active mode) */
    int32_t m_accepted_socket;   /**< the server's data connection before its stream is open (active mode) */
    int32_t m_data_socket;       /**< the data connection */
    kestal_buffer_t *m_send_queue;    /**< commands on their way */
    kestal_buffer_t *m_receive_queue; /**< what the server sent and was not yet read as a reply */
    uint8_t *m_block;                 /**< room for 65536 bytes of input and output */
    char *m_reply_line;               /**< the current reply line without its end */
    uint64_t m_reply_length;          /**< its length */
    int32_t m_reply_code;             /**< the code of the last reply, -1 before any */
    const char *m_reply_text;         /**< the text behind the code, inside the line; null before any */
    uint64_t m_start_time;            /**< of the transfer, on the clock of kestal_time_stamp_msec */
    uint64_t m_elapsed;               /**< ms since then, up to the last block */
    uint64_t m_bytes;                 /**< moved by the transfer */
    uint64_t m_bytes_per_second;      /**< on the average of the transfer */
    kestal_select_t *m_select;        /**< what the engine waits with */
    int32_t m_same_host; /**< not 0: data connections only with the host of the control connection, whatever
                                       address the server's reply names; 0 */
} kestal_ftp_t;

/* --- the client */

/** A new client with the defaults above, not connected; null when memory is short. */
KESTAL_API kestal_ftp_t *kestal_open_ftp(void);

/** Disconnects (without a QUIT) and releases the client. Returns null; null is let pass. */
KESTAL_API kestal_ftp_t *kestal_close_ftp(kestal_ftp_t *ftp);

/**
 * Sets one of the KESTAL_FTP_OPTION_ settings; it holds from the next operation on. 0, or -1 (null, unknown option).
 */
KESTAL_API int32_t kestal_ftp_set_option(kestal_ftp_t *ftp, int32_t option, int32_t value);

/* --- connection */

/** kestal_ftp_set_connect_socket that opens the connection itself. */
KESTAL_API int32_t kestal_ftp_connect(kestal_ftp_t *ftp, const char *uri, int32_t default_port);

/**
 * Drops any earlier connection, connects to the host of a URI and reads the greeting, of which only 220 succeeds. A URI
 * without a port takes `default_port`, or 21 when that is not positive. Its scheme chooses the data mode:
 * "ftp@active://host/", "ftp@passive://host/"; otherwise the setting stays. `sock` other than -1 is a socket that is
 * connected already; it is the client's from then on, also when the call fails. 0; -1, disconnected.
 */
KESTAL_API int32_t kestal_ftp_set_connect_socket(kestal_ftp_t *ftp, int32_t sock, const char *uri,
                                                 int32_t default_port);

/**
 * Logs in and sets the transfer type (RFC 959: "I" image, "A" ASCII; null means "I"), to which any reply will do.
 *
 * The user is the one given, else the URI's (percent-decoded), else asked for where the setting says so, else
 * "anonymous"; the password the one given, else the URI's, else asked for where the setting says so and the user is not
 * anonymous, else the built-in one that is sent for anonymous users. Where passwords are asked for, a 530 asks again
 * until the attempts are used up. Questions go to the standard output sink, answers come from standard input, a
 * password without echo on a terminal; it is overwritten afterwards. 0, or -1.
 */
KESTAL_API int32_t kestal_ftp_login(kestal_ftp_t *ftp, const char *user, const char *password, const char *type);

/** 0 while the control connection is usable, as far as can be seen without waiting; else -1. */
KESTAL_API int32_t kestal_ftp_check(kestal_ftp_t *ftp);

/** Closes all connections and releases queues and URI; settings stay. Sends no QUIT. 0; -1 for null. */
KESTAL_API int32_t kestal_ftp_disconnect(kestal_ftp_t *ftp);

/** Closes the data connection and what was prepared for one. 0; -1 for null. */
KESTAL_API int32_t kestal_ftp_disconnect_data(kestal_ftp_t *ftp);

/* --- commands: the reply's code (of which m_reply_text holds the text), or -1 without a complete reply */

/**
 * Sends a text as it stands (with its own line end; null only reads a reply) and reads the next complete reply: up to
 * the first line that begins with a digit and has a blank as its fourth character. Lines end with CR, LF or CR LF; of a
 * line above 16,383 bytes the rest is dropped. The command time-out starts anew with every line.
 */
KESTAL_API int32_t kestal_ftp_command_puts(kestal_ftp_t *ftp, const char *text);

/** kestal_ftp_command_puts of a formatted text (the formatter's grammar). */
KESTAL_API int32_t kestal_ftp_command_printf(kestal_ftp_t *ftp, const char *format, ...);

/** kestal_ftp_command_printf with an argument list. */
KESTAL_API int32_t kestal_ftp_command_vprintf(kestal_ftp_t *ftp, const char *format, va_list list);

/*
 * One call per command of RFC 959, 2428, 2389 and 3659. An argument that is null, or that holds a CR or LF (and so
 * would be more than one command), is refused with -1 and errno EINVAL; where "may be null" stands, null or empty
 * leaves it out.
 */

/** HELP; the command to explain may be null. */
KESTAL_API int32_t kestal_ftp_help(kestal_ftp_t *ftp, const char *command);

/** OPTS: sets an option of the server ("UTF8 ON"). */
KESTAL_API int32_t kestal_ftp_opts(kestal_ftp_t *ftp, const char *option);

/** SITE: a command of the server's own. */
KESTAL_API int32_t kestal_ftp_site(kestal_ftp_t *ftp, const char *command);

/** USER. */
KESTAL_API int32_t kestal_ftp_user(kestal_ftp_t *ftp, const char *user);

/** PASS; the queued text is overwritten once it was sent. */
KESTAL_API int32_t kestal_ftp_pass(kestal_ftp_t *ftp, const char *password);

/** ACCT. */
KESTAL_API int32_t kestal_ftp_acct(kestal_ftp_t *ftp, const char *account);

/** QUIT; the connection stays the client's to close. */
KESTAL_API int32_t kestal_ftp_quit(kestal_ftp_t *ftp);

/** NOOP. */
KESTAL_API int32_t kestal_ftp_noop(kestal_ftp_t *ftp);

/** SYST. */
KESTAL_API int32_t kestal_ftp_syst(kestal_ftp_t *ftp);

/** TYPE: "I", "A", "A N", "L 8". */
KESTAL_API int32_t kestal_ftp_type(kestal_ftp_t *ftp, const char *type);

/** MODE: "S", "B" or "C". */
KESTAL_API int32_t kestal_ftp_mode(kestal_ftp_t *ftp, const char *mode);

/** STRU: "F", "R" or "P". */
KESTAL_API int32_t kestal_ftp_stru(kestal_ftp_t *ftp, const char *structure);

/** SIZE. */
KESTAL_API int32_t kestal_ftp_size(kestal_ftp_t *ftp, const char *path);

/** MDTM. */
KESTAL_API int32_t kestal_ftp_mdtm(kestal_ftp_t *ftp, const char *path);

/** STAT; the path may be null. */
KESTAL_API int32_t kestal_ftp_stat(kestal_ftp_t *ftp, const char *path);

/** CWD. */
KESTAL_API int32_t kestal_ftp_cwd(kestal_ftp_t *ftp, const char *path);

/** CDUP. */
KESTAL_API int32_t kestal_ftp_cdup(kestal_ftp_t *ftp);

/** PWD. */
KESTAL_API int32_t kestal_ftp_pwd(kestal_ftp_t *ftp);

/** RNFR. */
KESTAL_API int32_t kestal_ftp_rnfr(kestal_ftp_t *ftp, const char *path);

/** RNTO. */
KESTAL_API int32_t kestal_ftp_rnto(kestal_ftp_t *ftp, const char *path);

/** DELE. */
KESTAL_API int32_t kestal_ftp_dele(kestal_ftp_t *ftp, const char *path);

/** RMD. */
KESTAL_API int32_t kestal_ftp_rmd(kestal_ftp_t *ftp, const char *path);

/** MKD. */
KESTAL_API int32_t kestal_ftp_mkd(kestal_ftp_t *ftp, const char *path);

/** REST with an offset in bytes. */
KESTAL_API int32_t kestal_ftp_rest(kestal_ftp_t *ftp, uint64_t offset);

/** PORT with its argument ready made; kestal_ftp_active makes one. */
KESTAL_API int32_t kestal_ftp_port(kestal_ftp_t *ftp, const char *argument);

/** EPRT, likewise. */
KESTAL_API int32_t kestal_ftp_eprt(kestal_ftp_t *ftp, const char *argument);

/** PASV; kestal_ftp_passive also connects. */
KESTAL_API int32_t kestal_ftp_pasv(kestal_ftp_t *ftp);

/** EPSV for a protocol: 1 IPv4, 2 IPv6. */
KESTAL_API int32_t kestal_ftp_epsv(kestal_ftp_t *ftp, int32_t protocol);

/** ABOR; kestal_ftp_abort_stream also ends the data connection. */
KESTAL_API int32_t kestal_ftp_abor(kestal_ftp_t *ftp);

/* --- what servers are asked for */

/** The server's system, the text of its reply 215 to SYST; else null. */
KESTAL_API const char *kestal_ftp_get_system(kestal_ftp_t *ftp);

/**
 * The size of a remote file in bytes (SIZE, 213), stored to `out_size` (may be null). 0; -1, and 0 stored, without
 * one.
 */
KESTAL_API int32_t kestal_ftp_get_size(kestal_ftp_t *ftp, const char *path, uint64_t *out_size);

/** Changes the server's current directory (CWD, 250). 0, or -1. */
KESTAL_API int32_t kestal_ftp_chdir(kestal_ftp_t *ftp, const char *path);

/** The server's current directory, out of the quotes of its reply 257 to PWD; else null. */
KESTAL_API const char *kestal_ftp_get_pwd(kestal_ftp_t *ftp);

/** Renames a remote file (RNFR, 350, RNTO, 250). 0, or -1. */
KESTAL_API int32_t kestal_ftp_rename(kestal_ftp_t *ftp, const char *from, const char *to);

/** Removes a remote file (DELE, 250). 0, or -1. */
KESTAL_API int32_t kestal_ftp_remove(kestal_ftp_t *ftp, const char *path);

/* --- data streams */

/**
 * Drops any data connection, asks the server for one (PASV for an IPv4 peer, else EPSV) and connects to the address of
 * the reply, with EPSV to that of the control connection's peer. 0, or -1.
 */
KESTAL_API int32_t kestal_ftp_passive(kestal_ftp_t *ftp);

/**
 * Drops any data connection, listens on the control connection's local address and tells the server (PORT for an IPv4
 * peer, else EPRT). The connection is accepted while later replies are read. 0, or -1.
 */
KESTAL_API int32_t kestal_ftp_active(kestal_ftp_t *ftp);

/**
 * Opens a data stream by the first letter of `mode`, in either case: "r" RETR, "w" STOR, "a" APPE, "l" LIST, "n" NLST.
 * The path may be null or empty for the lists; for the others the URI's path, percent-decoded and without one leading
 * "/", stands in for it. An offset other than 0 asks the server to go on there (REST) and fails unless it answers 350;
 * the library's own server answers 320, so it is not resumed from. 0; -1, without a data connection.
 */
KESTAL_API int32_t kestal_ftp_open_stream(kestal_ftp_t *ftp, uint64_t restart_offset, const char *path,
                                          const char *mode);

/**
 * Receives what there is of an open stream, at most `size` bytes, within `timeout_ms` (negative: the client's data
 * time-out). The number of bytes, 0 at the end; -1 on failure, with errno ETIMEDOUT when the time ran out.
 */
KESTAL_API int32_t kestal_ftp_recv_stream(kestal_ftp_t *ftp, void *buffer, uint64_t size, int32_t timeout_ms);

/**
 * Sends as much as the open stream takes at once, at most `size` bytes; waits and fails as kestal_ftp_recv_stream.
 * The number of bytes.
 */
KESTAL_API int32_t kestal_ftp_send_stream(kestal_ftp_t *ftp, const void *data, uint64_t size, int32_t timeout_ms);

/** Closes the data connection, which ends an upload, and reads the closing reply. 0 when that is 226, else -1. */
KESTAL_API int32_t kestal_ftp_close_stream(kestal_ftp_t *ftp);

/**
 * Sends ABOR, closes the data connection and reads the answer, and, as the transfer may have its reply too, one more
 * that comes within a second. 0 when a 226 was among them, else -1.
 */
KESTAL_API int32_t kestal_ftp_abort_stream(kestal_ftp_t *ftp);

/* --- downloads: 0, or -1. `flags` are KESTAL_FTP_DOWNLOAD_ flags; `md5`, initialised here, is fed with every byte. */

/**
 * Downloads a remote file. The local file (null or empty: the remote path's base name, in the current directory) is
 * made with the first block, or at the end of an empty file, in the place of what was there, and has mode `file_mode`
 * in the end, whatever the process's mask; it is synchronised before the call returns. `md5` may be null. On failure
 * the transfer is aborted.
 */
KESTAL_API int32_t kestal_ftp_download_to_file_with_md5(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path,
                                                        const char *local_path, uint32_t file_mode, kestal_md5_t *md5);

/** kestal_ftp_download_to_file_with_md5 without an MD5 context. */
KESTAL_API int32_t kestal_ftp_download_to_file(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path,
                                               const char *local_path, uint32_t file_mode);

/**
 * Downloads a remote file to the end of a buffer queue, where on failure what came stays. `md5` may be null. The flags
 * about local files are without effect.
 */
KESTAL_API int32_t kestal_ftp_download_to_buffer_with_md5(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path,
                                                          kestal_buffer_t *buffer, kestal_md5_t *md5);

/** kestal_ftp_download_to_buffer_with_md5 without an MD5 context. */
KESTAL_API int32_t kestal_ftp_download_to_buffer(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path,
                                                 kestal_buffer_t *buffer);

/**
 * Downloads a remote file into an INI object, which is fed with all of it and ended; on failure it holds what came.
 * `md5` may be null. The flags about local files are without effect.
 */
KESTAL_API int32_t kestal_ftp_download_to_ini_with_md5(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path,
                                                       kestal_ini_t *ini, kestal_md5_t *md5);

/** kestal_ftp_download_to_ini_with_md5 without an MD5 context. */
KESTAL_API int32_t kestal_ftp_download_to_ini(kestal_ftp_t *ftp, uint32_t flags, const char *remote_path,
                                              kestal_ini_t *ini);

/**
 * Connects to the server of a URI, logs in (user and password may be null: the URI's, or anonymous), downloads the file
 * that the URI's path names as image, and disconnects.
 */
KESTAL_API int32_t kestal_ftp_simple_download_to_file_with_md5(uint32_t flags, const char *uri, const char *user,
                                                               const char *password, const char *local_path,
                                                               uint32_t file_mode, kestal_md5_t *md5);

/** kestal_ftp_simple_download_to_file_with_md5 without an MD5 context. */
KESTAL_API int32_t kestal_ftp_simple_download_to_file(uint32_t flags, const char *uri, const char *user,
                                                      const char *password, const char *local_path, uint32_t file_mode);

/** kestal_ftp_simple_download_to_file_with_md5 to the end of a buffer queue. */
KESTAL_API int32_t kestal_ftp_simple_download_to_buffer_with_md5(uint32_t flags, const char *uri, const char *user,
                                                                 const char *password, kestal_buffer_t *buffer,
                                                                 kestal_md5_t *md5);

/** kestal_ftp_simple_download_to_buffer_with_md5 without an MD5 context. */
KESTAL_API int32_t kestal_ftp_simple_download_to_buffer(uint32_t flags, const char *uri, const char *user,
                                                        const char *password, kestal_buffer_t *buffer);

/** kestal_ftp_simple_download_to_file_with_md5 into an INI object. */
KESTAL_API int32_t kestal_ftp_simple_download_to_ini_with_md5(uint32_t flags, const char *uri, const char *user,
                                                              const char *password, kestal_ini_t *ini,
                                                              kestal_md5_t *md5);

/** kestal_ftp_simple_download_to_ini_with_md5 without an MD5 context. */
KESTAL_API int32_t kestal_ftp_simple_download_to_ini(uint32_t flags, const char *uri, const char *user,
                                                     const char *password, kestal_ini_t *ini);

/**
 * Draws the progress of the transfer under way: `done` of `total` bytes, the rate in bits per second and the time left
 * in minutes and seconds, by the client's statistics, on a bar that shows `label` (may be null). The result of
 * kestal_progress_bar; -1 for a null client.
 */
KESTAL_API int32_t kestal_ftp_download_progress_bar(kestal_ftp_t *ftp, const char *label, uint64_t done,
                                                    uint64_t total);

KESTAL_END_DECLS

#endif
