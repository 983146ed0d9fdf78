/**
 * @file
 * TFTP client (RFC 1350): reads a file from a server in blocks of 512 bytes, each acknowledged before the next is sent.
 * Over datagrams, as servers have it, or in a variant of its own over a stream connection, where a packet has to arrive
 * in one piece.
 *
 * A transfer belongs to whoever opened it, and its last block's data stay valid until the next call on it. One thread at
 * a time uses it; different transfers are independent of each other. Nothing is sent a second time: a time-out ends the
 * transfer as failed, and it is the server that repeats a block whose acknowledgement was lost. Block numbers go on at 0
 * behind 65535, so the length of a file is not limited.
 *
 * Write requests can be sent; sending data is the caller's own, through m_socket and m_server_address.
 *
 *     kestal_tftp_t *tftp = kestal_open_tftp(0, "tftp://192.0.2.1/boot/image", 5000);
 *     int32_t length = kestal_tftp_read_request(tftp, NULL, NULL, 5000) == 0 ? 1 : -1;
 *     while (length > 0 && (length = kestal_tftp_read_data(tftp, 5000)) > 0)
 *         store(tftp->m_data, length);
 *     kestal_close_tftp(tftp); // length 0: all of it came; -1: errno tells why it did not
 */
#ifndef KESTAL_ULX_TFTP_H
#define KESTAL_ULX_TFTP_H

#include <kestal_ulx/base.h>
#include <kestal_ulx/uri.h>

#include <sys/socket.h>

KESTAL_BEGIN_DECLS

/** The port of servers that say nothing else. */
#define KESTAL_TFTP_PORT INT32_C(69)

/** The data bytes of every block but the last. */
#define KESTAL_TFTP_BLOCK_SIZE UINT64_C(512)

/** The room for one packet, in bytes. */
#define KESTAL_TFTP_PACKET_SIZE 1024

/* States of a transfer. */
#define KESTAL_TFTP_FAILED INT32_C(-1)   /**< failed, or nothing requested yet */
#define KESTAL_TFTP_RECEIVING INT32_C(0) /**< blocks are under way */
#define KESTAL_TFTP_COMPLETE INT32_C(1)  /**< the last block is here */

/** A transfer. */
typedef struct kestal_tftp {
    uint32_t m_stream;                                    /**< 1: over a connected stream socket; 0: over datagrams */
    kestal_uri_t *m_uri;                                  /**< the server's location */
    uint32_t m_local_address_length;                      /**< bytes of the next field */
    struct sockaddr_storage m_local_address;              /**< what was bound to: the any-address, port 0 */
    uint32_t m_server_address_length;                     /**< bytes of the next field */
    struct sockaddr_storage m_server_address;             /**< where requests go */
    int32_t m_socket;                                     /**< -1 when there is none */
    uint8_t *m_packet;                                    /**< m_packet_buffer */
    uint32_t m_block;                                     /**< number of the last block received, 0 to 65535 */
    int32_t m_state;                                      /**< KESTAL_TFTP_FAILED and its like */
    uint64_t m_data_length;                               /**< bytes of data in the last block */
    uint8_t *m_data;                                      /**< the last block's data; a NUL stands behind them */
    uint8_t m_packet_buffer[KESTAL_TFTP_PACKET_SIZE + 1]; /**< one packet, and room for a NUL */
} kestal_tftp_t;

#if KESTAL_POINTER_IS_64_BIT
KESTAL_STATIC_ASSERT(offsetof(kestal_tftp_t, m_server_address) == 160, "layout of the TFTP transfer");
KESTAL_STATIC_ASSERT(offsetof(kestal_tftp_t, m_data_length) == 312, "layout of the TFTP transfer");
KESTAL_STATIC_ASSERT(offsetof(kestal_tftp_t, m_packet_buffer) == 328, "layout of the TFTP transfer");
#endif

/**
 * Opens a transfer with the server that `uri` names, such as "tftp://host:port/path"; null: the local machine. Without a
 * port it is that of the service "tftp", else 69. The host is looked up within 60 seconds, and the first of its addresses
 * that works is taken. With `stream` 1 that is a connection made within `timeout_ms` (milliseconds; negative: no limit);
 * with 0 a datagram socket, and nothing is sent yet.
 *
 * Returns the transfer, to be closed with kestal_close_tftp; null when the host is unknown, no address works, or memory
 * is short.
 */
KESTAL_API kestal_tftp_t *kestal_open_tftp(uint32_t stream, const char *uri, int32_t timeout_ms);

/**
 * Begins to read a file: sends a read request within `timeout_ms` (negative: no limit), whatever became of a transfer
 * before it; over datagrams from another local port, so that nothing that comes late for that one is taken. A null
 * `filename` is the location's path, percent-decoded, without its leading "/"; a null `mode` is "octet" (RFC 1350 has
 * "netascii" too, which is received as it comes).
 *
 * Returns 0, or -1 when it could not be sent or `tftp` is null. A file that is missing shows with the first read.
 */
KESTAL_API int32_t kestal_tftp_read_request(kestal_tftp_t *tftp, const char *filename, const char *mode,
                                            int32_t timeout_ms);

/** Sends a write request; parameters and result as of kestal_tftp_read_request. The transfer's state stays as it is. */
KESTAL_API int32_t kestal_tftp_write_request(kestal_tftp_t *tftp, const char *filename, const char *mode,
                                             int32_t timeout_ms);

/**
 * Receives the next block, within `timeout_ms` (negative: no limit), and acknowledges it. Over datagrams a block that came
 * before is acknowledged again and passed over, and the next one has `timeout_ms` anew (64 times at most, so that a read
 * ends whatever comes); and whoever sent the first block sends all: packets from elsewhere are passed over in silence, and
 * give no time. Over a stream a repeated block ends the transfer.
 *
 * Returns the number of bytes, which are at m_data: 512 while there is more, fewer (0 too) with the last block, and 0
 * ever after. -1 when the transfer failed, and until the next read request: a time-out (errno ETIMEDOUT), a packet that
 * is none of a read transfer (EPROTO), or the server's refusal (ENOENT no such file, EACCES, ENOSPC, EEXIST, EPERM no
 * such user, else EPROTO; its message then stands at m_data); EINVAL when nothing was requested.
 */
KESTAL_API int32_t kestal_tftp_read_data(kestal_tftp_t *tftp, int32_t timeout_ms);

/** Closes the socket and releases the transfer. Returns 0; -1 for null. */
KESTAL_API int32_t kestal_close_tftp(kestal_tftp_t *tftp);

KESTAL_END_DECLS

#endif
