// Bytes as the packets of a server, each led by its length in two bytes: a transfer takes no more than came, and writes
// nothing beyond the packet.
#include "fuzz.hpp"

#include <algorithm>
#include <netinet/in.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const int32_t server = kestal_open_udp_socket("127.0.0.1", -1);
    static kestal_tftp_t *const tftp = kestal_open_tftp(0, "tftp://127.0.0.1:9", 0);
    kestal_tftp_read_request(tftp, "x", nullptr, 0);
    sockaddr_in client = {};
    uint32_t client_size = sizeof client;
    kestal_getsockname(tftp->m_socket, &client, &client_size);
    client.sin_addr.s_addr = kestal_be32_order(INADDR_LOOPBACK);
    tftp->m_packet_buffer[KESTAL_TFTP_PACKET_SIZE] = 0;
    while (size >= 2 && tftp->m_state == KESTAL_TFTP_RECEIVING) {
        const size_t wanted = static_cast<size_t>(bytes[0] << 8 | bytes[1]) % 1200;
        const std::string packet(reinterpret_cast<const char *>(bytes + 2), std::min(wanted, size - 2));
        bytes += 2 + packet.size();
        size -= 2 + packet.size();
        require(kestal_sendto(server, packet.data(), packet.size(), &client, sizeof client, 1000) >= 0);
        const uint32_t next = tftp->m_block + 1;
        const int32_t length = kestal_tftp_read_data(tftp, 0);
        const bool is_next =
            packet.starts_with(std::string{0, 3, static_cast<char>(next >> 8), static_cast<char>(next)});
        require((length >= 0) == (is_next && packet.size() <= 516) &&
                tftp->m_packet_buffer[KESTAL_TFTP_PACKET_SIZE] == 0);
        require(tftp->m_state == (length == 512 ? 0 : length < 0 ? -1 : 1));
        require(length < 0 || packet.substr(4) == std::string(tftp->m_data, tftp->m_data + length));
    }
    char ignored[16];
    while (kestal_recv(server, ignored, sizeof ignored, 0) >= 0)
        ;
    return 0;
}
