// Bytes as the packets of a server: what a transfer takes from them is what a small model takes, and nothing is written
// beyond the packet. Each packet is led by its length in two bytes.
#include <kestal_ulx.h>

#include <algorithm>
#include <cstdlib>
#include <netinet/in.h>
#include <string>

namespace {

void require(bool holds)
{
    if (!holds)
        std::abort();
}

int port_of(int32_t sock)
{
    sockaddr_in name = {};
    uint32_t length = sizeof name;
    kestal_getsockname(sock, &name, &length);
    return static_cast<int>(kestal_sockaddr_get_port(&name));
}

class model {
public:
    // What read gives for the packet: -2 for nothing yet.
    int take(const std::string &packet)
    {
        const auto byte = [&](size_t at) { return static_cast<unsigned char>(packet[at]); };
        if (packet.size() < 4 || byte(0) != 0 || byte(1) != 3 || packet.size() > 516)
            return -1;
        if ((byte(2) << 8 | byte(3)) != ((last_ + 1) & 0xFFFF))
            return -2;
        last_ = (last_ + 1) & 0xFFFF;
        return static_cast<int>(packet.size() - 4);
    }

private:
    int last_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const int32_t server = kestal_open_udp_socket("127.0.0.1", -1);
    static kestal_tftp_t *const tftp =
        kestal_open_tftp(0, ("tftp://127.0.0.1:" + std::to_string(port_of(server))).c_str(), 1000);
    sockaddr_in client = {};
    client.sin_family = AF_INET;
    client.sin_port = kestal_be16_order(static_cast<uint16_t>(port_of(tftp->m_socket)));
    client.sin_addr.s_addr = kestal_be32_order(INADDR_LOOPBACK);
    model expected;
    char ignored[2048];
    kestal_tftp_read_request(tftp, "x", nullptr, 1000);
    tftp->m_packet_buffer[KESTAL_TFTP_PACKET_SIZE] = 0;
    for (bool goes_on = true; goes_on && size >= 2;) {
        const size_t wanted = static_cast<size_t>(bytes[0] << 8 | bytes[1]) % 1200;
        const std::string packet(reinterpret_cast<const char *>(bytes + 2), std::min(wanted, size - 2));
        bytes += 2 + packet.size();
        size -= 2 + packet.size();
        require(kestal_sendto(server, packet.data(), packet.size(), &client, sizeof client, 1000) >= 0);
        const int answer = expected.take(packet);
        const int32_t length = kestal_tftp_read_data(tftp, 0);
        require(length == (answer == -2 ? -1 : answer));
        if (answer == -2) // a block passed over; without another packet that is a time-out
            tftp->m_state = KESTAL_TFTP_RECEIVING;
        if (answer >= 0)
            require(packet.compare(4, std::string::npos, reinterpret_cast<const char *>(tftp->m_data),
                                   static_cast<size_t>(length)) == 0);
        goes_on = answer == 512 || answer == -2;
        require((tftp->m_state == KESTAL_TFTP_RECEIVING) == goes_on);
        require(tftp->m_packet_buffer[KESTAL_TFTP_PACKET_SIZE] == 0);
    }
    while (kestal_recv(server, ignored, sizeof ignored, 0) >= 0)
        ;
    return 0;
}
