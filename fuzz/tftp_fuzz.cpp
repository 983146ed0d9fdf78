// Bytes as the packets of a server, each led by its length in two bytes: what a transfer takes from them is what a small
// model takes, and nothing is written beyond the packet.
#include "fuzz.hpp"

#include <algorithm>
#include <netinet/in.h>
#include <string>

namespace {

sockaddr_in name_of(int32_t sock)
{
    sockaddr_in name = {};
    uint32_t length = sizeof name;
    kestal_getsockname(sock, &name, &length);
    name.sin_addr.s_addr = kestal_be32_order(INADDR_LOOPBACK);
    return name;
}

// What a read gives for the packet: -1 for a failure, -2 for a block that is passed over.
int expect(const std::string &packet, int &last)
{
    const auto byte = [&](size_t at) { return static_cast<unsigned char>(packet[at]); };
    if (packet.size() < 4 || packet.size() > 516 || byte(0) != 0 || byte(1) != 3)
        return -1;
    if ((byte(2) << 8 | byte(3)) != last + 1)
        return -2;
    ++last;
    return static_cast<int>(packet.size()) - 4;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const int32_t server = kestal_open_udp_socket("127.0.0.1", -1);
    static kestal_tftp_t *const tftp = kestal_open_tftp(0, "tftp://127.0.0.1:9", 0);
    static const sockaddr_in client = name_of(tftp->m_socket);
    kestal_tftp_read_request(tftp, "x", nullptr, 0);
    tftp->m_packet_buffer[KESTAL_TFTP_PACKET_SIZE] = 0;
    int last = 0;
    for (int expected = 512; (expected == 512 || expected == -2) && size >= 2;) {
        const size_t wanted = static_cast<size_t>(bytes[0] << 8 | bytes[1]) % 1200;
        const std::string packet(reinterpret_cast<const char *>(bytes + 2), std::min(wanted, size - 2));
        bytes += 2 + packet.size();
        size -= 2 + packet.size();
        require(kestal_sendto(server, packet.data(), packet.size(), &client, sizeof client, 1000) >= 0);
        expected = expect(packet, last);
        const int32_t length = kestal_tftp_read_data(tftp, 0);
        require(length == std::max(expected, -1) && tftp->m_packet_buffer[KESTAL_TFTP_PACKET_SIZE] == 0);
        if (expected == -2) // without another packet that was a time-out
            tftp->m_state = KESTAL_TFTP_RECEIVING;
        require(tftp->m_state == (expected == 512 || expected == -2 ? 0 : expected < 0 ? -1 : 1));
        if (length > 0)
            require(packet.substr(4) == std::string(tftp->m_data, tftp->m_data + length));
    }
    char ignored[16];
    while (kestal_recv(server, ignored, sizeof ignored, 0) >= 0)
        ;
    return 0;
}
